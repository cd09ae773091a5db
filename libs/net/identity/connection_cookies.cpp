#include <QStringList>

#include "orvan/net/http/http_connection.h"
#include "orvan/net/identity/cookie_jar.h"

namespace orvan::net {

namespace {

// What a Cookie line has around its pairs: "Cookie: " and a line end.
constexpr int kCookieNameLength = 8;
constexpr int kLineEndLength = 2;

using Cookies = mmmap<QString, QString>;  // value by name

// The connection store: plain names and values for each base URL, without domain, path or expiry. Never
// destroyed: worker threads may outlive the static objects.
struct CookieStore {
  SpinLock lock;
  mmmap<QString, Cookies> by_base_url ORVAN_GUARDED_BY(lock);
};

CookieStore& Store() {
  static CookieStore* const store = new CookieStore;
  return *store;
}

QString BaseUrlText(const QString& url) {
  return QUrl(url, QUrl::TolerantMode).toString(QUrl::RemovePath | QUrl::RemoveQuery | QUrl::RemoveFragment);
}

}  // namespace

unsigned int HttpRequest::AddCookieHeader(const QString& name, const QString& value) {
  const bool has_header = GetRequestHeaderCount() > 0;
  QString existing;
  if (has_header && GetRequestHeader(0).startsWith(QLatin1String("Cookie: "))) existing = GetRequestHeader(0);
  const QString line = BuildCookieHeader(name, value, existing);
  // Not a slip: whatever stands at index 0 is overwritten, which on a fresh request is the default Accept
  // line. Inserting instead would move the other lines, and send an Accept line that was never sent beside
  // cookies. CookieLineTest.TakesThePlaceOfTheFirstHeader holds this in place.
  return has_header ? request_headers_.SetHeader(0, line) : request_headers_.AddHeader(line);
}

void HttpConnection::SetCookie(const QString& url, const QString& name, const QString& value) {
  if (url.isEmpty() || name.isEmpty()) return;
  CookieStore& store = Store();
  SpinLockGuard guard(store.lock);
  const QString base_url = BaseUrlText(url);
  SetCookieImpl(base_url, name, value);
  if (!value.isEmpty()) {
    store.by_base_url[base_url][name] = value;
    return;
  }
  // An empty value deletes. The inner map stays, even if this was its last cookie.
  const auto cookies = store.by_base_url.find(base_url);
  if (cookies != store.by_base_url.end()) cookies->second.erase(name);
}

// The place for a second store.
void HttpConnection::SetCookieImpl(const QString&, const QString&, const QString&) {}

void HttpConnection::ClearAllCookies() {
  CookieStore& store = Store();
  SpinLockGuard guard(store.lock);
  store.by_base_url.clear();
}

void HttpConnection::UpdateCookieHeader(HttpRequest* request) {
  if (request->GetSkipCookieUpdate()) return;
  QUrl full_url = MakeBaseUrl();
  full_url.setPath(request->GetURL(), QUrl::DecodedMode);
  const QString url = full_url.toString();
  CookieStore& store = Store();
  SpinLockGuard guard(store.lock);
  for (const auto& [base_url, cookies] : store.by_base_url) {
    // A text prefix is the whole rule: "http://host" also matches "http://hostile". The header says so.
    if (!url.startsWith(base_url)) continue;
    for (const auto& [name, value] : cookies) {
      (void)request->AddCookieHeader(name, value);  // the line is never empty, hence stored
    }
  }
}

void HttpConnection::SetCookiesFromRequestHeader(HttpRequest::Headers* headers) {
  const int count = headers->GetCount();
  int index = 0;
  while (index < count && !headers->GetHeader(index).startsWith(QLatin1String("Cookie:"))) ++index;
  if (index == count) return;
  const QString line = headers->GetHeader(index);
  (void)headers->RemoveHeader(index);  // the index is in range

  // Not a slip: the eight and two characters go whether they are "Cookie: " and a line end or not, and
  // nothing is trimmed, so the second cookie of a line has a blank in front of its name. Callers that compare
  // names know them with it. ConnectionCookiesTest.ReadsALineBack holds this in place.
  QString pairs = line.mid(kCookieNameLength);
  pairs.chop(kLineEndLength);
  const QString base_url = MakeBaseUrl().toString();
  for (const QString& part : pairs.split(QLatin1Char(';'))) {
    const int equals = part.indexOf(QLatin1Char('='));
    if (equals >= 1) {
      SetCookie(base_url, part.left(equals), part.mid(equals + 1));
    } else {
      SetCookie(base_url, part, QString());
    }
  }
}

}  // namespace orvan::net
