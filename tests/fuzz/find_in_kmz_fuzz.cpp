#include <QDir>

#include "orvan/net/fetcher.h"
#include "orvan/net/kmz_cache.h"
#include "tests/fuzz/fuzz.h"
#include "tests/libsupport/file/zip_maker.h"

void Fuzz(const QByteArray&, const QString& url) {
  static const KmzCache* const cache = [] {
    test::ZipMaker maker;
    maker.Add("doc.kml", "<kml/>");
    maker.Add("a/B.png", "png");
    for (const char* key :
         {"http://h/a.kmz", "http://h/a.kmz/a", "http://h/m", "/x/a.kmz", "/x/m", "C:\\m"}) {
      KmzCache::GetSingleton()->FindOrCreate(key)->OpenZFile(maker.Finish());
    }
    return KmzCache::GetSingleton();
  }();
  // The slow way: a look-up for each separator, from the last one on.
  QString kmz_url, kmz_path, slow_url, slow_path;
  for (int i = url.size() - 1; i >= 0 && slow_url.isNull(); --i) {
    const RefPtr<KmzCacheEntry> entry = url[i] == '/' || url[i] == '\\' ? cache->Find(url.left(i)) : nullptr;
    slow_path = QDir::cleanPath(url.mid(i + 1));
    if (entry && entry->ContainsFile(slow_path)) slow_url = url.left(i);
  }
  FUZZ_CHECK(FindPartialInKmzCache(url, kmz_url, kmz_path) == !slow_url.isNull());
  FUZZ_CHECK(slow_url.isNull() || (kmz_url == slow_url && kmz_path == slow_path));

  kmz_url = kmz_path = QString();
  const bool served = Fetcher::FindInKmz(url, kmz_url, kmz_path);
  FUZZ_CHECK(served || kmz_url.isEmpty() || kmz_url.endsWith(".kmz", Qt::CaseInsensitive));
  FUZZ_CHECK(!served || !Fetcher::GetBytesFromKmz(kmz_url, kmz_path).isEmpty());
}
