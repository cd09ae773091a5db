#include "tests/support/wait.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace orvan::test {
namespace {

constexpr int kTickMs = 2;

int CountEntries(const char* folder) {
  std::error_code error;
  int count = 0;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    ++count;
  }
  return count;
}

// A line "<name>:   <number> kB" of /proc/self/status, in bytes.
qint64 ReadStatus(const std::string& name) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, name.size(), name) == 0)
      return 1024 * std::strtoll(line.c_str() + name.size(), nullptr, 10);
  }
  return -1;
}

}  // namespace

bool PumpUntil(const std::function<bool()>& predicate, int timeout_ms) {
  if (predicate()) return true;
  QElapsedTimer clock;
  clock.start();
  bool came_true = false;
  bool looking = false;
  QEventLoop loop;
  const auto look = [&] {
    if (looking || came_true) return;  // a loop inside the predicate, or one more signal before the end
    looking = true;
    came_true = predicate();
    looking = false;
    if (came_true || clock.hasExpired(timeout_ms)) loop.quit();
  };
  QTimer tick;
  tick.setTimerType(Qt::PreciseTimer);
  QObject::connect(&tick, &QTimer::timeout, &loop, look);
  tick.start(kTickMs);
  // The tick alone would make every wait take two milliseconds more than it needs.
  QObject::connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::aboutToBlock, &loop,
                   look);
  loop.exec();
  return came_true;
}

void PumpFor(int duration_ms) {
  QEventLoop loop;
  QTimer::singleShot(duration_ms, Qt::PreciseTimer, &loop, &QEventLoop::quit);
  loop.exec();
}

void PumpPending() {
  QElapsedTimer clock;
  clock.start();
  // One round that finds nothing is not enough: deleting an object can post something.
  for (int quiet_rounds = 0; quiet_rounds < 2 && !clock.hasExpired(1000); ++quiet_rounds) {
    if (QAbstractEventDispatcher::instance()->processEvents(QEventLoop::AllEvents)) quiet_rounds = 0;
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  }
}

bool SpinUntil(const std::function<bool()>& predicate, int timeout_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!predicate()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

struct Gate::State {
  std::mutex mutex;
  std::condition_variable opened;
  bool open = false;  // this and the rest: guarded by mutex
  bool calling = false;
  std::thread::id caller;
  int last_number = 0;
  std::map<int, std::function<void()>> listeners;
};

Gate::Gate() : state_(std::make_shared<State>()) {}

void Gate::Open() const {
  std::map<int, std::function<void()>> listeners;
  {
    const std::lock_guard<std::mutex> guard(state_->mutex);
    if (state_->open) return;
    state_->open = true;
    state_->calling = true;
    state_->caller = std::this_thread::get_id();
    listeners.swap(state_->listeners);
  }
  state_->opened.notify_all();
  for (const auto& listener : listeners) listener.second();
  {
    const std::lock_guard<std::mutex> guard(state_->mutex);
    state_->calling = false;
  }
  state_->opened.notify_all();
}

bool Gate::IsOpen() const {
  const std::lock_guard<std::mutex> guard(state_->mutex);
  return state_->open;
}

bool Gate::Wait(int timeout_ms) const {
  std::unique_lock<std::mutex> lock(state_->mutex);
  return state_->opened.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                                 [this] { return state_->open; });
}

int Gate::AddListener(std::function<void()> listener) const {
  {
    const std::lock_guard<std::mutex> guard(state_->mutex);
    if (!state_->open) {
      state_->listeners.emplace(++state_->last_number, std::move(listener));
      return state_->last_number;
    }
  }
  listener();
  return 0;
}

void Gate::RemoveListener(int number) const {
  std::unique_lock<std::mutex> lock(state_->mutex);
  state_->listeners.erase(number);
  if (state_->calling && state_->caller == std::this_thread::get_id()) return;
  state_->opened.wait(lock, [this] { return !state_->calling; });
}

int CountThreads() { return CountEntries("/proc/self/task"); }

int CountDescriptors() { return CountEntries("/proc/self/fd") - 1; }

qint64 ResidentBytes() { return ReadStatus("VmRSS:"); }

qint64 PeakResidentBytes() { return ReadStatus("VmHWM:"); }

bool ResetPeakResidentBytes() {
  std::ofstream file("/proc/self/clear_refs");
  file << '5' << std::flush;
  return file.good();
}

bool UnderSanitizer() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
  return true;
#else
  return false;
#endif
#else
  return false;
#endif
}

}  // namespace orvan::test
