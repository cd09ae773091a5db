#pragma once

#include <QString>

#include "orvan/support/export.h"

namespace orvan::file {

// Normalises a path name in place: double slashes and dot segments go. Doing it twice changes nothing;
// backslashes and letter case stay; the file system is not asked. Any thread.
ORVAN_SUPPORT_EXPORT void CleanupPathname(QString& path);

}  // namespace orvan::file
