#include "orvan/support/job/event_pump.h"

#include <gtest/gtest.h>

#include <QTimer>
#include <atomic>
#include <chrono>
#include <memory>
#include <random>
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
using test::PumpPending;
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
  MainThreadJobExecutor executor;
  Timer::ExecuteAsync(call);
  GetDefaultJobScheduler()->AddJob(job.get());
  executor.ExecuteAsync([&] { order += 'f'; }, "f");
  Timer::ExecuteAsync(call);
  GetDefaultJobScheduler()->AddJob(job.get());
  EXPECT_EQ(order, "");
  ASSERT_TRUE(PumpUntil([&] { return order.size() == 5; }));
  EXPECT_EQ(order, "cjfcj");
  EXPECT_EQ(job->getRefCount(), 1) << "the scheduler keeps no reference";
}

// With `while (!empty)` in a drain, Qt's timer would never be served.
TEST(EventPumpTest, AJobThatRunsAgainLetsTheEventLoopBreathe) {
  const Watchdog watchdog(60, "a job that runs again");
  bool served = false;
  QTimer::singleShot(5, [&] { served = true; });
  GetDefaultJobScheduler()->AddJob(new Job(
      [&](const IJobContinuator&) { return served ? AbstractJob::kFinished : AbstractJob::kRunAgain; }));
  EXPECT_TRUE(PumpUntil([&] { return served && EventPump::Get().GetQueueLength() == 0; }));
}

TEST(EventPumpTest, TheRestOfTheQueueRunsInTheLocalEventLoopOfAnItem) {
  int ran = 0;
  bool all_ran_inside = false;
  Post([&] { all_ran_inside = PumpUntil([&] { return ran == 2; }, 5000); });
  Post([&] { ++ran; });
  Post([&] { Post([&] { ++ran; }); });
  ASSERT_TRUE(PumpUntil([&] { return all_ran_inside; }));
}

TEST(EventPumpTest, ARunningJobIsNotEnteredAgainButGetsItsTurnLater) {
  int runs = 0;
  int depth = 0;
  bool marker = false;
  RefPtr<Job> job;
  job = new Job([&](const IJobContinuator&) {
    EXPECT_EQ(++depth, 1);
    if (++runs == 1) {
      GetDefaultJobScheduler()->AddJob(job.get());
      Post([&] { marker = true; });
      EXPECT_TRUE(PumpUntil([&] { return marker; }));
    }
    --depth;
    return AbstractJob::kFinished;
  });
  GetDefaultJobScheduler()->AddJob(job.get());
  EXPECT_TRUE(PumpUntil([&] { return runs == 2; }));
  PumpPending();
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(job->getRefCount(), 1);
}

TEST(EventPumpTest, AJobThatWasRemovedIsCleanedAndDroppedInsteadOfRun) {
  const RefPtr<Job> job = new Job([](const IJobContinuator&) {
    ADD_FAILURE();
    return AbstractJob::kFinished;
  });
  GetDefaultJobScheduler()->AddJob(job.get());
  job->SetRemoved();
  ASSERT_TRUE(PumpUntil([&] { return job->cleaned == 1; }));
  EXPECT_EQ(job->getRefCount(), 1);
}

TEST(EventPumpTest, TheContinuatorAgreesForAWhileAndThenNoMore) {
  bool ended = false;
  GetDefaultJobScheduler()->AddJob(new Job([&](const IJobContinuator& continuator) {
    EXPECT_TRUE(continuator.MayContinue(nullptr));
    ended = test::SpinUntil([&] { return !continuator.MayContinue(nullptr); });
    return AbstractJob::kFinished;
  }));
  ASSERT_TRUE(PumpUntil([&] { return ended; }));
}

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

TEST(EventPumpDeathTest, AnEmptyFunctionEndsTheProcessAtTheCall) {
  MainThreadJobExecutor executor;
  EXPECT_EXIT(executor.ExecuteAsync(std::function<void()>(), "empty"), testing::KilledBySignal(SIGABRT), "");
}

// If Fire() came first, whoever asks IsActive() meanwhile would leave an expiring timer alone for good.
TEST(TimerTest, ASingleShotIsInactiveBeforeItFires) {
  int fired = 0;
  bool was_active = true;
  Alarm* self = nullptr;
  Alarm alarm([&] {
    was_active = self->IsActive();
    if (++fired < 3) self->Start(0, true);
  });
  self = &alarm;
  alarm.Start(0, true);
  EXPECT_TRUE(alarm.IsActive());
  EXPECT_TRUE(PumpUntil([&] { return fired == 3; }));
  EXPECT_FALSE(was_active);
  EXPECT_FALSE(alarm.IsActive());
}

TEST(TimerTest, ARepeatingTimerIsLateOnABusyThreadAndNeverHasty) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kInterval{10};
  std::vector<Clock::time_point> starts;
  Alarm alarm([&] {
    starts.push_back(Clock::now());
    while (starts.size() == 2 && Clock::now() < starts.back() + 5 * kInterval) {
    }
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

TEST(TimerTest, ATimerIsNotFiredInsideItself) {
  int fired = 0;
  int depth = 0;
  Alarm alarm([&] {
    EXPECT_EQ(++depth, 1);
    if (++fired == 1) test::PumpFor(20);  // it is due several times until then
    --depth;
  });
  alarm.Start(2, false);
  EXPECT_TRUE(PumpUntil([&] { return fired >= 3; }));
}

// A dialog that a call opens must not hold up the timers of others.
TEST(TimerTest, TimersFireInTheLocalEventLoopOfACallAndOfAnotherTimer) {
  bool fired = false, inside = false;
  Alarm alarm([&] { fired = true; });
  Alarm host([&] { inside = PumpUntil([&] { return fired; }); });
  alarm.Start(1, true);
  Post([&] { inside = PumpUntil([&] { return fired; }); });
  EXPECT_TRUE(PumpUntil([&] { return inside || fired; }));
  EXPECT_TRUE(std::exchange(inside, false));
  fired = false;
  host.Start(1, true);
  alarm.Start(20, true);
  EXPECT_TRUE(PumpUntil([&] { return inside || fired; }));
  EXPECT_TRUE(inside);
}

// Threads make, post, arm and destroy while the main thread runs what they made. For the sanitizers, and for
// whatever is lost: the counts have to agree.
TEST(EventPumpTest, ManyThreadsAtOnceLoseNothing) {
  const Watchdog watchdog(120, "stress of the event pump");
  constexpr int kThreads = 4;
  constexpr int kRounds = 3000;
  std::atomic<int> functions{0}, jobs{0}, ended{0};
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&, number] {
      std::mt19937 random(static_cast<unsigned int>(number));
      for (int round = 0; round < kRounds; ++round) {
        std::atomic<int> touched{0};
        Call call([&touched] { ++touched; });
        Alarm alarm([&touched] { ++touched; });
        Timer::ExecuteAsync(call);
        alarm.Start(random() % 2, random() % 2 == 0);
        if (random() % 4 == 0) alarm.Stop();
        Post([&functions] { ++functions; });
        GetDefaultJobScheduler()->AddJob(
            new Job([&jobs, again = std::make_shared<bool>(random() % 2 == 0)](const IJobContinuator&) {
              if (std::exchange(*again, false)) return AbstractJob::kRunAgain;
              ++jobs;
              return AbstractJob::kFinished;
            }));
        if (random() % 8 == 0) std::this_thread::yield();
      }
      ++ended;
    });
  }
  EXPECT_TRUE(PumpUntil([&] { return ended == kThreads; }, 100000));
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(PumpUntil([&] { return functions == kThreads * kRounds && jobs == kThreads * kRounds; }));
  EXPECT_EQ(EventPump::Get().GetQueueLength(), 0);
}

}  // namespace
}  // namespace orvan
