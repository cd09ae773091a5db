#pragma once

#include <QByteArray>
#include <QtGlobal>

namespace orvan::test {

// One entry of an archive to be made, and the lies that the archive tells of it.
struct ZipEntry {
  QByteArray name;
  QByteArray content;
  bool deflated = true;
  quint16 method = 0xFFFF;  // what is stated instead of 0 or 8
  quint16 flags = 0;
  bool descriptor = false;           // sizes and CRC behind the bytes, zeros in front of them
  bool zip64 = false;                // sizes and offset in 64 bits
  QByteArray crc_of = QByteArray();  // what the CRC is that of, if not of the content
  qint64 size_error = 0;             // added to the stated unpacked size
  qint64 packed_error = 0;           // added to the stated packed size
};

// Writes zip archives byte by byte, as no well-behaved writer would.
class ZipMaker {
 public:
  void Add(const ZipEntry& entry);
  void Add(const QByteArray& name, const QByteArray& content) { Add(ZipEntry{name, content}); }
  // The archive. `stated_entries` replaces the count of the end record if it is not negative.
  QByteArray Finish(int stated_entries = -1, const QByteArray& comment = QByteArray()) const;
  // The archive with its end record in 64 bits, and only markers in that of 32.
  QByteArray Finish64() const;

 private:
  QByteArray local_;
  QByteArray directory_;
  int entries_ = 0;
};

}  // namespace orvan::test
