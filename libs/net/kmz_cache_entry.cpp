#include "orvan/net/kmz_cache_entry.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <QFileInfo>
#include <QUrl>
#include <limits>
#include <utility>

#include "orvan/net/kmz_cache.h"
#include "orvan/net/url_text.h"
#include "orvan/support/cache/memory_reclaimer.h"
#include "orvan/support/file/async_writer.h"
#include "orvan/support/file/crc32.h"
#include "orvan/support/job/job.h"
#include "orvan/support/thread/atomic.h"
#include "orvan/support/thread/system.h"

namespace orvan::net {
namespace {

constexpr qint64 kLongestArchive = std::numeric_limits<int>::max() - 64;  // what a QByteArray holds

QString PathOfLocalArchive(const QString& url) {
  const QUrl parsed(url);
  return parsed.scheme() == QLatin1String("file") ? parsed.toLocalFile() : url;
}

// All of a plain file, or nothing. Opening waits for nobody, such as the writer of a pipe.
QByteArray ReadPlainFile(const QString& name, int more_flags) {
  const int descriptor =
      open(QFile::encodeName(name).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | more_flags);
  if (descriptor < 0) return QByteArray();
  struct stat status {};
  QFile file;
  const bool plain = fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) &&
                     status.st_size <= kLongestArchive &&
                     file.open(descriptor, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle);
  if (!plain) {
    if (!file.isOpen()) close(descriptor);
    return QByteArray();
  }
  return file.read(status.st_size);
}

// A failed write is dropped in silence: while the bytes are in memory nothing is lost, and reclaim() looks
// whether the copy is there.
class WriteErrorCallback : public AbstractWriterCallback {
 public:
  explicit WriteErrorCallback(QString file_name) : file_name_(std::move(file_name)) {}
  void OnWriteComplete(int) override {}
  void OnWriteError(int, WriteError, const QString&) override {}

 private:
  const QString file_name_;
};

}  // namespace

// Writes the temporary copy of an archive.
class KmzFileWriterJob : public AsyncWriterJob {
 public:
  KmzFileWriterJob(const QByteArray& bytes, const QString& file_name)
      : AsyncWriterJob(QStringLiteral("KmzFileWriterJob"), 0, bytes, new QFile(file_name),
                       RefPtr<AbstractWriterCallback>(new WriteErrorCallback(file_name))),
        file_name_(file_name) {}

  int Run(const IJobContinuator& continuator, IJobContainer* container) override {
    return AsyncWriterJob::Run(continuator, container);
  }
  // An unfinished copy will not come to stand under its name any more, where a newer one may be by then.
  void TakeBack() { SetRemoved(); }

 private:
  const QString file_name_;
};

// Carries a change of the reclaimable flag to the main thread. Does not keep the entry alive.
class KmzCacheEntry::SetReclaimableJob : public AbstractJob {
 public:
  SetReclaimableJob(RefPtr<PtrProxy> entry, bool value)
      : AbstractJob(0, QStringLiteral("KmzCacheEntry::SetReclaimableJob")),
        value_(value),
        entry_(std::move(entry)) {}

  // Under the entry's lock, which Run() holds while it looks at the mark.
  void Cancel() { AtomicCompareAndSwap32(&cancelled_, 1, 0); }

  int Run(const IJobContinuator&, IJobContainer*) override {
    const WeakAtomicReferent* const referent = entry_ ? entry_->try_ptr_ref() : nullptr;
    if (!referent) return kFinished;
    const RefPtr<KmzCacheEntry> entry(
        const_cast<KmzCacheEntry*>(static_cast<const KmzCacheEntry*>(referent)));
    referent->unref();  // `entry` has its own now, and outlives the guard
    SpinLockGuard guard(entry->lock_);
    if (AtomicLoad32(&cancelled_) == 0) entry->SetIsReclaimableOnMainThread(value_);
    return kFinished;
  }

 private:
  volatile int cancelled_ = 0;
  const bool value_;
  const RefPtr<PtrProxy> entry_;
};

KmzCacheEntry::Fingerprint KmzCacheEntry::MakeFingerprint(const QByteArray& bytes) {
  return {bytes.size(), Crc32(bytes.constData(), static_cast<std::size_t>(bytes.size()))};
}

KmzCacheEntry::KmzCacheEntry(const QString& url, KmzCache* cache)
    : cache_(cache),
      url_(KmzCache::CleanUrl(url)),
      is_local_(IsLocalFileName(url)),
      file_name_(is_local_ ? PathOfLocalArchive(url) : cache->GenerateNextKmzName()) {}

KmzCacheEntry::~KmzCacheEntry() {
  // First, and before the lock, which a reclaim() that is waited for may want.
  Detach();
  SpinLockGuard guard(lock_);
  DropReclaimableJobLocked();
  DropWriterLocked();
  ReplaceBytesLocked(QByteArray());
  if (!is_local_) KmzCache::RemoveCopy(file_name_);
}

bool KmzCacheEntry::NeedsFetch(bool has_date) const {
  if (is_local_) {
    const QDateTime modified = QFileInfo(url_).lastModified();
    SpinLockGuard guard(lock_);
    return file_time_.isNull() || file_time_ < modified;
  }
  if (has_date) return true;
  SpinLockGuard guard(lock_);
  return System::getTime() > expire_time_;
}

bool KmzCacheEntry::ContainsFile(const QString& path) {
  const QString folded = path.toLower();
  SpinLockGuard guard(lock_);
  return file_names_.contains(folded);
}

QByteArray KmzCacheEntry::GetBytes() const {
  SpinLockGuard guard(lock_);
  return bytes_;
}

QByteArray KmzCacheEntry::unzipFile(const QString& path) {
  SpinLockGuard guard(lock_);
  last_frame_ = System::s_cur_frame.load(std::memory_order_relaxed);
  if (!zip_handle_) {
    QByteArray bytes = bytes_;
    if (bytes.isEmpty()) {
      bytes = ReadBackLocked();
      if (bytes.isEmpty()) {
        // Lost, on a full disk or to another process: fresh is only what can be had, so the next fetch asks
        // for it, instead of failing like this one for the rest of the run.
        expire_time_ = std::numeric_limits<double>::lowest();
        return QByteArray();
      }
      loaded_from_disk_ = true;
    }
    OpenZFile(bytes);
  }
  QByteArray file = kmz::UnzipZFile(zip_handle_, path);
  // A pass of the reclaimer has to wait for the main thread. Until it comes, archives that are read back do
  // not pile up: what has a copy goes at once, instead of a moment later.
  const bool piling_up = MemoryReclaimer::GetTotalBytes() > MemoryReclaimer::GetBudget() + bytes_.size();
  if (loaded_from_disk_ && piling_up && (is_local_ || HasCopyLocked())) GiveUpBytesLocked();
  return file;
}

void KmzCacheEntry::OpenZFile(const QByteArray& bytes) {
  SpinLockGuard guard(lock_);
  ReplaceBytesLocked(bytes);
  // The reader points into bytes_. Whoever shares them copies them before changing them; only bytes that are
  // not QByteArray's own could go.
  if (bytes_.capacity() < bytes_.size()) bytes_.detach();
  TakeFingerprintLocked();
  if (!mem_simple_create_file(&zip_memory_, bytes_.constData(), static_cast<std::size_t>(bytes_.size())))
    return;
  zip_handle_ = unzAttach(zip_memory_);
  file_names_ = kmz::FoldedNames(zip_handle_);
  SetIsReclaimableOnMainThread(true);
}

void KmzCacheEntry::UpdateBytes(const QByteArray& bytes, double expire_time, NetworkRequest* request) {
  UpdateBytesInternal(bytes, expire_time, true, request);
}

void KmzCacheEntry::UpdateBytesNoDiskIO(const QByteArray& bytes, double expire_time) {
  UpdateBytesInternal(bytes, expire_time, false, nullptr);
}

void KmzCacheEntry::UpdateBytesInternal(const QByteArray& bytes, double expire_time, bool write_to_disk,
                                        NetworkRequest* request) {
  // Not a slip: the same archive again changes nothing, not even the date until which it counts as fresh.
  // KmzCacheEntryTest.TheSameBytesChangeNothing holds this in place.
  if (bytes == GetBytes()) return;
  RefPtr<NetworkRequest> last_request(request);  // the old one dies behind the guard
  SpinLockGuard guard(lock_);
  if (is_local_) {
    file_time_ = QFileInfo(url_).lastModified();
  } else {
    loaded_from_disk_ = false;
    expire_time_ = expire_time;
  }
  // Not a slip: nobody knows the names until the archive is read for the first time, although it is here.
  // KmzCacheEntryTest.KnowsItsNamesFromTheFirstReadingOn holds this in place.
  file_names_.clear();
  last_frame_ = System::s_cur_frame.load(std::memory_order_relaxed);
  ReplaceBytesLocked(bytes);
  fingerprint_ = Fingerprint();
  DropWriterLocked();
  if (!bytes_.isEmpty() && !loaded_from_disk_ && write_to_disk) StartWriterLocked();
  request_.swap(last_request);
}

void KmzCacheEntry::ReplaceBytesLocked(const QByteArray& bytes) {
  CloseLocked();
  ChangeUnpooledBytes(-bytes_.size());
  bytes_ = bytes;
  ChangeUnpooledBytes(bytes_.size());
}

void KmzCacheEntry::CloseLocked() {
  kmz::CloseZFile(zip_handle_);
  zip_handle_ = nullptr;
}

// --- The copy on disk

RefPtr<KmzFileWriterJob> KmzCacheEntry::MakeWriterLocked() const {
  return new KmzFileWriterJob(bytes_, file_name_);
}

void KmzCacheEntry::StartWriterLocked() {
  writer_job_ = MakeWriterLocked();
  cache_->GetJobContainer()->AddJob(writer_job_.get());
}

void KmzCacheEntry::DropWriterLocked() {
  if (writer_job_ && !writer_job_->job_finished()) writer_job_->TakeBack();
  writer_job_ = nullptr;
}

bool KmzCacheEntry::HasCopyLocked() const {
  // An older copy may stand there still.
  if (writer_job_ && !writer_job_->succeeded()) return false;
  struct stat status {};
  return lstat(QFile::encodeName(file_name_).constData(), &status) == 0 && S_ISREG(status.st_mode) &&
         status.st_size == bytes_.size();
}

void KmzCacheEntry::TakeFingerprintLocked() {
  if (!is_local_) fingerprint_ = MakeFingerprint(bytes_);
}

// What the entry gave up. The user's own file is what it is now; the temporary copy has to be what it was.
QByteArray KmzCacheEntry::ReadBackLocked() {
  if (is_local_) return ReadPlainFile(file_name_, 0);
  const QByteArray bytes = ReadPlainFile(file_name_, O_NOFOLLOW);
  const Fingerprint found = MakeFingerprint(bytes);
  const bool same = found.size == fingerprint_.size && found.check_sum == fingerprint_.check_sum;
  return same ? bytes : QByteArray();
}

// --- Memory pressure

int KmzCacheEntry::GetLruFrame() {
  if (!lock_.trylock()) return System::s_cur_frame.load(std::memory_order_relaxed);
  const int frame = bytes_.isEmpty() ? -1 : last_frame_;
  lock_.unlock();
  return frame;
}

// Sees to it that the bytes can be read back once they are gone. False: they are to stay for now, since there
// is no copy and none was demanded. A copy that is demanded is written here, or written again if it failed or
// somebody has removed it; if it fails once more, the bytes go nevertheless.
bool KmzCacheEntry::SecureCopy(bool demanded) {
  if (!lock_.trylock()) return false;
  RefPtr<KmzFileWriterJob> writer = writer_job_;
  const bool writing = writer && !writer->job_finished();
  const bool secure = is_local_ || bytes_.isEmpty() || HasCopyLocked();
  if (!secure && !writing) writer = MakeWriterLocked();
  lock_.unlock();
  if (secure) return true;
  if (!demanded) return false;
  writer->Run(AlwaysTrueContinuator(SystemTime::GetSingleton()), cache_->GetJobContainer());
  return true;
}

bool KmzCacheEntry::reclaim(const CacheObserver::Event& event) {
  if (!SecureCopy(event.demanded != 0)) return false;
  RefPtr<NetworkRequest> last_request;  // dies behind the lock
  if (!lock_.trylock()) return false;
  if (writer_job_ && !writer_job_->job_finished()) {  // updated in between
    lock_.unlock();
    return false;
  }
  request_.swap(last_request);
  GiveUpBytesLocked();
  lock_.unlock();
  return true;
}

void KmzCacheEntry::GiveUpBytesLocked() {
  loaded_from_disk_ = false;
  if (fingerprint_.size < 0) TakeFingerprintLocked();
  ReplaceBytesLocked(QByteArray());
  DropWriterLocked();
  SetIsReclaimableOnMainThread(false);
}

void KmzCacheEntry::SetIsReclaimableOnMainThread(bool value) {
  SpinLockGuard guard(lock_);
  DropReclaimableJobLocked();
  if (System::IsMainThread()) {
    CacheObserver::SetIsReclaimable(value);
    return;
  }
  reclaimable_job_ = new (HeapManager::GetTransientHeap()) SetReclaimableJob(get_proxy(), value);
  cache_->GetJobContainer()->AddJob(reclaimable_job_.get());
}

// The last wish wins: an earlier one that is still queued will do nothing.
void KmzCacheEntry::DropReclaimableJobLocked() {
  if (reclaimable_job_) reclaimable_job_->Cancel();
  reclaimable_job_ = nullptr;
}

}  // namespace orvan::net
