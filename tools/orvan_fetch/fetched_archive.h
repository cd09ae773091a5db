#pragma once

#include <QByteArray>
#include <QString>
#include <vector>

#include "orvan/support/file/kmz_zip.h"
#include "tools/orvan_fetch/fetch_record.h"

namespace orvan_fetch {

// The archive that a fetch has brought into the cache, with a reader of its own over its bytes.
//
// Threads:   one.
// Ownership: shares the bytes with the cache, which may give them up or exchange them meanwhile.
class FetchedArchive {
 public:
  // `record` is of a fetch that has ended.
  explicit FetchedArchive(const FetchRecord& record);
  ~FetchedArchive();
  FetchedArchive(const FetchedArchive&) = delete;
  FetchedArchive& operator=(const FetchedArchive&) = delete;

  // Why there is nothing to read, or an empty text.
  const QString& problem() const { return problem_; }
  const QString& url() const { return url_; }
  int size() const { return bytes_.size(); }
  std::vector<orvan::kmz::ArchiveEntry> List() const { return orvan::kmz::ListEntries(zip_); }
  // Sets `problem`, to an empty text if all went well. An entry may be empty.
  QByteArray Unpack(const orvan::kmz::ArchiveEntry& entry, QString* problem) const;

 private:
  const QString url_;
  QByteArray bytes_;
  void* zip_ = nullptr;  // reads bytes_
  QString problem_;
};

}  // namespace orvan_fetch
