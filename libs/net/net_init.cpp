#include "orvan/net/net_init.h"

#include "orvan/net/fetcher.h"
#include "orvan/net/http/http_connection_factory.h"

namespace orvan::lumen {

void InitializeLumenNetworkCachePath(const char*) {}
void InitializeLumenCookieStorePath(const char*) {}
void ClearDiskCache() {}

}  // namespace orvan::lumen

namespace orvan::net {

void Init(const QString& cache_path, const QString& cookie_path) {
  lumen::InitializeLumenNetworkCachePath(cache_path.toUtf8().constData());
  lumen::InitializeLumenCookieStorePath(cookie_path.toUtf8().constData());
  Fetcher::Init();
}

void Shutdown() {
  // First: an asynchronous start may be making a connection at this moment, with the factory that goes next.
  Fetcher::CloseNetwork();
  HttpConnectionFactory::shutdown();
  Fetcher::Shutdown();
}

}  // namespace orvan::net
