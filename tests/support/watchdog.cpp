#include "tests/support/watchdog.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace orvan::test {

Watchdog::Watchdog(int seconds, std::string what)
    : seconds_(seconds), what_(std::move(what)), thread_([this] { Run(); }) {}

Watchdog::~Watchdog() {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    ended_ = true;
  }
  ended_changed_.notify_all();
  thread_.join();
}

void Watchdog::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  if (ended_changed_.wait_for(lock, std::chrono::seconds(seconds_), [this] { return ended_; })) return;
  (void)std::fprintf(stderr, "Watchdog: '%s' was not done after %d seconds\n", what_.c_str(), seconds_);
  (void)std::fflush(stderr);
  std::abort();
}

}  // namespace orvan::test
