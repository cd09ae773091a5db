#include "orvan/support/thread/lock.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <QtGlobal>
#include <cerrno>
#include <climits>

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#include <sanitizer/tsan_interface.h>
#define ORVAN_TSAN_ACQUIRE(address) __tsan_acquire(address)
#endif
#endif
#ifndef ORVAN_TSAN_ACQUIRE
#define ORVAN_TSAN_ACQUIRE(address) static_cast<void>(address)
#endif

namespace orvan {

namespace {

constexpr int kFree = 0;
constexpr int kHeld = 1;
constexpr int kHeldWithSleepers = 2;
constexpr int kTriesBeforeSleep = 64;

// A thread handle is never System::kInvalidThreadId: it is the address of the thread's descriptor.
unsigned long Self() { return pthread_self(); }

void Futex(std::atomic<int>* word, int operation, int value) {
  static_assert(sizeof(*word) == sizeof(int) && std::atomic<int>::is_always_lock_free,
                "the kernel sees an int");
  // Interrupted and spurious wake-ups need no care: the caller looks at the word again.
  syscall(SYS_futex, word, operation | FUTEX_PRIVATE_FLAG, value, nullptr, nullptr, 0);
}

void Relax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

timespec MonotonicDeadline(unsigned int milliseconds) {
  timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += milliseconds / 1000;
  deadline.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000;
  if (deadline.tv_nsec >= 1000000000) {
    ++deadline.tv_sec;
    deadline.tv_nsec -= 1000000000;
  }
  return deadline;
}

}  // namespace

namespace port {

MutexPosix::MutexPosix() { pthread_mutex_init(&mutex_, nullptr); }
MutexPosix::~MutexPosix() { pthread_mutex_destroy(&mutex_); }
void MutexPosix::Lock() { pthread_mutex_lock(&mutex_); }
void MutexPosix::Unlock() { pthread_mutex_unlock(&mutex_); }

ConditionPosix::ConditionPosix() {
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  pthread_cond_init(&condition_, &attributes);
  pthread_condattr_destroy(&attributes);
}

ConditionPosix::~ConditionPosix() { pthread_cond_destroy(&condition_); }

void ConditionPosix::Wait(MutexPosix& mutex) { pthread_cond_wait(&condition_, &mutex.mutex_); }

bool ConditionPosix::WaitFor(MutexPosix& mutex, unsigned int milliseconds) {
  const timespec deadline = MonotonicDeadline(milliseconds);
  return pthread_cond_timedwait(&condition_, &mutex.mutex_, &deadline) == 0;
}

void ConditionPosix::NotifyOne() { pthread_cond_signal(&condition_); }
void ConditionPosix::NotifyAll() { pthread_cond_broadcast(&condition_); }

SemaphoreLinux::SemaphoreLinux(long initial) {
  Q_ASSERT(initial >= 0 && initial <= INT_MAX);
  sem_init(&semaphore_, 0, static_cast<unsigned int>(initial));
}

SemaphoreLinux::~SemaphoreLinux() { sem_destroy(&semaphore_); }

void SemaphoreLinux::Post() { sem_post(&semaphore_); }

}  // namespace port

void SpinLock::lock() {
  const unsigned long self = Self();
  // Only this thread stores its own handle, so a relaxed look tells for certain whether it is the holder.
  if (owner_.load(std::memory_order_relaxed) == self) {
    ++depth_;
    return;
  }
  int expected = kFree;
  if (!word_.compare_exchange_strong(expected, kHeld, std::memory_order_acquire, std::memory_order_relaxed)) {
    LockSlowly();
  }
  owner_.store(self, std::memory_order_relaxed);
  depth_ = 1;
}

bool SpinLock::trylock() {
  const unsigned long self = Self();
  if (owner_.load(std::memory_order_relaxed) == self) {
    ++depth_;
    return true;
  }
  int expected = kFree;
  if (!word_.compare_exchange_strong(expected, kHeld, std::memory_order_acquire, std::memory_order_relaxed)) {
    return false;
  }
  owner_.store(self, std::memory_order_relaxed);
  depth_ = 1;
  return true;
}

void SpinLock::unlock() {
  Q_ASSERT(IsHeldByThisThread());
  if (--depth_ > 0) return;
  owner_.store(0, std::memory_order_relaxed);
  // The exchange is the last look at this object: the next holder may destroy it, so only its address is
  // used below, where the kernel may find nobody.
  if (word_.exchange(kFree, std::memory_order_release) == kHeldWithSleepers) Futex(&word_, FUTEX_WAKE, 1);
}

bool SpinLock::IsHeldByThisThread() const { return owner_.load(std::memory_order_relaxed) == Self(); }

void SpinLock::LockSlowly() {
  for (int i = 0; i < kTriesBeforeSleep; ++i) {
    int expected = kFree;
    if (word_.load(std::memory_order_relaxed) == kFree &&
        word_.compare_exchange_weak(expected, kHeld, std::memory_order_acquire, std::memory_order_relaxed)) {
      return;
    }
    Relax();
  }
  // Whoever has slept takes the lock as one with sleepers: there may be more of them, and one wake-up too
  // many costs less than one that is missing.
  while (word_.exchange(kHeldWithSleepers, std::memory_order_acquire) != kFree) {
    Futex(&word_, FUTEX_WAIT, kHeldWithSleepers);
  }
}

void Semaphore::wait() {
  while (sem_wait(&semaphore_) != 0 && errno == EINTR) {
  }
}

bool Semaphore::trywait() {
  int result;
  do {
    result = sem_trywait(&semaphore_);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

bool Semaphore::wait_for(unsigned int milliseconds) {
  const timespec deadline = MonotonicDeadline(milliseconds);
  int result;
  do {
    result = sem_clockwait(&semaphore_, CLOCK_MONOTONIC, &deadline);
  } while (result != 0 && errno == EINTR);
  // ThreadSanitizer knows sem_wait() and sem_timedwait(), but not this one of the family.
  if (result == 0) ORVAN_TSAN_ACQUIRE(&semaphore_);
  return result == 0;
}

}  // namespace orvan
