#include "tools/orvan_fetch/one_fetch.h"

#include <QDir>
#include <QFileInfo>
#include <cmath>

#include "orvan/net/url_text.h"

namespace orvan_fetch {

using orvan::net::Fetcher;
using orvan::net::RequestHeader;

namespace {

// The library takes a relative path as the name of a file, and looks for no archive in it.
QString WithAbsolutePath(const QString& url) {
  const bool is_relative =
      orvan::net::GetFileNameType(url) == orvan::net::kFileNamePath && QFileInfo(url).isRelative();
  return is_relative ? QDir::current().filePath(url) : url;
}

}  // namespace

OneFetch::OneFetch(const Options& options, const QString& url, int run, Ended ended)
    : options_(options), ended_(std::move(ended)) {
  record_.url = url;
  record_.run = run;
  time_out_.setSingleShot(true);
}

OneFetch::~OneFetch() {
  if (fetch_) fetch_->Stop();
}

void OneFetch::Start() {
  // The library itself lets a fetch take as long as it takes.
  if (options_.timeout_seconds > 0) {
    QObject::connect(&time_out_, &QTimer::timeout, [this] {
      GiveUp(QStringLiteral("not finished after %1 s, stopped").arg(options_.timeout_seconds));
    });
    time_out_.start(static_cast<int>(std::ceil(options_.timeout_seconds * 1000)));
  }
  clock_.start();
  fetch_ = Fetcher::fetch(Params(), nullptr);
  if (!fetch_) {
    QObject::connect(&time_out_, &QTimer::timeout,
                     [this] { GiveUp(QStringLiteral("could not be started")); });
    time_out_.start(0);
  }
}

Fetcher::FetchParams OneFetch::Params() {
  Fetcher::FetchParams params;
  params.url = WithAbsolutePath(record_.url);
  params.user_agent = options_.user_agent;
  params.if_modified_since = options_.if_modified_since;
  for (const QString& line : options_.header_lines) {
    params.headers.emplace_back(RequestHeader::kLine, line);
  }
  for (const auto& cookie : options_.cookies) {
    params.headers.emplace_back(RequestHeader::kCookie, cookie.first, cookie.second);
  }
  params.callback = &OneFetch::FetchDone;
  params.user_data = this;
  params.use_cache = options_.use_cache;
  params.async = options_.async;
  return params;
}

void OneFetch::FetchDone(Fetcher& fetch) {
  auto* self = static_cast<OneFetch*>(fetch.GetUserData());
  self->body_ = fetch.GetByteArray();
  self->End(RecordOf(fetch));
}

void OneFetch::GiveUp(const QString& problem) {
  FetchRecord result;
  result.problem = problem;
  if (fetch_) {
    fetch_->Stop();
    result.state = fetch_->GetState();
  }
  End(result);
}

void OneFetch::End(const FetchRecord& result) {
  time_out_.stop();
  const FetchRecord started = record_;
  record_ = result;
  record_.url = started.url;
  record_.run = started.run;
  record_.seconds = static_cast<double>(clock_.nsecsElapsed()) / 1e9;
  fetch_ = nullptr;
  ended_(this);  // last: this object may be gone now
}

}  // namespace orvan_fetch
