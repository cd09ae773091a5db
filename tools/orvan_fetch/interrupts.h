#pragma once

#include <QSocketNotifier>
#include <functional>
#include <memory>

namespace orvan_fetch {

// Ctrl-C and a polite kill, delivered on the event loop. A second one of the same kind ends the process at
// once, as if this class were not there.
//
// Shape: one object in a process, on the main thread.
class Interrupts {
 public:
  // `handler` gets the number of the signal.
  explicit Interrupts(std::function<void(int)> handler);
  ~Interrupts();
  Interrupts(const Interrupts&) = delete;
  Interrupts& operator=(const Interrupts&) = delete;

  // Whether a signal has come, delivered or not, for loops that block. Any thread.
  static bool Pending();

 private:
  void Deliver();

  const std::function<void(int)> handler_;
  std::unique_ptr<QSocketNotifier> notifier_;
};

}  // namespace orvan_fetch
