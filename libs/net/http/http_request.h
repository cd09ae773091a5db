#pragma once

#include <QString>
#include <QStringList>
#include <memory>

#include "orvan/net/export.h"
#include "orvan/net/http/http_status.h"
#include "orvan/net/http/http_types.h"
#include "orvan/support/memory/containers.h"
#include "orvan/support/memory/dlink.h"
#include "orvan/support/memory/heap_buffer.h"
#include "orvan/support/thread/lock.h"

namespace orvan::net {

// One HTTP exchange: what is to be sent and, once it is over, what came back. Made by
// HttpConnection::CreateRequest(), sent once.
//
// Threads:   ref(), unref(), SetCallback(), InvokeCallback() and Cancel() on any thread. All else belongs to
//            the creating thread until the request is enqueued, then to the transport, and from the callback
//            on to whoever got it there; queues and locks of the connection make the hand-over.
// Ownership: starts with one reference, that of its creator. A successful enqueue passes it to the
//            connection. unref() may destroy the request, on whatever thread that happens to be.
// Errors:    operations that return a status return kStatusOk or kStatusFailed.
// Security:  a redirect repeats the request with all its header lines and its body, credentials and cookies
//            included, to whatever host it names. A body is limited by its memory domain only, and there is
//            no time-out.
class ORVAN_NET_EXPORT HttpRequest : public DLink {
 public:
  // An ordered list of whole header lines, "Name: value", without line ends. Names may repeat.
  class ORVAN_NET_EXPORT Headers {
   public:
    Headers();
    virtual ~Headers();

    int GetCount() const;
    // The line at `i`, or one shared null string if `i` is out of range.
    const QString& GetHeader(int i) const;
    // Fails for an index out of range and for an empty line.
    unsigned int SetHeader(int i, const QString& line);
    // Appends. An empty line fails and leaves an empty entry in the list nevertheless.
    unsigned int AddHeader(const QString& line);
    unsigned int RemoveHeader(int i);
    void Clear();

   private:
    mmvector<QString> lines_;
  };

  // Receives the end of an exchange. Implemented by the layers above.
  class ORVAN_NET_EXPORT Callback {
   public:
    virtual ~Callback();
    // On the connection's callback thread, with the request's callback lock held: must not wait for a thread
    // that calls SetCallback() on the same request, nor for one that destroys the connection.
    virtual int RequestDone(HttpRequest* request, void* data) = 0;
  };

  HttpRequest(HttpMethod method, const QString& url, void* owner_data);
  HttpRequest(const HttpRequest&) = delete;
  HttpRequest& operator=(const HttpRequest&) = delete;
  ~HttpRequest() override;

  // Adds to the list of acceptable media types, which replaces the default Accept line. Fails for an empty
  // text and for anything with "*" in it.
  virtual unsigned int AddAcceptContentType(const QString& type);
  // Whether the response's media type is on that list, without regard to letter case; true if nothing was
  // added. A type that goes on for exactly one character passes too, one with parameters does not.
  virtual bool IsAcceptableResponseContentType();
  // Asks the transport to abort. The exchange still ends through its callback. Any thread; does not wait for
  // the network.
  virtual void Cancel() = 0;

  void ref() const;
  void unref() const;
  int getRefCount() const;

  HttpMethod GetMethodType() const { return method_; }
  // Path and query, relative to the connection's base URL, and already encoded. It is appended to the base as
  // text, so it must begin with "/": "@other/" would change the host.
  const QString& GetURL() const { return url_; }
  void* GetOwnerData() const { return owner_data_; }

  unsigned int AddRequestHeader(const QString& line);
  unsigned int AddResponseHeader(const QString& line);
  const QString& GetRequestHeader(int i) const;
  const QString& GetResponseHeader(int i) const;
  int GetRequestHeaderCount() const;
  int GetResponseHeaderCount() const;
  Headers& GetRequestHeaders() { return request_headers_; }
  Headers& GetResponseHeaders() { return response_headers_; }

  // The buffers, without a new reference; null if there is none.
  HeapBuffer* GetRequestBuffer() const { return request_buffer_; }
  HeapBuffer* GetResponseBuffer() const { return response_buffer_; }
  // Drops the old buffer, then takes a reference to the new one: passing the buffer that it already holds, as
  // its only holder, destroys it.
  void SetRequestBuffer(HeapBuffer* buffer);
  // Takes a reference to the new buffer, then drops the old one.
  void SetResponseBuffer(HeapBuffer* buffer);

  unsigned int GetResponseStatus() const { return response_status_; }
  // Stores the status word, or an injected error in its place (settings mockHttpError and
  // mockHttpErrorChance): every status of every transport comes through here.
  void SetResponseStatus(unsigned int status);

  // Sets the receiver. Waits while a callback of this request runs on another thread, so that after
  // SetCallback(nullptr, nullptr) none is running and none will start. `callback` is not owned.
  void SetCallback(Callback* callback, void* data);
  // Takes `callback` away if it is the one that is set, and waits like SetCallback(). One that an exchange
  // under way has set stays.
  void ClearCallback(const Callback* callback);
  // Calls the callback, if there is one, and returns its result, else 0. The callback stays set.
  int InvokeCallback();

  // The text behind the first Content-Type line of the response, parameters included; null without one.
  QString GetContentType() const;
  // Adds a pair to the Cookie line at index 0, over whatever else stands there. See identity/cookie_jar.h.
  unsigned int AddCookieHeader(const QString& name, const QString& value);
  // Always false; a hook for outside callers.
  bool CheckSsoRequired();

  bool GetSkipCookieUpdate() const { return skip_cookie_update_; }
  void SetSkipCookieUpdate(bool skip) { skip_cookie_update_ = skip; }
  bool GetCacheWrite() const { return cache_write_; }
  void SetCacheWrite(bool write) { cache_write_ = write; }
  bool GetCacheRead() const { return cache_read_; }
  void SetCacheRead(bool read) { cache_read_ = read; }
  double GetProcessTime() const { return process_time_; }
  void SetProcessTime(double seconds) { process_time_ = seconds; }
  double GetExpireTime() const { return expire_time_; }
  // Lower goes first in the connection's queues. Read once, when the request enters a queue.
  int GetPriority() const { return priority_; }
  void SetPriority(int priority) { priority_ = priority; }

 private:
  friend class HttpConnection;

  mutable int ref_count_ = 1;
  const HttpMethod method_;
  const QString url_;
  void* const owner_data_;                                         // not owned
  SpinLock callback_lock_;                                         // held while the callback runs
  Callback* callback_ ORVAN_GUARDED_BY(callback_lock_) = nullptr;  // not owned
  void* callback_data_ ORVAN_GUARDED_BY(callback_lock_) = nullptr;
  Headers request_headers_;
  HeapBuffer* request_buffer_ = nullptr;  // one reference of ours
  unsigned int response_status_ = kStatusOk;
  Headers response_headers_;
  HeapBuffer* response_buffer_ = nullptr;  // one reference of ours
  // True keeps the connection's own cookie store out of the request: cookies go through the shared jar.
  bool skip_cookie_update_ = true;
  bool cache_write_ = true;
  bool cache_read_ = true;
  double process_time_ = 0.0;
  double expire_time_;
  int priority_ = 0;
  QStringList accept_types_;
  // Of EnqueueRequest() with a function: kept here, so that the function also goes with a request that
  // vanishes or is cut off from its callback.
  std::unique_ptr<Callback> bound_callback_;
};

}  // namespace orvan::net
