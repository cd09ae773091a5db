#include "orvan/support/file/memory_archive.h"

#include <QtMath>
#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "orvan/support/thread/lock.h"

namespace orvan::kmz {
namespace {

constexpr int kLongestChain = 16;
constexpr quint32 kNoSlot = 0xFFFFFFFF;

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

}  // namespace

EntryIndex::EntryIndex(const ZipDirectory& directory)
    : directory_(directory), seed_(static_cast<uint>(qGlobalQHashSeed())) {
  ZipHeader header;
  quint32 count = 0;  // a second walk is cheaper than tables that grow
  for (quint64 at = directory.begin(); directory.Read(at, &header); at = header.next) ++count;
  slots_.reserve(count);
  chains_.assign(qNextPowerOfTwo(count), kNoSlot);
  names_.reserve(static_cast<int>(count));

  std::optional<quint64> first_in_root;
  std::optional<quint64> first_anywhere;
  for (quint64 at = directory.begin(); directory.Read(at, &header); at = header.next) {
    const QString folded = header.FoldedName();
    if (!Add(folded, at) || !folded.endsWith(QLatin1String(".kml"))) continue;
    if (!first_anywhere) first_anywhere = at;
    if (!first_in_root && !folded.contains(QLatin1Char('/'))) first_in_root = at;
  }
  main_document_ = Find(QStringLiteral("doc.kml"));
  if (!main_document_) main_document_ = first_in_root ? first_in_root : first_anywhere;
}

std::optional<quint64> EntryIndex::Find(const QString& folded) const {
  const uint hash = qHash(folded, seed_);
  for (quint32 i = chains_[ChainOf(hash)]; i != kNoSlot; i = slots_[i].next) {
    if (IsOf(slots_[i], hash, folded)) return slots_[i].position;
  }
  return std::nullopt;
}

// False if an earlier entry has the name, or its chain is full.
bool EntryIndex::Add(const QString& folded, quint64 position) {
  const uint hash = qHash(folded, seed_);
  quint32& chain = chains_[ChainOf(hash)];
  int length = 0;
  for (quint32 i = chain; i != kNoSlot; i = slots_[i].next, ++length) {
    if (IsOf(slots_[i], hash, folded)) return false;
  }
  // Not a slip: Qt's seed does not keep apart names of one length that were made to collide, neither here nor
  // in the set. Without this bound they would cost a time that grows with the square of their number.
  // KmzZipTest.NamesMadeToCollideCostNoMoreThanOthers holds this in place.
  if (length >= kLongestChain) return false;
  slots_.push_back({position, hash, chain});
  chain = static_cast<quint32>(slots_.size() - 1);
  names_.insert(folded);
  return true;
}

// Multiplying mixes the bits: those of Qt's hash of names that follow a pattern follow one too.
std::size_t EntryIndex::ChainOf(uint hash) const {
  return (hash * quint64{0x9E3779B97F4A7C15} >> 32) & (chains_.size() - 1);
}

bool EntryIndex::IsOf(const Slot& slot, uint hash, const QString& folded) const {
  ZipHeader header;
  return slot.hash == hash && directory_.Read(slot.position, &header) && header.FoldedName() == folded;
}

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
  if (!index_) index_ = std::make_unique<EntryIndex>(directory_);
  return *index_;
}

}  // namespace orvan::kmz
