#pragma once

#include <QByteArray>

#include "orvan/net/fetcher.h"
#include "orvan/support/job/job.h"
#include "orvan/support/memory/ref_ptr.h"
#include "orvan/support/thread/lock.h"
#include "orvan/support/thread/worker_thread.h"

namespace orvan::net {

// Brings an extracted file to its fetch, on the main thread. Internal to the fetch layer.
//
// Ownership: the Fetcher is not counted: UnzipJob::Cancel() makes the job forget it.
class FinishKmzJob : public AbstractJob {
 public:
  FinishKmzJob(const QByteArray& bytes, Fetcher* fetcher);

  int Run(const IJobContinuator& continuator, IJobContainer* container) override;
  // Waits while the job runs on another thread. Run() does nothing afterwards.
  void ForgetFetcher();

 private:
  SpinLock lock_;  // after UnzipJob's; recursive, since the end of a fetch may end its UnzipJob within Run()
  const QByteArray bytes_;
  Fetcher* fetcher_ ORVAN_GUARDED_BY(lock_);
};

// Extracts the file of a fetch on the worker thread. Internal to the fetch layer.
//
// Threads:   Run() on the worker; Cancel() on the main thread, where it waits for an extraction under way.
// Ownership: the Fetcher is not counted: it cancels the job before it dies.
class UnzipJob : public WorkerThread::Job {
 public:
  UnzipJob(WorkerThread* worker, IJobContainer* container, Fetcher* fetcher);
  ~UnzipJob() override;

  // `container` gets the job that ends the fetch. Not owned.
  static RefPtr<UnzipJob> CreateAndQueue(WorkerThread* worker, IJobContainer* container, Fetcher* fetcher);
  // No thread uses the Fetcher through this job when this has returned, and nothing more comes of it.
  void Cancel();

 protected:
  void Run() override;

 private:
  IJobContainer* const container_;
  Fetcher* const fetcher_;
  SpinLock lock_;  // held for the whole of Run(); before FinishKmzJob's
  bool cancelled_ ORVAN_GUARDED_BY(lock_) = false;
  RefPtr<FinishKmzJob> finish_job_ ORVAN_GUARDED_BY(lock_);
};

}  // namespace orvan::net
