#include "orvan/support/file/kmz_zip.h"

#include <zlib.h>

#include <QtEndian>
#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>

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
// The most that deflate can make of a byte, and what an output starts with.
constexpr std::size_t kDeflateFactor = 1032;
constexpr std::size_t kFirstStep = std::size_t{4} * 1024 * 1024;

constexpr uLong kStored = 0;
constexpr uLong kDeflated = 8;
constexpr uLong kEncryptedFlag = 1;

// Stands in a field of 32 bits whose value is in the extra field of this kind, in 64 bits.
constexpr ZPOS64_T kIn64Bits = 0xFFFFFFFF;
constexpr quint16 kZip64Extra = 1;
constexpr int kExtraBufferBytes = 65535;  // the format has 16 bits for the length

std::atomic<std::size_t> s_extraction_limit{kDefaultExtractionLimit};

// The packed bytes of an entry, and what its archive states of them.
struct PackedEntry {
  const unsigned char* bytes = nullptr;
  std::size_t size = 0;
  uLong method = kStored;
  std::size_t unpacked_size = 0;
  uLong crc = 0;
};

// Replaces the sizes by those of 64 bits, if there are any. minizip would leave the markers in their place:
// it looks for markers that are as wide as its own fields.
bool ResolveSizes(unzFile handle, unz_file_info64* info) {
  if (info->uncompressed_size != kIn64Bits && info->compressed_size != kIn64Bits) return true;
  QByteArray buffer(kExtraBufferBytes, Qt::Uninitialized);
  unz_file_info64 again;
  if (unzGetCurrentFileInfo64(handle, &again, nullptr, 0, buffer.data(), kExtraBufferBytes, nullptr, 0) !=
      UNZ_OK) {
    return false;
  }
  const char* field = buffer.constData();
  auto left = static_cast<int>(info->size_file_extra);
  while (left >= 4) {
    const auto kind = qFromLittleEndian<quint16>(field);
    int length = qFromLittleEndian<quint16>(field + 2);
    field += 4;
    left -= 4;
    if (length > left) return false;
    if (kind != kZip64Extra) {
      field += length;
      left -= length;
      continue;
    }
    for (ZPOS64_T* size : {&info->uncompressed_size, &info->compressed_size}) {
      if (*size != kIn64Bits) continue;
      if (length < 8) return false;
      *size = qFromLittleEndian<quint64>(field);
      field += 8;
      length -= 8;
    }
    return true;
  }
  return false;
}

// Finds the packed bytes of the handle's current entry. False unless they lie within the archive and are
// something that Unpack() can handle, within the limit.
bool LocateBytes(MemoryArchive* archive, unzFile handle, PackedEntry* entry) {
  unz_file_info64 info;
  if (unzGetCurrentFileInfo64(handle, &info, nullptr, 0, nullptr, 0, nullptr, 0) != UNZ_OK) return false;
  if ((info.flag & kEncryptedFlag) != 0) return false;
  if (info.compression_method != kStored && info.compression_method != kDeflated) return false;
  if (!ResolveSizes(handle, &info)) return false;
  if (info.uncompressed_size > std::min(GetExtractionLimit(), kLongestArray)) return false;

  // Opening it "raw" makes minizip read the local header, which says where the bytes begin, and nothing else.
  int method = 0;
  if (unzOpenCurrentFile2(handle, &method, nullptr, 1) != UNZ_OK) return false;
  const ZPOS64_T begin = unzGetCurrentFileZStreamPos64(handle);
  unzCloseCurrentFile(handle);
  if (begin > archive->size() || info.compressed_size > archive->size() - begin) return false;

  *entry = {archive->bytes() + begin, info.compressed_size, info.compression_method, info.uncompressed_size,
            info.crc};
  return true;
}

// Inflates into `out`, which has to become exactly as long as the entry states. The memory grows with what
// really comes out, and never beyond the stated size.
bool Inflate(const PackedEntry& entry, QByteArray* out) {
  if (entry.unpacked_size > entry.size * kDeflateFactor) return false;
  z_stream stream;
  std::memset(&stream, 0, sizeof(stream));
  if (inflateInit2(&stream, -MAX_WBITS) != Z_OK) return false;
  stream.next_in =
      const_cast<Bytef*>(entry.bytes);  // zlib's fields are not const, zlib leaves the bytes alone
  stream.avail_in = static_cast<uInt>(std::min<std::size_t>(entry.size, std::numeric_limits<uInt>::max()));

  int status = Z_OK;
  Bytef surplus = 0;  // room for one byte more than stated: a stream that fills it is too long
  while (status == Z_OK) {
    const std::size_t done = stream.total_out;
    if (done > entry.unpacked_size) break;
    if (done == entry.unpacked_size) {
      stream.next_out = &surplus;
      stream.avail_out = 1;
    } else {
      const std::size_t room = std::min(entry.unpacked_size, std::max(kFirstStep, 2 * done));
      out->reserve(static_cast<int>(room));
      out->resize(static_cast<int>(room));
      stream.next_out = reinterpret_cast<Bytef*>(out->data()) + done;
      stream.avail_out = static_cast<uInt>(room - done);
    }
    status = inflate(&stream, Z_NO_FLUSH);
  }
  const bool complete = status == Z_STREAM_END && stream.total_out == entry.unpacked_size;
  inflateEnd(&stream);
  return complete;
}

QByteArray Unpack(const PackedEntry& entry) {
  QByteArray out;
  if (entry.method == kDeflated) {
    if (!Inflate(entry, &out)) return QByteArray();
  } else {
    if (entry.size != entry.unpacked_size) return QByteArray();
    out = QByteArray(reinterpret_cast<const char*>(entry.bytes), static_cast<int>(entry.size));
  }
  const uLong crc =
      crc32_z(0, reinterpret_cast<const Bytef*>(out.constData()), static_cast<z_size_t>(out.size()));
  return crc == entry.crc ? out : QByteArray();
}

}  // namespace

bool IsKmzData(const unsigned char* bytes, int size) {
  return size >= 4 && std::memcmp(bytes, "PK\3\4", 4) == 0;
}

QByteArray UnzipZFile(void* zip, const QString& entry) {
  MemoryArchive* const archive = MemoryArchive::Find(zip);
  if (!archive) return QByteArray();
  const EntryIndex& index = archive->GetIndex();
  const QString name = entry.isEmpty() ? index.main_document : entry.toLower();
  const auto found = index.positions.constFind(name);
  if (name.isEmpty() || found == index.positions.constEnd()) return QByteArray();

  PackedEntry packed;
  if (unzGoToFilePos64(zip, &*found) != UNZ_OK || !LocateBytes(archive, zip, &packed)) return QByteArray();
  return Unpack(packed);
}

QStringList ListEntries(void* zip) {
  QStringList names;
  if (!MemoryArchive::Find(zip)) return names;
  WalkEntries(zip, [&names](const QString& name) { names.append(name); });
  return names;
}

void SetExtractionLimit(std::size_t bytes) { s_extraction_limit.store(bytes, std::memory_order_relaxed); }

std::size_t GetExtractionLimit() { return s_extraction_limit.load(std::memory_order_relaxed); }

}  // namespace orvan::kmz
