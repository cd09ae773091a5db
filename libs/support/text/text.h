#pragma once

#include <QByteArray>
#include <QString>
#include <cstddef>

#include "orvan/support/export.h"

namespace orvan {

// One null QString for every place that has to return a reference to nothing. Lives as long as the process.
ORVAN_SUPPORT_EXPORT const QString& QStringNull();

// Bytes as text: one character per byte (Latin-1), up to the first NUL or `size` bytes. The transport writes
// Latin-1, so bytes that came in this way go out again unchanged.
ORVAN_SUPPORT_EXPORT QString TextFromBytes(const char* bytes, std::size_t size);
// The same of all of `bytes`, up to the first NUL.
inline QString TextFromBytes(const QByteArray& bytes) {
  return TextFromBytes(bytes.constData(), static_cast<std::size_t>(bytes.size()));
}

}  // namespace orvan
