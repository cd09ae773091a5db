#include "orvan/net/connection/connection_manager.h"

#include <future>
#include <limits>

#include "tests/net/connection/connection_fixture.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan::test {
namespace {

using namespace net;

using ConnectionManagerTest = ManagerFixture;

TEST_F(ConnectionManagerTest, ARequestIsBuiltFromItsInfo) {
  mmvector<RequestHeader> headers;
  headers.emplace_back(RequestHeader::kAcceptTypes, "text/a, ,text/b ,*/*");
  headers.emplace_back(RequestHeader::kLine, "X-One: 1");
  headers.emplace_back(7, "X-Unknown: 1");
  const NetworkRequest::Info info(kHttpPost, "body", "ftp://elsewhere:1/a b?q=%20", headers, false, &recorder,
                                  this, NetworkRequest::Info::kClearDefaultHeaders);
  const RefPtr<NetworkRequest> request =
      manager->EnqueueRequest(ServerInfo("host", 8080, true, "agent"), info);
  ASSERT_EQ(transport.sent, 1);
  HttpRequest* const http = request->GetHttpRequest();
  EXPECT_EQ(http->GetURL(), "/a%20b?q=%20") << "the rest of the address is the server's";
  EXPECT_EQ(http->GetMethodType(), kHttpPost);
  EXPECT_EQ(http->GetRequestBuffer()->ToQByteArray(), "body");
  EXPECT_EQ(http->GetRequestBuffer()->getRefCount(), 1) << "the buffer's maker kept no reference";
  ASSERT_EQ(http->GetRequestHeaderCount(), 2);
  EXPECT_EQ(http->GetRequestHeader(0), "Accept: text/a, text/b");
  EXPECT_EQ(http->GetRequestHeader(1), "X-One: 1");
  EXPECT_FALSE(http->GetCacheRead() || http->GetCacheWrite());
}

TEST_F(ConnectionManagerTest, AResultComesOnceOnTheMainThreadAndTheConnectionStays) {
  const RefPtr<NetworkRequest> request = Send("a", "/1");
  transport.Complete("/1", ScriptedTransport::kHere);
  EXPECT_EQ(recorder.Count(), 0u) << "not on the callback thread";
  pump.Drain();
  EXPECT_EQ(recorder.Count(), 1u);
  EXPECT_EQ(manager->GetActiveCount(), 0);
  EXPECT_TRUE(Pass());
  EXPECT_FALSE(Pass()) << "one shot for each finished request";
  Send("a", "/2");
  EXPECT_EQ(transport.made, 1) << "the second request shares the connection";
  EXPECT_EQ(request->GetHttpRequest()->GetResponseStatus(), kStatusOk)
      << "readable for as long as it is held";
}

TEST_F(ConnectionManagerTest, AConnectionIsSharedByEqualServersOnly) {
  ServerInfo servers[8];
  for (ServerInfo& server : servers) server = ServerInfo("h", 80, false, "agent");
  servers[1] = ServerInfo("H", 80, false, "agent");
  servers[2].set_user_agent("other");
  servers[3] = ServerInfo("h", 81, false, "agent");
  servers[4] = ServerInfo("h", 80, true, "agent");
  servers[5].set_match(1.0, 0);
  servers[6].set_match(0.0, 1);
  servers[7].set_match(std::numeric_limits<double>::quiet_NaN(), 0);
  MakeManager(100, true);
  for (int round = 0; round < 2; ++round) {
    for (const ServerInfo& server : servers)
      manager->EnqueueRequest(server, {"/", {}, true, &recorder, nullptr});
  }
  EXPECT_EQ(transport.made, 9) << "a NaN equals nothing, itself included";
}

TEST_F(ConnectionManagerTest, AFifthServerEvictsTheConnectionThatIsIdleLongest) {
  QStringList ended;
  transport.destroy_hook = [&ended](const ServerInfo& server) { ended << server.host(); };
  for (int i = 0; i < 4; ++i, clock.Advance(1.0)) Send(QString("s%1").arg(i), QString("/%1").arg(i));
  for (const char* path : {"/0", "/1", "/2", "/3"}) Finish(path);
  Send("s0", "/again");  // a later expiry for the first
  Finish("/again");
  ASSERT_TRUE(Pass());
  Send("fifth", "/5");
  EXPECT_EQ(ended, QStringList({"s1"}));
  EXPECT_EQ(transport.GetHeldUrls(), QStringList({"/5"})) << "in the same pass";
  EXPECT_EQ(manager->GetConnectionCount(), 4);
  transport.destroy_hook = nullptr;
}

TEST_F(ConnectionManagerTest, AFifthServerWaitsForBusyOnesAndIsOvertaken) {
  SendToServers(4);
  Send("fifth", "/5");
  Send("s0", "/overtakes");
  EXPECT_EQ(manager->GetOutstandingCount(), 1);
  EXPECT_EQ(transport.GetHeldUrls().last(), "/overtakes");
  Finish("/0");
  ASSERT_TRUE(Pass());
  EXPECT_EQ(manager->GetOutstandingCount(), 1) << "another request uses that connection";
  Finish("/1");
  EXPECT_EQ(manager->GetOutstandingCount(), 1) << "a finished request keeps its connection until the pass";
  ASSERT_TRUE(Pass());
  EXPECT_EQ(manager->GetOutstandingCount(), 0);
  EXPECT_EQ(transport.GetHeldUrls().last(), "/5");
}

// One fruitless eviction does not spare the waiting requests behind it: all three busy connections are
// evicted by the two that wait, and none outlives its request.
TEST_F(ConnectionManagerTest, EachWaitingRequestEvictsOne) {
  MakeManager(3, true);
  SendToServers(5);
  for (const char* path : {"/0", "/1", "/2"}) Finish(path);
  ASSERT_TRUE(Pass());
  EXPECT_EQ(transport.made - transport.alive, 3);
  EXPECT_EQ(transport.GetHeldUrls(), QStringList({"/3", "/4"}));
}

// The place of an expired connection becomes free outside a pass, when the deleter job drops it. A request
// that came between the two has nobody else to wake it.
TEST_F(ConnectionManagerTest, APlaceThatTheDeleterFreesWakesTheOneThatWaits) {
  manager = std::make_unique<ConnectionManager>(1, 2, true, 60.0, 30, 1);
  Send("a", "/a");
  Finish("/a");
  ASSERT_TRUE(Pass());
  bool expired = false;
  int waiting = -1;
  // The cache reads the clock when it looks for what has expired, and posts the deleter afterwards.
  System::SetTimeSourceForTest([&] {
    if (std::exchange(expired, true)) return clock.Now();
    EventPump::Get().PostFunction([&] {
      Send("b", "/b");
      waiting = manager->GetOutstandingCount();
    });
    return clock.Now() + 61.0;
  });
  EventPump::Get().SetManualForTest(false);
  EXPECT_TRUE(PumpUntil([this] { return transport.GetHeldUrls().contains("/b"); }));
  EXPECT_EQ(waiting, 1) << "or the test has missed the gap";
  EventPump::Get().SetManualForTest(true);
  System::SetTimeSourceForTest([this] { return clock.Now(); });
}

TEST_F(ConnectionManagerTest, CancelEndsARequestInEveryState) {
  MakeManager(1, true);
  transport.cancel_ends = false;
  const RefPtr<NetworkRequest> active = Send("a", "/active");
  const RefPtr<NetworkRequest> posted = Send("a", "/posted");
  const RefPtr<NetworkRequest> waiting = Send("b", "/waiting");
  transport.Complete("/posted", ScriptedTransport::kHere);

  manager->CancelRequest(waiting.get());
  EXPECT_EQ(waiting->GetHttpRequest(), nullptr);
  EXPECT_EQ(transport.cancelled, 0);
  manager->CancelRequest(posted.get());
  manager->CancelRequest(active.get());
  EXPECT_EQ(transport.cancelled, 2);
  EXPECT_EQ(waiting->getRefCount(), 2) << "the pair lives until the next pass";
  for (const auto* request : {&active, &posted, &waiting}) manager->CancelRequest(request->get());
  pump.Drain();  // the job of the second finds no callback
  transport.CompleteAll(ScriptedTransport::kHere);
  EXPECT_EQ(pump.GetLength(), 0) << "a detached request completes unheard";
  ASSERT_TRUE(Pass());
  for (const auto* request : {&active, &posted, &waiting}) EXPECT_EQ((*request)->getRefCount(), 1);
  EXPECT_EQ(recorder.Count(), 0u);
  EXPECT_EQ(manager->GetActiveCount() + manager->GetOutstandingCount(), 0);
}

// A fetch that outlives a restart of the library cancels its request at the manager that is there now.
TEST_F(ConnectionManagerTest, CancellingARequestOfAnEarlierManagerLeavesTheOthersAlone) {
  const auto earlier = Send("a", "/earlier");
  MakeManager(4, true);
  const auto later = Send("a", "/later");
  manager->CancelRequest(earlier.get());
  EXPECT_EQ(manager->GetActiveCount(), 1);
}

TEST_F(ConnectionManagerTest, ACallbackMayCancelAndEnqueue) {
  bool first = true;
  recorder.inside = [&](NetworkRequest* request) {
    if (!std::exchange(first, false)) return;
    manager->CancelRequest(request);
    Send("a", "/next");
    EXPECT_EQ(transport.GetHeldUrls(), QStringList({"/next"})) << "sent at once";
  };
  Send("a", "/1");
  Finish("/1");
  Finish("/next");
  EXPECT_EQ(recorder.Count(), 2u);
  EXPECT_TRUE(Pass());
  EXPECT_EQ(transport.requests_alive, 0);
}

TEST_F(ConnectionManagerTest, WhatCannotBeSentStillEndsOnceAndOnTheMainThread) {
  const struct {
    const char* says;
    std::function<void()> prepare;
    unsigned int status;
  } rows[] = {
      {"refused", [this] { transport.RefuseAll(kStatusFailed); }, kStatusFailed},
      {"refused with a reason", [this] { transport.RefuseAll(kStatusOutOfMemory); }, kStatusOutOfMemory},
      {"refused with a status that is no error", [this] { transport.RefuseAll(1); }, kStatusFailed},
      {"no HttpRequest", [this] { transport.requests_null = true; }, Recorder::kNoHttpRequest},
      {"no connection", [this] { transport.connections_null = true; }, Recorder::kNoHttpRequest},
  };
  for (const bool deferred : {true, false}) {
    MakeManager(4, deferred);
    for (const auto& row : rows) {
      SCOPED_TRACE(row.says);
      row.prepare();
      const size_t before = recorder.Count();
      RefPtr<NetworkRequest> request = Send(row.says, "/");
      EXPECT_EQ(recorder.Count(), before) << "not within EnqueueRequest()";
      ASSERT_TRUE(pump.DrainAll());
      ASSERT_EQ(recorder.Count(), before + 1);
      EXPECT_EQ(recorder.Get().back().status, row.status);
      ASSERT_TRUE(Pass());
      EXPECT_EQ(manager->GetActiveCount() + manager->GetOutstandingCount(), 0);
      EXPECT_EQ(request->getRefCount(), 1) << "nothing pins it";
      request = nullptr;
      EXPECT_EQ(transport.requests_alive, 0);
      transport.HoldAll();
      transport.requests_null = transport.connections_null = false;
    }
  }
}

TEST_F(ConnectionManagerTest, AHookMayComeBackWhileItsRequestIsBeingSent) {
  MakeManager(1, true);
  transport.send_hook = [&](const QString& url) {
    if (url != "/1") return;
    for (const auto& request : {Send("b", "/waiting"), Send("a", "/nested")})
      manager->CancelRequest(request.get());
    Send("a", "/2");
  };
  Send("a", "/1");
  transport.send_hook = nullptr;
  EXPECT_EQ(transport.GetHeldUrls(), QStringList({"/1", "/2"})) << "each once, in order";
  EXPECT_EQ(transport.sent, 2);
}

TEST_F(ConnectionManagerTest, AHookMayCancelTheRequestThatIsBeingSent) {
  MakeManager(1, true);
  transport.cancel_ends = false;
  Send("a", "/a");
  RefPtr<NetworkRequest> waiting = Send("b", "/b");
  Finish("/a");
  // It gets its callback after the hook, and must lose it again.
  transport.send_hook = [&](const QString&) { manager->CancelRequest(waiting.get()); };
  ASSERT_TRUE(Pass());
  transport.send_hook = nullptr;
  waiting = nullptr;
  ASSERT_TRUE(Pass());
  ASSERT_TRUE(transport.Complete("/b", ScriptedTransport::kHere));
  EXPECT_EQ(pump.GetLength(), 0);
}

TEST_F(ConnectionManagerTest, TheDestructorTellsNobodyAndLeavesNothing) {
  MakeManager(1, true);
  Send("a", "/active");
  Send("a", "/posted");
  const RefPtr<NetworkRequest> cancelled = Send("a", "/cancelled");
  const RefPtr<NetworkRequest> waiting = Send("b", "/waiting");
  manager->CancelRequest(cancelled.get());
  transport.Complete("/posted", ScriptedTransport::kHere);
  manager.reset();
  EXPECT_EQ(transport.alive, 0);
  EXPECT_TRUE(pump.DrainAll());  // the posted job finds no manager
  EXPECT_EQ(recorder.Count(), 0u);
  EXPECT_EQ(transport.requests_alive, 1) << "the one that is held here";
  EXPECT_EQ(waiting->getRefCount(), 1);
}

TEST_F(ConnectionManagerTest, AResultThatComesDuringDestructionIsNotDelivered) {
  MakeManager(2, false);
  SendToServers(2);
  transport.destroy_hook = [this](const ServerInfo&) { transport.CompleteAll(ScriptedTransport::kHere); };
  manager.reset();
  transport.destroy_hook = nullptr;
  EXPECT_EQ(recorder.Count(), 0u);
}

TEST_F(ConnectionManagerTest, ACallbackMayDestroyItsManager) {
  recorder.inside = [this](NetworkRequest*) { manager.reset(); };
  Send("a", "/1");
  Send("a", "/2");
  transport.CompleteAll(ScriptedTransport::kHere);
  pump.Drain();
  EXPECT_EQ(recorder.Count(), 1u);
  EXPECT_EQ(transport.alive, 0);
  EXPECT_EQ(transport.requests_alive, 0);
}

// An owner that nobody else holds lives as long as its request, and dies behind the lock: another thread may
// come in.
TEST_F(ConnectionManagerTest, ARequestKeepsTheOwnerOfItsCallback) {
  struct Owner : NetworkRequest::Callback, AtomicReferent {
    explicit Owner(std::function<void()> at_end) : at_end_(std::move(at_end)) {}
    ~Owner() override { at_end_(); }
    void RequestDone(NetworkRequest*, void*) override { ++calls; }
    int calls = 0;
    const std::function<void()> at_end_;
  };
  const Watchdog watchdog(60, "the end of a request's owner");
  bool ended = false;
  auto* const owner = new Owner([this, &ended] {
    std::async(std::launch::async, [this] { Send("b", "/from the end"); }).get();
    ended = true;
  });
  manager->EnqueueRequest(ServerInfo("a", 80, false),
                          NetworkRequest::Info(kHttpGet, {}, "/1", {}, true, owner, nullptr,
                                               NetworkRequest::Info::kKeepDefaultHeaders, owner));
  Finish("/1");
  EXPECT_EQ(owner->calls, 1);
  EXPECT_TRUE(Pass());
  EXPECT_TRUE(ended);
  EXPECT_EQ(transport.GetHeldUrls().size(), 1);
}

}  // namespace
}  // namespace orvan::test
