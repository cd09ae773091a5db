#pragma once

#include <QString>
#include <QtGlobal>
#include <cstddef>

namespace orvan::kmz {

// What the directory of an archive states of one entry. Nothing of it is checked against the entry's bytes.
struct ZipHeader {
  const char* name = nullptr;  // in the archive's bytes, up to the first NUL
  int name_size = 0;
  quint16 flags = 0;
  quint16 method = 0;
  quint32 dos_time = 0;  // time in the low half, date in the high one
  quint32 crc = 0;
  quint64 packed_size = 0;
  quint64 size = 0;
  quint64 local_header = 0;  // where the entry begins, counted from the archive's first byte
  quint64 next = 0;          // where the next header begins

  // Read as UTF-8, which is what archives of map documents hold whatever their flags say.
  QString Name() const { return QString::fromUtf8(name, name_size); }
  QString FoldedName() const;
};

// The directory at the end of a zip archive (PKWARE APPNOTE 4.3), read straight from memory. Junk in front
// of the archive, a comment behind it, and records of 64 bits are understood.
//
// Shape:  the headers of the entries, one behind the other. How many there are is found by walking:
//             for (quint64 at = directory.begin(); directory.Read(at, &header); at = header.next)
//         The count in the end record is not looked at, so it can neither hide entries nor invent them.
// Bounds: no read leaves the archive, and a walk takes at least 46 bytes of it for each step.
// Ownership: the bytes are borrowed.
class ZipDirectory {
 public:
  ZipDirectory(const unsigned char* bytes, std::size_t size);

  // Where the first header would be; begin and end are equal if there is no directory.
  quint64 begin() const { return begin_; }

  // False if no whole header begins at `position`, or if that is outside the directory.
  bool Read(quint64 position, ZipHeader* header) const;

  // The `packed_size` bytes of the entry, found through its local header. Null unless all of them lie
  // between that header and the directory.
  const unsigned char* FindPackedBytes(const ZipHeader& header) const;

 private:
  const unsigned char* const bytes_;
  quint64 begin_ = 0;
  quint64 end_ = 0;
  quint64 junk_ = 0;  // bytes in front of the archive, which its offsets do not count
};

}  // namespace orvan::kmz
