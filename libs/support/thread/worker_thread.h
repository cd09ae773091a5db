#pragma once

#include <deque>
#include <memory>

#include "orvan/support/export.h"
#include "orvan/support/memory/ref_ptr.h"
#include "orvan/support/memory/referent.h"
#include "orvan/support/thread/lock.h"

namespace orvan {

// One thread with a queue of jobs, run one after the other in the order in which they were added.
//
// Threads:   jobs may be added from any thread. The destructor cancels what has not started and joins the
//            thread; on the worker thread itself it detaches instead.
// Ownership: made and owned by the application. The queue holds a reference to each queued job, and so does
//            the thread to the running one.
class ORVAN_SUPPORT_EXPORT WorkerThread {
 public:
  // A unit of work for a worker thread. Runs at most once.
  //
  // Threads:   Run() runs on the worker. Cancel() may come from any thread, any number of times, also after
  //            the WorkerThread is gone.
  class ORVAN_SUPPORT_EXPORT Job : public AtomicReferent {
   public:
    // `name` is kept as it is and must outlive the job: a literal. `worker` is not owned.
    Job(const char* name, WorkerThread* worker);
    ~Job() override;
    void orphaned() const override;

    // Queues the job on `worker`, once in its life; a job that was cancelled before is not queued.
    void AddToQueue(WorkerThread* worker);

    // A job that has not started never will. If it is running, returns when it has ended; on the worker
    // thread itself, where that would be for ever, returns at once.
    void Cancel();

    const char* name() const { return name_; }

   protected:
    virtual void Run() = 0;
    WorkerThread* worker() const { return worker_; }

   private:
    friend class WorkerThread;
    enum class State { kIdle, kQueued, kRunning, kDone, kCancelled };
    void RunIfWanted();  // worker thread

    const char* const name_;
    WorkerThread* const worker_;
    port::MutexPosix mutex_;  // a leaf
    port::ConditionPosix ended_;
    State state_ ORVAN_GUARDED_BY(mutex_) = State::kIdle;
    unsigned long runner_ ORVAN_GUARDED_BY(mutex_) = 0;  // thread that runs it, while state_ is kRunning
  };

  explicit WorkerThread(const char* name);
  ~WorkerThread();
  WorkerThread(const WorkerThread&) = delete;
  WorkerThread& operator=(const WorkerThread&) = delete;

  // Jobs queued and not yet started.
  int GetQueueLength() const;

 private:
  struct ORVAN_SUPPORT_HIDDEN Queue;
  void Add(Job* job);

  std::shared_ptr<Queue> queue_;  // shared with the thread, which may outlive this object (see destructor)
  unsigned long thread_;
};

}  // namespace orvan
