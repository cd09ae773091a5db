#include "orvan/net/connection/connection_cache.h"

#include <memory>
#include <thread>

#include "orvan/net/http/http_connection_factory.h"
#include "tests/net/connection/connection_fixture.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan::test {
namespace {

using namespace net;

class ConnectionCacheTest : public ManagerFixture {
 protected:
  RefPtr<ConnectionRefCounter> Make(const char* host) {
    const ServerInfo server(host, 80, false);
    return new ConnectionRefCounter(
        HttpConnectionFactory::CreateHttpConnection(&server, nullptr, 15.0, 30, 1, 0, 0, 0), manager.get());
  }
  // A connection that lives on the cache's reference alone.
  void Add(const char* host) { cache->RefreshOrAddConnection(Make(host).get()); }
  bool Fire() { return pump.FireNow(*cache); }

  SpinLock lock;
  std::unique_ptr<ConnectionCache> cache =
      std::make_unique<ConnectionCache>(60000, &lock, 60.0, 300.0);  // goes before the manager
};

TEST_F(ConnectionCacheTest, IdleConnectionsExpireButNotAtTheVeryMoment) {
  Add("a");
  clock.Advance(60.0);
  ASSERT_TRUE(Fire());
  EXPECT_EQ(cache->GetEntryCount(), 1) << "equal is not over";
  clock.Advance(0.001);
  ASSERT_TRUE(Fire());
  EXPECT_EQ(cache->GetEntryCount(), 0);
  EXPECT_EQ(transport.alive, 1) << "not within Fire()";
  Add("b");
  clock.Advance(61.0);
  ASSERT_TRUE(Fire());
  EXPECT_EQ(transport.alive, 1) << "but the next one takes what the job has left";
  pump.Drain();
  EXPECT_EQ(transport.alive, 0);
}

TEST_F(ConnectionCacheTest, TheDeleterGivesWayBetweenConnections) {
  mmvector<ConnectionCache::ConnectionEntry> entries;
  for (const char* host : {"a", "b"}) entries.push_back({Make(host), 0.0, 0.0});
  ConnectionCache::ConnectionDeleterJob job(std::move(entries));
  EXPECT_EQ(job.Run(CountingContinuator(0), nullptr), AbstractJob::kRunAgain);
  EXPECT_EQ(job.Run(CountingContinuator(0), nullptr), AbstractJob::kFinished);
}

TEST_F(ConnectionCacheTest, UseDoesNotMoveTheFinalExpiry) {
  const RefPtr<ConnectionRefCounter> busy = Make("a");
  for (int second = 0; second <= 300; ++second, clock.Advance(1.0)) {
    cache->RefreshOrAddConnection(busy.get());
    ASSERT_TRUE(Fire());
    ASSERT_EQ(cache->GetEntryCount(), 1) << second;
  }
  ASSERT_TRUE(Fire());  // 301 seconds old, used a second ago
  EXPECT_EQ(cache->GetEntryCount(), 0);
  pump.Drain();
  EXPECT_EQ(transport.alive, 1) << "a request still uses it";
}

// The deleter is inside a step on the main thread when another thread destroys the cache.
TEST_F(ConnectionCacheTest, TheDestructorWaitsForAStepOfTheDeleter) {
  const Watchdog watchdog(60, "the end of a cache");
  const Gate inside, gone;
  bool waited = false;
  transport.destroy_hook = [&](const ServerInfo&) {
    inside.Open();
    waited = !gone.Wait(50);
  };
  Add("a");
  clock.Advance(61.0);
  ASSERT_TRUE(Fire());
  std::thread destroyer([&] {
    EXPECT_TRUE(inside.Wait());
    cache.reset();
    gone.Open();
  });
  pump.Drain();
  destroyer.join();
  EXPECT_TRUE(waited);
  transport.destroy_hook = nullptr;
}

}  // namespace
}  // namespace orvan::test
