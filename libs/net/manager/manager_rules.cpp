#include "orvan/net/manager/manager_rules.h"

#include <cstdlib>

#include "orvan/net/http/http_status.h"
#include "orvan/support/memory/memory.h"

namespace orvan::net {

namespace {

RefPtr<SharedHeaders> CopyHeaders(const HttpRequest& request) {
  const int count = request.GetResponseHeaderCount();
  if (count == 0) return nullptr;
  MemoryManager* const heap = HeapManager::GetTransientHeap();
  RefPtr<SharedHeaders> shared(new (heap) SharedHeaders);
  shared->headers = mmvector<QString>(mmallocator<QString>(heap));
  shared->headers.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) shared->headers.push_back(request.GetResponseHeader(i));
  return shared;
}

}  // namespace

QString MakeHeaderLine(const QString& name, const QString& value) {
  return name + QLatin1String(": ") + value;
}

void DeliverResponse(const HttpRequest* request, const QByteArray& body, unsigned int id,
                     bool keep_response_headers, const AbstractNetworkManager::ResponseCallback& callback) {
  if (!callback) std::abort();  // and not an exception, which would unwind through Qt
  ResponseInfo info;
  info.request_id = id;
  // Without a request there was no connection to make one: a factory of the application's gave none.
  info.status = request ? request->GetResponseStatus() : kStatusFailed;
  if (request && keep_response_headers) info.headers = CopyHeaders(*request);
  callback(body, info);
}

}  // namespace orvan::net
