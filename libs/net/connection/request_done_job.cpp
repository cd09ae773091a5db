#include "orvan/net/connection/request_done_job.h"

#include "orvan/net/connection/connection_manager.h"

namespace orvan::net {

RequestDoneJob::RequestDoneJob(ConnectionManager* manager, NetworkRequest* request)
    : AbstractJob(0, QStringLiteral("RequestDoneJob")), manager_(manager), request_(request) {}

RequestDoneJob::~RequestDoneJob() = default;

int RequestDoneJob::Run(const IJobContinuator&, IJobContainer*) {
  ConnectionManager* manager = nullptr;
  RefPtr<NetworkRequest> request;
  {
    SpinLockGuard guard(lock_);
    manager = manager_;
    manager_ = nullptr;
    request.swap(request_);
    // lock_ before the manager's lock of deliveries; Cancel() is called with neither held.
    if (manager) manager->RemoveEvent(this);
  }
  if (manager) manager->Deliver(request.get());
  return kFinished;
}

void RequestDoneJob::Cancel() {
  RefPtr<NetworkRequest> request;  // dies behind the guard, with what it owns
  {
    SpinLockGuard guard(lock_);
    manager_ = nullptr;
    request.swap(request_);
  }
  SetRemoved();
}

}  // namespace orvan::net
