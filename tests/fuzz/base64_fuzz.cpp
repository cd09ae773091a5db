#include <memory>

#include "orvan/net/http/qnetwork/qthttpimpl.h"
#include "orvan/net/identity/pem_block.h"
#include "tests/fuzz/fuzz.h"

static bool Decode(QByteArray text, QByteArray* out) {
  const int room = text.size() / 4 * 3;  // not a byte to spare
  const auto block = std::make_unique<unsigned char[]>(static_cast<std::size_t>(room));
  auto* const in = reinterpret_cast<unsigned char*>(text.data());
  unsigned int length = 0;
  if (R_DecodePEMBlock(block.get(), &length, in, static_cast<unsigned int>(text.size())) != 0) return false;
  *out = QByteArray(reinterpret_cast<const char*>(block.get()), static_cast<int>(length));
  return true;
}

void Fuzz(const QByteArray& input, const QString& text) {
  QByteArray decoded;
  FUZZ_CHECK(Decode(input.toBase64(), &decoded) && decoded == input);
  const auto strict = QByteArray::fromBase64Encoding(input, QByteArray::AbortOnBase64DecodingErrors);
  FUZZ_CHECK(!Decode(input, &decoded) || !strict || decoded == *strict);

  const QString whole = QString(text).remove(QChar(0));  // pairs end at a NUL
  QString a, b, c, d;
  QtHttpConnection::RestoreTwoStringsFromOne(whole, a, b);
  QtHttpConnection::RestoreTwoStringsFromOne(QtHttpConnection::StoreTwoStringsInOne(whole, a), c, d);
  FUZZ_CHECK(c == whole && d == a);
}
