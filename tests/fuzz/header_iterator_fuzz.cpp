#include "orvan/net/http/http_header_iterator.h"
#include "tests/fuzz/fuzz.h"

void Fuzz(const QByteArray& input, const QString&) {
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
}
