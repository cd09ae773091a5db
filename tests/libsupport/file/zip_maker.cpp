#include "tests/libsupport/file/zip_maker.h"

#include <zlib.h>

#include <QtEndian>

namespace orvan::test {
namespace {

constexpr quint32 kEveryTime = 0x5A426C65;  // 2025-02-02 13:35:10

template <typename T>
void Append(QByteArray* out, T value) {
  char bytes[sizeof(T)];
  qToLittleEndian(value, bytes);
  out->append(bytes, sizeof(T));
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
  Append<quint16>(out, entry.zip64 ? 45 : 20);
  Append<quint16>(out, static_cast<quint16>(entry.flags | (entry.descriptor ? 8 : 0)));
  Append<quint16>(out, method);
  Append<quint32>(out, kEveryTime);
  Append<quint32>(out, zeros ? 0 : crc);
  Append<quint32>(out, entry.zip64 ? 0xFFFFFFFF : zeros ? 0 : static_cast<quint32>(packed));
  Append<quint32>(out, entry.zip64 ? 0xFFFFFFFF : zeros ? 0 : static_cast<quint32>(size));
  Append<quint16>(out, static_cast<quint16>(entry.name.size()));
  Append<quint16>(out, entry.zip64 ? (in_directory ? 28 : 20) : 0);
}

void AppendZip64Extra(QByteArray* out, const ZipEntry& entry, quint64 packed, quint64 size,
                      bool in_directory) {
  if (!entry.zip64) return;
  Append<quint16>(out, 1);
  Append<quint16>(out, in_directory ? 24 : 16);
  Append<quint64>(out, size);
  Append<quint64>(out, packed);
}

}  // namespace

void ZipMaker::Add(const ZipEntry& entry) {
  const QByteArray bytes = entry.deflated ? Deflate(entry.content) : entry.content;
  const auto packed = static_cast<quint64>(bytes.size() + entry.packed_error);
  const auto size = static_cast<quint64>(entry.content.size() + entry.size_error);
  const QByteArray& checked = entry.crc_of.isEmpty() ? entry.content : entry.crc_of;
  const auto crc = static_cast<quint32>(
      crc32(0, reinterpret_cast<const Bytef*>(checked.constData()), static_cast<uInt>(checked.size())));
  const qint64 offset = entry.local_header < 0 ? local_.size() : entry.local_header;

  Append<quint32>(&local_, 0x04034B50);
  AppendCommon(&local_, entry, crc, packed, size, entry.descriptor, false);
  local_ += entry.name;
  AppendZip64Extra(&local_, entry, packed, size, false);
  local_ += bytes;
  if (entry.descriptor) {
    Append<quint32>(&local_, 0x08074B50);
    Append<quint32>(&local_, crc);
    Append<quint32>(&local_, static_cast<quint32>(packed));
    Append<quint32>(&local_, static_cast<quint32>(size));
  }

  Append<quint32>(&directory_, 0x02014B50);
  Append<quint16>(&directory_, 45);
  AppendCommon(&directory_, entry, crc, packed, size, false, true);
  Append<quint16>(&directory_, 0);  // comment
  Append<quint16>(&directory_, 0);  // disk
  Append<quint16>(&directory_, 0);  // attributes
  Append<quint32>(&directory_, 0);
  Append<quint32>(&directory_, entry.zip64 ? 0xFFFFFFFF : static_cast<quint32>(offset));
  directory_ += entry.name;
  AppendZip64Extra(&directory_, entry, packed, size, true);
  if (entry.zip64) Append<quint64>(&directory_, static_cast<quint64>(offset));
  ++entries_;
}

QByteArray ZipMaker::Finish(int stated_entries, const QByteArray& comment) const {
  const auto entries = static_cast<quint16>(stated_entries < 0 ? entries_ : stated_entries);
  QByteArray out = local_ + directory_;
  Append<quint32>(&out, 0x06054B50);
  Append<quint32>(&out, 0);  // disks
  Append<quint16>(&out, entries);
  Append<quint16>(&out, entries);
  Append<quint32>(&out, static_cast<quint32>(directory_.size()));
  Append<quint32>(&out, static_cast<quint32>(local_.size()));
  Append<quint16>(&out, static_cast<quint16>(comment.size()));
  return out + comment;
}

QByteArray ZipMaker::Finish64() const {
  QByteArray out = local_ + directory_;
  Append<quint32>(&out, 0x06064B50);
  Append<quint64>(&out, 44);  // of the record that follow
  Append<quint32>(&out, 45 | 45 << 16);
  Append<quint64>(&out, 0);  // disks
  Append<quint64>(&out, static_cast<quint64>(entries_));
  Append<quint64>(&out, static_cast<quint64>(entries_));
  Append<quint64>(&out, static_cast<quint64>(directory_.size()));
  Append<quint64>(&out, static_cast<quint64>(local_.size()));
  Append<quint32>(&out, 0x07064B50);
  Append<quint32>(&out, 0);  // disk
  Append<quint64>(&out, static_cast<quint64>(local_.size() + directory_.size()));
  Append<quint32>(&out, 1);  // disks
  Append<quint32>(&out, 0x06054B50);
  Append<quint32>(&out, 0);  // disks
  return out + QByteArray(12, '\xFF') + QByteArray(2, '\0');
}

}  // namespace orvan::test
