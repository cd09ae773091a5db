#include "orvan/support/job/event_pump.h"

#include <gtest/gtest.h>

#include <QTimer>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "orvan/support/job/job.h"
#include "orvan/support/job/timer.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan {
namespace {

using test::Gate;
using test::PumpUntil;
using test::Watchdog;

// A job, a call and a timer made of a function.
class Job : public AbstractJob {
 public:
  using Body = std::function<int(const IJobContinuator&)>;
  explicit Job(Body body) : AbstractJob(0, "test"), body_(std::move(body)) {}
  int Run(const IJobContinuator& continuator, IJobContainer*) override { return body_(continuator); }
  void CleanForRemoval() override { ++cleaned; }
  using AbstractJob::SetRemoved;
  int cleaned = 0;

 private:
  const Body body_;
};

class Call : public SyncMethod {
 public:
  explicit Call(std::function<void()> body) : SyncMethod("test", nullptr), body_(std::move(body)) {}
  ~Call() override { Withdraw(); }
  void Execute() override { body_(); }

 private:
  const std::function<void()> body_;
};

class Alarm : public Timer {
 public:
  explicit Alarm(std::function<void()> body) : Timer("test", nullptr), body_(std::move(body)) {}
  ~Alarm() override { Withdraw(); }

 private:
  void Fire() override { body_(); }
  const std::function<void()> body_;
};

void Post(std::function<void()> function) { EventPump::Get().PostFunction(std::move(function)); }

TEST(EventPumpTest, EverythingRunsInTheOrderOfItsArrivalAndNeverAtOnce) {
  std::string order;
  Call call([&] { order += 'c'; });
  const RefPtr<Job> job = new Job([&](const IJobContinuator&) {
    order += 'j';
    return AbstractJob::kFinished;
  });
  const RefPtr<Job> removed = new Job([](const IJobContinuator&) {
    ADD_FAILURE();
    return AbstractJob::kFinished;
  });
  Timer::ExecuteAsync(call);
  GetDefaultJobScheduler()->AddJob(job.get());
  GetDefaultJobScheduler()->AddJob(removed.get());
  MainThreadJobExecutor().ExecuteAsync([&] { order += 'f'; }, "f");
  Timer::ExecuteAsync(call);
  GetDefaultJobScheduler()->AddJob(job.get());
  removed->SetRemoved();
  EXPECT_EQ(order, "");
  ASSERT_TRUE(PumpUntil([&] { return order.size() == 5; }));
  EXPECT_EQ(order, "cjfcj");
  EXPECT_EQ(removed->cleaned, 1);
  EXPECT_EQ(job->getRefCount() + removed->getRefCount(), 2) << "the scheduler keeps no reference";
}

// With `while (!empty)` in a drain, Qt's timer would never be served.
TEST(EventPumpTest, AJobThatRunsAgainLetsTheEventLoopBreathe) {
  const Watchdog watchdog(60, "a job that runs again");
  bool served = false;
  bool slice_ended = false;
  QTimer::singleShot(5, [&] { served = true; });
  GetDefaultJobScheduler()->AddJob(new Job([&](const IJobContinuator& continuator) {
    if (served) slice_ended = test::SpinUntil([&] { return !continuator.MayContinue(nullptr); });
    return served ? AbstractJob::kFinished : AbstractJob::kRunAgain;
  }));
  EXPECT_TRUE(PumpUntil([&] { return slice_ended && EventPump::Get().GetQueueLength() == 0; }));
}

TEST(EventPumpTest, ARunningJobIsNotEnteredAgainButGetsItsTurnLater) {
  int runs = 0;
  int depth = 0;
  bool marker = false;
  RefPtr<Job> job;
  job = new Job([&](const IJobContinuator&) {
    EXPECT_EQ(++depth, 1);
    if (++runs == 1) {
      EXPECT_TRUE(PumpUntil([&] { return marker; })) << "the rest of the queue runs in a local event loop";
    }
    --depth;
    return AbstractJob::kFinished;
  });
  for (int times = 0; times < 2; ++times) GetDefaultJobScheduler()->AddJob(job.get());
  Post([&] { marker = true; });
  EXPECT_TRUE(PumpUntil([&] { return runs == 2; }));
  test::PumpPending();
  EXPECT_EQ(runs, 2);
}

TEST(EventPumpDeathTest, AnEmptyFunctionEndsTheProcessAtTheCall) { EXPECT_DEATH(Post(nullptr), ""); }

TEST(EventPumpTest, ItemsMayDeleteThemselvesInTheirOwnCall) {
  Call* call = nullptr;
  Alarm* alarm = nullptr;
  call = new Call([&call] { delete std::exchange(call, nullptr); });
  alarm = new Alarm([&alarm] { delete std::exchange(alarm, nullptr); });
  Timer::ExecuteAsync(*call);
  Timer::ExecuteAsync(*call);  // goes with the object
  alarm->Start(0, false);
  EXPECT_TRUE(PumpUntil([&] { return !call && !alarm && EventPump::Get().GetQueueLength() == 0; }));
}

// Destroys `object` on another thread while the main thread is inside its call.
template <typename Object, typename Start>
void DestroyWhileItRuns(const Start& start) {
  const Watchdog watchdog(60, "withdrawal on another thread");
  const Gate entered;
  std::atomic<bool> call_ended{false};
  const Gate destroyed;
  auto object = std::make_unique<Object>([&] {
    entered.Open();
    EXPECT_FALSE(destroyed.Wait(50)) << "only a destructor that does not wait comes to its end in this time";
    call_ended = true;
  });
  std::thread destroyer([&] {
    EXPECT_TRUE(entered.Wait());
    object.reset();
    EXPECT_TRUE(call_ended);
    destroyed.Open();
  });
  start(*object);
  EXPECT_TRUE(PumpUntil([&] { return destroyed.IsOpen(); }));
  destroyer.join();
}

TEST(EventPumpTest, TheDestructorTakesQueuedCallsAwayAndWaitsForARunningOne) {
  {
    Call call([] { ADD_FAILURE(); });
    for (int i = 0; i < 3; ++i) Timer::ExecuteAsync(call);
  }
  EXPECT_EQ(EventPump::Get().GetQueueLength(), 0);
  DestroyWhileItRuns<Call>([](Call& call) { Timer::ExecuteAsync(call); });
  DestroyWhileItRuns<Alarm>([](Alarm& alarm) { alarm.Start(0, true); });
}

// If Fire() came first, whoever asks IsActive() meanwhile would leave an expiring timer alone for good.
TEST(TimerTest, ASingleShotIsInactiveBeforeItFires) {
  int fired = 0;
  Alarm* self = nullptr;
  Alarm alarm([&] {
    EXPECT_FALSE(self->IsActive());
    if (++fired < 3) self->Start(0, true);
  });
  self = &alarm;
  alarm.Start(0, true);
  EXPECT_TRUE(alarm.IsActive());
  EXPECT_TRUE(PumpUntil([&] { return fired == 3; }));
}

// It is due several times while it runs a loop of its own, and the thread is busy.
TEST(TimerTest, ARepeatingTimerIsNeverHastyNorFiredInsideItself) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kInterval{10};
  std::vector<Clock::time_point> starts;
  bool running = false;
  Alarm alarm([&] {
    EXPECT_FALSE(std::exchange(running, true));
    starts.push_back(Clock::now());
    if (starts.size() == 2) test::PumpFor(50);
    running = false;
  });
  alarm.Start(10, false);
  ASSERT_TRUE(PumpUntil([&] { return starts.size() >= 5; }));
  for (size_t i = 1; i < starts.size(); ++i) EXPECT_GE(starts[i] - starts[i - 1], kInterval - kInterval / 10);
}

TEST(TimerTest, StartingAnActiveTimerReplacesItsInterval) {
  int fired = 0;
  Alarm alarm([&] { ++fired; });
  alarm.Start(1, true);
  alarm.Start(3600000, true);
  test::PumpFor(20);
  EXPECT_EQ(fired, 0);
  alarm.Start(0, true);  // earlier than what Qt's timer was set to
  EXPECT_TRUE(PumpUntil([&] { return fired == 1; }));
}

// A dialog that a call opens must not hold up the timers of others.
TEST(TimerTest, TimersFireInTheLocalEventLoopOfACallAndOfAnotherTimer) {
  int fired = 0;
  std::vector<bool> inside;
  Alarm alarm([&] { ++fired; });
  Alarm host([&] { inside.push_back(PumpUntil([&] { return fired == 2; })); });
  alarm.Start(1, true);
  Post([&] { inside.push_back(PumpUntil([&] { return fired == 1; })); });
  EXPECT_TRUE(PumpUntil([&] { return inside.size() == 1; }));
  host.Start(1, true);
  alarm.Start(20, true);
  EXPECT_TRUE(PumpUntil([&] { return inside.size() == 2; }));
  EXPECT_EQ(inside, std::vector<bool>({true, true}));
}

}  // namespace
}  // namespace orvan
