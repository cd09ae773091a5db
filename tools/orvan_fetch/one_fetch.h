#pragma once

#include <QElapsedTimer>
#include <QString>
#include <QTimer>
#include <functional>

#include "orvan/net/fetcher.h"
#include "tools/orvan_fetch/fetch_record.h"
#include "tools/orvan_fetch/options.h"

namespace orvan_fetch {

// One fetch from its start to its record.
//
// Threads:   main thread only.
// Ownership: holds the fetch. The destructor stops it, and `ended` is not called then. `ended` may destroy
//            this object.
class OneFetch {
 public:
  using Ended = std::function<void(OneFetch*)>;

  // `options` must outlive this object.
  OneFetch(const Options& options, const QString& url, int run, Ended ended);
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
  void GiveUp(const QString& problem);
  void End(const FetchRecord& result);

  const Options& options_;
  const Ended ended_;
  FetchRecord record_;
  QByteArray body_;
  orvan::RefPtr<orvan::net::Fetcher> fetch_;  // null before Start() and after the end
  QElapsedTimer clock_;
  QTimer time_out_;
};

}  // namespace orvan_fetch
