#include "tests/support/real_server.h"

#include <signal.h>
#include <sys/prctl.h>

#include <QDeadlineTimer>
#include <QFile>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QStandardPaths>
#include <QTcpServer>
#include <QVector>

#include "tests/support/wait.h"

namespace orvan::test {
namespace {

using ::testing::AssertionFailure;
using ::testing::AssertionResult;
using ::testing::AssertionSuccess;

const QSslConfiguration& ConfigurationBeforeTrust() {
  static const QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
  return configuration;
}

// Debian keeps servers in folders that are not in everybody's PATH.
QString FindProgram(const QString& name) {
  const QString found = QStandardPaths::findExecutable(name);
  return found.isEmpty() ? QStandardPaths::findExecutable(name, {"/usr/sbin", "/usr/local/sbin"}) : found;
}

}  // namespace

class RealServer::Process : public QProcess {
 protected:
  void setupChildProcess() override { prctl(PR_SET_PDEATHSIG, SIGTERM); }
};

RealServer::~RealServer() {
  if (!process_) return;
  process_->terminate();
  if (!process_->waitForFinished(5000)) process_->kill();
  process_->waitForFinished();
}

QByteArray RealServer::Read(const QString& name) const {
  QFile file(Path(name));
  return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void RealServer::Write(const QString& name, const QByteArray& bytes) const {
  QFile file(Path(name));
  EXPECT_TRUE(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
}

AssertionResult RealServer::Launch(const QString& program, const QStringList& arguments,
                                   const QString& packages, const std::function<bool()>& ready) {
  process_ = std::make_unique<Process>();
  process_->setProcessChannelMode(QProcess::MergedChannels);
  process_->setStandardOutputFile(Path("log"));
  process_->start(FindProgram(program), arguments);
  bool ended = !process_->waitForStarted();
  const QDeadlineTimer deadline(kWaitMs);
  while (!ended && !ready() && !deadline.hasExpired()) ended = process_->waitForFinished(10);
  if (!ended && ready()) return AssertionSuccess();
  return AssertionFailure() << program.toStdString() << " did not start; it needs the Debian packages "
                            << packages.toStdString() << ". " << Read("log").toStdString();
}

AssertionResult TestCertificate::Create() {
  QProcess openssl;
  openssl.start("openssl", {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                            "-nodes", "-subj", "/CN=localhost", "-addext",
                            "subjectAltName=DNS:localhost,DNS:origin.test,IP:127.0.0.1", "-days", "3650",
                            "-keyout", Path("key"), "-out", Path("crt")});
  if (openssl.waitForFinished() && openssl.exitCode() == 0) return AssertionSuccess();
  return AssertionFailure() << "no certificate; openssl says: "
                            << openssl.readAllStandardError().toStdString();
}

void TestCertificate::Trust() const {
  QSslConfiguration configuration = ConfigurationBeforeTrust();
  configuration.addCaCertificates(Path("crt"));
  QSslConfiguration::setDefaultConfiguration(configuration);
}

void TestCertificate::Distrust() { QSslConfiguration::setDefaultConfiguration(ConfigurationBeforeTrust()); }

AssertionResult NginxServer::Start(const TestCertificate& certificate, const QByteArray& lines) {
  AssertionResult started = AssertionFailure();
  // Somebody else may get a port between our look and nginx's. It writes its pid once it has both.
  for (int attempt = 0; attempt < 5 && !started; ++attempt) {
    QTcpServer plain, tls;
    plain.listen(QHostAddress::LocalHost);
    tls.listen(QHostAddress::LocalHost);
    port_ = plain.serverPort();
    tls_port_ = tls.serverPort();
    plain.close();
    tls.close();
    QByteArray configuration = R"(
daemon off; master_process off; pid @/pid; error_log stderr;
events { worker_connections 1000; }
http {
  client_body_temp_path @/t1; proxy_temp_path @/t2; fastcgi_temp_path @/t3; uwsgi_temp_path @/t4; scgi_temp_path @/t5;
  access_log off;
  server {
    listen 127.0.0.1:PLAIN; listen 127.0.0.1:TLS ssl; ssl_certificate CRT; ssl_certificate_key KEY;
    root @;
    LINES
  }
})";
    configuration.replace("PLAIN", QByteArray::number(port_)).replace("TLS", QByteArray::number(tls_port_));
    configuration.replace("CRT", certificate.Path("crt").toUtf8())
        .replace("KEY", certificate.Path("key").toUtf8());
    Write("nginx.conf", configuration.replace("LINES", lines).replace("@", Path(".").toUtf8()));
    started = Launch("nginx", {"-p", Path("."), "-c", "nginx.conf", "-e", "stderr"}, "nginx-light",
                     [this] { return QFile::exists(Path("pid")); });
  }
  return started;
}

AssertionResult HttpbinServer::Start() {
  // Debian's interpreter by its path: another python in the PATH does not see Debian's modules.
  const QByteArray mark = "Listening at: http://127.0.0.1:";
  const QStringList arguments = {"-B",          "-m",        "gunicorn", "--bind",
                                 "127.0.0.1:0", "--threads", "8",        "httpbin:app"};
  return Launch("/usr/bin/python3", arguments, "gunicorn, python3-httpbin", [this, &mark] {
    const QByteArray log = Read("log");
    if (log.contains(mark)) port_ = log.mid(log.indexOf(mark) + mark.size()).split(' ').front().toInt();
    return log.contains("Booting worker");
  });
}

}  // namespace orvan::test
