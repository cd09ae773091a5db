#include "orvan/net/identity/oauth_signature.h"

#include <QStringList>
#include <QUrlQuery>

#include "orvan/net/http/http_connection.h"
#include "orvan/net/http/http_request.h"
#include "orvan/net/identity/request_signers.h"
#include "orvan/net/url_text.h"
#include "orvan/support/text/signature.h"
#include "orvan/support/thread/system.h"

namespace orvan::net {

namespace {

const char kVersion[] = "1.0";
const char kSignatureMethod[] = "HMAC-SHA1";

// Not a slip: there is no 8. Servers may know the alphabet; it stays as it always was.
// OauthNonceTest.AMillionDiffer holds this in place.
const char kNonceAlphabet[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ012345679";
constexpr int kNonceAlphabetSize = sizeof(kNonceAlphabet) - 1;  // the NUL at its end is no part of it
constexpr int kNonceLength = 16;

QString Encode(const QString& text) { return QString::fromLatin1(QUrl::toPercentEncoding(text)); }

QString Entry(const QString& name, const QString& value) { return Encode(name + QLatin1Char('=') + value); }

// Most texts are encoded before Entry() encodes them with their name.
QString EncodedEntry(const QString& name, const QString& value) { return Entry(name, Encode(value)); }

QString MethodPrefix(HttpMethod method) {
  switch (method) {
    case kHttpGet:
      return QStringLiteral("GET&");
    case kHttpPost:
      return QStringLiteral("POST&");
    case kHttpPut:
      return QStringLiteral("PUT&");
    case kHttpDelete:
      return QStringLiteral("DELETE&");
    default:
      return QString();
  }
}

// Scheme, host, port and path. Delimiters are written out encoded, which is cheaper than encoding the whole,
// and the host is taken as it is.
QString EncodedAddress(const QUrl& url) {
  QString address = url.scheme() + QLatin1String("%3A%2F%2F") + url.host(QUrl::FullyDecoded);
  // Not a slip: the scheme decides and not the number, so https loses any port and http keeps even an
  // explicit 80. CreateSigningStringTest.DiffersFromTheStandardWhereServersDo holds this in place.
  const int port = url.port(-1);
  if (port != -1 && url.scheme() != QLatin1String("https")) {
    address += QLatin1String("%3A") + QString::number(port);
  }
  // Not a slip: the path was decoded, so its escapes are encoded once and not twice. Held by the same test.
  return address + Encode(url.path(QUrl::FullyDecoded));
}

}  // namespace

// Here and not beside its class, since the nonce belongs to the signature.
QString OauthHttpSigner::CreateNonce() {
  QString nonce;
  for (int i = 0; i < kNonceLength; ++i) {
    nonce += QLatin1Char(kNonceAlphabet[System::Random(0, kNonceAlphabetSize - 1)]);
  }
  return nonce;
}

QString CreateSigningString(const QUrl& url, const QString& consumer_key, const QString& token,
                            const QString& /*token_secret*/, const QString& callback, const QString& verifier,
                            const QString& nonce, const QString& timestamp, HttpMethod method) {
  QStringList entries;
  const auto items = QUrlQuery(url).queryItems();
  for (const auto& [name, value] : items) entries += EncodedEntry(Encode(name), value);
  entries += Entry(QStringLiteral("oauth_nonce"), nonce);
  entries += Entry(QStringLiteral("oauth_signature_method"), QLatin1String(kSignatureMethod));
  entries += Entry(QStringLiteral("oauth_timestamp"), timestamp);
  entries += Entry(QStringLiteral("oauth_version"), QLatin1String(kVersion));
  // Not a slip: unlike the three below, the key is not encoded before, so a reserved character in it stands
  // there encoded once. CreateSigningStringTest.DiffersFromTheStandardWhereServersDo holds this in place.
  entries += Entry(QStringLiteral("oauth_consumer_key"), consumer_key);
  if (!token.isEmpty()) entries += EncodedEntry(QStringLiteral("oauth_token"), token);
  if (!callback.isEmpty()) entries += EncodedEntry(QStringLiteral("oauth_callback"), callback);
  if (!verifier.isEmpty()) entries += EncodedEntry(QStringLiteral("oauth_verifier"), verifier);

  // Not a slip: whole texts are compared, and not the names first. That differs where one name is another one
  // plus something that had to be encoded. Held by the same test.
  entries.sort(Qt::CaseSensitive);
  return MethodPrefix(method) + EncodedAddress(url) + QLatin1Char('&') + entries.join(QLatin1String("%26"));
}

std::pair<QString, QString> CreateAuthHeader(const QUrl& url, const QString& consumer_key,
                                             const QString& token, const QString& token_secret,
                                             const QString& callback, const QString& verifier,
                                             HttpMethod method) {
  const QString timestamp = QString::number(static_cast<qint64>(System::getTime()));
  const QString nonce = OauthHttpSigner::CreateNonce();
  return CreateAuthHeader(url, consumer_key, token, token_secret, callback, verifier, nonce, timestamp,
                          method);
}

std::pair<QString, QString> CreateAuthHeader(const QUrl& url, const QString& consumer_key,
                                             const QString& token, const QString& token_secret,
                                             const QString& callback, const QString& verifier,
                                             const QString& nonce, const QString& timestamp,
                                             HttpMethod method) {
  const QByteArray text = CreateSigningString(url, consumer_key, token, token_secret, callback, verifier,
                                              nonce, timestamp, method)
                              .toLatin1();
  const QByteArray key = (Encode(consumer_key) + QLatin1Char('&') + Encode(token_secret)).toLatin1();
  const QByteArray signature =
      ComputeSignature(kSignatureHmacSha1, text.constData(), text.size(), key.constData(), key.size());

  QString value = QStringLiteral("OAuth oauth_version=\"%1\"").arg(QLatin1String(kVersion));
  const auto append = [&value](const char* name, const QString& field) {
    value += QLatin1String(", ") + QLatin1String(name) + QLatin1String("=\"") + field + QLatin1Char('"');
  };
  append("oauth_nonce", nonce);
  append("oauth_signature_method", QLatin1String(kSignatureMethod));
  append("oauth_timestamp", timestamp);
  // Not a slip: the only text that may hold anything and is not encoded. Servers look the key up as it stands
  // there. CreateAuthHeaderTest.WritesTheFieldsInOneOrder holds this in place.
  append("oauth_consumer_key", consumer_key);
  append("oauth_signature", Encode(QString::fromLatin1(signature.toBase64())));
  if (!token.isEmpty()) append("oauth_token", Encode(token));
  if (!callback.isEmpty()) append("oauth_callback", Encode(callback));
  if (!verifier.isEmpty()) append("oauth_verifier", Encode(verifier));
  return {QStringLiteral("Authorization"), value};
}

void SignRequest(const QString& consumer_key, const QString& token, const QString& token_secret,
                 const QString& callback, const QString& verifier, const HttpConnection* connection,
                 HttpRequest* request) {
  // The default port of the protocol is left out of the URL, and hence out of the signature.
  const QUrl url = CreateUrl(connection->secure(), connection->host(), request->GetURL(), connection->port());
  const auto [name, value] =
      CreateAuthHeader(url, consumer_key, token, token_secret, callback, verifier, request->GetMethodType());
  (void)request->AddRequestHeader(name + QLatin1String(": ") + value);  // not empty, hence accepted
}

}  // namespace orvan::net
