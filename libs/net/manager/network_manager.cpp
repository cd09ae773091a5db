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

namespace orvan::net {

namespace {

constexpr double kTimeoutSeconds = 15.0;
constexpr int kTransferTimeoutSeconds = 30;
constexpr int kConnectionLimit = 1;

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
    shared_->job_executor->ExecuteAsync([this] { SyncRequestDone(); }, "RequestDone");
  }

 private:
  void SyncRequestDone() {
    const std::unique_ptr<HttpRequestHandle> last(this);
    if (!cancelled_) {
      // Not a slip: an empty body is a null array here, and an empty one with CmNetworkManager.
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
  const ServerInfo server(TextFromBytes(url.toEncoded(QUrl::FullyEncoded)));
  HttpConnection* const connection = HttpConnectionFactory::CreateHttpConnection(
      &server, nullptr, kTimeoutSeconds, kTransferTimeoutSeconds, kConnectionLimit, 0, 0, 0);
  if (!connection) return 0;
  HttpRequest* const request =
      connection->CreateRequest(options.method, GetEncodedPathAndQuery(url), nullptr);
  if (!request) return 0;  // the connection stays: a transport that makes none may still be at work in it

  for (auto it = options.headers.constBegin(); it != options.headers.constEnd(); ++it) {
    request->AddRequestHeader(MakeHeaderLine(TextFromBytes(it.key()), TextFromBytes(it.value())));
  }
  for (auto it = options.cookies.constBegin(); it != options.cookies.constEnd(); ++it) {
    request->AddCookieHeader(TextFromBytes(it.key()), TextFromBytes(it.value()));
  }
  if (!options.post_data.isEmpty()) {
    HeapBuffer* const body = HeapBuffer::CreateFromQtBuffer(HeapManager::GetDynamicHeap(), options.post_data);
    request->SetRequestBuffer(body);
    if (body) body->unref();
  }

  const unsigned int id = shared_->ids.ComputeRequestId(options.request_id);
  auto* const handle = new HttpRequestHandle(request, connection, std::move(callback), shared_, id,
                                             options.keep_response_headers);
  if (connection->EnqueueRequest(request, handle, nullptr) != kStatusOk) {
    request->unref();  // ours, which the connection did not take
    handle->Post();    // refused, and thus over: its status says so
  }
  // Not a slip: an id that is in use gets the newer request, and the end of the older one takes it away.
  handles_[id] = handle;
  return id;
}

void NetworkManager::Cancel(unsigned int request_id) {
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
