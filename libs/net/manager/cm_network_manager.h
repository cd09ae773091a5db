#pragma once

#include <QMap>
#include <memory>

#include "orvan/net/connection/network_request.h"
#include "orvan/net/export.h"
#include "orvan/net/manager/abstract_network_manager.h"
#include "orvan/support/memory/containers.h"
#include "orvan/support/thread/lock.h"

namespace orvan::net {

class ConnectionManager;
class RequestIds;

// The shared way: requests go through a ConnectionManager of this object's own, with four connections at
// most, and with default header lines. The Accept line that a request starts with goes.
//
// Threads:   Request() and Cancel() on any thread, also within a callable. Init() before them. Callables run
//            on the main thread if completions are deferred, else on the callback thread of a connection;
//            those that tell of a refused request always on the main thread.
//            Cancel() on another thread than that of the callable: if completions are deferred, a delivery
//            that has begun goes on; otherwise Cancel() waits for it, so that callables of two requests must
//            not cancel each other.
// Ownership: the destructor waits for callables that run on other threads, and drops the others unheard. A
//            callable that runs on the main thread may destroy the manager.
// Errors:    Request() returns 0 before Init(); all else arrives as a status word, kStatusFailed if the
//            connection factory makes no connection.
class ORVAN_NET_EXPORT CmNetworkManager : public AbstractNetworkManager, private NetworkRequest::Callback {
 public:
  CmNetworkManager();
  ~CmNetworkManager() override;
  CmNetworkManager(const CmNetworkManager&) = delete;
  CmNetworkManager& operator=(const CmNetworkManager&) = delete;

  // `headers`: whole lines, sent with each request before its own; of two with one name the transport sends
  // the later. Again makes a new ConnectionManager, drops requests in flight unheard, and adds to the lines.
  void Init(const mmvector<QString>& headers, bool deferred_completion);

  unsigned int Request(const QUrl& url, const RequestOptions& options, ResponseCallback callback) override;
  void Cancel(unsigned int request_id) override;

  // A whole header line, given as such or by its two halves.
  static RequestHeader GetNetHeaderFromString(const QString& line);
  static RequestHeader GetNetHeaderFromPair(const QString& name, const QString& value);

 private:
  struct ORVAN_NET_HIDDEN Requests;

  void RequestDone(NetworkRequest* request, void* user_data) override;
  void SetUpHeaders(const QMap<QByteArray, QByteArray>& headers, const QMap<QByteArray, QByteArray>& cookies,
                    mmvector<RequestHeader>* result) const;

  mmvector<RequestHeader> default_headers_;
  SpinLock id_lock_;  // a leaf
  const std::unique_ptr<RequestIds> ids_ ORVAN_PT_GUARDED_BY(id_lock_);
  const std::shared_ptr<Requests> requests_;  // also held by a completion under way
  // Null until Init(). Last, and thus destroyed first: it waits for callables, which may use all of the
  // above.
  std::unique_ptr<ConnectionManager> connection_manager_;
};

}  // namespace orvan::net
