#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace orvan::test {

// Ends the process with a message if its scope takes longer than `seconds`: a deadlock becomes a failure
// that names itself, and its core or sanitizer report still shows where every thread stood.
//
//   Watchdog guard(60, "two managers shut down at once");
//
// It has a thread of its own while it lives; whoever counts threads counts that one too.
class Watchdog {
 public:
  Watchdog(int seconds, std::string what);
  ~Watchdog();
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

 private:
  void Run();

  const int seconds_;
  const std::string what_;
  std::mutex mutex_;
  std::condition_variable ended_changed_;
  bool ended_ = false;  // guarded by mutex_
  std::thread thread_;
};

}  // namespace orvan::test
