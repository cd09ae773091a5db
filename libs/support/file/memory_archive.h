#pragma once

#include <unzip.h>

#include <QSet>
#include <QString>
#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "orvan/support/file/kmz_zip.h"
#include "orvan/support/file/zip_directory.h"

namespace orvan::kmz {

// Where an archive has which entry, made once. Names are folded to lower case; of
// several that are equal then, the first one in the directory counts.
//
// Shape:  a chain of slots for each group of hashes, about as many chains as entries. The names themselves
// stay
//         in the archive's bytes, and in Names().
// Limits: a chain has at most 16 slots, and a name whose chain is full is not found. Honest archives never
// come
//         near; one whose names were chosen to collide costs no more time than another.
class EntryIndex {
 public:
  explicit EntryIndex(const ZipDirectory& directory);

  // Position of the header in the directory.
  std::optional<quint64> Find(const QString& folded) const;
  std::optional<quint64> FindMainDocument() const { return main_document_; }
  const QSet<QString>& Names() const { return names_; }

 private:
  struct Slot {
    quint64 position;
    uint hash;
    quint32 next;
  };

  bool Add(const QString& folded, quint64 position);
  std::size_t ChainOf(uint hash) const;
  bool IsOf(const Slot& slot, uint hash, const QString& folded) const;

  const ZipDirectory& directory_;
  const uint seed_;  // that of names_
  std::vector<Slot> slots_;
  std::vector<quint32> chains_;  // first slot of each
  std::optional<quint64> main_document_;
  QSet<QString> names_;
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

  const ZipDirectory& directory() const { return directory_; }
  // Made on the first call.
  const EntryIndex& GetIndex();

 private:
  struct Callbacks;

  explicit MemoryArchive(const MemoryFileFunctions& functions)
      : bytes_(functions.bytes), size_(functions.size), directory_(bytes_, size_) {}

  const unsigned char* const bytes_;
  const std::size_t size_;
  std::size_t position_ = 0;  // where minizip reads next, at most size_
  unzFile handle_ = nullptr;
  const ZipDirectory directory_;
  std::unique_ptr<EntryIndex> index_;
};

}  // namespace orvan::kmz
