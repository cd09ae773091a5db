#pragma once

#include <atomic>
#include <mutex>
#include <vector>

#include "orvan/support/job/event_pump.h"
#include "orvan/support/job/job.h"
#include "orvan/support/job/timer.h"
#include "orvan/support/memory/ref_ptr.h"

namespace orvan::test {

// A clock turned by hand: while it lives, System::getTime() answers what it says.
//
// Threads: made and destroyed while no other thread asks for the time; turned on any thread.
class ManualClock {
 public:
  explicit ManualClock(double now = 1000000.0);
  ~ManualClock();
  ManualClock(const ManualClock&) = delete;
  ManualClock& operator=(const ManualClock&) = delete;

  double Now() const { return now_.load(); }
  void Set(double now) { now_.store(now); }
  void Advance(double seconds) { now_.store(now_.load() + seconds); }

 private:
  std::atomic<double> now_;
};

// A main thread turned by hand: while it lives, the event loop runs no job, call or timer; Drain() and
// FireNow() do. What is left at the end goes back to the event loop.
//
// Threads: one at a time, which plays the main thread: the one that makes it.
class ManualPump {
 public:
  ManualPump();
  ~ManualPump();
  ManualPump(const ManualPump&) = delete;
  ManualPump& operator=(const ManualPump&) = delete;

  // Runs what is queued now. Things that this queues wait for the next turn.
  void Drain();
  // Drains until nothing is queued, and returns whether that came true within `turns`.
  [[nodiscard]] bool DrainAll(int turns = 1000);
  // How many things are queued.
  int GetLength() const;

  // Ends the interval of a timer, and runs its Fire(). False if it is not armed. `object` may derive
  // privately from Timer.
  template <typename T>
  bool FireNow(T& object) {
    return EventPump::Get().FireNowForTest(TimerOf(object));
  }
  template <typename T>
  static bool IsArmed(T& object) {
    return EventPump::Get().IsTimerActive(TimerOf(object));
  }

 private:
  // The one cast that may go to a private base.
  template <typename T>
  static Timer* TimerOf(T& object) {
    return (Timer*)&object;
  }
};

// Says yes a given number of times, then no, and counts how often it was asked.
class CountingContinuator : public IJobContinuator {
 public:
  explicit CountingContinuator(int yes) : yes_(yes) {}
  bool MayContinue(const AbstractJob* job) const override;
  int asked() const { return asked_; }

 private:
  const int yes_;
  mutable int asked_ = 0;
};

// Holds jobs until told to run them, on the thread that tells.
class HoldingJobContainer : public IJobContainer {
 public:
  void AddJob(AbstractJob* job) override;
  // Runs each job that is held now once; those that ask for it are held again. Returns how many ran.
  int RunHeld(const IJobContinuator& continuator);
  int RunHeld();
  int GetHeldCount() const;

 private:
  mutable std::mutex mutex_;
  std::vector<RefPtr<AbstractJob>> held_;  // guarded by mutex_
};

}  // namespace orvan::test
