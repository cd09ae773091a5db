// Fetches one URL or path, and prints what became of it.
//
//   fetch_url <URL or path>

#include <QCoreApplication>
#include <cstdio>

#include "orvan/net/fetcher.h"
#include "orvan/net/net_init.h"

using orvan::net::Fetcher;

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  if (argc != 2) return std::fprintf(stderr, "usage: fetch_url <URL or path>\n"), 2;
  orvan::net::Init(QString(), QString());

  Fetcher::FetchParams params;
  params.url = QString::fromLocal8Bit(argv[1]);
  params.callback = [](Fetcher& fetcher) {  // on the main thread, once
    const bool good = fetcher.GetState() == orvan::net::kFetchSuccess;
    std::printf("%s, %d bytes\n", qPrintable(orvan::net::GetFetchStateText(fetcher.GetState())),
                fetcher.getSize());
    QCoreApplication::exit(good ? 0 : 1);
  };
  Fetcher::fetch(params, nullptr);  // a fetch keeps itself alive until it has called back

  const int result = QCoreApplication::exec();
  orvan::net::Shutdown();
  return result;
}
