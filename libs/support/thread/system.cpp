#include "orvan/support/thread/system.h"

#include <pthread.h>

#include <QCoreApplication>
#include <QDir>
#include <QRandomGenerator>
#include <QThread>
#include <algorithm>
#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "orvan/support/thread/lock.h"

namespace orvan {

namespace {

constexpr std::size_t kMaxThreadName = 15;  // what the kernel keeps, without the NUL

struct ThreadStart {
  void* (*body)(void*);
  void* argument;
  std::string name;
};

void* RunThread(void* start_argument) {
  const std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(start_argument));
  pthread_setname_np(pthread_self(), start->name.c_str());
  return start->body(start->argument);
}

// Zero until the static initialisers of this file have run, which happens on the loading thread.
const unsigned long g_loading_thread = System::CurrentThreadId();

// A function that tests may put in the place of the real one. Earlier ones are kept for good, so that a
// thread which is just calling one is not disturbed.
template <typename Function>
class Replaceable {
 public:
  void Replace(Function function) {
    SpinLockGuard guard(lock_);
    if (!function) return current_.store(nullptr, std::memory_order_release);
    kept_.push_back(std::make_unique<Function>(std::move(function)));
    current_.store(kept_.back().get(), std::memory_order_release);
  }
  const Function* Get() const { return current_.load(std::memory_order_acquire); }

 private:
  std::atomic<const Function*> current_{nullptr};  // orders the function's own contents
  SpinLock lock_;                                  // a leaf
  std::vector<std::unique_ptr<Function>> kept_ ORVAN_GUARDED_BY(lock_);
};

using TimeSource = std::function<double()>;
using RandomSource = std::function<int(int, int)>;

Replaceable<TimeSource>& ReplaceableTime() {
  static auto* const time = new Replaceable<TimeSource>;
  return *time;
}

Replaceable<RandomSource>& ReplaceableRandom() {
  static auto* const random = new Replaceable<RandomSource>;
  return *random;
}

}  // namespace

std::atomic<int> System::s_cur_frame{0};

unsigned long System::spawn(void* (*body)(void*), void* argument, const char* name) {
  auto start = std::make_unique<ThreadStart>(ThreadStart{body, argument, name ? name : ""});
  start->name.resize(std::min(start->name.size(), kMaxThreadName));
  pthread_t thread;
  if (pthread_create(&thread, nullptr, RunThread, start.get()) != 0) return kInvalidThreadId;
  static_cast<void>(start.release());  // the thread's
  return thread;
}

void System::join(unsigned long thread) { pthread_join(thread, nullptr); }
void System::detach(unsigned long thread) { pthread_detach(thread); }
unsigned long System::CurrentThreadId() { return pthread_self(); }

bool System::IsMainThread() {
  const QCoreApplication* application = QCoreApplication::instance();
  if (application) return application->thread() == QThread::currentThread();
  return g_loading_thread == kInvalidThreadId || g_loading_thread == CurrentThreadId();
}

int System::Random(int low, int high) {
  if (const RandomSource* source = ReplaceableRandom().Get()) return (*source)(low, high);
  thread_local QRandomGenerator engine = QRandomGenerator::securelySeeded();
  return std::uniform_int_distribution<int>(low, std::max(low, high))(engine);
}

double System::getTime() {
  if (const TimeSource* source = ReplaceableTime().Get()) return (*source)();
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

QString System::GetTempDirectory() { return QDir::tempPath(); }

void System::SetTimeSourceForTest(std::function<double()> source) {
  ReplaceableTime().Replace(std::move(source));
}

void System::SetRandomForTest(std::function<int(int, int)> source) {
  ReplaceableRandom().Replace(std::move(source));
}

}  // namespace orvan
