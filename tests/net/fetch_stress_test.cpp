#include <gtest/gtest.h>

#include <QTemporaryFile>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "orvan/net/fetcher.h"
#include "orvan/net/kmz_cache.h"
#include "orvan/net/net_init.h"
#include "orvan/support/thread/lock.h"
#include "orvan/support/thread/worker_thread.h"
#include "tests/libsupport/file/zip_maker.h"
#include "tests/net/fetch_probe.h"
#include "tests/support/loopback_server.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

// Many fetches at once, from many threads, to more servers than there are connections. How much is done can
// be set by ORVAN_STRESS_OPERATIONS, ORVAN_SHUTDOWN_ROUNDS and ORVAN_SCALE_FETCHES.

namespace orvan::net {
namespace {

using test::LoopbackServer;
using test::PumpUntil;

int FromEnvironment(const char* name, int otherwise) {
  const char* const text = std::getenv(name);
  return text ? std::atoi(text) : otherwise;
}

// Several servers that all know the same few paths.
class Servers {
 public:
  explicit Servers(int count) {
    test::ZipMaker archive;
    for (const char* name : {"doc.kml", "b.txt"}) archive.Add(name, "b");
    for (int i = 0; i < count; ++i) {
      servers_.push_back(std::make_unique<LoopbackServer>());
      LoopbackServer& server = *servers_.back();
      server.On("/ok", test::Ok(std::string(300, 'x')));
      server.On("/missing", test::Reply(404));
      server.On("/cut", test::CutBody("abc", 100));
      server.On("/moved", test::RedirectTo(server.Origin() + "/ok"));
      server.On("/silent", test::Script().Silent());
      server.On("/a.kmz", test::Ok(archive.Finish().toStdString()));
    }
  }
  QString Url(unsigned server, const char* path) const {
    return servers_[server % servers_.size()]->Url(path);
  }

 private:
  std::vector<std::unique_ptr<LoopbackServer>> servers_;
};

// What became of one fetch.
struct Flight {
  std::atomic<int> calls{0};
  std::atomic<bool> stopped{false};
};

Semaphore* s_room = nullptr;  // of the test that runs: how many more fetches may be under way
std::atomic<int> s_ended{0};

void End() {
  ++s_ended;
  s_room->Post();
}

void NoteCallback(Fetcher& fetcher) {
  auto* const flight = static_cast<Flight*>(fetcher.GetUserData());
  if (flight->calls.fetch_add(1) == 0 && !flight->stopped) End();
}

// One of the threads: starts, stops and drops fetches at random. Stopping belongs to the main thread, so it
// is asked for there.
void StartStopDrop(unsigned seed, int operations, const Servers& servers, const QString& file,
                   std::vector<std::unique_ptr<Flight>>* flights) {
  std::mt19937 dice(seed);
  MainThreadJobExecutor main_thread;
  std::vector<std::pair<RefPtr<Fetcher>, Flight*>> held;
  const char* const paths[] = {"/ok", "/ok", "/ok", "/missing", "/cut", "/moved", "/a.kmz", "/a.kmz/b.txt"};
  for (int i = 0; i < operations; ++i) {
    const auto what = static_cast<unsigned>(dice() % 10);
    if (what < 5 || held.empty()) {
      s_room->wait();
      flights->push_back(std::make_unique<Flight>());
      Fetcher::FetchParams params;
      params.url = dice() % 8 == 0 ? file : servers.Url(static_cast<unsigned>(dice()), paths[dice() % 8]);
      params.async = dice() % 4 == 0;
      params.use_cache = dice() % 2 == 0;
      params.callback = &NoteCallback;
      params.user_data = flights->back().get();
      held.emplace_back(Fetcher::fetch(params, nullptr), flights->back().get());
      continue;
    }
    const size_t which = dice() % held.size();
    if (what < 7) {
      const RefPtr<Fetcher> fetcher = held[which].first;
      Flight* const flight = held[which].second;
      main_thread.ExecuteAsync(
          [fetcher, flight] {
            fetcher->Stop();
            if (!flight->stopped.exchange(true) && flight->calls == 0) End();
          },
          "stop");
    }
    held[which] = held.back();
    held.pop_back();
  }
}

TEST(FetchStressTest, FourThreadsLoseAndDoubleNothing) {
  const test::Watchdog watchdog(900, "the stress of four threads");
  const int operations = FromEnvironment("ORVAN_STRESS_OPERATIONS", 50000);
  QTemporaryFile file;
  ASSERT_TRUE(file.open());
  const auto servers = std::make_unique<Servers>(6);
  Fetcher::GetKmzCache()->SetKmzTmpDir(file.fileName() + ".kmz");
  Init(QString(), QString());
  {  // once, so that what the process keeps for good is there before the counting
    test::FetchProbe probe;
    probe.Start(servers->Url(0, "/ok"));
    ASSERT_TRUE(PumpUntil([&] { return probe.calls > 0; }));
  }
  Shutdown();
  const int threads_before = test::CountThreads();
  const int descriptors_before = test::CountDescriptors();

  Init(QString(), QString());
  WorkerThread worker("stress worker");
  Fetcher::SetWorkerThread(&worker);
  Semaphore room(200);
  s_room = &room;
  constexpr int kThreads = 4;
  std::vector<std::unique_ptr<Flight>> flights[kThreads];
  std::vector<std::thread> threads;
  std::atomic<int> running{kThreads};
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      StartStopDrop(static_cast<unsigned>(i + 1), operations / kThreads, *servers, file.fileName(),
                    &flights[i]);
      --running;
    });
  }
  EXPECT_TRUE(PumpUntil([&] { return running == 0; }, 800000));
  for (std::thread& thread : threads) thread.join();
  size_t started = 0;
  for (const auto& mine : flights) started += mine.size();
  EXPECT_TRUE(PumpUntil([&] { return s_ended == static_cast<int>(started); }));
  test::PumpFor(20);  // a second callback of anything would come now

  for (const auto& mine : flights) {
    for (const auto& flight : mine) {
      EXPECT_LE(flight->calls, 1);
      EXPECT_TRUE(flight->stopped || flight->calls == 1);
    }
  }
  Fetcher::SetWorkerThread(nullptr);
  Shutdown();
  EXPECT_TRUE(PumpUntil([&] { return test::CountThreads() <= threads_before + 1; }))
      << "the worker is the one more";
  EXPECT_TRUE(PumpUntil([&] { return test::CountDescriptors() <= descriptors_before + 3; }));
}

TEST(FetchStressTest, ShutsDownWithAHundredInFlight) {
  const test::Watchdog watchdog(900, "shutting down with fetches in flight");
  const int rounds = FromEnvironment("ORVAN_SHUTDOWN_ROUNDS", 200);
  const Servers servers(6);
  WorkerThread worker("shutdown worker");  // starts fetches while the library stops
  Fetcher::SetWorkerThread(&worker);
  std::mt19937 dice(1);
  int threads_before = 0;
  for (int round = 0; round <= rounds; ++round) {
    if (round == 1) threads_before = test::CountThreads();  // what the process keeps for good is there by now
    Init(QString(), QString());
    std::vector<test::FetchProbe> probes(100);
    for (test::FetchProbe& probe : probes) {
      probe.params.async = dice() % 2 == 0;
      probe.Start(servers.Url(static_cast<unsigned>(dice()), dice() % 3 == 0 ? "/silent" : "/ok"));
    }
    const int enough = static_cast<int>(dice() % 40);
    EXPECT_TRUE(PumpUntil([&] {
      int calls = 0;
      for (const test::FetchProbe& probe : probes) calls += probe.calls;
      return calls >= enough / 4;
    }));
    Shutdown();
    for (test::FetchProbe& probe : probes) {
      EXPECT_LE(probe.calls, 1);
      probe.fetcher->Stop();
    }
  }
  EXPECT_TRUE(PumpUntil([&] { return test::CountThreads() <= threads_before; }));
  Fetcher::SetWorkerThread(nullptr);
}

TEST(FetchStressTest, ServesTenThousandQueuedAtOnce) {
  const test::Watchdog watchdog(900, "ten thousand fetches queued at once");
  const int fetches = FromEnvironment("ORVAN_SCALE_FETCHES", 10000);
  const Servers servers(40);
  Init(QString(), QString());
  std::vector<test::FetchProbe> probes(static_cast<size_t>(fetches));
  unsigned next = 0;
  for (test::FetchProbe& probe : probes) probe.Start(servers.Url(next++, "/ok"));
  size_t done = 0;
  EXPECT_TRUE(PumpUntil(
      [&] {
        while (done < probes.size() && probes[done].calls > 0) ++done;
        return done == probes.size();
      },
      800000));
  for (const test::FetchProbe& probe : probes) {
    EXPECT_EQ(probe.calls, 1);
    EXPECT_EQ(probe.state, kFetchSuccess);
  }
  Shutdown();
}

}  // namespace
}  // namespace orvan::net
