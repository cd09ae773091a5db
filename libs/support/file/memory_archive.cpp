#include "orvan/support/file/memory_archive.h"

#include <QByteArray>
#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "orvan/support/thread/lock.h"

namespace orvan::kmz {
namespace {

// The format has 16 bits for the length of a name; one more for the NUL that minizip adds if there is room.
constexpr int kNameBufferBytes = 65535 + 1;

class Archives {
 public:
  static Archives& Get() {
    static auto* const archives = new Archives;
    return *archives;
  }

  void Add(unzFile handle, MemoryArchive* archive) {
    port::MutexGuard guard(mutex_);
    by_handle_[handle] = archive;
  }

  void Remove(unzFile handle) {
    port::MutexGuard guard(mutex_);
    by_handle_.erase(handle);
  }

  MemoryArchive* Find(unzFile handle) {
    port::MutexGuard guard(mutex_);
    const auto found = by_handle_.find(handle);
    return found == by_handle_.end() ? nullptr : found->second;
  }

 private:
  port::MutexPosix mutex_;  // a leaf
  std::unordered_map<unzFile, MemoryArchive*> by_handle_ ORVAN_GUARDED_BY(mutex_);
};

// What minizip hands to the open callback.
struct OpenRequest {
  const MemoryFileFunctions& functions;
  MemoryArchive* opened;
};

EntryIndex MakeIndex(unzFile handle) {
  EntryIndex index;
  QString first_in_root;
  QString first_anywhere;
  WalkEntries(handle, [&](const QString& name) {
    const QString folded = name.toLower();
    unz64_file_pos position;
    if (index.positions.contains(folded) || unzGetFilePos64(handle, &position) != UNZ_OK) return;
    index.positions.insert(folded, position);
    if (!folded.endsWith(QLatin1String(".kml"))) return;
    if (first_anywhere.isNull()) first_anywhere = folded;
    if (first_in_root.isNull() && !folded.contains(QLatin1Char('/'))) first_in_root = folded;
  });
  const QString usual = QStringLiteral("doc.kml");
  index.main_document = first_in_root.isNull() ? first_anywhere : first_in_root;
  if (index.positions.contains(usual)) index.main_document = usual;
  return index;
}

}  // namespace

struct MemoryArchive::Callbacks {
  static voidpf Open(voidpf opaque, const void*, int) {
    auto* const request = static_cast<OpenRequest*>(opaque);
    request->opened = new MemoryArchive(request->functions);
    return request->opened;
  }

  static uLong Read(voidpf, voidpf stream, void* buffer, uLong wanted) {
    auto* const archive = static_cast<MemoryArchive*>(stream);
    const std::size_t count = std::min<std::size_t>(wanted, archive->size_ - archive->position_);
    if (count > 0) std::memcpy(buffer, archive->bytes_ + archive->position_, count);
    archive->position_ += count;
    return static_cast<uLong>(count);
  }

  static uLong Write(voidpf, voidpf, const void*, uLong) { return 0; }

  static ZPOS64_T Tell(voidpf, voidpf stream) { return static_cast<MemoryArchive*>(stream)->position_; }

  static long Seek(voidpf, voidpf stream, ZPOS64_T offset, int origin) {
    auto* const archive = static_cast<MemoryArchive*>(stream);
    std::size_t base = 0;
    if (origin == ZLIB_FILEFUNC_SEEK_CUR) base = archive->position_;
    if (origin == ZLIB_FILEFUNC_SEEK_END) base = archive->size_;
    // Not a slip: the sum may wrap around, because minizip goes back by adding a negative number.
    const ZPOS64_T target = base + offset;
    if (target > archive->size_) return -1;
    archive->position_ = target;
    return 0;
  }

  // Whatever is known of a handle goes here: its address may be the next handle's.
  static int Close(voidpf, voidpf stream) {
    auto* const archive = static_cast<MemoryArchive*>(stream);
    if (archive->handle_) Archives::Get().Remove(archive->handle_);
    delete archive;
    return 0;
  }

  static int TestError(voidpf, voidpf) { return 0; }
};

unzFile MemoryArchive::Open(const MemoryFileFunctions& functions) {
  OpenRequest request{functions, nullptr};
  zlib_filefunc64_def record;
  record.zopen64_file = &Callbacks::Open;
  record.zread_file = &Callbacks::Read;
  record.zwrite_file = &Callbacks::Write;
  record.ztell64_file = &Callbacks::Tell;
  record.zseek64_file = &Callbacks::Seek;
  record.zclose_file = &Callbacks::Close;
  record.zerror_file = &Callbacks::TestError;
  record.opaque = &request;  // minizip copies the record and opens once: nobody looks at it later
  const unzFile handle = unzOpen2_64("", &record);
  if (!handle) return nullptr;
  request.opened->handle_ = handle;
  Archives::Get().Add(handle, request.opened);
  return handle;
}

MemoryArchive* MemoryArchive::Find(unzFile handle) { return handle ? Archives::Get().Find(handle) : nullptr; }

const EntryIndex& MemoryArchive::GetIndex() {
  if (!index_) index_ = std::make_unique<EntryIndex>(MakeIndex(handle_));
  return *index_;
}

void WalkEntries(unzFile handle, const std::function<void(const QString& name)>& visit) {
  // Bounded by the archive's size whatever count it states: each step moves forward by what an entry of the
  // directory takes, and minizip stops where no such entry begins.
  QByteArray name(kNameBufferBytes, Qt::Uninitialized);
  for (int status = unzGoToFirstFile(handle); status == UNZ_OK; status = unzGoToNextFile(handle)) {
    unz_file_info64 info;
    status = unzGetCurrentFileInfo64(handle, &info, name.data(), kNameBufferBytes, nullptr, 0, nullptr, 0);
    if (status != UNZ_OK) return;
    visit(QString::fromUtf8(name.constData()));
  }
}

}  // namespace orvan::kmz
