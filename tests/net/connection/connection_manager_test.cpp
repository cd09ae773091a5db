#include "orvan/net/connection/connection_manager.h"

#include <atomic>
#include <future>
#include <limits>

#include "tests/net/connection/connection_fixture.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan::test {
namespace {

using namespace net;

using ConnectionManagerTest = ManagerFixture;

TEST_F(ConnectionManagerTest, AConnectionIsSharedByEqualServersOnly) {
  ServerInfo servers[3];
  for (ServerInfo& server : servers) server = ServerInfo("h", 80, false, "agent");
  servers[1].set_match(0.0, 1);
  servers[2].set_match(std::numeric_limits<double>::quiet_NaN(), 0);
  for (int round = 0; round < 2; ++round) {
    for (const ServerInfo& server : servers)
      manager->EnqueueRequest(server, {"/", {}, true, &recorder, nullptr});
  }
  EXPECT_EQ(transport.made, 4) << "a NaN equals nothing, itself included";
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

TEST_F(ConnectionManagerTest, AHookMayComeBackWhileItsRequestIsBeingSent) {
  MakeManager(2, true);
  const RefPtr<NetworkRequest> other = Send("b", "/other");
  transport.send_hook = [&](const QString& url) {
    if (url != "/1") return;
    for (const auto& request : {other, Send("a", "/nested")}) manager->CancelRequest(request.get());
    Send("c", "/2");
  };
  Send("a", "/1");
  transport.send_hook = nullptr;
  EXPECT_EQ(transport.GetHeldUrls(), QStringList({"/1", "/2"})) << "in order, and in the place of the other";
}

TEST_F(ConnectionManagerTest, CancelEndsARequestInEveryState) {
  MakeManager(1, true);
  transport.cancel_ends = false;
  const RefPtr<NetworkRequest> requests[] = {Send("a", "/active"), Send("a", "/posted"),
                                             Send("b", "/waiting")};
  transport.Complete("/posted", ScriptedTransport::kHere);
  for (const int round : {1, 2}) {
    for (const auto& request : requests) manager->CancelRequest(request.get());
    EXPECT_EQ(transport.cancelled, 2 * round);
  }
  EXPECT_EQ(requests[2]->getRefCount(), 2) << "the pair lives until the next pass";
  pump.Drain();  // the job of the second finds no callback
  transport.CompleteAll(ScriptedTransport::kHere);
  EXPECT_EQ(pump.GetLength(), 0) << "a detached request completes unheard";
  ASSERT_TRUE(Pass());
  for (const auto& request : requests) EXPECT_EQ(request->getRefCount(), 1);
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

TEST_F(ConnectionManagerTest, WhatCannotBeSentStillEndsOnceAndOnTheMainThread) {
  const struct {
    const char* says;
    std::function<void()> prepare;
    unsigned int status;
  } rows[] = {
      {"refused with a reason", [this] { transport.RefuseAll(kStatusOutOfMemory); }, kStatusOutOfMemory},
      {"refused with a status that is no error", [this] { transport.RefuseAll(1); }, kStatusFailed},
      {"no HttpRequest", [this] { transport.requests_null = true; }, Recorder::kNoHttpRequest},
      {"no connection", [this] { transport.connections_null = true; }, Recorder::kNoHttpRequest},
  };
  MakeManager(4, false);  // results come on the callback thread, but for these
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
    EXPECT_EQ(request->getRefCount(), 1) << "nothing pins it";
    request = nullptr;
    EXPECT_EQ(transport.requests_alive, 0);
    transport.HoldAll();
    transport.requests_null = transport.connections_null = false;
  }
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

// The callback thread is inside the callback, which holds the request's own lock, and goes for the manager's
// while the canceller waits for the callback to end.
TEST_F(ConnectionManagerTest, CancelWaitsForARunningCallbackThatNeedsTheManager) {
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

TEST_F(ConnectionManagerTest, TheDestructorWaitsForACallbackOnTheCallbackThread) {
  const Watchdog watchdog(60, "~ConnectionManager() against a callback on the callback thread");
  MakeManager(4, false);
  const Gate inside, go_on;
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
TEST_F(ConnectionManagerTest, AConnectionEndsBehindTheLock) {
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

}  // namespace
}  // namespace orvan::test
