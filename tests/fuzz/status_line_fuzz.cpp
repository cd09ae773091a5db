#include <QRegularExpression>

#include "orvan/net/http/http_status.h"
#include "tests/fuzz/fuzz.h"

void Fuzz(const QByteArray&, const QString& line) {
  int code = -1;
  const bool read = ParseHttpStatusLine(line, &code);
  static const QRegularExpression plain(QStringLiteral("^HTTP/1\\.1 ([0-9]{1,9}) "));
  const QRegularExpressionMatch match = plain.match(line);
  FUZZ_CHECK(!match.hasMatch() || (read && code == match.captured(1).toInt()));
  FUZZ_CHECK(read ? line.startsWith("HTTP/1.1 ") && line.count(' ') >= 2 : code == 0);
  FUZZ_CHECK(code < 400 || InterpretHttpResponseCode(code) >> 30 == kStatusSeverityError);
}
