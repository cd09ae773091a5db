#include "orvan/net/server/database_info.h"

#include <QUrl>
#include <QUrlQuery>

#include "orvan/net/server/server_info.h"
#include "orvan/net/url_text.h"
#include "orvan/support/text/text.h"

namespace orvan::net {

DatabaseInfo::DatabaseInfo() = default;

DatabaseInfo::DatabaseInfo(const QString& url) { SetUrl(url); }

DatabaseInfo::DatabaseInfo(const QString& url, bool second_flag) : second_flag_(second_flag) { SetUrl(url); }

DatabaseInfo::DatabaseInfo(const QString& url, const QString& label) : label_(label) { SetUrl(url); }

void DatabaseInfo::SetUrl(const QString& url) {
  const QUrl clean = ServerInfo::SanitizeUrl(url, true);
  const bool usable = !url.isEmpty() && clean.isValid();
  url_ = usable ? clean.toString() : QStringNull();
  host_ = usable ? clean.host(QUrl::FullyDecoded) : QStringNull();
  port_ = usable ? clean.port(-1) : 0;
  InitSimpleName();
}

void DatabaseInfo::InitSimpleName() {
  simple_name_ = QStringNull();
  target_ = QStringNull();
  if (url_.isEmpty()) return;
  const QUrl url(url_, QUrl::TolerantMode);
  const QString scheme = url.scheme();
  QString name = host_;
  if (port_ != ServerInfo::GetDefaultPort(scheme)) name += QLatin1Char(':') + QString::number(port_);
  if (scheme != ServerInfo::GetDefaultProtocol()) name = scheme + QLatin1String("://") + name;
  const QString path = GetEncodedPathAndQuery(url);
  if (path != ServerInfo::GetDefaultPath()) name += path;
  simple_name_ = name;
  target_ = QUrlQuery(url).queryItemValue(QStringLiteral("db")).toLower();
}

bool DatabaseInfo::compare(const DatabaseInfo& other) const {
  return ServerInfo::EquivalentUrls(url_, other.url_) && label_ == other.label_;
}

bool DatabaseInfo::IsOrvanTarget() const {
  // Not a slip: no target is one, too, and so is a URL that could not be used.
  // DatabaseInfoTest.ReadsAndComparesUrls holds this in place.
  return target_.isEmpty() || target_.compare(QLatin1String("orvan"), Qt::CaseInsensitive) == 0;
}

}  // namespace orvan::net
