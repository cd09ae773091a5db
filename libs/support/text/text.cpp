#include "orvan/support/text/text.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace orvan {

const QString& QStringNull() {
  static const QString* const null = new QString;  // never destroyed: threads may outlive the statics
  return *null;
}

QString TextFromBytes(const char* bytes, std::size_t size) {
  if (!bytes) return QString();
  const std::size_t length = strnlen(bytes, std::min<std::size_t>(size, INT_MAX));
  return QString::fromLatin1(bytes, static_cast<int>(length));
}

}  // namespace orvan
