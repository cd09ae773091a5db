#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QUrl>
#include <functional>

#include "orvan/net/export.h"
#include "orvan/net/http/http_types.h"
#include "orvan/support/memory/containers.h"
#include "orvan/support/memory/ref_ptr.h"
#include "orvan/support/memory/referent.h"

namespace orvan::net {

// The lines of a response's head, whole and in their order.
//
// Ownership: counted, and the count is not atomic: the copies of one ResponseInfo belong on one thread.
class ORVAN_NET_EXPORT SharedHeaders : public Referent {
 public:
  SharedHeaders();
  ~SharedHeaders() override;

  mmvector<QString> headers;
};

// What came back, but for the body. A value.
struct ResponseInfo {
  unsigned int request_id = 0;
  unsigned int status = 0;        // a status word, see http_status.h
  RefPtr<SharedHeaders> headers;  // null unless they were asked for and there are any
};

// What to ask for. Names and values count up to their first NUL, and are added in the order of the names.
// Cookies make up one line, which takes the place of the first line there is, as AddCookieHeader() says: of
// Accept with NetworkManager, of the first default line or header with CmNetworkManager.
struct RequestOptions {
  HttpMethod method = kHttpGet;
  QMap<QByteArray, QByteArray> headers;
  QMap<QByteArray, QByteArray> cookies;
  QByteArray post_data;  // empty for no body
  bool keep_response_headers = false;
  bool use_cache = true;                 // CmNetworkManager only
  std::function<void()> extra_callback;  // carried along, called by nobody
  unsigned int request_id = 0;           // 0 for the next number of the manager's own
};

// Requests by URL and callable: the simple interface of the library.
//
// Threads:   those of the implementation: NetworkManager on the main thread, CmNetworkManager on any.
// Ownership: a request keeps a copy of its callable until it is over or cancelled.
// Errors:    a failed exchange is delivered like any other, with its status word and whatever body came.
class ORVAN_NET_EXPORT AbstractNetworkManager {
 public:
  // Takes the body and the rest of the response, once for each request that is not cancelled. It must not be
  // empty: the process ends by abort() when an empty one is to be called.
  using ResponseCallback = std::function<void(QByteArray, ResponseInfo)>;

  virtual ~AbstractNetworkManager();

  // Starts a request and returns its id, or 0 if none could be made; then nothing is delivered. A given id is
  // taken without a look at those in use: the caller keeps them apart.
  virtual unsigned int Request(const QUrl& url, const RequestOptions& options, ResponseCallback callback) = 0;
  // Request(), for callers that will not cancel. The callable runs all the same, unless no request was made.
  virtual void RequestAndIgnore(const QUrl& url, const RequestOptions& options, ResponseCallback callback);
  // Request() with the defaults of RequestOptions.
  virtual unsigned int Get(const QUrl& url, ResponseCallback callback);
  // No delivery comes afterwards. An id that is over, or none, does nothing.
  virtual void Cancel(unsigned int request_id) = 0;
};

}  // namespace orvan::net
