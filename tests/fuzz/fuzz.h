// What the targets of this folder share; each includes it once.
#pragma once

#include <QByteArrayList>
#include <QString>
#include <cstdio>
#include <cstdlib>

// What holds for every input. libFuzzer keeps the one that breaks it.
#define FUZZ_CHECK(claim) \
  ((claim) ? void() : (std::fprintf(stderr, "%s:%d: broken: %s\n", __FILE__, __LINE__, #claim), std::abort()))

namespace orvan::net {}
using namespace orvan;
using namespace orvan::net;

// As text, without the byte order marks that decoders drop.
inline QString Text(const QByteArray& bytes) {
  return QString::fromUtf8(bytes.constData(), bytes.size()).remove(QChar(QChar::ByteOrderMark));
}

// The input's first lines, `count` - 1 of them, and whatever follows.
inline QByteArrayList Fields(const QByteArray& input, int count) {
  QByteArrayList fields = input.split('\n');
  while (fields.size() < count) fields += QByteArray("");
  return fields.mid(0, count - 1) << fields.mid(count - 1).join('\n');
}

// One input, with AddressSanitizer right behind it, and the same as text.
static void Fuzz(const QByteArray& input, const QString& text);
extern "C" int LLVMFuzzerTestOneInput(const char* bytes, std::size_t size) {
  const QByteArray input = QByteArray::fromRawData(bytes, static_cast<int>(size));
  Fuzz(input, Text(input));
  return 0;
}
