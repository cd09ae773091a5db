#pragma once

#include <QList>
#include <QNetworkCookie>
#include <QNetworkCookieJar>
#include <QString>
#include <QUrl>

#include "orvan/net/export.h"
#include "orvan/support/thread/lock.h"

namespace orvan::net {

// Qt's cookie jar behind a lock. Deriving operations call one another, so the lock is one that its owner may
// take again.
class ORVAN_NET_EXPORT QNetworkCookieJarExt : public QNetworkCookieJar {
 public:
  QNetworkCookieJarExt();
  ~QNetworkCookieJarExt() override;

  QList<QNetworkCookie> cookiesForUrl(const QUrl& url) const override;
  bool setCookiesFromUrl(const QList<QNetworkCookie>& cookies, const QUrl& url) override;
  bool insertCookie(const QNetworkCookie& cookie) override;
  bool updateCookie(const QNetworkCookie& cookie) override;
  bool deleteCookie(const QNetworkCookie& cookie) override;
  void ClearAllCookies();

 private:
  mutable SpinLock lock_;  // guards the base class
};

// The jar that every connection of the process shares: what servers set with Set-Cookie, and what requests
// bring along in Cookie lines, with Qt's rules for domain, path and expiry. In memory only. A cookie that a
// caller puts into one request thus goes out with later requests to that host, too.
//
// Besides it there is the connection store of HttpConnection::SetCookie(): names and values by base URL, with
// a text prefix as its only rule, so a cookie for http://host also matches http://host.elsewhere. It is
// copied only into requests whose skip mark the application has taken away
// (HttpRequest::SetSkipCookieUpdate()). Neither store copies from the other.
//
// Threads: any. The jar object belongs to no thread and is never destroyed.
class ORVAN_NET_EXPORT CookieJar {
 public:
  // Never null.
  static QNetworkCookieJarExt* GetQtCookieJar();
  // True in every case, whatever the jar accepted.
  static bool SetCookieFromUrl(const QList<QNetworkCookie>& cookies, const QUrl& url);
  static QList<QNetworkCookie> GetCookiesForUrl(const QUrl& url);
  static void ClearAllCookies();
};

// A Cookie line with the pair added: `existing_line` goes on if it has the form that this function makes, and
// is dropped otherwise. The line ends in CR LF. Names and values are not encoded.
ORVAN_NET_EXPORT QString BuildCookieHeader(const QString& name, const QString& value,
                                           const QString& existing_line);

// Does nothing; an entry point for outside callers.
ORVAN_NET_EXPORT void ClearCookies();

}  // namespace orvan::net
