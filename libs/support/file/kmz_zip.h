#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <cstddef>

#include "orvan/support/export.h"

// Zip archives in memory (PKWARE APPNOTE), read through minizip. Handles are minizip's own (`unzFile`, a
// void pointer), so unzGoToFirstFile and its neighbours work on them.

namespace orvan {

// A file-function record over a block of memory: what minizip reads an archive through. Opaque; holds
// `bytes` as a borrowed pointer that must stay valid until the archive is closed.
struct ORVAN_SUPPORT_EXPORT MemoryFileFunctions {
  const unsigned char* bytes = nullptr;
  std::size_t size = 0;
};

// Prepares the record. False only for a null pointer.
ORVAN_SUPPORT_EXPORT bool mem_simple_create_file(MemoryFileFunctions* functions, const void* bytes,
                                                 std::size_t size);
// Opens the archive; null if the bytes hold none. The record may go afterwards, the bytes may not.
// The caller closes the handle with unzClose().
ORVAN_SUPPORT_EXPORT void* unzAttach(const MemoryFileFunctions& functions);

}  // namespace orvan

namespace orvan::kmz {

// True if the bytes begin like a zip archive with a local file in front: at least 4, "PK\3\4".
ORVAN_SUPPORT_EXPORT bool IsKmzData(const unsigned char* bytes, int size);

// The uncompressed bytes of an entry. Case does not matter; of several that match, the first wins. An empty
// name asks for the main document: "doc.kml" at the root, else the first *.kml at the root, else the first
// *.kml anywhere. Bytes are checked against size and CRC.
//
// Threads: one at a time for each handle.
// Errors:  an empty array for a null handle, an absent or encrypted entry, a method other than stored (0)
//          and deflated (8), more bytes than GetExtractionLimit(), or damage. Never partial data.
ORVAN_SUPPORT_EXPORT QByteArray UnzipZFile(void* zip, const QString& entry);

// Names of all entries as they stand in the archive, in its order; not more than the archive really holds.
ORVAN_SUPPORT_EXPORT QStringList ListEntries(void* zip);

// Bytes that one entry may unfold to, 256 MiB unless set.
ORVAN_SUPPORT_EXPORT void SetExtractionLimit(std::size_t bytes);
ORVAN_SUPPORT_EXPORT std::size_t GetExtractionLimit();

}  // namespace orvan::kmz
