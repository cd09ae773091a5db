#include "orvan/support/text/path.h"

#include <QDir>

namespace orvan::file {

namespace {

// True if there is certainly nothing to do: no empty segment and none that consists of dots. Nearly every
// name is clean already, since caches clean their keys on each look-up.
bool IsClean(const QString& path) {
  const QChar* const end = path.constData() + path.size();
  bool at_segment = false;
  for (const QChar* p = path.constData(); p != end; ++p) {
    if (at_segment && *p == QLatin1Char('/')) return false;
    if (*p == QLatin1Char('.') && (at_segment || p == path.constData())) return false;
    at_segment = *p == QLatin1Char('/');
  }
  return !at_segment;
}

}  // namespace

void CleanupPathname(QString& path) {
  if (!IsClean(path)) path = QDir::cleanPath(path);
}

}  // namespace orvan::file
