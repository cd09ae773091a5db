#include "orvan/net/server/server_info.h"

#include <QChar>
#include <QStringList>
#include <QUrlQuery>

#include "orvan/net/url_text.h"
#include "orvan/support/memory/containers.h"

namespace orvan::net {
namespace {

using ProtocolMap = mmmap<QString, int>;

// Scheme to default port: the protocols that the library speaks. Never freed, like the default user agent:
// a connection's threads may ask while static destructors run.
const ProtocolMap& Protocols() {
  static const ProtocolMap* const protocols = new ProtocolMap{
      {ServerInfo::kHttpProtocol, ServerInfo::kHttpDefaultPort},
      {ServerInfo::kHttpsProtocol, ServerInfo::kHttpsDefaultPort},
  };
  return *protocols;
}

QString& DefaultUserAgent() {
  static QString* const user_agent = new QString(QStringLiteral("Quorex Orvan"));
  return *user_agent;
}

// `path` as QUrl wants it next to a host.
QString WithLeadingSlash(const QString& path) {
  const bool complete = path.isEmpty() || path.startsWith(QLatin1Char('/'));
  return complete ? path : QLatin1Char('/') + path;
}

// Element `i` of `list`, with the list's own check of the index in release builds too.
const QString& CheckedAt(const QStringList& list, int i) {
  if (i >= list.size()) qt_assert_x("QList<T>::at", "index out of range", __FILE__, __LINE__);
  return list.at(i);
}

// `text` with each escape replaced by one character of the same code.
QString ResolveEscapes(const QString& text) {
  QString resolved;
  resolved.reserve(text.size());
  for (int i = 0; i < text.size(); ++i) {
    bool is_escape = false;
    const int code = text.at(i) == QLatin1Char('%') ? text.mid(i + 1, 2).toInt(&is_escape, 16) : 0;
    if (is_escape) {
      // Not a slip: the bytes of a UTF-8 sequence are not put together, "%C3%A9" becomes two characters.
      // ServerInfoTest.ParsesWhatIsNotQuiteAUrl holds this in place.
      resolved.append(QChar(static_cast<ushort>(code)));
      i += 2;
    } else {
      resolved.append(text.at(i));
    }
  }
  return resolved;
}

}  // namespace

const QString ServerInfo::kHttpProtocol = QStringLiteral("http");
const QString ServerInfo::kHttpsProtocol = QStringLiteral("https");

ServerInfo::ServerInfo() : user_agent_(DefaultUserAgent()) {}

ServerInfo::ServerInfo(const QString& url) : ServerInfo() { SetServerInfo(url); }

ServerInfo::ServerInfo(const QString& host, int port, bool secure) : ServerInfo() {
  SetServerInfo(host, port, secure);
}

ServerInfo::ServerInfo(const QString& host, int port, bool secure, const QString& user_agent)
    : ServerInfo(host, port, secure) {
  user_agent_ = user_agent;
}

ServerInfo::~ServerInfo() = default;

void ServerInfo::SetServerInfo(const QString& host, int port, bool secure) {
  host_ = host;
  secure_ = secure;
  port_ = port >= 1 ? port : GetDefaultHttpPort(secure);
}

void ServerInfo::SetServerInfo(const QString& url) {
  const QUrl clean = SanitizeUrl(url, true);
  if (!clean.isValid()) return;
  SetServerInfo(clean.host(QUrl::FullyDecoded), clean.port(-1), IsSecure(clean.scheme()));
}

bool ServerInfo::operator==(const ServerInfo& other) const {
  return port_ == other.port_ && secure_ == other.secure_ && match_id_ == other.match_id_ &&
         match_time_ == other.match_time_ && host_ == other.host_ && user_agent_ == other.user_agent_;
}

void ServerInfo::SetDefaultUserAgent(const QString& user_agent) {
  if (!user_agent.isNull()) DefaultUserAgent() = user_agent;
}

int ServerInfo::GetDefaultHttpPort(bool secure) { return secure ? kHttpsDefaultPort : kHttpDefaultPort; }

QString ServerInfo::GetDefaultPath() { return QStringLiteral("/"); }

QString ServerInfo::GetDefaultProtocol() { return kHttpProtocol; }

int ServerInfo::GetDefaultPort(const QString& scheme) {
  const auto found = Protocols().find(scheme);
  return found == Protocols().end() ? 0 : found->second;
}

bool ServerInfo::SupportedProtocol(const QString& scheme) { return Protocols().count(scheme) != 0; }

QString ServerInfo::GetProtocolString(int protocol) {
  switch (protocol) {
    case kQOProtocolHttp:
      return kHttpProtocol;
    case kQOProtocolHttps:
      return kHttpsProtocol;
    default:
      return QString();
  }
}

QString ServerInfo::GetHttpProtocolString(bool secure) {
  return GetProtocolString(secure ? kQOProtocolHttps : kQOProtocolHttp);
}

// Not a slip: IsSecure() keeps to the case, IsHttp() does not. What comes from QUrl::scheme() is lower case
// already. ServerInfoTest.ProtocolsKeepToTheirCaseRules holds this in place.
bool ServerInfo::IsSecure(const QString& scheme) { return scheme == kHttpsProtocol; }

bool ServerInfo::IsHttp(const QString& scheme, bool https_too) {
  return scheme.compare(kHttpProtocol, Qt::CaseInsensitive) == 0 ||
         (https_too && scheme.compare(kHttpsProtocol, Qt::CaseInsensitive) == 0);
}

QUrl ServerInfo::SanitizeUrl(const QString& text, bool add_slash) {
  const bool lacks_scheme = !text.isEmpty() && !text.contains(QLatin1String("://"));
  QUrl url;
  url.setUrl(lacks_scheme ? kHttpProtocol + QLatin1String("://") + text : text, QUrl::TolerantMode);
  if (!SupportedProtocol(url.scheme())) return QUrl();

  // The default port is written out, so that URLs with and without it compare equal.
  if (url.port(-1) == -1) url.setPort(GetDefaultPort(url.scheme()));
  if (add_slash) {
    const QString path = url.path(QUrl::FullyDecoded);
    if (!path.endsWith(QLatin1Char('/'))) url.setPath(path + QLatin1Char('/'), QUrl::DecodedMode);
  }
  return url;
}

QUrl ServerInfo::QUrlFromQString(const QString& text) {
  QUrl strict;
  strict.setUrl(text, QUrl::StrictMode);
  if (strict.isValid()) return strict;
  if (!text.contains(QLatin1Char('%'))) return QUrl(text, QUrl::TolerantMode);
  return QUrl(ResolveEscapes(text), QUrl::TolerantMode);
}

QString ServerInfo::BuildUrl(const QString& base, const QString& relative, bool path_only) {
  return AssembleUrls(SanitizeUrl(base, false), QUrl(relative, QUrl::TolerantMode), path_only);
}

QString ServerInfo::BuildUrlFromSanitized(const QString& base, const QString& relative) {
  // Not a slip: without a query nothing is resolved, not even "..". Callers hand in bases that end where
  // `relative` begins. ServerInfoTest.BuildsUrlsFromTwoParts holds this in place.
  if (!base.contains(QLatin1Char('?'))) return base + relative;
  return BuildUrl(base, relative, false);
}

QString ServerInfo::BuildUrlFromHostAndPort(const QString& host, int port) {
  // Both places at once: with one arg() after the other, a "%2" in the host would take the port.
  const QString text = QStringLiteral("http://%1:%2/").arg(host, QString::number(port));
  return SanitizeUrl(text, true).toString();
}

QUrl ServerInfo::BuildUrlWithQueries(const QString& host, int port, const QString& path, bool secure) {
  QUrl url;
  url.setHost(host, QUrl::DecodedMode);
  url.setPort(port);
  url.setScheme(secure ? kHttpsProtocol : kHttpProtocol);
  if (!path.contains(QLatin1Char('?'))) {
    url.setPath(WithLeadingSlash(path), QUrl::DecodedMode);
    return url;
  }

  // Not a slip: what follows a second "?", or a second "=" of an item, is left out.
  const QStringList parts = path.split(QLatin1Char('?'), Qt::KeepEmptyParts);
  url.setPath(WithLeadingSlash(parts.at(0)), QUrl::DecodedMode);
  QUrlQuery query(url);
  const QStringList items = parts.at(1).split(QLatin1Char('&'), Qt::KeepEmptyParts);
  for (const QString& item : items) {
    const QStringList pieces = item.split(QLatin1Char('='), Qt::KeepEmptyParts);
    query.addQueryItem(pieces.at(0), CheckedAt(pieces, 1));
  }
  url.setQuery(query);
  return url;
}

QString ServerInfo::AssembleUrls(const QUrl& base, const QUrl& relative, bool path_only) {
  const QUrl url = ResolveUrlPreserveQuery(base, relative);
  if (!url.isValid()) return QString();
  return path_only ? GetEncodedPathAndQuery(url) : url.toString();
}

// Not a slip: two unsupported URLs are equivalent, whatever they are, since both sanitize to the empty one.
bool ServerInfo::EquivalentServerUrls(const QString& a, const QString& b) {
  return SanitizeUrl(a, true) == SanitizeUrl(b, true);
}

bool ServerInfo::EquivalentUrls(const QString& a, const QString& b) {
  return SanitizeUrl(a, false) == SanitizeUrl(b, false);
}

void ServerInfo::InitProtocolMap() { (void)Protocols(); }

}  // namespace orvan::net
