#include "orvan/support/file/kmz_zip.h"

#include <libdeflate.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <optional>

#include "orvan/support/file/crc32.h"
#include "orvan/support/file/memory_archive.h"

namespace orvan {

bool mem_simple_create_file(MemoryFileFunctions* functions, const void* bytes, std::size_t size) {
  if (!bytes) return false;
  functions->bytes = static_cast<const unsigned char*>(bytes);
  functions->size = size;
  return true;
}

void* unzAttach(const MemoryFileFunctions& functions) { return kmz::MemoryArchive::Open(functions); }

}  // namespace orvan

namespace orvan::kmz {
namespace {

constexpr std::size_t kDefaultExtractionLimit = std::size_t{256} * 1024 * 1024;
constexpr std::size_t kLongestArray = std::numeric_limits<int>::max() - 64;
constexpr quint64 kDeflateFactor = 1032;  // the most that deflate can make of a byte
constexpr std::size_t kHugePagesFrom = std::size_t{4} * 1024 * 1024;

constexpr int kStored = 0;
constexpr int kDeflated = 8;
constexpr int kEncryptedFlag = 1;

std::atomic<std::size_t> s_extraction_limit{kDefaultExtractionLimit};

struct FreeDecompressor {
  void operator()(libdeflate_decompressor* decompressor) const { libdeflate_free_decompressor(decompressor); }
};

// Every thread has one: its tables are dear to make anew for each small entry.
libdeflate_decompressor* GetDecompressor() {
  thread_local const std::unique_ptr<libdeflate_decompressor, FreeDecompressor> decompressor(
      libdeflate_alloc_decompressor());
  return decompressor.get();
}

// Makes the pages of a large block few, before anyone touches them: page faults cost more than inflating.
void AdviseHugePages(char* bytes, std::size_t size) {
  if (size < kHugePagesFrom) return;
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const std::size_t ahead = page - reinterpret_cast<std::uintptr_t>(bytes) % page;
  madvise(bytes + ahead, (size - ahead) / page * page, MADV_HUGEPAGE);  // only advice: it may fail
}

// Unpacks into `out`, which has to become exactly as long as the entry states. A lie costs address space,
// which the limit and the factor bound, and no memory: the pages of the block are not touched before there
// are bytes for them.
bool Inflate(const unsigned char* packed, const ZipHeader& header, QByteArray* out) {
  if (header.size > header.packed_size * kDeflateFactor) return false;
  libdeflate_decompressor* const decompressor = GetDecompressor();
  if (!decompressor) return false;
  try {
    *out = QByteArray(static_cast<int>(header.size), Qt::Uninitialized);
  } catch (const std::bad_alloc&) {  // the size is what an archive states
    return false;
  }
  AdviseHugePages(out->data(), header.size);
  return libdeflate_deflate_decompress(decompressor, packed, header.packed_size, out->data(), header.size,
                                       nullptr) == LIBDEFLATE_SUCCESS;
}

// False leaves anything in `out`.
bool Unpack(const ZipDirectory& directory, const ZipHeader& header, QByteArray* out) {
  if ((header.flags & kEncryptedFlag) != 0) return false;
  if (header.size > std::min(GetExtractionLimit(), kLongestArray)) return false;
  const unsigned char* const packed = directory.FindPackedBytes(header);
  if (!packed) return false;
  if (header.method == kDeflated) {
    if (!Inflate(packed, header, out)) return false;
  } else {
    if (header.method != kStored || header.packed_size != header.size) return false;
    *out = QByteArray(reinterpret_cast<const char*>(packed), static_cast<int>(header.size));
  }
  return Crc32(out->constData(), static_cast<std::size_t>(out->size())) == header.crc;
}

QByteArray UnzipAt(const ZipDirectory& directory, quint64 position, bool* ok) {
  ZipHeader header;
  QByteArray bytes;
  *ok = directory.Read(position, &header) && Unpack(directory, header, &bytes);
  return *ok ? bytes : QByteArray();
}

// 2-second steps since 1980 (APPNOTE 4.4.6).
QDateTime ReadDosTime(quint32 fields) {
  const auto bits = [fields](int from, int count) {
    return static_cast<int>((fields >> from) & ((1U << count) - 1));
  };
  const QDate date(1980 + bits(25, 7), bits(21, 4), bits(16, 5));
  return QDateTime(date, QTime(bits(11, 5), bits(5, 6), 2 * bits(0, 5)), Qt::UTC);
}

}  // namespace

bool IsKmzData(const unsigned char* bytes, int size) {
  return size >= 4 && std::memcmp(bytes, "PK\3\4", 4) == 0;
}

QSet<QString> FoldedNames(void* zip) {
  MemoryArchive* const archive = MemoryArchive::Find(zip);
  return archive ? archive->GetIndex().Names() : QSet<QString>();
}

QByteArray UnzipZFile(void* zip, const QString& entry) {
  MemoryArchive* const archive = MemoryArchive::Find(zip);
  if (!archive) return QByteArray();
  const EntryIndex& index = archive->GetIndex();
  const std::optional<quint64> position =
      entry.isEmpty() ? index.FindMainDocument() : index.Find(entry.toLower());
  bool ok = false;
  return position ? UnzipAt(archive->directory(), *position, &ok) : QByteArray();
}

std::vector<ArchiveEntry> ListEntries(void* zip) {
  std::vector<ArchiveEntry> entries;
  const MemoryArchive* const archive = MemoryArchive::Find(zip);
  if (!archive) return entries;
  const ZipDirectory& directory = archive->directory();
  ZipHeader header;
  for (quint64 at = directory.begin(); directory.Read(at, &header); at = header.next) {
    entries.push_back({header.Name(), header.size, header.packed_size, header.crc, header.method,
                       (header.flags & kEncryptedFlag) != 0, ReadDosTime(header.dos_time), at});
  }
  return entries;
}

QByteArray UnzipEntry(void* zip, const ArchiveEntry& entry, bool* ok) {
  bool ignored = false;
  bool* const unpacked = ok ? ok : &ignored;
  *unpacked = false;
  const MemoryArchive* const archive = MemoryArchive::Find(zip);
  return archive ? UnzipAt(archive->directory(), entry.position, unpacked) : QByteArray();
}

void CloseZFile(void* zip) {
  if (zip) unzClose(zip);
}

void SetExtractionLimit(std::size_t bytes) { s_extraction_limit.store(bytes, std::memory_order_relaxed); }

std::size_t GetExtractionLimit() { return s_extraction_limit.load(std::memory_order_relaxed); }

}  // namespace orvan::kmz
