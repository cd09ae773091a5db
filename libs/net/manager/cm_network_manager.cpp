#include "orvan/net/manager/cm_network_manager.h"

#include <boost/unordered_map.hpp>
#include <utility>

#include "orvan/net/connection/connection_manager.h"
#include "orvan/net/manager/manager_rules.h"
#include "orvan/net/server/server_info.h"
#include "orvan/support/text/text.h"

namespace orvan::net {

namespace {

constexpr int kMaxConnections = 4;
constexpr int kThreadsPerConnection = 2;
constexpr double kLifetimeSeconds = 60.0;
constexpr int kTransferTimeoutSeconds = 60;
constexpr unsigned int kCachePeriodMs = 60000;

}  // namespace

namespace detail {

// All that belongs to one request. Pinned by its NetworkRequest, and pins that one while it is in the table;
// whoever takes it out ends the circle.
class CmNetworkManagerCallback : public AtomicReferent {
 public:
  CmNetworkManagerCallback(AbstractNetworkManager::ResponseCallback callback, unsigned int id,
                           bool keep_response_headers)
      : callback_(std::move(callback)), id_(id), keep_response_headers_(keep_response_headers) {}

  AbstractNetworkManager::ResponseCallback callback_;  // empty when it has returned
  const unsigned int id_;
  const bool keep_response_headers_;
  // Both under the lock of the table.
  RefPtr<NetworkRequest> request_;  // null outside of the table, and when there is nothing left to cancel
  bool over_ = false;               // the callable has returned
};

}  // namespace detail

// The requests in flight.
struct CmNetworkManager::Requests {
  using Table = boost::unordered_map<unsigned int, RefPtr<detail::CmNetworkManagerCallback>>;

  ~Requests() { Clear(); }

  // Not a slip: an id that is in use keeps the older request, and the first of the two to end takes it away.
  // A request that is over by now is entered as well, and stays until its id is cancelled; its response goes.
  // BothManagersTest.TakeANumberTwice and CmNetworkManagerTest.FourThreadsAskAndCancel hold this in place.
  void Add(const RefPtr<detail::CmNetworkManagerCallback>& entry, const RefPtr<NetworkRequest>& request) {
    SpinLockGuard guard(lock);
    const bool added = callbacks.emplace(entry->id_, entry).second;
    if (added && !entry->over_) entry->request_ = request;
  }

  // Takes away what stands under the id of a request that is over.
  void Finish(detail::CmNetworkManagerCallback* entry) {
    {
      SpinLockGuard guard(lock);
      entry->over_ = true;
    }
    static_cast<void>(Take(entry->id_));
    // What it holds goes now, and does not stay with an entry that comes too late. Last: the manager may go.
    entry->callback_ = nullptr;
  }

  // Takes the entry out. Null if there is none, or nothing left to cancel.
  RefPtr<NetworkRequest> Take(unsigned int id) {
    RefPtr<detail::CmNetworkManagerCallback> entry;  // dies behind the guard, and with it the callable
    RefPtr<NetworkRequest> request;
    SpinLockGuard guard(lock);
    const auto found = callbacks.find(id);
    if (found == callbacks.end()) return nullptr;
    entry = found->second;
    request.swap(entry->request_);
    callbacks.erase(found);
    return request;
  }

  void Clear() {
    Table table;
    {
      SpinLockGuard guard(lock);
      table.swap(callbacks);
    }
    for (const auto& entry : table) {
      RefPtr<NetworkRequest> last;
      last.swap(entry.second->request_);
    }
  }

  SpinLock lock;  // a leaf
  Table callbacks ORVAN_GUARDED_BY(lock);
};

CmNetworkManager::CmNetworkManager()
    : ids_(std::make_unique<RequestIds>()), requests_(std::make_shared<Requests>()) {}

// The connection manager goes next, and all else behind it: callables that still run on other threads may use
// this object until its destructor has waited for them.
CmNetworkManager::~CmNetworkManager() { requests_->Clear(); }

void CmNetworkManager::Init(const mmvector<QString>& headers, bool deferred_completion) {
  connection_manager_ =
      std::make_unique<ConnectionManager>(kMaxConnections, kThreadsPerConnection, deferred_completion,
                                          kLifetimeSeconds, kTransferTimeoutSeconds, kCachePeriodMs);
  requests_->Clear();  // those of an earlier connection manager went with it
  // Not a slip: the lines of an earlier call stay. ManagersTest.AServerSeesTheOptions holds this in place.
  default_headers_.reserve(default_headers_.size() + headers.size());
  for (const QString& line : headers) default_headers_.push_back(GetNetHeaderFromString(line));
}

unsigned int CmNetworkManager::Request(const QUrl& url, const RequestOptions& options,
                                       ResponseCallback callback) {
  if (!connection_manager_) return 0;
  unsigned int id = options.request_id;
  if (id == 0) {
    SpinLockGuard guard(id_lock_);
    id = ids_->ComputeRequestId(0);
  }
  mmvector<RequestHeader> headers;
  SetUpHeaders(options.headers, options.cookies, &headers);
  const RefPtr<detail::CmNetworkManagerCallback> entry(
      new detail::CmNetworkManagerCallback(std::move(callback), id, options.keep_response_headers));
  const QString text = TextFromBytes(url.toEncoded(QUrl::FullyEncoded));
  const NetworkRequest::Info info(options.method, options.post_data, text, headers, options.use_cache, this,
                                  entry.get(), NetworkRequest::Info::kClearDefaultHeaders,
                                  RefPtr<AtomicReferent>(entry));
  // The connection manager's lock and that of the table are taken one after the other, never both at once.
  requests_->Add(entry, connection_manager_->EnqueueRequest(ServerInfo(text), info));
  return id;
}

void CmNetworkManager::RequestDone(NetworkRequest* request, void* user_data) {
  const RefPtr<detail::CmNetworkManagerCallback> entry(
      static_cast<detail::CmNetworkManagerCallback*>(user_data));
  const std::shared_ptr<Requests> requests = requests_;  // the callable may destroy this object
  const HttpRequest* const response = request->GetConstHttpRequest();
  const HeapBuffer* const buffer = response ? response->GetResponseBuffer() : nullptr;
  DeliverResponse(response, buffer ? buffer->ToQByteArray() : QByteArray(), entry->id_,
                  entry->keep_response_headers_, entry->callback_);
  requests->Finish(entry.get());
}

void CmNetworkManager::Cancel(unsigned int request_id) {
  // Behind the lock of the table: cancelling waits for a callable of this request, which may look into it.
  const RefPtr<NetworkRequest> request = requests_->Take(request_id);
  if (request && connection_manager_) connection_manager_->CancelRequest(request.get());
}

void CmNetworkManager::SetUpHeaders(const QMap<QByteArray, QByteArray>& headers,
                                    const QMap<QByteArray, QByteArray>& cookies,
                                    mmvector<RequestHeader>* result) const {
  result->clear();
  result->reserve(default_headers_.size() + static_cast<std::size_t>(headers.size()));
  *result = default_headers_;
  for (auto it = headers.constBegin(); it != headers.constEnd(); ++it) {
    result->push_back(GetNetHeaderFromPair(TextFromBytes(it.key()), TextFromBytes(it.value())));
  }
  for (auto it = cookies.constBegin(); it != cookies.constEnd(); ++it) {
    const QString value = it.value().isEmpty() ? QString() : TextFromBytes(it.value());
    result->push_back(RequestHeader(RequestHeader::kCookie, TextFromBytes(it.key()), value));
  }
}

RequestHeader CmNetworkManager::GetNetHeaderFromString(const QString& line) {
  return RequestHeader(RequestHeader::kLine, line);
}

RequestHeader CmNetworkManager::GetNetHeaderFromPair(const QString& name, const QString& value) {
  return GetNetHeaderFromString(MakeHeaderLine(name, value));
}

}  // namespace orvan::net
