#pragma once

#include <QByteArray>
#include <QString>
#include <atomic>

#include "orvan/net/fetcher.h"
#include "orvan/support/thread/system.h"

namespace orvan::test {

// One fetch as its caller sees it: starts it and notes how its callback came. Outlives the fetch.
class FetchProbe {
 public:
  FetchProbe() = default;
  FetchProbe(const FetchProbe&) = delete;
  FetchProbe& operator=(const FetchProbe&) = delete;
  // A fetch that never ended would call back into freed memory.
  ~FetchProbe() {
    if (fetcher) fetcher->Stop();
  }

  FetchProbe& Start(const QString& url) {
    params.url = url;
    params.callback = &FetchProbe::OnDone;
    params.user_data = this;
    in_fetch = true;
    fetcher = net::Fetcher::fetch(params, nullptr);
    in_fetch = false;
    return *this;
  }

  net::Fetcher::FetchParams params;
  RefPtr<net::Fetcher> fetcher;
  int calls = 0;
  net::FetchState state = net::kFetchNone;  // as the callback saw it
  QByteArray bytes;
  bool on_main_thread = false;
  // Of the starting thread: on another one the callback may come while that is still inside fetch().
  std::atomic<bool> in_fetch{false};
  bool called_in_fetch = false;
  void (*in_callback)(FetchProbe&, net::Fetcher&) = nullptr;

 private:
  static void OnDone(net::Fetcher& fetcher) {
    auto* const probe = static_cast<FetchProbe*>(fetcher.GetUserData());
    ++probe->calls;
    probe->state = fetcher.GetState();
    probe->bytes = fetcher.GetByteArray();
    probe->on_main_thread = System::IsMainThread();
    probe->called_in_fetch = probe->in_fetch;
    if (probe->in_callback) probe->in_callback(*probe, fetcher);
  }
};

}  // namespace orvan::test
