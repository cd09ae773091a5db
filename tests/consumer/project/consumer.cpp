// Fetches this file, and one that does not exist, with what an application has: the installed headers and
// libraries. Qt's own keywords are left on here, as an application may have them.

#include <QCoreApplication>
#include <cstdio>

#include "orvan/net/fetcher.h"
#include "orvan/net/http/http_status.h"
#include "orvan/net/net_init.h"
#include "orvan/net/server/server_info.h"
#include "orvan/net/url_text.h"
#include "orvan/support/memory/ref_ptr.h"

namespace {

int waiting = 2;
bool found = false;
bool missed = false;

void Done(orvan::net::Fetcher& fetcher) {
  const bool there = fetcher.GetState() == orvan::net::kFetchSuccess && fetcher.getSize() > 0;
  (fetcher.GetUserData() == &found ? found : missed) = fetcher.GetUserData() == &found ? there : !there;
  if (--waiting == 0) QCoreApplication::quit();
}

orvan::RefPtr<orvan::net::Fetcher> Fetch(const QString& url, bool* result) {
  orvan::net::Fetcher::FetchParams params;
  params.url = url;
  params.callback = Done;
  params.user_data = result;
  return orvan::net::Fetcher::fetch(params, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  orvan::net::Init(QString(), QString());
  Fetch(QString::fromLocal8Bit(argv[1]), &found);
  Fetch(QString::fromLocal8Bit(argv[1]) + QStringLiteral(".missing"), &missed);
  QCoreApplication::exec();
  orvan::net::Shutdown();

  const orvan::net::ServerInfo server(QStringLiteral("https://example.test"));
  const bool ok = found && missed && server.port() == orvan::net::ServerInfo::kHttpsDefaultPort &&
                  orvan::net::GetFileNameType(QStringLiteral("/a")) == orvan::net::kFileNamePath;
  std::puts(ok ? "consumer: ok" : "consumer: failed");
  return ok ? 0 : 1;
}
