#pragma once

#include <QJsonObject>
#include <QString>

namespace orvan::bench {

// Microseconds of processor time that the calling thread has used.
double Microseconds();

// Finding an archive by its clean name among 1,000 in the cache, `count` times. `peer` is "orvan", or "map":
// a bare find in a map of the cache's kind. `prefix` is what the names begin with: of a path, or of a URL.
QJsonObject MeasureLookUp(const QString& peer, const QString& prefix, int count);

// Looking for an archive in front of a file whose URL is 64 KiB of slashes, with 1,000 of them cached.
QJsonObject MeasurePartialSearch(int count);

// Fetching over HTTP from a server that has an archive under every URL with ".kmz" in it, and other bytes of
// that size elsewhere. Microseconds of the clock. `peer` is "first", one file out of a new archive each time,
// "again", other files out of a cached one, or "plain", the other bytes.
QJsonObject MeasureFetch(const QString& peer, const QString& server, int count);

}  // namespace orvan::bench
