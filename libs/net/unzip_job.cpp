#include "orvan/net/unzip_job.h"

namespace orvan::net {

FinishKmzJob::FinishKmzJob(const QByteArray& bytes, Fetcher* fetcher)
    : AbstractJob(0, QStringLiteral("FinishKmzJob")), bytes_(bytes), fetcher_(fetcher) {}

int FinishKmzJob::Run(const IJobContinuator&, IJobContainer*) {
  SpinLockGuard guard(lock_);
  if (fetcher_) fetcher_->FinishKmz(bytes_);
  return kFinished;
}

void FinishKmzJob::ForgetFetcher() {
  SpinLockGuard guard(lock_);
  fetcher_ = nullptr;
}

UnzipJob::UnzipJob(WorkerThread* worker, IJobContainer* container, Fetcher* fetcher)
    : Job("UnzipJob", worker), container_(container), fetcher_(fetcher) {}

UnzipJob::~UnzipJob() { UnzipJob::Cancel(); }

RefPtr<UnzipJob> UnzipJob::CreateAndQueue(WorkerThread* worker, IJobContainer* container, Fetcher* fetcher) {
  RefPtr<UnzipJob> job(new UnzipJob(worker, container, fetcher));
  job->AddToQueue(worker);
  return job;
}

void UnzipJob::Cancel() {
  SpinLockGuard guard(lock_);
  cancelled_ = true;
  if (finish_job_) finish_job_->ForgetFetcher();
}

void UnzipJob::Run() {
  SpinLockGuard guard(lock_);
  if (cancelled_) return;
  finish_job_ = new FinishKmzJob(fetcher_->UnzipKmz(), fetcher_);
  container_->AddJob(finish_job_.get());
}

}  // namespace orvan::net
