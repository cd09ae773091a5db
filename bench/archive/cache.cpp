#include "bench/archive/cache.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QTemporaryDir>
#include <algorithm>
#include <boost/unordered_map.hpp>
#include <vector>

#include "orvan/net/fetcher.h"
#include "orvan/net/kmz_cache.h"
#include "orvan/net/net_init.h"

namespace orvan::bench {
namespace {

constexpr int kArchives = 1000;

QString ArchiveName(const QString& prefix, int number) {
  return prefix + QStringLiteral("maps/region %1/archive.kmz").arg(number);
}

// Returns at its end, with the number of bytes.
int Fetch(const QString& url) {
  static QEventLoop* s_loop = nullptr;  // callbacks of fetches are plain functions
  static int s_size = 0;
  QEventLoop loop;
  s_loop = &loop;
  net::Fetcher::FetchParams params;
  params.url = url;
  params.callback = [](net::Fetcher& fetcher) {
    s_size = fetcher.GetByteArray().size();
    s_loop->quit();
  };
  net::Fetcher::fetch(params, nullptr);
  loop.exec();
  return s_size;
}

}  // namespace

QJsonObject MeasureLookUp(const QString& peer, const QString& prefix, int count) {
  using Entries = boost::unordered_map<QString, RefPtr<net::KmzCacheEntry>, StlHashAdapter<QString>>;
  Entries entries(11);
  net::KmzCache* const cache = net::KmzCache::GetSingleton();
  std::vector<QString> names;
  for (int i = 0; i < kArchives; ++i) {
    names.push_back(ArchiveName(prefix, i));
    entries.emplace(names.back(), cache->FindOrCreate(names.back()));
  }
  int found = 0;
  const double begin = Microseconds();
  for (int i = 0; i < count; ++i) {
    const QString& name = names[static_cast<std::size_t>(i) % names.size()];
    if (peer == "orvan") {
      found += cache->Find(name) ? 1 : 0;
    } else {
      const auto entry = entries.find(name);
      found += entry != entries.end() && RefPtr<net::KmzCacheEntry>(entry->second) ? 1 : 0;
    }
  }
  return {{"microseconds", (Microseconds() - begin) / count}, {"failed", count - found}};
}

QJsonObject MeasurePartialSearch(int count) {
  for (int i = 0; i < kArchives; ++i) {
    net::KmzCache::GetSingleton()->FindOrCreate(ArchiveName(QStringLiteral("http://host/"), i));
  }
  const QString url = QStringLiteral("http://host/") + QString(64 * 1024, '/');
  QString kmz_url;
  QString kmz_path;
  int found = 0;
  const double begin = Microseconds();
  for (int i = 0; i < count; ++i) found += net::FindPartialInKmzCache(url, kmz_url, kmz_path) ? 1 : 0;
  return {{"microseconds", (Microseconds() - begin) / count}, {"failed", found}};
}

QJsonObject MeasureFetch(const QString& peer, const QString& server, int count) {
  const QTemporaryDir folder;
  net::KmzCache::GetSingleton()->SetKmzTmpDir(folder.filePath("kmz"));
  net::Init(QString(), QString());
  const auto url = [&](int number) {
    const int archive = peer == "again" ? 0 : number;
    const QString file = QStringLiteral("images/tiles/icon_%1.kml").arg(number, 6, 10, QChar('0'));
    return server + QString::number(archive) + (peer == "plain" ? "/plain/" : "/a.kmz/") + file;
  };
  Fetch(url(0));  // opens the connection, and what `again` is about
  std::vector<double> times;
  int failed = 0;
  for (int i = 1; i <= count; ++i) {
    QElapsedTimer timer;
    timer.start();
    failed += Fetch(url(i)) > 0 ? 0 : 1;
    times.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e3);
  }
  std::sort(times.begin(), times.end());
  net::Shutdown();
  net::KmzCache::GetSingleton()->CleanupCache();
  return {{"microseconds", times[times.size() / 2]}, {"failed", failed}};
}

}  // namespace orvan::bench
