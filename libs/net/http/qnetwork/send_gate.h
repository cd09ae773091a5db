#pragma once

#include <QEvent>
#include <cstddef>
#include <deque>
#include <memory>

#include "orvan/support/memory/ref_ptr.h"
#include "orvan/support/thread/lock.h"

class QObject;
class QThread;

namespace orvan::net {

class QtHttpRequest;

// Tells one waiting thread that the worker has done something. Shared by both sides, so that neither
// depends on how long the other one still looks at it.
class GateTicket {
 public:
  void Complete();
  bool IsComplete();
  // False if `milliseconds` went by before Complete().
  bool WaitFor(unsigned int milliseconds);

 private:
  port::MutexPosix mutex_;
  port::ConditionPosix completed_;
  bool complete_ ORVAN_GUARDED_BY(mutex_) = false;
};

// The way from any thread to the worker of one connection. Internal.
//
// Shape:     a queue of commands, served in the order of their arrival, and one event for the worker's loop
//            with each. Qt throws events away while there is no application object, so none of them is
//            relied upon: the next one to arrive serves all that came before it.
// Threads:   Post() on any thread, also under locks, and it waits for nobody. All else on the worker, or on
//            the thread that destroys the connection once the worker has ended. The mutex carries
//            everything that a command hands over, so nothing relies on locks inside Qt.
// Ownership: shared by the connection and its requests, so a request may be cancelled after its connection
//            has gone. A command holds a reference to its request.
// Errors:    after Close() nothing passes: Post() returns false and drops the command.
class SendGate {
 public:
  enum class Verb {
    kConnect,  // connect ahead of time; the first command there is
    kSend,     // send `request` for the first time
    kAbort,    // end `request`, which is marked as cancelled, if it is still in flight
    kLetGo,    // drop all replies and end Qt's own thread; kLeave follows
    kLeave,    // let go of everything and move the connection to `thread`; the last command there is
  };

  struct Command {
    Verb verb;
    RefPtr<QtHttpRequest> request{};
    QThread* thread = nullptr;             // not owned; its owner waits for `ticket`
    std::shared_ptr<GateTicket> ticket{};  // kLetGo and kLeave only
  };

  // The wake-up. Completes its ticket, if it was given one, when it is destroyed: by then Qt is through with
  // the object that received it.
  class WakeEvent : public QEvent {
   public:
    WakeEvent();
    ~WakeEvent() override;
    static QEvent::Type StaticType();
    std::shared_ptr<GateTicket> ticket;
  };

  // `receiver` gets the wake-ups on the thread that it lives on, and stays alive until Close().
  explicit SendGate(QObject* receiver);
  ~SendGate();
  SendGate(const SendGate&) = delete;
  SendGate& operator=(const SendGate&) = delete;

  bool Post(Command command);

  // Posts an event without a command, for what an event that was lost has left behind.
  void Wake();

  // How many commands belong to a pass that begins now; what comes in later wakes the worker again.
  size_t BeginPass();
  // Takes the first command; false if there is none. One at a time, so that a nested event loop may begin a
  // pass of its own and the order stays.
  bool Take(Command* command);
  // Puts back what Take() has just taken, for a later pass.
  void PutBack(Command command);
  // Drops what is left and lets nothing in any more.
  void Close();

  // The worker is about to call the application's query handler, which may wait for a user, or has returned.
  // Entering is refused once somebody wants the connection gone.
  bool EnterHandler();
  void LeaveHandler();
  // Says that somebody wants the connection gone. False while the worker is inside the handler.
  bool BarHandler();

 private:
  void WakeLocked() ORVAN_REQUIRES(mutex_);

  port::MutexPosix mutex_;                      // a leaf, apart from Qt's event queue
  QObject* receiver_ ORVAN_GUARDED_BY(mutex_);  // not owned; null once closed
  std::deque<Command> inbox_ ORVAN_GUARDED_BY(mutex_);
  bool in_handler_ ORVAN_GUARDED_BY(mutex_) = false;
  bool handler_barred_ ORVAN_GUARDED_BY(mutex_) = false;
};

}  // namespace orvan::net
