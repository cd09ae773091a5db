#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>
#include <memory>

#include "orvan/support/export.h"
#include "orvan/support/job/job.h"
#include "orvan/support/memory/ref_ptr.h"
#include "orvan/support/thread/lock.h"

namespace orvan {

// Hears how a write ended, once for each writer, on the thread that ended it and under no lock. `id` is what
// the writer was made with.
class ORVAN_SUPPORT_EXPORT AbstractWriterCallback : public AtomicReferent {
 public:
  // Why there is no file.
  enum WriteError {
    kCannotWrite = 1,  // the directory is not ours, the disk is full, or something else went wrong
    kTakenBack = 2,    // the job was removed before its end
  };

  // The file stands complete under its name.
  virtual void OnWriteComplete(int id) = 0;
  // Nothing stands under the name that did not stand there before.
  virtual void OnWriteError(int id, WriteError error, const QString& file_name) = 0;
};

// Writes bytes to a file, complete or not at all: into a sibling that is created exclusively (mode 0600,
// following no link) and renamed over the target at the end. The parent directory is made on demand
// (mode 0700); one that is somebody else's, or that everybody may write to, is refused. The sibling's name
// matches the same "qxTemp_*.kmz" pattern as the files of the archive cache if the target's does, so whoever
// sweeps those also sweeps what a killed process left.
//
// Threads:   Run() on any thread, one call at a time through a lock of the job's own; each call writes slices
//            of 256 KiB for as long as the continuator agrees.
// Ownership: takes over `file`, whose name is the target and which must not be open.
// Errors:    told to the callback. job_finished() is true after failure too.
class ORVAN_SUPPORT_EXPORT AsyncWriterJob : public AbstractJob {
 public:
  // `label` is the job's name and nothing else; `id` comes back in the callback.
  AsyncWriterJob(const QString& label, int id, const QByteArray& data, QFile* file,
                 RefPtr<AbstractWriterCallback> callback);
  ~AsyncWriterJob() override;

  int Run(const IJobContinuator& continuator, IJobContainer* container) override;
  void CleanForRemoval() override;
  bool job_finished() const { return finished_.load(std::memory_order_acquire); }
  // True once the file stands complete under its name.
  bool succeeded() const { return succeeded_.load(std::memory_order_acquire); }

 private:
  void Tell(AbstractWriterCallback* callback) const;
  bool WriteLocked(const IJobContinuator& continuator) ORVAN_REQUIRES(lock_);
  void EndLocked(bool success) ORVAN_REQUIRES(lock_);
  bool OpenSiblingLocked() ORVAN_REQUIRES(lock_);
  bool WriteSliceLocked() ORVAN_REQUIRES(lock_);
  bool FinishFileLocked() ORVAN_REQUIRES(lock_);
  void DropSiblingLocked() ORVAN_REQUIRES(lock_);

  const int id_;
  const std::unique_ptr<QFile> target_;  // names the file, is never opened
  SpinLock lock_;                        // held while writing; a leaf
  QByteArray data_ ORVAN_GUARDED_BY(lock_);
  RefPtr<AbstractWriterCallback> callback_ ORVAN_GUARDED_BY(lock_);
  int sibling_ ORVAN_GUARDED_BY(lock_) = -1;         // descriptor
  QByteArray sibling_name_ ORVAN_GUARDED_BY(lock_);  // empty unless such a file is there
  int written_ ORVAN_GUARDED_BY(lock_) = 0;
  std::atomic<bool> finished_{false};
  std::atomic<bool> succeeded_{false};
};

}  // namespace orvan
