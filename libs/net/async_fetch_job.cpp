#include "orvan/net/async_fetch_job.h"

namespace orvan::net {

AsyncFetchJob::AsyncFetchJob(Fetcher* fetcher, const Fetcher::FetchParams& params, WorkerThread* worker)
    : Job("AsyncFetch", worker), fetcher_(fetcher), params_(params) {}

AsyncFetchJob::~AsyncFetchJob() = default;

RefPtr<AsyncFetchJob> AsyncFetchJob::CreateAndQueue(Fetcher* fetcher, const Fetcher::FetchParams& params,
                                                    WorkerThread* worker) {
  RefPtr<AsyncFetchJob> job(new AsyncFetchJob(fetcher, params, worker));
  job->AddToQueue(job->worker());
  return job;
}

void AsyncFetchJob::Run() { fetcher_->DoFetch(params_); }

}  // namespace orvan::net
