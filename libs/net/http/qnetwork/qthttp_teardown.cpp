// How a connection is taken apart. Its worker, its callback thread and Qt's own thread end side by side.

#include <QCoreApplication>
#include <QNetworkReply>
#include <memory>
#include <thread>

#include "orvan/net/http/qnetwork/qthttpimpl.h"
#include "orvan/net/http/qnetwork/send_gate.h"

namespace orvan::net {

namespace {

// How often a thread that waits for the worker looks whether there still is an application object.
constexpr unsigned int kLookMs = 100;
// For how long a thread that disposes of a connection, often the main one, may wait for the connection's
// threads.
constexpr unsigned int kPatienceMs = 500;

}  // namespace

QtHttpConnection::~QtHttpConnection() {
  StopCallbacks();  // the base joins that thread; it ends while the worker does
  (void)gate_->BarHandler();
  if (QThread::currentThread() != worker_thread_.get()) {
    LeaveWorker();
    return;
  }
  // On our own worker (DisposeConnection() avoids that) everything is where it has to be, but the thread
  // cannot be waited for: somebody else has to see its end.
  gate_->Close();
  ForgetReplies();
  QtHttpWorkerThread* const worker = worker_thread_.release();
  worker->quit();
  std::thread([worker] { delete worker; }).detach();
}

// False if a thread of ours is busy, and would be waited for.
bool QtHttpConnection::LetsGoSoon() const {
  const auto ticket = std::make_shared<GateTicket>();
  return !QCoreApplication::instance() || !gate_->Post({SendGate::Verb::kLetGo, nullptr, nullptr, ticket}) ||
         ticket->WaitFor(kPatienceMs);
}

// Brings this object and its access manager to the calling thread, where the members then die.
void QtHttpConnection::LeaveWorker() {
  const auto ticket = std::make_shared<GateTicket>();
  if (QCoreApplication::instance() &&
      gate_->Post({SendGate::Verb::kLeave, nullptr, QThread::currentThread(), ticket})) {
    while (QCoreApplication::instance()) {
      if (ticket->WaitFor(kLookMs)) return;
      // Between two application objects the event may have been lost. While the user is asked none is needed.
      if (gate_->BarHandler()) gate_->Wake();
    }
  }
  // Without an application object no event reaches the worker. It has to end first; then everything on it may
  // be touched from here.
  worker_thread_->quit();
  worker_thread_->wait();
  gate_->Close();
  if (!ticket->IsComplete()) ForgetReplies();
}

void QtHttpConnection::LetGo() {
  ForgetReplies();
  // Before the move, those of requests that ended too. Qt's own thread signals to them, and moving an object
  // together with its parent is not safe against that: Qt 5 takes only the parent's lock, and both sides then
  // drop the same reference to the thread that is left, which frees it too early.
  qDeleteAll(network_manager_.findChildren<QNetworkReply*>());
  // Ends Qt's own thread too. While a server sends a head without a pause, that thread hears of nothing; Qt
  // gives it up after five seconds, which are spent here and not where the access manager dies.
  network_manager_.clearConnectionCache();
}

void QtHttpConnection::PrepareForDestruction(QThread* in_thread) {
  Q_ASSERT(QThread::currentThread() == thread());
  gate_->Close();
  LetGo();
  // An object can only be pushed away from its own thread, which is why this is the worker's part.
  moveToThread(in_thread);
}

// Requests in flight end here: they complete no more, and the queue of the base drops their references.
void QtHttpConnection::ForgetReplies() {
  for (auto it = replies_.constBegin(); it != replies_.constEnd(); ++it) {
    it.value()->reply_ = nullptr;
    it.key()->disconnect(this);
  }
  replies_.clear();
}

}  // namespace orvan::net
