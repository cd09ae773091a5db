#pragma once

#include <gtest/gtest.h>
#include <QString>
#include <QTemporaryDir>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/test_certificates.h"
#include "tests/support/wait.h"

namespace orvan::test {

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
  std::string Configuration(const std::string& ready_word) const;

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
