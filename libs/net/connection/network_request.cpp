#include "orvan/net/connection/network_request.h"

#include <utility>

namespace orvan::net {

namespace {

// Bytes of somebody else (fromRawData()) may go, or change, while the request waits for a connection.
QByteArray WithOwnBytes(const QByteArray& bytes) {
  return bytes.capacity() == 0 ? QByteArray(bytes.constData(), bytes.size()) : bytes;
}

}  // namespace

NetworkRequest::Callback::~Callback() = default;

NetworkRequest::Info::Info(HttpMethod method, const QByteArray& post_data, const QString& url,
                           mmvector<RequestHeader> headers, bool use_cache, Callback* callback,
                           void* user_data, DefaultHeaders default_headers, RefPtr<AtomicReferent> owner)
    : url_(url),
      headers_(std::move(headers)),
      callback_(callback),
      user_data_(user_data),
      use_cache_(use_cache),
      method_(method),
      post_data_(WithOwnBytes(post_data)),
      default_headers_(default_headers),
      owner_(std::move(owner)) {}

NetworkRequest::Info::Info(const QString& url, mmvector<RequestHeader> headers, bool use_cache,
                           Callback* callback, void* user_data)
    : Info(kHttpGet, QByteArray(), url, std::move(headers), use_cache, callback, user_data,
           kKeepDefaultHeaders) {}

NetworkRequest::Info::Info(const Info& other) = default;
NetworkRequest::Info& NetworkRequest::Info::operator=(const Info& other) = default;
NetworkRequest::Info::~Info() = default;

NetworkRequest::NetworkRequest(const ServerInfo& server, const Info& info)
    : server_(server), info_(info), callback_(info.callback_) {}

NetworkRequest::~NetworkRequest() {
  if (http_request_) http_request_->unref();
}

void NetworkRequest::SetHttpRequest(HttpRequest* request) {
  if (request == http_request_) return;
  if (request) request->ref();
  if (http_request_) http_request_->unref();
  http_request_ = request;
}

}  // namespace orvan::net
