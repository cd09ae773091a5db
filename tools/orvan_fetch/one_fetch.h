#pragma once

#include <QElapsedTimer>
#include <QString>
#include <QTimer>
#include <functional>

#include "orvan/net/fetcher.h"
#include "orvan/net/manager/abstract_network_manager.h"
#include "tools/orvan_fetch/fetch_record.h"
#include "tools/orvan_fetch/options.h"

namespace orvan_fetch {

// One fetch, or request through a manager, from its start to its record.
//
// Threads:   main thread only.
// Ownership: holds the fetch. The destructor stops it, and `ended` is not called then. `ended` may destroy
//            this object.
class OneFetch {
 public:
  using Ended = std::function<void(OneFetch*)>;

  // `options` must outlive this object, and so must `manager`, which is null for a Fetcher.
  OneFetch(const Options& options, orvan::net::AbstractNetworkManager* manager, const QString& url, int run,
           Ended ended);
  ~OneFetch();
  OneFetch(const OneFetch&) = delete;
  OneFetch& operator=(const OneFetch&) = delete;

  // Starts the fetch. `ended` is called once, later, on the event loop.
  void Start();

  // Both are there once the fetch has ended.
  FetchRecord& record() { return record_; }
  const QByteArray& body() const { return body_; }

 private:
  static void FetchDone(orvan::net::Fetcher& fetch);
  orvan::net::Fetcher::FetchParams Params();
  bool StartFetch();
  bool StartRequest();
  void GiveUp(const QString& problem);
  void End(const FetchRecord& result);

  const Options& options_;
  orvan::net::AbstractNetworkManager* const manager_;
  const Ended ended_;
  FetchRecord record_;
  QByteArray body_;
  // Null, and 0, before Start() and after the end; one of them always.
  orvan::RefPtr<orvan::net::Fetcher> fetch_;
  unsigned int request_ = 0;
  QElapsedTimer clock_;
  QTimer time_out_;
};

}  // namespace orvan_fetch
