#pragma once

#include <QElapsedTimer>
#include <map>
#include <memory>

#include "tools/orvan_fetch/archive_task.h"
#include "tools/orvan_fetch/body_sink.h"
#include "tools/orvan_fetch/one_fetch.h"
#include "tools/orvan_fetch/options.h"
#include "tools/orvan_fetch/progress.h"
#include "tools/orvan_fetch/report.h"

namespace orvan_fetch {

// All fetches of one run, a bounded number of them at a time. Leaves the event loop when the last has ended.
//
// Threads: main thread only.
class Runner {
 public:
  // All of them must outlive this object. `manager` is null for fetches through Fetcher.
  Runner(const Options& options, orvan::net::AbstractNetworkManager* manager, BodySink* sink,
         ArchiveTask* archives, Report* report);

  // Begins. The event loop ends with 0 if every fetch ended well, else with kExitFailed.
  void Start();
  // Stops what is under way, without a record, and leaves the event loop with `exit_status`.
  void Interrupt(int exit_status);

 private:
  void StartMore();
  void FetchEnded(OneFetch* fetch);
  bool Deliver(OneFetch* fetch);
  void Leave(int exit_status);

  const Options& options_;
  orvan::net::AbstractNetworkManager* const manager_;
  BodySink* const sink_;
  ArchiveTask* const archives_;
  Report* const report_;
  Progress progress_;
  RunTotals totals_;
  int started_ = 0;
  bool left_ = false;
  std::map<const OneFetch*, std::unique_ptr<OneFetch>> under_way_;
  QElapsedTimer clock_;
};

}  // namespace orvan_fetch
