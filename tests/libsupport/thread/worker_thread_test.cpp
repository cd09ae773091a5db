#include "orvan/support/thread/worker_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan {
namespace {

using test::Gate;
using test::SpinUntil;

class Job : public WorkerThread::Job {
 public:
  Job(WorkerThread* worker, std::function<void(Job*)> body)
      : WorkerThread::Job("test", worker), body_(std::move(body)) {}
  ~Job() override { ++s_destroyed; }
  inline static std::atomic<int> s_destroyed{0};

 private:
  void Run() override { body_(this); }
  const std::function<void(Job*)> body_;
};

class WorkerThreadTest : public testing::Test {
 protected:
  RefPtr<Job> Add(std::function<void(Job*)> body) {
    RefPtr<Job> job = new Job(worker_.get(), std::move(body));
    job->AddToQueue(worker_.get());
    return job;
  }
  static void MustNotRun(Job*) { ADD_FAILURE(); }

  const test::Watchdog watchdog_{60, "a job of a worker thread"};
  const Gate release_, done_;
  std::unique_ptr<WorkerThread> worker_ = std::make_unique<WorkerThread>("test worker with a long name");
};

TEST_F(WorkerThreadTest, JobsRunOnceInTheOrderInWhichTheyWereAdded) {
  std::string order;
  char name[16] = "";
  const RefPtr<Job> first = Add([&](Job* self) {
    pthread_getname_np(pthread_self(), name, sizeof name);
    self->Cancel();  // must not wait for its own end
    order += 'a';
  });
  first->AddToQueue(worker_.get());
  Add([&](Job*) { order += 'b'; });
  Add([&](Job*) { done_.Open(); });
  ASSERT_TRUE(done_.Wait());
  EXPECT_EQ(order, "ab");
  EXPECT_STREQ(name, "test worker wit") << "cut, not lost";
  first->AddToQueue(worker_.get());
  EXPECT_EQ(worker_->GetQueueLength(), 0) << "once in its life";
}

TEST_F(WorkerThreadTest, CancelledBeforeItsStartAJobNeverRuns) {
  Add([&](Job*) { EXPECT_TRUE(release_.Wait()); });
  const RefPtr<Job> not_added = new Job(worker_.get(), MustNotRun);
  not_added->Cancel();
  not_added->AddToQueue(worker_.get());
  Add(MustNotRun)->Cancel();
  Add([&](Job*) { done_.Open(); });
  release_.Open();
  ASSERT_TRUE(done_.Wait());
}

TEST_F(WorkerThreadTest, CancelReturnsOnlyWhenARunningJobHasEnded) {
  const Gate entered;
  std::atomic<bool> ended{false};
  const RefPtr<Job> job = Add([&](Job*) {
    entered.Open();
    EXPECT_FALSE(done_.Wait(50)) << "only a Cancel() that does not wait returns now";
    ended = true;
  });
  ASSERT_TRUE(entered.Wait());
  job->Cancel();
  EXPECT_TRUE(ended);
  done_.Open();
}

TEST_F(WorkerThreadTest, TheDestructorCancelsWhatWaitsAndJoinsWhatRuns) {
  Job::s_destroyed = 0;
  std::atomic<bool> ended{false};
  Add([&, worker = worker_.get()](Job*) {
    EXPECT_TRUE(release_.Wait());
    EXPECT_TRUE(SpinUntil([&] { return worker->GetQueueLength() == 0; })) << "the rest is taken away";
    RefPtr<Job>(new Job(worker, MustNotRun))->AddToQueue(worker);
    ended = true;
  });
  Add(MustNotRun);
  ASSERT_TRUE(SpinUntil([&] { return worker_->GetQueueLength() == 1; })) << "the first one is running";
  release_.Open();
  worker_.reset();
  EXPECT_TRUE(ended);
  EXPECT_EQ(Job::s_destroyed, 3);
}

TEST_F(WorkerThreadTest, AJobMayDestroyItsWorker) {
  Job::s_destroyed = 0;
  const int threads = test::CountThreads();
  Add([&](Job*) {
    EXPECT_TRUE(release_.Wait());
    worker_.reset();
  });
  Add(MustNotRun);
  release_.Open();
  EXPECT_TRUE(SpinUntil([&] { return Job::s_destroyed == 2 && test::CountThreads() == threads - 1; }));
}

}  // namespace
}  // namespace orvan
