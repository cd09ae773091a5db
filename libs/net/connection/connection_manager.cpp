#include "orvan/net/connection/connection_manager.h"

#include <QUrl>
#include <algorithm>
#include <atomic>
#include <unordered_map>
#include <vector>

#include "orvan/net/connection/connection_cache.h"
#include "orvan/net/connection/request_done_job.h"
#include "orvan/net/connection/waiting_requests.h"
#include "orvan/net/http/http_connection.h"
#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/url_text.h"
#include "orvan/support/job/job.h"
#include "orvan/support/memory/heap_buffer.h"
#include "orvan/support/memory/memory.h"
#include "orvan/support/thread/system.h"

namespace orvan::net {

namespace {

constexpr double kConnectTimeoutSeconds = 15.0;
constexpr double kFinalLifetimeFactor = 5.0;

// The number of the newest request. One for all managers: a caller may cancel a request of an earlier
// manager, which must not be taken for one of its successor.
std::atomic<quint64> s_last_ticket{0};

void ApplyHeaders(const mmvector<RequestHeader>& headers, HttpRequest* http) {
  // The results are dropped: a line that an HttpRequest refuses is not sent, and the others are.
  for (const RequestHeader& header : headers) {
    switch (header.type) {
      case RequestHeader::kLine:
        (void)http->AddRequestHeader(header.text);
        break;
      case RequestHeader::kCookie:
        (void)http->AddCookieHeader(header.text, header.value);
        break;
      case RequestHeader::kAcceptTypes:
        for (const QString& type : header.text.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
          (void)http->AddAcceptContentType(type.trimmed());
        }
        break;
      default:
        break;  // an unknown kind adds nothing
    }
  }
}

// False if there is no memory for the body.
bool ApplyBody(const QByteArray& body, HttpRequest* http) {
  if (body.isEmpty()) return true;
  HeapBuffer* const buffer = HeapBuffer::CreateFromQtBuffer(HeapManager::GetDynamicHeap(), body);
  http->SetRequestBuffer(buffer);
  if (!buffer) return false;
  buffer->unref();  // the maker's; the request has its own
  return true;
}

// What the outermost operation of a thread does when it has let go of the lock: everything here may wait for
// a callback or a thread that wants the lock itself, or runs code that is not ours.
struct Aftermath {
  struct Detached {
    RefPtr<NetworkRequest> request;  // the data of the callback: alive until none can start any more
    RefPtr<HttpRequest> http;
  };
  std::vector<Detached> detached;                // to lose their callback, and to be aborted
  std::vector<RefPtr<NetworkRequest>> released;  // to be dropped
  std::vector<HttpConnection*> doomed;           // to be ended, behind the requests that used them
  bool arm_timer = false;                        // for the next pass
};

// Who is delivering at the moment, and which deliveries are still to come. Shared with each delivery, so that
// one whose callback destroyed the manager finds that out.
class Deliveries {
 public:
  void Add(RequestDoneJob* job) {
    port::MutexGuard guard(mutex_);
    jobs_.emplace(job, job);
  }
  // The delivery of a job begins: either it is still on the list, or it has begun.
  void Begin(RequestDoneJob* job) {
    RefPtr<RequestDoneJob> listed;  // dies behind the guard
    port::MutexGuard guard(mutex_);
    const auto it = jobs_.find(job);
    if (it != jobs_.end()) {
      listed.swap(it->second);
      jobs_.erase(it);
    }
    threads_.push_back(System::CurrentThreadId());
  }
  void Begin() {
    port::MutexGuard guard(mutex_);
    threads_.push_back(System::CurrentThreadId());
  }
  void End() {
    port::MutexGuard guard(mutex_);
    threads_.erase(std::find(threads_.begin(), threads_.end(), System::CurrentThreadId()));
    ended_.NotifyAll();
  }
  bool ManagerIsGone() {
    port::MutexGuard guard(mutex_);
    return manager_gone_;
  }
  // Keeps deliveries that have not begun from reaching the manager, and waits for those of other threads.
  void Close() {
    std::unordered_map<RequestDoneJob*, RefPtr<RequestDoneJob>> jobs;
    {
      port::MutexGuard guard(mutex_);
      jobs.swap(jobs_);
    }
    for (const auto& job : jobs) job.second->Cancel();
    const unsigned long self = System::CurrentThreadId();
    port::MutexGuard guard(mutex_);
    while (std::any_of(threads_.begin(), threads_.end(),
                       [self](unsigned long thread) { return thread != self; })) {
      ended_.Wait(mutex_);
    }
    manager_gone_ = true;
  }

 private:
  port::MutexPosix mutex_;  // a leaf
  port::ConditionPosix ended_;
  std::unordered_map<RequestDoneJob*, RefPtr<RequestDoneJob>> jobs_ ORVAN_GUARDED_BY(mutex_);
  std::vector<unsigned long> threads_ ORVAN_GUARDED_BY(mutex_);  // one entry for each delivery
  bool manager_gone_ ORVAN_GUARDED_BY(mutex_) = false;
};

}  // namespace

struct ConnectionManager::Private {
  using Pair = ConnectionRequestPair;
  using Pairs = WaitingRequests::Pairs;
  // A connection and its server. Not counted: the counter's destructor takes the entry away.
  using Connection = std::pair<ServerInfo, ConnectionRefCounter*>;
  class Scope;

  explicit Private(ConnectionManager* owner) : manager(owner) {}

  void RunPassLocked() ORVAN_REQUIRES(lock);
  void ReleaseFinishedLocked() ORVAN_REQUIRES(lock);
  quint64 NextToVisitLocked(quint64 ticket) ORVAN_REQUIRES(lock);
  void VisitLocked(quint64 ticket) ORVAN_REQUIRES(lock);
  bool IsFullLocked() ORVAN_REQUIRES(lock);
  RefPtr<ConnectionRefCounter> FindConnectionLocked(const ServerInfo& server) ORVAN_REQUIRES(lock);
  RefPtr<ConnectionRefCounter> CreateConnectionLocked(const ServerInfo& server) ORVAN_REQUIRES(lock);
  void CreateEnqueueRequestLocked(ConnectionRefCounter* connection, Pair* pair) ORVAN_REQUIRES(lock);
  unsigned int SendLocked(HttpConnection* connection, NetworkRequest* request, HttpRequest* http)
      ORVAN_REQUIRES(lock);
  void DetachLocked(NetworkRequest* request) ORVAN_REQUIRES(lock);
  RefPtr<Pair> TakeLocked(const NetworkRequest* request) ORVAN_REQUIRES(lock);
  void PostDone(NetworkRequest* request);

  ConnectionManager* const manager;
  const bool reuse_allowed = true;
  const std::shared_ptr<Deliveries> deliveries = std::make_shared<Deliveries>();
  std::unique_ptr<ConnectionCache> cache;  // from the constructor to the start of the destructor

  SpinLock lock;  // over the lock of deliveries and those of new HttpRequests and of connections
  int depth ORVAN_GUARDED_BY(lock) = 0;  // of nested Scopes
  Aftermath aftermath ORVAN_GUARDED_BY(lock);
  bool closing ORVAN_GUARDED_BY(lock) = false;
  bool in_pass ORVAN_GUARDED_BY(lock) = false;
  bool again ORVAN_GUARDED_BY(lock) = false;  // a pass was asked for during a pass
  mmvector<Connection> connections ORVAN_GUARDED_BY(lock){HeapManager::GetStaticHeap()};
  WaitingRequests outstanding ORVAN_GUARDED_BY(lock);
  Pairs active ORVAN_GUARDED_BY(lock);
  mmvector<RefPtr<Pair>> finished ORVAN_GUARDED_BY(lock);
};

// Holds the lock for the length of an operation. The outermost one on a thread does the aftermath behind it.
class ORVAN_SCOPED_CAPABILITY ConnectionManager::Private::Scope {
 public:
  explicit Scope(Private& d) ORVAN_ACQUIRE(d.lock) : d_(d) {
    d_.lock.lock();
    ++d_.depth;
  }
  ~Scope() ORVAN_RELEASE() {
    Aftermath after;
    ConnectionManager* const owner = d_.manager;
    if (--d_.depth == 0) std::swap(after, d_.aftermath);
    d_.lock.unlock();
    // Here the connection's callback thread may be inside a callback of one of these requests, waiting for
    // the lock: SetCallback() waits for that, so it must not be called while the lock is held.
    for (const Aftermath::Detached& detached : after.detached) {
      detached.http->SetCallback(nullptr, nullptr);
      detached.http->Cancel();
    }
    if (after.arm_timer && !owner->IsActive()) owner->Start(0, true);
    after.detached.clear();
    after.released.clear();
    for (HttpConnection* const connection : after.doomed) DisposeConnection(connection);
  }
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;

 private:
  Private& d_;
};

ConnectionManager::ConnectionRequestPair::ConnectionRequestPair(ConnectionRefCounter* connection,
                                                                NetworkRequest* request)
    : connection_(connection), request_(request) {}

// The request goes first: its HttpRequest was made by the connection.
ConnectionManager::ConnectionRequestPair::~ConnectionRequestPair() {
  request_ = nullptr;
  ConnectionRefCounter::Drop(std::move(connection_));
}

ConnectionManager::ConnectionManager(int max_num_connections, int num_threads_per_connection,
                                     bool deferred_completion, double connection_lifetime,
                                     int transfer_timeout, unsigned int cache_period_ms)
    : Timer("ConnectionManager", nullptr),
      max_num_connections_(max_num_connections),
      num_threads_per_connection_(num_threads_per_connection),
      deferred_completion_(deferred_completion),
      transfer_timeout_(transfer_timeout),
      d_(std::make_unique<Private>(this)) {
  d_->cache.reset(new (HeapManager::GetStaticHeap()) ConnectionCache(
      cache_period_ms, &d_->lock, connection_lifetime, connection_lifetime * kFinalLifetimeFactor));
}

ConnectionManager::~ConnectionManager() {
  std::vector<Aftermath::Detached> in_flight;
  {
    Private::Scope scope(*d_);
    d_->closing = true;  // no pass from now on, and no timer
    for (const auto& entry : d_->active) {
      NetworkRequest* const request = entry.second->request_.get();
      if (request->GetHttpRequest()) in_flight.push_back({request, request->GetHttpRequest()});
    }
  }
  // Each waits for a callback that runs on another thread. Behind this loop no connection calls us.
  for (const Aftermath::Detached& request : in_flight) request.http->SetCallback(nullptr, nullptr);
  in_flight.clear();
  d_->deliveries->Close();
  Withdraw();  // behind the deliveries: one that was under way may have armed the timer once more

  d_->cache.reset();
  Private::Pairs outstanding;
  Private::Pairs active;
  mmvector<RefPtr<ConnectionRequestPair>> finished;
  {
    Private::Scope scope(*d_);
    outstanding = d_->outstanding.TakeAll();
    active.swap(d_->active);
    finished.swap(d_->finished);
  }
  for (const auto& entry : outstanding) ConnectionRefCounter::Drop(std::move(entry.second->connection_));
  for (const auto& entry : active) ConnectionRefCounter::Drop(std::move(entry.second->connection_));
  for (const auto& pair : finished) ConnectionRefCounter::Drop(std::move(pair->connection_));
  Private::Scope scope(*d_);
  d_->connections.clear();
}

int ConnectionManager::RequestDone(HttpRequest*, void* user) {
  NetworkRequest* const request = static_cast<NetworkRequest*>(user);
  if (deferred_completion_) {
    d_->PostDone(request);
  } else {
    RequestDone(request);
  }
  return 0;
}

RefPtr<NetworkRequest> ConnectionManager::EnqueueRequest(const ServerInfo& server,
                                                         const NetworkRequest::Info& info) {
  HeapManager* const heap = HeapManager::GetTransientHeap();
  RefPtr<NetworkRequest> request = new (heap) NetworkRequest(server, info);
  Private::Scope scope(*d_);
  request->ticket_ = ++s_last_ticket;
  d_->outstanding.Append(request->ticket_, new (heap) ConnectionRequestPair(nullptr, request.get()));
  ProcessOutstandingRequests();
  return request;
}

void ConnectionManager::Fire() { ProcessOutstandingRequests(); }

void ConnectionManager::CancelRequest(NetworkRequest* request) {
  Private::Scope scope(*d_);
  request->callback_.store(nullptr, std::memory_order_release);
  d_->DetachLocked(request);
  if (RefPtr<ConnectionRequestPair> pair = d_->TakeLocked(request)) d_->finished.push_back(std::move(pair));
  if (!d_->closing) d_->aftermath.arm_timer = true;
}

void ConnectionManager::RequestDone(NetworkRequest* request) {
  d_->deliveries->Begin();
  Deliver(request);
}

void ConnectionManager::Deliver(NetworkRequest* request) {
  const RefPtr<NetworkRequest> pinned(request);
  const std::shared_ptr<Deliveries> deliveries = d_->deliveries;
  // Loaded once: a cancellation on another thread may clear it at any moment.
  NetworkRequest::Callback* const callback = request->callback_.load(std::memory_order_acquire);
  if (callback) callback->RequestDone(request, request->user_data());
  // The callback may have destroyed this object.
  if (!deliveries->ManagerIsGone()) CancelRequest(request);
  deliveries->End();
}

void ConnectionManager::ProcessOutstandingRequests() {
  Private::Scope scope(*d_);
  if (d_->closing) return;
  // A hook that enqueues while a request is being sent gets its pass when this one is through.
  d_->again = true;
  if (d_->in_pass) return;
  d_->in_pass = true;
  while (d_->again) {
    d_->again = false;
    d_->RunPassLocked();
  }
  d_->in_pass = false;
}

int ConnectionManager::GetConnectionCount() const {
  SpinLockGuard guard(d_->lock);
  return static_cast<int>(d_->connections.size());
}

int ConnectionManager::GetOutstandingCount() const {
  SpinLockGuard guard(d_->lock);
  return d_->outstanding.GetCount();
}

int ConnectionManager::GetActiveCount() const {
  SpinLockGuard guard(d_->lock);
  return static_cast<int>(d_->active.size());
}

void ConnectionManager::DropConnection(RefPtr<ConnectionRefCounter> connection) {
  Private::Scope scope(*d_);
  connection = nullptr;
}

void ConnectionManager::RemoveConnection(ConnectionRefCounter* connection) {
  Private::Scope scope(*d_);
  auto& connections = d_->connections;
  const auto it =
      std::find_if(connections.begin(), connections.end(),
                   [connection](const Private::Connection& entry) { return entry.second == connection; });
  if (it != connections.end()) connections.erase(it);
  d_->aftermath.doomed.push_back(connection->GetConnection());
  // A place became free outside a pass: the cache gave up a connection that nobody used. No request has to
  // end for that, so nothing else would wake the one that waits for the place.
  const bool somebody_waits = !d_->in_pass && d_->outstanding.GetCount() > 0;
  if (somebody_waits && !d_->closing) d_->aftermath.arm_timer = true;
}

void ConnectionManager::AddEvent(RequestDoneJob* job) { d_->deliveries->Add(job); }

void ConnectionManager::RemoveEvent(RequestDoneJob* job) { d_->deliveries->Begin(job); }

void ConnectionManager::Private::RunPassLocked() {
  ReleaseFinishedLocked();
  for (quint64 ticket = NextToVisitLocked(0); ticket != 0; ticket = NextToVisitLocked(ticket)) {
    VisitLocked(ticket);
  }
}

// The connections' references go here and now, so that this pass finds their places free. The requests go
// behind the lock: with them die HttpRequests, and what callers attached to their requests.
void ConnectionManager::Private::ReleaseFinishedLocked() {
  const mmvector<RefPtr<Pair>> pairs = std::exchange(finished, {});
  for (const RefPtr<Pair>& pair : pairs) aftermath.released.push_back(std::move(pair->request_));
}

// The next request that this pass has to look at, behind the one with that ticket. By rule it is the next one
// that waits; each that finds no connection evicts one from the cache, and goes on waiting if that did not
// free a place. Once the cache is empty and every place is taken, all that could come of a visit is that a
// connection to its server exists: then the pass goes straight to the next request of such a server.
// Thousands of waiting requests thus cost a pass no more than a few.
quint64 ConnectionManager::Private::NextToVisitLocked(quint64 ticket) {
  if (!IsFullLocked() || cache->GetEntryCount() > 0) return outstanding.NextAfter(ticket);
  quint64 next = 0;
  for (const Connection& connection : connections) {
    const quint64 candidate = outstanding.NextAfter(ticket, connection.first);
    if (candidate != 0 && (next == 0 || candidate < next)) next = candidate;
  }
  return next;
}

void ConnectionManager::Private::VisitLocked(quint64 ticket) {
  const RefPtr<Pair> pair = outstanding.Find(ticket);
  const ServerInfo& server = pair->request_->server();
  RefPtr<ConnectionRefCounter> connection = FindConnectionLocked(server);
  if (!connection) {
    // Not a slip: each waiting request evicts, whether or not the one before it found that this frees no
    // place. An evicted connection that is busy keeps its place until its requests are over.
    // ConnectionManagerTest.EachWaitingRequestEvictsOne holds this in place.
    if (IsFullLocked()) (void)cache->Purge();
    if (IsFullLocked()) return;  // it waits; requests behind it whose server is connected overtake it
    connection = CreateConnectionLocked(server);
  }
  // Moved before it is sent: a hook that comes back here must not find it waiting, and send it again. A
  // factory that comes back here may have cancelled it.
  if (!outstanding.Take(ticket)) return;
  active.emplace(ticket, pair);
  if (connection) {
    CreateEnqueueRequestLocked(connection.get(), pair.get());
  } else {
    PostDone(pair->request_.get());  // the factory made none: the request ends without an HttpRequest
  }
}

bool ConnectionManager::Private::IsFullLocked() {
  return static_cast<int>(connections.size()) >= manager->max_num_connections_;
}

RefPtr<ConnectionRefCounter> ConnectionManager::Private::FindConnectionLocked(const ServerInfo& server) {
  const auto it = std::find_if(connections.begin(), connections.end(),
                               [&server](const Connection& entry) { return entry.first == server; });
  return it == connections.end() ? nullptr : it->second;
}

RefPtr<ConnectionRefCounter> ConnectionManager::Private::CreateConnectionLocked(const ServerInfo& server) {
  HttpConnection* const connection = HttpConnectionFactory::CreateHttpConnection(
      &server, nullptr, kConnectTimeoutSeconds, manager->transfer_timeout_,
      manager->num_threads_per_connection_, 0, 0, 0);
  if (!connection) return nullptr;
  connection->set_reuse_allowed(reuse_allowed);
  RefPtr<ConnectionRefCounter> counter =
      new (HeapManager::GetStaticHeap()) ConnectionRefCounter(connection, manager);
  connections.emplace_back(server, counter.get());
  return counter;
}

void ConnectionManager::Private::CreateEnqueueRequestLocked(ConnectionRefCounter* counter, Pair* pair) {
  const RefPtr<NetworkRequest> request = pair->request_;
  const NetworkRequest::Info& info = request->info();
  HttpConnection* const connection = counter->GetConnection();
  const QUrl url = QUrl::fromEncoded(info.url_.toUtf8(), QUrl::TolerantMode);
  HttpRequest* const http = connection->CreateRequest(info.method_, GetEncodedPathAndQuery(url), counter);
  request->SetHttpRequest(http);

  const unsigned int refusal = http ? SendLocked(connection, request.get(), http) : kStatusFailed;
  if (refusal != kStatusOk) {
    if (http) {
      http->SetResponseStatus(refusal >> 30 == kStatusSeverityError ? refusal : kStatusFailed);
      http->unref();  // the maker's reference, which a successful enqueue would have passed on
    }
    // Later, and on the main thread: nobody expects a result before EnqueueRequest() has returned.
    PostDone(request.get());
  }
  pair->connection_ = counter;
  cache->RefreshOrAddConnection(counter);
}

unsigned int ConnectionManager::Private::SendLocked(HttpConnection* connection, NetworkRequest* request,
                                                    HttpRequest* http) {
  const NetworkRequest::Info& info = request->info();
  if (!ApplyBody(info.post_data_, http)) return kStatusOutOfMemory;
  if (info.default_headers_ == NetworkRequest::Info::kClearDefaultHeaders) http->GetRequestHeaders().Clear();
  ApplyHeaders(info.headers_, http);
  if (!info.use_cache_) {
    http->SetCacheWrite(false);
    http->SetCacheRead(false);
  }
  return connection->EnqueueRequest(http, manager, request);
}

// A hook may cancel the request that is being sent: that it gets its callback only afterwards does no harm,
// because the detaching comes behind the unlock of the pass that sends it.
void ConnectionManager::Private::DetachLocked(NetworkRequest* request) {
  if (HttpRequest* const http = request->GetHttpRequest()) aftermath.detached.push_back({request, http});
}

RefPtr<ConnectionManager::ConnectionRequestPair> ConnectionManager::Private::TakeLocked(
    const NetworkRequest* request) {
  if (RefPtr<Pair> waiting = outstanding.Take(request->ticket_)) return waiting;
  const auto it = active.find(request->ticket_);
  if (it == active.end()) return nullptr;
  RefPtr<Pair> pair = std::move(it->second);
  active.erase(it);
  return pair;
}

void ConnectionManager::Private::PostDone(NetworkRequest* request) {
  const RefPtr<RequestDoneJob> job = new (HeapManager::GetTransientHeap()) RequestDoneJob(manager, request);
  manager->AddEvent(job.get());
  GetDefaultJobScheduler()->AddJob(job.get());
}

}  // namespace orvan::net
