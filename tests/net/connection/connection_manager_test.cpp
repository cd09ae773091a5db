#include "orvan/net/connection/connection_manager.h"

#include <future>
#include <limits>

#include "tests/net/connection/connection_fixture.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan::test {
namespace {

using namespace net;

QString Text(const char* text) { return QString::fromLatin1(text); }

class ConnectionManagerTest : public ManagerFixture {
 protected:
  // Requests /0, /1 ... to as many servers.
  void SendToServers(int count) {
    for (int i = 0; i < count; ++i) Send(QStringLiteral("s%1").arg(i), QStringLiteral("/%1").arg(i));
  }
};

TEST_F(ConnectionManagerTest, ARequestIsBuiltFromItsInfo) {
  mmvector<RequestHeader> headers;
  headers.emplace_back(RequestHeader::kAcceptTypes, Text("text/a, ,text/b ,*/*"));
  headers.emplace_back(RequestHeader::kLine, Text("X-One: 1"));
  headers.emplace_back(7, Text("X-Unknown: 1"));
  const ServerInfo server(Text("host"), 8080, true, Text("agent"));
  const NetworkRequest::Info info(kHttpPost, "body", Text("ftp://elsewhere:1/a b?q=%20"), headers, false,
                                  &recorder, this, NetworkRequest::Info::kClearDefaultHeaders);
  const RefPtr<NetworkRequest> request = manager->EnqueueRequest(server, info);
  ASSERT_EQ(transport.GetSentCount(), 1);
  const SentRequest sent = transport.GetSent()[0];
  EXPECT_EQ(sent.url, Text("/a%20b?q=%20")) << "the rest of the address is the server's";
  EXPECT_EQ(sent.host, Text("host"));
  EXPECT_EQ(sent.port, 8080);
  EXPECT_TRUE(sent.secure);
  EXPECT_EQ(sent.user_agent, Text("agent"));
  EXPECT_EQ(sent.method, kHttpPost);
  EXPECT_EQ(sent.body, QByteArray("body"));
  EXPECT_EQ(sent.headers, QStringList({Text("Accept: text/a, text/b"), Text("X-One: 1")}));
  EXPECT_FALSE(sent.cache_read || sent.cache_write);
  // The buffer's maker kept no reference: it goes with the request.
  EXPECT_EQ(request->GetHttpRequest()->GetRequestBuffer()->getRefCount(), 1);
}

TEST_F(ConnectionManagerTest, AResultComesOnceOnTheMainThreadAndTheConnectionStays) {
  const RefPtr<NetworkRequest> request = Send(Text("a"), Text("/1"));
  transport.Complete(Text("/1"), {}, ScriptedTransport::Where::kThisThread);
  EXPECT_EQ(recorder.Count(), 0u) << "not on the callback thread";
  pump.Drain();
  EXPECT_EQ(recorder.Count(), 1u);
  EXPECT_EQ(manager->GetActiveCount(), 0);
  EXPECT_TRUE(Pass());
  EXPECT_FALSE(Pass()) << "one shot for each finished request";
  Send(Text("a"), Text("/2"));
  EXPECT_EQ(transport.GetMadeCount(), 1) << "the second request shares the connection";
  EXPECT_EQ(request->GetHttpRequest()->GetResponseStatus(), kStatusOk)
      << "readable for as long as it is held";
}

TEST_F(ConnectionManagerTest, AConnectionIsSharedByEqualServersOnly) {
  ServerInfo servers[7];
  for (ServerInfo& server : servers) server = ServerInfo(Text("h"), 80, false, Text("agent"));
  servers[1] = ServerInfo(Text("H"), 80, false, Text("agent"));
  servers[2].set_user_agent(Text("other"));
  servers[3] = ServerInfo(Text("h"), 81, false, Text("agent"));
  servers[4] = ServerInfo(Text("h"), 80, true, Text("agent"));
  servers[5].set_match(1.0, 0);
  servers[6].set_match(0.0, 1);
  MakeManager(100, true);
  const NetworkRequest::Info info(Text("/"), {}, true, &recorder, nullptr);
  for (int round = 0; round < 2; ++round) {
    for (const ServerInfo& server : servers) manager->EnqueueRequest(server, info);
  }
  EXPECT_EQ(transport.GetMadeCount(), 7);
  ServerInfo nan;
  nan.set_match(std::numeric_limits<double>::quiet_NaN(), 0);
  for (int i = 0; i < 2; ++i) manager->EnqueueRequest(nan, info);
  EXPECT_EQ(transport.GetMadeCount(), 9) << "a NaN equals nothing, itself included";
}

TEST_F(ConnectionManagerTest, AFifthServerEvictsTheConnectionThatIsIdleLongest) {
  QStringList ended;
  transport.SetDestroyHook([&ended](const ServerInfo& server) { ended << server.host(); });
  for (int i = 0; i < 4; ++i, clock.Advance(1.0))
    Send(QStringLiteral("s%1").arg(i), QStringLiteral("/%1").arg(i));
  for (int i = 0; i < 4; ++i) Finish(QStringLiteral("/%1").arg(i));
  Send(Text("s0"), Text("/again"));  // a later expiry for the first
  Finish(Text("/again"));
  ASSERT_TRUE(Pass());
  Send(Text("fifth"), Text("/5"));
  EXPECT_EQ(ended, QStringList({Text("s1")}));
  EXPECT_EQ(transport.GetHeldUrls(), QStringList({Text("/5")})) << "in the same pass";
  EXPECT_EQ(manager->GetConnectionCount(), 4);
  transport.SetDestroyHook(nullptr);
}

TEST_F(ConnectionManagerTest, AFifthServerWaitsForBusyOnesAndIsOvertaken) {
  SendToServers(4);
  Send(Text("fifth"), Text("/5"));
  Send(Text("s0"), Text("/overtakes"));
  EXPECT_EQ(manager->GetOutstandingCount(), 1);
  EXPECT_EQ(transport.GetHeldUrls().last(), Text("/overtakes"));
  Finish(Text("/0"));
  ASSERT_TRUE(Pass());
  EXPECT_EQ(manager->GetOutstandingCount(), 1) << "another request uses that connection";
  Finish(Text("/1"));
  EXPECT_EQ(manager->GetOutstandingCount(), 1) << "a finished request keeps its connection until the pass";
  ASSERT_TRUE(Pass());
  EXPECT_EQ(manager->GetOutstandingCount(), 0);
  EXPECT_EQ(transport.GetHeldUrls().last(), Text("/5"));
}

// One fruitless eviction does not spare the waiting requests behind it: all three busy connections are
// evicted by the two that wait, and none outlives its request.
TEST_F(ConnectionManagerTest, EachWaitingRequestEvictsOne) {
  MakeManager(3, true);
  SendToServers(5);
  for (const char* path : {"/0", "/1", "/2"}) Finish(Text(path));
  ASSERT_TRUE(Pass());
  EXPECT_EQ(transport.GetDestroyedCount(), 3);
  EXPECT_EQ(transport.GetHeldUrls(), QStringList({Text("/3"), Text("/4")}));
}

// The place of an expired connection becomes free outside a pass, when the deleter job drops it. A request
// that came between the two has nobody else to wake it.
TEST_F(ConnectionManagerTest, APlaceThatTheDeleterFreesWakesTheOneThatWaits) {
  class EnqueueJob : public AbstractJob {
   public:
    explicit EnqueueJob(std::function<void()> function)
        : AbstractJob(0, QString()), function_(std::move(function)) {}
    int Run(const IJobContinuator&, IJobContainer*) override {
      function_();
      return kFinished;
    }

   private:
    std::function<void()> function_;
  };
  manager = std::make_unique<ConnectionManager>(1, 2, true, 60.0, 30, 1);
  Send(Text("a"), Text("/a"));
  Finish(Text("/a"));
  ASSERT_TRUE(Pass());
  bool expired = false;
  int waiting = -1;
  // The cache reads the clock when it looks for what has expired, and posts the deleter afterwards.
  System::SetTimeSourceForTest([&] {
    if (expired) return clock.Now();
    expired = true;
    const RefPtr<EnqueueJob> job = new EnqueueJob([&] {
      Send(Text("b"), Text("/b"));
      waiting = manager->GetOutstandingCount();
    });
    GetDefaultJobScheduler()->AddJob(job.get());
    return clock.Now() + 61.0;
  });
  EventPump::Get().SetManualForTest(false);
  EXPECT_TRUE(PumpUntil([this] { return transport.GetHeldUrls().contains(QStringLiteral("/b")); }));
  EXPECT_EQ(waiting, 1) << "or the test has missed the gap";
  EventPump::Get().SetManualForTest(true);
  System::SetTimeSourceForTest([this] { return clock.Now(); });
}

TEST_F(ConnectionManagerTest, CancelEndsARequestInEveryState) {
  MakeManager(1, true);
  transport.SetCancelEnds(false);
  const RefPtr<NetworkRequest> active = Send(Text("a"), Text("/active"));
  const RefPtr<NetworkRequest> posted = Send(Text("a"), Text("/posted"));
  const RefPtr<NetworkRequest> waiting = Send(Text("b"), Text("/waiting"));
  transport.Complete(Text("/posted"), {}, ScriptedTransport::Where::kThisThread);

  manager->CancelRequest(waiting.get());
  EXPECT_EQ(waiting->GetHttpRequest(), nullptr);
  EXPECT_EQ(transport.GetCancelCount(), 0);
  manager->CancelRequest(posted.get());
  manager->CancelRequest(active.get());
  EXPECT_EQ(transport.GetCancelCount(), 2);
  EXPECT_EQ(waiting->getRefCount(), 2) << "the pair lives until the next pass";
  for (const auto* request : {&active, &posted, &waiting}) manager->CancelRequest(request->get());
  pump.Drain();  // the job of the second finds no callback
  transport.CompleteAll({}, ScriptedTransport::Where::kThisThread);
  EXPECT_EQ(pump.GetLength(), 0) << "a detached request completes unheard";
  ASSERT_TRUE(Pass());
  for (const auto* request : {&active, &posted, &waiting}) EXPECT_EQ((*request)->getRefCount(), 1);
  EXPECT_EQ(recorder.Count(), 0u);
  EXPECT_EQ(manager->GetActiveCount() + manager->GetOutstandingCount(), 0);
}

// A fetch that outlives a restart of the library cancels its request at the manager that is there now.
TEST_F(ConnectionManagerTest, CancellingARequestOfAnEarlierManagerLeavesTheOthersAlone) {
  const auto earlier = Send(QStringLiteral("a"), QStringLiteral("/earlier"));
  MakeManager(4, true);
  const auto later = Send(QStringLiteral("a"), QStringLiteral("/later"));
  manager->CancelRequest(earlier.get());
  EXPECT_EQ(manager->GetActiveCount(), 1);
}

TEST_F(ConnectionManagerTest, ACallbackMayCancelAndEnqueue) {
  bool first = true;
  recorder.inside = [&](NetworkRequest* request) {
    if (!std::exchange(first, false)) return;
    manager->CancelRequest(request);
    Send(Text("a"), Text("/next"));
    EXPECT_EQ(transport.GetHeldUrls(), QStringList({Text("/next")})) << "sent at once";
  };
  Send(Text("a"), Text("/1"));
  Finish(Text("/1"));
  Finish(Text("/next"));
  EXPECT_EQ(recorder.Count(), 2u);
  EXPECT_TRUE(Pass());
  EXPECT_EQ(transport.GetAliveRequestCount(), 0);
}

TEST_F(ConnectionManagerTest, WhatCannotBeSentStillEndsOnceAndOnTheMainThread) {
  struct Row {
    const char* says;
    std::function<void()> prepare;
    bool has_http;
    unsigned int status;
  };
  const Row rows[] = {
      {"refused", [this] { transport.RefuseAll(kStatusFailed); }, true, kStatusFailed},
      {"refused with a reason", [this] { transport.RefuseAll(kStatusOutOfMemory); }, true,
       kStatusOutOfMemory},
      {"refused with a status that is no error", [this] { transport.RefuseAll(1); }, true, kStatusFailed},
      {"no HttpRequest", [this] { transport.SetRequestsNull(true); }, false, kStatusOk},
      {"no connection", [this] { transport.SetConnectionsNull(true); }, false, kStatusOk},
  };
  for (const bool deferred : {true, false}) {
    MakeManager(4, deferred);
    for (const Row& row : rows) {
      SCOPED_TRACE(row.says);
      row.prepare();
      const size_t before = recorder.Count();
      RefPtr<NetworkRequest> request = Send(Text(row.says), Text("/"));
      EXPECT_EQ(recorder.Count(), before) << "not within EnqueueRequest()";
      ASSERT_TRUE(pump.DrainAll());
      ASSERT_EQ(recorder.Count(), before + 1);
      EXPECT_EQ(recorder.Get().back().has_http, row.has_http);
      EXPECT_EQ(recorder.Get().back().status, row.status);
      ASSERT_TRUE(Pass());
      EXPECT_EQ(manager->GetActiveCount() + manager->GetOutstandingCount(), 0);
      EXPECT_EQ(request->getRefCount(), 1) << "nothing pins it";
      request = nullptr;
      EXPECT_EQ(transport.GetAliveRequestCount(), 0);
      transport.HoldAll();
      transport.SetRequestsNull(false);
      transport.SetConnectionsNull(false);
    }
  }
}

TEST_F(ConnectionManagerTest, AHookMayComeBackWhileItsRequestIsBeingSent) {
  MakeManager(1, true);
  RefPtr<NetworkRequest> waiting;
  RefPtr<NetworkRequest> nested;
  transport.SetSendHook([&](const SentRequest& sent) {
    if (sent.url != Text("/1")) return;
    waiting = Send(Text("b"), Text("/waiting"));
    manager->CancelRequest(waiting.get());
    nested = Send(Text("a"), Text("/nested"));
    manager->CancelRequest(nested.get());
    Send(Text("a"), Text("/2"));
  });
  Send(Text("a"), Text("/1"));
  transport.SetSendHook(nullptr);
  EXPECT_EQ(transport.GetHeldUrls(), QStringList({Text("/1"), Text("/2")})) << "each once, in order";
  EXPECT_EQ(transport.GetSentCount(), 2);
}

TEST_F(ConnectionManagerTest, AHookMayCancelTheRequestThatIsBeingSent) {
  MakeManager(1, true);
  transport.SetCancelEnds(false);
  Send(Text("a"), Text("/a"));
  RefPtr<NetworkRequest> waiting = Send(Text("b"), Text("/b"));
  Finish(Text("/a"));
  // It gets its callback after the hook, and must lose it again.
  transport.SetSendHook([&](const SentRequest&) { manager->CancelRequest(waiting.get()); });
  ASSERT_TRUE(Pass());
  transport.SetSendHook(nullptr);
  waiting = nullptr;
  ASSERT_TRUE(Pass());
  ASSERT_TRUE(transport.Complete(Text("/b"), {}, ScriptedTransport::Where::kThisThread));
  EXPECT_EQ(pump.GetLength(), 0);
}

TEST_F(ConnectionManagerTest, TheDestructorTellsNobodyAndLeavesNothing) {
  MakeManager(1, true);
  Send(Text("a"), Text("/active"));
  Send(Text("a"), Text("/posted"));
  const RefPtr<NetworkRequest> cancelled = Send(Text("a"), Text("/cancelled"));
  const RefPtr<NetworkRequest> waiting = Send(Text("b"), Text("/waiting"));
  manager->CancelRequest(cancelled.get());
  transport.Complete(Text("/posted"), {}, ScriptedTransport::Where::kThisThread);
  manager.reset();
  EXPECT_EQ(transport.GetAliveCount(), 0);
  EXPECT_TRUE(pump.DrainAll());  // the posted job finds no manager
  EXPECT_EQ(recorder.Count(), 0u);
  EXPECT_EQ(transport.GetAliveRequestCount(), 1) << "the one that is held here";
  EXPECT_EQ(waiting->getRefCount(), 1);
}

TEST_F(ConnectionManagerTest, AResultThatComesDuringDestructionIsNotDelivered) {
  MakeManager(2, false);
  SendToServers(2);
  transport.SetDestroyHook(
      [this](const ServerInfo&) { transport.CompleteAll({}, ScriptedTransport::Where::kThisThread); });
  manager.reset();
  transport.SetDestroyHook(nullptr);
  EXPECT_EQ(recorder.Count(), 0u);
}

TEST_F(ConnectionManagerTest, ACallbackMayDestroyItsManager) {
  recorder.inside = [this](NetworkRequest*) { manager.reset(); };
  Send(Text("a"), Text("/1"));
  Send(Text("a"), Text("/2"));
  transport.CompleteAll({}, ScriptedTransport::Where::kThisThread);
  pump.Drain();
  EXPECT_EQ(recorder.Count(), 1u);
  EXPECT_EQ(transport.GetAliveCount(), 0);
  EXPECT_EQ(transport.GetAliveRequestCount(), 0);
}

// An owner that nobody else holds lives as long as its request, and dies behind the lock: another thread may
// come in.
TEST_F(ConnectionManagerTest, ARequestKeepsTheOwnerOfItsCallback) {
  class Owner : public NetworkRequest::Callback, public AtomicReferent {
   public:
    Owner(std::function<void()> at_end) : at_end_(std::move(at_end)) {}
    ~Owner() override { at_end_(); }
    void RequestDone(NetworkRequest*, void*) override { ++calls; }
    int calls = 0;

   private:
    std::function<void()> at_end_;
  };
  const Watchdog watchdog(60, "the end of a request's owner");
  int ended = 0;
  auto* const owner = new Owner([this, &ended] {
    auto other = std::async(std::launch::async, [this] { Send(Text("b"), Text("/from the end")); });
    if (other.wait_for(std::chrono::milliseconds(kWaitMs)) == std::future_status::ready) ++ended;
  });
  manager->EnqueueRequest(ServerInfo(Text("a"), 80, false),
                          NetworkRequest::Info(kHttpGet, {}, Text("/1"), {}, true, owner, nullptr,
                                               NetworkRequest::Info::kKeepDefaultHeaders, owner));
  transport.Complete(Text("/1"), {}, ScriptedTransport::Where::kThisThread);
  pump.Drain();
  EXPECT_EQ(owner->calls, 1);
  EXPECT_TRUE(Pass());
  EXPECT_EQ(ended, 1);
  EXPECT_EQ(transport.GetHeldCount(), 1);
}

TEST_F(ConnectionManagerTest, ThousandsOfWaitingRequestsAllGetTheirTurn) {
  constexpr int kRequests = 10000;
  std::vector<int> per_server(40);
  recorder.inside = [&per_server](NetworkRequest* request) {
    ++per_server[static_cast<size_t>(request->server().host().midRef(1).toInt())];
  };
  for (int i = 0; i < kRequests; ++i) {
    Send(QStringLiteral("s%1").arg(i % 40), QStringLiteral("/%1").arg(i));
  }
  EXPECT_EQ(transport.GetHeldCount(), kRequests / 10) << "four servers' share";
  for (int turn = 0; turn < 40 && transport.GetHeldCount() > 0; ++turn) {
    transport.CompleteAll({}, ScriptedTransport::Where::kThisThread);
    pump.Drain();
    Pass();
  }
  EXPECT_EQ(recorder.Count(), static_cast<size_t>(kRequests));
  for (const int count : per_server) EXPECT_EQ(count, kRequests / 40);
}

}  // namespace
}  // namespace orvan::test
