#include "orvan/support/file/async_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFileInfo>
#include <QRandomGenerator>
#include <cerrno>
#include <cstdio>
#include <utility>

namespace orvan {
namespace {

constexpr int kSliceBytes = 256 * 1024;
constexpr int kNameAttempts = 16;
// Of the target's name in the sibling's: with the random part it stays below what file systems allow.
constexpr int kKeptNameBytes = 200;

// Makes the directory and those above it, for this user alone. Qt's own function would let others in.
bool MakePrivateDirectory(const QString& path) {
  if (QFileInfo(path).isDir()) return true;
  const QString parent = QFileInfo(path).path();
  if (parent != path && !MakePrivateDirectory(parent)) return false;
  return mkdir(QFile::encodeName(path).constData(), 0700) == 0 || errno == EEXIST;
}

// Whether the directory is this user's own, and not open to everybody: there a file might be exchanged before
// it is read again. A link to such a directory will do if it is this user's own, too.
bool IsPrivateDirectory(const QString& path) {
  const QByteArray name = QFile::encodeName(path);
  struct stat link {};
  struct stat directory {};
  if (lstat(name.constData(), &link) != 0 || link.st_uid != geteuid()) return false;
  if (stat(name.constData(), &directory) != 0 || directory.st_uid != geteuid()) return false;
  return S_ISDIR(directory.st_mode) && (directory.st_mode & S_IWOTH) == 0;
}

// "/dir/qxTemp_7.kmz" -> "/dir/qxTemp_7.<random>.kmz"
QByteArray MakeSiblingName(const QFileInfo& target) {
  const QByteArray random = QByteArray::number(QRandomGenerator::system()->generate64(), 36);
  const QByteArray base = QFile::encodeName(target.completeBaseName()).left(kKeptNameBytes);
  const QByteArray suffix = QFile::encodeName(target.suffix()).left(20);
  return QFile::encodeName(target.path()) + '/' + base + '.' + random +
         (suffix.isEmpty() ? "" : "." + suffix);
}

}  // namespace

AsyncWriterJob::AsyncWriterJob(const QString& label, int id, const QByteArray& data, QFile* file,
                               RefPtr<AbstractWriterCallback> callback)
    : AbstractJob(0, label), id_(id), target_(file), data_(data), callback_(std::move(callback)) {
  Q_ASSERT(file && !file->isOpen());
}

AsyncWriterJob::~AsyncWriterJob() {
  SpinLockGuard guard(lock_);
  DropSiblingLocked();
}

int AsyncWriterJob::Run(const IJobContinuator& continuator, IJobContainer*) {
  RefPtr<AbstractWriterCallback> callback;
  {
    SpinLockGuard guard(lock_);
    if (job_finished()) return kFinished;
    if (!WriteLocked(continuator)) return kRunAgain;
    callback.swap(callback_);
  }
  Tell(callback.get());
  return kFinished;
}

void AsyncWriterJob::CleanForRemoval() {
  RefPtr<AbstractWriterCallback> callback;
  {
    SpinLockGuard guard(lock_);
    if (job_finished()) return;
    EndLocked(false);
    callback.swap(callback_);
  }
  Tell(callback.get());
}

// Comes behind the lock: whoever is told may wait for a thread that wants to run the job to its end.
void AsyncWriterJob::Tell(AbstractWriterCallback* callback) const {
  if (!callback) return;
  if (succeeded()) {
    callback->OnWriteComplete(id_);
  } else {
    const auto error =
        IsRemoved() ? AbstractWriterCallback::kTakenBack : AbstractWriterCallback::kCannotWrite;
    callback->OnWriteError(id_, error, target_->fileName());
  }
}

// Writes for as long as it may. True if there is nothing left to do, for better or worse.
bool AsyncWriterJob::WriteLocked(const IJobContinuator& continuator) {
  bool good = !IsRemoved() && (sibling_ >= 0 || OpenSiblingLocked());
  while (good && written_ < data_.size()) {
    good = WriteSliceLocked();
    if (good && written_ < data_.size() && !continuator.MayContinue(this)) return false;
  }
  EndLocked(good && FinishFileLocked());
  return true;
}

void AsyncWriterJob::EndLocked(bool success) {
  DropSiblingLocked();
  data_ = QByteArray();
  succeeded_.store(success, std::memory_order_release);
  finished_.store(true, std::memory_order_release);
}

bool AsyncWriterJob::OpenSiblingLocked() {
  const QFileInfo target(target_->fileName());
  if (target.fileName().isEmpty() || !MakePrivateDirectory(target.path())) return false;
  if (!IsPrivateDirectory(target.path())) return false;
  for (int attempt = 0; sibling_ < 0 && attempt < kNameAttempts; ++attempt) {
    sibling_name_ = MakeSiblingName(target);
    sibling_ = open(sibling_name_.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (sibling_ < 0 && errno != EEXIST) break;
  }
  return sibling_ >= 0;
}

bool AsyncWriterJob::WriteSliceLocked() {
  const int end = qMin(data_.size(), written_ + kSliceBytes);
  while (written_ < end) {
    const ssize_t count = write(sibling_, data_.constData() + written_, static_cast<size_t>(end - written_));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    written_ += static_cast<int>(count);
  }
  return true;
}

bool AsyncWriterJob::FinishFileLocked() {
  // A job that was taken back while it was writing must not put old bytes over newer ones.
  if (IsRemoved()) return false;
  const bool closed = close(std::exchange(sibling_, -1)) == 0;  // some file systems report a full disk here
  const QByteArray target = QFile::encodeName(target_->fileName());
  // Replaces a link that stands at the target, and leaves alone what it leads to.
  if (!closed || rename(sibling_name_.constData(), target.constData()) != 0) return false;
  sibling_name_.clear();
  return true;
}

void AsyncWriterJob::DropSiblingLocked() {
  if (sibling_ >= 0) close(std::exchange(sibling_, -1));
  if (!sibling_name_.isEmpty()) unlink(sibling_name_.constData());
  sibling_name_.clear();
}

}  // namespace orvan
