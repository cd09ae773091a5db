#pragma once

#include <gtest/gtest.h>

#include <QProcess>
#include <QString>
#include <QTemporaryDir>
#include <functional>

namespace orvan::test {

// A server that runs beside the test on a free port of 127.0.0.1, and dies with it. Started on the main
// thread: the kernel ends it when the thread that started it ends. A missing program is a failure with the
// name of its Debian package, never a skip.
class RealServer {
 public:
  int port() const { return port_; }
  QString Url(const QString& path) const { return QStringLiteral("http://127.0.0.1:%1").arg(port_) + path; }

 protected:
  RealServer() = default;
  ~RealServer();
  QString Path(const QString& name) const { return folder_.filePath(name); }
  QByteArray Read(const QString& name) const;
  void Write(const QString& name, const QByteArray& bytes) const;
  // Runs the program until `ready`, with its output in the file "log".
  ::testing::AssertionResult Launch(const QString& program, const QStringList& arguments,
                                    const QString& packages, const std::function<bool()>& ready);

  int port_ = 0;

 private:
  class Process;
  QTemporaryDir folder_;
  std::unique_ptr<QProcess> process_;
};

// A certificate of the test's own for localhost and 127.0.0.1, which signs itself, made by openssl. Qt
// ignores the environment's settings, so trust is given through Qt's default configuration, for all threads.
class TestCertificate {
 public:
  ::testing::AssertionResult Create();
  QString Path(const char* file) const { return folder_.filePath(QLatin1String(file)); }  // "crt" or "key"
  void Trust() const;
  static void Distrust();  // back to what it was before

 private:
  QTemporaryDir folder_;
};

// nginx: HTTP, and TLS with the certificate. Both serve the same files.
class NginxServer : public RealServer {
 public:
  void AddFile(const QString& name, const QByteArray& bytes) const { Write(name, bytes); }
  // `lines` of configuration go inside "server { }".
  ::testing::AssertionResult Start(const TestCertificate& certificate, const QByteArray& lines);
  int tls_port() const { return tls_port_; }

 private:
  int tls_port_ = 0;
};

// httpbin: /status/N, /redirect/N, /gzip, /anything, /basic-auth/u/p and more.
class HttpbinServer : public RealServer {
 public:
  ::testing::AssertionResult Start();
};

}  // namespace orvan::test
