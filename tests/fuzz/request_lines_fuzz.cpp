#include "orvan/net/http/qnetwork/header_lines.h"
#include "tests/fuzz/fuzz.h"

// No end of a line gets through to the wire.
void Fuzz(const QByteArray&, const QString& text) {
  QNetworkRequest wire;
  QList<QNetworkCookie> cookies;
  for (const QString& line : text.split('\f')) AddHeaderLine(line, &wire, &cookies);
  for (const QByteArray& name : wire.rawHeaderList()) {
    const QByteArray value = wire.rawHeader(name);
    FUZZ_CHECK(!name.isEmpty() && name == name.trimmed() && !name.contains(':'));
    for (const char end : {'\r', '\n', '\0'}) FUZZ_CHECK(!name.contains(end) && !value.contains(end));
    QNetworkRequest again;
    AddHeaderLine(QString::fromLatin1(name + ": " + value), &again, &cookies);
    FUZZ_CHECK(SingleLine(value) == value && again.rawHeader(name) == value.trimmed());
  }
}
