#pragma once

#include <cstdio>
#include <cstdlib>
#include <thread>

#include "tests/support/wait.h"

namespace orvan::test {

// Ends the process with a message if its scope takes longer than `seconds`: a deadlock becomes a failure that
// names itself, and its core or sanitizer report still shows where every thread stood. It has a thread of its
// own while it lives; whoever counts threads counts that one too.
class Watchdog {
 public:
  Watchdog(int seconds, const char* what)
      : thread_([ended = ended_, seconds, what] {
          if (ended.Wait(seconds * 1000)) return;
          (void)std::fprintf(stderr, "Watchdog: '%s' was not done after %d seconds\n", what, seconds);
          std::abort();
        }) {}
  ~Watchdog() {
    ended_.Open();
    thread_.join();
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

 private:
  const Gate ended_;
  std::thread thread_;
};

}  // namespace orvan::test
