#include "tools/orvan_fetch/one_fetch.h"

#include <QDir>
#include <QFileInfo>
#include <cmath>

#include "orvan/net/server/server_info.h"
#include "orvan/net/url_text.h"

namespace orvan_fetch {

using orvan::net::Fetcher;
using orvan::net::RequestHeader;
using orvan::net::RequestOptions;
using orvan::net::ResponseInfo;
using orvan::net::ServerInfo;

namespace {

// The library takes a relative path as the name of a file, and looks for no archive in it.
QString WithAbsolutePath(const QString& url) {
  const bool is_relative =
      orvan::net::GetFileNameType(url) == orvan::net::kFileNamePath && QFileInfo(url).isRelative();
  return is_relative ? QDir::current().filePath(url) : url;
}

}  // namespace

OneFetch::OneFetch(const Options& options, orvan::net::AbstractNetworkManager* manager, const QString& url,
                   int run, Ended ended)
    : options_(options), manager_(manager), ended_(std::move(ended)) {
  record_.url = url;
  record_.run = run;
  time_out_.setSingleShot(true);
}

OneFetch::~OneFetch() {
  if (fetch_) fetch_->Stop();
  if (request_ != 0) manager_->Cancel(request_);
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
  if (!(manager_ ? StartRequest() : StartFetch())) {
    QObject::connect(&time_out_, &QTimer::timeout,
                     [this] { GiveUp(QStringLiteral("could not be started")); });
    time_out_.start(0);
  }
}

bool OneFetch::StartFetch() {
  fetch_ = Fetcher::fetch(Params(), nullptr);
  return fetch_.get() != nullptr;
}

bool OneFetch::StartRequest() {
  RequestOptions request;
  request.method = options_.method;
  request.post_data = options_.body.bytes;
  request.keep_response_headers = true;
  request.use_cache = options_.use_cache;
  const auto add = [&](const QString& name, const QString& value) {
    request.headers.insert(name.toLatin1(), value.toLatin1());
  };
  for (const QString& line : options_.header_lines) {
    const int colon = line.indexOf(QLatin1Char(':'));
    add(line.left(colon), line.mid(colon + 1).trimmed());
  }
  if (!options_.if_modified_since.isEmpty()) {
    add(QStringLiteral("If-Modified-Since"), options_.if_modified_since);
  }
  for (const auto& cookie : options_.cookies) {
    request.cookies.insert(cookie.first.toLatin1(), cookie.second.toLatin1());
  }
  const QUrl url = ServerInfo::QUrlFromQString(record_.url);
  request_ = manager_->Request(url, request, [this, url](const QByteArray& body, const ResponseInfo& info) {
    body_ = body;
    End(RecordOf(url, body, info));
  });
  return request_ != 0;
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
  if (request_ != 0) manager_->Cancel(request_);
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
  request_ = 0;
  ended_(this);  // last: this object may be gone now
}

}  // namespace orvan_fetch
