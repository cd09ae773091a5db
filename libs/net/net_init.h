#pragma once

#include <QString>

#include "orvan/net/export.h"

namespace orvan::lumen {

// Does nothing; an entry point for outside callers, like the next two.
ORVAN_NET_EXPORT void InitializeLumenNetworkCachePath(const char* path);
// Does nothing.
ORVAN_NET_EXPORT void InitializeLumenCookieStorePath(const char* path);
// Does nothing.
ORVAN_NET_EXPORT void ClearDiskCache();

}  // namespace orvan::lumen

namespace orvan::net {

using lumen::ClearDiskCache;

// Starts the library. On the main thread, once the QCoreApplication exists and before the first fetch.
ORVAN_NET_EXPORT void Init(const QString& cache_path, const QString& cookie_path);

// Stops it: ends every connection and forgets what was kept. On the main thread, before the QCoreApplication
// dies. Fetches that are still waiting never end: stop them before. Init() may start the library again.
ORVAN_NET_EXPORT void Shutdown();

}  // namespace orvan::net
