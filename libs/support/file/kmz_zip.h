#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QSet>
#include <QString>
#include <cstddef>
#include <vector>

#include "orvan/support/export.h"

// Zip archives in memory (PKWARE APPNOTE). Handles are minizip's own (`unzFile`, a void pointer), so
// unzGoToFirstFile and its neighbours work on them. Everything in orvan::kmz reads the archive's bytes
// itself; where it and minizip see different entries (minizip believes the stated count, and takes no offsets
// of 64 bits), only what minizip's own calls tell differs.
//
// Threads: one at a time for each handle.

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
// The caller closes the handle with unzClose(), or with kmz::CloseZFile().
ORVAN_SUPPORT_EXPORT void* unzAttach(const MemoryFileFunctions& functions);

}  // namespace orvan

namespace orvan::kmz {

// True if the bytes begin like a zip archive with a local file in front: at least 4, "PK\3\4".
ORVAN_SUPPORT_EXPORT bool IsKmzData(const unsigned char* bytes, int size);

// The lower-cased names of all entries, each up to its first NUL: those that UnzipZFile() finds, and the
// empty name if an entry has it. Made with the look-up by name in one walk, on the first call of either.
ORVAN_SUPPORT_EXPORT QSet<QString> FoldedNames(void* zip);

// The uncompressed bytes of an entry. Case does not matter; of several that match, the first wins. An empty
// name asks for the main document: "doc.kml" at the root, else the first *.kml at the root, else the first
// *.kml anywhere. Bytes are checked against size and CRC.
//
// Errors: an empty array for a null handle, an absent or encrypted entry, a method other than stored (0)
//         and deflated (8), more bytes than GetExtractionLimit(), or damage. Never partial data. Memory is
//         used for what really comes out, whatever size the archive states.
ORVAN_SUPPORT_EXPORT QByteArray UnzipZFile(void* zip, const QString& entry);

// One entry as the archive's directory states it, unchecked.
struct ArchiveEntry {
  QString name;  // up to its first NUL; any text, "../x", "/x" and "" included, so never use it as a path
  quint64 size = 0;
  quint64 packed_size = 0;
  quint32 crc = 0;
  int method = 0;  // 0 stored, 8 deflated
  bool encrypted = false;
  // Zip has no time zones: the fields as they stand, under the name of UTC. Invalid if they are no date.
  QDateTime modified;
  quint64 position = 0;  // for UnzipEntry()
};

// All entries in the directory's order, those of equal names too; not more than the archive really holds.
ORVAN_SUPPORT_EXPORT std::vector<ArchiveEntry> ListEntries(void* zip);

// As UnzipZFile(), for an entry that ListEntries() told of this archive. `ok` (may be null) tells an empty
// file, true, from a failure, false.
ORVAN_SUPPORT_EXPORT QByteArray UnzipEntry(void* zip, const ArchiveEntry& entry, bool* ok);

// unzClose(), for callers that know nothing of minizip. Null does nothing.
ORVAN_SUPPORT_EXPORT void CloseZFile(void* zip);

// Bytes that one entry may unfold to, 256 MiB unless set. Any thread; a change counts from the next entry on.
ORVAN_SUPPORT_EXPORT void SetExtractionLimit(std::size_t bytes);
// The limit at the moment.
ORVAN_SUPPORT_EXPORT std::size_t GetExtractionLimit();

}  // namespace orvan::kmz
