#pragma once

#include <QtGlobal>
#include <functional>
#include <memory>

namespace orvan::test {

// A bound for things that must happen: far longer than any of them takes, sanitizers included. A test that
// reaches it has failed.
inline constexpr int kWaitMs = 20000;

// Runs the event loop of the calling thread until `predicate` holds, and returns whether it came to hold in
// time. It is a real nested QEventLoop, so deleteLater() works as in an application. The predicate is tried
// whenever the loop has nothing left to do, and every two milliseconds, so that a flag set by another thread
// needs no event of its own. It must neither wait nor run a loop itself.
[[nodiscard]] bool PumpUntil(const std::function<bool()>& predicate, int timeout_ms = kWaitMs);

// Runs the event loop for that long. Only for claims that something does *not* happen.
void PumpFor(int duration_ms);

// Runs the events that are already there, and those that they post in turn.
void PumpPending();

// For a thread without an event loop: looks at `predicate` every millisecond.
[[nodiscard]] bool SpinUntil(const std::function<bool()>& predicate, int timeout_ms = kWaitMs);

// A latch that is opened once and stays open. Copies share one latch, so that a thread which still looks at
// it never depends on the lifetime of the test's own variable.
class Gate {
 public:
  Gate();
  void Open() const;
  bool IsOpen() const { return Wait(0); }
  // Waits without an event loop, and returns whether the gate is open.
  [[nodiscard]] bool Wait(int timeout_ms = kWaitMs) const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

// Threads and open descriptors of this process. A thread may still be counted for a moment after it was
// joined, so compare with PumpUntil() or SpinUntil().
int CountThreads();
int CountDescriptors();

// Resident memory in bytes: now, and the highest since ResetPeakResidentBytes(), which returns false where
// the kernel does not permit it. Allocators keep freed memory, so compare with slack.
qint64 ResidentBytes();
qint64 PeakResidentBytes();
bool ResetPeakResidentBytes();

// True in a build with AddressSanitizer or ThreadSanitizer, for bounds on memory.
bool UnderSanitizer();

}  // namespace orvan::test
