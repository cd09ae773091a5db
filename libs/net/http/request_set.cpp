#include "orvan/net/http/request_set.h"

#include <boost/unordered_set.hpp>
#include <functional>

#include "orvan/net/http/http_request.h"
#include "orvan/support/memory/hash.h"

namespace orvan::net {

struct RequestSet::Requests {
  boost::unordered_set<RefPtr<HttpRequest>, StlHashAdapter<RefPtr<HttpRequest>>> set;
};

RequestSet::RequestSet() : requests_(std::make_unique<Requests>()) {}

RequestSet::~RequestSet() { CancelAllRequests(); }

void RequestSet::AddPendingRequest(HttpRequest* request) {
  SpinLockGuard guard(lock_);
  requests_->set.insert(RefPtr<HttpRequest>(request));
}

void RequestSet::RemovePendingRequest(HttpRequest* request) {
  RefPtr<HttpRequest> dropped;  // behind the guard: the set's reference may be the last one
  SpinLockGuard guard(lock_);
  // By address alone: a request that is not in the set may have died.
  const auto found = requests_->set.find(request, StlHashAdapter<HttpRequest*>(), std::equal_to<>());
  if (found == requests_->set.end()) return;
  dropped = *found;
  requests_->set.erase(found);
}

RefPtr<HttpRequest> RequestSet::PopOneRequest() {
  SpinLockGuard guard(lock_);
  const auto first = requests_->set.begin();
  if (first == requests_->set.end()) return nullptr;
  RefPtr<HttpRequest> request = *first;
  requests_->set.erase(first);
  return request;
}

void RequestSet::CancelAllRequests() {
  while (const RefPtr<HttpRequest> request = PopOneRequest()) {
    // Not a slip: the callback goes second. Taking it away first would keep from the caller that a request
    // ended by itself at this very moment. RequestSetTest.CancelsFirstAndDetachesSecond holds this in place.
    request->Cancel();
    request->SetCallback(nullptr, nullptr);
  }
}

}  // namespace orvan::net
