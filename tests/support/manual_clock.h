#pragma once

#include <atomic>

#include "orvan/support/job/event_pump.h"
#include "orvan/support/job/job.h"
#include "orvan/support/job/timer.h"
#include "orvan/support/thread/system.h"

namespace orvan::test {

// A clock turned by hand: while it lives, System::getTime() answers what it says. Made and destroyed while no
// other thread asks for the time; turned on any thread.
class ManualClock {
 public:
  ManualClock() {
    System::SetTimeSourceForTest([this] { return Now(); });
  }
  ~ManualClock() { System::SetTimeSourceForTest({}); }
  double Now() const { return now_; }
  void Advance(double seconds) { now_ = now_ + seconds; }

 private:
  std::atomic<double> now_{1000000.0};
};

// A main thread turned by hand: while it lives, the event loop runs no job, call or timer; Drain() and
// FireNow() do, on the thread that made it. What is left at the end goes back to the event loop.
class ManualPump {
 public:
  ManualPump() { EventPump::Get().SetManualForTest(true); }
  ~ManualPump() { EventPump::Get().SetManualForTest(false); }

  // Runs what is queued now. Things that this queues wait for the next turn.
  void Drain() { EventPump::Get().DrainForTest(); }
  // Drains until nothing is queued.
  [[nodiscard]] bool DrainAll() {
    for (int turns = 1000; turns > 0 && GetLength() > 0; --turns) Drain();
    return GetLength() == 0;
  }
  int GetLength() const { return EventPump::Get().GetQueueLength(); }

  // Ends the interval of a timer, and runs its Fire(). False if it is not armed. `object` may derive
  // privately from Timer, to which only this kind of cast may go.
  template <typename T>
  bool FireNow(T& object) {
    return EventPump::Get().FireNowForTest((Timer*)&object);
  }
};

// Says yes a given number of times, then no, and counts how often it was asked.
class CountingContinuator : public IJobContinuator {
 public:
  explicit CountingContinuator(int yes) : yes_(yes) {}
  bool MayContinue(const AbstractJob*) const override { return ++asked_ <= yes_; }
  int asked() const { return asked_; }

 private:
  const int yes_;
  mutable int asked_ = 0;
};

}  // namespace orvan::test
