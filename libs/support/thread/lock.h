#pragma once

#include <pthread.h>
#include <semaphore.h>

#include <atomic>

#include "orvan/support/export.h"
#include "orvan/support/thread/thread_annotations.h"

namespace orvan {

namespace port {

// A mutex that its owner must not take twice.
class ORVAN_SUPPORT_EXPORT ORVAN_CAPABILITY("mutex") MutexPosix {
 public:
  MutexPosix();
  ~MutexPosix();
  MutexPosix(const MutexPosix&) = delete;
  MutexPosix& operator=(const MutexPosix&) = delete;

  void Lock() ORVAN_ACQUIRE();
  void Unlock() ORVAN_RELEASE();

 private:
  friend class ConditionPosix;
  pthread_mutex_t mutex_;
};

// A condition variable on CLOCK_MONOTONIC. Waiting may end without a notification: wait in a loop.
class ORVAN_SUPPORT_EXPORT ConditionPosix {
 public:
  ConditionPosix();
  ~ConditionPosix();
  ConditionPosix(const ConditionPosix&) = delete;
  ConditionPosix& operator=(const ConditionPosix&) = delete;

  void Wait(MutexPosix& mutex) ORVAN_REQUIRES(mutex);
  // False if `milliseconds` went by without a notification.
  bool WaitFor(MutexPosix& mutex, unsigned int milliseconds) ORVAN_REQUIRES(mutex);
  void NotifyOne();
  void NotifyAll();

 private:
  pthread_cond_t condition_;
};

// Holds a MutexPosix for the length of a block.
class ORVAN_SCOPED_CAPABILITY MutexGuard {
 public:
  explicit MutexGuard(MutexPosix& mutex) ORVAN_ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~MutexGuard() ORVAN_RELEASE() { mutex_.Unlock(); }
  MutexGuard(const MutexGuard&) = delete;
  MutexGuard& operator=(const MutexGuard&) = delete;

 private:
  MutexPosix& mutex_;
};

// A counting semaphore. The object may be destroyed as soon as the last wait() on it has returned, even
// if the poster has not yet come back from Post(): POSIX promises that for sem_t and for no condition
// variable, so nothing here is built on one.
class ORVAN_SUPPORT_EXPORT SemaphoreLinux {
 public:
  explicit SemaphoreLinux(long initial);
  ~SemaphoreLinux();
  SemaphoreLinux(const SemaphoreLinux&) = delete;
  SemaphoreLinux& operator=(const SemaphoreLinux&) = delete;

  // Raises the count by one. Any thread, also under locks.
  void Post();

 protected:
  sem_t semaphore_;
};

}  // namespace port

// A lock that its owner may take again; each lock() needs its unlock(). In spite of the name a waiter
// sleeps. The constructor is constant and the destructor trivial, so static locks work before the first
// and after the last dynamic initialisation.
//
// Threads: only the owner may unlock. Taking a free lock is one compare-and-swap.
class ORVAN_SUPPORT_EXPORT ORVAN_CAPABILITY("spin lock") SpinLock {
 public:
  constexpr SpinLock() = default;
  SpinLock(const SpinLock&) = delete;
  SpinLock& operator=(const SpinLock&) = delete;

  void lock() ORVAN_ACQUIRE();
  // True if this thread holds the lock now. It always does for the thread that held it already: code that
  // uses trylock() to stay out of somebody's way does not keep out of its own thread's way.
  bool trylock() ORVAN_TRY_ACQUIRE(true);
  void unlock() ORVAN_RELEASE();

  // True if the calling thread holds the lock. For assertions.
  bool IsHeldByThisThread() const;

 private:
  void LockSlowly();

  std::atomic<int> word_{0};             // 0 free, 1 held, 2 held with sleepers; orders what the lock guards
  std::atomic<unsigned long> owner_{0};  // thread handle of the holder, System::kInvalidThreadId if free
  int depth_ = 0;                        // of nested lock() calls; the holder's own
};

// Holds a SpinLock for the length of a block.
class ORVAN_SCOPED_CAPABILITY SpinLockGuard {
 public:
  explicit SpinLockGuard(SpinLock& lock) ORVAN_ACQUIRE(lock) : lock_(lock) { lock_.lock(); }
  ~SpinLockGuard() ORVAN_RELEASE() { lock_.unlock(); }
  SpinLockGuard(const SpinLockGuard&) = delete;
  SpinLockGuard& operator=(const SpinLockGuard&) = delete;

 private:
  SpinLock& lock_;
};

// The semaphore that the library waits on.
class ORVAN_SUPPORT_EXPORT Semaphore : public port::SemaphoreLinux {
 public:
  explicit Semaphore(long initial) : SemaphoreLinux(initial) {}

  // Takes one from the count, waiting without a limit until there is one.
  void wait();
  // The same without waiting; false if the count is 0.
  bool trywait();
  // The same, for at most `milliseconds`; false if the time ran out.
  bool wait_for(unsigned int milliseconds);
};

}  // namespace orvan
