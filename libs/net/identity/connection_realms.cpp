#include "orvan/net/http/http_connection.h"
#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/identity/auth_cache.h"

namespace orvan::net {

bool HttpConnection::prompt_user_for_auth_info_ = true;

bool HttpConnection::GetRealmAuthInfo(const QString& realm, QString* username, QString* password) const {
  AuthCache::Credentials credentials;
  if (!HttpConnectionFactory::GetOrCreateAuthCache()->GetAuthInfo({host_, realm}, &credentials)) return false;
  *username = credentials.first;
  *password = credentials.second;
  return true;
}

void HttpConnection::SetRealmAuthInfo(const QString& realm, const QString& username,
                                      const QString& password) const {
  HttpConnectionFactory::GetOrCreateAuthCache()->SetAuthInfo({host_, realm}, {username, password});
}

void HttpConnection::ClearRealmAuthInfo(const QString& realm) const {
  HttpConnectionFactory::GetOrCreateAuthCache()->ClearAuthInfo({host_, realm});
}

}  // namespace orvan::net
