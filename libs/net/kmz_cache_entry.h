#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QSet>
#include <QString>

#include "orvan/net/connection/network_request.h"
#include "orvan/net/export.h"
#include "orvan/support/cache/cache_observer.h"
#include "orvan/support/file/kmz_zip.h"
#include "orvan/support/memory/ref_ptr.h"
#include "orvan/support/memory/referent.h"
#include "orvan/support/thread/lock.h"

namespace orvan::net {

class KmzCache;
class KmzFileWriterJob;

// One archive of the cache: its bytes while they are in memory, a copy on disk, a reader over the bytes, and
// the names of its files. Gives its bytes up when the MemoryReclaimer asks, and reads them back when a file
// is wanted; names, dates and copy stay.
//
// Threads:   any; lock_ guards everything. unzipFile() holds it for the length of an extraction, so that the
//            bytes stay where they are, and the files of one archive are extracted one at a time. reclaim()
//            comes on the main thread and does not wait for the lock.
// Ownership: counted, by the cache and by whoever found it. The temporary copy of a remote archive goes with
//            the entry, the file of a local one is the user's.
// Errors:    an empty array. What came back from the temporary copy is only used if it is what went there.
class ORVAN_NET_EXPORT KmzCacheEntry : protected CacheObserver, public WeakAtomicReferent {
 public:
  KmzCacheEntry(const QString& url, KmzCache* cache);
  ~KmzCacheEntry() override;

  // Whether the archive is to be asked for again. `has_date`: the request can say which date we have.
  bool NeedsFetch(bool has_date) const;
  // Ignores case. False from an update to the first reading.
  bool ContainsFile(const QString& path);
  QByteArray GetBytes() const;
  // The contents of one file; of the main document if `path` is empty. Empty if there is no such file.
  QByteArray unzipFile(const QString& path);
  // Takes the bytes and opens the reader over them.
  void OpenZFile(const QByteArray& bytes);
  // Takes new bytes, unless they are the old ones, and writes the copy of a remote archive in the background.
  // On a local entry the copy would be the user's own file: use UpdateBytesNoDiskIO() there.
  void UpdateBytes(const QByteArray& bytes, double expire_time, NetworkRequest* request);
  void UpdateBytesNoDiskIO(const QByteArray& bytes, double expire_time);
  // Makes the entry known to the reclaimer, or unknown: now on the main thread, else by a job there.
  void SetIsReclaimableOnMainThread(bool value);

  bool reclaim(const CacheObserver::Event& event) override;
  int GetLruFrame() override;

  const QString& url() const { return url_; }              // the key
  const QString& file_name() const { return file_name_; }  // where the archive lies on disk
  bool is_local() const { return is_local_; }

 private:
  class ORVAN_NET_HIDDEN SetReclaimableJob;
  friend class KmzCache;

  // The size and the check sum of bytes that were in memory.
  struct Fingerprint {
    int size = -1;
    quint32 check_sum = 0;
  };

  static Fingerprint MakeFingerprint(const QByteArray& bytes);
  void TakeFingerprintLocked() ORVAN_REQUIRES(lock_);
  void UpdateBytesInternal(const QByteArray& bytes, double expire_time, bool write_to_disk,
                           NetworkRequest* request);
  void ReplaceBytesLocked(const QByteArray& bytes) ORVAN_REQUIRES(lock_);
  void CloseLocked() ORVAN_REQUIRES(lock_);
  void StartWriterLocked() ORVAN_REQUIRES(lock_);
  void DropWriterLocked() ORVAN_REQUIRES(lock_);
  RefPtr<KmzFileWriterJob> MakeWriterLocked() const ORVAN_REQUIRES(lock_);
  void DropReclaimableJobLocked() ORVAN_REQUIRES(lock_);
  QByteArray ReadBackLocked() ORVAN_REQUIRES(lock_);
  bool HasCopyLocked() const ORVAN_REQUIRES(lock_);
  bool SecureCopy(bool demanded);
  void GiveUpBytesLocked() ORVAN_REQUIRES(lock_);

  KmzCache* const cache_;  // not owned; for its job container
  const QString url_;
  const bool is_local_;
  const QString file_name_;

  mutable SpinLock lock_;                               // after the cache's lock
  void* zip_handle_ ORVAN_GUARDED_BY(lock_) = nullptr;  // not null only while bytes_ have the archive
  MemoryFileFunctions zip_memory_ ORVAN_GUARDED_BY(lock_);
  QSet<QString> file_names_ ORVAN_GUARDED_BY(lock_);  // in lower case
  QByteArray bytes_ ORVAN_GUARDED_BY(lock_);
  Fingerprint fingerprint_ ORVAN_GUARDED_BY(lock_);  // of the bytes that were opened last
  int last_frame_ ORVAN_GUARDED_BY(lock_) = -1;
  bool loaded_from_disk_ ORVAN_GUARDED_BY(lock_) = false;
  double expire_time_ ORVAN_GUARDED_BY(lock_) = 0.0;  // on the clock of System::getTime()
  QDateTime file_time_ ORVAN_GUARDED_BY(lock_);       // of a local archive's file, at the last update
  RefPtr<NetworkRequest> request_ ORVAN_GUARDED_BY(lock_);
  RefPtr<KmzFileWriterJob> writer_job_ ORVAN_GUARDED_BY(lock_);
  RefPtr<SetReclaimableJob> reclaimable_job_ ORVAN_GUARDED_BY(lock_);
};

}  // namespace orvan::net
