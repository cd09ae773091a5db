#pragma once

#include <QtGlobal>
#include <functional>
#include <memory>

namespace orvan::test {

// A bound for things that must happen: far longer than any of them takes, sanitizers included. A test that
// reaches it has failed.
inline constexpr int kWaitMs = 20000;

// Runs the event loop of the calling thread until `predicate` holds, and returns whether it came to hold
// within `timeout_ms`. It is a real nested QEventLoop, so deleteLater() works as in an application.
//
// The predicate is tried at the start, whenever the loop has nothing left to do, and every two
// milliseconds, so that a flag set by another thread needs no event of its own. It runs on the calling
// thread, and must neither wait nor run a loop itself.
[[nodiscard]] bool PumpUntil(const std::function<bool()>& predicate, int timeout_ms = kWaitMs);

// Runs the event loop of the calling thread for `duration_ms`. Only for claims that something does *not*
// happen; whatever is expected to happen is waited for with PumpUntil().
void PumpFor(int duration_ms);

// Runs the events that are already there, deferred deletions included, and those that they post in turn,
// until none is left or a second has gone by.
void PumpPending();

// The same for a thread without an event loop: looks at `predicate` every millisecond.
[[nodiscard]] bool SpinUntil(const std::function<bool()>& predicate, int timeout_ms = kWaitMs);

// A latch that is opened once and stays open. Copies share one latch, so that a thread which still looks at
// it never depends on the lifetime of the test's own variable.
class Gate {
 public:
  Gate();

  void Open() const;
  bool IsOpen() const;

  // Waits without an event loop. True if the gate is open, false once `timeout_ms` have gone by.
  [[nodiscard]] bool Wait(int timeout_ms = kWaitMs) const;

  // Calls `listener` when the gate opens, on the thread that opens it, or at once if it is open. The
  // result is the number for RemoveListener(), which waits while the listener is being called.
  int AddListener(std::function<void()> listener) const;
  void RemoveListener(int number) const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

// Threads of this process (a server of the test bed has some), as the kernel counts them. A thread may still
// be counted for a moment after it was joined, so compare with PumpUntil() or SpinUntil().
int CountThreads();

// Open descriptors of this process, without the one that the counting itself needs.
int CountDescriptors();

// Resident memory in bytes: now, and the highest since the start or since ResetPeakResidentBytes(), which
// returns false where the kernel does not permit it. Allocators keep freed memory, so compare with slack,
// and expect several times as much under a sanitizer.
qint64 ResidentBytes();
qint64 PeakResidentBytes();
bool ResetPeakResidentBytes();

// True in a build with AddressSanitizer or ThreadSanitizer, for bounds on memory and speed.
bool UnderSanitizer();

}  // namespace orvan::test
