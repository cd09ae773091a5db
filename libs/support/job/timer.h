#pragma once

#include "orvan/support/export.h"

namespace orvan {

namespace port::QOFramework {
// Names the urgency of a call. Everything in this library passes null: in order of arrival.
struct CommandEvent {
  using Priority = const struct PriorityTag*;
};
}  // namespace port::QOFramework

// A call that is made later, on the main thread. See Timer::ExecuteAsync().
//
// Threads:   may be made and destroyed on any thread. The destructor takes a call that is still queued away,
//            and waits while one is running on another thread; a subclass whose Execute() needs its own
//            fields calls Withdraw() first thing in its own destructor, because in the base it is too late.
class ORVAN_SUPPORT_EXPORT SyncMethod {
 public:
  SyncMethod(const char* name, port::QOFramework::CommandEvent::Priority priority);
  SyncMethod(const SyncMethod&) = delete;
  SyncMethod& operator=(const SyncMethod&) = delete;
  virtual ~SyncMethod();

  virtual void Execute() = 0;

 protected:
  // Takes queued calls of Execute() away. Waits for one that runs on another thread, never for its own.
  void Withdraw();

 private:
  friend class EventPump;
  const char* const name_;
  int queued_calls_ = 0;  // the event pump's, under its lock
};

// Calls Fire() on the main thread after an interval, once or again and again.
//
// Units:     milliseconds on a clock that never goes back.
// Threads:   every operation on any thread; Fire() on the main thread. Destruction as for SyncMethod.
// Order:     a single shot is inactive before its Fire() is called, so Start() from within Fire(), or from
//            another thread meanwhile, arms it anew. A repeating timer fires again one interval after the
//            start of the last Fire(): a busy main thread makes it late, never hasty.
class ORVAN_SUPPORT_EXPORT Timer {
 public:
  Timer(const char* name, port::QOFramework::CommandEvent::Priority priority);
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;
  virtual ~Timer();

  // Runs the expired timer; called by the event pump.
  virtual void dispatch();
  // Arms the timer; an active one starts anew.
  virtual void Start(unsigned int milliseconds, bool single_shot);
  virtual void Stop();
  virtual bool IsActive() const;

  // Calls `method.Execute()` later on the main thread, never within this call. A method that is queued
  // twice is called twice.
  static void ExecuteAsync(SyncMethod& method);

 protected:
  virtual void Fire() = 0;

  // Stops the timer and waits for a Fire() that runs on another thread, never for its own.
  void Withdraw();

 private:
  friend class EventPump;
  const char* const name_;
};

}  // namespace orvan
