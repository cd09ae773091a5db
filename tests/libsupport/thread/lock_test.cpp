#include "orvan/support/thread/lock.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <thread>
#include <type_traits>
#include <vector>

#include "tests/support/watchdog.h"

namespace orvan {
namespace {

// Constant, and never destroyed: statics may use their locks before main() and behind it.
[[maybe_unused]] constexpr SpinLock kStatic;
static_assert(std::is_trivially_destructible_v<SpinLock>);

bool TryFromAnotherThread(SpinLock& lock) {
  bool taken = false;
  std::thread([&]() ORVAN_NO_THREAD_SAFETY_ANALYSIS {
    taken = lock.trylock();
    if (taken) lock.unlock();
  }).join();
  return taken;
}

TEST(SpinLockTest, TheOwnerMayTakeItAgainAndNobodyElse) ORVAN_NO_THREAD_SAFETY_ANALYSIS {
  SpinLock lock;
  lock.lock();
  EXPECT_TRUE(lock.trylock()) << "trylock() does not keep out of its own thread's way";
  lock.lock();
  for (int held = 3; held > 0; --held) {
    EXPECT_FALSE(TryFromAnotherThread(lock)) << held;
    lock.unlock();
  }
  EXPECT_TRUE(TryFromAnotherThread(lock));
}

TEST(SpinLockTest, KeepsThreadsApart) {
  const test::Watchdog watchdog(60, "threads that take a lock by turns");
  constexpr int kThreads = 4, kRounds = 20000;
  SpinLock lock;
  long count = 0;  // plain: a lock that lets two in loses some of the steps
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&]() ORVAN_NO_THREAD_SAFETY_ANALYSIS {
      for (int round = 0; round < kRounds; ++round) {
        SpinLockGuard outer(lock);
        SpinLockGuard inner(lock);
        ++count;
        if (round % 8 == 0) std::this_thread::yield();  // others come to sleep on the lock
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(count, long{kThreads} * kRounds);
}

TEST(SemaphoreTest, ASignalDoesNotEndTheWait) {
  struct sigaction action = {};
  action.sa_handler = [](int) {};  // without SA_RESTART
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
  Semaphore semaphore(0), ended(0);
  std::thread waiter([&] { semaphore.wait(), ended.Post(); });
  for (int i = 0; i < 5 && !HasFailure(); ++i) {  // the first may come before the wait has begun
    pthread_kill(waiter.native_handle(), SIGUSR1);
    EXPECT_FALSE(ended.wait_for(10));
  }
  semaphore.Post();
  waiter.join();
}

}  // namespace
}  // namespace orvan
