#include "orvan/net/identity/oauth_signature.h"

#include <QMessageAuthenticationCode>
#include <QUrlQuery>
#include <algorithm>

#include "tests/fuzz/fuzz.h"

void Fuzz(const QByteArray& input, const QString&) {
  const QByteArrayList in = Fields(input, 5);
  const QUrl url(Text(in[0]));
  const QString key = Text(in[1]).remove('&'), token = Text(in[2]), secret = Text(in[3]), back = Text(in[4]);
  const auto method = static_cast<HttpMethod>(input.size() % 5);
  const QString base = CreateSigningString(url, key, token, secret, back, "V", "N", "7", method);
  const QStringList entries = base.mid(base.lastIndexOf('&') + 1).split("%26");
  const int items = QUrlQuery(url).queryItems().size();
  FUZZ_CHECK(entries.size() == 6 + !token.isEmpty() + !back.isEmpty() + items);
  FUZZ_CHECK(std::is_sorted(entries.begin(), entries.end()));
  for (const QString& entry : entries) {
    const QString pair = QUrl::fromPercentEncoding(entry.toLatin1());
    FUZZ_CHECK(pair.contains('=') && QString::fromLatin1(QUrl::toPercentEncoding(pair)) == entry);
  }
  const QString value = CreateAuthHeader(url, key, token, secret, back, "V", "N", "7", method).second;
  const QByteArray with = QUrl::toPercentEncoding(key) + '&' + QUrl::toPercentEncoding(secret);
  const QByteArray mac = QMessageAuthenticationCode::hash(base.toLatin1(), with, QCryptographicHash::Sha1);
  FUZZ_CHECK(value.contains("oauth_signature=\"" + QUrl::toPercentEncoding(mac.toBase64()) + "\""));
}
