// The way out: from EnqueueRequest() on the caller's thread to a reply on the worker.

#include <QCoreApplication>
#include <QNetworkReply>

#include "orvan/net/http/qnetwork/body_decoder.h"
#include "orvan/net/http/qnetwork/header_lines.h"
#include "orvan/net/http/qnetwork/qthttpimpl.h"
#include "orvan/net/http/qnetwork/send_gate.h"
#include "orvan/net/identity/cookie_jar.h"

namespace orvan::net {

namespace {

bool HasOperation(HttpMethod method) {
  return method == kHttpGet || method == kHttpPost || method == kHttpPut || method == kHttpDelete;
}

void FeedJar(const QList<QNetworkCookie>& cookies, const QUrl& url) {
  if (!cookies.isEmpty()) CookieJar::SetCookieFromUrl(cookies, url);
}

}  // namespace

unsigned int QtHttpConnection::EnqueueRequest(HttpRequest* request, HttpRequest::Callback* callback,
                                              void* data) {
  auto* const qt_request = static_cast<QtHttpRequest*>(request);
  // A request of another connection would be cancelled through that one's worker. One that is in flight goes
  // on undisturbed. From here on Cancel() leaves its mark, which the worker finds when it comes to send.
  int idle = QtHttpRequest::kIdle;
  if (qt_request->gate_ != gate_ ||
      !qt_request->phase_.compare_exchange_strong(idle, QtHttpRequest::kInFlight)) {
    return kStatusFailed;
  }
  request->SetCallback(callback, data);
  (void)DoPreSendRequest(request);  // a hook's false stops later hooks, and not the request
  if (!HasOperation(request->GetMethodType()) || !QCoreApplication::instance()) return Refuse(qt_request);

  PrepareForWire(qt_request);
  AppendAsyncRequest(request);
  if (QThread::currentThread() == worker_thread_.get()) {
    SendRequestSlot(qt_request);
    return kStatusOk;
  }
  // Once it has passed the gate the request may complete, and die, at any moment: it is not touched again.
  // Nor is the result taken from its reply, which may be over already.
  if (gate_->Post({SendGate::Verb::kSend, RefPtr<QtHttpRequest>(qt_request), nullptr, nullptr})) {
    return kStatusOk;
  }
  RemoveAsyncRequest(request);
  return Refuse(qt_request);
}

unsigned int QtHttpConnection::Refuse(QtHttpRequest* request) {
  request->phase_ = QtHttpRequest::kIdle;
  request->SetResponseStatus(kStatusFailed);
  return kStatusFailed;
}

// Everything that needs no access manager, so that the worker only has to send. No attribute is set for
// caching, redirects or pipelining, no line of our own is added but the user agent, and no timer is started.
void QtHttpConnection::PrepareForWire(QtHttpRequest* request) const {
  // base_url_ has the scheme that the connection was made with; the switch for secure hosts counts as it is
  // at this moment.
  QNetworkRequest wire(
      HttpConnectionFactory::MakeSecureUrl(QUrl(base_url_ + request->GetURL(), QUrl::TolerantMode)));
  QList<QNetworkCookie> jar_cookies;
  const int count = request->GetRequestHeaderCount();
  for (int i = 0; i < count; ++i) AddHeaderLine(request->GetRequestHeader(i), &wire, &jar_cookies);
  if (!user_agent_.isEmpty()) wire.setRawHeader("User-Agent", user_agent_);
  FeedJar(jar_cookies, wire.url());
  // What Qt would say as well, but having been told it leaves packed bodies alone.
  request->unpacks_ = !wire.hasRawHeader("Accept-Encoding");
  if (request->unpacks_) wire.setRawHeader("Accept-Encoding", BodyDecoder::kAccepted);

  const HeapBuffer* const body = request->GetRequestBuffer();
  request->request_body_ = body ? body->ToQByteArray() : QByteArray();  // GET and DELETE leave it unsent
  request->network_request_ = wire;
  request->jar_cookies_ = jar_cookies;
}

void QtHttpConnection::SendRequestSlot(QtHttpRequest* qt_http_req) {
  Q_ASSERT(QThread::currentThread() == thread());
  if (qt_http_req->phase_ == QtHttpRequest::kCancelled) {
    TakeFailure(qt_http_req, 0);
    Complete(qt_http_req);
    return;
  }
  if (!qt_http_req->redirect_url_.isEmpty()) {
    // The target as it stands: neither resolved nor made secure. Its host gets the cookies as well.
    qt_http_req->network_request_.setUrl(qt_http_req->redirect_url_);
    FeedJar(qt_http_req->jar_cookies_, qt_http_req->redirect_url_);
  }
  QNetworkReply* const reply = StartReply(*qt_http_req);
  if (!reply) {
    qt_http_req->SetResponseStatus(kStatusFailed);
    Complete(qt_http_req);
    return;
  }
  qt_http_req->reply_ = reply;
  replies_.insert(reply, qt_http_req);
  // By reply: the manager's own signal also tells the end of the preconnect.
  connect(reply, &QNetworkReply::finished, this, &QtHttpConnection::RequestFinishedSlot);
  connect(reply, &QNetworkReply::readyRead, this, [this, reply] { ReadableReply(reply); });
  connect(reply, &QNetworkReply::metaDataChanged, this, [reply] { BoundReadAhead(reply); });
}

QNetworkReply* QtHttpConnection::StartReply(const QtHttpRequest& request) {
  const QNetworkRequest& wire = request.network_request_;
  switch (request.GetMethodType()) {
    case kHttpGet:
      return network_manager_.get(wire);
    case kHttpPost:
      return network_manager_.post(wire, request.request_body_);
    case kHttpPut:
      return network_manager_.put(wire, request.request_body_);
    case kHttpDelete:
      return network_manager_.deleteResource(wire);
    case kHttpMethodNone:
      break;
  }
  return nullptr;
}

}  // namespace orvan::net
