#include "orvan/support/text/path.h"

#include <QDir>

namespace orvan::file {

namespace {

// True if there is certainly nothing to do: no empty segment and none that consists of dots. Nearly every
// name is clean already, since caches clean their keys on each look-up.
bool IsClean(const QString& path) {
  if (path.startsWith(QLatin1Char('.'))) return false;
  for (int i = path.indexOf(QLatin1Char('/')); i >= 0; i = path.indexOf(QLatin1Char('/'), i + 1)) {
    const bool last = i + 1 == path.size();
    if (last || path.at(i + 1) == QLatin1Char('/') || path.at(i + 1) == QLatin1Char('.')) return false;
  }
  return true;
}

}  // namespace

void CleanupPathname(QString& path) {
  if (!IsClean(path)) path = QDir::cleanPath(path);
}

}  // namespace orvan::file
