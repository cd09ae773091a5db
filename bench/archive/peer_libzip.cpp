#include <zip.h>

#include "bench/archive/reader.h"

namespace orvan::bench {
namespace {

class LibzipReader : public Reader {
 public:
  explicit LibzipReader(zip_t* archive) : archive_(archive) {}
  ~LibzipReader() override { zip_discard(archive_); }

  qint64 Extract(const QString& name) override {
    const zip_int64_t number = zip_name_locate(archive_, name.toUtf8().constData(), 0);
    zip_stat_t stat;
    if (number < 0 || zip_stat_index(archive_, static_cast<zip_uint64_t>(number), 0, &stat) != 0) return -1;
    zip_file_t* const file = zip_fopen_index(archive_, static_cast<zip_uint64_t>(number), 0);
    if (!file) return -1;
    QByteArray bytes(static_cast<int>(stat.size), Qt::Uninitialized);
    const zip_int64_t count = zip_fread(file, bytes.data(), stat.size);
    // The CRC is looked at when the end is read.
    char surplus = 0;
    const bool good = count == bytes.size() && zip_fread(file, &surplus, 1) == 0;
    return zip_fclose(file) == 0 && good ? count : -1;
  }

 private:
  zip_t* const archive_;
};

}  // namespace

std::unique_ptr<Reader> MakeLibzipReader(const QByteArray& archive) {
  zip_error_t error;
  zip_error_init(&error);
  zip_source_t* const source =
      zip_source_buffer_create(archive.constData(), static_cast<zip_uint64_t>(archive.size()), 0, &error);
  if (!source) return nullptr;
  zip_t* const opened = zip_open_from_source(source, ZIP_RDONLY, &error);
  if (!opened) {
    zip_source_free(source);
    return nullptr;
  }
  return std::make_unique<LibzipReader>(opened);
}

}  // namespace orvan::bench
