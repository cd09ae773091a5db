#include <QEventLoop>

#include "bench/fetch/load.h"
#include "orvan/net/fetcher.h"
#include "orvan/net/net_init.h"

namespace orvan::bench {

namespace {

Meter* s_meter = nullptr;  // callbacks of fetches are plain functions

void Done(net::Fetcher& fetcher) {
  const auto number = static_cast<int>(reinterpret_cast<intptr_t>(fetcher.GetUserData()));
  const QByteArray bytes = fetcher.GetByteArray();  // what an application would keep
  s_meter->Completed(number, fetcher.GetState() == net::kFetchSuccess, bytes.size());
}

}  // namespace

void RunOrvan(const Load&, Meter* meter) {
  s_meter = meter;
  net::Init(QString(), QString());
  QEventLoop loop;
  meter->Begin(
      [](int number, const QString& url) {
        net::Fetcher::FetchParams params;
        params.url = url;
        params.callback = &Done;
        params.user_data = reinterpret_cast<void*>(static_cast<intptr_t>(number));
        net::Fetcher::fetch(params, nullptr);
      },
      [&loop] { loop.quit(); });
  loop.exec();
  net::Shutdown();
}

}  // namespace orvan::bench
