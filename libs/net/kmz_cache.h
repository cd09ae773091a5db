#pragma once

#include <QString>
#include <boost/unordered_map.hpp>
#include <vector>

#include "orvan/net/export.h"
#include "orvan/net/kmz_cache_entry.h"
#include "orvan/support/memory/hash.h"
#include "orvan/support/memory/ref_ptr.h"
#include "orvan/support/thread/lock.h"

namespace orvan {
class IJobContainer;
}

namespace orvan::net {

// The archives that this process has seen, by the cleaned URL or path that they came from. Lets a fetch find
// a file in an archive without asking anybody.
//
// Shape:     at most one entry for each key. The cache drops none by itself: memory is bounded entry by
//            entry, through the MemoryReclaimer; what an entry then gives up lies in a temporary file, or in
//            the user's own.
// Threads:   any. lock_ is taken before an entry's lock, never after it.
// Ownership: holds a reference to each entry; what Find() and the like return is another one.
// Errors:    a null result.
// Life:      from the loading of the library to the end of the process.
class ORVAN_NET_EXPORT KmzCache {
 public:
  // An entry whose key is the first `length` characters of a text.
  struct LeadingPart {
    int length;
    RefPtr<KmzCacheEntry> entry;
  };

  static KmzCache* GetSingleton();

  KmzCache();
  ~KmzCache();
  KmzCache(const KmzCache&) = delete;
  KmzCache& operator=(const KmzCache&) = delete;

  // The key for `url`: a path is made absolute and cleaned, a URL stays as it is. A file URL counts as a path
  // with its scheme in front; Fetcher::SanitizeUrlString() makes a plain path of it.
  static QString CleanUrl(const QString& url);

  RefPtr<KmzCacheEntry> Find(const QString& url) const;
  // Never null.
  RefPtr<KmzCacheEntry> FindOrCreate(const QString& url);
  // The entries whose keys are what stands before one of the "/" and "\" of `url`, the longest first.
  std::vector<LeadingPart> FindLeadingParts(const QString& url) const;
  // `key` is taken as it stands. An entry that is there already stays.
  void Insert(const QString& key, RefPtr<KmzCacheEntry> entry);
  // `key` is taken as it stands.
  void Remove(const QString& key);
  // Reads a local archive into the cache, and opens it. Null if `path` is no local one or cannot be read.
  RefPtr<KmzCacheEntry> CacheKmzFile(const QString& path);
  int NumEntries() const;

  // Empties the cache and the temporary directory, also of what an earlier process left there.
  void CleanupCache();

  // Where copies of remote archives lie: "kmz" in the system's temporary directory unless set. Processes that
  // run at the same time share file names: give each application a directory of its own, best below the
  // user's cache directory. It is made when first needed, for this user alone.
  QString GetKmzTmpDir() const;
  void SetKmzTmpDir(const QString& dir);
  // Full name of the next temporary file. Numbers start at 0 in each process.
  QString GenerateNextKmzName();
  // Removes a temporary file, unless its directory is another user's: no copy of ours is there.
  static void RemoveCopy(const QString& name);

  // Where entries post their jobs: the default scheduler unless overridden. Must run them on the main thread.
  IJobContainer* GetJobContainer();
  void OverrideJobContainer(IJobContainer* container);

 private:
  using Entries = boost::unordered_map<QString, RefPtr<KmzCacheEntry>, StlHashAdapter<QString>>;

  void FindHashedParts(const QString& url, std::vector<LeadingPart>* found) const;
  void FindPathParts(const QString& path, std::vector<LeadingPart>* found) const;

  // Guards entries_. Recursive, since FindOrCreate() finds, and an entry's end may come within.
  mutable SpinLock lock_;
  Entries entries_ ORVAN_GUARDED_BY(lock_);

  mutable SpinLock settings_lock_;  // a leaf
  QString tmp_dir_ ORVAN_GUARDED_BY(settings_lock_);
  IJobContainer* job_container_ ORVAN_GUARDED_BY(settings_lock_) = nullptr;  // not owned
  volatile int next_kmz_id_ = 0;                                             // AtomicAdd32 only
  bool cleanup_on_destroy_ = false;
};

// The one cache: made on first use, never destroyed.
KmzCache* s_kmz_cache_singleton();

// Looks for a cached archive whose key is a leading part of `url`, and that has the rest as a file. True if
// there is one; of several the longest key counts. False leaves the last candidate in the outputs, if any.
ORVAN_NET_EXPORT bool FindPartialInKmzCache(const QString& url, QString& kmz_url, QString& kmz_path);

}  // namespace orvan::net
