#include "orvan/net/manager/network_manager.h"

#include <utility>

#include "orvan/net/http/http_connection.h"
#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/manager/manager_rules.h"
#include "orvan/net/server/server_info.h"
#include "orvan/net/url_text.h"
#include "orvan/support/job/job.h"
#include "orvan/support/memory/heap_buffer.h"
#include "orvan/support/text/text.h"
#include "orvan/support/thread/system.h"

namespace orvan::net {

namespace {

constexpr double kTimeoutSeconds = 15.0;
constexpr int kTransferTimeoutSeconds = 30;
constexpr int kConnectionLimit = 1;

unsigned int Send(HttpConnection* connection, HttpRequest* request, const QByteArray& body,
                  HttpRequest::Callback* callback) {
  if (!body.isEmpty()) {
    HeapBuffer* const buffer = HeapBuffer::CreateFromQtBuffer(HeapManager::GetDynamicHeap(), body);
    if (!buffer) return kStatusOutOfMemory;
    request->SetRequestBuffer(buffer);
    buffer->unref();  // the maker's; the request has its own
  }
  return connection->EnqueueRequest(request, callback, nullptr);
}

}  // namespace

// What a handle needs of its manager, and may need when that has gone.
struct NetworkManager::Shared {
  const std::unique_ptr<IJobExecutor> job_executor = std::make_unique<MainThreadJobExecutor>();
  RequestIds ids;
  NetworkManager* manager = nullptr;  // null when it has gone. Main thread.
};

// A request in flight: its callback, and the owner of its connection. Deletes itself on the main thread when
// the request is over.
class HttpRequestHandle : public HttpRequest::Callback {
 public:
  HttpRequestHandle(HttpRequest* request, HttpConnection* connection,
                    AbstractNetworkManager::ResponseCallback callback,
                    std::shared_ptr<NetworkManager::Shared> shared, unsigned int id,
                    bool keep_response_headers)
      : callback_(std::move(callback)),
        request_(request),
        connection_(connection),
        shared_(std::move(shared)),
        id_(id),
        keep_response_headers_(keep_response_headers) {
    request_->ref();
  }

  ~HttpRequestHandle() override {
    DisposeConnection(connection_);
    request_->unref();
  }

  // The request still ends, and this handle with it.
  virtual void Cancel() {
    cancelled_ = true;
    request_->Cancel();
  }

  // On the callback thread, which the connection joins at its end: that has to come from another one.
  int RequestDone(HttpRequest*, void*) override {
    Post();
    return 0;
  }

  void Post() {
    const auto shared = shared_;  // this handle may be gone before the call returns
    shared->job_executor->ExecuteAsync([this] { SyncRequestDone(); }, "RequestDone");
  }

 private:
  void SyncRequestDone() {
    Q_ASSERT(System::IsMainThread());
    const std::unique_ptr<HttpRequestHandle> last(this);
    if (!cancelled_) {
      // Not a slip: an empty body is a null array here, and an empty one with CmNetworkManager.
      // BothManagersTest.DeliverOnTheirThread holds this in place.
      const HeapBuffer* const buffer = request_->GetResponseBuffer();
      const QByteArray body = buffer && buffer->size() > 0 ? buffer->ToQByteArray() : QByteArray();
      DeliverResponse(request_, body, id_, keep_response_headers_, callback_);
    }
    if (shared_->manager) shared_->manager->Finished(id_);
  }

  const AbstractNetworkManager::ResponseCallback callback_;
  HttpRequest* const request_;        // one reference of ours
  HttpConnection* const connection_;  // owned
  const std::shared_ptr<NetworkManager::Shared> shared_;
  const unsigned int id_;
  const bool keep_response_headers_;
  bool cancelled_ = false;  // main thread
};

NetworkManager::NetworkManager() : shared_(std::make_shared<Shared>()), handles_(11) {
  shared_->manager = this;
}

NetworkManager::~NetworkManager() { shared_->manager = nullptr; }

unsigned int NetworkManager::Request(const QUrl& url, const RequestOptions& options,
                                     ResponseCallback callback) {
  Q_ASSERT(System::IsMainThread());
  const ServerInfo server(TextFromBytes(url.toEncoded(QUrl::FullyEncoded)));
  HttpConnection* const connection = HttpConnectionFactory::CreateHttpConnection(
      &server, nullptr, kTimeoutSeconds, kTransferTimeoutSeconds, kConnectionLimit, 0, 0, 0);
  if (!connection) return 0;
  HttpRequest* const request =
      connection->CreateRequest(options.method, GetEncodedPathAndQuery(url), nullptr);
  if (!request) return 0;  // the connection stays: a transport that makes none may still be at work in it

  // The results are dropped: a line that an HttpRequest refuses is not sent, and the others are.
  for (auto it = options.headers.constBegin(); it != options.headers.constEnd(); ++it) {
    (void)request->AddRequestHeader(MakeHeaderLine(TextFromBytes(it.key()), TextFromBytes(it.value())));
  }
  for (auto it = options.cookies.constBegin(); it != options.cookies.constEnd(); ++it) {
    (void)request->AddCookieHeader(TextFromBytes(it.key()), TextFromBytes(it.value()));
  }

  const unsigned int id = shared_->ids.ComputeRequestId(options.request_id);
  auto* const handle = new HttpRequestHandle(request, connection, std::move(callback), shared_, id,
                                             options.keep_response_headers);
  const unsigned int refusal = Send(connection, request, options.post_data, handle);
  if (refusal != kStatusOk) {
    // Over before it began, and delivered like any other end. A new request's own status says success.
    request->SetResponseStatus(refusal >> 30 == kStatusSeverityError ? refusal : kStatusFailed);
    request->unref();  // the maker's, which a successful enqueue would have passed on
    handle->Post();
  }
  // Not a slip: an id that is in use gets the newer request, and the end of the older one takes it away.
  // BothManagersTest.TakeANumberTwice holds this in place.
  handles_[id] = handle;
  return id;
}

void NetworkManager::Cancel(unsigned int request_id) {
  Q_ASSERT(System::IsMainThread());
  const auto found = handles_.find(request_id);
  if (request_id == 0 || found == handles_.end()) return;
  HttpRequestHandle* const handle = found->second;
  handles_.erase(found);
  handle->Cancel();
}

void NetworkManager::Finished(unsigned int id) {
  if (id != 0) handles_.erase(id);
}

}  // namespace orvan::net
