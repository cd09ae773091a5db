#include "orvan/net/identity/auth_cache.h"

#include <QRegExp>
#include <boost/unordered_map.hpp>

#include "orvan/net/http/http_connection_factory.h"
#include "orvan/support/memory/hash.h"

namespace orvan::net {

struct AuthCache::Tables {
  boost::unordered_map<Key, Credentials, StringPairHash> by_realm;
  boost::unordered_map<QString, Credentials, StlHashAdapter<QString>> by_host;
};

AuthCache::AuthCache(HttpConnectionFactory* factory)
    : tables_(std::make_unique<Tables>()), factory_(factory) {}

AuthCache::~AuthCache() = default;

bool AuthCache::GetAuthInfo(const Key& key, Credentials* result) const {
  SpinLockGuard guard(lock_);
  const auto realm = tables_->by_realm.find(key);
  if (realm != tables_->by_realm.end()) {
    *result = realm->second;
    return true;
  }
  const auto host = tables_->by_host.find(key.first);
  if (host == tables_->by_host.end()) return false;
  *result = host->second;
  return true;
}

void AuthCache::SetAuthInfo(const Key& key, const Credentials& credentials) {
  SpinLockGuard guard(lock_);
  tables_->by_realm[key] = credentials;
}

void AuthCache::SetHostAuthInfo(const QString& host, const QString& username, const QString& password) {
  SpinLockGuard guard(lock_);
  tables_->by_host[host] = Credentials(username, password);
}

void AuthCache::ClearAuthInfo(const Key& key) {
  SpinLockGuard guard(lock_);
  tables_->by_realm.erase(key);
  // Not a slip: a realm takes the entry of its host along. If that stayed, the credentials that were just
  // refused for the realm could be answered again from there.
  tables_->by_host.erase(key.first);
}

void AuthCache::Clear() {
  SpinLockGuard guard(lock_);
  tables_->by_realm.clear();
  tables_->by_host.clear();
  if (factory_) factory_->ClearConnectionCredentials();
}

void AuthCache::ForgetFactory(const HttpConnectionFactory* factory) {
  SpinLockGuard guard(lock_);
  if (factory_ == factory) factory_ = nullptr;
}

QString AuthCache::ParseRealmFromHeader(const QString& header) {
  if (!header.contains(QLatin1String("WWW-Authenticate"))) return QString();
  QRegExp pattern(QStringLiteral("realm\\s*=\\s*\"([^\"]+)\""));  // made per call: matching changes it
  return pattern.indexIn(header) < 0 ? QString() : pattern.cap(1);
}

}  // namespace orvan::net
