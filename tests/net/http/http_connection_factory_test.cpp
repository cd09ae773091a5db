#include "orvan/net/http/http_connection_factory.h"

#include <gtest/gtest.h>

#include "tests/net/http/bare_connection.h"
#include "tests/support/text_cases.h"

namespace orvan::net {
namespace {

class HttpConnectionFactoryTest : public testing::Test {
 protected:
  HttpConnectionFactoryTest() { HttpConnectionFactory::shutdown(); }
  ~HttpConnectionFactoryTest() override {
    HttpConnectionFactory::shutdown();
    HttpConnectionFactory::UseSecureConnectionsForQuorex(false);
  }
};

TEST_F(HttpConnectionFactoryTest, TellsSecureHosts) {
  const struct {
    const char* says;
    const char* host;
    bool secure_by_default;
    bool secure_by_lists;
  } rows[] = {
      {"a host in a default domain", "www.quorex.example", true, false},
      {"the bare domain does not match", "quorex.example", false, false},
      {"nor does a name that only ends alike", "notquorex.example", false, false},
      {"letter case counts", "WWW.quorex.EXAMPLE", false, false},
      {"an exception is plain", "chart.quorex.example", false, false},
      {"below an exception it is not", "x.orvan.quorex.example", true, false},
      {"a listed domain got its dot and its lower case", "www.maps.test", false, true},
      {"one with a dot got no second", "www.dot.test", false, true},
      {"a listed exception got lower case and no dot", "plain.maps.test", false, false},
      {"an empty entry does not become a dot that matches", "elsewhere.test.", false, false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(HttpConnectionFactory::IsHostInSecureDomains(row.host), row.secure_by_default) << row.says;
  }
  HttpConnectionFactory::SetSecureDomains({"MAPS.Test", QString(), ".dot.test"});
  HttpConnectionFactory::SetInsecureHosts({QString(), "Plain.Maps.Test"});
  for (const auto& row : rows) {
    EXPECT_EQ(HttpConnectionFactory::IsHostInSecureDomains(row.host), row.secure_by_lists) << row.says;
  }
}

TEST_F(HttpConnectionFactoryTest, ListsStayUntilShutdown) {
  HttpConnectionFactory::SetInsecureHosts({"www.quorex.example"});
  EXPECT_TRUE(HttpConnectionFactory::IsHostInSecureDomains("chart.quorex.example"));
  EXPECT_FALSE(HttpConnectionFactory::IsHostInSecureDomains("www.quorex.example"));
  HttpConnectionFactory::shutdown();
  EXPECT_FALSE(HttpConnectionFactory::IsHostInSecureDomains("chart.quorex.example"));
}

TEST_F(HttpConnectionFactoryTest, UpgradesUrls) {
  const test::TextCase rows[] = {
      {"an absent port stays absent", "http://www.quorex.example/a?b#c", "https://www.quorex.example/a?b#c"},
      {"an explicit one is replaced", "http://www.quorex.example:80/", "https://www.quorex.example:443/"},
      {"others are left alone", "http://www.quorex.example:8080/", "http://www.quorex.example:8080/"},
      {"the parser has folded the host", "http://WWW.quorex.example/", "https://www.quorex.example/"},
      {"an escaped host is decoded first", "http://ww%77.quorex.example/", "https://www.quorex.example/"},
      {"a stranger is left alone", "http://chart.quorex.example/", "http://chart.quorex.example/"},
  };
  const QUrl url(rows[0].text);
  EXPECT_EQ(HttpConnectionFactory::MakeSecureUrl(url), url);
  HttpConnectionFactory::UseSecureConnectionsForQuorex(true);
  const auto made_secure = [](const QString& text) {
    return HttpConnectionFactory::MakeSecureUrl(QUrl(text)).toEncoded();
  };
  test::ExpectTexts(made_secure, rows);
}

TEST_F(HttpConnectionFactoryTest, SwitchingHttpsOnIsMarkedOnce) {
  CountSetting& mark = HttpConnection::httpOptions.usingHttpsConnectionsCount;
  mark = 0;
  int notified = 0;
  const int number = mark.AddObserver([&](Setting&) { ++notified; });
  for (const bool on : {false, true, true}) HttpConnectionFactory::UseSecureConnectionsForQuorex(on);
  EXPECT_EQ(mark.value(), 1);
  EXPECT_EQ(notified, 1);
  mark.RemoveObserver(number);
}

TEST_F(HttpConnectionFactoryTest, ConnectionsMakeTheirUrlsWhenTheyAreAsked) {
  const struct {
    const char* says;
    const char* host;
    bool secure;
    int port;
    bool use_secure;
    const char* url;
  } rows[] = {
      {"a default port is left out", "host.example", false, 80, true, "http://host.example"},
      {"another port is written", "host.example", false, 8080, true, "http://host.example:8080"},
      {"the other one's default is another", "host.example", true, 80, true, "https://host.example:80"},
      {"a host of the maker is forced to HTTPS", "www.quorex.example", false, 80, true,
       "https://www.quorex.example"},
      {"not on another port", "www.quorex.example", false, 8080, true, "http://www.quorex.example:8080"},
      {"a marker in the host is not expanded", "%1.example", false, 8080, false, "http://%1.example:8080"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.says);
    const test::BareConnection connection(row.host, row.secure, row.port);
    HttpConnectionFactory::UseSecureConnectionsForQuorex(row.use_secure);  // reaches existing connections
    EXPECT_EQ(connection.MakeBaseUrlString(), row.url);
  }
  const test::BareConnection connection;
  const test::PlainRequest request("/a%2Fb?c=%25d");
  EXPECT_EQ(connection.MakeFullUrl(request).toEncoded(), "http://host.example/a%2Fb?c=%25d");
}

}  // namespace
}  // namespace orvan::net
