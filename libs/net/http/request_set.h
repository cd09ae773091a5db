#pragma once

#include <memory>

#include "orvan/net/export.h"
#include "orvan/support/memory/ref_ptr.h"
#include "orvan/support/thread/lock.h"

namespace orvan::net {

class HttpRequest;

// Requests that an application may want to cancel together.
//
// Threads:   any. The lock is held for the container only, never across Cancel() or a callback.
// Ownership: one reference to each request. The destructor cancels what is left.
class ORVAN_NET_EXPORT RequestSet {
 public:
  RequestSet();
  RequestSet(const RequestSet&) = delete;
  RequestSet& operator=(const RequestSet&) = delete;
  ~RequestSet();

  // A request that is in the set already stays there once.
  void AddPendingRequest(HttpRequest* request);
  // An absent request is no error, not even one that has died.
  void RemovePendingRequest(HttpRequest* request);
  // Removes some request, whichever comes first; null if there is none.
  RefPtr<HttpRequest> PopOneRequest();
  // Cancels every request, those included that other threads add meanwhile, and takes its callback away. A
  // callback may still come while this runs; none runs or comes afterwards.
  void CancelAllRequests();

 private:
  struct ORVAN_NET_HIDDEN Requests;

  SpinLock lock_;  // a leaf
  const std::unique_ptr<Requests> requests_ ORVAN_PT_GUARDED_BY(lock_);
};

}  // namespace orvan::net
