// The test bed tested: with plain Qt, without the libraries that it is there to test.

#include <gtest/gtest.h>

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <memory>

#include "tests/support/loopback_server.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan::test {
namespace {

class LoopbackServerTest : public ::testing::Test {
 protected:
  QNetworkReply* Take(QNetworkReply* reply) {
    EXPECT_TRUE(PumpUntil([reply] { return reply->isFinished(); }));
    return reply;  // goes with the manager
  }
  QNetworkReply* Get(const char* path) { return manager_->get(QNetworkRequest(QUrl(server_.Url(path)))); }

  const Watchdog watchdog_{60, "a test of the loopback server"};
  LoopbackServer server_;
  std::unique_ptr<QNetworkAccessManager> manager_ = std::make_unique<QNetworkAccessManager>();
};

TEST_F(LoopbackServerTest, RecordsWhatCameOverTheWire) {
  server_.On("/post", Ok("thanks"));
  QNetworkRequest request(QUrl(server_.Url("/post?a=1")));
  request.setRawHeader("X-One", " 1 ");
  request.setRawHeader("Content-Type", "text/plain");
  EXPECT_EQ(Take(manager_->post(request, "body"))->readAll(), "thanks");
  const RecordedRequest sent = server_.LastRequest("/post");
  EXPECT_EQ(sent.method, "POST");
  EXPECT_EQ(sent.target, "/post?a=1");
  EXPECT_EQ(sent.body, "body");
  EXPECT_EQ(sent.Headers("x-ONE"), std::vector<std::string>{"1"});
  EXPECT_EQ(server_.Hits("/post"), 1);
  EXPECT_EQ(Take(Get("/unknown"))->error(), QNetworkReply::ContentNotFoundError);
}

TEST_F(LoopbackServerTest, StallsLoseAndFlood) {
  const Gate reached, go_on;
  server_.On(
      "/slow",
      Script().Send("HTTP/1.1 200 OK\r\nContent-Le").Signal(reached).Stall(go_on).Send("ngth: 2\r\n\r\nok"));
  server_.On("/reset", Script().Reset());
  server_.On("/drip", Script().Drip(Response(200, {}, "drop by drop"), 7, 1));
  server_.On("/endless", LargeBody(uint64_t{1} << 40));
  QNetworkReply* const slow = Get("/slow");
  ASSERT_TRUE(PumpUntil([&] { return reached.IsOpen(); }));
  EXPECT_EQ(Take(Get("/drip"))->readAll(), "drop by drop");
  EXPECT_EQ(Take(Get("/reset"))->error(), QNetworkReply::RemoteHostClosedError);
  EXPECT_FALSE(slow->isFinished());
  go_on.Open();
  EXPECT_EQ(Take(slow)->readAll(), "ok");
  QNetworkReply* const endless = Get("/endless");
  ASSERT_TRUE(PumpUntil([endless] { return endless->bytesAvailable() > 100'000; }));
  manager_.reset();
  EXPECT_TRUE(server_.WaitForNoConnection());
}

}  // namespace
}  // namespace orvan::test
