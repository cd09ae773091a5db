#include "orvan/support/job/job.h"

#include <chrono>
#include <cstdlib>
#include <utility>

#include "orvan/support/job/event_pump.h"

namespace orvan {
namespace {

class MainThreadScheduler : public IJobContainer {
 public:
  void AddJob(AbstractJob* job) override { EventPump::Get().PostJob(job); }
};

}  // namespace

IJobContinuator::~IJobContinuator() = default;
IJobContainer::~IJobContainer() = default;
ITimingSource::~ITimingSource() = default;
IJobExecutor::~IJobExecutor() = default;

SystemTime* SystemTime::GetSingleton() {
  static auto* const time = new SystemTime;
  return time;
}

double SystemTime::GetSeconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// The clock is not kept: whoever never says no need not look at it.
AlwaysTrueContinuator::AlwaysTrueContinuator(const ITimingSource*) {}

bool AlwaysTrueContinuator::MayContinue(const AbstractJob*) const { return true; }

const double AbstractJob::kUnpredictedTime = -1.0;

AbstractJob::AbstractJob(ThreadMask mask, const QString& name) : mask_(mask), name_(name) {}

AbstractJob::~AbstractJob() = default;

double AbstractJob::GetTimePrediction() { return kUnpredictedTime; }

void AbstractJob::CleanForRemoval() {}

IJobContainer* GetDefaultJobScheduler() {
  static auto* const scheduler = new MainThreadScheduler;
  return scheduler;
}

void IJobExecutor::ExecuteAsync(const std::function<void()>& function, const char* name) {
  if (!function) std::abort();
  DoExecuteAsync(function, name);
}

void MainThreadJobExecutor::DoExecuteAsync(std::function<void()> function, const char*) {
  EventPump::Get().PostFunction(std::move(function));
}

}  // namespace orvan
