#include "orvan/support/thread/worker_thread.h"

#include <utility>

#include "orvan/support/thread/system.h"

namespace orvan {

struct WorkerThread::Queue {
  // The thread's body. Its argument is a reference to the queue, which it owns.
  static void* Serve(void* shared_queue);
  // The next job, waiting for one; null once the WorkerThread has gone.
  RefPtr<Job> Take();

  port::MutexPosix mutex;  // a leaf
  port::ConditionPosix changed;
  std::deque<RefPtr<Job>> jobs ORVAN_GUARDED_BY(mutex);
  bool stopped ORVAN_GUARDED_BY(mutex) = false;
};

WorkerThread::Job::Job(const char* name, WorkerThread* worker) : name_(name), worker_(worker) {}

WorkerThread::Job::~Job() = default;

void WorkerThread::Job::orphaned() const { AtomicReferent::orphaned(); }

void WorkerThread::Job::AddToQueue(WorkerThread* worker) {
  {
    port::MutexGuard guard(mutex_);
    if (state_ != State::kIdle) return;
    state_ = State::kQueued;
  }
  worker->Add(this);  // cancelled in between: the worker drops it at its turn
}

void WorkerThread::Job::Cancel() {
  port::MutexGuard guard(mutex_);
  if (state_ == State::kIdle || state_ == State::kQueued) state_ = State::kCancelled;
  if (state_ != State::kRunning || runner_ == System::CurrentThreadId()) return;
  while (state_ == State::kRunning) ended_.Wait(mutex_);
}

void WorkerThread::Job::RunIfWanted() {
  {
    port::MutexGuard guard(mutex_);
    if (state_ != State::kQueued) return;
    state_ = State::kRunning;
    runner_ = System::CurrentThreadId();
  }
  Run();
  port::MutexGuard guard(mutex_);
  state_ = State::kDone;
  ended_.NotifyAll();
}

WorkerThread::WorkerThread(const char* name) : queue_(std::make_shared<Queue>()) {
  auto* const shared_queue = new std::shared_ptr<Queue>(queue_);
  thread_ = System::spawn(&Queue::Serve, shared_queue, name);
  if (thread_ == System::kInvalidThreadId) delete shared_queue;  // jobs stay queued until we cancel them
}

WorkerThread::~WorkerThread() {
  std::deque<RefPtr<Job>> waiting;
  {
    port::MutexGuard guard(queue_->mutex);
    queue_->stopped = true;
    waiting.swap(queue_->jobs);
    queue_->changed.NotifyAll();
  }
  for (const RefPtr<Job>& job : waiting) job->Cancel();
  waiting.clear();
  if (thread_ == System::kInvalidThreadId) return;
  if (thread_ == System::CurrentThreadId()) {
    System::detach(thread_);
  } else {
    System::join(thread_);
  }
}

int WorkerThread::GetQueueLength() const {
  port::MutexGuard guard(queue_->mutex);
  return static_cast<int>(queue_->jobs.size());
}

void WorkerThread::Add(Job* job) {
  const RefPtr<Job> added(job);
  {
    port::MutexGuard guard(queue_->mutex);
    if (!queue_->stopped) {
      queue_->jobs.push_back(added);
      queue_->changed.NotifyOne();
      return;
    }
  }
  added->Cancel();  // the last running job adds one while the destructor waits for it
}

void* WorkerThread::Queue::Serve(void* shared_queue) {
  // The WorkerThread may die within a job: from then on the queue is all that this thread has.
  const std::unique_ptr<std::shared_ptr<Queue>> queue(static_cast<std::shared_ptr<Queue>*>(shared_queue));
  while (const RefPtr<Job> job = (*queue)->Take()) job->RunIfWanted();  // the reference dies after "done"
  return nullptr;
}

RefPtr<WorkerThread::Job> WorkerThread::Queue::Take() {
  port::MutexGuard guard(mutex);
  while (jobs.empty() && !stopped) changed.Wait(mutex);
  if (jobs.empty()) return nullptr;
  RefPtr<Job> job = std::move(jobs.front());
  jobs.pop_front();
  return job;
}

}  // namespace orvan
