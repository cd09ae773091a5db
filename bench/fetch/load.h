#pragma once

#include <QString>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace orvan::bench {

// What a peer has to fetch, and what that cost: one measurement in a process of its own.
struct Load {
  std::vector<QString> urls;  // requests go to them in turn
  int requests = 1;
  int outstanding = 1;
  QString ca_file;  // trusted beside the system's; empty for plain HTTP
};

// Counts completions, keeps `outstanding` requests under way, and measures from the first request behind the
// warm-up to the last completion. The thread that calls Begin() and Completed() is the peer's main thread.
class Meter {
 public:
  explicit Meter(const Load& load);

  // Starts the load: `start(number, url)` sends one request, `finished()` is called behind the last one.
  void Begin(std::function<void(int, const QString&)> start, std::function<void()> finished);
  // Request `number` has ended with so many bytes.
  void Completed(int number, bool good, qint64 bytes);

  // One line of JSON: seconds, cpu_seconds, requests, failed, bytes, peak_bytes, p50_ms, p99_ms.
  std::string Report() const;

 private:
  using Clock = std::chrono::steady_clock;
  void StartNext();

  const Load load_;
  const int warm_up_;
  std::function<void(int, const QString&)> start_;
  std::function<void()> finished_;
  std::vector<Clock::time_point> started_;
  std::vector<double> latencies_;  // milliseconds, without the warm-up
  int next_ = 0;
  int completed_ = 0;
  int failed_ = 0;
  qint64 bytes_ = 0;
  Clock::time_point begin_;
  Clock::time_point end_;
  double cpu_begin_ = 0;
  double cpu_end_ = 0;
};

// Seconds of processor time that this process has used, all threads, user and system.
double CpuSeconds();

// The peers. Each runs the load to its end and returns.
void RunOrvan(const Load& load, Meter* meter);  // Fetcher::fetch up to the callback
void RunQtWorkers(const Load& load,
                  Meter* meter);  // the floor: a bare access manager per server on a thread of its own
void RunQtMainThread(const Load& load, Meter* meter);  // one bare access manager on the main thread
void RunCurlMulti(const Load& load, Meter* meter);     // libcurl's multi interface on one thread

// Costs without a network: microseconds for one of `count`, of "orvan" or of the bare Qt way.
double DispatchMicroseconds(const QString& peer, int count);
double ConnectionMicroseconds(const QString& peer, int count, int port);

}  // namespace orvan::bench
