#include "orvan/net/http/http_header_iterator.h"
#include "orvan/net/http/http_status.h"
#include "tests/fuzz/fuzz.h"

void Fuzz(const QByteArray& input, const QString& text) {
  HttpHeaderIterator raw(input.begin(), input.end());
  QString header;
  int characters = 0, lines = 0;
  for (; raw.NextHeader(&header); ++lines) characters += header.size();
  FUZZ_CHECK(lines <= input.size() && characters <= input.size());
  FUZZ_CHECK(!raw.NextHeader(&header) && header.isNull());

  // Whole lines come out as they went in, up to the blank one.
  QByteArrayList whole;
  for (const QByteArray& line : QByteArray(input).replace('\r', "").split('\n')) {
    if (!line.isEmpty() && line[0] != ' ' && line[0] != '\t') whole += line;
  }
  const QByteArray block = (whole + QByteArrayList{"", "body: 1", ""}).join("\r\n");
  HttpHeaderIterator clean(block.begin(), block.end());
  for (const QByteArray& line : whole) {
    FUZZ_CHECK(clean.NextHeader(&header) && header == QString::fromUtf8(line.constData(), line.size()));
  }
  FUZZ_CHECK(!clean.NextHeader(&header));

  int code = -1, again = -1;
  const bool read = ParseHttpStatusLine(text, &code);
  FUZZ_CHECK(read ? text.startsWith("HTTP/1.1 ") && text.count(' ') >= 2 : code == 0);
  FUZZ_CHECK(ParseHttpStatusLine(QStringLiteral("HTTP/1.1 %1 x").arg(code), &again) && again == code);
  FUZZ_CHECK(code < 400 || InterpretHttpResponseCode(code) >> 30 == kStatusSeverityError);
}
