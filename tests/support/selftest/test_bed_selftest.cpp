// The test bed tested: with plain Qt, without the libraries that it is there to test.

#include <gtest/gtest.h>

#include <QNetworkAccessManager>
#include <QNetworkReply>

#include "tests/support/loopback_server.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan::test {
namespace {

// What tests that fail would otherwise blame on the library: stalls and losses come when they are asked for.
TEST(LoopbackServerTest, StallsLosesAndFloods) {
  const Watchdog watchdog(60, "a test of the loopback server");
  const Gate reached, go_on;
  LoopbackServer server;
  server.On(
      "/slow",
      Script().Send("HTTP/1.1 200 OK\r\nContent-Le").Signal(reached).Stall(go_on).Send("ngth: 2\r\n\r\nok"));
  server.On("/reset", Script().Reset());
  server.On("/drip", Script().Drip(Response(200, {}, "drop by drop"), 7, 1));
  server.On("/endless", LargeBody(uint64_t{1} << 40));
  {
    QNetworkAccessManager manager;
    const auto get = [&](const char* path) { return manager.get(QNetworkRequest(QUrl(server.Url(path)))); };
    const auto end = [](QNetworkReply* reply) {
      EXPECT_TRUE(PumpUntil([reply] { return reply->isFinished(); }));
      return reply;  // goes with the manager
    };
    QNetworkReply* const slow = get("/slow");
    ASSERT_TRUE(PumpUntil([&] { return reached.IsOpen(); }));
    EXPECT_EQ(end(get("/drip"))->readAll(), "drop by drop");
    EXPECT_EQ(end(get("/reset"))->error(), QNetworkReply::RemoteHostClosedError);
    EXPECT_FALSE(slow->isFinished());
    go_on.Open();
    EXPECT_EQ(end(slow)->readAll(), "ok");
    QNetworkReply* const endless = get("/endless");
    ASSERT_TRUE(PumpUntil([endless] { return endless->bytesAvailable() > 100'000; }));
  }
  EXPECT_TRUE(server.WaitForConnections(0));
}

}  // namespace
}  // namespace orvan::test
