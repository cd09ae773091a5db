#include "tools/orvan_fetch/runner.h"

#include <QCoreApplication>
#include <cstdio>

#include "orvan/support/thread/system.h"
#include "tools/orvan_fetch/interrupts.h"

namespace orvan_fetch {

Runner::Runner(const Options& options, orvan::net::AbstractNetworkManager* manager, BodySink* sink,
               ArchiveTask* archives, Report* report)
    : options_(options),
      manager_(manager),
      sink_(sink),
      archives_(archives),
      report_(report),
      progress_(options.FetchCount()) {}

void Runner::Start() {
  clock_.start();
  StartMore();
}

void Runner::StartMore() {
  while (started_ < options_.FetchCount() && static_cast<int>(under_way_.size()) < options_.parallel) {
    const QString& url = options_.urls[started_ % options_.urls.size()];
    const int run = started_ / options_.urls.size() + 1;
    auto fetch = std::make_unique<OneFetch>(options_, manager_, url, run,
                                            [this](OneFetch* ended) { FetchEnded(ended); });
    OneFetch* const starting = fetch.get();
    under_way_.emplace(starting, std::move(fetch));
    ++started_;
    starting->Start();
  }
}

void Runner::FetchEnded(OneFetch* fetch) {
  const auto entry = under_way_.find(fetch);
  const std::unique_ptr<OneFetch> ended = std::move(entry->second);  // dies at the end of this call
  under_way_.erase(entry);

  progress_.Clear();
  const bool heard = Deliver(fetch);
  const FetchRecord& record = ended->record();
  ++totals_.done;
  if (!record.IsGood(!options_.if_modified_since.isEmpty())) ++totals_.failed;
  totals_.bytes += record.bytes;
  progress_.Update(totals_);

  if (!heard) {
    std::fputs("orvan-fetch: cannot write the report\n", stderr);
    Leave(kExitFailed);
  } else if (Interrupts::Pending()) {
    // The event loop is about to deliver it, and tells the shell about it with the right exit status.
  } else if (totals_.done == options_.FetchCount()) {
    report_->PrintTotals(totals_, static_cast<double>(clock_.elapsed()) / 1000);
    Leave(totals_.failed == 0 ? 0 : kExitFailed);
  } else {
    StartMore();
  }
}

// Takes the result to where it is wanted, and reports. False if nobody can read the report any more.
bool Runner::Deliver(OneFetch* fetch) {
  FetchRecord& record = fetch->record();
  ++orvan::System::s_cur_frame;  // by which the cache of archives tells what was used last
  if (options_.task != Task::kFetch) return archives_->Handle(&record);
  sink_->Write(fetch->body(), &record);
  return report_->Print(record);
}

void Runner::Interrupt(int exit_status) {
  progress_.Clear();
  std::fprintf(stderr, "orvan-fetch: interrupted after %d of %d fetches\n", totals_.done,
               options_.FetchCount());
  Leave(exit_status);
}

void Runner::Leave(int exit_status) {
  if (left_) return;
  left_ = true;
  started_ = options_.FetchCount();  // nothing more is started
  under_way_.clear();
  progress_.Clear();
  QCoreApplication::exit(exit_status);
}

}  // namespace orvan_fetch
