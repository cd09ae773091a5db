// The test bed tested: with plain Qt and raw sockets, without the libraries that it is there to test.

#include <gtest/gtest.h>

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSslError>
#include <QUrl>
#include <atomic>
#include <future>
#include <thread>

#include "tests/support/loopback_server.h"
#include "tests/support/real_server.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan::test {
namespace {

struct Answer {
  bool finished = false;
  QNetworkReply::NetworkError error = QNetworkReply::NoError;
  int status = 0;
  QByteArray body;
  int header_count = 0;
};

Answer Take(QNetworkReply* reply) {
  Answer answer;
  answer.finished = PumpUntil([reply] { return reply->isFinished(); });
  answer.error = reply->error();
  answer.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
  answer.body = reply->readAll();
  answer.header_count = reply->rawHeaderList().size();
  reply->deleteLater();
  return answer;
}

Answer Get(QNetworkAccessManager* manager, const QString& url) {
  return Take(manager->get(QNetworkRequest(QUrl(url))));
}

class LoopbackServerTest : public ::testing::Test {
 protected:
  const Watchdog watchdog_{60, "a test of the loopback server"};
  LoopbackServer server_;
};

TEST_F(LoopbackServerTest, RecordsWhatCameOverTheWire) {
  server_.On("/post", Ok("thanks"));
  const std::string request =
      "POST /post?a=1 HTTP/1.1\r\nHost: x\r\nX-One:  1 \r\nx-one: 2\r\nContent-Length: 4\r\n\r\nbody"
      "POST /post HTTP/1.1\r\nConnection: close\r\nTransfer-Encoding: "
      "chunked\r\n\r\n3\r\nabc\r\n1\r\nd\r\n0\r\n\r\n";
  const std::string answer = RawExchange(server_.port(), request);
  EXPECT_EQ(answer.compare(0, 17, "HTTP/1.1 200 OK\r\n"), 0) << answer;
  const auto requests = server_.Requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].method, "POST");
  EXPECT_EQ(requests[0].target, "/post?a=1");
  EXPECT_EQ(requests[0].body, "body");
  EXPECT_EQ(requests[0].Headers("X-ONE"), (std::vector<std::string>{"1", "2"}));
  EXPECT_EQ(requests[1].body, "abcd");
  EXPECT_EQ(requests[1].hit, 2);
  EXPECT_EQ(requests[1].connection, 1) << "both came on one connection";
}

TEST_F(LoopbackServerTest, AStallLastsUntilTheTestEndsIt) {
  const Gate reached;
  const Gate go_on;
  server_.On(
      "/slow",
      Script().Send("HTTP/1.1 200 OK\r\nContent-Le").Signal(reached).Stall(go_on).Send("ngth: 2\r\n\r\nok"));
  server_.On("/fast", Ok("fast"));
  QNetworkAccessManager manager;
  QNetworkReply* slow = manager.get(QNetworkRequest(QUrl(server_.Url("/slow"))));
  ASSERT_TRUE(PumpUntil([&] { return reached.IsOpen(); }));
  EXPECT_EQ(Get(&manager, server_.Url("/fast")).body, "fast");
  EXPECT_FALSE(slow->isFinished());
  EXPECT_EQ(server_.RunningRequests(), 1);
  EXPECT_EQ(server_.MaxRunningRequests(), 2);
  go_on.Open();
  EXPECT_EQ(Take(slow).body, "ok");
}

TEST_F(LoopbackServerTest, DripsCutsResetsAndFloods) {
  server_.On("/drip", Script().Drip(Response(200, {}, "drop by drop"), 7, 1));
  server_.On("/cut", CutBody("half", 8));
  server_.On("/close", Script().Close());
  server_.On("/reset", Script().Reset());
  server_.On("/large", LargeBody(3'000'001));
  QNetworkAccessManager manager;
  EXPECT_EQ(Get(&manager, server_.Url("/drip")).body, "drop by drop");
  const Answer cut = Get(&manager, server_.Url("/cut"));  // Qt may or may not call this an error
  EXPECT_TRUE(cut.finished);
  EXPECT_EQ(cut.status, 200);
  for (const char* path : {"/close", "/reset"}) {
    const Answer lost = Get(&manager, server_.Url(path));
    EXPECT_EQ(lost.error, QNetworkReply::RemoteHostClosedError) << path;
    EXPECT_EQ(lost.status, 0) << path;
  }
  EXPECT_EQ(Get(&manager, server_.Url("/large")).body.size(), 3'000'001);
}

TEST_F(LoopbackServerTest, EndsAnEndlessBodyWhenTheClientGoes) {
  server_.On("/endless", LargeBody(uint64_t{1} << 40));
  QNetworkAccessManager manager;
  QNetworkReply* reply = manager.get(QNetworkRequest(QUrl(server_.Url("/endless"))));
  ASSERT_TRUE(PumpUntil([reply] { return reply->bytesAvailable() > 100'000; }));
  delete reply;
  EXPECT_TRUE(PumpUntil([this] { return server_.RunningRequests() == 0 && server_.OpenConnections() == 0; }));
}

TEST(NginxServerTest, ServesHttpAndTlsToThoseWhoTrustIt) {
  TestCertificates certificates;
  ASSERT_TRUE(certificates.Create());
  NginxServer nginx;
  nginx.AddFile("folder/a.txt", "from nginx");
  nginx.UseTls(certificates);
  nginx.AddServerLines("location = /gone { return 410; }");
  ASSERT_TRUE(nginx.Start());
  {
    QNetworkAccessManager manager;
    EXPECT_EQ(Get(&manager, nginx.TlsUrl("/folder/a.txt")).error, QNetworkReply::SslHandshakeFailedError);
    EXPECT_EQ(Get(&manager, nginx.Url("/folder/a.txt")).body, "from nginx");
    EXPECT_EQ(Get(&manager, nginx.Url("/gone")).status, 410);
  }
  ASSERT_TRUE(certificates.Trust());
  QNetworkAccessManager manager;
  EXPECT_EQ(Get(&manager, nginx.TlsUrl("/folder/a.txt")).body, "from nginx");
  EXPECT_EQ(Get(&manager, nginx.TlsUrl("/folder/a.txt", "127.0.0.1")).body, "from nginx");
  TestCertificates::Distrust();
  EXPECT_TRUE(PumpUntil([&nginx] { return nginx.AccessLog().size() == 4; }));
  EXPECT_EQ(nginx.AccessLog().front().compare(0, 22, "GET /folder/a.txt 200 "), 0);
  nginx.Stop();
  EXPECT_EQ(Get(&manager, nginx.Url("/folder/a.txt")).error, QNetworkReply::ConnectionRefusedError);
}

TEST(HttpbinServerTest, Answers) {
  HttpbinServer httpbin;
  ASSERT_TRUE(httpbin.Start());
  QNetworkAccessManager manager;
  EXPECT_EQ(Get(&manager, httpbin.Url("/status/418")).status, 418);
  EXPECT_TRUE(Get(&manager, httpbin.Url("/anything?a=b")).body.contains(R"("a":"b")"));
  httpbin.Stop();
  EXPECT_FALSE(httpbin.Running());
}

}  // namespace
}  // namespace orvan::test
