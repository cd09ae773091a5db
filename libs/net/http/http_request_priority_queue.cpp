#include "orvan/net/http/http_request_priority_queue.h"

#include <algorithm>

#include "orvan/net/http/http_request.h"

namespace orvan::net {

HttpRequestPriorityQueue::HttpRequestPriorityQueue() : first_positive_(requests_.end()) {}

HttpRequestPriorityQueue::~HttpRequestPriorityQueue() = default;

void HttpRequestPriorityQueue::AppendRequest(HttpRequest* request) {
  const int priority = request->GetPriority();
  if (priority == 0) {
    requests_.insert(first_positive_, request);
    return;
  }
  const auto from = priority > 0 ? first_positive_ : requests_.begin();
  const auto behind = std::find_if(from, requests_.end(), [priority](const HttpRequest* other) {
    return other->GetPriority() > priority;
  });
  const auto inserted = requests_.insert(behind, request);
  // Not a slip: negative requests move the boundary too, if they are placed right at it. A -1 that finds no
  // zeros is thus the place where later zeros go in, in front of it. Restricting this to positive requests
  // would sort better and change the order in which callers see their requests go out.
  // HttpRequestPriorityQueueTest.OrdersByPriority holds this in place.
  if (behind == first_positive_) first_positive_ = inserted;
}

HttpRequest* HttpRequestPriorityQueue::PopNextRequest() {
  if (requests_.empty()) return nullptr;
  if (requests_.begin() == first_positive_) ++first_positive_;
  HttpRequest* const request = requests_.front();
  requests_.pop_front();
  return request;
}

void HttpRequestPriorityQueue::RemoveRequest(HttpRequest* request) {
  const auto it = std::find(requests_.begin(), requests_.end(), request);
  if (it == requests_.end()) return;
  if (it == first_positive_) ++first_positive_;
  requests_.erase(it);
}

}  // namespace orvan::net
