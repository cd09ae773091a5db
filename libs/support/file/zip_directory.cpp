#include "orvan/support/file/zip_directory.h"

#include <QtEndian>
#include <algorithm>
#include <cstring>

namespace orvan::kmz {
namespace {

// Sizes of the records without their variable parts.
constexpr quint64 kLocalHeaderBytes = 30;
constexpr quint64 kHeaderBytes = 46;
constexpr quint64 kEndRecordBytes = 22;
constexpr quint64 kLocator64Bytes = 20;
constexpr quint64 kEndRecord64Bytes = 56;
constexpr quint64 kLongestComment = 65535;

// Stands in a field of 32 bits whose value is in the extra field of this kind, in 64 bits.
constexpr quint64 kIn64Bits = 0xFFFFFFFF;
constexpr quint16 kZip64Extra = 1;

template <typename T>
T Field(const unsigned char* record, int offset) {
  return qFromLittleEndian<T>(record + offset);
}

bool IsRecord(const unsigned char* record, const char* signature) {
  return std::memcmp(record, signature, 4) == 0;
}

// The last end record of the archive, or null. Behind it there is at most a comment.
const unsigned char* FindEndRecord(const unsigned char* bytes, quint64 size) {
  if (size < kEndRecordBytes) return nullptr;
  const unsigned char* const last = bytes + size - kEndRecordBytes;
  const unsigned char* const first = last - std::min(size - kEndRecordBytes, kLongestComment);
  for (const unsigned char* record = last; record >= first; --record) {
    if (IsRecord(record, "PK\5\6")) return record;
  }
  return nullptr;
}

// The end record of 64 bits that the locator in front of `end_record` points at, or null.
const unsigned char* FindEndRecord64(const unsigned char* bytes, const unsigned char* end_record) {
  const auto before = static_cast<quint64>(end_record - bytes);
  if (before < kLocator64Bytes + kEndRecord64Bytes) return nullptr;
  const unsigned char* const locator = end_record - kLocator64Bytes;
  if (!IsRecord(locator, "PK\6\7")) return nullptr;
  const auto offset = Field<quint64>(locator, 8);
  if (offset > before - kLocator64Bytes - kEndRecord64Bytes) return nullptr;
  return IsRecord(bytes + offset, "PK\6\6") ? bytes + offset : nullptr;
}

// Replaces the values that are only markers by those of 64 bits, which follow each other in this order.
void Resolve64(const unsigned char* extra, int left, ZipHeader* header) {
  while (left >= 4) {
    const auto kind = Field<quint16>(extra, 0);
    int length = std::min<int>(Field<quint16>(extra, 2), left - 4);
    extra += 4;
    left -= 4 + length;
    if (kind != kZip64Extra) {
      extra += length;
      continue;
    }
    for (quint64* value : {&header->size, &header->packed_size, &header->local_header}) {
      if (*value != kIn64Bits) continue;
      if (length < 8) return;
      *value = Field<quint64>(extra, 0);
      extra += 8;
      length -= 8;
    }
    return;
  }
}

}  // namespace

QString ZipHeader::FoldedName() const {
  QString folded(name_size, Qt::Uninitialized);
  QChar* out = folded.data();
  for (int i = 0; i < name_size; ++i) {
    const char byte = name[i];
    if (byte < 0) return Name().toLower();  // not ASCII
    out[i] = QLatin1Char(byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte);
  }
  return folded;
}

ZipDirectory::ZipDirectory(const unsigned char* bytes, std::size_t size) : bytes_(bytes) {
  const unsigned char* const end_record = FindEndRecord(bytes, size);
  if (!end_record) return;
  const unsigned char* directory_end = end_record;
  quint64 directory_size = Field<quint32>(end_record, 12);
  quint64 offset = Field<quint32>(end_record, 16);
  if (const unsigned char* const end_record_64 = FindEndRecord64(bytes, end_record)) {
    directory_end = end_record_64;
    directory_size = Field<quint64>(end_record_64, 40);
    offset = Field<quint64>(end_record_64, 48);
  }
  const auto end = static_cast<quint64>(directory_end - bytes);
  if (directory_size > end || offset > end - directory_size) return;
  end_ = end;
  begin_ = end - directory_size;
  junk_ = begin_ - offset;
}

bool ZipDirectory::Read(quint64 position, ZipHeader* header) const {
  if (position < begin_ || position > end_ || end_ - position < kHeaderBytes) return false;
  const unsigned char* const record = bytes_ + position;
  if (!IsRecord(record, "PK\1\2")) return false;
  const int name_size = Field<quint16>(record, 28);
  const int extra_size = Field<quint16>(record, 30);
  const int comment_size = Field<quint16>(record, 32);
  const quint64 next = position + kHeaderBytes + static_cast<quint64>(name_size + extra_size + comment_size);
  if (next > end_) return false;

  const unsigned char* const name = record + kHeaderBytes;
  header->name = reinterpret_cast<const char*>(name);
  header->name_size = static_cast<int>(qstrnlen(header->name, static_cast<uint>(name_size)));
  header->flags = Field<quint16>(record, 8);
  header->method = Field<quint16>(record, 10);
  header->dos_time = Field<quint32>(record, 12);
  header->crc = Field<quint32>(record, 16);
  header->packed_size = Field<quint32>(record, 20);
  header->size = Field<quint32>(record, 24);
  header->local_header = Field<quint32>(record, 42);
  header->next = next;
  Resolve64(name + name_size, extra_size, header);
  // May wrap around, to a place in the junk: as wrong as any other, and FindPackedBytes() trusts none.
  header->local_header += junk_;
  return true;
}

const unsigned char* ZipDirectory::FindPackedBytes(const ZipHeader& header) const {
  if (begin_ < kLocalHeaderBytes || header.local_header > begin_ - kLocalHeaderBytes) return nullptr;
  const unsigned char* const record = bytes_ + header.local_header;
  if (!IsRecord(record, "PK\3\4")) return nullptr;
  const quint64 data =
      header.local_header + kLocalHeaderBytes + Field<quint16>(record, 26) + Field<quint16>(record, 28);
  if (data > begin_ || header.packed_size > begin_ - data) return nullptr;
  return bytes_ + data;
}

}  // namespace orvan::kmz
