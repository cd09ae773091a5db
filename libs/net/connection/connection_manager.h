#pragma once

#include <memory>
#include <utility>

#include "orvan/net/connection/connection_ref_counter.h"
#include "orvan/net/connection/network_request.h"
#include "orvan/net/export.h"
#include "orvan/net/http/http_request.h"
#include "orvan/net/server/server_info.h"
#include "orvan/support/job/timer.h"
#include "orvan/support/memory/containers.h"
#include "orvan/support/memory/ref_ptr.h"
#include "orvan/support/thread/lock.h"

namespace orvan::net {

class ConnectionCache;
class RequestDoneJob;

// The scheduler between callers that want one HTTP exchange each and a few shared connections: at most one
// for each distinct ServerInfo, and at most `max_num_connections` in all.
//
//   outstanding --pass finds or makes a connection--> active --result, or CancelRequest()--> finished
//   --pass--> gone
//
// Threads:   EnqueueRequest() and CancelRequest() on any thread; neither waits for the network. Results come
//            on the main thread, or on the connection's callback thread if completions are not deferred.
// Locks:     one, re-entrant, over everything. Callbacks run without it, and so does what may wait or may run
//            foreign code: detaching and cancelling a request, the end of a request, the end of a connection.
//            All of that is put off to the end of the outermost operation on its thread. Pre-send hooks do
//            run under the lock: one that enqueues or cancels here all the same is survived.
// Ownership: a connection lives while a request or the cache holds its ConnectionRefCounter. The destructor
//            waits for callbacks that run on other threads; nobody else may be inside an operation by then.
//            A callback may destroy its manager, as the last use of it.
// Errors:    a failed exchange arrives as a finished HttpRequest, like a good one. A request that its
//            connection refuses ends the same way, with an error status of its HttpRequest, and one for which
//            no connection or no HttpRequest could be made arrives without an HttpRequest; both on the main
//            thread. The destructor tells nobody.
// Cost:      a pass looks at a handful of requests, however many wait; see NextToVisitLocked(). Connections
//            are searched one by one.
class ORVAN_NET_EXPORT ConnectionManager : private HttpRequest::Callback, private Timer {
 public:
  // A request and, once it has one, its connection. Releases the request first.
  class ORVAN_NET_EXPORT ConnectionRequestPair : public AtomicReferent {
   public:
    ConnectionRequestPair(ConnectionRefCounter* connection, NetworkRequest* request);
    ~ConnectionRequestPair() override;

    RefPtr<ConnectionRefCounter> connection_;  // null while the request waits
    RefPtr<NetworkRequest> request_;
  };

  // Lifetime in seconds, the idle time after which an unused connection is given up; its age is bounded by
  // five times that. `transfer_timeout` in seconds, `cache_period_ms` in milliseconds.
  ConnectionManager(int max_num_connections, int num_threads_per_connection, bool deferred_completion,
                    double connection_lifetime, int transfer_timeout, unsigned int cache_period_ms);
  ~ConnectionManager() override;

  // Called by connections; `user` is the NetworkRequest.
  int RequestDone(HttpRequest* request, void* user) override;
  // Accepts a request; never fails.
  virtual RefPtr<NetworkRequest> EnqueueRequest(const ServerInfo& server, const NetworkRequest::Info& info);
  void Fire() override;

  // Ends a request in any state without a result: unless a delivery is under way on another thread, its
  // callback is not called any more. Waits for a callback of this request that runs on another thread.
  void CancelRequest(NetworkRequest* request);
  // Delivers the result and retires the request.
  void RequestDone(NetworkRequest* request);
  // One scheduling pass: lets go of finished requests, then gives waiting ones their chance.
  void ProcessOutstandingRequests();

  int max_num_connections() const { return max_num_connections_; }
  int num_threads_per_connection() const { return num_threads_per_connection_; }
  // How many there are at the moment, for tests and tools.
  int GetConnectionCount() const;
  int GetOutstandingCount() const;
  int GetActiveCount() const;

 private:
  friend class ConnectionRefCounter;
  friend class RequestDoneJob;
  struct ORVAN_NET_HIDDEN Private;

  // Drops a reference under the lock, so that no pass can find a connection whose last one has just gone.
  void DropConnection(RefPtr<ConnectionRefCounter> connection);
  // Takes the connection off the list, and ends it behind the lock.
  void RemoveConnection(ConnectionRefCounter* connection);
  // Keeps the job on the list of those that have not run.
  void AddEvent(RequestDoneJob* job);
  // Takes it off that list and begins its delivery, in one step.
  void RemoveEvent(RequestDoneJob* job);
  // Makes a delivery that has begun.
  void Deliver(NetworkRequest* request);

  const int max_num_connections_;
  const int num_threads_per_connection_;
  const bool deferred_completion_;
  const int transfer_timeout_;
  const std::unique_ptr<Private> d_;
};

}  // namespace orvan::net
