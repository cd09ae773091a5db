#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

#include "orvan/net/connection/network_request.h"
#include "orvan/net/content_type.h"
#include "orvan/net/export.h"
#include "orvan/net/http/http_status.h"
#include "orvan/net/http/http_types.h"
#include "orvan/support/job/job.h"
#include "orvan/support/job/timer.h"
#include "orvan/support/memory/containers.h"
#include "orvan/support/memory/ref_ptr.h"
#include "orvan/support/memory/referent.h"
#include "orvan/support/text/date_time.h"
#include "orvan/support/thread/lock.h"

namespace orvan {
class WorkerThread;
}

namespace orvan::net {

class AsyncFetchJob;
class ConnectionManager;
class FetcherFactory;
class FinishKmzJob;
class KmzCache;
class UnzipJob;

// A store of fetched bytes that the application keeps. Implemented by the application.
//
// Threads:   Contains() on the thread that starts the fetch: the worker thread, if `async` is set. Load() and
//            Save() on the main thread.
// Ownership: the application's. It outlives the fetches that use it, or stops them.
class ORVAN_NET_EXPORT FetchStore {
 public:
  virtual ~FetchStore();
  // Fills `bytes` with what the store has for `url`. True on success, which makes the fetch one.
  virtual bool Load(const QUrl& url, QByteArray* bytes) = 0;
  // The bytes just fetched. The result is ignored.
  virtual bool Save(const QUrl& url, QByteArray* bytes) = 0;
  // True if the store can answer, and the network is not to be asked.
  virtual bool Contains(const QUrl& url) = 0;
};

// One download. Fetcher::fetch() takes a URL, a local path or a Qt resource path (":/..."), and calls back
// once, on the main thread, when the bytes are there or the fetch has failed.
//
// Archives:  a URL or path may run through a KMZ archive ("http://server/a.kmz/images/b.png"), or be that of
//            an archive that was fetched before, with a relative path behind it. The result is that file; for
//            the archive itself, its main document. Archives stay in the KmzCache.
// Threads:   fetch() on any thread; Stop(), SetCallback() and the accessors on the main thread, and no result
//            is read before the callback, which comes on the main thread, never inside fetch(). References
//            may be dropped on any thread.
// Ownership: counted. An unfinished fetch keeps itself alive: a caller may drop its RefPtr at once. The
//            result stays readable for as long as somebody holds a RefPtr.
// Errors:    every failure arrives as the final state, through the callback; docs/errors.md tells them all.
// Life:      made by fetch(), runs once, ends by callback or by Stop().
class ORVAN_NET_EXPORT Fetcher : public AtomicReferent,
                                 protected NetworkRequest::Callback,
                                 protected SyncMethod {
 public:
  using FetchCallback = void (*)(Fetcher&);

  // What to fetch, and how. The caller keeps it; fetch() copies what it needs.
  struct FetchParams {
    QString url;                // a URL or a path; may carry an anchor
    QString user_agent;         // replaces the default one if not empty
    QString if_modified_since;  // an HTTP date; sent along, or compared with a local file's date
    mmvector<RequestHeader> headers;
    FetchCallback callback = nullptr;
    void* user_data = nullptr;
    double match_time = 0.0;  // go into ServerInfo: fetches with other values use other connections
    int match_id = 0;
    bool use_cache = true;
    bool async = false;           // start on the worker thread, if one is set
    FetchStore* store = nullptr;  // not owned
  };

  // Starts a fetch, between net::Init() and net::Shutdown(); null before and after, when there is no factory,
  // and then nothing calls back. Does not wait for the network. `manager` is the domain of the object, null
  // for the default one.
  static RefPtr<Fetcher> fetch(const FetchParams& params, MemoryManager* manager);

  Fetcher(const QString& url, FetchCallback callback, void* user_data);
  // A subclass that overrides DoFetch() calls Stop() first thing in its own destructor.
  ~Fetcher() override;
  // The last reference may go on any thread: the object then dies on the main thread, where its results are
  // made.
  void orphaned() const override;

  // What came; nothing unless the state is kFetchSuccess. The pointer may be null, and is good until the
  // object goes.
  virtual QByteArray GetByteArray() const;
  virtual const char* GetBytes() const;
  virtual int getSize() const;
  virtual FetchState GetState() const;
  virtual QString GetUrl() const;           // without its anchor, once the fetch has begun
  virtual QString GetLastModified() const;  // as the server or the file told it
  virtual DateTime GetLastModifiedDateTime() const;
  virtual void SetUserData(void* user_data);
  virtual void* GetUserData() const;
  // Ends the fetch without a callback. What has been reached stays as it is.
  virtual void Stop();
  virtual int GetResponseHeaderCount() const;
  virtual const QString& GetResponseHeader(unsigned long i) const;  // a null string out of range
  virtual QString GetContentType() const;
  virtual int GetMimeType() const;  // kMimeOther ... kMimeGif
  virtual QString GetAnchor() const;
  // Replaces the callback; null withdraws it for good.
  virtual void SetCallback(FetchCallback callback);
  virtual double GetExpireTime() const;  // the largest finite double if nobody said otherwise
  virtual bool IsKmz() const;            // what came was an archive, or a file out of one

  // The steps of a fetch, for subclasses made by an override factory. Each is called once.
  virtual void Done();
  virtual void DoFetch(const FetchParams& params);
  void RequestDone(NetworkRequest* request, void* user_data) override;
  void Execute() override;

  // By the content type, or if that is empty by the ending of the URL; kMimeNone if neither tells. Any
  // thread, as the next three.
  static int GetMimeTypeFromContentTypeOrUrl(const QString& content_type, const QString& url);
  // Adds the archive's media type to each list of acceptable types.
  static void EditToAcceptKMZ(mmvector<RequestHeader>& headers);
  // Whether the bytes begin like an archive.
  static bool IsKmzData(const unsigned char* data, int size);
  // The plain form of a file URL or an escaped URL.
  static QString SanitizeUrlString(const QString& url);

  // Splits `url`, which has no anchor any more, into an archive and a path in it. True if the cache can serve
  // that. False with `kmz_url` set: the archive has to be fetched.
  static bool FindInKmz(const QString& url, QString& kmz_url, QString& kmz_path);
  // A file out of a cached archive; empty if there is none. Extracts on the calling thread; any thread.
  static QByteArray GetBytesFromKmz(const QString& kmz_url, const QString& kmz_path);
  // The same, into a file: complete, or false and no file.
  static bool WriteBytesFromKmzToFile(const QString& kmz_url, const QString& kmz_path,
                                      const QString& file_name);
  // The one cache; never null, and lives as long as the process.
  static KmzCache* GetKmzCache();

  // Start and stop; called by net::Init() and net::Shutdown().
  static void Init();
  static void Shutdown();
  // Waits for a request that is just being handed over, and lets no fetch ask the network until Init().
  static void CloseNetwork();
  static void InitConnectionManager();
  // Lends the worker thread for asynchronous starts and extraction; null takes it back. Not owned; before it
  // goes, the fetches that were started with it have to have ended, or been stopped.
  static void SetWorkerThread(WorkerThread* worker);

  // Written at start and stop, on the main thread.
  static FetcherFactory* default_factory_;
  static FetcherFactory* override_factory_;         // used instead if the application sets it; not owned
  static ConnectionManager* s_connection_manager_;  // the one of all fetches; made by the first
  static WorkerThread* s_unzip_thread_;

 protected:
  void SetByteArray(const QByteArray& bytes);

 private:
  class ORVAN_NET_HIDDEN InvokeCallbackJob;
  friend class AsyncFetchJob;
  friend class FinishKmzJob;
  friend class UnzipJob;

  bool MustAsk(const FetchParams& params, mmvector<RequestHeader>* headers) ORVAN_REQUIRES(start_lock_);
  bool AskNetwork(const FetchParams& params, mmvector<RequestHeader>* headers) ORVAN_REQUIRES(start_lock_);
  FetchState TakeResponse();
  FetchState TakeStatus(unsigned int status, const HttpRequest& response);
  void ReadLastModified(const HttpRequest& response);
  FetchState TakeLocalFile(const QString& file_name);
  FetchState TakeAnythingElse();
  FetchState ConsultStore(FetchState result);
  bool HandleKmz();
  void StartUnzip();
  QByteArray UnzipKmz();
  void FinishKmz(const QByteArray& bytes);
  void CancelAsyncJob();
  void CancelUnzipJob();
  void WaitForStart();
  void QueueCallback(FetchState state);
  void ResetCallbackJob(InvokeCallbackJob* job);
  void InvokeCallback(FetchState state);
  void RemoveSelfRef();

  // Held by fetch() and by all of DoFetch(), so that the end of a fetch, which may come on the main thread
  // while another thread is still starting it, finds request_ and async_job_ assigned. Before every other
  // lock; the end takes and releases it at once, and nobody cancels anything while holding it.
  SpinLock start_lock_;

  // Everything below is written by the thread that starts the fetch under start_lock_, and belongs to the
  // main thread from then on.
  RefPtr<InvokeCallbackJob> callback_job_;  // the delivery that is queued
  QString url_;
  QString kmz_url_;    // the archive that is read, if any
  QString kmz_path_;   // the file in it; empty for its main document
  QString fetch_url_;  // what was asked for; empty if nothing was
  QString anchor_;
  QString last_modified_;
  DateTime last_modified_time_;
  DateTime if_modified_since_;  // only set if the network is not asked
  void* user_data_;             // not owned
  FetchState state_ = kFetchFetching;
  QByteArray bytes_;
  bool is_kmz_ = false;
  FetchCallback callback_;
  RefPtr<NetworkRequest> request_;  // stays when the fetch has ended: the response's accessors read it
  RefPtr<UnzipJob> unzip_job_;
  RefPtr<AsyncFetchJob> async_job_;
  RefPtr<Fetcher> self_ref_;  // let go of by the end of the fetch, or by Stop()
  mutable int mime_type_ = kMimeNone;
  FetchStore* store_ = nullptr;  // not owned
};

// Makes the objects of all fetches, on the threads that call Fetcher::fetch(). See override_factory_.
class ORVAN_NET_EXPORT FetcherFactory {
 public:
  virtual ~FetcherFactory();
  // A new object, made in the domain `manager`. After null fetch() returns null, and nothing calls back.
  virtual Fetcher* Create(const QString& url, Fetcher::FetchCallback callback, void* user_data,
                          MemoryManager* manager);
};

}  // namespace orvan::net
