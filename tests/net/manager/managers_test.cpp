// Both managers: what they do alike, and where they differ.

#include <QJsonDocument>
#include <QJsonObject>
#include <future>
#include <set>
#include <thread>

#include "orvan/net/identity/cookie_jar.h"
#include "orvan/net/manager/cm_network_manager.h"
#include "orvan/net/manager/manager_rules.h"
#include "orvan/net/manager/network_manager.h"
#include "orvan/support/thread/system.h"
#include "tests/support/real_server.h"
#include "tests/support/scripted_transport.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan::net {
namespace {

using namespace test;

enum Kind { kPlain, kDeferred, kDirect };  // a connection each, or shared ones with either kind of completion

std::unique_ptr<AbstractNetworkManager> MakeManager(Kind kind) {
  if (kind == kPlain) return std::make_unique<NetworkManager>();
  auto manager = std::make_unique<CmNetworkManager>();
  for (const char* line : {"X-First: default", "X-Second: default"}) manager->Init({line}, kind == kDeferred);
  return manager;
}

QUrl UrlOf(size_t server) { return QUrl(QString("http://s%1/").arg(server)); }

// Notes what callables are given.
struct Inbox {
  struct Delivery {
    unsigned int id, status;
    QByteArray body;
    QStringList headers;  // "none" for null
    bool on_main_thread;
  };
  // A callable, for any number of requests. Runs `inside` before it notes.
  AbstractNetworkManager::ResponseCallback Callable(const std::function<void()>& inside = [] {}) {
    return [this, inside, held = token](const QByteArray& body, const ResponseInfo& info) {
      inside();
      QStringList lines("none");
      if (info.headers) lines = QStringList(info.headers->headers.begin(), info.headers->headers.end());
      const std::lock_guard<std::mutex> guard(mutex);
      deliveries.push_back({info.request_id, info.status, body, lines, System::IsMainThread()});
    };
  }
  std::vector<Delivery> Get() const {
    const std::lock_guard<std::mutex> guard(mutex);
    return deliveries;
  }
  int Count() const { return static_cast<int>(Get().size()); }
  int Held() const { return static_cast<int>(token.use_count()) - 1; }  // callables that somebody has
  bool WaitForHeld(int count) const {
    return PumpUntil([this, count] { return Held() == count; });
  }
  mutable std::mutex mutex;
  std::vector<Delivery> deliveries;
  const std::shared_ptr<int> token = std::make_shared<int>();
};

// Notes the body, and the cache options, which no transport here heeds.
struct SendWatch : HttpConnection::RequestCallbacks {
  bool PreSendRequest(HttpConnection*, HttpRequest* request) override {
    cache = QString("%1 %2").arg(request->GetCacheRead()).arg(request->GetCacheWrite());
    body = request->GetRequestBuffer() ? request->GetRequestBuffer()->ToQByteArray() : QByteArray();
    return true;
  }
  bool PreCompleteRequest(HttpConnection*, HttpRequest*) override { return true; }
  QString cache;
  QByteArray body;
};

TEST(ManagersTest, AServerSeesTheOptions) {
  const QMap<QByteArray, QByteArray> headers{
      {"x-a", "2"}, {"X-A", "1"}, {"X-Nul", {"a\0b", 3}}, {"X-Second", "own"}};
  const auto never = [] { ADD_FAILURE() << "nobody calls it"; };
  const RequestOptions set{kHttpPut, headers, {{"b", "2"}, {"a", "1"}}, {"a\0b", 3}, true, false, never, 77};
  // Of NetworkManager, of CmNetworkManager. The line of cookies takes the place of the first header line.
  const QString all("PUT|a b|2|a|-|own|$Version=\"0\"; a=1; b=2|-|77|yes|");
  const QString all_set[] = {all + "1 1", all + "0 0"},
                defaults[] = {"GET||-|-|-|-|-|application/|1|no|1 1",
                              "GET||-|-|default|default|-|-|1|no|1 1"};
  HttpbinServer server;
  ASSERT_TRUE(server.Start());
  SendWatch watch;
  for (const Kind kind : {kPlain, kDeferred, kDirect}) {
    CookieJar::ClearAllCookies();
    for (const auto& options : {RequestOptions(), set}) {
      const auto manager = MakeManager(kind);
      Inbox inbox;
      manager->Request(server.Url("/anything"), options, inbox.Callable());
      ASSERT_TRUE(inbox.WaitForHeld(0));
      const Inbox::Delivery got = inbox.Get().at(0);
      const QJsonObject json = QJsonDocument::fromJson(got.body).object();
      QStringList seen{json["method"].toString(), json["data"].toString().replace(QChar(0), ' ')};
      for (const char* name : {"X-A", "X-Nul", "X-First", "X-Second", "Cookie", "Accept"}) {
        seen << json["headers"].toObject()[name].toString("-").section("vnd.", 0, 0);
      }
      seen << QString::number(got.id)
           << (got.headers.contains("Content-Type: application/json") ? "yes" : "no");
      EXPECT_EQ((seen << watch.cache).join("|"), (options.use_cache ? defaults : all_set)[kind != kPlain]);
    }
  }
  CookieJar::ClearAllCookies();
}

TEST(ManagersTest, NumbersWrapAroundPastZero) {
  RequestIds ids(4294967295u);
  for (const unsigned int id : {4294967295u, 1u, 2u}) EXPECT_EQ(ids.ComputeRequestId(0), id);
}

class BothManagersTest : public testing::TestWithParam<Kind> {
 protected:
  unsigned int Send(const QString& path, unsigned int id = 0) {
    return manager->Request("http://a" + path, {kHttpGet, {}, {}, "body", true, true, {}, id},
                            inbox.Callable());
  }

  ScriptedTransport transport;
  Inbox inbox;
  std::unique_ptr<AbstractNetworkManager> manager = MakeManager(GetParam());
};
INSTANTIATE_TEST_SUITE_P(Kinds, BothManagersTest, testing::Values(kPlain, kDeferred, kDirect));

TEST_P(BothManagersTest, DeliverOnTheirThread) {
  transport.AnswerAll({kStatusNoConnection, "", {}});
  EXPECT_EQ(Send("/a", 7), 7u);
  EXPECT_EQ(Send("/b"), 1u);
  ASSERT_TRUE(inbox.WaitForHeld(0));
  for (const auto& got : inbox.Get()) {
    EXPECT_EQ(got.status, kStatusNoConnection);
    EXPECT_EQ(got.headers, QStringList("none")) << "asked for, but the response has none";
    EXPECT_EQ(got.body.isNull(), GetParam() == kPlain) << "nothing came";
    EXPECT_EQ(got.on_main_thread, GetParam() != kDirect);
  }
}

TEST_P(BothManagersTest, DoNotDeliverWhatIsCancelled) {
  for (const unsigned int id : {0u, 1u, Send("/a")}) manager->Cancel(id);
  EXPECT_TRUE(transport.GetHeldUrls().isEmpty());
  const unsigned int over = Send("/b");
  transport.CompleteAll(ScriptedTransport::kHere);
  manager->Cancel(over);
  ASSERT_TRUE(inbox.WaitForHeld(0)) << "callables go with their requests";
  const int before = inbox.Count();
  EXPECT_EQ(before, GetParam() == kDirect) << "the main thread had not heard of it";

  unsigned int own = 0, other = 0;
  own = manager->Get(QUrl("http://a/own"), inbox.Callable([&] {
    for (const unsigned int id : {own, other}) manager->Cancel(id);
    Send("/more", 99);
  }));
  other = Send("/other");
  transport.Complete("/own");
  ASSERT_TRUE(PumpUntil([&] { return transport.GetHeldUrls() == QStringList("/more"); }));
  transport.CompleteAll();
  ASSERT_TRUE(inbox.WaitForHeld(0));
  manager->Cancel(own);
  EXPECT_EQ(inbox.Get().back().id, 99u);
  EXPECT_EQ(inbox.Count(), before + 2);
}

// The managers differ in which of the two a number stands for, and agree in the rest.
TEST_P(BothManagersTest, TakeANumberTwice) {
  for (const char* first : {"", "/a", "/b"}) {
    for (const char* path : {"/a", "/b"}) EXPECT_EQ(Send(path, 7), 7u);
    const bool ended = transport.Complete(first);
    ASSERT_TRUE(inbox.WaitForHeld(ended ? 1 : 2));
    manager->Cancel(7);
    const QStringList left = transport.GetHeldUrls();
    EXPECT_EQ(left.size(), 1) << "the first of them to end took the number away";
    EXPECT_TRUE(ended || left.contains(GetParam() == kPlain ? "/a" : "/b"));
    transport.CompleteAll();
    ASSERT_TRUE(inbox.WaitForHeld(0));
  }
  EXPECT_EQ(inbox.Count(), 5);
}

TEST_P(BothManagersTest, DeliverWhatCouldNotBeSent) {
  enum { kRefused, kNoMemory, kNoConnection };
  const unsigned int statuses[] = {kStatusFailed, kStatusOutOfMemory, kStatusFailed};
  for (const int why : {kRefused, kNoMemory, kNoConnection}) {
    manager = MakeManager(GetParam());
    transport.RefuseAll(why == kRefused);
    transport.connections_null = why == kNoConnection;
    HeapManager::GetDynamicHeap()->SetCeiling(why == kNoMemory);
    const int before = inbox.Count();
    const bool sent = Send("/a") != 0;
    HeapManager::GetDynamicHeap()->SetCeiling(0);
    EXPECT_EQ(sent, GetParam() != kPlain || why != kNoConnection);
    EXPECT_EQ(inbox.Count(), before) << "never within the call";
    ASSERT_TRUE(inbox.WaitForHeld(0));
    ASSERT_EQ(inbox.Count(), before + sent);
    EXPECT_TRUE(!sent || (inbox.Get().back().status == statuses[why] && inbox.Get().back().on_main_thread));
  }
}

TEST_P(BothManagersTest, EndTheProcessForAnEmptyCallable) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  transport.AnswerAll({});
  EXPECT_EXIT((manager->Get({}, nullptr), PumpFor(kWaitMs)), testing::KilledBySignal(SIGABRT), "");
}

// What is in flight then ends in peace, or goes unheard with the connections that it shared.
TEST_P(BothManagersTest, MayBeDestroyedByACallable) {
  if (GetParam() == kDirect) return;
  Send("/a");
  manager->Get(QUrl("http://a/b"), inbox.Callable([&] { manager = nullptr; }));
  manager->Cancel(Send("/c"));
  transport.Complete("/b");
  ASSERT_TRUE(PumpUntil([&] { return !manager; }));
  transport.Complete("/a");
  ASSERT_TRUE(inbox.WaitForHeld(0));
  EXPECT_EQ(inbox.Count(), GetParam() == kPlain ? 2 : 1);
  EXPECT_TRUE(PumpUntil([&] { return transport.alive + transport.requests_alive == 0; }));
}

TEST(CmNetworkManagerTest, CancelBeforeTheLimitLetsItStartAndFiftyInFlightGoUnheard) {
  for (const Kind kind : {kDeferred, kDirect}) {
    ScriptedTransport transport;
    Inbox inbox;
    EXPECT_EQ(CmNetworkManager().Get(UrlOf(0), inbox.Callable()), 0u) << "not before Init()";
    auto manager = MakeManager(kind);
    for (size_t server = 0; server < 4; ++server) manager->Get(UrlOf(server), inbox.Callable());
    manager->Cancel(manager->Get(UrlOf(4), inbox.Callable()));
    EXPECT_TRUE(inbox.WaitForHeld(4));
    transport.CompleteAll();
    ASSERT_TRUE(inbox.WaitForHeld(0));
    EXPECT_EQ(inbox.Count() + transport.sent, 8);

    for (size_t i = 0; i < 50; ++i) manager->RequestAndIgnore(UrlOf(i % 6), {}, inbox.Callable());
    EXPECT_EQ(inbox.Held(), 50);
    manager = nullptr;
    PumpPending();
    EXPECT_EQ(inbox.Count() + inbox.Held() + transport.alive + transport.requests_alive, 4);
  }
}

TEST(CmNetworkManagerTest, KeepsNothingThatIsLent) {
  ScriptedTransport transport;
  Inbox inbox;
  SendWatch watch;
  const auto manager = MakeManager(kDirect);
  const auto idle = [&] { return transport.CompleteAll(), transport.requests_alive == 0; };
  transport.AnswerAll({});
  for (size_t server = 0; server < 4; ++server) manager->Get(UrlOf(server), inbox.Callable());
  ASSERT_TRUE(PumpUntil(idle));
  transport.destroy_hook = [&](auto&) { EXPECT_TRUE(SpinUntil([&] { return inbox.Held() == 0; })); };
  manager->Get(UrlOf(4), inbox.Callable());  // ends a connection: meanwhile its answer comes
  transport.destroy_hook = nullptr;
  ASSERT_TRUE(PumpUntil(idle));

  transport.HoldAll();
  char body[] = "lent";
  const RequestOptions lent{kHttpPut, {}, {}, QByteArray::fromRawData(body, 4), false, true, {}, 0};
  for (size_t server = 5; server < 10; ++server) manager->Request(UrlOf(server), lent, inbox.Callable());
  body[0] = '?';
  ASSERT_TRUE(PumpUntil(idle));
  EXPECT_EQ(watch.body, "lent") << "of the fifth, which waited";
}

// Whatever a callable holds, its end may wait for a thread that wants the manager.
TEST(CmNetworkManagerTest, ACallableEndsBehindTheLock) {
  const Watchdog watchdog(60, "the end of a callable");
  ScriptedTransport transport;
  const auto manager = MakeManager(kDeferred);
  std::shared_ptr<int> held(nullptr, [&](int*) {
    std::async(std::launch::async, [&] { return manager->Get(UrlOf(0), [](auto, auto) {}); }).get();
  });
  manager->Cancel(manager->Get(UrlOf(0), [held = std::move(held)](auto, auto) {}));
  EXPECT_TRUE(PumpUntil([&] { return transport.sent == 2; }));
}

// A callable on a thread of its own asks for more until the destructor, which waits for it, sends nothing.
TEST(CmNetworkManagerTest, ACallableMayUseItWhileItIsDestroyed) {
  ScriptedTransport transport;
  Inbox inbox;
  const Gate entered;
  unsigned int last = 0;
  auto manager = MakeManager(kDirect);
  manager->Get(UrlOf(0), inbox.Callable([&, entered, borrowed = manager.get()] {
    entered.Open();
    for (int before = -1; before < transport.sent;) {
      before = transport.sent;
      last = borrowed->Get(UrlOf(0), inbox.Callable());
    }
  }));
  transport.Complete("/");
  ASSERT_TRUE(entered.Wait());
  manager = nullptr;
  EXPECT_NE(last, 0u);
  EXPECT_EQ(inbox.Count() + inbox.Held() + transport.requests_alive, 1);
}

TEST(CmNetworkManagerTest, FourThreadsAskAndCancel) {
  for (const Kind kind : {kDeferred, kDirect}) {
    ScriptedTransport transport;
    transport.AnswerAll({kStatusOk, "body", {}});
    const auto manager = MakeManager(kind);
    std::vector<unsigned int> ids(1200);
    std::vector<std::atomic<int>> heard(ids.size());
    std::vector<std::thread> threads;
    for (size_t thread = 0; thread < 4; ++thread) {
      threads.emplace_back([&, thread] {
        for (size_t i = thread; i < ids.size(); i += 4) {
          ids[i] = manager->Get(UrlOf(i % 6), [&, i](auto, auto) {
            ++heard[i];
            if (i % 8 == 0) manager->RequestAndIgnore(UrlOf(0), {}, [](auto, auto) {});
          });
          if (i % 3 == 0) manager->Cancel(ids[i]);
        }
      });
    }
    const auto all_over = [&] {
      for (size_t i = 0; i < ids.size(); ++i) {
        if (i % 3 != 0 && heard[i] == 0) return false;
      }
      return transport.requests_alive == 0;
    };
    EXPECT_TRUE(PumpUntil(all_over)) << "one is not heard of";
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(PumpUntil(all_over)) << "one is kept for good";
    for (const auto& times : heard) EXPECT_LE(times, 1);
    EXPECT_EQ(std::set<unsigned int>(ids.begin(), ids.end()).size(), ids.size());
  }
}

}  // namespace
}  // namespace orvan::net
