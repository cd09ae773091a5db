#include "orvan/net/kmz_cache.h"

#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <climits>
#include <limits>

#include "orvan/net/url_text.h"
#include "orvan/support/job/job.h"
#include "orvan/support/text/path.h"
#include "orvan/support/thread/atomic.h"
#include "orvan/support/thread/system.h"

namespace orvan::net {
namespace {

bool IsSeparator(QChar c) { return c == QLatin1Char('/') || c == QLatin1Char('\\'); }

// Whether every leading part of `url` that ends before a separator is a key as it stands. The scheme of a URL
// stands before the first of them; only "c://x" begins with what is a drive path by itself.
bool HasPlainParts(const QString& url) {
  return GetFileNameType(url) == kFileNameUrl && url.indexOf(QLatin1Char(':')) != 1;
}

// A part of a text, with the hash that the text by itself would have.
struct HashedPart {
  QStringRef text;
  std::uint32_t hash;
};
struct HashOfPart {
  std::size_t operator()(const HashedPart& part) const { return part.hash; }
};
struct PartEqualsKey {
  bool operator()(const HashedPart& part, const QString& key) const { return part.text == key; }
  bool operator()(const QString& key, const HashedPart& part) const { return part.text == key; }
};

// What makes FindInKmz() quick while documents refer to the same archives over and over: most paths need
// nothing but a look at their characters.
bool IsAbsolutePath(const QString& path) {
  return path.startsWith(QLatin1Char('/')) || !QFileInfo(path).isRelative();
}

// Whether the directory, and the link that stands for it if there is one, are this user's own. Copies are
// written nowhere else, so whatever lies in another user's directory is not ours to remove.
bool IsOwnDirectory(const QString& path) {
  const QByteArray name = QFile::encodeName(path);
  struct stat link {};
  struct stat directory {};
  return lstat(name.constData(), &link) == 0 && link.st_uid == geteuid() &&
         stat(name.constData(), &directory) == 0 && directory.st_uid == geteuid();
}

}  // namespace

KmzCache* s_kmz_cache_singleton() {
  // Never destroyed: worker threads may outlive static destructors.
  alignas(KmzCache) static unsigned char place[sizeof(KmzCache)];
  static auto* const cache = new (place) KmzCache;
  return cache;
}

// The cache exists before any thread can race for it.
extern KmzCache* const s_initialize_s_kmz_cache_singleton_on_startup;
KmzCache* const s_initialize_s_kmz_cache_singleton_on_startup = s_kmz_cache_singleton();

KmzCache* KmzCache::GetSingleton() { return s_kmz_cache_singleton(); }

KmzCache::KmzCache() : entries_(11) {}

KmzCache::~KmzCache() {
  if (cleanup_on_destroy_) CleanupCache();
}

QString KmzCache::CleanUrl(const QString& url) {
  if (!IsLocalFileName(url)) return url;
  QString path = IsAbsolutePath(url) ? url : QFileInfo(url).absoluteFilePath();
  file::CleanupPathname(path);
  return path;
}

RefPtr<KmzCacheEntry> KmzCache::Find(const QString& url) const {
  {
    // Entries stand under their own URL, which is clean: that spares cleaning this one.
    SpinLockGuard guard(lock_);
    const auto found = entries_.find(url);
    if (found != entries_.end() && found->second->url() == url) return found->second;
    if (entries_.empty()) return nullptr;
  }
  const QString key = CleanUrl(url);
  SpinLockGuard guard(lock_);
  const auto found = entries_.find(key);
  return found == entries_.end() ? nullptr : found->second;
}

RefPtr<KmzCacheEntry> KmzCache::FindOrCreate(const QString& url) {
  SpinLockGuard guard(lock_);
  RefPtr<KmzCacheEntry> entry = Find(url);
  if (entry) return entry;
  entry = new KmzCacheEntry(url, this);
  Insert(entry->url(), entry);
  return entry;
}

std::vector<KmzCache::LeadingPart> KmzCache::FindLeadingParts(const QString& url) const {
  std::vector<LeadingPart> found;
  if (HasPlainParts(url)) {
    FindHashedParts(url, &found);
  } else {
    FindPathParts(url, &found);
  }
  return {found.rbegin(), found.rend()};
}

// One pass over the text yields the hash of every part: see GenerateHash().
void KmzCache::FindHashedParts(const QString& url, std::vector<LeadingPart>* found) const {
  const ushort* const unit = url.utf16();
  std::uint32_t hash = kHashSeed;  // of all whole blocks before `i`
  SpinLockGuard guard(lock_);
  if (entries_.empty()) return;
  for (int i = 0; i < url.size(); ++i) {
    if (i % 2 == 0 && i > 0)
      hash = HashBlock(hash, unit[i - 2] | static_cast<std::uint32_t>(unit[i - 1]) << 16);
    if (!IsSeparator(url.at(i))) continue;
    const std::uint32_t part_hash = HashFinish(i % 2 == 0 ? hash : HashTail(hash, unit[i - 1]));
    const auto entry = entries_.find(HashedPart{url.leftRef(i), part_hash}, HashOfPart(), PartEqualsKey());
    if (entry != entries_.end()) found->push_back({i, entry->second});
  }
}

// A part of a path is looked for as a path by itself, which takes a look at all of it. So this is for paths
// of the length that the system can open; within a row of separators all parts but the outer ones are the
// same.
void KmzCache::FindPathParts(const QString& path, std::vector<LeadingPart>* found) const {
  const int end = qMin(path.size(), PATH_MAX);
  for (int i = 0; i < end; ++i) {
    if (!IsSeparator(path.at(i))) continue;
    const bool within_row = i > 1 && path.midRef(i - 1, 3) == QLatin1String("///");
    if (within_row) continue;
    const RefPtr<KmzCacheEntry> entry = Find(path.left(i));
    if (entry) found->push_back({i, entry});
  }
}

void KmzCache::Insert(const QString& key, RefPtr<KmzCacheEntry> entry) {
  SpinLockGuard guard(lock_);
  entries_.emplace(key, entry);
}

void KmzCache::Remove(const QString& key) {
  RefPtr<KmzCacheEntry> last;  // dies behind the guard
  SpinLockGuard guard(lock_);
  const auto found = entries_.find(key);
  if (found == entries_.end()) return;
  last = found->second;
  entries_.erase(found);
}

RefPtr<KmzCacheEntry> KmzCache::CacheKmzFile(const QString& path) {
  if (!IsLocalFileName(path)) return nullptr;
  RefPtr<KmzCacheEntry> entry = Find(path);
  if (entry) return entry;

  const QFileInfo info(path);
  if (!info.isFile() || info.size() > std::numeric_limits<int>::max() - 64) return nullptr;
  QFile file(path);
  if (!file.open(QIODevice::ReadOnly)) return nullptr;
  const QByteArray bytes = file.readAll();

  // Nobody is to find the entry before it is open, nor wait for that with the whole cache: its lock is taken
  // before the cache's is released.
  lock_.lock();
  entry = Find(path);
  if (entry) {
    lock_.unlock();
    return entry;
  }
  entry = new (HeapManager::GetStaticHeap()) KmzCacheEntry(path, this);
  Insert(entry->url(), entry);
  SpinLockGuard entry_guard(entry->lock_);
  lock_.unlock();
  entry->OpenZFile(bytes);
  return entry;
}

int KmzCache::NumEntries() const {
  SpinLockGuard guard(lock_);
  return static_cast<int>(entries_.size());
}

void KmzCache::CleanupCache() {
  SpinLockGuard guard(lock_);
  entries_.clear();
  const QString dir = GetKmzTmpDir();
  if (!QDir(dir).exists() || !IsOwnDirectory(dir)) return;
  const QStringList names =
      QDir(dir).entryList({QStringLiteral("qxTemp_*.kmz")}, QDir::NoFilter, QDir::NoSort);
  for (const QString& name : names) QFile(dir + QLatin1Char('/') + name).remove();
  QDir(dir).rmdir(dir);  // stays if something else is in it
}

QString KmzCache::GetKmzTmpDir() const {
  SpinLockGuard guard(settings_lock_);
  return tmp_dir_.isEmpty() ? System::GetTempDirectory() + QLatin1String("/kmz") : tmp_dir_;
}

void KmzCache::SetKmzTmpDir(const QString& dir) {
  SpinLockGuard guard(settings_lock_);
  tmp_dir_ = dir;
}

QString KmzCache::GenerateNextKmzName() {
  const int id = AtomicAdd32(&next_kmz_id_, 1);
  return GetKmzTmpDir() + QStringLiteral("/qxTemp_%1.kmz").arg(id);
}

void KmzCache::RemoveCopy(const QString& name) {
  if (IsOwnDirectory(QFileInfo(name).path())) QFile(name).remove();
}

IJobContainer* KmzCache::GetJobContainer() {
  SpinLockGuard guard(settings_lock_);
  return job_container_ ? job_container_ : GetDefaultJobScheduler();
}

void KmzCache::OverrideJobContainer(IJobContainer* container) {
  SpinLockGuard guard(settings_lock_);
  job_container_ = container;
}

bool FindPartialInKmzCache(const QString& url, QString& kmz_url, QString& kmz_path) {
  for (const KmzCache::LeadingPart& part : KmzCache::GetSingleton()->FindLeadingParts(url)) {
    kmz_url = url.left(part.length);
    kmz_path = QDir::cleanPath(url.mid(part.length + 1));
    if (part.entry->ContainsFile(kmz_path)) return true;
  }
  return false;
}

}  // namespace orvan::net
