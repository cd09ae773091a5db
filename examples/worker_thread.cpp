// Lends the library a worker thread: fetches start there, and archives are unpacked there, so that the main
// thread stays free. Also says where copies of archives may lie, and how much memory they may take.
//
//   worker_thread <URL or path of an archive>

#include <QCoreApplication>
#include <QStandardPaths>
#include <cstdio>

#include "orvan/net/fetcher.h"
#include "orvan/net/kmz_cache.h"
#include "orvan/net/net_init.h"
#include "orvan/support/cache/memory_reclaimer.h"
#include "orvan/support/thread/worker_thread.h"

using namespace orvan::net;

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  QCoreApplication::setApplicationName(QStringLiteral("worker_thread"));
  if (argc != 2) return std::fprintf(stderr, "usage: worker_thread <URL or path>\n"), 2;
  Init(QString(), QString());
  const QString cache = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
  Fetcher::GetKmzCache()->SetKmzTmpDir(cache + QStringLiteral("/archives"));
  orvan::MemoryReclaimer::SetBudget(qint64{64} * 1024 * 1024);
  orvan::WorkerThread worker("archives");
  Fetcher::SetWorkerThread(&worker);

  Fetcher::FetchParams params;
  params.url = QString::fromLocal8Bit(argv[1]);
  params.async = true;  // even looking for the archive is the worker's
  params.callback = [](Fetcher& fetcher) {
    std::printf("state %d, %d bytes%s\n", fetcher.GetState(), fetcher.getSize(),
                fetcher.IsKmz() ? ", the main document of an archive" : "");
    QCoreApplication::exit(fetcher.GetState() == kFetchSuccess ? 0 : 1);
  };
  Fetcher::fetch(params, nullptr);
  const int result = QCoreApplication::exec();

  Fetcher::SetWorkerThread(nullptr);  // before the worker goes; all fetches have ended here
  Shutdown();
  return result;
}
