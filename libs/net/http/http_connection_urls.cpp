#include "orvan/net/http/http_connection.h"
#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/server/server_info.h"

namespace orvan::net {

// The switch is asked at each use, so turning it on reaches connections that exist already.
bool HttpConnection::ForcedHttps() const {
  return is_insecure_quorex_conn_ && HttpConnectionFactory::GetUseSecureConnectionsForQuorex();
}

bool HttpConnection::IsInsecureQuorexConn(const QString& host, bool secure, int port) {
  if (secure || port != ServerInfo::GetDefaultHttpPort(false)) return false;
  return HttpConnectionFactory::IsHostInSecureDomains(host);
}

QString HttpConnection::MakeBaseUrlString() const {
  const bool forced = ForcedHttps();
  const QString scheme = ServerInfo::GetHttpProtocolString(secure_ || forced);
  if (port_ == ServerInfo::GetDefaultHttpPort(secure_) || forced) {
    return QStringLiteral("%1://%2").arg(scheme, host_);
  }
  return QStringLiteral("%1://%2:%3").arg(scheme, host_, QString::number(port_));
}

QUrl HttpConnection::MakeBaseUrl() const { return QUrl(MakeBaseUrlString(), QUrl::TolerantMode); }

QUrl HttpConnection::MakeFullUrl(const HttpRequest& request) const {
  return QUrl::fromEncoded(MakeBaseUrlString().toLatin1() + request.GetURL().toLatin1(), QUrl::TolerantMode);
}

}  // namespace orvan::net
