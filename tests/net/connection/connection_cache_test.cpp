#include "orvan/net/connection/connection_cache.h"

#include <memory>

#include "orvan/net/http/http_connection_factory.h"
#include "tests/net/connection/connection_fixture.h"

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
  pump.Drain();
  EXPECT_EQ(transport.alive, 0);
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
  cache->RefreshOrAddConnection(busy.get());
  clock.Advance(59.0);
  ASSERT_TRUE(Fire());
  EXPECT_EQ(cache->GetEntryCount(), 1) << "a new entry has a new age";
}

TEST_F(ConnectionCacheTest, TheDeleterGivesWayBetweenConnectionsAndStartsAtTheBack) {
  QStringList ended;
  transport.destroy_hook = [&ended](const ServerInfo& server) { ended << server.host(); };
  mmvector<ConnectionCache::ConnectionEntry> entries;
  for (const char* host : {"a", "b", "c"}) entries.push_back({Make(host), 0.0, 0.0});
  const RefPtr<ConnectionCache::ConnectionDeleterJob> job =
      new ConnectionCache::ConnectionDeleterJob(std::move(entries));
  const CountingContinuator never(0);
  EXPECT_EQ(job->Run(never, nullptr), AbstractJob::kRunAgain);
  EXPECT_EQ(job->Run(never, nullptr), AbstractJob::kRunAgain);
  EXPECT_EQ(job->Run(never, nullptr), AbstractJob::kFinished);
  EXPECT_EQ(never.asked(), 2) << "not asked once there is nothing left";
  EXPECT_EQ(ended, QStringList({"c", "b", "a"}));
  EXPECT_EQ(job->Run(never, nullptr), AbstractJob::kFinished);
  transport.destroy_hook = nullptr;
}

TEST_F(ConnectionCacheTest, FireAndDestructionEmptyAJobThatHasNotRun) {
  for (const bool destroy : {false, true}) {
    Add("a");
    clock.Advance(61.0);
    ASSERT_TRUE(Fire());
    ASSERT_EQ(pump.GetLength(), 1);
    if (destroy) Add("b");
    destroy ? cache.reset() : (void)Fire();
    EXPECT_EQ(transport.alive, 0);
    EXPECT_EQ(pump.GetLength(), 1) << "no new job";
    pump.Drain();
  }
}

}  // namespace
}  // namespace orvan::test
