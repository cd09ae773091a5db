#include "tests/libsupport/file/zip_maker.h"

#include <zlib.h>

#include <QtEndian>

namespace orvan::test {
namespace {

constexpr quint32 kEveryTime = 0x5A426C65;  // 2025-02-02 13:35:10

using U16 = quint16;
using U32 = quint32;

// Appends the values one behind the other, each in as many bytes as its type has.
template <typename... T>
void Append(QByteArray* out, T... values) {
  const auto append = [out](auto value) {
    char bytes[sizeof value];
    qToLittleEndian(value, bytes);
    out->append(bytes, sizeof bytes);
  };
  (append(values), ...);
}

// What qCompress() makes, without the length in front, the zlib header and the checksum at the end.
QByteArray Deflate(const QByteArray& content) {
  if (content.isEmpty()) return QByteArray::fromHex("0300");
  const QByteArray packed = qCompress(content, 9);
  return packed.mid(6, packed.size() - 10);
}

void AppendCommon(QByteArray* out, const ZipEntry& entry, quint32 crc, quint64 packed, quint64 size,
                  bool zeros, bool in_directory) {
  const quint16 method = entry.method != 0xFFFF ? entry.method : static_cast<quint16>(entry.deflated ? 8 : 0);
  const auto stated = [&](quint64 value) {
    if (entry.zip64) return U32{0xFFFFFFFF};
    return zeros ? 0 : static_cast<U32>(value);
  };
  Append(out, U16(entry.zip64 ? 45 : 20), U16(entry.flags | (entry.descriptor ? 8 : 0)), method, kEveryTime,
         zeros ? 0 : crc, stated(packed), stated(size), U16(entry.name.size()));
  Append(out, U16(entry.zip64 ? (in_directory ? 28 : 20) : 0));
}

void AppendZip64Extra(QByteArray* out, const ZipEntry& entry, quint64 packed, quint64 size,
                      bool in_directory) {
  if (entry.zip64) Append(out, U16{1}, U16(in_directory ? 24 : 16), size, packed);
}

}  // namespace

void ZipMaker::Add(const ZipEntry& entry) {
  const QByteArray bytes = entry.deflated ? Deflate(entry.content) : entry.content;
  const auto packed = static_cast<quint64>(bytes.size() + entry.packed_error);
  const auto size = static_cast<quint64>(entry.content.size() + entry.size_error);
  const QByteArray& checked = entry.crc_of.isEmpty() ? entry.content : entry.crc_of;
  const auto crc = static_cast<quint32>(
      crc32(0, reinterpret_cast<const Bytef*>(checked.constData()), static_cast<uInt>(checked.size())));
  const auto offset = static_cast<quint64>(local_.size());

  Append(&local_, U32{0x04034B50});
  AppendCommon(&local_, entry, crc, packed, size, entry.descriptor, false);
  local_ += entry.name;
  AppendZip64Extra(&local_, entry, packed, size, false);
  local_ += bytes;
  if (entry.descriptor) Append(&local_, U32{0x08074B50}, crc, U32(packed), U32(size));

  Append(&directory_, U32{0x02014B50}, U16{45});
  AppendCommon(&directory_, entry, crc, packed, size, false, true);
  Append(&directory_, U16{0}, U16{0}, U16{0}, U32{0});  // comment, disk, attributes
  Append(&directory_, entry.zip64 ? 0xFFFFFFFF : U32(offset));
  directory_ += entry.name;
  AppendZip64Extra(&directory_, entry, packed, size, true);
  if (entry.zip64) Append(&directory_, offset);
  ++entries_;
}

QByteArray ZipMaker::Finish(int stated_entries, const QByteArray& comment) const {
  const auto entries = static_cast<quint16>(stated_entries < 0 ? entries_ : stated_entries);
  QByteArray out = local_ + directory_;
  Append(&out, U32{0x06054B50}, U32{0}, entries, entries);  // the second is for the disks
  Append(&out, U32(directory_.size()), U32(local_.size()), U16(comment.size()));
  return out + comment;
}

QByteArray ZipMaker::Finish64() const {
  const auto entries = static_cast<quint64>(entries_);
  const auto directory_size = static_cast<quint64>(directory_.size());
  const auto directory_at = static_cast<quint64>(local_.size());
  QByteArray out = local_ + directory_;
  // The record of 44 more bytes, with its versions and disks; where it stands; the record of 32 bits.
  Append(&out, U32{0x06064B50}, quint64{44}, U32(45 | 45 << 16), quint64{0}, entries, entries);
  Append(&out, directory_size, directory_at);
  Append(&out, U32{0x07064B50}, U32{0}, directory_at + directory_size, U32{1});
  Append(&out, U32{0x06054B50}, U32{0});
  return out + QByteArray(12, '\xFF') + QByteArray(2, '\0');
}

}  // namespace orvan::test
