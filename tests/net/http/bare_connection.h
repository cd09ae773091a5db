#pragma once

#include <atomic>
#include <functional>

#include "orvan/net/http/http_connection.h"
#include "orvan/net/http/http_status.h"

namespace orvan::test {

// A request without a transport.
class PlainRequest : public net::HttpRequest {
 public:
  explicit PlainRequest(const QString& url = "/") : HttpRequest(net::kHttpGet, url, nullptr) { ++s_alive; }
  ~PlainRequest() override { --s_alive; }
  void Cancel() override {}
  inline static std::atomic<int> s_alive{0};
};

// A connection that does nothing by itself: what it is given waits in its queue of requests in flight, or is
// refused once the callback is already in the request.
class BareConnection : public net::HttpConnection {
 public:
  explicit BareConnection(const QString& host = "host.example", bool secure = false, int port = 80)
      : HttpConnection(host, secure, port, nullptr, QString(), 15.0, 15, 1) {}
  ~BareConnection() override {
    StopCallbacks();
    if (in_destructor) in_destructor();
  }

  net::HttpRequest* CreateRequest(net::HttpMethod, const QString& url, void*) override {
    return new PlainRequest(url);
  }
  using HttpConnection::EnqueueRequest;
  unsigned int EnqueueRequest(net::HttpRequest* request, net::HttpRequest::Callback* callback,
                              void* data) override {
    request->SetCallback(callback, data);
    if (refusal == net::kStatusOk) AppendAsyncRequest(request);
    return refusal;
  }
  unsigned int SendRequest(net::HttpRequest*) override { return net::kStatusFailed; }

  unsigned int refusal = net::kStatusOk;
  std::function<void()> in_destructor;  // run when no callback can begin any more
};

}  // namespace orvan::test
