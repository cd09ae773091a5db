#include "orvan/net/identity/cookie_jar.h"

#include <gtest/gtest.h>

#include <QNetworkAccessManager>
#include <memory>
#include <thread>
#include <vector>

#include "orvan/net/http/http_connection.h"
#include "tests/net/http/bare_connection.h"
#include "tests/net/http/plain_request.h"

namespace orvan::net {
namespace {

using test::BareConnection;
using test::PlainRequest;

QString Text(const char* text) { return QString::fromLatin1(text); }

struct LineCase {
  const char* says;
  const char* name;
  const char* value;
  const char* existing;
  const char* line;
};

const LineCase kLineCases[] = {
    {"a first pair", "a", "1", "", "Cookie: $Version=\"0\"; a=1\r\n"},
    {"a second one goes on without the line end", "b", "2", "Cookie: $Version=\"0\"; a=1\r\n",
     "Cookie: $Version=\"0\"; a=1; b=2\r\n"},
    {"a line of another form is dropped", "b", "2", "Cookie: a=1\r\n", "Cookie: $Version=\"0\"; b=2\r\n"},
    {"letter case counts", "b", "2", "cookie: $Version=\"0\"; a=1\r\n", "Cookie: $Version=\"0\"; b=2\r\n"},
    {"nothing is encoded", "a;", "\"x y\"", "", "Cookie: $Version=\"0\"; a;=\"x y\"\r\n"},
    {"a marker in the name is expanded", "a%2", "v", "", "Cookie: $Version=\"0\"; av=v\r\n"},
};

TEST(CookieLineTest, BuildsLines) {
  for (const LineCase& row : kLineCases) {
    SCOPED_TRACE(row.says);
    EXPECT_EQ(BuildCookieHeader(Text(row.name), Text(row.value), Text(row.existing)).toStdString(), row.line);
  }
}

TEST(CookieLineTest, TakesThePlaceOfTheFirstHeader) {
  PlainRequest request;
  request.AddRequestHeader(Text("B: 2"));
  EXPECT_EQ(request.AddCookieHeader(Text("a"), Text("1")), kStatusOk);
  EXPECT_EQ(request.AddCookieHeader(Text("b"), Text("2")), kStatusOk);
  EXPECT_EQ(request.GetRequestHeaderCount(), 2);
  EXPECT_EQ(request.GetRequestHeader(0), Text("Cookie: $Version=\"0\"; a=1; b=2\r\n"));
  EXPECT_EQ(request.GetRequestHeader(1), Text("B: 2"));

  PlainRequest bare;
  bare.GetRequestHeaders().Clear();
  EXPECT_EQ(bare.AddCookieHeader(Text("a"), Text("1")), kStatusOk);
  EXPECT_EQ(bare.GetRequestHeaderCount(), 1);
}

class ConnectionCookiesTest : public testing::Test {
 protected:
  void SetUp() override { HttpConnection::ClearAllCookies(); }
  void TearDown() override { HttpConnection::ClearAllCookies(); }

  static void Set(const char* url, const char* name, const char* value) {
    HttpConnection::SetCookie(Text(url), Text(name), Text(value));
  }
  // The pairs that a request for `path` on http://`host` gets.
  static std::string Sent(const char* host = "host.example", const char* path = "/") {
    BareConnection connection(Text(host));
    PlainRequest request(Text(path));
    request.GetRequestHeaders().Clear();
    request.SetSkipCookieUpdate(false);
    connection.UpdateCookieHeader(&request);
    return request.GetRequestHeader(0).mid(20).trimmed().toStdString();
  }
};

TEST_F(ConnectionCookiesTest, KeepsOneValueForEachNameAndBase) {
  Set("", "a", "1");
  Set("http://host.example/", "", "1");
  Set("http://host.example/", "a", "");
  EXPECT_EQ(Sent(), "");
  Set("http://host.example/x?y#z", "b", "2");
  Set("http://host.example/", "b", "3");
  Set("http://host.example", "a", "1");
  Set("http://other.example", "c", "4");
  EXPECT_EQ(Sent(), "; a=1; b=3");
  Set("http://host.example", "b", "");
  EXPECT_EQ(Sent(), "; a=1");
  CookieJar::ClearAllCookies();
  ClearCookies();
  EXPECT_EQ(Sent(), "; a=1") << "the stores are apart";
}

TEST_F(ConnectionCookiesTest, MatchesByTextPrefixAlone) {
  Set("http://host.example", "a", "1");
  EXPECT_EQ(Sent("host.example", "/deep/down"), "; a=1");
  EXPECT_EQ(Sent("host.example.evil.test"), "; a=1");
  EXPECT_EQ(Sent("www.host.example"), "");
}

TEST_F(ConnectionCookiesTest, LeavesRequestsAloneUnlessTold) {
  Set("http://host.example", "a", "1");
  BareConnection connection;
  PlainRequest request;
  connection.DoPreSendRequest(&request);
  EXPECT_TRUE(request.GetRequestHeader(0).startsWith(Text("Accept:")));
}

struct ReadBackCase {
  const char* says;
  const char* line;
  const char* sent;
};

const ReadBackCase kReadBackCases[] = {
    {"our own form keeps version and blanks", "Cookie: $Version=\"0\"; a=1; b=2\r\n",
     ";  a=1;  b=2; $Version=\"0\""},
    {"values may hold the sign", "Cookie: a=b=c\r\n", "; a=b=c"},
    {"the last two characters go whatever they are", "Cookie: a=123", "; a=1"},
    {"the eighth character goes too", "Cookie:a=1\r\n", ""},
    {"a part without the sign deletes", "Cookie: old\r\n", ""},
    {"an empty part does nothing", "Cookie: a=1;\r\n", "; a=1"},
    {"a short line has no parts", "Cookie:", ""},
};

TEST_F(ConnectionCookiesTest, ReadsALineBack) {
  for (const ReadBackCase& row : kReadBackCases) {
    SCOPED_TRACE(row.says);
    HttpConnection::ClearAllCookies();
    const bool deletes = Text(row.line).contains(Text("old"));
    if (deletes) Set("http://host.example", "old", "1");
    BareConnection connection;
    HttpRequest::Headers headers;
    headers.AddHeader(Text("A: 1"));
    connection.SetCookiesFromRequestHeader(&headers);
    EXPECT_EQ(headers.GetCount(), 1);
    headers.AddHeader(Text(row.line));
    headers.AddHeader(Text("Cookie: later=1\r\n"));
    connection.SetCookiesFromRequestHeader(&headers);
    EXPECT_EQ(Sent(), row.sent);
    ASSERT_EQ(headers.GetCount(), 2);
    EXPECT_EQ(headers.GetHeader(1), Text("Cookie: later=1\r\n"));
  }
}

TEST(CookieJarTest, BelongsToNoAccessManager) {
  QNetworkCookieJarExt* const jar = CookieJar::GetQtCookieJar();
  {
    QNetworkAccessManager manager;
    manager.setCookieJar(jar);
    EXPECT_EQ(jar->parent(), nullptr);
  }
  EXPECT_TRUE(CookieJar::SetCookieFromUrl({QNetworkCookie("a", "1")}, QUrl(Text("http://host.example/"))));
  EXPECT_EQ(CookieJar::GetCookiesForUrl(QUrl(Text("http://host.example/x"))).size(), 1);
  EXPECT_TRUE(CookieJar::SetCookieFromUrl({QNetworkCookie("a", "1")}, QUrl())) << "true whatever happens";
  HttpConnection::ClearAllCookies();
  EXPECT_EQ(CookieJar::GetCookiesForUrl(QUrl(Text("http://host.example/"))).size(), 1);
  CookieJar::ClearAllCookies();
  EXPECT_TRUE(CookieJar::GetCookiesForUrl(QUrl(Text("http://host.example/"))).isEmpty());
}

TEST(CookieJarTest, IsSharedByThreads) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 50;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([i] {
      const QUrl url(QStringLiteral("http://host%1.example/").arg(i));
      for (int round = 0; round < kRounds; ++round) {
        QNetworkCookie cookie("a", QByteArray::number(round));
        CookieJar::SetCookieFromUrl({cookie}, url);
        const QList<QNetworkCookie> cookies = CookieJar::GetCookiesForUrl(url);
        ASSERT_EQ(cookies.size(), 1);
        EXPECT_EQ(cookies.front().value(), QByteArray::number(round));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  CookieJar::ClearAllCookies();
}

}  // namespace
}  // namespace orvan::net
