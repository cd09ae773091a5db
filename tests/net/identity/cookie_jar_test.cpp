#include "orvan/net/identity/cookie_jar.h"

#include <QNetworkAccessManager>

#include "tests/net/http/bare_connection.h"
#include "tests/support/text_cases.h"

namespace orvan::net {
namespace {

using test::BareConnection;
using test::PlainRequest;

TEST(CookieLineTest, BuildsLines) {
  // From name, value and the line that is there.
  const auto built = [](const QString& parts) {
    return BuildCookieHeader(parts.section('|', 0, 0), parts.section('|', 1, 1), parts.section('|', 2));
  };
  const test::TextCase rows[] = {
      {"a first pair", "a|1|", "Cookie: $Version=\"0\"; a=1\r\n"},
      {"a second one goes on without the line end", "b|2|Cookie: $Version=\"0\"; a=1\r\n",
       "Cookie: $Version=\"0\"; a=1; b=2\r\n"},
      {"a line of another form is dropped", "b|2|Cookie: a=1\r\n", "Cookie: $Version=\"0\"; b=2\r\n"},
      {"nothing is encoded", "a;|\"x y\"|", "Cookie: $Version=\"0\"; a;=\"x y\"\r\n"},
      {"a marker in the name is expanded", "a%2|v|", "Cookie: $Version=\"0\"; av=v\r\n"},
  };
  test::ExpectTexts(built, rows);
}

TEST(CookieLineTest, TakesThePlaceOfTheFirstHeader) {
  PlainRequest request;
  request.AddRequestHeader("B: 2");
  for (const char* name : {"a", "b"}) EXPECT_EQ(request.AddCookieHeader(name, "1"), kStatusOk);
  EXPECT_EQ(request.GetRequestHeaderCount(), 2);
  EXPECT_EQ(request.GetRequestHeader(0), "Cookie: $Version=\"0\"; a=1; b=1\r\n");
}

class ConnectionCookiesTest : public testing::Test {
 protected:
  ~ConnectionCookiesTest() override { HttpConnection::ClearAllCookies(); }

  // The pairs that a request for `path` on http://`host` gets.
  static QString Sent(const char* host = "host.example", const char* path = "/") {
    BareConnection connection(host);
    PlainRequest request(path);
    request.GetRequestHeaders().Clear();
    request.SetSkipCookieUpdate(false);
    connection.UpdateCookieHeader(&request);
    return request.GetRequestHeader(0).mid(20).trimmed();
  }
};

TEST_F(ConnectionCookiesTest, KeepsOneValueForEachNameAndBase) {
  HttpConnection::SetCookie("", "a", "1");
  HttpConnection::SetCookie("http://host.example/", "", "1");
  HttpConnection::SetCookie("http://host.example/", "a", "");
  EXPECT_EQ(Sent(), "");
  HttpConnection::SetCookie("http://host.example/x?y#z", "b", "2");
  HttpConnection::SetCookie("http://host.example/", "b", "3");
  HttpConnection::SetCookie("http://host.example", "a", "1");
  HttpConnection::SetCookie("http://other.example", "c", "4");
  EXPECT_EQ(Sent(), "; a=1; b=3");
  HttpConnection::SetCookie("http://host.example", "b", "");
  CookieJar::ClearAllCookies();
  EXPECT_EQ(Sent(), "; a=1") << "the stores are apart";
  EXPECT_EQ(Sent("host.example.evil.test"), "; a=1") << "a prefix of the text is the whole rule";
  EXPECT_EQ(Sent("www.host.example"), "");
  BareConnection connection;
  PlainRequest request;
  connection.DoPreSendRequest(&request);
  EXPECT_TRUE(request.GetRequestHeader(0).startsWith("Accept:")) << "a request asks for it";
}

TEST_F(ConnectionCookiesTest, ReadsALineBack) {
  // What is sent after that.
  const auto read_back = [](const QString& line) {
    HttpConnection::ClearAllCookies();
    HttpConnection::SetCookie("http://host.example", "old", "1");
    BareConnection connection;
    HttpRequest::Headers headers;
    for (const QString& header : {QString("A: 1"), line, QString("Cookie: later=1\r\n")})
      headers.AddHeader(header);
    connection.SetCookiesFromRequestHeader(&headers);
    EXPECT_EQ(headers.GetCount(), 2);
    EXPECT_EQ(headers.GetHeader(1), "Cookie: later=1\r\n");
    return Sent();
  };
  const test::TextCase rows[] = {
      {"our own form keeps version and blanks", "Cookie: $Version=\"0\"; a=1; b=2\r\n",
       ";  a=1;  b=2; $Version=\"0\"; old=1"},
      {"values may hold the sign", "Cookie: old=b=c\r\n", "; old=b=c"},
      {"the last two characters go whatever they are", "Cookie: old=123", "; old=1"},
      {"the eighth character goes too", "Cookie:old=2\r\n", "; ld=2; old=1"},
      {"a part without the sign deletes", "Cookie: old;\r\n", ""},
  };
  test::ExpectTexts(read_back, rows);
}

TEST(CookieJarTest, BelongsToNoAccessManager) {
  {
    QNetworkAccessManager manager;
    manager.setCookieJar(CookieJar::GetQtCookieJar());
  }
  const QUrl url("http://host.example/x");
  EXPECT_TRUE(CookieJar::SetCookieFromUrl({QNetworkCookie("a", "1")}, url));
  EXPECT_TRUE(CookieJar::SetCookieFromUrl({QNetworkCookie("a", "1")}, QUrl())) << "true whatever happens";
  HttpConnection::ClearAllCookies();
  EXPECT_EQ(CookieJar::GetCookiesForUrl(url).size(), 1);
  CookieJar::ClearAllCookies();
  EXPECT_TRUE(CookieJar::GetCookiesForUrl(url).isEmpty());
}

}  // namespace
}  // namespace orvan::net
