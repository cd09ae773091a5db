#pragma once

#include "orvan/net/connection/network_request.h"
#include "orvan/net/export.h"
#include "orvan/support/job/job.h"
#include "orvan/support/thread/lock.h"

namespace orvan::net {

class ConnectionManager;

// Carries a completion from the connection's callback thread to the main thread.
//
// Threads: Run() on the main thread, Cancel() on any.
class ORVAN_NET_EXPORT RequestDoneJob : public AbstractJob {
 public:
  RequestDoneJob(ConnectionManager* manager, NetworkRequest* request);
  ~RequestDoneJob() override;

  int Run(const IJobContinuator& continuator, IJobContainer* container) override;
  // Forgets manager and request: a run that is still to come does nothing.
  virtual void Cancel();

 private:
  // Run() begins its delivery in the manager while it holds this: once Cancel() is back, the job either has
  // begun, and the manager knows, or never will.
  SpinLock lock_;
  ConnectionManager* manager_ ORVAN_GUARDED_BY(lock_);  // not owned
  RefPtr<NetworkRequest> request_ ORVAN_GUARDED_BY(lock_);
};

}  // namespace orvan::net
