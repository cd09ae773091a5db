#pragma once

#include <QString>
#include <QUrl>
#include <functional>
#include <memory>

#include "orvan/net/export.h"
#include "orvan/net/http/http_options.h"
#include "orvan/net/http/http_request.h"
#include "orvan/net/http/http_request_priority_queue.h"
#include "orvan/support/memory/containers.h"
#include "orvan/support/memory/ref_ptr.h"
#include "orvan/support/thread/lock.h"

namespace orvan::net {

// One logical connection to one server: the transport-independent side. Made by
// HttpConnectionFactory::CreateHttpConnection(), ended by DisposeConnection().
//
// Threads:   any thread may create and enqueue requests. Callbacks come one after the other on the
//            connection's own thread "http_callback_handler". While a connection is being destroyed nobody
//            may call it. Destroying it waits for a running callback, unless it is that callback which
//            destroys it: so a callback must not wait for a thread that destroys its connection.
// Ownership: a successful EnqueueRequest() passes the caller's reference to the connection; who wants to keep
//            the request takes one more before. Requests that are not over at destruction vanish: their
//            reference is dropped, their callback is not called.
// Errors:    a failed enqueue is told by its status alone: no callback, and the caller keeps its reference.
class ORVAN_NET_EXPORT HttpConnection {
 public:
  // Hooks around every request of every connection, in the order of their registration. They run under a
  // process-wide lock, so they must be quick and must not enqueue, register, unregister, or end a connection.
  // Not owned.
  class ORVAN_NET_EXPORT RequestCallbacks {
   public:
    // Registers the object; the destructor takes one registration away. Registering it again makes it called
    // twice. A class whose hooks use fields of its own constructs itself with kUnregistered, and registers
    // last in its constructor and unregisters first in its destructor.
    RequestCallbacks();
    RequestCallbacks(const RequestCallbacks&) = delete;
    RequestCallbacks& operator=(const RequestCallbacks&) = delete;

    // On the thread that enqueues. False stops the hooks behind this one, and not the request.
    virtual bool PreSendRequest(HttpConnection* connection, HttpRequest* request) = 0;
    // On the callback thread. False keeps the request from its callback; its reference is the hook's then,
    // and until the hook drops it the request also keeps alive what its owner tied to it.
    // `connection` may be on its way out: ask it for host(), port() and the like, and for nothing virtual.
    virtual bool PreCompleteRequest(HttpConnection* connection, HttpRequest* request) = 0;
    virtual ~RequestCallbacks();  // behind the hooks: the order of virtual operations is agreed

   protected:
    // See the constructor above.
    enum Registration { kUnregistered };
    explicit RequestCallbacks(Registration);
  };

  HttpConnection(const QString& host, bool secure, int port, MemoryManager* memory_manager,
                 const QString& user_agent, double timeout, int transfer_timeout, int connection_limit);
  HttpConnection(const HttpConnection&) = delete;
  HttpConnection& operator=(const HttpConnection&) = delete;
  // A subclass has stopped its transport before.
  virtual ~HttpConnection();

  // A new request with one reference, that of the caller. See HttpRequest::GetURL() for `url`.
  virtual HttpRequest* CreateRequest(HttpMethod method, const QString& url, void* owner_data) = 0;
  // Runs the request and waits, without a limit, for its end. Returns the status word, or
  // kStatusUnacceptableType if the response's media type was not asked for. Not on the worker or the callback
  // thread of this connection, and never on a thread that has a window to keep alive. Keeps one reference for
  // good if the enqueue fails.
  virtual unsigned int ProcessRequest(HttpRequest* request);
  // Hands the request to the network and returns without waiting for it.
  virtual unsigned int EnqueueRequest(HttpRequest* request, HttpRequest::Callback* callback, void* data) = 0;
  // The same with a function, which runs on the callback thread. An empty one ends the process by abort().
  virtual unsigned int EnqueueRequest(HttpRequest* request, std::function<void()> function);

  // Stored, and applied by nobody: a request runs for as long as the network layer lets it.
  virtual void SetTimeout(double seconds);
  virtual double GetTimeout() const;
  virtual void SetMinTransferRate(int rate);
  virtual int GetMinTransferRate() const;
  virtual void SetMinTransferRateTime(int seconds);
  virtual int GetMinTransferRateTime() const;
  virtual void SetMaxTransferRate(int rate);
  virtual int GetMaxTransferRate() const;
  virtual void SetTransferTimeout(int seconds);
  virtual int GetTransferTimeout() const;
  virtual void SetLoginInfo(const QString& user, const QString& password);
  // The synchronous route of other transports; the Qt transport answers kStatusFailed.
  virtual unsigned int SendRequest(HttpRequest* request) = 0;
  // Whether the calling thread may destroy this connection without waiting for itself, for a user, or for
  // long. A transport answers false on its own worker thread. For DisposeConnection().
  virtual bool MayBeDestroyedHere() const;

  const QString& host() const { return host_; }
  int port() const { return port_; }
  bool secure() const { return secure_; }
  MemoryManager* memory_manager() const { return memory_manager_; }
  bool reuse_allowed() const { return reuse_allowed_; }
  void set_reuse_allowed(bool allowed) { reuse_allowed_ = allowed; }

  // For the application; nothing here counts.
  static int GetMsgCount();
  static void SetMsgCount(int count);

  // For transports: the requests in flight, without references, and those that wait for the callback thread,
  // each with a reference of the queue's own. Any thread.
  void AppendAsyncRequest(HttpRequest* request);
  void RemoveAsyncRequest(HttpRequest* request);
  HttpRequest* GetNextAsyncRequest();
  bool GetAnyAsyncRequests();
  HttpRequest* WaitForNextAsyncRequest();  // nobody posts what it waits for: never returns
  void AppendCompletedRequest(HttpRequest* request);

  // Run the hooks. What DoPreSendRequest() returns is for transports that heed it; the Qt transport does not.
  bool DoPreSendRequest(HttpRequest* request);
  bool DoPreCompleteRequest(HttpRequest* request);
  // What RequestCallbacks do by themselves. An object that is not registered is no error.
  static void RegisterHttpCallback(RequestCallbacks* callbacks);
  static void UnregisterHttpCallback(RequestCallbacks* callbacks);

  // The connection's side of the secure-host rule (http_connection_factory.h).
  // Whether HTTPS is used though the connection was made for HTTP, at this moment.
  bool ForcedHttps() const;
  static bool IsInsecureQuorexConn(const QString& host, bool secure, int port);
  // Scheme and host, and the port if it is not the default; the last one adds the request's path and query.
  QString MakeBaseUrlString() const;
  QUrl MakeBaseUrl() const;
  QUrl MakeFullUrl(const HttpRequest& request) const;

  // The connection store of cookies, beside the shared jar (identity/cookie_jar.h tells both).
  static void SetCookie(const QString& url, const QString& name, const QString& value);
  static void ClearAllCookies();
  void UpdateCookieHeader(HttpRequest* request);
  void SetCookiesFromRequestHeader(HttpRequest::Headers* headers);

  // Credentials by realm on this connection's host (identity/auth_cache.h).
  bool GetRealmAuthInfo(const QString& realm, QString* username, QString* password) const;
  void SetRealmAuthInfo(const QString& realm, const QString& username, const QString& password) const;
  void ClearRealmAuthInfo(const QString& realm) const;

  static HttpOptions httpOptions;
  static bool prompt_user_for_auth_info_;  // for outside callers; nobody here reads it

 protected:
  // From now on no callback begins; a running one is not waited for. Part of the destructor. A transport may
  // call it as the first thing in its own, so that the callback thread ends while the worker does.
  void StopCallbacks();

 private:
  friend ORVAN_NET_EXPORT void DisposeConnection(HttpConnection* connection);
  // What the callback thread works on. Shared with that thread, which outlives the connection when a callback
  // destroys it.
  struct ORVAN_NET_HIDDEN CallbackService;

  void DropRequests();
  static void SetCookieImpl(const QString& base_url, const QString& name, const QString& value);

  const QString host_;
  const int port_;
  MemoryManager* const memory_manager_;  // not owned; domains live as long as the process
  double timeout_;
  int transfer_timeout_;
  int min_transfer_rate_ = 0;
  int min_transfer_rate_time_ = 0;
  int max_transfer_rate_ = 0;
  const int connection_limit_;
  QString login_user_;
  QString login_password_;
  const bool secure_;
  bool reuse_allowed_ = true;
  SpinLock async_lock_;  // a leaf, as is the lock of the completed queue; the two are never held together
  HttpRequestPriorityQueue async_requests_ ORVAN_GUARDED_BY(async_lock_);
  Semaphore async_semaphore_;
  const std::shared_ptr<CallbackService> callback_service_;
  const bool is_insecure_quorex_conn_;
};

// Ends a connection on whatever thread: here, if that is possible, and on a thread made for it otherwise (on
// the connection's own worker thread, or while its worker waits for a user or is busy with what a server
// sent). Either way no callback begins when it is back; only here a running one is waited for. Null is
// ignored.
ORVAN_NET_EXPORT void DisposeConnection(HttpConnection* connection);

}  // namespace orvan::net
