#include "tools/orvan_fetch/fetched_archive.h"

#include "orvan/net/fetcher.h"
#include "orvan/net/kmz_cache.h"

namespace orvan_fetch {
namespace {

constexpr int kStored = 0;
constexpr int kDeflated = 8;

// An archive without a main document ends a fetch with "cannot open", and lies in the cache all the same.
bool HasBroughtArchive(const FetchRecord& record) {
  return record.is_kmz && record.problem.isEmpty() &&
         (record.state == orvan::net::kFetchSuccess || record.state == orvan::net::kFetchCannotOpen);
}

QByteArray BytesFromCache(const QString& url) {
  const orvan::RefPtr<orvan::net::KmzCacheEntry> entry = orvan::net::Fetcher::GetKmzCache()->Find(url);
  if (!entry) return QByteArray();
  QByteArray bytes = entry->GetBytes();
  if (!bytes.isEmpty()) return bytes;
  (void)entry->unzipFile(QString());  // they were given up; reading anything brings them back
  return entry->GetBytes();
}

}  // namespace

FetchedArchive::FetchedArchive(const FetchRecord& record) : url_(record.archive) {
  if (!HasBroughtArchive(record)) {
    problem_ = QStringLiteral("no archive came");
    return;
  }
  bytes_ = BytesFromCache(url_);
  orvan::MemoryFileFunctions memory;
  const auto size = static_cast<std::size_t>(bytes_.size());
  if (orvan::mem_simple_create_file(&memory, bytes_.constData(), size)) zip_ = orvan::unzAttach(memory);
  if (!zip_) problem_ = QStringLiteral("the archive is damaged");
}

FetchedArchive::~FetchedArchive() { orvan::kmz::CloseZFile(zip_); }

QByteArray FetchedArchive::Unpack(const orvan::kmz::ArchiveEntry& entry, QString* problem) const {
  bool ok = false;
  QByteArray bytes = orvan::kmz::UnzipEntry(zip_, entry, &ok);
  problem->clear();
  if (ok) return bytes;
  if (entry.encrypted) {
    *problem = QStringLiteral("it is encrypted");
  } else if (entry.method != kStored && entry.method != kDeflated) {
    *problem = QStringLiteral("it is packed with the unknown method %1").arg(entry.method);
  } else if (entry.size > orvan::kmz::GetExtractionLimit()) {
    *problem = QStringLiteral("its %1 bytes are more than --max-entry-bytes").arg(entry.size);
  } else {
    *problem = QStringLiteral("it is damaged");
  }
  return QByteArray();
}

}  // namespace orvan_fetch
