#pragma once

#include <QString>
#include <atomic>
#include <functional>

#include "orvan/support/export.h"

namespace orvan {

// Threads, clock, chance and places of the machine.
//
// Threads: every operation may be called on any thread. s_cur_frame is relaxed: a coarse clock, nothing is
//          ordered by it.
class ORVAN_SUPPORT_EXPORT System {
 public:
  static constexpr unsigned long kInvalidThreadId = 0;

  // Starts a thread that runs `body(argument)` and returns its handle, kInvalidThreadId on failure. `name` is
  // what the thread is called in tools; the kernel keeps its first 15 bytes.
  static unsigned long spawn(void* (*body)(void*), void* argument, const char* name);
  // Waits for the end of the thread. A thread is joined or detached once, and cannot join itself.
  static void join(unsigned long thread);
  static void detach(unsigned long thread);
  static unsigned long CurrentThreadId();

  // True on the thread of the QCoreApplication; before there is one, on the thread that loaded the library.
  static bool IsMainThread();

  // A random value from `low` to `high`, both included.
  static int Random(int low, int high);
  // Seconds since 1970-01-01 UTC.
  static double getTime();
  static QString GetTempDirectory();

  // Number of the application's current frame. The application increments it.
  static std::atomic<int> s_cur_frame;

  // Replace the clock and the dice; an empty function goes back to the real ones. A call on another thread
  // may still use the earlier one for a moment.
  static void SetTimeSourceForTest(std::function<double()> source);
  static void SetRandomForTest(std::function<int(int, int)> source);
};

}  // namespace orvan
