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

std::string RawGet(const LoopbackServer& server, const std::string& target) {
  return RawExchange(server.port(), "GET " + target + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
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

TEST_F(LoopbackServerTest, ChoosesTheHitBeforeThePathBeforeTheCatchAll) {
  server_.On("/a", Ok("every"));
  server_.OnHit("/a", 2, Ok("second"));
  server_.On("/a?x", Ok("with query"));
  const auto body_of = [this](const std::string& target) {
    const std::string answer = RawGet(server_, target);
    return answer.substr(answer.find("\r\n\r\n") + 4);
  };
  EXPECT_EQ(body_of("/a"), "every");
  EXPECT_EQ(body_of("/a"), "second");
  EXPECT_EQ(body_of("/a?other"), "every");
  EXPECT_EQ(body_of("/a?x"), "with query");
  EXPECT_EQ(body_of("/b"), "nothing here");
  server_.Otherwise([](const RecordedRequest& request) { return Ok("you said " + request.target); });
  EXPECT_EQ(body_of("/b"), "you said /b");
  EXPECT_EQ(server_.Hits("/a"), 4);
}

TEST_F(LoopbackServerTest, AnswersQtOnOneConnectionBesideAnIdlePreconnect) {
  server_.On("/hello", Ok("hello"));
  server_.On("/chunks", Chunked({"one ", "two"}));
  server_.On("/headers", ManyHeaders(10000));
  QNetworkAccessManager manager;
  QNetworkAccessManager idle;
  idle.connectToHost(QStringLiteral("127.0.0.1"), static_cast<quint16>(server_.port()));
  ASSERT_TRUE(PumpUntil([this] { return server_.OpenConnections() == 1; }));
  EXPECT_EQ(Get(&manager, server_.Url("/hello")).body, "hello");
  EXPECT_EQ(Get(&manager, server_.Url("/chunks")).body, "one two");
  const Answer many = Get(&manager, server_.Url("/headers"));
  EXPECT_EQ(many.body, "ok");
  EXPECT_EQ(many.header_count, 10001);
  EXPECT_EQ(server_.AcceptedConnections(), 2);
  EXPECT_EQ(Get(&manager, server_.Url(server_.AddRedirects("/r", 2, Ok("end")))).status, 302);
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

TEST_F(LoopbackServerTest, RequestsOneAfterTheOtherNeverRunTogether) {
  server_.On("/a", Reply(200, {}, "a").Close());
  server_.On("/b", Script().Drip(Response(200, {}, "b"), 20, 0));
  for (int n = 0; n < 100; ++n) {
    RawGet(server_, "/a");
    RawGet(server_, "/b");
  }
  EXPECT_EQ(server_.RequestCount(), 200);
  EXPECT_EQ(server_.MaxRunningRequests(), 1);
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

TEST_F(LoopbackServerTest, StopsAtOnceWhateverItsConnectionsDo) {
  const int threads = CountThreads() - 1;  // without the one that accepts
  const int descriptors = CountDescriptors() - 1;
  const Gate reached;
  server_.On("/silent", Script().Signal(reached).Silent());
  server_.On("/pause", Script().Pause(3'600'000));
  server_.On("/full", LargeBody(uint64_t{1} << 40));
  server_.OnAccept([](int connection) { return connection == 1 ? Script().ReadAndIgnore() : Script(); });
  std::vector<std::thread> clients;
  for (const char* path : {"/ignored", "/silent", "/pause"}) {
    clients.emplace_back([this, path] { EXPECT_EQ(RawGet(server_, path), ""); });
    ASSERT_TRUE(server_.WaitForAccepted(static_cast<int>(clients.size())));
  }
  ASSERT_TRUE(server_.WaitForRequests(2));
  QNetworkAccessManager manager;
  QNetworkRequest request(QUrl(server_.Url("/full")));
  QNetworkReply* full = manager.get(request);
  full->setReadBufferSize(1000);  // so the server's send comes to a halt
  ASSERT_TRUE(PumpUntil([full] { return full->bytesAvailable() > 0; }));
  server_.Stop();
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(server_.OpenConnections(), 0);
  EXPECT_EQ(RawGet(server_, "/silent"), "") << "a stopped server refuses";
  full->abort();
  delete full;
  manager.clearConnectionCache();
  EXPECT_TRUE(PumpUntil([&] { return CountThreads() <= threads + 2; })) << "Qt keeps up to two of its own";
  EXPECT_TRUE(PumpUntil([&] { return CountDescriptors() <= descriptors + 8; })) << "with their pipes";
}

TEST(PortTest, OneRefusesAndOneHangs) {
  const RefusingPort refusing;
  const HangingPort hanging;
  QNetworkAccessManager manager;
  QNetworkReply* waiting = manager.get(QNetworkRequest(QUrl(hanging.Url())));
  EXPECT_EQ(Get(&manager, refusing.Url()).error, QNetworkReply::ConnectionRefusedError);
  PumpFor(50);
  EXPECT_FALSE(waiting->isFinished()) << waiting->errorString().toStdString();
  delete waiting;
}

TEST(WaitTest, TellsWhetherItCameTrueAndDeletesLater) {
  EXPECT_FALSE(PumpUntil([] { return false; }, 10));
  std::promise<void> go;
  std::atomic<bool> flag{false};
  std::thread setter([&] {
    go.get_future().wait();
    flag = true;
  });
  go.set_value();
  EXPECT_TRUE(PumpUntil([&] { return flag.load(); }));
  setter.join();
  bool deleted = false;
  auto* object = new QObject;
  QObject::connect(object, &QObject::destroyed, [&deleted] { deleted = true; });
  object->deleteLater();
  PumpPending();
  EXPECT_TRUE(deleted);
}

TEST(WaitTest, AGateTellsItsListenersOnce) {
  const Gate gate;
  int called = 0;
  gate.RemoveListener(gate.AddListener([&called] { called += 100; }));
  gate.AddListener([&called] { ++called; });
  EXPECT_FALSE(gate.Wait(5));
  gate.Open();
  gate.Open();
  EXPECT_TRUE(gate.Wait());
  gate.AddListener([&called] { called += 10; });
  EXPECT_EQ(called, 11);
}

TEST(WatchdogDeathTest, NamesWhatTookTooLong) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        const Watchdog guard(1, "a deadlock");
        (void)Gate().Wait(kWaitMs);
      },
      "'a deadlock' was not done after 1 seconds");
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

TEST(NginxServerTest, RefusesWrongCertificatesForTheRightReason) {
  TestCertificates certificates;
  ASSERT_TRUE(certificates.Create());
  ASSERT_TRUE(certificates.Trust());
  const struct {
    const char* name;
    const char* alt_names;
    TestCertificates::Kind kind;
    QSslError::SslError error;
  } kRows[] = {
      {"expired", "DNS:localhost", TestCertificates::Kind::kExpired, QSslError::CertificateExpired},
      {"alone", "DNS:localhost", TestCertificates::Kind::kSelfSigned, QSslError::SelfSignedCertificate},
      {"other", "DNS:other.test", TestCertificates::Kind::kSigned, QSslError::HostNameMismatch},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    ASSERT_TRUE(certificates.Issue(row.name, row.alt_names, row.kind));
    NginxServer nginx;
    nginx.UseTls(certificates, row.name);
    ASSERT_TRUE(nginx.Start());
    QNetworkAccessManager manager;
    QList<QSslError::SslError> errors;
    QObject::connect(&manager, &QNetworkAccessManager::sslErrors,
                     [&errors](QNetworkReply*, const QList<QSslError>& list) {
                       for (const QSslError& error : list) errors << error.error();
                     });
    EXPECT_EQ(Get(&manager, nginx.TlsUrl("/")).error, QNetworkReply::SslHandshakeFailedError);
    EXPECT_TRUE(errors.contains(row.error)) << errors.value(0);
  }
  TestCertificates::Distrust();
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

TEST(ChildProcessTest, AMissingProgramIsAFailureThatNamesItsPackage) {
  const auto result = ChildProcess::Run("no-such-program", {}, "no-such-package");
  EXPECT_FALSE(result);
  EXPECT_NE(std::string(result.message()).find("Debian package no-such-package"), std::string::npos);
}

}  // namespace
}  // namespace orvan::test
