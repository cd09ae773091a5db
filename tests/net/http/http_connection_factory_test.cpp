#include "orvan/net/http/http_connection_factory.h"

#include <gtest/gtest.h>

#include <thread>

#include "orvan/net/identity/certificate_handler.h"
#include "tests/net/http/bare_connection.h"
#include "tests/support/text_cases.h"
#include "tests/support/wait.h"

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
  const auto secure = [](const char* host) { return HttpConnectionFactory::IsHostInSecureDomains(host); };
  EXPECT_TRUE(secure("www.quorex.example"));
  EXPECT_FALSE(secure("quorex.example")) << "the bare domain";
  EXPECT_FALSE(secure("notquorex.example"));
  EXPECT_FALSE(secure("WWW.quorex.EXAMPLE"));
  EXPECT_FALSE(secure("chart.quorex.example")) << "an exception";
  EXPECT_TRUE(secure("x.orvan.quorex.example")) << "below an exception";
  HttpConnectionFactory::SetSecureDomains({"MAPS.Test", QString(), ".dot.test"});
  HttpConnectionFactory::SetInsecureHosts({QString(), "Plain.Maps.Test"});
  EXPECT_FALSE(secure("www.quorex.example"));
  EXPECT_TRUE(secure("www.maps.test")) << "it got its dot and its lower case";
  EXPECT_TRUE(secure("www.dot.test")) << "it got no second dot";
  EXPECT_FALSE(secure("plain.maps.test"));
  EXPECT_TRUE(secure("splain.maps.test")) << "an exception gets no dot";
  EXPECT_FALSE(secure("elsewhere.test.")) << "an empty entry does not become a dot that matches";
  HttpConnectionFactory::shutdown();
  EXPECT_TRUE(secure("www.quorex.example")) << "the lists stay until then";
  EXPECT_FALSE(secure("www.maps.test"));
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
  const test::BareConnection waiting("www.quorex.example"), other("%1.example", true, 80);
  EXPECT_EQ(waiting.MakeBaseUrlString(), "http://www.quorex.example");
  HttpConnectionFactory::UseSecureConnectionsForQuorex(true);
  EXPECT_EQ(waiting.MakeFullUrl(test::PlainRequest("/a%2Fb?c=%25d")).toEncoded(),
            "https://www.quorex.example/a%2Fb?c=%25d");
  EXPECT_EQ(test::BareConnection("www.quorex.example", false, 8080).MakeBaseUrlString(),
            "http://www.quorex.example:8080");
  EXPECT_EQ(test::BareConnection().MakeBaseUrlString(), "http://host.example") << "a stranger";
  EXPECT_EQ(other.MakeBaseUrlString(), "https://%1.example:80") << "a marker is not expanded";
}

// Whoever takes the handler away may destroy it.
TEST_F(HttpConnectionFactoryTest, TheCertificateHandlerStaysWhileItIsAsked) {
  struct Handler : ICertificateHandler {
    bool SelectCertificate(const mmvector<CertificateInfo*>&, const void**) override {
      asked.Open();
      EXPECT_FALSE(gone.Wait(50)) << "only if nobody waits";
      return true;
    }
    const test::Gate asked, gone;
  } handler;
  HttpConnectionFactory::SetCertificateHandler(&handler);
  std::thread asker([] { EXPECT_TRUE(HttpConnectionFactory::GetCertificateFromList({}, nullptr)); });
  EXPECT_TRUE(handler.asked.Wait());
  HttpConnectionFactory::SetCertificateHandler(nullptr);
  handler.gone.Open();
  asker.join();
}

}  // namespace
}  // namespace orvan::net
