#include "orvan/net/http/qnetwork/send_gate.h"

#include <QCoreApplication>
#include <utility>

#include "orvan/net/http/qnetwork/qthttpimpl.h"

namespace orvan::net {

void GateTicket::Complete() {
  port::MutexGuard guard(mutex_);
  complete_ = true;
  completed_.NotifyAll();
}

bool GateTicket::IsComplete() {
  port::MutexGuard guard(mutex_);
  return complete_;
}

bool GateTicket::WaitFor(unsigned int milliseconds) {
  port::MutexGuard guard(mutex_);
  while (!complete_) {
    if (!completed_.WaitFor(mutex_, milliseconds)) return complete_;
  }
  return true;
}

SendGate::WakeEvent::WakeEvent() : QEvent(StaticType()) {}

SendGate::WakeEvent::~WakeEvent() {
  if (ticket) ticket->Complete();
}

QEvent::Type SendGate::WakeEvent::StaticType() {
  static const auto type = static_cast<QEvent::Type>(QEvent::registerEventType());
  return type;
}

SendGate::SendGate(QObject* receiver) : receiver_(receiver) {}

SendGate::~SendGate() = default;

bool SendGate::Post(Command command) {
  port::MutexGuard guard(mutex_);
  if (!receiver_) return false;
  if (command.verb == Verb::kLeave) handler_barred_ = true;
  inbox_.push_back(std::move(command));
  WakeLocked();
  return true;
}

void SendGate::Wake() {
  port::MutexGuard guard(mutex_);
  if (receiver_) WakeLocked();
}

// Under the mutex, because Close() is what keeps the receiver alive until here. Qt takes only the lock of its
// event queue for this, and calls nobody.
void SendGate::WakeLocked() { QCoreApplication::postEvent(receiver_, new WakeEvent); }

size_t SendGate::BeginPass() {
  port::MutexGuard guard(mutex_);
  return inbox_.size();
}

bool SendGate::Take(Command* command) {
  port::MutexGuard guard(mutex_);
  if (inbox_.empty()) return false;
  *command = std::move(inbox_.front());
  inbox_.pop_front();
  return true;
}

void SendGate::PutBack(Command command) {
  port::MutexGuard guard(mutex_);
  inbox_.push_front(std::move(command));
}

bool SendGate::EnterHandler() {
  port::MutexGuard guard(mutex_);
  if (handler_barred_ || !receiver_) return false;
  in_handler_ = true;
  return true;
}

void SendGate::LeaveHandler() {
  port::MutexGuard guard(mutex_);
  in_handler_ = false;
}

bool SendGate::BarHandler() {
  port::MutexGuard guard(mutex_);
  handler_barred_ = true;
  return !in_handler_;
}

void SendGate::Close() {
  // Outside the mutex: the last reference to a request may be among what is dropped.
  std::deque<Command> dropped;
  port::MutexGuard guard(mutex_);
  receiver_ = nullptr;
  dropped.swap(inbox_);
}

}  // namespace orvan::net
