#pragma once

#include "orvan/net/export.h"
#include "orvan/support/memory/containers.h"

namespace orvan::net {

class HttpRequest;

// Requests by priority, lower first, equal ones in the order of their arrival.
//
// Shape:     the boundary is where requests of priority 0 go in: in front of the first positive one, at the
//            end if there is none. It is kept, not searched, so an ordinary request costs constant time. A
//            negative request that finds no zeros becomes the boundary itself, and later zeros overtake it.
// Threads:   none; the connection uses it under a lock of its own.
// Ownership: takes and drops no reference.
class ORVAN_NET_EXPORT HttpRequestPriorityQueue {
 public:
  HttpRequestPriorityQueue();
  HttpRequestPriorityQueue(const HttpRequestPriorityQueue&) = delete;
  HttpRequestPriorityQueue& operator=(const HttpRequestPriorityQueue&) = delete;
  virtual ~HttpRequestPriorityQueue();

  // Enters the request, once more if it is there already.
  void AppendRequest(HttpRequest* request);
  // Removes and returns the first request; null if there is none.
  HttpRequest* PopNextRequest();
  // Removes the first entry of `request`; an absent one is no error.
  void RemoveRequest(HttpRequest* request);

  HttpRequest* GetFirst() const { return requests_.empty() ? nullptr : requests_.front(); }
  bool IsEmpty() const { return requests_.empty(); }

 private:
  mmlist<HttpRequest*> requests_;
  mmlist<HttpRequest*>::iterator first_positive_;
};

}  // namespace orvan::net
