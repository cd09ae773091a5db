#include "tools/orvan_fetch/sign.h"

#include <CLI/CLI.hpp>
#include <QFile>
#include <QUrl>
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <limits>
#include <optional>

#include "orvan/net/identity/oauth_signature.h"
#include "orvan/net/identity/request_signers.h"
#include "orvan/net/server/server_info.h"
#include "orvan/net/url_text.h"
#include "orvan/support/thread/system.h"
#include "tools/orvan_fetch/options.h"

namespace orvan_fetch {

using orvan::net::HttpMethod;
using orvan::net::OauthHttpSigner;
using orvan::net::ServerInfo;

namespace {

const char kDescription[] =
    "Prints the OAuth 1 Authorization line of a request, as the library's signers make it.";
const char kFooter[] =
    "\nCredentials never stand on the command line, where other users could read them. They come from FILE, "
    "with\nlines like consumer_key=TEXT, or from the environment, as ORVAN_OAUTH_CONSUMER_KEY; the names are "
    "consumer_key,\ntoken, token_secret, callback and verifier, and all but the first may be left out.";
const char kCredentialsHelp[] = "take the credentials from FILE (see orvan-fetch sign --help)";

struct Credentials {
  QString consumer_key, token, token_secret, callback, verifier;
};

struct CredentialName {
  const char* in_file;
  const char* in_environment;
  QString Credentials::*text;
};
constexpr CredentialName kCredentialNames[] = {
    {"consumer_key", "ORVAN_OAUTH_CONSUMER_KEY", &Credentials::consumer_key},
    {"token", "ORVAN_OAUTH_TOKEN", &Credentials::token},
    {"token_secret", "ORVAN_OAUTH_TOKEN_SECRET", &Credentials::token_secret},
    {"callback", "ORVAN_OAUTH_CALLBACK", &Credentials::callback},
    {"verifier", "ORVAN_OAUTH_VERIFIER", &Credentials::verifier},
};

struct SignArguments {
  std::string url;
  std::string method = "GET";
  std::string credentials_file;
  std::optional<std::string> nonce;
  std::optional<qint64> timestamp;
  bool base = false;
};

// The operations that return a QString give an empty text, or what is wrong. No message repeats a value: it
// may be a secret.

// Takes "name=value". The value may have blanks around it, which belong to it.
bool TakeLine(const QString& line, Credentials* credentials) {
  const int equals = line.indexOf(QLatin1Char('='));
  const QString name = line.left(equals).trimmed();
  for (const CredentialName& known : kCredentialNames) {
    if (equals < 0 || name != QLatin1String(known.in_file)) continue;
    credentials->*known.text = line.mid(equals + 1);
    return true;
  }
  return false;
}

QString ReadFile(const QString& name, Credentials* credentials) {
  QFile file(name);
  if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
    return QStringLiteral("cannot read the credentials in %1: %2").arg(name, file.errorString());
  }
  for (int number = 1; !file.atEnd(); ++number) {
    QString line = QString::fromUtf8(file.readLine());
    if (line.endsWith(QLatin1Char('\n'))) line.chop(1);
    if (line.trimmed().isEmpty() || line.startsWith(QLatin1Char('#'))) continue;
    if (!TakeLine(line, credentials)) {
      return QStringLiteral("%1, line %2: not NAME=TEXT with the name of a credential").arg(name).arg(number);
    }
  }
  return QString();
}

bool HasControlCharacter(const QString& text) {
  return std::any_of(text.begin(), text.end(),
                     [](QChar c) { return c.unicode() < 0x20 || c.unicode() == 0x7F; });
}

// What the file has goes before the environment.
QString ReadCredentials(const std::string& file, Credentials* credentials) {
  for (const CredentialName& name : kCredentialNames) {
    credentials->*name.text = QString::fromUtf8(qgetenv(name.in_environment));
  }
  if (!file.empty()) {
    QString problem = ReadFile(QString::fromStdString(file), credentials);
    if (!problem.isEmpty()) return problem;
  }
  for (const CredentialName& name : kCredentialNames) {
    if (!HasControlCharacter(credentials->*name.text)) continue;
    return QStringLiteral("the credential %1 has a control character inside")
        .arg(QLatin1String(name.in_file));
  }
  return QString();
}

QString Missing(const char* name) {
  return QStringLiteral(
             "no %1: it comes from --credentials FILE or the environment (see orvan-fetch sign --help)")
      .arg(QLatin1String(name));
}

// The URL of the request that a fetch of `text` would send; empty if none would be sent.
QUrl RequestUrl(const QString& text) {
  const QUrl url = ServerInfo::SanitizeUrl(text, false);
  if (url.host().isEmpty()) return QUrl();
  const ServerInfo server(text);
  return orvan::net::CreateUrl(server.secure(), server.host(), orvan::net::GetEncodedPathAndQuery(url),
                               server.port());
}

HttpMethod MethodOf(const std::string& name) {
  if (name == "POST") return orvan::net::kHttpPost;
  if (name == "PUT") return orvan::net::kHttpPut;
  return name == "DELETE" ? orvan::net::kHttpDelete : orvan::net::kHttpGet;
}

bool IsPlain(const std::string& text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isalnum(c); });
}

int PrintSignature(const SignArguments& arguments) {
  const QString text = QString::fromStdString(arguments.url);
  const QUrl url = RequestUrl(text);
  if (url.isEmpty()) return BadUsage(QStringLiteral("%1 is no URL of an HTTP server").arg(text));
  if (arguments.nonce && !IsPlain(*arguments.nonce)) {
    return BadUsage(QStringLiteral("--nonce wants letters and digits"));
  }
  Credentials own;
  const QString problem = ReadCredentials(arguments.credentials_file, &own);
  if (!problem.isEmpty()) return BadUsage(problem);
  if (own.consumer_key.isEmpty()) return BadUsage(Missing("consumer_key"));

  const QString nonce =
      arguments.nonce ? QString::fromStdString(*arguments.nonce) : OauthHttpSigner::CreateNonce();
  const QString timestamp =
      QString::number(arguments.timestamp.value_or(static_cast<qint64>(orvan::System::getTime())));
  const HttpMethod method = MethodOf(arguments.method);
  QString line;
  if (arguments.base) {
    line = orvan::net::CreateSigningString(url, own.consumer_key, own.token, own.token_secret, own.callback,
                                           own.verifier, nonce, timestamp, method);
  } else {
    const auto [name, value] =
        orvan::net::CreateAuthHeader(url, own.consumer_key, own.token, own.token_secret, own.callback,
                                     own.verifier, nonce, timestamp, method);
    line = name + QLatin1String(": ") + value;
  }
  std::printf("%s\n", line.toUtf8().constData());
  return std::fflush(stdout) == 0 ? 0 : kExitFailed;
}

}  // namespace

int Sign(int argc, char** argv) {
  SignArguments arguments;
  CLI::App app(kDescription, "orvan-fetch sign");
  app.footer(kFooter);
  app.add_option("url", arguments.url, "what the request asks for")->type_name("URL")->required();
  app.add_option("--method", arguments.method, "GET, POST, PUT or DELETE")
      ->capture_default_str()
      ->type_name("NAME")
      ->check(CLI::IsMember({"GET", "POST", "PUT", "DELETE"}));
  app.add_option("--credentials", arguments.credentials_file, "take the credentials from FILE")
      ->type_name("FILE");
  app.add_option("--nonce", arguments.nonce, "take this nonce and do not draw one")->type_name("TEXT");
  app.add_option("--timestamp", arguments.timestamp, "sign for this time, in seconds since 1970")
      ->type_name("SECONDS")
      ->check(CLI::Range(qint64{0}, std::numeric_limits<qint64>::max()));
  app.add_flag("--base", arguments.base, "print the text that is signed, and no line");
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {
    return app.exit(success);
  } catch (const CLI::ParseError& error) {
    const QString reason = QString::fromUtf8(error.what()).simplified();
    return BadUsage(reason + QStringLiteral(" (see orvan-fetch sign --help)"));
  }
  return PrintSignature(arguments);
}

void DescribeSigner(CLI::App* app, SignerArguments* arguments) {
  auto* url =
      app->add_option("--sign", arguments->url,
                      "add a signer's Authorization line to requests under this URL. For oauth1 that is "
                      "every server whose name ends with the URL's host")
          ->type_name("URL");
  app->add_option("--signer", arguments->kind, "what signs: oauth1, oauth2 or builder")
      ->capture_default_str()
      ->type_name("NAME")
      ->check(CLI::IsMember({"oauth1", "oauth2", "builder"}))
      ->needs(url);
  app->add_option("--credentials", arguments->credentials_file, kCredentialsHelp)
      ->type_name("FILE")
      ->needs(url);
}

QString FetchSigner::Prepare(const SignerArguments& arguments) {
  if (arguments.url.empty()) return QString();
  const QString text = QString::fromStdString(arguments.url);
  const QUrl url(text);
  if (url.host().isEmpty()) return QStringLiteral("--sign %1: no URL of an HTTP server").arg(text);
  Credentials own;
  QString problem = ReadCredentials(arguments.credentials_file, &own);
  if (!problem.isEmpty()) return problem;
  const bool is_oauth1 = arguments.kind == "oauth1";
  if (is_oauth1 && own.consumer_key.isEmpty()) return Missing("consumer_key");
  if (!is_oauth1 && own.token.isEmpty()) return Missing("token");
  if (is_oauth1) {
    signer_ = std::make_unique<OauthHttpSigner>(url, own.consumer_key, own.token, own.token_secret);
  } else if (arguments.kind == "oauth2") {
    signer_ = std::make_unique<orvan::net::Oauth2HttpSigner>(url, own.token);
  } else {
    signer_ = std::make_unique<orvan::net::OrvanBuilderAuth>(url, own.token);
  }
  return QString();
}

}  // namespace orvan_fetch
