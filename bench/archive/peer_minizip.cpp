#include <libdeflate.h>
#include <minizip/unzip.h>
#include <zlib.h>

#include <QHash>
#include <QSet>
#include <functional>

#include "bench/archive/reader.h"
#include "orvan/support/file/kmz_zip.h"

namespace orvan::bench {
namespace {

// minizip needs a stream of its user's over memory; the library's is as good as any.
unzFile Attach(const QByteArray& archive) {
  MemoryFileFunctions functions;
  mem_simple_create_file(&functions, archive.constData(), static_cast<std::size_t>(archive.size()));
  return unzAttach(functions);
}

using Visit = std::function<void(const QString& folded, const unz_file_info64& info)>;

void Walk(unzFile handle, const Visit& visit) {
  char name[1025] = {};
  for (int status = unzGoToFirstFile(handle); status == UNZ_OK; status = unzGoToNextFile(handle)) {
    unz_file_info64 info;
    unzGetCurrentFileInfo64(handle, &info, name, sizeof(name) - 1, nullptr, 0, nullptr, 0);
    visit(QString::fromUtf8(name).toLower(), info);
  }
}

class MinizipReader : public Reader {
 public:
  MinizipReader(unzFile handle, bool with_index) : handle_(handle), with_index_(with_index) {
    Walk(handle_, [this](const QString& folded, const unz_file_info64&) {
      names_.insert(folded);
      if (!with_index_) return;
      unz64_file_pos position;
      unzGetFilePos64(handle_, &position);
      index_.insert(folded, position);
    });
  }
  ~MinizipReader() override { unzClose(handle_); }

  qint64 Extract(const QString& name) override {
    if (!GoTo(name)) return -1;
    unz_file_info64 info;
    unzGetCurrentFileInfo64(handle_, &info, nullptr, 0, nullptr, 0, nullptr, 0);
    if (unzOpenCurrentFile(handle_) != UNZ_OK) return -1;
    QByteArray bytes(static_cast<int>(info.uncompressed_size), Qt::Uninitialized);
    const int count = unzReadCurrentFile(handle_, bytes.data(), static_cast<unsigned>(bytes.size()));
    return unzCloseCurrentFile(handle_) == UNZ_OK && count == bytes.size() ? count : -1;
  }

 private:
  bool GoTo(const QString& name) {
    if (!with_index_) return unzLocateFile(handle_, name.toUtf8().constData(), 2) == UNZ_OK;
    const auto found = index_.constFind(name.toLower());
    return found != index_.constEnd() && unzGoToFilePos64(handle_, &*found) == UNZ_OK;
  }

  const unzFile handle_;
  const bool with_index_;
  QSet<QString> names_;
  QHash<QString, unz64_file_pos> index_;
};

// Knows beforehand where the packed bytes of each entry are.
class BareReader : public Reader {
 public:
  BareReader(const QByteArray& archive, bool with_libdeflate) : with_libdeflate_(with_libdeflate) {
    const unzFile handle = Attach(archive);
    int largest = 0;
    Walk(handle, [&](const QString& folded, const unz_file_info64& info) {
      int method = 0;
      unzOpenCurrentFile2(handle, &method, nullptr, 1);
      entries_.insert(folded, {archive.constData() + unzGetCurrentFileZStreamPos64(handle), info});
      unzCloseCurrentFile(handle);
      largest = std::max(largest, static_cast<int>(info.uncompressed_size));
    });
    unzClose(handle);
    block_ = QByteArray(largest, '\0');
    inflateInit2(&stream_, -MAX_WBITS);
  }
  ~BareReader() override {
    inflateEnd(&stream_);
    libdeflate_free_decompressor(decompressor_);
  }
  BareReader(const BareReader&) = delete;

  qint64 Extract(const QString& name) override {
    const auto found = entries_.constFind(name);
    if (found == entries_.constEnd()) return -1;
    const std::size_t size = found->info.uncompressed_size;
    if (found->info.compression_method == 0) {
      std::copy_n(found->packed, size, block_.data());
    } else if (!(with_libdeflate_ ? InflateByLibdeflate(*found) : InflateByZlib(*found))) {
      return -1;
    }
    const auto* const bytes = reinterpret_cast<const Bytef*>(block_.constData());
    const uLong crc = with_libdeflate_ ? libdeflate_crc32(0, bytes, size) : crc32_z(0, bytes, size);
    return crc == found->info.crc ? static_cast<qint64>(size) : -1;
  }

 private:
  struct Entry {
    const char* packed;
    unz_file_info64 info;
  };

  bool InflateByLibdeflate(const Entry& entry) {
    return libdeflate_deflate_decompress(decompressor_, entry.packed, entry.info.compressed_size,
                                         block_.data(), entry.info.uncompressed_size,
                                         nullptr) == LIBDEFLATE_SUCCESS;
  }

  bool InflateByZlib(const Entry& entry) {
    inflateReset(&stream_);
    stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(entry.packed));
    stream_.avail_in = static_cast<uInt>(entry.info.compressed_size);
    stream_.next_out = reinterpret_cast<Bytef*>(block_.data());
    stream_.avail_out = static_cast<uInt>(entry.info.uncompressed_size);
    return inflate(&stream_, Z_FINISH) == Z_STREAM_END;
  }

  const bool with_libdeflate_;
  QHash<QString, Entry> entries_;
  QByteArray block_;
  z_stream stream_ = {};
  libdeflate_decompressor* const decompressor_ = libdeflate_alloc_decompressor();
};

}  // namespace

std::unique_ptr<Reader> MakeMinizipReader(const QByteArray& archive, bool with_index) {
  const unzFile handle = Attach(archive);
  return handle ? std::make_unique<MinizipReader>(handle, with_index) : nullptr;
}

std::unique_ptr<Reader> MakeBareReader(const QByteArray& archive, bool with_libdeflate) {
  return std::make_unique<BareReader>(archive, with_libdeflate);
}

}  // namespace orvan::bench
