#include "tests/support/wait.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QFile>
#include <QTimer>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>

namespace orvan::test {
namespace {

int CountEntries(const char* folder) {
  return static_cast<int>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

// A line "<name>:   <number> kB" of the kernel's own report, in bytes.
qint64 ReadStatus(const QByteArray& name) {
  QFile file(QStringLiteral("/proc/self/status"));
  if (!file.open(QIODevice::ReadOnly)) return -1;
  const QByteArray text = file.readAll();
  const int number = text.indexOf(name) + name.size();
  return 1024 * text.mid(number, text.indexOf("kB", number) - number).trimmed().toLongLong();
}

}  // namespace

bool PumpUntil(const std::function<bool()>& predicate, int timeout_ms) {
  const QDeadlineTimer deadline(timeout_ms);
  bool came_true = predicate();
  QEventLoop loop;
  const auto look = [&] {
    came_true = came_true || predicate();
    if (came_true || deadline.hasExpired()) loop.quit();
  };
  QTimer tick;
  QObject::connect(&tick, &QTimer::timeout, &loop, look);
  // The tick alone would make every wait take two milliseconds more than it needs.
  QObject::connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::aboutToBlock, &loop,
                   look);
  tick.start(2);
  if (!came_true) loop.exec();
  return came_true;
}

void PumpFor(int duration_ms) {
  QEventLoop loop;
  QTimer::singleShot(duration_ms, Qt::PreciseTimer, &loop, &QEventLoop::quit);
  loop.exec();
}

void PumpPending() { QCoreApplication::processEvents(QEventLoop::AllEvents, 1000); }

bool SpinUntil(const std::function<bool()>& predicate, int timeout_ms) {
  const QDeadlineTimer deadline(timeout_ms);
  while (!predicate()) {
    if (deadline.hasExpired()) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

struct Gate::State {
  std::mutex mutex;
  std::condition_variable opened;
  bool open = false;
};

Gate::Gate() : state_(std::make_shared<State>()) {}

void Gate::Open() const {
  const std::lock_guard<std::mutex> guard(state_->mutex);
  state_->open = true;
  state_->opened.notify_all();
}

bool Gate::Wait(int timeout_ms) const {
  std::unique_lock<std::mutex> lock(state_->mutex);
  return state_->opened.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                                 [this] { return state_->open; });
}

int CountThreads() { return CountEntries("/proc/self/task"); }

int CountDescriptors() { return CountEntries("/proc/self/fd") - 1; }  // without the one that counting needs

qint64 ResidentBytes() { return ReadStatus("VmRSS:"); }

qint64 PeakResidentBytes() { return ReadStatus("VmHWM:"); }

bool ResetPeakResidentBytes() {
  QFile file(QStringLiteral("/proc/self/clear_refs"));
  return file.open(QIODevice::WriteOnly | QIODevice::Unbuffered) && file.write("5") == 1;
}

bool UnderSanitizer() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return true;
#elif defined(__has_feature)
  return __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
  return false;
#endif
}

}  // namespace orvan::test
