#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <QString>
#include <QTemporaryDir>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/test_certificates.h"
#include "tests/support/wait.h"

namespace orvan::test {

// A program that runs beside the test and dies with it.
//
// Threads:   one thread at a time. The kernel ends the program when the *thread* that started it ends, so
//            start servers on the main thread.
// Ownership: the destructor stops the program.
// Errors:    a missing program is a failure with the name of its Debian package, never a skip.
class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Standard output and error go to `log_path`, standard input is empty. `program` is looked up in PATH
  // and in the sbin folders; `package` is the Debian package that has it.
  ::testing::AssertionResult Start(const std::string& program, const std::vector<std::string>& arguments,
                                   const std::string& log_path, const std::string& package);
  bool Running();
  pid_t pid() const { return pid_; }
  std::string Log() const;  // what it has written so far

  // SIGTERM, and SIGKILL after five seconds. Safe to call again.
  void Stop();

  // Runs a program to its end. A failure tells what it wrote.
  static ::testing::AssertionResult Run(const std::string& program, const std::vector<std::string>& arguments,
                                        const std::string& package, int timeout_ms = 60000);

 private:
  pid_t pid_ = -1;
  std::string log_path_;
};

// A TCP port of 127.0.0.1 that was free a moment ago. Somebody else may take it, so be ready to try again.
int FreePort();

// nginx on free ports of 127.0.0.1: HTTP, and TLS if there are certificates. Both serve the same things.
//
//   NginxServer nginx;
//   nginx.AddFile("a.txt", "hello");
//   ASSERT_TRUE(nginx.Start());
//   Fetch(nginx.Url("/a.txt"));
//
// All settings come before Start(). /nginx-ready and /nginx-status are its own.
class NginxServer {
 public:
  NginxServer();
  ~NginxServer();

  // The folder that is served; an empty one of the server's own if it is not set.
  void SetDocroot(const std::string& folder);
  // Writes a file into the docroot (folders are made); also allowed while the server runs.
  void AddFile(const std::string& path, std::string_view content) const;
  // Presents `name`.crt; "server" is the ordinary certificate. `certificates` outlive the server.
  void UseTls(const TestCertificates& certificates, const std::string& name = "server");
  // Lines of configuration inside each "server { }", or beside it inside "http { }".
  void AddServerLines(const std::string& lines);
  void AddHttpLines(const std::string& lines);

  ::testing::AssertionResult Start();
  void Stop();
  bool Running() { return process_.Running(); }

  int port() const { return port_; }
  int tls_port() const { return tls_port_; }
  QString Url(std::string_view path, std::string_view host = "127.0.0.1") const;
  QString TlsUrl(std::string_view path, std::string_view host = "localhost") const;

  // One line for each request that has ended: "<method> <target> <status> <connection> <user agent>",
  // where <connection> tells connections apart. Written as each request ends, so wait for the number.
  std::vector<std::string> AccessLog() const;
  std::string ErrorLog() const { return process_.Log(); }

 private:
  std::string WriteConfiguration() const;

  QTemporaryDir folder_;
  std::string docroot_;
  std::string server_lines_;
  std::string http_lines_;
  std::string certificate_path_;  // empty without TLS
  std::string key_path_;
  ChildProcess process_;
  int port_ = 0;
  int tls_port_ = 0;
};

// httpbin on a free port: /status/N, /redirect/N, /absolute-redirect/N, /delay/N, /gzip, /anything,
// /cookies/set/a/b, /basic-auth/u/p, /digest-auth/auth/u/p/MD5, /drip, /stream-bytes/N and more.
class HttpbinServer {
 public:
  HttpbinServer();
  ~HttpbinServer();

  ::testing::AssertionResult Start();
  void Stop();
  bool Running() { return process_.Running(); }

  int port() const { return port_; }
  QString Url(std::string_view path, std::string_view host = "127.0.0.1") const;

 private:
  QTemporaryDir folder_;
  ChildProcess process_;
  int port_ = 0;
};

// --- For tests that look at the wire themselves.

// Connects to 127.0.0.1:`port`, sends `bytes` and returns what comes back until the other side closes or
// resets, or `timeout_ms` have gone by. "Connection: close" in the request makes that quick.
std::string RawExchange(int port, std::string_view bytes, int timeout_ms = kWaitMs);

}  // namespace orvan::test
