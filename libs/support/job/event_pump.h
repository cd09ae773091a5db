#pragma once

#include <functional>

#include "orvan/support/export.h"
#include "orvan/support/job/job.h"
#include "orvan/support/job/timer.h"

namespace orvan {

// The one queue of the main thread: calls, jobs and functions in the order of their arrival, and timers.
// Internal to the support library and its tests; others post through Timer, GetDefaultJobScheduler() and
// MainThreadJobExecutor.
//
// Threads:   posting is legal on any thread and under any lock: it locks, appends, unlocks, and posts one Qt
//            event when the queue was empty. What is posted runs on the thread of the QCoreApplication, in
//            its event loop. Before the first application object and after the last one, things queue up.
// Order:     a drain runs what was queued when it began, so a job that puts itself back lets the event loop
//            breathe. Drains nest (a callback may run a local event loop); a job is never entered twice.
// Ownership: made on first use and never destroyed.
class ORVAN_SUPPORT_EXPORT EventPump {
 public:
  static EventPump& Get();

  void PostCall(SyncMethod* method);
  void PostJob(AbstractJob* job);  // takes a reference
  void PostFunction(std::function<void()> function);

  void StartTimer(Timer* timer, unsigned int milliseconds, bool single_shot);
  void StopTimer(Timer* timer);
  bool IsTimerActive(const Timer* timer) const;

  // Removes everything queued or armed for the object, and waits while it runs on another thread.
  void Withdraw(SyncMethod* method);
  void Withdraw(Timer* timer);

  // Runs on the calling thread, as the main thread would, what is queued now, and no timers. For tests that
  // turn the scheduler by hand.
  void DrainForTest();
  // Runs the timer's Fire() now, as if its interval had ended, if it is active. False if it is not.
  bool FireNowForTest(Timer* timer);
  // Holds everything back until released: the Qt event loop runs nothing, only DrainForTest() and
  // FireNowForTest() do.
  void SetManualForTest(bool manual);
  int GetQueueLength() const;

 private:
  friend struct EventPumpStartup;
  struct ORVAN_SUPPORT_HIDDEN Private;
  EventPump();
  ~EventPump() = delete;

  Private* const d_;
};

}  // namespace orvan
