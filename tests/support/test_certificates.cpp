#include "tests/support/test_certificates.h"

#include <QSslCertificate>
#include <QSslConfiguration>
#include <QString>
#include <fstream>
#include <vector>

#include "tests/support/child_process.h"

namespace orvan::test {
namespace {

constexpr char kPackage[] = "openssl";

// Everything that openssl would otherwise take from the machine's own configuration. @ is the folder.
constexpr char kConfiguration[] = R"(
[req]
distinguished_name = name
[name]
[authority]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[ca]
default_ca = signing
[signing]
database = @/index.txt
new_certs_dir = @
certificate = @/authority.crt
private_key = @/authority.key
default_md = sha256
rand_serial = yes
unique_subject = no
policy = policy
[policy]
commonName = supplied
)";

const QSslConfiguration& ConfigurationBeforeTrust() {
  static const QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
  return configuration;
}

}  // namespace

std::string TestCertificates::Path(const std::string& file) const {
  return folder_.filePath(QString::fromStdString(file)).toStdString();
}

::testing::AssertionResult TestCertificates::Create() {
  std::string configuration = kConfiguration;
  for (size_t at = 0; (at = configuration.find('@', at)) != std::string::npos;) {
    configuration.replace(at, 1, folder_.path().toStdString());
  }
  std::ofstream(Path("openssl.cnf")) << configuration;
  std::ofstream(Path("index.txt")).flush();
  const std::vector<std::string> arguments = {"req",
                                              "-x509",
                                              "-newkey",
                                              "ec",
                                              "-pkeyopt",
                                              "ec_paramgen_curve:prime256v1",
                                              "-nodes",
                                              "-keyout",
                                              Path("authority.key"),
                                              "-out",
                                              AuthorityPath(),
                                              "-subj",
                                              "/CN=Authority of the tests",
                                              "-days",
                                              "3650",
                                              "-config",
                                              Path("openssl.cnf"),
                                              "-extensions",
                                              "authority"};
  const auto made = ChildProcess::Run("openssl", arguments, kPackage);
  if (!made) return made;
  return Issue("server", "DNS:localhost,IP:127.0.0.1,DNS:*.example.test");
}

::testing::AssertionResult TestCertificates::Issue(const std::string& name, const std::string& alt_names,
                                                   Kind kind) {
  const std::string configuration = Path(name + ".cnf");
  std::ofstream(configuration) << std::ifstream(Path("openssl.cnf")).rdbuf()
                               << "[extensions]\nbasicConstraints = CA:FALSE\nsubjectAltName = " << alt_names
                               << "\nextendedKeyUsage = serverAuth\n";
  const bool self_signed = kind == Kind::kSelfSigned;
  const std::string request = Path(name + ".csr");
  std::vector<std::string> arguments = {"req",
                                        "-newkey",
                                        "ec",
                                        "-pkeyopt",
                                        "ec_paramgen_curve:prime256v1",
                                        "-nodes",
                                        "-keyout",
                                        Path(name + ".key"),
                                        "-subj",
                                        "/CN=" + name,
                                        "-config",
                                        configuration,
                                        "-out",
                                        self_signed ? Path(name + ".crt") : request};
  if (self_signed) arguments.insert(arguments.end(), {"-x509", "-days", "3650", "-extensions", "extensions"});
  const auto requested = ChildProcess::Run("openssl", arguments, kPackage);
  if (!requested || self_signed) return requested;
  arguments = {"ca",         "-batch", "-notext", "-config", configuration,      "-extensions",
               "extensions", "-in",    request,   "-out",    Path(name + ".crt")};
  if (kind == Kind::kExpired) {
    arguments.insert(arguments.end(), {"-startdate", "20200101000000Z", "-enddate", "20200102000000Z"});
  } else {
    arguments.insert(arguments.end(), {"-days", "3650"});
  }
  return ChildProcess::Run("openssl", arguments, kPackage);
}

::testing::AssertionResult TestCertificates::Trust() const {
  const auto authorities = QSslCertificate::fromPath(QString::fromStdString(AuthorityPath()));
  if (authorities.size() != 1) return ::testing::AssertionFailure() << "no authority at " << AuthorityPath();
  ConfigurationBeforeTrust();
  QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
  configuration.addCaCertificate(authorities.front());
  QSslConfiguration::setDefaultConfiguration(configuration);
  return ::testing::AssertionSuccess();
}

void TestCertificates::Distrust() { QSslConfiguration::setDefaultConfiguration(ConfigurationBeforeTrust()); }

}  // namespace orvan::test
