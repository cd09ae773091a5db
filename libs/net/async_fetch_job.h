#pragma once

#include "orvan/net/fetcher.h"
#include "orvan/support/thread/worker_thread.h"

namespace orvan::net {

// Starts a fetch on the worker thread. Internal to the fetch layer.
//
// Ownership: holds a copy of the parameters, because the caller's may go as soon as fetch() has returned;
// their
//            `store` stays a plain pointer. The Fetcher is not counted: it cancels the job before it dies.
class AsyncFetchJob : public WorkerThread::Job {
 public:
  AsyncFetchJob(Fetcher* fetcher, const Fetcher::FetchParams& params, WorkerThread* worker);
  ~AsyncFetchJob() override;

  static RefPtr<AsyncFetchJob> CreateAndQueue(Fetcher* fetcher, const Fetcher::FetchParams& params,
                                              WorkerThread* worker);

 protected:
  void Run() override;

 private:
  Fetcher* const fetcher_;
  const Fetcher::FetchParams params_;
};

}  // namespace orvan::net
