#pragma once

#include <QString>
#include <atomic>
#include <functional>

#include "orvan/support/export.h"
#include "orvan/support/memory/referent.h"

namespace orvan {

class AbstractJob;

// Tells a long job whether it may go on, or should give way and be run again later. Asked on the thread that
// runs the job.
class ORVAN_SUPPORT_EXPORT IJobContinuator {
 public:
  virtual ~IJobContinuator();
  virtual bool MayContinue(const AbstractJob* job) const = 0;
};

// Something that jobs can be given to.
class ORVAN_SUPPORT_EXPORT IJobContainer {
 public:
  virtual ~IJobContainer();
  // Takes a reference to `job` and runs it later, never within the call. Any thread.
  virtual void AddJob(AbstractJob* job) = 0;
};

// A clock for continuators.
class ORVAN_SUPPORT_EXPORT ITimingSource {
 public:
  virtual ~ITimingSource();
  // Seconds; only differences mean something.
  virtual double GetSeconds() const = 0;
};

// The machine's steady clock. One object, on any thread.
class ORVAN_SUPPORT_EXPORT SystemTime : public ITimingSource {
 public:
  static SystemTime* GetSingleton();
  double GetSeconds() const override;
};

// Always says yes.
class ORVAN_SUPPORT_EXPORT AlwaysTrueContinuator : public IJobContinuator {
 public:
  explicit AlwaysTrueContinuator(const ITimingSource* source);
  bool MayContinue(const AbstractJob* job) const override;
};

// A unit of work for a job container.
//
// Threads:   Run() runs on the container's thread, one call at a time. The removed mark may be set from any
//            thread: a job that has it when its turn comes is dropped.
// Ownership: counted. The container holds a reference until the job has ended.
class ORVAN_SUPPORT_EXPORT AbstractJob : public AtomicReferent {
 public:
  using ThreadMask = unsigned int;

  // What Run() answers.
  static constexpr int kRunAgain = 1;
  static constexpr int kFinished = 2;

  static const double kUnpredictedTime;

  AbstractJob(ThreadMask mask, const QString& name);
  ~AbstractJob() override;

  // Does the work, or a part of it. kRunAgain puts the job at the end of the container's queue.
  virtual int Run(const IJobContinuator& continuator, IJobContainer* container) = 0;
  // Seconds that the next Run() may take.
  virtual double GetTimePrediction();
  // Called when a container drops the job without running it.
  virtual void CleanForRemoval();

  bool IsRemoved() const { return removed_.load(std::memory_order_acquire); }
  const QString& name() const { return name_; }
  // Which threads may run the job. Nothing here looks at it.
  ThreadMask mask() const { return mask_; }

 protected:
  void SetRemoved() { removed_.store(true, std::memory_order_release); }

 private:
  const ThreadMask mask_;
  const QString name_;
  std::atomic<bool> removed_{false};
};

// The process-wide scheduler: runs its jobs on the main thread, in the order of their arrival. Its
// continuator says yes for about 8 milliseconds of a drain.
ORVAN_SUPPORT_EXPORT IJobContainer* GetDefaultJobScheduler();

// Runs functions somewhere else.
//
// Threads: any. The function runs once, later, never within the call.
class ORVAN_SUPPORT_EXPORT IJobExecutor {
 public:
  virtual ~IJobExecutor();
  // `function` must not be empty: the process ends by abort() if it is. `name` is for tools.
  void ExecuteAsync(const std::function<void()>& function, const char* name);

 protected:
  virtual void DoExecuteAsync(std::function<void()> function, const char* name) = 0;
};

// Runs functions on the main thread, once its event loop runs.
class ORVAN_SUPPORT_EXPORT MainThreadJobExecutor : public IJobExecutor {
 protected:
  void DoExecuteAsync(std::function<void()> function, const char* name) override;
};

}  // namespace orvan
