#include "tests/support/manual_clock.h"

#include "orvan/support/thread/system.h"

namespace orvan::test {

ManualClock::ManualClock(double now) : now_(now) {
  System::SetTimeSourceForTest([this] { return Now(); });
}

ManualClock::~ManualClock() { System::SetTimeSourceForTest({}); }

ManualPump::ManualPump() { EventPump::Get().SetManualForTest(true); }

ManualPump::~ManualPump() { EventPump::Get().SetManualForTest(false); }

void ManualPump::Drain() { EventPump::Get().DrainForTest(); }

bool ManualPump::DrainAll(int turns) {
  for (; turns > 0 && GetLength() > 0; --turns) Drain();
  return GetLength() == 0;
}

int ManualPump::GetLength() const { return EventPump::Get().GetQueueLength(); }

bool CountingContinuator::MayContinue(const AbstractJob*) const { return ++asked_ <= yes_; }

void HoldingJobContainer::AddJob(AbstractJob* job) {
  std::lock_guard<std::mutex> guard(mutex_);
  held_.emplace_back(job);
}

int HoldingJobContainer::RunHeld(const IJobContinuator& continuator) {
  std::vector<RefPtr<AbstractJob>> jobs;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    jobs.swap(held_);
  }
  int ran = 0;
  for (const RefPtr<AbstractJob>& job : jobs) {
    if (job->IsRemoved()) {
      job->CleanForRemoval();
      continue;
    }
    ++ran;
    if (job->Run(continuator, this) == AbstractJob::kRunAgain) AddJob(job.get());
  }
  return ran;
}

int HoldingJobContainer::RunHeld() { return RunHeld(AlwaysTrueContinuator(SystemTime::GetSingleton())); }

int HoldingJobContainer::GetHeldCount() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return static_cast<int>(held_.size());
}

}  // namespace orvan::test
