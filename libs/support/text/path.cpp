#include "orvan/support/text/path.h"

#include <QDir>

namespace orvan::file {

void CleanupPathname(QString& path) { path = QDir::cleanPath(path); }

}  // namespace orvan::file
