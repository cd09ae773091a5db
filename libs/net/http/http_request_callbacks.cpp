#include "orvan/net/http/http_request_callbacks.h"

#include <cstdlib>

namespace orvan::net {

int SyncRequestCallback::RequestDone(HttpRequest*, void*) {
  semaphore_.Post();
  return 0;
}

int BindRequestCallback::RequestDone(HttpRequest*, void*) {
  if (!function_) std::abort();
  // The function is on this stack while it runs: if it enqueues its request again, that request replaces this
  // object.
  const std::function<void()> function = std::move(function_);
  function();
  return 0;
}

}  // namespace orvan::net
