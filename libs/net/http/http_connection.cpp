#include "orvan/net/http/http_connection.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/http/http_request_callbacks.h"
#include "orvan/support/thread/system.h"

namespace orvan::net {

namespace {

// The hooks of the process, in the order of their registration. Never destroyed: callback threads may outlive
// the static objects.
struct HookTable {
  SpinLock lock;  // held across the hooks; a hook takes its own locks inside
  mmvector<HttpConnection::RequestCallbacks*> hooks ORVAN_GUARDED_BY(lock);
};

HookTable& Hooks() {
  static HookTable* const table = new HookTable;
  return *table;
}

// Calls `hook` for one entry after the other until one answers false. Goes by index, so that a hook which
// registers another one in spite of the rules does no harm.
template <typename CallHook>
bool RunHooks(const CallHook& call_hook) {
  HookTable& table = Hooks();
  SpinLockGuard guard(table.lock);
  for (std::size_t i = 0; i < table.hooks.size(); ++i) {
    if (!call_hook(table.hooks[i])) return false;
  }
  return true;
}

std::atomic<int> s_msg_count{0};  // the application's own number; orders nothing

void* DeleteConnection(void* connection) {
  delete static_cast<HttpConnection*>(connection);
  return nullptr;
}

}  // namespace

struct HttpConnection::CallbackService : std::enable_shared_from_this<CallbackService> {
  explicit CallbackService(HttpConnection* owner) : connection(owner) {}

  // Starts the thread, which holds this object for as long as it runs. It stays kInvalidThreadId on failure.
  void StartThreadLocked() ORVAN_REQUIRES(lock);
  // Waits for the next completed request. Null once the thread has to end.
  HttpRequest* WaitForRequest();
  // Tells the thread to end before the next callback. Any thread, any number of times.
  void RequestExit();
  void Run();
  static void* ThreadFunc(void* own);

  // Read by the callback thread in front of a callback only, and only for the hooks: until the thread is told
  // to end nobody destroys the connection, and afterwards its destructor waits for the running callback, or
  // is called by it.
  HttpConnection* const connection;
  Semaphore wake_up{0};
  SpinLock lock;  // a leaf
  // One reference to each entry.
  HttpRequestPriorityQueue completed_requests ORVAN_GUARDED_BY(lock);
  bool exit_requested ORVAN_GUARDED_BY(lock) = false;
  unsigned long thread ORVAN_GUARDED_BY(lock) = System::kInvalidThreadId;
};

void HttpConnection::CallbackService::StartThreadLocked() {
  auto* const own = new std::shared_ptr<CallbackService>(shared_from_this());
  thread = System::spawn(&ThreadFunc, own, "http_callback_handler");
  if (thread == System::kInvalidThreadId) delete own;
}

void* HttpConnection::CallbackService::ThreadFunc(void* own) {
  const std::unique_ptr<std::shared_ptr<CallbackService>> service(
      static_cast<std::shared_ptr<CallbackService>*>(own));
  (*service)->Run();
  return nullptr;
}

HttpRequest* HttpConnection::CallbackService::WaitForRequest() {
  for (;;) {
    {
      SpinLockGuard guard(lock);
      if (exit_requested) return nullptr;
      if (HttpRequest* const request = completed_requests.PopNextRequest()) return request;
    }
    wake_up.wait();
  }
}

void HttpConnection::CallbackService::RequestExit() {
  {
    SpinLockGuard guard(lock);
    exit_requested = true;
  }
  wake_up.Post();
}

void HttpConnection::CallbackService::Run() {
  while (HttpRequest* const request = WaitForRequest()) {
    if (!connection->DoPreCompleteRequest(request)) continue;  // the request is the hook's now
    request->InvokeCallback();
    // From here on the connection may be gone, the callback may have destroyed it. `this` is held by the
    // thread.
    request->unref();  // the completed queue's own
  }
}

HttpConnection::RequestCallbacks::RequestCallbacks() { RegisterHttpCallback(this); }

HttpConnection::RequestCallbacks::RequestCallbacks(Registration) {}

HttpConnection::RequestCallbacks::~RequestCallbacks() { UnregisterHttpCallback(this); }

// The user agent is for the subclass.
HttpConnection::HttpConnection(const QString& host, bool secure, int port, MemoryManager* memory_manager,
                               const QString&, double timeout, int transfer_timeout, int connection_limit)
    : host_(host),
      port_(port),
      memory_manager_(memory_manager),
      timeout_(timeout),
      transfer_timeout_(transfer_timeout),
      connection_limit_(connection_limit),
      secure_(secure),
      async_semaphore_(0),
      callback_service_(std::make_shared<CallbackService>(this)),
      is_insecure_quorex_conn_(IsInsecureQuorexConn(host, secure, port)) {
  SpinLockGuard guard(callback_service_->lock);
  callback_service_->StartThreadLocked();  // last: the thread may use all of this object from here on
}

HttpConnection::~HttpConnection() {
  StopCallbacks();
  unsigned long thread;
  {
    SpinLockGuard guard(callback_service_->lock);
    thread = std::exchange(callback_service_->thread, System::kInvalidThreadId);
  }
  if (thread == System::CurrentThreadId()) {
    System::detach(thread);  // a callback destroys its own connection; the thread ends behind that callback
  } else if (thread != System::kInvalidThreadId) {
    System::join(thread);
  }
  DropRequests();
}

// The requests die outside the locks: their destructors belong to the transport.
void HttpConnection::DropRequests() {
  const auto pop_completed = [this] {
    SpinLockGuard guard(callback_service_->lock);
    return callback_service_->completed_requests.PopNextRequest();
  };
  const auto pop_async = [this] {
    SpinLockGuard guard(async_lock_);
    return async_requests_.PopNextRequest();
  };
  while (HttpRequest* const request = pop_completed()) request->unref();  // the completed queue's own
  while (HttpRequest* const request = pop_async()) request->unref();      // passed by EnqueueRequest()
}

void HttpConnection::StopCallbacks() { callback_service_->RequestExit(); }

unsigned int HttpConnection::ProcessRequest(HttpRequest* request) {
  SyncRequestCallback callback;
  // Passed on by a successful enqueue. After a failed one nobody drops it: releasing it here would take the
  // request from callers that have come to count on it staying.
  request->ref();
  const unsigned int status = EnqueueRequest(request, &callback, nullptr);
  if (status == kStatusOk) callback.Wait();
  // Neither a transport that refused, nor the thread that is still inside Post(), may keep hold of an object
  // on this stack.
  request->ClearCallback(&callback);
  if (status != kStatusOk) return status;
  return request->IsAcceptableResponseContentType() ? request->GetResponseStatus() : kStatusUnacceptableType;
}

unsigned int HttpConnection::EnqueueRequest(HttpRequest* request, std::function<void()> function) {
  // The request owns the callback, so the function also goes if it never runs. One of an earlier enqueue
  // stays until the request has let go of it: it may be running, or about to, if the request is still in
  // flight.
  std::unique_ptr<HttpRequest::Callback> earlier = std::move(request->bound_callback_);
  request->bound_callback_.reset(new (HeapManager::GetDynamicHeap())
                                     BindRequestCallback(std::move(function)));
  const unsigned int status = EnqueueRequest(request, request->bound_callback_.get(), nullptr);
  if (status != kStatusOk) {
    request->ClearCallback(request->bound_callback_.get());
    request->bound_callback_ = std::move(earlier);  // of an exchange under way, which goes on
  }
  return status;
}

// No timer is started, and no rate measured: nobody applies these.
void HttpConnection::SetTimeout(double seconds) { timeout_ = seconds; }
double HttpConnection::GetTimeout() const { return timeout_; }
void HttpConnection::SetMinTransferRate(int rate) { min_transfer_rate_ = rate; }
int HttpConnection::GetMinTransferRate() const { return min_transfer_rate_; }
void HttpConnection::SetMinTransferRateTime(int seconds) { min_transfer_rate_time_ = seconds; }
int HttpConnection::GetMinTransferRateTime() const { return min_transfer_rate_time_; }
void HttpConnection::SetMaxTransferRate(int rate) { max_transfer_rate_ = rate; }
int HttpConnection::GetMaxTransferRate() const { return max_transfer_rate_; }
void HttpConnection::SetTransferTimeout(int seconds) { transfer_timeout_ = seconds; }
int HttpConnection::GetTransferTimeout() const { return transfer_timeout_; }

void HttpConnection::SetLoginInfo(const QString& user, const QString& password) {
  login_user_ = user;
  login_password_ = password;
}

bool HttpConnection::MayBeDestroyedHere() const { return true; }

int HttpConnection::GetMsgCount() { return s_msg_count.load(std::memory_order_relaxed); }

void HttpConnection::SetMsgCount(int count) { s_msg_count.store(count, std::memory_order_relaxed); }

void HttpConnection::AppendAsyncRequest(HttpRequest* request) {
  SpinLockGuard guard(async_lock_);
  async_requests_.AppendRequest(request);
}

void HttpConnection::RemoveAsyncRequest(HttpRequest* request) {
  SpinLockGuard guard(async_lock_);
  async_requests_.RemoveRequest(request);
}

HttpRequest* HttpConnection::GetNextAsyncRequest() {
  SpinLockGuard guard(async_lock_);
  return async_requests_.GetFirst();
}

bool HttpConnection::GetAnyAsyncRequests() {
  SpinLockGuard guard(async_lock_);
  return !async_requests_.IsEmpty();
}

HttpRequest* HttpConnection::WaitForNextAsyncRequest() {
  async_semaphore_.wait();
  return GetNextAsyncRequest();
}

void HttpConnection::AppendCompletedRequest(HttpRequest* request) {
  // Held: once the request is in the queue its callback may run, and destroy the connection.
  const std::shared_ptr<CallbackService> service = callback_service_;
  bool was_empty;
  {
    SpinLockGuard guard(service->lock);
    // A machine that was out of threads when the connection was made delivers late, not never.
    if (service->thread == System::kInvalidThreadId) service->StartThreadLocked();
    request->ref();  // the completed queue's own
    was_empty = service->completed_requests.IsEmpty();
    service->completed_requests.AppendRequest(request);
  }
  // The callback thread empties the queue whenever it wakes up, so only the first of a pile wakes it.
  if (was_empty) service->wake_up.Post();
}

bool HttpConnection::DoPreSendRequest(HttpRequest* request) {
  UpdateCookieHeader(request);  // before the hooks' lock, since it takes the one of the cookies
  return RunHooks([&](RequestCallbacks* hook) { return hook->PreSendRequest(this, request); });
}

bool HttpConnection::DoPreCompleteRequest(HttpRequest* request) {
  return RunHooks([&](RequestCallbacks* hook) { return hook->PreCompleteRequest(this, request); });
}

void HttpConnection::RegisterHttpCallback(RequestCallbacks* callbacks) {
  HookTable& table = Hooks();
  SpinLockGuard guard(table.lock);
  table.hooks.push_back(callbacks);
}

void HttpConnection::UnregisterHttpCallback(RequestCallbacks* callbacks) {
  HookTable& table = Hooks();
  SpinLockGuard guard(table.lock);
  const auto it = std::find(table.hooks.begin(), table.hooks.end(), callbacks);
  if (it != table.hooks.end()) table.hooks.erase(it);
}

void DisposeConnection(HttpConnection* connection) {
  if (!connection) return;
  if (connection->MayBeDestroyedHere()) {
    delete connection;
    return;
  }
  connection->StopCallbacks();
  // A thread for each: one that has to wait for a user must not hold up the others. If no thread can be
  // started the connection stays for good, which is better than a thread that waits for itself.
  const unsigned long reaper = System::spawn(&DeleteConnection, connection, "http_reaper");
  if (reaper != System::kInvalidThreadId) System::detach(reaper);
}

}  // namespace orvan::net
