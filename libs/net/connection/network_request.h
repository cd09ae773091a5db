#pragma once

#include <QByteArray>
#include <QString>
#include <atomic>

#include "orvan/net/export.h"
#include "orvan/net/http/http_request.h"
#include "orvan/net/server/server_info.h"
#include "orvan/support/memory/containers.h"
#include "orvan/support/memory/ref_ptr.h"
#include "orvan/support/memory/referent.h"

namespace orvan::net {

// One request on its way through a ConnectionManager, and its caller's handle.
//
// Threads:   fixed after construction, but for the callback (atomic: the manager clears it under its lock and
//            reads it once for each delivery) and the HTTP request (set by the manager's pass before anybody
//            is told of a result).
// Ownership: counted. Holds one reference to its HttpRequest, which stays readable for as long as this lives.
class ORVAN_NET_EXPORT NetworkRequest : public AtomicReferent {
 public:
  // Receives the end of a request. Implemented by the layers above.
  class ORVAN_NET_EXPORT Callback {
   public:
    virtual ~Callback();
    // On the main thread if the manager defers completions, else on the connection's callback thread.
    virtual void RequestDone(NetworkRequest* request, void* user_data) = 0;
  };

  // What a caller fills in.
  struct ORVAN_NET_EXPORT Info {
    // What becomes of the Accept line.
    enum DefaultHeaders {
      kKeepDefaultHeaders = 1,   // the headers that a new HttpRequest starts with stay
      kClearDefaultHeaders = 2,  // they go before `headers_` are applied
    };

    Info(HttpMethod method, const QByteArray& post_data, const QString& url, mmvector<RequestHeader> headers,
         bool use_cache, Callback* callback, void* user_data, DefaultHeaders default_headers,
         RefPtr<AtomicReferent> owner = nullptr);
    // A GET without a body that keeps the default headers.
    Info(const QString& url, mmvector<RequestHeader> headers, bool use_cache, Callback* callback,
         void* user_data);
    Info(const Info& other);
    Info& operator=(const Info& other);
    ~Info();

    QString url_;  // the full URL, encoded; only its path and query are used, the rest is the server's
    mmvector<RequestHeader> headers_;
    Callback* callback_;  // not owned
    void* user_data_;
    bool use_cache_;
    HttpMethod method_;
    QByteArray post_data_;
    DefaultHeaders default_headers_;
    RefPtr<AtomicReferent> owner_;  // kept alive as long as the request, for callbacks that nobody else holds
  };

  NetworkRequest(const ServerInfo& server, const Info& info);
  ~NetworkRequest() override;

  const ServerInfo& server() const { return server_; }
  const Info& info() const { return info_; }
  void* user_data() const { return info_.user_data_; }

  // Null until the request was handed to a connection.
  HttpRequest* GetHttpRequest() { return http_request_; }
  const HttpRequest* GetConstHttpRequest() const { return http_request_; }
  // Takes a reference to the new one first, then drops the old one. The same pointer again does nothing.
  void SetHttpRequest(HttpRequest* request);

 private:
  friend class ConnectionManager;

  const ServerInfo server_;
  const Info info_;  // its callback_ is the one at the start; the one that counts is below
  std::atomic<Callback*> callback_;
  HttpRequest* http_request_ = nullptr;
  quint64 ticket_ = 0;  // the manager's number for it, under the manager's lock
};

}  // namespace orvan::net
