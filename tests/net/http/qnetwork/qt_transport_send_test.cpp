// What goes out: header lines, bodies, cookies, the upgrade for secure hosts.

#include <QNetworkProxy>

#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/identity/cookie_jar.h"
#include "tests/net/http/qnetwork/transport_probe.h"
#include "tests/support/loopback_server.h"

namespace orvan::net::test {
namespace {

TEST(QtTransportSendTest, HeaderLinesGoOutAsOneLineEach) {
  const struct {
    const char* says;
    const char* line;   // up to its end; "\\0" stands for a NUL
    const char* name;   // to look for on the wire
    const char* value;  // null: no such header
  } rows[] = {
      {"white space around name and value goes", "  X-Trim \t:  a b  ", "X-Trim", "a b"},
      {"the first colon splits", "X-Two: a:b: c", "X-Two", "a:b: c"},
      {"an empty value goes out", "X-Empty:", "X-Empty", ""},
      {"Latin-1 goes out byte for byte", "X-Latin: \xC3\xA9", "X-Latin", "\xE9"},
      {"a line without a colon is skipped", "X-Nothing", "X-Nothing", nullptr},
      {"a later line of a name wins, in any case", "accept: image/png", "Accept", "image/png"},
      {"a line end in a value begins no header", "X-Value: a\r\nX-Forged-A: b", "X-Forged-A", nullptr},
      {"each run of line ends and NULs in a value is one blank", "X-Runs: a\r\n\\0b\n\rc", "X-Runs", "a b c"},
      {"a pair's line end goes with the white space", "X-Tail: a\r\n", "X-Tail", "a"},
      {"a name with a line end skips the line", "X-Forged-B: a\r\nX-Forged-C", "X-Forged-C", nullptr},
      {"so does one in front of the colon", "X-Forged-D\r\nX-Forged-E: a", "X-Forged-E", nullptr},
      {"so does a name that is no token", "X Forged: a", "X Forged", nullptr},
      {"so does an empty name", ": a", "", nullptr},
  };
  LoopbackServer server;
  server.On("/", Ok("ok"));
  Transport transport(server.port());
  Exchange exchange(transport, "/");
  for (const auto& row : rows) {
    exchange.Line(QString::fromUtf8(row.line).replace("\\0", QChar(0)));
  }
  ASSERT_TRUE(exchange.Run());
  const RecordedRequest sent = server.LastRequest("/");
  for (const auto& row : rows) {
    SCOPED_TRACE(row.says);
    EXPECT_EQ(sent.HasHeader(row.name), row.value != nullptr);
    EXPECT_EQ(sent.Header(row.name), row.value ? row.value : "");
  }
  EXPECT_FALSE(sent.HasHeader("Content-Type"));
  EXPECT_EQ(sent.Header("User-Agent"), "Mozilla/5.0") << "Qt's own, for want of another";
}

TEST(QtTransportSendTest, TheConnectionsUserAgentOverrulesTheLine) {
  LoopbackServer server;
  server.On("/", Ok("ok"));
  Transport transport(server.port(), "127.0.0.1", false, "Browser/1\r\nX-Forged: a");
  Exchange exchange(transport, "/");
  ASSERT_TRUE(exchange.Line("User-Agent: other").Run());
  EXPECT_EQ(server.LastRequest("/").Headers("User-Agent"), std::vector<std::string>{"Browser/1 X-Forged: a"});
  EXPECT_FALSE(server.LastRequest("/").HasHeader("X-Forged"));
}

TEST(QtTransportSendTest, OnlyPostAndPutSendABody) {
  const struct {
    HttpMethod method;
    const char *body, *verb, *sent, *length;  // null: no buffer; of the Content-Length line, if there is one
  } rows[] = {
      {kHttpGet, "ignored", "GET", "", ""},       {kHttpPost, "a=1", "POST", "a=1", "3"},
      {kHttpPost, nullptr, "POST", "", "0"},      {kHttpPut, "content", "PUT", "content", "7"},
      {kHttpDelete, "ignored", "DELETE", "", ""},
  };
  LoopbackServer server;
  server.On("/", Ok("ok"));
  Transport transport(server.port());
  for (const auto& row : rows) {
    Exchange exchange(transport, "/", row.method);
    exchange.Line("Content-Type: text/plain");
    if (row.body) exchange.Body(row.body);
    ASSERT_TRUE(exchange.Run());
    const RecordedRequest sent = server.LastRequest("/");
    EXPECT_EQ(sent.method, row.verb);
    EXPECT_EQ(sent.body, row.sent) << row.verb;
    EXPECT_EQ(sent.Header("Content-Length"), row.length) << row.verb;
  }
}

TEST(QtTransportSendTest, ACookieLineGoesOutWholeAndFeedsTheJar) {
  LoopbackServer server;
  server.Otherwise(Ok("ok"));
  server.On("/set", Reply(200, {{"Set-Cookie", "b=2"}, {"Set-Cookie", "c=3"}}, "ok"));
  CookieJar::ClearAllCookies();
  Transport transport(server.port());
  const auto send = [&](const char* path, const char* line) {
    Exchange exchange(transport, path);
    if (line) exchange.Line(line);
    EXPECT_TRUE(exchange.Run());
    return server.LastRequest(path).Header("Cookie");
  };
  EXPECT_EQ(send("/first", "Cookie: a=1; junk; e=5"), "a=1; junk; e=5");
  EXPECT_EQ(send("/second", nullptr), "a=1; e=5");
  send("/set", nullptr);
  EXPECT_EQ(send("/third", "cookie: own"), "own") << "not the jar's, and not into the jar";
  send("/fourth", "Cookie-Note: d=4");
  EXPECT_EQ(send("/fifth", nullptr), "a=1; e=5; b=2; c=3; d=4");
  CookieJar::ClearAllCookies();
}

// Qt's proxy settings send everything to the server here, which so sees what host was meant, and whether a
// tunnel for TLS was asked for.
TEST(QtTransportSendTest, AWaitingConnectionIsUpgradedWhenTheSwitchIsTurned) {
  LoopbackServer proxy;
  proxy.On("http://www.secure.test/a", Ok("ok"));
  QNetworkProxy::setApplicationProxy(
      {QNetworkProxy::HttpProxy, "127.0.0.1", static_cast<quint16>(proxy.port())});
  HttpConnectionFactory::SetSecureDomains({"secure.test"});
  {
    Transport transport(80, "www.secure.test");
    Exchange plain(transport, "/a");
    EXPECT_TRUE(plain.Run());
    EXPECT_EQ(plain.status(), kStatusOk);
    HttpConnectionFactory::UseSecureConnectionsForQuorex(true);
    Exchange upgraded(transport, "/b");
    EXPECT_TRUE(upgraded.Run());
    EXPECT_EQ(proxy.LastRequest("www.secure.test:443").method, "CONNECT");
  }
  HttpConnectionFactory::UseSecureConnectionsForQuorex(false);
  HttpConnectionFactory::SetSecureDomains({});
  QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy);
}

}  // namespace
}  // namespace orvan::net::test
