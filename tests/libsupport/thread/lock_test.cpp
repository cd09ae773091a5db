#include "orvan/support/thread/lock.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

#include "orvan/support/thread/system.h"
#include "tests/support/wait.h"

namespace orvan {
namespace {

using test::kWaitMs;

// Taken by a static that is initialised first: were the lock initialised dynamically, it would be free again.
extern SpinLock g_static_lock;
struct TakesIt {
  TakesIt() { g_static_lock.lock(); }
} g_takes_it;
SpinLock g_static_lock;

TEST(SpinLockTest, StaticLocksWorkBeforeTheirInitialisation) ORVAN_NO_THREAD_SAFETY_ANALYSIS {
  static_assert(std::is_trivially_destructible_v<SpinLock>, "and after the end of the statics");
  EXPECT_TRUE(g_static_lock.IsHeldByThisThread());
  g_static_lock.unlock();
  EXPECT_FALSE(g_static_lock.IsHeldByThisThread());
}

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
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(count, long{kThreads} * kRounds);
}

TEST(SemaphoreTest, MayBeDestroyedAsSoonAsTheWaitReturns) {
  std::atomic<Semaphore*> next{nullptr};
  constexpr int kRounds = 5000;
  std::thread poster([&] {
    for (int i = 0; i < kRounds; ++i) {
      Semaphore* semaphore;
      while (!(semaphore = next.exchange(nullptr))) std::this_thread::yield();
      semaphore->Post();
    }
  });
  for (int i = 0; i < kRounds; ++i) {
    const auto semaphore = std::make_unique<Semaphore>(0);
    next = semaphore.get();
    semaphore->wait();
  }
  poster.join();
}

Semaphore g_interrupted(0);

TEST(SemaphoreTest, ASignalDoesNotEndTheWait) {
  struct sigaction action = {}, before;
  action.sa_handler = [](int) { g_interrupted.Post(); };  // without SA_RESTART
  ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
  Semaphore semaphore(0), ended(0);
  std::thread waiter([&] {
    semaphore.wait();
    ended.Post();
  });
  for (int i = 0; i < 5; ++i) {  // the first may come before the wait has begun
    pthread_kill(waiter.native_handle(), SIGUSR1);
    ASSERT_TRUE(g_interrupted.wait_for(kWaitMs));
    EXPECT_FALSE(ended.wait_for(10));
  }
  semaphore.Post();
  EXPECT_TRUE(ended.wait_for(kWaitMs));
  waiter.join();
  sigaction(SIGUSR1, &before, nullptr);
}

TEST(SystemTest, SpawnCutsALongNameInsteadOfLosingIt) {
  char name[32] = "";
  const auto read_name = [](void* out) -> void* {
    pthread_getname_np(pthread_self(), static_cast<char*>(out), 32);
    return out;
  };
  System::join(System::spawn(read_name, name, "http_callback_handler"));
  EXPECT_STREQ(name, "http_callback_h");
}

}  // namespace
}  // namespace orvan
