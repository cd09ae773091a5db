// What a Fetcher does about archives: telling that a reference leads into one, taking one in, and getting the
// wanted file out of it.

#include <QFile>
#include <QFileInfo>
#include <QUrl>

#include "orvan/net/fetcher.h"
#include "orvan/net/kmz_cache.h"
#include "orvan/net/unzip_job.h"
#include "orvan/net/url_text.h"
#include "orvan/support/text/text.h"

namespace orvan::net {
namespace {

const QString& Ending() {
  static const auto* const ending = new QString(QStringLiteral(".kmz"));
  return *ending;
}

bool IsSeparator(QChar c) { return c == QLatin1Char('/') || c == QLatin1Char('\\'); }

// Where the ".kmz" of an archive begins, or -1. A directory may bear such a name.
int FindEnding(const QString& url) {
  int at = url.indexOf(Ending(), 0, Qt::CaseInsensitive);
  if (!IsLocalFileName(url)) return at;
  while (at >= 0 && QFileInfo(url.left(at + Ending().size())).isDir()) {
    at = url.indexOf(Ending(), at + 1, Qt::CaseInsensitive);
  }
  return at;
}

// No archive can be meant: "http://server", or a relative name.
bool LeadsNowhere(const QString& url) {
  const QUrl parsed = QUrl::fromEncoded(url.toLatin1(), QUrl::TolerantMode);
  if (!parsed.isValid()) return false;
  const QString path = parsed.path(QUrl::FullyDecoded);
  return path.isEmpty() || !IsSeparator(path.at(0));
}

}  // namespace

bool Fetcher::FindInKmz(const QString& url, QString& kmz_url, QString& kmz_path) {
  if (LeadsNowhere(url)) return false;
  KmzCache* const cache = GetKmzCache();
  const QString clean = SanitizeUrlString(url);
  if (cache->Find(clean)) {
    kmz_url = clean;
    kmz_path = QStringNull();
    return true;
  }

  const int begin = FindEnding(clean);
  const int end = begin + Ending().size();
  // Not a slip: a name that is nothing but ".kmz" does not count.
  if (begin > 0 && (end == clean.size() || IsSeparator(clean.at(end)))) {
    kmz_url = clean.left(end);
    kmz_path = clean.mid(end + 1);
    // Not a slip: false leaves the outputs set, and DoFetch() asks for the archive.
    const RefPtr<KmzCacheEntry> entry = cache->Find(kmz_url);
    return entry && entry->ContainsFile(kmz_path);
  }
  if (cache->NumEntries() == 0) return false;
  if (FindPartialInKmzCache(clean, kmz_url, kmz_path)) return true;
  if (url != clean && FindPartialInKmzCache(url, kmz_url, kmz_path)) return true;
  kmz_url = QStringNull();
  kmz_path = QStringNull();
  return false;
}

QByteArray Fetcher::GetBytesFromKmz(const QString& kmz_url, const QString& kmz_path) {
  const RefPtr<KmzCacheEntry> entry = GetKmzCache()->Find(kmz_url);
  return entry ? entry->unzipFile(kmz_path) : QByteArray();
}

bool Fetcher::WriteBytesFromKmzToFile(const QString& kmz_url, const QString& kmz_path,
                                      const QString& file_name) {
  const QByteArray bytes = GetBytesFromKmz(kmz_url, kmz_path);
  if (bytes.isEmpty()) return false;
  // Opening a pipe waits for its reader, and taking back what went into a device would remove the device.
  const QFileInfo target(file_name);
  if (target.exists() && !target.isFile()) return false;
  QFile file(file_name);
  if (!file.open(QIODevice::WriteOnly | QIODevice::Unbuffered)) return false;
  const bool complete = file.write(bytes) == bytes.size();
  file.close();
  if (complete && file.error() == QFileDevice::NoError) return true;
  QFile::remove(file_name);
  return false;
}

KmzCache* Fetcher::GetKmzCache() { return KmzCache::GetSingleton(); }

// Takes what was fetched into the cache if it is an archive, whatever the URL looks like.
bool Fetcher::HandleKmz() {
  if (!GetBytes()) return false;
  if (!IsKmzData(reinterpret_cast<const unsigned char*>(GetBytes()), getSize())) return false;
  const RefPtr<KmzCacheEntry> entry = GetKmzCache()->FindOrCreate(fetch_url_);
  if (request_) {
    entry->UpdateBytes(bytes_, GetExpireTime(), request_.get());
  } else {
    entry->UpdateBytesNoDiskIO(bytes_, GetExpireTime());  // it lies on disk already
  }
  if (kmz_url_.isEmpty()) kmz_url_ = fetch_url_;  // and an empty kmz_path_: the main document is wanted
  return true;
}

QByteArray Fetcher::UnzipKmz() { return GetBytesFromKmz(kmz_url_, kmz_path_); }

void Fetcher::FinishKmz(const QByteArray& bytes) {
  SetByteArray(bytes);
  RefPtr<UnzipJob> done;
  done.swap(unzip_job_);
  // Not a slip: an empty file cannot be told from a missing one.
  QueueCallback(getSize() >= 1 ? kFetchSuccess : kFetchCannotOpen);
}

void Fetcher::StartUnzip() {
  if (!s_unzip_thread_) {
    state_ = kFetchSuccess;
    FinishKmz(UnzipKmz());
    return;
  }
  state_ = kFetchFetching;
  CancelUnzipJob();  // a subclass may have called Done() before, and its job would outlive us uncancelled
  unzip_job_ = UnzipJob::CreateAndQueue(s_unzip_thread_, GetDefaultJobScheduler(), this);
}

}  // namespace orvan::net
