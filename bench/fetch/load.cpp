#include "bench/fetch/load.h"

#include <sys/resource.h>

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>

namespace orvan::bench {

namespace {

qint64 PeakBytes() {
  QFile status(QStringLiteral("/proc/self/status"));
  if (!status.open(QIODevice::ReadOnly)) return 0;
  for (const QByteArray& line : status.readAll().split('\n')) {
    if (line.startsWith("VmHWM:")) return line.mid(6).replace("kB", "").trimmed().toLongLong() * 1024;
  }
  return 0;
}

double Percentile(std::vector<double> values, double share) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[static_cast<size_t>(share * static_cast<double>(values.size() - 1))];
}

}  // namespace

double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// A single large body has no warm-up: its memory is what is measured.
Meter::Meter(const Load& load)
    : load_(load), warm_up_(load.requests > 1 ? std::max(load.requests / 10, load.outstanding) : 0) {
  started_.resize(static_cast<size_t>(load.requests + warm_up_));
}

void Meter::Begin(std::function<void(int, const QString&)> start, std::function<void()> finished) {
  start_ = std::move(start);
  finished_ = std::move(finished);
  begin_ = Clock::now();
  cpu_begin_ = CpuSeconds();
  for (int i = 0; i < load_.outstanding; ++i) StartNext();
}

void Meter::StartNext() {
  if (next_ >= load_.requests + warm_up_) return;
  const int number = next_++;
  started_[static_cast<size_t>(number)] = Clock::now();
  start_(number, load_.urls[static_cast<size_t>(number) % load_.urls.size()]);
}

void Meter::Completed(int number, bool good, qint64 bytes) {
  ++completed_;
  if (completed_ > warm_up_) {
    const auto took = Clock::now() - started_[static_cast<size_t>(number)];
    latencies_.push_back(std::chrono::duration<double, std::milli>(took).count());
    failed_ += good ? 0 : 1;
    bytes_ += bytes;
  } else if (completed_ == warm_up_) {
    begin_ = Clock::now();
    cpu_begin_ = CpuSeconds();
  }
  if (completed_ == load_.requests + warm_up_) {
    end_ = Clock::now();
    cpu_end_ = CpuSeconds();
    finished_();
  } else {
    StartNext();
  }
}

std::string Meter::Report() const {
  const QJsonObject object{
      {"seconds", std::chrono::duration<double>(end_ - begin_).count()},
      {"cpu_seconds", cpu_end_ - cpu_begin_},
      {"requests", load_.requests},
      {"failed", failed_},
      {"bytes", static_cast<double>(bytes_)},
      {"peak_bytes", static_cast<double>(PeakBytes())},
      {"p50_ms", Percentile(latencies_, 0.5)},
      {"p99_ms", Percentile(latencies_, 0.99)},
  };
  return QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString();
}

}  // namespace orvan::bench
