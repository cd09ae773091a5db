// The places where threads meet in ConnectionManager, each forced.
#include <atomic>
#include <future>
#include <random>
#include <set>
#include <thread>

#include "tests/net/connection/connection_fixture.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan::test {
namespace {

using namespace net;

using ConnectionRaceTest = ManagerFixture;

// The callback thread is inside the callback, which holds the request's own lock, and goes for the manager's
// while the canceller waits for the callback to end.
TEST_F(ConnectionRaceTest, CancelWaitsForARunningCallbackThatNeedsTheManager) {
  const Watchdog watchdog(60, "CancelRequest() against a callback on the callback thread");
  MakeManager(4, false);
  const Gate inside;
  std::atomic<bool> over{false};
  recorder.inside = [&](NetworkRequest*) {
    inside.Open();
    EXPECT_TRUE(SpinUntil([this] { return manager->GetActiveCount() == 0; })) << "the canceller has come";
    Send("a", "/from the callback");
    over = true;
  };
  const RefPtr<NetworkRequest> request = Send("a", "/1");
  ASSERT_TRUE(transport.Complete("/1"));
  ASSERT_TRUE(inside.Wait());
  manager->CancelRequest(request.get());
  EXPECT_TRUE(over) << "CancelRequest() came back too early";
  EXPECT_NE(recorder.Get().at(0).thread, System::CurrentThreadId());
}

TEST_F(ConnectionRaceTest, TheDestructorWaitsForACallbackOnTheCallbackThread) {
  const Watchdog watchdog(60, "~ConnectionManager() against a callback on the callback thread");
  MakeManager(4, false);
  const Gate inside;
  const Gate go_on;
  std::atomic<bool> over{false};
  ConnectionManager* const alive = manager.get();
  recorder.inside = [&](NetworkRequest* request) {
    inside.Open();
    EXPECT_TRUE(go_on.Wait());
    for (int i = 0; i < 100; ++i) alive->CancelRequest(request);
    over = true;
  };
  Send("a", "/1");
  Send("b", "/2");
  ASSERT_TRUE(transport.Complete("/1"));
  ASSERT_TRUE(inside.Wait());
  auto opener = std::async(std::launch::async, [&] { go_on.Open(); });
  manager.reset();
  EXPECT_TRUE(over);
}

// What ends a connection joins its threads, and one of them may want the manager's lock.
TEST_F(ConnectionRaceTest, AConnectionEndsBehindTheLock) {
  const Watchdog watchdog(60, "the end of a connection");
  MakeManager(1, true);
  std::atomic<int> free_ends{0};
  transport.destroy_hook = [&](const ServerInfo&) {
    std::async(std::launch::async, [this] { return manager->GetConnectionCount(); }).get();
    ++free_ends;
  };
  Send("a", "/a");
  Finish("/a");
  ASSERT_TRUE(Pass());
  Send("b", "/b");  // evicts the first, within a pass
  EXPECT_EQ(free_ends, 1);
  Send("c", "/c");
  Finish("/b");
  ASSERT_TRUE(Pass());  // the evicted one ends with its finished request
  EXPECT_EQ(free_ends, 2);
  transport.destroy_hook = nullptr;
}

// Every request ends once, or is cancelled; nothing is left over.
class ConnectionStressTest : public ::testing::TestWithParam<bool> {};

TEST_P(ConnectionStressTest, FourThreadsEnqueueCancelAndComplete) {
  const Watchdog watchdog(200, "four threads on one manager");
  constexpr int kThreads = 4;
  constexpr int kRounds = 1500;
  ScriptedTransport transport;
  Recorder recorder;
  std::atomic<int> cancelled{0};
  {
    ConnectionManager manager(4, 2, GetParam(), 60.0, 30, 1);
    std::vector<std::thread> threads;
    std::atomic<int> running{kThreads};
    for (int seed = 0; seed < kThreads; ++seed) {
      threads.emplace_back([&, seed] {
        std::mt19937 dice(static_cast<unsigned int>(seed));
        std::vector<RefPtr<NetworkRequest>> mine;
        for (int round = 0; round < kRounds; ++round) {
          const ServerInfo server(QString("s%1").arg(dice() % 6), 80, false);
          const QString url = QString("/%1/%2").arg(seed).arg(round);
          // Every third is dropped at once: the manager alone keeps it.
          const auto request =
              manager.EnqueueRequest(server, NetworkRequest::Info(url, {}, true, &recorder, nullptr));
          if (round % 3 != 0) mine.push_back(request);
          if (dice() % 4 == 0 && !mine.empty()) {
            std::swap(mine[dice() % mine.size()], mine.back());
            manager.CancelRequest(mine.back().get());
            mine.pop_back();
            ++cancelled;
          }
          if (dice() % 8 == 0) transport.CompleteAll();
        }
        --running;
      });
    }
    EXPECT_TRUE(PumpUntil(
        [&] {
          transport.CompleteAll();
          return running == 0 && manager.GetActiveCount() + manager.GetOutstandingCount() == 0;
        },
        150000));
    for (std::thread& thread : threads) thread.join();
  }
  std::set<QString> urls;
  for (const auto& delivery : recorder.Get()) urls.insert(delivery.url);
  EXPECT_EQ(urls.size(), recorder.Count()) << "a result came twice";
  EXPECT_GE(static_cast<int>(urls.size()) + cancelled, kThreads * kRounds) << "a result was lost";
  EXPECT_EQ(transport.alive, 0);
  EXPECT_EQ(transport.requests_alive, 0);
}

INSTANTIATE_TEST_SUITE_P(BothWays, ConnectionStressTest, ::testing::Values(true, false),
                         [](const auto& row) { return row.param ? "Deferred" : "OnTheCallbackThread"; });

}  // namespace
}  // namespace orvan::test
