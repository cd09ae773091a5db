#include "orvan/support/job/event_pump.h"

#include <QCoreApplication>
#include <QEvent>
#include <QThread>
#include <QTimerEvent>
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <deque>
#include <limits>
#include <set>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "orvan/support/memory/ref_ptr.h"
#include "orvan/support/thread/lock.h"

namespace orvan {
namespace {

using Clock = std::chrono::steady_clock;

// How much of a drain its jobs may use up before their continuator asks them to give way.
constexpr std::chrono::milliseconds kDrainSlice{8};

QEvent::Type WakeUpType() {
  static const auto type = static_cast<QEvent::Type>(QEvent::registerEventType());
  return type;
}

class SliceContinuator : public IJobContinuator {
 public:
  explicit SliceContinuator(Clock::time_point end) : end_(end) {}
  bool MayContinue(const AbstractJob*) const override { return Clock::now() < end_; }

 private:
  const Clock::time_point end_;
};

// Something posted: exactly one of the three is set, or none in an entry that was withdrawn.
struct Item {
  quint64 number = 0;  // of arrival
  SyncMethod* method = nullptr;
  RefPtr<AbstractJob> job;
  std::function<void()> function;

  bool IsWithdrawn() const { return !method && !job && !function; }
};

// A call that is on some thread's stack.
struct Running {
  const void* object = nullptr;  // null once the object was withdrawn by its own call: it may be dead
  std::thread::id thread;
  int postponed = 0;  // turns of the job that came while it was running
};

struct Armed {
  Clock::time_point deadline;
  quint64 number = 0;  // of arming
  std::chrono::milliseconds interval{0};
  bool single_shot = false;
};

}  // namespace

struct EventPump::Private {
  class Receiver;

  // The receiver comes and goes with the application object.
  void MakeReceiver() ORVAN_EXCLUDES(receiver_mutex_);
  void DestroyReceiver() ORVAN_EXCLUDES(receiver_mutex_);

  void Post(Item item) ORVAN_EXCLUDES(mutex_);
  void AppendLocked(Item item) ORVAN_REQUIRES(mutex_);
  // True if the caller has to call PostWakeUp() after it let go of the lock.
  bool ClaimWakeUpLocked() ORVAN_REQUIRES(mutex_);
  void PostWakeUp() ORVAN_EXCLUDES(receiver_mutex_);

  // What the receiver hears, on the main thread.
  void WokenUp();
  void TimerExpired();

  void Drain(bool by_hand);
  bool RunNext(quint64 end, bool by_hand, const IJobContinuator& continuator);
  bool RunItem(const Item& item, const IJobContinuator& continuator);
  void EnterLocked(Running* running, const void* object) ORVAN_REQUIRES(mutex_);
  void LeaveLocked(Running* running) ORVAN_REQUIRES(mutex_);
  Running* FindRunningLocked(const void* object) ORVAN_REQUIRES(mutex_);
  void AwaitEndLocked(const void* object) ORVAN_REQUIRES(mutex_);

  void ArmLocked(Timer* timer, Clock::time_point now, std::chrono::milliseconds interval, bool single_shot)
      ORVAN_REQUIRES(mutex_);
  void DisarmLocked(Timer* timer) ORVAN_REQUIRES(mutex_);
  void ExpireLocked(Timer* timer, Clock::time_point now) ORVAN_REQUIRES(mutex_);
  Timer* TakeDueLocked(Clock::time_point now, quint64 end, Running* running) ORVAN_REQUIRES(mutex_);
  Clock::time_point NextDeadlineLocked() ORVAN_REQUIRES(mutex_);
  void FireDue();
  void ArmReceiver();

  port::MutexPosix mutex_;  // a leaf: nothing is called or destroyed while it is held
  std::deque<Item> queue_ ORVAN_GUARDED_BY(mutex_);
  int live_items_ ORVAN_GUARDED_BY(mutex_) = 0;  // in queue_, without the withdrawn ones
  quint64 next_number_ ORVAN_GUARDED_BY(mutex_) = 0;
  // A wake-up is on its way, or will be sent to the next receiver. Until it arrives no other is needed.
  bool wake_up_posted_ ORVAN_GUARDED_BY(mutex_) = false;
  bool manual_ ORVAN_GUARDED_BY(mutex_) = false;
  std::vector<Running*> running_ ORVAN_GUARDED_BY(mutex_);
  port::ConditionPosix call_ended_;
  int waiters_ ORVAN_GUARDED_BY(mutex_) = 0;  // for call_ended_
  std::unordered_map<const Timer*, Armed> armed_ ORVAN_GUARDED_BY(mutex_);
  std::set<std::tuple<Clock::time_point, quint64, Timer*>> deadlines_ ORVAN_GUARDED_BY(mutex_);
  // When the receiver's own timer will ring.
  Clock::time_point rings_at_ ORVAN_GUARDED_BY(mutex_) = Clock::time_point::max();

  // Held while an event is posted, so that the receiver does not go meanwhile. A leaf but for Qt's own
  // locks. Apart from mutex_, because the main thread wakes up while the poster still holds this one.
  port::MutexPosix receiver_mutex_;
  Receiver* receiver_ ORVAN_GUARDED_BY(receiver_mutex_) = nullptr;

  // Orders the making of an event before its arrival. Qt's own lock does so too, but ThreadSanitizer sees
  // nothing of that in a Qt that was built without it.
  std::atomic<int> events_posted_{0};
};

// Lives on the thread of the application object. Without Q_OBJECT: it has no signals or slots.
class EventPump::Private::Receiver : public QObject {
 public:
  bool event(QEvent* event) override {
    Get().d_->events_posted_.load(std::memory_order_acquire);
    // Nothing may touch `this` after one of the two calls: a job may end the application object.
    if (event->type() == WakeUpType()) {
      Get().d_->WokenUp();
      return true;
    }
    if (event->type() == QEvent::Timer) {
      killTimer(timer_id_);
      timer_id_ = 0;
      Get().d_->TimerExpired();
      return true;
    }
    return QObject::event(event);
  }

  void RingIn(std::chrono::milliseconds interval) {
    if (timer_id_ != 0) killTimer(timer_id_);
    timer_id_ = startTimer(interval, Qt::PreciseTimer);
  }

 private:
  int timer_id_ = 0;
};

// Qt keeps the routines of application starts for every further application object, and forgets those of
// ends once they were called: hence one of them is registered here and the other at each start.
struct EventPumpStartup {
  EventPumpStartup() {
    EventPump::Get();
    qAddPreRoutine(&ApplicationStarts);  // calls it now if there is an application already
  }
  static void ApplicationStarts() {
    EventPump::Get().d_->MakeReceiver();
    qAddPostRoutine(&ApplicationEnds);
  }
  static void ApplicationEnds() { EventPump::Get().d_->DestroyReceiver(); }
};

namespace {
const EventPumpStartup s_startup;
}  // namespace

EventPump& EventPump::Get() {
  static EventPump* const pump = new EventPump;  // leaked: threads may post after static destructors
  return *pump;
}

EventPump::EventPump() : d_(new Private) {}

void EventPump::PostCall(SyncMethod* method) {
  Q_ASSERT(method);
  Item item;
  item.method = method;
  d_->Post(std::move(item));
}

void EventPump::PostJob(AbstractJob* job) {
  Q_ASSERT(job);
  Item item;
  item.job = job;
  d_->Post(std::move(item));
}

void EventPump::PostFunction(std::function<void()> function) {
  if (!function) std::abort();
  Item item;
  item.function = std::move(function);
  d_->Post(std::move(item));
}

void EventPump::StartTimer(Timer* timer, unsigned int milliseconds, bool single_shot) {
  bool wake_up = false;
  {
    port::MutexGuard guard(d_->mutex_);
    d_->DisarmLocked(timer);
    d_->ArmLocked(timer, Clock::now(), std::chrono::milliseconds(milliseconds), single_shot);
    // The receiver's timer is set on the main thread only, and left alone if it rings early enough.
    wake_up = d_->armed_[timer].deadline < d_->rings_at_ && d_->ClaimWakeUpLocked();
  }
  if (wake_up) d_->PostWakeUp();
}

void EventPump::StopTimer(Timer* timer) {
  port::MutexGuard guard(d_->mutex_);
  d_->DisarmLocked(timer);
}

bool EventPump::IsTimerActive(const Timer* timer) const {
  port::MutexGuard guard(d_->mutex_);
  return d_->armed_.count(timer) != 0;
}

void EventPump::Withdraw(SyncMethod* method) {
  port::MutexGuard guard(d_->mutex_);
  for (auto item = d_->queue_.begin(); method->queued_calls_ > 0 && item != d_->queue_.end(); ++item) {
    if (item->method != method) continue;
    item->method = nullptr;
    --method->queued_calls_;
    --d_->live_items_;
  }
  d_->AwaitEndLocked(method);
}

void EventPump::Withdraw(Timer* timer) {
  port::MutexGuard guard(d_->mutex_);
  d_->DisarmLocked(timer);
  d_->AwaitEndLocked(timer);
  d_->DisarmLocked(timer);  // the Fire() that was awaited may have started it anew
}

void EventPump::DrainForTest() { d_->Drain(true); }

bool EventPump::FireNowForTest(Timer* timer) {
  Running running;
  {
    port::MutexGuard guard(d_->mutex_);
    if (d_->armed_.count(timer) == 0 || d_->FindRunningLocked(timer)) return false;
    d_->ExpireLocked(timer, Clock::now());
    d_->EnterLocked(&running, timer);
  }
  timer->dispatch();
  bool wake_up = false;
  {
    port::MutexGuard guard(d_->mutex_);
    d_->LeaveLocked(&running);
    wake_up = d_->ClaimWakeUpLocked();  // the timer may be armed, and was passed over while it ran
  }
  if (wake_up) d_->PostWakeUp();
  return true;
}

void EventPump::SetManualForTest(bool manual) {
  {
    port::MutexGuard guard(d_->mutex_);
    d_->manual_ = manual;
    if (!manual) d_->wake_up_posted_ = true;
  }
  if (!manual) d_->PostWakeUp();
}

int EventPump::GetQueueLength() const {
  port::MutexGuard guard(d_->mutex_);
  return d_->live_items_;
}

void EventPump::Private::MakeReceiver() {
  auto* receiver = new Receiver;
  // The library may have been loaded on another thread than that of the application object.
  receiver->moveToThread(QCoreApplication::instance()->thread());
  {
    port::MutexGuard guard(mutex_);
    wake_up_posted_ = true;
    rings_at_ = Clock::time_point::max();
  }
  {
    port::MutexGuard guard(receiver_mutex_);
    receiver_ = receiver;
  }
  PostWakeUp();  // for what was queued and armed before
}

void EventPump::Private::DestroyReceiver() {
  Receiver* receiver = nullptr;
  {
    port::MutexGuard guard(receiver_mutex_);
    receiver = std::exchange(receiver_, nullptr);
  }
  delete receiver;
}

void EventPump::Private::Post(Item item) {
  bool wake_up = false;
  {
    port::MutexGuard guard(mutex_);
    AppendLocked(std::move(item));
    wake_up = ClaimWakeUpLocked();
  }
  if (wake_up) PostWakeUp();
}

void EventPump::Private::AppendLocked(Item item) {
  item.number = next_number_++;
  if (item.method) ++item.method->queued_calls_;
  ++live_items_;
  queue_.push_back(std::move(item));
}

bool EventPump::Private::ClaimWakeUpLocked() {
  if (wake_up_posted_ || manual_) return false;
  wake_up_posted_ = true;
  return true;
}

void EventPump::Private::PostWakeUp() {
  port::MutexGuard guard(receiver_mutex_);
  if (!receiver_) return;
  auto* const event = new QEvent(WakeUpType());
  events_posted_.fetch_add(1, std::memory_order_release);
  QCoreApplication::postEvent(receiver_, event);
}

void EventPump::Private::WokenUp() {
  ArmReceiver();  // first: what runs now may run an event loop of its own, in which timers are due as well
  Drain(false);
  FireDue();
  ArmReceiver();
}

void EventPump::Private::TimerExpired() {
  {
    port::MutexGuard guard(mutex_);
    rings_at_ = Clock::time_point::max();
  }
  FireDue();
  ArmReceiver();
}

void EventPump::Private::Drain(bool by_hand) {
  quint64 end = 0;
  {
    port::MutexGuard guard(mutex_);
    if (manual_ && !by_hand) return;
    if (!manual_) wake_up_posted_ = false;
    // What comes from now on waits for the next drain, also a job that puts itself back: between two
    // drains the event loop serves sockets and timers.
    end = next_number_;
  }
  const SliceContinuator continuator(Clock::now() + kDrainSlice);
  while (RunNext(end, by_hand, continuator)) {
  }
}

// Runs the first item that is older than `end`. False if there is none.
bool EventPump::Private::RunNext(quint64 end, bool by_hand, const IJobContinuator& continuator) {
  Item item;  // before the guards: what it refers to dies outside of them
  Running running;
  bool wake_up = false;
  {
    port::MutexGuard guard(mutex_);
    if (manual_ && !by_hand) return false;
    while (!queue_.empty() && queue_.front().IsWithdrawn()) queue_.pop_front();
    if (queue_.empty() || queue_.front().number >= end) return false;
    item = std::move(queue_.front());
    queue_.pop_front();
    --live_items_;
    if (item.method) --item.method->queued_calls_;
    if (Running* const same_job = item.job ? FindRunningLocked(item.job.get()) : nullptr) {
      ++same_job->postponed;
      return true;
    }
    EnterLocked(&running, item.job ? static_cast<const void*>(item.job.get()) : item.method);
    // The item may run an event loop of its own, which then has to get at the rest of the queue.
    wake_up = !queue_.empty() && ClaimWakeUpLocked();
  }
  if (wake_up) PostWakeUp();

  const bool again = RunItem(item, continuator);

  {
    port::MutexGuard guard(mutex_);
    LeaveLocked(&running);
    wake_up = false;
    for (int turns = running.postponed + (again ? 1 : 0); turns > 0; --turns) {
      Item turn;
      turn.job = item.job;
      AppendLocked(std::move(turn));
      wake_up = ClaimWakeUpLocked() || wake_up;
    }
  }
  if (wake_up) PostWakeUp();
  return true;
}

// True if it is a job that wants to be run again.
bool EventPump::Private::RunItem(const Item& item, const IJobContinuator& continuator) {
  if (item.method) {
    item.method->Execute();  // the method may be dead now
    return false;
  }
  if (item.function) {
    item.function();
    return false;
  }
  if (item.job->IsRemoved()) {
    item.job->CleanForRemoval();
    return false;
  }
  return item.job->Run(continuator, GetDefaultJobScheduler()) == AbstractJob::kRunAgain;
}

void EventPump::Private::EnterLocked(Running* running, const void* object) {
  running->object = object;
  running->thread = std::this_thread::get_id();
  running_.push_back(running);
}

void EventPump::Private::LeaveLocked(Running* running) {
  running_.erase(std::find(running_.begin(), running_.end(), running));
  if (waiters_ > 0) call_ended_.NotifyAll();
}

Running* EventPump::Private::FindRunningLocked(const void* object) {
  const auto found = std::find_if(running_.begin(), running_.end(),
                                  [object](const Running* running) { return running->object == object; });
  return found == running_.end() ? nullptr : *found;
}

// Waits for calls on other threads. Those of this thread are below us on the stack; they let go of the
// object, so that one which is made at the same address later does not pass for running.
void EventPump::Private::AwaitEndLocked(const void* object) {
  for (Running* running : running_) {
    if (running->object == object && running->thread == std::this_thread::get_id()) running->object = nullptr;
  }
  ++waiters_;
  while (FindRunningLocked(object)) call_ended_.Wait(mutex_);
  --waiters_;
}

void EventPump::Private::ArmLocked(Timer* timer, Clock::time_point now, std::chrono::milliseconds interval,
                                   bool single_shot) {
  const Armed armed{now + interval, next_number_++, interval, single_shot};
  armed_[timer] = armed;
  deadlines_.emplace(armed.deadline, armed.number, timer);
}

void EventPump::Private::DisarmLocked(Timer* timer) {
  const auto found = armed_.find(timer);
  if (found == armed_.end()) return;
  deadlines_.erase({found->second.deadline, found->second.number, timer});
  armed_.erase(found);
}

// Comes before Fire(), not after: a single shot that still counted as active during its Fire() would not be
// started again by whoever asks IsActive() first, and the start would be lost.
// TimerTest.ASingleShotIsInactiveBeforeItFires holds this in place.
void EventPump::Private::ExpireLocked(Timer* timer, Clock::time_point now) {
  const Armed armed = armed_[timer];
  DisarmLocked(timer);
  if (!armed.single_shot) ArmLocked(timer, now, armed.interval, false);
}

Timer* EventPump::Private::TakeDueLocked(Clock::time_point now, quint64 end, Running* running) {
  for (const auto& [deadline, number, timer] : deadlines_) {
    if (manual_ || deadline > now) return nullptr;
    // A timer whose Fire() runs a local event loop is not fired inside itself.
    if (number >= end || FindRunningLocked(timer)) continue;
    Timer* const due = timer;
    ExpireLocked(due, now);
    EnterLocked(running, due);
    return due;
  }
  return nullptr;
}

Clock::time_point EventPump::Private::NextDeadlineLocked() {
  for (const auto& [deadline, number, timer] : deadlines_) {
    if (!FindRunningLocked(timer)) return deadline;
  }
  return Clock::time_point::max();
}

// Fires what was armed when it began and is due by now, each timer once.
void EventPump::Private::FireDue() {
  const Clock::time_point now = Clock::now();
  quint64 end = 0;
  {
    port::MutexGuard guard(mutex_);
    end = next_number_;
  }
  for (;;) {
    Running running;
    Timer* due = nullptr;
    {
      port::MutexGuard guard(mutex_);
      due = TakeDueLocked(now, end, &running);
    }
    if (!due) return;
    ArmReceiver();    // for the others, as in WokenUp()
    due->dispatch();  // the timer may be dead now
    port::MutexGuard guard(mutex_);
    LeaveLocked(&running);
  }
}

// Main thread only. Sees to it that the receiver's timer rings no later than the first deadline.
void EventPump::Private::ArmReceiver() {
  Clock::time_point next;
  {
    port::MutexGuard guard(mutex_);
    next = NextDeadlineLocked();
    if (manual_ || next >= rings_at_) return;
    rings_at_ = next;
  }
  port::MutexGuard guard(receiver_mutex_);
  if (!receiver_) return;  // the application object went in one of the calls
  constexpr std::chrono::milliseconds kLongest{std::numeric_limits<int>::max()};
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
  receiver_->RingIn(std::clamp(left, std::chrono::milliseconds::zero(), kLongest));
}

}  // namespace orvan
