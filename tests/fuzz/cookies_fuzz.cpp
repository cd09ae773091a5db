#include <map>

#include "orvan/net/http/qnetwork/header_lines.h"
#include "orvan/net/identity/cookie_jar.h"
#include "orvan/net/server/server_info.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/scripted_transport.h"

void Fuzz(const QByteArray&, const QString& text) {
  static auto* const transport = new test::ScriptedTransport;
  static const ServerInfo server(QStringLiteral("http://host/"));
  static HttpConnection* const connection = transport->create(&server, nullptr, 0, 0, 0);
  // The connection's store: a line that is read, and written out again.
  HttpRequest* const request = connection->CreateRequest(kHttpGet, QStringLiteral("/"), nullptr);
  HttpRequest::Headers& headers = request->GetRequestHeaders();
  (void)headers.SetHeader(0, "Cookie: " + text + "\r\n");
  HttpConnection::ClearAllCookies();
  connection->SetCookiesFromRequestHeader(&headers);
  std::map<QString, QString> store;
  for (const QString& part : text.split(';')) {
    const int equals = part.indexOf('=');
    const QString name = equals > 0 ? part.left(equals) : part;
    store[name] = equals > 0 ? part.mid(equals + 1) : QString();
    if (store[name].isEmpty()) store.erase(name);
  }
  QString expected;
  for (const auto& [name, value] : store) expected = BuildCookieHeader(name, value, expected);
  request->SetSkipCookieUpdate(false);
  connection->UpdateCookieHeader(request);
  FUZZ_CHECK(headers.GetCount() == (store.empty() ? 0 : 1) && headers.GetHeader(0) == expected);
  request->unref();

  // What goes out: no end of a line gets through to the wire.
  QNetworkRequest wire;
  QList<QNetworkCookie> pairs;
  for (const QString& header : text.split('\f')) AddHeaderLine(header, &wire, &pairs);
  for (const QByteArray& name : wire.rawHeaderList()) {
    const QByteArray whole = name + wire.rawHeader(name);
    for (const char end : {'\r', '\n', '\0'}) FUZZ_CHECK(!whole.contains(end));
  }
}
