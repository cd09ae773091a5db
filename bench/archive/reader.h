#pragma once

#include <QByteArray>
#include <QString>
#include <memory>

namespace orvan::bench {

// One way to read archives that are in memory. Made over an archive, it is ready to extract by name.
class Reader {
 public:
  virtual ~Reader() = default;
  // Unpacks the entry into a block of its own, checks size and CRC, and returns the size; -1 if that failed.
  virtual qint64 Extract(const QString& name) = 0;
};

// The peers, over bytes that outlive them:
//   orvan          unzAttach(), the set of folded names and the index
//   minizip        minizip with a set of folded names, which it walks for; look-up by unzLocateFile()
//   minizip-index  the same, and an index from folded name to position, filled in that walk
//   libzip         zip_open_from_source(), look-up by its own index of exact names
//   zlib           the limit: no look-up worth the name, one block for all entries, inflate() and crc32()
//   libdeflate     the same with libdeflate's
// Null for another name, or if the peer cannot open the archive.
std::unique_ptr<Reader> MakeReader(const QString& peer, const QByteArray& archive);

std::unique_ptr<Reader> MakeMinizipReader(const QByteArray& archive, bool with_index);
std::unique_ptr<Reader> MakeLibzipReader(const QByteArray& archive);
std::unique_ptr<Reader> MakeBareReader(const QByteArray& archive, bool with_libdeflate);

}  // namespace orvan::bench
