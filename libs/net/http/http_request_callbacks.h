#pragma once

#include <functional>
#include <utility>

#include "orvan/net/http/http_request.h"
#include "orvan/support/thread/lock.h"

namespace orvan::net {

// The two callbacks behind the plain ways to run a request. Internal.

// Wakes a waiting thread. Lives on that thread's stack: after wait() the waiter calls SetCallback(nullptr,
// nullptr) on the request before it lets this object die.
class SyncRequestCallback : public HttpRequest::Callback {
 public:
  int RequestDone(HttpRequest* request, void* data) override;
  void Wait() { semaphore_.wait(); }

 private:
  Semaphore semaphore_{0};
};

// Calls a function once, and lets go of it. An empty function ends the process by abort(). Belongs to its
// request.
class BindRequestCallback : public HttpRequest::Callback {
 public:
  explicit BindRequestCallback(std::function<void()> function) : function_(std::move(function)) {}
  int RequestDone(HttpRequest* request, void* data) override;

 private:
  std::function<void()> function_;
};

}  // namespace orvan::net
