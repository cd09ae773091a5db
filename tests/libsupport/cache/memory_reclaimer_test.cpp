#include "orvan/support/cache/memory_reclaimer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "orvan/support/cache/cache_observer.h"
#include "tests/support/manual_clock.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan {
namespace {

using test::Gate;
using test::ManualPump;
using test::Watchdog;

// Writes a lower-case letter when it is asked for memory and an upper-case one when it is demanded.
class Observer : public CacheObserver {
 public:
  using Body = std::function<bool(Observer* self, bool demanded)>;
  Observer(char letter, int frame, int bytes, std::string* log, Body body = nullptr)
      : letter_(letter), frame_(frame), log_(log), body_(std::move(body)) {
    ChangeUnpooledBytes(bytes);
  }
  ~Observer() override { Detach(); }
  bool reclaim(const Event& event) override {
    *log_ += static_cast<char>(event.demanded ? std::toupper(letter_) : letter_);
    return body_ ? body_(this, event.demanded != 0) : Free();
  }
  int GetLruFrame() override { return frame_; }
  bool Free() {
    ChangeUnpooledBytes(-static_cast<int>(GetUnpooledBytes()));
    return true;
  }

 private:
  const char letter_;
  const int frame_;
  std::string* const log_;
  const Body body_;
};

class MemoryReclaimerTest : public testing::Test {
 protected:
  ~MemoryReclaimerTest() override {
    EXPECT_EQ(MemoryReclaimer::GetTotalBytes(), 0) << "what an observer held goes with it";
    MemoryReclaimer::SetBudget(MemoryReclaimer::kDefaultBudget);
  }

  std::unique_ptr<Observer> Make(char letter, int frame, int bytes, Observer::Body body = nullptr) {
    auto observer = std::make_unique<Observer>(letter, frame, bytes, &log_, std::move(body));
    observer->SetIsReclaimable(true);
    return observer;
  }

  ManualPump pump_;
  std::string log_;
};

TEST_F(MemoryReclaimerTest, AsksTheLongestUnusedFirstAndStopsAtThreeQuarters) {
  MemoryReclaimer::SetBudget(1000);
  const auto a = Make('a', 7, 300);
  const auto b = Make('b', 3, 300);
  const auto c = Make('c', 5, 300);
  const auto never = Make('n', -1, 0);
  const auto d = Make('d', 9, 300);
  EXPECT_EQ(log_, "") << "never within the call that went over the budget";
  EXPECT_EQ(pump_.GetLength(), 1) << "one pass for all of it";
  pump_.Drain();
  EXPECT_EQ(log_, "bc");
  EXPECT_EQ(MemoryReclaimer::GetTotalBytes(), 600);
}

TEST_F(MemoryReclaimerTest, DemandsOnlyAboveTheBudgetAndOffersOncePerHalf) {
  MemoryReclaimer::SetBudget(1000);
  const auto refuse = [](Observer*, bool) { return false; };
  const auto a = Make('a', 1, 200, refuse);
  const auto b = Make('b', 2, 300, [](Observer* self, bool demanded) { return demanded && self->Free(); });
  const auto c = Make('c', 3, 600, refuse);
  EXPECT_EQ(MemoryReclaimer::RunPass(), 300);
  EXPECT_EQ(log_, "abcAB") << "c is not demanded from: 800 are within the budget";
}

TEST_F(MemoryReclaimerTest, WhoeverBecomesReclaimableTooLateForAPassGetsAnother) {
  MemoryReclaimer::SetBudget(1000);
  Observer late('a', 1, 2000, &log_);
  pump_.Drain();
  EXPECT_EQ(log_, "");
  late.SetIsReclaimable(true);
  EXPECT_EQ(log_, "") << "its caller may hold the lock that reclaim() takes";
  pump_.Drain();
  EXPECT_EQ(log_, "a");
}

TEST_F(MemoryReclaimerTest, WhatComesDuringAPassGetsAnother) {
  MemoryReclaimer::SetBudget(1000);
  std::unique_ptr<Observer> newcomer;
  const auto first = Make('a', 1, 2000, [&](Observer* self, bool) {
    if (!newcomer) newcomer = Make('b', 2, 3000);
    return self->Free();
  });
  pump_.Drain();
  EXPECT_EQ(newcomer->GetUnpooledBytes(), 3000);
  EXPECT_EQ(pump_.GetLength(), 1);
  pump_.Drain();
  EXPECT_EQ(newcomer->GetUnpooledBytes(), 0);
}

TEST_F(MemoryReclaimerTest, AnObserverMayEndWithinItsOwnReclaim) {
  MemoryReclaimer::SetBudget(1000);
  std::unique_ptr<Observer> ends;
  ends = Make('a', 1, 1500, [&](Observer*, bool) {
    ends.reset();
    return true;
  });
  const auto stays = Make('b', 2, 2000, [](Observer*, bool) { return false; });
  EXPECT_EQ(MemoryReclaimer::RunPass(), 1500);
  EXPECT_EQ(log_, "abB") << "what has ended is not demanded from";
}

TEST_F(MemoryReclaimerTest, DetachWaitsForAReclaimOnAnotherThread) {
  const Watchdog watchdog(60, "an observer destroyed during its reclaim");
  const Gate entered;
  const Gate destroyed;
  std::atomic<bool> reclaimed{false};
  std::unique_ptr<Observer> observer = Make('a', 1, 2000, [&](Observer*, bool) {
    entered.Open();
    EXPECT_FALSE(destroyed.Wait(50)) << "only if nobody waits";
    reclaimed = true;
    return true;
  });
  std::thread destroyer([&] {
    EXPECT_TRUE(entered.Wait());
    observer.reset();
    EXPECT_TRUE(reclaimed);
    destroyed.Open();
  });
  MemoryReclaimer::SetBudget(1000);
  pump_.Drain();
  destroyer.join();
}

}  // namespace
}  // namespace orvan
