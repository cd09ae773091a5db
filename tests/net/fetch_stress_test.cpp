#include <gtest/gtest.h>

#include <QTemporaryFile>
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <list>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "orvan/net/fetcher.h"
#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/http/request_set.h"
#include "orvan/net/identity/auth_cache.h"
#include "orvan/net/identity/cookie_jar.h"
#include "orvan/net/identity/request_signers.h"
#include "orvan/net/kmz_cache.h"
#include "orvan/net/manager/cm_network_manager.h"
#include "orvan/net/manager/network_manager.h"
#include "orvan/net/net_init.h"
#include "orvan/support/cache/memory_reclaimer.h"
#include "orvan/support/thread/lock.h"
#include "orvan/support/thread/worker_thread.h"
#include "tests/libsupport/file/zip_maker.h"
#include "tests/net/fetch_probe.h"
#include "tests/support/loopback_server.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

// Everything at once, from many threads, to more servers than there are connections. How much is done can
// be set by ORVAN_STRESS_OPERATIONS, ORVAN_SHUTDOWN_ROUNDS and ORVAN_SCALE_FETCHES.

namespace orvan::net {
namespace {

using namespace test;

int FromEnvironment(const char* name, int otherwise) {
  const char* const text = std::getenv(name);
  return text ? std::atoi(text) : otherwise;
}

// Several servers that all know the same few paths.
class Servers {
 public:
  explicit Servers(int count) {
    ZipMaker archive;
    for (const char* name : {"doc.kml", "b.txt"}) archive.Add(name, "b");
    for (int i = 0; i < count; ++i) {
      LoopbackServer& server = *servers_.emplace_back(std::make_unique<LoopbackServer>());
      server.On("/ok", Ok(std::string(300, 'x')));
      server.On("/missing", Reply(404));
      server.On("/cut", Reply(200, {{"Content-Length", "100"}}, "abc").Close());
      server.On("/moved", RedirectTo(server.Origin() + "/ok"));
      server.On("/silent", Script().Silent());
      server.On("/long", Reply(200, {}, std::string(3 << 20, 'x')));
      server.On("/a.kmz", Ok(archive.Finish().toStdString()));
    }
  }
  QString Url(unsigned server, const char* path) const {
    return servers_[server % servers_.size()]->Url(path);
  }

 private:
  std::vector<std::unique_ptr<LoopbackServer>> servers_;
};

// One fetch or request.
struct Flight {
  std::atomic<int> calls{0};
  std::atomic<bool> ended{false};  // by its callback, or because somebody stopped it
};

std::list<Flight> s_flights;  // behind the guard of those who start them
SpinLock s_flights_lock;
Semaphore s_room(200);  // how many more may be under way

void End(Flight* flight) {
  if (!flight->ended.exchange(true)) s_room.Post();
}
void Called(Flight* flight) {
  ++flight->calls;
  End(flight);
}

// One thread: goes through the library's doors at random; what belongs to the main thread is asked for there.
struct Hand {
  const Servers& servers;
  const QString file;
  const std::vector<AbstractNetworkManager*> managers;  // the first belongs to the main thread
  std::mt19937 dice;
  MainThreadJobExecutor main_thread{};
  std::vector<std::pair<RefPtr<Fetcher>, Flight*>> held{};
  std::function<void()> own{};
  std::unique_ptr<HttpConnection::RequestCallbacks> signer{};

  void Use(int operations) {
    void (Hand::*const doors[])() = {&Hand::Fetch, &Hand::Fetch,   &Hand::Fetch, &Hand::StopOrDrop,
                                     &Hand::Ask,   &Hand::MakeOwn, &Hand::Change};
    for (int i = 0; i < operations; ++i) (this->*doors[Roll(std::size(doors))])();
    if (own) own();
  }

  unsigned Roll(size_t sides) { return static_cast<unsigned>(dice() % sides); }
  QString Url() {
    const char* const paths[] = {"/ok", "/ok", "/missing", "/cut", "/moved", "/a.kmz", "/a.kmz/b.txt"};
    return servers.Url(Roll(100), paths[Roll(std::size(paths))]);
  }
  static Flight* NewFlight() {
    s_room.wait();
    SpinLockGuard guard(s_flights_lock);
    return &s_flights.emplace_back();
  }
  void OnMainThread(const std::function<void()>& function) { main_thread.ExecuteAsync(function, "stress"); }

  void Fetch() {
    Fetcher::FetchParams params;
    params.url = Roll(8) == 0 ? file : Url();
    params.async = Roll(4) == 0;
    params.use_cache = Roll(2) == 0;
    params.callback = [](Fetcher& fetcher) { Called(static_cast<Flight*>(fetcher.GetUserData())); };
    Flight* const flight = NewFlight();
    params.user_data = flight;
    held.emplace_back(Fetcher::fetch(params, nullptr), flight);
  }
  void StopOrDrop() {
    if (held.empty()) return;
    std::swap(held[Roll(held.size())], held.back());
    if (Roll(2) == 0) OnMainThread([pair = held.back()] { pair.first->Stop(), End(pair.second); });
    held.pop_back();
  }
  void Ask() {
    const unsigned which = Roll(managers.size());
    const auto ask = [manager = managers[which], url = QUrl(Url()), flight = NewFlight(),
                      cut = Roll(4) == 0] {
      const auto id = manager->Get(url, [=](const QByteArray&, const ResponseInfo&) { Called(flight); });
      if (cut) manager->Cancel(id), End(flight);
    };
    which == 0 ? OnMainThread(ask) : ask();
  }
  // A manager and a connection of this thread's own, with requests that end with them at the latest.
  void MakeOwn() {
    if (own) own();
    Flight *const one = NewFlight(), *const two = NewFlight();
    const auto manager = std::make_shared<CmNetworkManager>();
    manager->Init({}, Roll(2) == 0);
    manager->Get(QUrl(Url()), [=](const QByteArray&, const ResponseInfo&) { Called(one); });
    const ServerInfo server(servers.Url(Roll(100), "/"));
    HttpConnection* const connection =
        HttpConnectionFactory::CreateHttpConnection(&server, nullptr, 15, 15, 4, 0, 0, 0);
    const char* const paths[] = {"/ok", "/long", "/silent"};
    HttpRequest* const request = connection->CreateRequest(kHttpGet, paths[Roll(std::size(paths))], nullptr);
    const auto set = std::make_shared<RequestSet>();
    set->AddPendingRequest(request);
    EXPECT_EQ(connection->EnqueueRequest(request, [=] { Called(two); }), kStatusOk);
    if (Roll(3) == 0) set->CancelAllRequests();  // while the worker sends it
    own = [=, manager = manager, cancel = Roll(2) == 0]() mutable {
      if (cancel) set->CancelAllRequests();
      DisposeConnection(connection);
      manager = nullptr;
      for (Flight* flight : {one, two}) End(flight);
    };
  }
  void Change() {
    const QUrl url(Url());
    signer = nullptr;
    if (Roll(2) == 0) signer = std::make_unique<OauthHttpSigner>(url, "key", "token", "secret");
    CookieJar::SetCookieFromUrl({QNetworkCookie("name", QByteArray::number(Roll(5)))}, url);
    if (Roll(8) == 0) CookieJar::ClearAllCookies();
    HttpConnectionFactory::GetOrCreateAuthCache()->SetAuthInfo({url.host(), "realm"}, {"name", "word"});
    if (Roll(8) == 0) HttpConnectionFactory::ClearAuthCache();
    HttpConnectionFactory::SetSecureDomains({QString::number(Roll(5))});
    HttpConnectionFactory::UseSecureConnectionsForQuorex(Roll(2) == 0);
    Fetcher::GetBytesFromKmz(servers.Url(Roll(100), "/a.kmz"), "b.txt");
    if (Roll(8) == 0) Fetcher::GetKmzCache()->Remove(servers.Url(Roll(100), "/a.kmz"));
    MemoryReclaimer::SetBudget(1 << Roll(12));
    OnMainThread([chance = static_cast<int>(Roll(2) * 10)] {
      MemoryReclaimer::RunPass();
      HttpOptions::mockHttpErrorChance() = chance;
    });
  }
};

TEST(FetchStressTest, FourThreadsLoseAndDoubleNothing) {
  const Watchdog watchdog(1800, "the stress of four threads");
  const int operations = FromEnvironment("ORVAN_STRESS_OPERATIONS", 8000);
  QTemporaryFile file;
  ASSERT_TRUE(file.open());
  const auto servers = std::make_unique<Servers>(6);
  Fetcher::GetKmzCache()->SetKmzTmpDir(file.fileName() + ".kmz");
  Init(QString(), QString());
  FetchProbe probe;  // once, so that what the process keeps for good is there before the counting
  probe.Start(servers->Url(0, "/ok"));
  ASSERT_TRUE(PumpUntil([&] { return probe.calls > 0; }));
  Shutdown();
  const int threads_before = CountThreads();
  const int descriptors_before = CountDescriptors();

  Init(QString(), QString());
  WorkerThread worker("stress worker");
  Fetcher::SetWorkerThread(&worker);
  {
    NetworkManager plain;
    CmNetworkManager deferred, direct;
    deferred.Init({}, true);
    direct.Init({}, false);
    std::vector<std::thread> threads;
    std::atomic<int> running{4};
    for (unsigned seed : {1u, 2u, 3u, 4u}) {
      threads.emplace_back([&, seed] {
        Hand{*servers, file.fileName(), {&plain, &deferred, &direct}, std::mt19937(seed)}.Use(operations / 4);
        --running;
      });
    }
    EXPECT_TRUE(PumpUntil([&] { return running == 0; }, 1700000));
    for (std::thread& thread : threads) thread.join();
    for (const Flight& flight : s_flights)
      EXPECT_TRUE(flight.ended || PumpUntil([&] { return flight.ended.load(); }));
    PumpFor(20);  // a second callback of anything would come now
    for (const Flight& flight : s_flights) EXPECT_LE(flight.calls, 1);
  }
  HttpOptions::mockHttpErrorChance() = 0;
  MemoryReclaimer::SetBudget(MemoryReclaimer::kDefaultBudget);
  Fetcher::SetWorkerThread(nullptr);
  Shutdown();
  EXPECT_TRUE(PumpUntil([&] { return CountThreads() <= threads_before + 1; })) << "the worker";
  EXPECT_TRUE(PumpUntil([&] { return CountDescriptors() <= descriptors_before + 3; }));
}

TEST(FetchStressTest, ShutsDownWithAHundredInFlight) {
  const Watchdog watchdog(900, "shutting down with fetches in flight");
  const int rounds = FromEnvironment("ORVAN_SHUTDOWN_ROUNDS", UnderSanitizer() ? 40 : 200);
  const Servers servers(6);
  WorkerThread worker("shutdown worker");  // starts fetches while the library stops
  Fetcher::SetWorkerThread(&worker);
  std::mt19937 dice(1);
  int threads_before = 0;
  for (int round = 0; round <= rounds; ++round) {
    if (round == 1) threads_before = CountThreads();  // what the process keeps for good is there by now
    Init(QString(), QString());
    std::vector<FetchProbe> probes(100);
    for (FetchProbe& probe : probes) {
      probe.params.async = dice() % 2 == 0;
      probe.Start(servers.Url(static_cast<unsigned>(dice()), dice() % 3 == 0 ? "/silent" : "/ok"));
    }
    const int enough = static_cast<int>(dice() % 10);
    const auto called = [](const FetchProbe& probe) { return probe.calls > 0; };
    EXPECT_TRUE(PumpUntil([&] { return std::count_if(probes.begin(), probes.end(), called) >= enough; }));
    Shutdown();
    for (FetchProbe& probe : probes) {
      EXPECT_LE(probe.calls, 1);
      probe.fetcher->Stop();
    }
  }
  EXPECT_TRUE(PumpUntil([&] { return CountThreads() <= threads_before; }));
  Fetcher::SetWorkerThread(nullptr);
}

TEST(FetchStressTest, ServesTenThousandQueuedAtOnce) {
  const Watchdog watchdog(900, "ten thousand fetches queued at once");
  const int fetches = FromEnvironment("ORVAN_SCALE_FETCHES", UnderSanitizer() ? 4000 : 10000);
  const Servers servers(40);
  Init(QString(), QString());
  std::vector<FetchProbe> probes(static_cast<size_t>(fetches));
  unsigned next = 0;
  for (FetchProbe& probe : probes) probe.Start(servers.Url(next++, "/ok"));
  size_t done = 0;
  const auto all_done = [&] {
    while (done < probes.size() && probes[done].calls > 0) ++done;
    return done == probes.size();
  };
  EXPECT_TRUE(PumpUntil(all_done, 800000));
  for (const FetchProbe& probe : probes) EXPECT_TRUE(probe.calls == 1 && probe.state == kFetchSuccess);
  Shutdown();
}

}  // namespace
}  // namespace orvan::net
