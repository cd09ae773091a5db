#pragma once

#include <unzip.h>

#include <QHash>
#include <QString>
#include <cstddef>
#include <functional>
#include <memory>

#include "orvan/support/file/kmz_zip.h"

namespace orvan::kmz {

// Where an archive has which entry. Names are folded to lower case; of several that are equal then, the
// first one in the directory stands here.
struct EntryIndex {
  QHash<QString, unz64_file_pos> positions;
  // Folded name of the main document; null if there is none.
  QString main_document;
};

// What minizip reads one archive through, and what is remembered for its handle: the stream behind the
// handle, made when the handle is opened and gone when minizip closes it, by whichever of its calls.
//
// Threads:   Find() any; the rest is used by the one thread that uses the handle.
// Ownership: minizip's handle owns it. The bytes are borrowed.
class MemoryArchive {
 public:
  // A minizip handle over the bytes, or null if they are no archive.
  static unzFile Open(const MemoryFileFunctions& functions);
  // Null for null and for a handle that Open() did not make or that is closed.
  static MemoryArchive* Find(unzFile handle);

  const unsigned char* bytes() const { return bytes_; }
  std::size_t size() const { return size_; }
  // Made on the first call.
  const EntryIndex& GetIndex();

 private:
  struct Callbacks;

  MemoryArchive(const MemoryFileFunctions& functions) : bytes_(functions.bytes), size_(functions.size) {}

  const unsigned char* const bytes_;
  const std::size_t size_;
  std::size_t position_ = 0;  // where minizip reads next, at most size_
  unzFile handle_ = nullptr;
  std::unique_ptr<EntryIndex> index_;
};

// Calls `visit` with the name of each entry, in the order of the directory; the entry is the handle's current
// one then. Names are read as UTF-8 up to the first NUL.
void WalkEntries(unzFile handle, const std::function<void(const QString& name)>& visit);

}  // namespace orvan::kmz
