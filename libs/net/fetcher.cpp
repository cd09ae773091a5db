#include "orvan/net/fetcher.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QRegExp>
#include <limits>

#include "orvan/net/async_fetch_job.h"
#include "orvan/net/connection/connection_manager.h"
#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/kmz_cache.h"
#include "orvan/net/unzip_job.h"
#include "orvan/net/url_text.h"
#include "orvan/support/text/text.h"
#include "orvan/support/thread/system.h"

namespace orvan::net {

namespace {

// Guards the making, use and end of Fetcher::s_connection_manager_. After a fetch's start_lock_, before every
// lock of the manager.
SpinLock s_manager_lock;
// True between CloseNetwork() and the next Init(): a fetch that the worker thread starts in between must not
// bring the manager, and with it connections and threads, back to life.
bool s_shut_down ORVAN_GUARDED_BY(s_manager_lock) = false;

struct StatusState {
  unsigned int status;
  FetchState state;
};

// Status words that say by themselves how a fetch ended.
constexpr StatusState kStatusStates[] = {
    {kStatusNoConnection, kFetchNoConnection},
    {kStatusFailed, kFetchInvalidRequest},
    {kStatusAborted, kFetchInvalidRequest},
    {kStatusBadHost, kFetchInvalidServer},
    {kStatusCancelled, kFetchCancelled},
    {kStatusUnspecified, kFetchUnspecified},
    {kStatusUnacceptableType, kFetchUnexpectedType},
};

bool IsHttpSuccess(int code) { return code >= 200 && code <= 299 && code != 204; }

FetchState StateOfOpenError(QFileDevice::FileError error) {
  switch (error) {
    case QFileDevice::NoError:
      return kFetchSuccess;
    case QFileDevice::ReadError:
      return kFetchCannotRead;
    case QFileDevice::OpenError:
      return kFetchCannotOpen;
    default:
      return kFetchUnknownError;
  }
}

// States for which an application's store gets the chance to answer.
bool MayStoreAnswer(FetchState state) {
  return state == kFetchNone ||
         (state >= kFetchUnknownError && state <= kFetchUnsupportedProtocol && state != kFetchNotModified) ||
         (state >= 400 && state <= 505);
}

}  // namespace

FetchStore::~FetchStore() = default;

// Brings a result to the main thread's callback.
class Fetcher::InvokeCallbackJob : public AbstractJob {
 public:
  InvokeCallbackJob(Fetcher* fetcher, FetchState state)
      : AbstractJob(0, QStringLiteral("Fetcher::InvokeCallbackJob")), fetcher_(fetcher), state_(state) {}

  int Run(const IJobContinuator&, IJobContainer*) override {
    if (fetcher_) fetcher_->InvokeCallback(state_);
    return kFinished;
  }
  // A job that is still queued will do nothing.
  void Remove() {
    SetRemoved();
    fetcher_ = nullptr;
  }

 private:
  RefPtr<Fetcher> fetcher_;
  const FetchState state_;
};

FetcherFactory* Fetcher::default_factory_ = nullptr;
FetcherFactory* Fetcher::override_factory_ = nullptr;
ConnectionManager* Fetcher::s_connection_manager_ = nullptr;
WorkerThread* Fetcher::s_unzip_thread_ = nullptr;

FetcherFactory::~FetcherFactory() = default;

Fetcher* FetcherFactory::Create(const QString& url, Fetcher::FetchCallback callback, void* user_data,
                                MemoryManager* manager) {
  return new (manager) Fetcher(url, callback, user_data);
}

RefPtr<Fetcher> Fetcher::fetch(const FetchParams& params, MemoryManager* manager) {
  FetcherFactory* const factory = override_factory_ ? override_factory_ : default_factory_;
  if (!factory) return nullptr;
  RefPtr<Fetcher> fetcher(factory->Create(params.url, params.callback, params.user_data, manager));
  if (!fetcher) return nullptr;
  SpinLockGuard guard(fetcher->start_lock_);
  if (params.async && s_unzip_thread_) {
    fetcher->async_job_ = AsyncFetchJob::CreateAndQueue(fetcher.get(), params, s_unzip_thread_);
  } else {
    fetcher->DoFetch(params);
  }
  return fetcher;
}

Fetcher::Fetcher(const QString& url, FetchCallback callback, void* user_data)
    : SyncMethod("Fetcher", nullptr),
      url_(url.trimmed()),
      user_data_(user_data),
      callback_(callback),
      self_ref_(this) {}

// A fetch whose callback was taken away holds itself no more, and still gets its result: on the main thread,
// which must not find it half destroyed by another one.
void Fetcher::orphaned() const {
  if (System::IsMainThread()) {
    delete this;
  } else {
    MainThreadJobExecutor().ExecuteAsync([this] { delete this; }, "Fetcher::orphaned");
  }
}

Fetcher::~Fetcher() {
  // First of all: in the base class it would be too late for a call that is just beginning.
  Withdraw();
  Fetcher::Stop();
  self_ref_ = nullptr;
  async_job_ = nullptr;
  unzip_job_ = nullptr;
  request_ = nullptr;
}

QByteArray Fetcher::GetByteArray() const { return bytes_; }
const char* Fetcher::GetBytes() const { return bytes_.isNull() ? nullptr : bytes_.constData(); }
int Fetcher::getSize() const { return bytes_.size(); }
FetchState Fetcher::GetState() const { return state_; }
QString Fetcher::GetUrl() const { return url_; }
QString Fetcher::GetLastModified() const { return last_modified_; }
DateTime Fetcher::GetLastModifiedDateTime() const { return last_modified_time_; }
void Fetcher::SetUserData(void* user_data) { user_data_ = user_data; }
void* Fetcher::GetUserData() const { return user_data_; }
QString Fetcher::GetAnchor() const { return anchor_; }
bool Fetcher::IsKmz() const { return is_kmz_; }
void Fetcher::SetByteArray(const QByteArray& bytes) { bytes_ = bytes; }

int Fetcher::GetResponseHeaderCount() const {
  const HttpRequest* const response = request_ ? request_->GetConstHttpRequest() : nullptr;
  return response ? response->GetResponseHeaderCount() : 0;
}

const QString& Fetcher::GetResponseHeader(unsigned long i) const {
  const HttpRequest* const response = request_ ? request_->GetConstHttpRequest() : nullptr;
  if (!response || i > static_cast<unsigned long>(std::numeric_limits<int>::max())) return QStringNull();
  return response->GetResponseHeader(static_cast<int>(i));
}

QString Fetcher::GetContentType() const {
  const HttpRequest* const response = request_ ? request_->GetConstHttpRequest() : nullptr;
  return response ? response->GetContentType() : QString();
}

double Fetcher::GetExpireTime() const {
  const HttpRequest* const response = request_ ? request_->GetConstHttpRequest() : nullptr;
  return response ? response->GetExpireTime() : std::numeric_limits<double>::max();
}

int Fetcher::GetMimeType() const {
  if (mime_type_ != kMimeNone) return mime_type_;
  mime_type_ = is_kmz_ ? kMimeKmz : GetMimeTypeFromContentTypeOrUrl(GetContentType(), url_);
  if (mime_type_ == kMimeNone) mime_type_ = kMimeOther;
  return mime_type_;
}

// --- Start
// ---------------------------------------------------------------------------------------------------------

void Fetcher::DoFetch(const FetchParams& params) {
  SpinLockGuard guard(start_lock_);
  StripAnchor(url_, &anchor_, &url_);
  // What counts is what it leaves in the two strings: false with an archive in them means that one has to be
  // fetched first.
  static_cast<void>(FindInKmz(url_, kmz_url_, kmz_path_));

  mmvector<RequestHeader> headers = params.headers;
  if (MustAsk(params, &headers) && AskNetwork(params, &headers)) return;

  // A local file, a URL that no connection serves, or something that the cache or the store has: the rest
  // follows on the main thread, so that no callback ever comes inside fetch().
  if_modified_since_.ParseHttpDate(params.if_modified_since);
  Timer::ExecuteAsync(*this);
}

// False if the cache or the store will do.
bool Fetcher::MustAsk(const FetchParams& params, mmvector<RequestHeader>* headers) {
  bool ask = true;
  const RefPtr<KmzCacheEntry> entry = params.use_cache ? GetKmzCache()->Find(kmz_url_) : nullptr;
  if (entry) {
    ask = entry->NeedsFetch(!params.if_modified_since.isEmpty());
    if (ask) EditToAcceptKMZ(*headers);
  }
  // Not a slip: the store overrules the cache.
  store_ = params.store;
  return store_ ? !store_->Contains(QUrl(url_, QUrl::TolerantMode)) : ask;
}

// False if the URL is none of the network's.
bool Fetcher::AskNetwork(const FetchParams& params, mmvector<RequestHeader>* headers) {
  fetch_url_ = kmz_url_.isEmpty() ? url_ : kmz_url_;
  const QUrl url = ServerInfo::QUrlFromQString(fetch_url_);
  if (!ServerInfo::SupportedProtocol(url.scheme())) return false;
  const QString host = url.host(QUrl::FullyDecoded);
  if (host.isEmpty()) return false;

  if (!params.if_modified_since.isEmpty()) {
    headers->emplace_back(RequestHeader::kLine,
                          QLatin1String("If-Modified-Since: ") + params.if_modified_since);
  }
  ServerInfo server(host, url.port(-1), ServerInfo::IsSecure(url.scheme()));
  if (!params.user_agent.isEmpty()) server.set_user_agent(params.user_agent);
  server.set_match(params.match_time, params.match_id);
  const NetworkRequest::Info info(TextFromBytes(url.toEncoded(QUrl::FullyEncoded)), *headers,
                                  params.use_cache, this, this);

  SpinLockGuard guard(
      s_manager_lock);  // after start_lock_; keeps Shutdown() from deleting the manager under us
  if (s_shut_down) return false;
  InitConnectionManager();
  request_ = s_connection_manager_->EnqueueRequest(server, info);
  return true;
}

// --- End
// -----------------------------------------------------------------------------------------------------------

void Fetcher::RequestDone(NetworkRequest*, void*) {
  const RefPtr<Fetcher> pin(self_ref_);
  Done();
}

void Fetcher::Execute() {
  // Not a slip: pins only a fetch that still holds itself. After Stop() the last reference may have gone on
  // another thread, and the object waits behind us in this thread's queue for its end: a new reference would
  // end it twice.
  const RefPtr<Fetcher> pin(self_ref_);
  Done();
}

void Fetcher::Done() {
  CancelAsyncJob();
  WaitForStart();
  last_modified_ = QStringNull();
  last_modified_time_ = DateTime();

  FetchState result = kFetchNone;
  if (request_) {
    result = TakeResponse();
  } else if (!fetch_url_.isEmpty()) {
    result = TakeAnythingElse();
  } else if (GetKmzCache()->Find(kmz_url_)) {
    is_kmz_ = true;
    result = kFetchSuccess;
  }
  result = ConsultStore(result);

  if (!callback_) {
    // Not a slip: nobody is told, so nothing is extracted; an archive stays in the result as it came.
    state_ = result;
    RemoveSelfRef();
  } else if (is_kmz_ && result == kFetchSuccess) {
    StartUnzip();
  } else {
    QueueCallback(result);
  }
}

FetchState Fetcher::TakeResponse() {
  const HttpRequest* const response = request_->GetConstHttpRequest();
  if (!response) return kFetchNone;
  const FetchState result = TakeStatus(response->GetResponseStatus(), *response);
  // Not a slip: the date is looked for whatever the result is.
  ReadLastModified(*response);
  return result;
}

FetchState Fetcher::TakeStatus(unsigned int status, const HttpRequest& response) {
  bool success = status == kStatusOk;
  if (!success) {
    for (const StatusState& row : kStatusStates) {
      if (row.status == status) return row.state;
    }
    const int code = static_cast<int>(status & kStatusCodeMask);
    const bool is_http = (status & kStatusFacilityMask) == kStatusHttpFacility;
    success = is_http && IsHttpSuccess(code);
    if (!success && is_http && code >= 100 && code <= 505) return code;
    if (!success && (status >> 30) >= kStatusSeverityError) return kFetchUnknownError;
  }
  const HeapBuffer* const body = response.GetResponseBuffer();
  SetByteArray(body ? body->ToQByteArray() : QByteArray());
  if (body) is_kmz_ = HandleKmz();
  return kFetchSuccess;
}

void Fetcher::ReadLastModified(const HttpRequest& response) {
  for (int i = 0; i < response.GetResponseHeaderCount(); ++i) {
    const QString& header = response.GetResponseHeader(i);
    if (!header.contains(QLatin1String("Last-Modified"))) continue;  // spares most headers the expression
    // Not a slip: QRegExp leaves the blank behind the colon to the capture, and so to GetLastModified(). The
    // date parser and the transport pass over it.
    QRegExp pattern(QStringLiteral("Last-Modified\\s*:\\s*(.*)"));
    if (pattern.indexIn(header) < 0) continue;
    last_modified_ = pattern.cap(1);
    last_modified_time_.ParseHttpDate(last_modified_);
    return;
  }
}

// What the network was not asked for: a local file, a Qt resource, or nothing that can be fetched.
FetchState Fetcher::TakeAnythingElse() {
  const bool is_resource = fetch_url_.startsWith(QLatin1String(":/"));
  const QUrl url(fetch_url_, QUrl::TolerantMode);
  if (IsLocalFileName(fetch_url_) || is_resource) {
    if (url.scheme() == QLatin1String("file")) return TakeLocalFile(url.toLocalFile());
    return TakeLocalFile(is_resource ? fetch_url_ : QDir::toNativeSeparators(fetch_url_));
  }
  // Not a slip: "http" has to start with the scheme, so that an empty one or "htt" counts as HTTP and "https"
  // without a host does not. FetcherTest.EndsWhateverIsNoDocumentInTheStateForIt holds this in place.
  if (!ServerInfo::GetProtocolString(kQOProtocolHttp).startsWith(url.scheme(), Qt::CaseInsensitive)) {
    return kFetchUnsupportedProtocol;
  }
  return url.host(QUrl::FullyDecoded).isEmpty() ? kFetchInvalidServer : kFetchNone;
}

FetchState Fetcher::TakeLocalFile(const QString& file_name) {
  const QFileInfo info(file_name);
  const QDateTime modified = info.lastModified();
  last_modified_time_ = DateTime::FromQDateTime(modified, 0, 0);
  // Not a slip: local time with "GMT" behind it. Sent back as if_modified_since the text is compared with the
  // same local fields, which works in every time zone; converting here would break it in all but one.
  last_modified_ = QLocale::c().toString(modified, QStringLiteral("ddd, dd MMM yyyy hh:mm:ss 'GMT'"));
  if (if_modified_since_.IsSet() && !(last_modified_time_ > if_modified_since_)) return kFetchNotModified;

  // This is the main thread: opening a pipe waits for its writer, and a device may never end.
  if (info.exists() && !info.isFile()) return kFetchCannotOpen;
  if (info.size() > std::numeric_limits<int>::max() - 64)
    return kFetchOutOfMemory;  // more than a QByteArray holds
  QFile file(file_name);
  if (!file.open(QIODevice::ReadOnly)) return StateOfOpenError(file.error());
  SetByteArray(file.readAll());
  is_kmz_ = HandleKmz();
  return kFetchSuccess;
}

FetchState Fetcher::ConsultStore(FetchState result) {
  if (store_) {
    const QUrl url(url_, QUrl::TolerantMode);
    if (MayStoreAnswer(result) && store_->Load(url, &bytes_)) return kFetchSuccess;
    if (result == kFetchSuccess)
      static_cast<void>(store_->Save(url, &bytes_));  // its own business if it fails
  }
  return result == kFetchNone ? kFetchUnknownError : result;
}

// --- Delivery
// ------------------------------------------------------------------------------------------------------

void Fetcher::QueueCallback(FetchState state) {
  ResetCallbackJob(new (HeapManager::GetTransientHeap()) InvokeCallbackJob(this, state));
}

void Fetcher::ResetCallbackJob(InvokeCallbackJob* job) {
  const RefPtr<InvokeCallbackJob> kept(job);
  if (callback_job_) callback_job_->Remove();
  callback_job_ = job;
  if (job) GetDefaultJobScheduler()->AddJob(job);
}

void Fetcher::InvokeCallback(FetchState state) {
  const RefPtr<Fetcher> pin(this);  // the callback may stop the fetch and drop every other reference
  state_ = state;
  if (callback_) callback_(*this);
  SetCallback(nullptr);
}

void Fetcher::SetCallback(FetchCallback callback) {
  callback_ = callback;
  if (callback) return;
  ResetCallbackJob(nullptr);
  RemoveSelfRef();
}

void Fetcher::RemoveSelfRef() {
  RefPtr<Fetcher> last;
  last.swap(self_ref_);  // the object may die with `last`, when its own field is empty already
}

void Fetcher::Stop() {
  CancelAsyncJob();
  WaitForStart();
  if (request_) {
    SpinLockGuard guard(s_manager_lock);
    if (s_connection_manager_) s_connection_manager_->CancelRequest(request_.get());
  }
  CancelUnzipJob();
  store_ = nullptr;
  SetCallback(nullptr);
}

void Fetcher::CancelAsyncJob() {
  RefPtr<AsyncFetchJob> job;
  job.swap(async_job_);
  if (job) job->Cancel();
}

// Waits for an extraction under way.
void Fetcher::CancelUnzipJob() {
  RefPtr<UnzipJob> job;
  job.swap(unzip_job_);
  if (job) job->Cancel();
}

// Returns when the thread that starts this fetch, if it is another one, has assigned everything.
void Fetcher::WaitForStart() { SpinLockGuard guard(start_lock_); }

// --- Start and stop of the library
// ---------------------------------------------------------------------------------

void Fetcher::Init() {
  // Not a slip: an earlier factory is not freed, since somebody may have kept it.
  default_factory_ = new FetcherFactory;
  SpinLockGuard guard(s_manager_lock);
  s_shut_down = false;
}

void Fetcher::InitConnectionManager() {
  SpinLockGuard guard(s_manager_lock);
  if (!s_connection_manager_) s_connection_manager_ = new ConnectionManager(4, 4, true, 60.0, 30, 60000);
}

void Fetcher::CloseNetwork() {
  SpinLockGuard guard(s_manager_lock);
  s_shut_down = true;
}

void Fetcher::Shutdown() {
  CloseNetwork();
  delete default_factory_;
  default_factory_ = nullptr;
  ConnectionManager* manager = nullptr;
  {
    SpinLockGuard guard(s_manager_lock);
    std::swap(manager, s_connection_manager_);
  }
  delete manager;
  GetKmzCache()->CleanupCache();
}

void Fetcher::SetWorkerThread(WorkerThread* worker) { s_unzip_thread_ = worker; }

}  // namespace orvan::net
