#include "orvan/support/job/event_pump.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QEvent>
#include <QSocketNotifier>
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
#include "orvan/support/thread/system.h"
#include "tests/support/manual_clock.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan {
namespace {

using test::Gate;
using test::ManualPump;
using test::PumpFor;
using test::PumpPending;
using test::PumpUntil;
using test::Watchdog;

using Clock = std::chrono::steady_clock;

// A job made of a function.
class Job : public AbstractJob {
 public:
  using Body = std::function<int(const IJobContinuator&)>;
  explicit Job(Body body, int* cleaned = nullptr)
      : AbstractJob(0, QStringLiteral("test")), body_(std::move(body)), cleaned_(cleaned) {}
  int Run(const IJobContinuator& continuator, IJobContainer*) override { return body_(continuator); }
  void CleanForRemoval() override { ++*cleaned_; }
  using AbstractJob::SetRemoved;

 private:
  Body body_;
  int* const cleaned_;
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

// With `while (!empty)` in a drain, neither the timer nor the socket would ever be served.
TEST(EventPumpTest, AJobThatRunsAgainLetsTheEventLoopBreathe) {
  const int events = eventfd(1, EFD_NONBLOCK);
  bool socket_served = false;
  bool timer_served = false;
  QSocketNotifier notifier(events, QSocketNotifier::Read);
  QObject::connect(&notifier, &QSocketNotifier::activated, &notifier, [&] {
    notifier.setEnabled(false);
    socket_served = true;
  });
  QTimer::singleShot(5, &notifier, [&] { timer_served = true; });
  bool stop = false;
  GetDefaultJobScheduler()->AddJob(new Job(
      [&](const IJobContinuator&) { return stop ? AbstractJob::kFinished : AbstractJob::kRunAgain; }));
  const Watchdog watchdog(60, "a job that runs again");
  EXPECT_TRUE(PumpUntil([&] { return socket_served && timer_served; }));
  stop = true;
  ASSERT_TRUE(PumpUntil([] { return EventPump::Get().GetQueueLength() == 0; }));
  close(events);
}

class EventCounter : public QObject {
 public:
  EventCounter() { QCoreApplication::instance()->installEventFilter(this); }
  bool eventFilter(QObject*, QEvent* event) override {
    if (event->type() >= QEvent::User) ++count;
    return false;
  }
  int count = 0;
};

TEST(EventPumpTest, APileOfCompletionsCostsOneWakeUpAndNotOneEach) {
  PumpPending();
  EventCounter counter;
  int done = 0;
  for (int i = 0; i < 1000; ++i) EventPump::Get().PostFunction([&done] { ++done; });
  ASSERT_TRUE(PumpUntil([&] { return done == 1000; }));
  PumpPending();
  EXPECT_LE(counter.count, 2) << "one, and one in case that an item runs an event loop of its own";
}

TEST(EventPumpTest, TheRestOfTheQueueRunsInTheLocalEventLoopOfAnItem) {
  int ran = 0;
  bool all_ran_inside = false;
  EventPump::Get().PostFunction([&] { all_ran_inside = PumpUntil([&] { return ran == 3; }, 5000); });
  for (int i = 0; i < 2; ++i) EventPump::Get().PostFunction([&] { ++ran; });
  EventPump::Get().PostFunction([&] { EventPump::Get().PostFunction([&] { ++ran; }); });
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
      EventPump::Get().PostFunction([&] { marker = true; });
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
  int runs = 0;
  int cleaned = 0;
  const RefPtr<Job> job = new Job(
      [&](const IJobContinuator&) {
        ++runs;
        return AbstractJob::kFinished;
      },
      &cleaned);
  GetDefaultJobScheduler()->AddJob(job.get());
  job->SetRemoved();
  ASSERT_TRUE(PumpUntil([&] { return cleaned == 1; }));
  EXPECT_EQ(runs, 0);
  EXPECT_EQ(job->getRefCount(), 1);
}

TEST(EventPumpTest, TheContinuatorAgreesForAWhileAndThenNoMore) {
  bool agreed_first = false;
  bool ended = false;
  GetDefaultJobScheduler()->AddJob(new Job([&](const IJobContinuator& continuator) {
    agreed_first = continuator.MayContinue(nullptr);
    ended = test::SpinUntil([&] { return !continuator.MayContinue(nullptr); });
    return AbstractJob::kFinished;
  }));
  ASSERT_TRUE(PumpUntil([&] { return ended; }));
  EXPECT_TRUE(agreed_first);
}

TEST(EventPumpTest, ItemsMayDeleteThemselvesInTheirOwnCall) {
  int deleted = 0;
  Call* call = nullptr;
  call = new Call([&] {
    delete call;  // the captures die with it, what they refer to does not
  });
  Alarm* alarm = nullptr;
  int& counter = deleted;
  alarm = new Alarm([&alarm, &counter] {
    int& kept = counter;
    delete alarm;
    ++kept;
  });
  Timer::ExecuteAsync(*call);
  Timer::ExecuteAsync(*call);  // goes with the object
  alarm->Start(0, false);
  EXPECT_TRUE(PumpUntil([&] { return deleted == 1 && EventPump::Get().GetQueueLength() == 0; }));
}

TEST(EventPumpTest, TheDestructorTakesQueuedCallsAway) {
  int calls = 0;
  {
    Call call([&] { ++calls; });
    for (int i = 0; i < 3; ++i) Timer::ExecuteAsync(call);
    EXPECT_EQ(EventPump::Get().GetQueueLength(), 3);
  }
  EXPECT_EQ(EventPump::Get().GetQueueLength(), 0);
  PumpPending();
  EXPECT_EQ(calls, 0);
}

// Destroys `object` on another thread while the main thread is inside its call.
template <typename Object, typename Post>
void DestroyWhileItRuns(const Post& post) {
  const Watchdog watchdog(60, "withdrawal on another thread");
  const Gate entered;
  std::atomic<bool> call_ended{false};
  std::atomic<bool> destroyed{false};
  std::thread destroyer;
  auto object = std::make_unique<Object>([&] {
    entered.Open();
    // Only a destructor that does not wait comes to its end in this time.
    EXPECT_FALSE(test::SpinUntil([&] { return destroyed.load(); }, 50));
    call_ended = true;
  });
  destroyer = std::thread([&] {
    EXPECT_TRUE(entered.Wait());
    object.reset();
    EXPECT_TRUE(call_ended);
    destroyed = true;
  });
  post(*object);
  EXPECT_TRUE(PumpUntil([&] { return destroyed.load(); }));
  destroyer.join();
}

TEST(EventPumpTest, TheDestructorWaitsForACallOnAnotherThread) {
  DestroyWhileItRuns<Call>([](Call& call) { Timer::ExecuteAsync(call); });
}

TEST(EventPumpTest, TheHandTurnedPumpHoldsBackWhatIsNotAskedFor) {
  int runs = 0;
  Alarm alarm([&] { ++runs; });
  {
    ManualPump pump;
    EventPump::Get().PostFunction([&] { ++runs; });
    alarm.Start(0, true);
    PumpFor(20);
    EXPECT_EQ(runs, 0);
    pump.Drain();
    EXPECT_EQ(runs, 1);
    EXPECT_TRUE(pump.FireNow(alarm));
    EXPECT_EQ(runs, 2);
    EXPECT_FALSE(pump.FireNow(alarm)) << "a single shot is over";
    EventPump::Get().PostFunction([&] { ++runs; });
    alarm.Start(0, true);
  }
  EXPECT_TRUE(PumpUntil([&] { return runs == 4; })) << "what is left goes back to the event loop";
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

TEST(TimerTest, AnotherThreadArmsASingleShotAnewWhileItFires) {
  const Watchdog watchdog(60, "a timer armed from another thread");
  const Gate firing;
  const Gate armed;
  std::atomic<int> fired{0};
  Alarm alarm([&] {
    if (++fired > 1) return;
    firing.Open();
    EXPECT_TRUE(armed.Wait());
  });
  std::thread other([&] {
    EXPECT_TRUE(firing.Wait());
    EXPECT_FALSE(alarm.IsActive());
    if (!alarm.IsActive()) alarm.Start(0, true);
    armed.Open();
  });
  alarm.Start(0, true);
  EXPECT_TRUE(PumpUntil([&] { return fired == 2; }));
  other.join();
}

TEST(TimerTest, ARepeatingTimerIsLateOnABusyThreadAndNeverHasty) {
  constexpr std::chrono::milliseconds kInterval{10};
  std::vector<Clock::time_point> starts;
  Alarm alarm([&] {
    starts.push_back(Clock::now());
    while (starts.size() == 2 && Clock::now() < starts.back() + 5 * kInterval) {
    }
  });
  alarm.Start(10, false);
  ASSERT_TRUE(PumpUntil([&] { return starts.size() >= 5; }));
  alarm.Stop();
  for (size_t i = 1; i < starts.size(); ++i) EXPECT_GE(starts[i] - starts[i - 1], kInterval - kInterval / 10);
  const size_t count = starts.size();
  PumpFor(30);
  EXPECT_EQ(starts.size(), count) << "stopped";
}

TEST(TimerTest, StartingAnActiveTimerReplacesItsInterval) {
  int fired = 0;
  Alarm alarm([&] { ++fired; });
  Alarm marker([] {});
  alarm.Start(1, true);
  alarm.Start(3600000, true);
  marker.Start(20, true);
  ASSERT_TRUE(PumpUntil([&] { return !marker.IsActive(); }));
  EXPECT_EQ(fired, 0);
  EXPECT_TRUE(alarm.IsActive());
  alarm.Start(0, true);  // earlier than what Qt's timer was set to
  EXPECT_TRUE(PumpUntil([&] { return fired == 1; }));
}

TEST(TimerTest, ATimerIsNotFiredInsideItself) {
  int fired = 0;
  int depth = 0;
  bool marker = false;
  Alarm later([&] { marker = true; });
  Alarm alarm([&] {
    EXPECT_EQ(++depth, 1);
    if (++fired == 1) {
      later.Start(20, true);  // the repeating one is due several times until then
      EXPECT_TRUE(PumpUntil([&] { return marker; }));
    }
    --depth;
  });
  alarm.Start(2, false);
  EXPECT_TRUE(PumpUntil([&] { return fired >= 3; }));
}

// A dialog that a call opens must not hold up the timers of others.
TEST(TimerTest, TimersFireInTheLocalEventLoopOfACallAndOfAnotherTimer) {
  bool fired_in_call = false, fired_in_fire = false;
  Alarm first([&] { fired_in_call = true; }), second([&] { fired_in_fire = true; });
  bool in_call = false, in_fire = false;
  Alarm host([&] { in_fire = PumpUntil([&] { return fired_in_fire; }); });
  first.Start(1, true);
  EventPump::Get().PostFunction([&] { in_call = PumpUntil([&] { return fired_in_call; }); });
  EXPECT_TRUE(PumpUntil([&] { return in_call || fired_in_call; }));
  EXPECT_TRUE(in_call);
  host.Start(1, true);
  second.Start(20, true);
  EXPECT_TRUE(PumpUntil([&] { return in_fire || fired_in_fire; }));
  EXPECT_TRUE(in_fire);
}

TEST(TimerTest, TheDestructorWaitsForAFireOnAnotherThread) {
  DestroyWhileItRuns<Alarm>([](Alarm& alarm) { alarm.Start(0, true); });
}

// Threads make, post, arm and destroy while the main thread runs what they made. For the sanitizers, and for
// whatever is lost: the counts have to agree.
TEST(EventPumpTest, ManyThreadsAtOnceLoseNothing) {
  const Watchdog watchdog(120, "stress of the event pump");
  constexpr int kThreads = 4;
  constexpr int kRounds = 3000;
  std::atomic<int> functions{0};
  std::atomic<int> jobs{0};
  std::atomic<int> ended{0};
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
        EventPump::Get().PostFunction([&functions] { ++functions; });
        bool again = random() % 2 == 0;
        GetDefaultJobScheduler()->AddJob(new Job([&jobs, again](const IJobContinuator&) mutable {
          if (std::exchange(again, false)) return AbstractJob::kRunAgain;
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
