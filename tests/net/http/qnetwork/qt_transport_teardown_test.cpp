// Cancelling, and taking a connection apart: at every moment, on its own threads.

#include <sys/resource.h>

#include "tests/net/http/qnetwork/transport_probe.h"
#include "tests/support/loopback_server.h"
#include "tests/support/watchdog.h"

namespace orvan::net::test {
namespace {

// Sends a head and half of what that promises.
Script HalfABody(const Gate& half_sent) {
  return Script(Reply(200, {{"Content-Length", "8388608"}})).Endless(1 << 22).Signal(half_sent).Silent();
}

TEST(QtTransportCancelTest, ACancelledRequestEndsWithoutAConnection) {
  Gate half_sent;
  LoopbackServer server;
  server.On("/before-head", Script().Silent());
  server.On("/mid-body", HalfABody(half_sent));
  Transport transport(server.port());
  const auto cancel = [](Exchange& exchange) {
    exchange->Cancel();
    EXPECT_TRUE(exchange.Wait());
    EXPECT_EQ(exchange.status(), kStatusNoConnection);
    EXPECT_TRUE(exchange.HasBuffer() && exchange.body().isEmpty() && exchange.headers().isEmpty());
  };
  Exchange at_once(transport, "/before-head");
  ASSERT_EQ(at_once.Send(), kStatusOk);
  cancel(at_once);
  Exchange waiting(transport, "/before-head");
  ASSERT_EQ(waiting.Send(), kStatusOk);
  EXPECT_EQ(waiting.Send(), kStatusFailed) << "it is in flight already";
  ASSERT_TRUE(server.WaitForHits("/before-head", 1));
  cancel(waiting);
  // Its status of 200 is known by then, and must not make a success of it.
  Exchange receiving(transport, "/mid-body");
  ASSERT_EQ(receiving.Send(), kStatusOk);
  ASSERT_TRUE(half_sent.Wait());
  cancel(receiving);
  // What is not in flight, or not any more, does not notice.
  Exchange quick(transport, "/missing");
  quick->Cancel();
  ASSERT_TRUE(quick.Run());
  for (const bool gone : {false, true}) {
    if (gone) transport.Dispose();
    quick->Cancel();
    EXPECT_EQ(quick.status(), kStatusHttpError | 404);
  }
}

TEST(QtTransportTeardownTest, RequestsInFlightVanish) {
  Gate half_sent;
  LoopbackServer server;
  server.On("/silent", Script().Silent());
  server.On("/mid-body", HalfABody(half_sent));
  const auto expect_vanished = [](const Exchange& exchange) {
    exchange->Cancel();  // of no effect, and of no harm, when the connection has gone
    EXPECT_FALSE(exchange.IsDone());
    EXPECT_EQ(exchange.status(), 0u);
    EXPECT_EQ(exchange->getRefCount(), 1);
  };
  {
    Transport transport(server.port());
    Exchange silent(transport, "/silent"), receiving(transport, "/mid-body");
    ASSERT_EQ(silent.Send(), kStatusOk);
    ASSERT_EQ(receiving.Send(), kStatusOk);
    ASSERT_TRUE(half_sent.Wait() && server.WaitForHits("/silent", 1));
    transport.Dispose();
    expect_vanished(silent);
    expect_vanished(receiving);
  }
  for (int round = 0; round < 20; ++round) {  // before, while and after the worker sends
    Transport transport(server.port());
    Exchange unsent(transport, "/silent");
    ASSERT_EQ(unsent.Send(), kStatusOk);
    transport.Dispose();
    expect_vanished(unsent);
  }
  EXPECT_TRUE(server.WaitForConnections(0));
}

// GLib would end the process.
TEST(QtTransportTeardownTest, NoConnectionIsMadeWithoutDescriptors) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit low{static_cast<rlim_t>(CountDescriptors() + 8), limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  const ServerInfo server("127.0.0.1", 1, false);
  EXPECT_EQ(QtHttpConnectionFactory().create(&server, nullptr, 15.0, 0, 1), nullptr);
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

// Never on itself, never for ever, and with nothing left behind.
TEST(QtTransportTeardownTest, AConnectionMayEndOnItsOwnThreads) {
  Watchdog guard(60, "a connection destroyed on one of its own threads");
  LoopbackServer server;
  server.On("/", Ok("ok"));
  const int threads = CountThreads();

  Transport own_callback(server.port());
  Exchange first(own_callback, "/");
  first.on_done = [&own_callback] { own_callback.Dispose(); };
  ASSERT_TRUE(first.Run());
  EXPECT_EQ(first.body(), "ok");

  // The worker asks the domain for the body's memory, which is how the test comes to run on it.
  struct ActingDomain : MemoryManager {
    bool Reserve(size_t bytes) override {
      if (act) std::exchange(act, nullptr)();
      return MemoryManager::Reserve(bytes);
    }
    std::function<void()> act;
  };
  static ActingDomain domain;
  Transport own_worker(server.port(), "127.0.0.1", false, QString(), &domain);
  domain.act = [&own_worker] { own_worker.Dispose(); };
  Exchange second(own_worker, "/");
  ASSERT_EQ(second.Send(), kStatusOk);
  EXPECT_TRUE(SpinUntil([&] { return second->getRefCount() == 1; }));

  // Nor on a worker that is busy, whatever a server has sent it.
  Transport busy(server.port(), "127.0.0.1", false, QString(), &domain);
  const Gate begun, over;
  domain.act = [=] { begun.Open(), (void)over.Wait(); };
  Exchange third(busy, "/");
  ASSERT_EQ(third.Send(), kStatusOk);
  ASSERT_TRUE(begun.Wait());
  busy.Dispose();
  EXPECT_EQ(third->getRefCount(), 2) << "the worker still has it";
  over.Open();
  EXPECT_TRUE(SpinUntil([&] { return third->getRefCount() == 1; }));
  EXPECT_FALSE(third.IsDone());
  EXPECT_TRUE(server.WaitForConnections(0));
  EXPECT_TRUE(SpinUntil([&] { return CountThreads() <= threads; }));
}

}  // namespace
}  // namespace orvan::net::test
