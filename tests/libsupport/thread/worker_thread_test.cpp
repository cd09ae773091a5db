#include "orvan/support/thread/worker_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan {
namespace {

using test::Gate;
using test::SpinUntil;
using test::Watchdog;

class Job : public WorkerThread::Job {
 public:
  using Body = std::function<void(Job*)>;
  Job(WorkerThread* worker, Body body) : WorkerThread::Job("test", worker), body_(std::move(body)) {}
  ~Job() override { ++s_destroyed; }
  static std::atomic<int> s_destroyed;

 private:
  void Run() override { body_(this); }
  const Body body_;
};
std::atomic<int> Job::s_destroyed{0};

TEST(WorkerThreadTest, JobsRunOnceInTheOrderInWhichTheyWereAdded) {
  std::string order;
  const Gate last;
  WorkerThread worker("test worker with a long name");
  RefPtr<Job> first = new Job(&worker, [&](Job*) { order += 'a'; });
  first->AddToQueue(&worker);
  first->AddToQueue(&worker);
  RefPtr<Job>(new Job(&worker, [&](Job*) { order += 'b'; }))->AddToQueue(&worker);
  RefPtr<Job>(new Job(&worker, [&](Job*) { last.Open(); }))->AddToQueue(&worker);
  ASSERT_TRUE(last.Wait());
  EXPECT_EQ(order, "ab");
  first->AddToQueue(&worker);
  EXPECT_EQ(worker.GetQueueLength(), 0) << "once in its life";
}

TEST(WorkerThreadTest, CancelledBeforeItsStartAJobNeverRuns) {
  bool ran = false;
  const Gate busy;
  const Gate release;
  const Gate last;
  auto worker = std::make_unique<WorkerThread>("test");
  RefPtr<Job>(new Job(worker.get(), [&](Job*) {
    busy.Open();
    EXPECT_TRUE(release.Wait());
  }))->AddToQueue(worker.get());
  ASSERT_TRUE(busy.Wait());

  const RefPtr<Job> not_added = new Job(worker.get(), [&](Job*) { ran = true; });
  const RefPtr<Job> queued = new Job(worker.get(), [&](Job*) { ran = true; });
  not_added->Cancel();
  not_added->AddToQueue(worker.get());
  queued->AddToQueue(worker.get());
  queued->Cancel();
  queued->Cancel();
  RefPtr<Job>(new Job(worker.get(), [&](Job*) { last.Open(); }))->AddToQueue(worker.get());
  release.Open();
  ASSERT_TRUE(last.Wait());
  EXPECT_FALSE(ran);
  worker.reset();
  queued->Cancel();  // needs no living worker
}

TEST(WorkerThreadTest, CancelReturnsOnlyWhenARunningJobHasEnded) {
  const Watchdog watchdog(60, "cancel of a running job");
  const Gate entered;
  std::atomic<bool> returned{false};
  std::atomic<bool> ended{false};
  WorkerThread worker("test");
  const RefPtr<Job> job = new Job(&worker, [&](Job*) {
    entered.Open();
    EXPECT_FALSE(SpinUntil([&] { return returned.load(); }, 50))
        << "only a Cancel() that does not wait returns now";
    ended = true;
  });
  job->AddToQueue(&worker);
  ASSERT_TRUE(entered.Wait());
  job->Cancel();
  EXPECT_TRUE(ended);
  returned = true;
  job->Cancel();  // over: returns at once
}

TEST(WorkerThreadTest, AJobMayCancelItself) {
  const Watchdog watchdog(60, "a job that cancels itself");
  const Gate done;
  WorkerThread worker("test");
  const RefPtr<Job> job = new Job(&worker, [&](Job* self) {
    self->Cancel();
    done.Open();
  });
  job->AddToQueue(&worker);
  EXPECT_TRUE(done.Wait());
}

TEST(WorkerThreadTest, TheDestructorCancelsWhatWaitsAndJoinsWhatRuns) {
  const Watchdog watchdog(60, "end of a worker");
  Job::s_destroyed = 0;
  const Gate entered;
  const Gate queued;
  std::atomic<bool> ended{false};
  bool ran = false;
  {
    WorkerThread worker("test");
    RefPtr<Job>(new Job(&worker, [&](Job* self) {
      entered.Open();
      EXPECT_TRUE(queued.Wait());
      EXPECT_TRUE(SpinUntil([&] { return worker.GetQueueLength() == 0; }))
          << "the destructor takes the rest away";
      RefPtr<Job>(new Job(&worker, [&](Job*) { ran = true; }))->AddToQueue(&worker);
      EXPECT_EQ(self->getRefCount(), 1) << "that of the thread";
      ended = true;
    }))->AddToQueue(&worker);
    ASSERT_TRUE(entered.Wait());
    RefPtr<Job>(new Job(&worker, [&](Job*) { ran = true; }))->AddToQueue(&worker);
    queued.Open();
  }
  EXPECT_TRUE(ended);
  EXPECT_FALSE(ran);
  EXPECT_EQ(Job::s_destroyed, 3);
}

TEST(WorkerThreadTest, AJobMayDestroyItsWorker) {
  const Watchdog watchdog(60, "a worker destroyed by its own job");
  Job::s_destroyed = 0;
  const int threads = test::CountThreads();
  std::atomic<bool> ran{false};
  {
    auto* const worker = new WorkerThread("test");
    const Gate queued;
    RefPtr<Job>(new Job(worker, [worker, queued](Job*) {
      EXPECT_TRUE(queued.Wait());
      delete worker;
    }))->AddToQueue(worker);
    RefPtr<Job>(new Job(worker, [&](Job*) { ran = true; }))->AddToQueue(worker);
    queued.Open();
  }
  EXPECT_TRUE(SpinUntil([&] { return Job::s_destroyed == 2 && test::CountThreads() == threads; }));
  EXPECT_FALSE(ran);
}

}  // namespace
}  // namespace orvan
