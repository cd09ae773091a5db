#include "orvan/net/http/http_connection_factory.h"

#include <gtest/gtest.h>

#include <memory>

#include "orvan/net/http/http_connection.h"
#include "orvan/net/server/server_info.h"
#include "tests/support/scripted_transport.h"

namespace orvan::net {
namespace {

QString Text(const char* text) { return QString::fromLatin1(text); }

class HttpConnectionFactoryTest : public testing::Test {
 protected:
  void SetUp() override { HttpConnectionFactory::shutdown(); }
  void TearDown() override {
    HttpConnectionFactory::shutdown();
    HttpConnectionFactory::UseSecureConnectionsForQuorex(false);
  }
};

struct HostCase {
  const char* says;
  const char* host;
  bool secure_by_default;
  bool secure_by_lists;  // of TellsSecureHosts
};

const HostCase kHostCases[] = {
    {"a host in a default domain", "www.quorex.example", true, false},
    {"and in the other one", "a.b.quorexstatic.example", true, false},
    {"the bare domain does not match", "quorex.example", false, false},
    {"nor does a name that only ends alike", "notquorex.example", false, false},
    {"letter case counts", "WWW.quorex.EXAMPLE", false, false},
    {"an exception is plain", "chart.quorex.example", false, false},
    {"below an exception it is not", "x.orvan.quorex.example", true, false},
    {"a listed domain got its dot and its lower case", "www.maps.test", false, true},
    {"the bare one still does not match", "maps.test", false, false},
    {"one with a dot got no second", "www.dot.test", false, true},
    {"a listed exception got lower case and no dot", "plain.maps.test", false, false},
    {"its neighbour is secure", "splain.maps.test", false, true},
    {"an empty entry does not become a dot that matches", "elsewhere.test.", false, false},
    {"an empty host is plain", "", false, false},
};

TEST_F(HttpConnectionFactoryTest, TellsSecureHosts) {
  for (const HostCase& row : kHostCases) {
    SCOPED_TRACE(row.says);
    EXPECT_EQ(HttpConnectionFactory::IsHostInSecureDomains(Text(row.host)), row.secure_by_default);
  }
  HttpConnectionFactory::SetSecureDomains({Text("MAPS.Test"), QString(), Text(".dot.test")});
  HttpConnectionFactory::SetInsecureHosts({QString(), Text("Plain.Maps.Test")});
  for (const HostCase& row : kHostCases) {
    SCOPED_TRACE(row.says);
    EXPECT_EQ(HttpConnectionFactory::IsHostInSecureDomains(Text(row.host)), row.secure_by_lists);
  }
}

TEST_F(HttpConnectionFactoryTest, ListsStayUntilShutdown) {
  HttpConnectionFactory::SetInsecureHosts({Text("www.quorex.example")});
  EXPECT_TRUE(HttpConnectionFactory::IsHostInSecureDomains(Text("chart.quorex.example")));
  EXPECT_FALSE(HttpConnectionFactory::IsHostInSecureDomains(Text("www.quorex.example")));
  HttpConnectionFactory::SetSecureDomains({});
  EXPECT_FALSE(HttpConnectionFactory::IsHostInSecureDomains(Text("chart.quorex.example")));
  HttpConnectionFactory::shutdown();
  EXPECT_FALSE(HttpConnectionFactory::IsHostInSecureDomains(Text("chart.quorex.example")));
  EXPECT_TRUE(HttpConnectionFactory::IsHostInSecureDomains(Text("www.quorex.example")));
}

struct UrlCase {
  const char* says;
  const char* url;
  const char* secure;  // null if it stays as it is
};

const UrlCase kUrlCases[] = {
    {"an absent port stays absent", "http://www.quorex.example/a?b#c", "https://www.quorex.example/a?b#c"},
    {"an explicit one becomes the one of HTTPS", "http://www.quorex.example:80/",
     "https://www.quorex.example:443/"},
    {"another port is left alone", "http://www.quorex.example:8080/", nullptr},
    {"HTTPS is left alone", "https://www.quorex.example:80/", nullptr},
    {"another scheme too", "ftp://www.quorex.example/", nullptr},
    {"the parser has folded the host", "http://WWW.quorex.example/", "https://www.quorex.example/"},
    {"an escaped host is decoded first", "http://ww%77.quorex.example/", "https://www.quorex.example/"},
    {"an exception is left alone", "http://chart.quorex.example/", nullptr},
    {"a stranger too", "http://host.example/", nullptr},
    {"the empty URL too", "", nullptr},
};

TEST_F(HttpConnectionFactoryTest, UpgradesUrls) {
  for (const bool on : {false, true}) {
    HttpConnectionFactory::UseSecureConnectionsForQuorex(on);
    for (const UrlCase& row : kUrlCases) {
      SCOPED_TRACE(row.says);
      const QUrl url(Text(row.url));
      const QUrl expected = on && row.secure ? QUrl(Text(row.secure)) : url;
      EXPECT_EQ(HttpConnectionFactory::MakeSecureUrl(url).toEncoded(), expected.toEncoded());
    }
  }
}

TEST_F(HttpConnectionFactoryTest, SwitchingHttpsOnIsMarkedOnce) {
  CountSetting& mark = HttpConnection::httpOptions.usingHttpsConnectionsCount;
  mark = 0;
  int notified = 0;
  const int number = mark.AddObserver([&](Setting&) { ++notified; });
  HttpConnectionFactory::UseSecureConnectionsForQuorex(false);
  EXPECT_EQ(notified, 0);
  HttpConnectionFactory::UseSecureConnectionsForQuorex(true);
  HttpConnectionFactory::UseSecureConnectionsForQuorex(true);
  EXPECT_EQ(mark.value(), 1);
  EXPECT_EQ(notified, 1);
  mark.RemoveObserver(number);
}

TEST_F(HttpConnectionFactoryTest, GivesConnectionsTheirMemoryAndTheirRates) {
  test::ScriptedTransport transport;
  const ServerInfo server(Text("host.example"), 8080, false);
  const std::unique_ptr<HttpConnection> connection(
      HttpConnectionFactory::CreateHttpConnection(&server, nullptr, 15.0, 20, 2, 3, 4, 5));
  ASSERT_TRUE(connection);
  EXPECT_EQ(connection->memory_manager(), HttpConnectionFactory::GetHttpHeap());
  EXPECT_EQ(connection->GetMinTransferRate(), 3);
  EXPECT_EQ(connection->GetMinTransferRateTime(), 4);
  EXPECT_EQ(connection->GetMaxTransferRate(), 5);
  transport.SetConnectionsNull(true);
  EXPECT_EQ(HttpConnectionFactory::CreateHttpConnection(&server, nullptr, 15.0, 20, 2, 3, 4, 5), nullptr);
}

}  // namespace
}  // namespace orvan::net
