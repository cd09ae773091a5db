// Gets two files out of a remote archive, which is downloaded once, and writes the second one to disk.
//
//   archive_file <URL of an archive> <path in it> <other path in it> <file to write>

#include <QCoreApplication>
#include <cstdio>

#include "orvan/net/fetcher.h"
#include "orvan/net/kmz_cache.h"
#include "orvan/net/net_init.h"

using orvan::net::Fetcher;

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  if (argc != 5) return std::fprintf(stderr, "usage: archive_file <URL> <path> <other path> <file>\n"), 2;
  orvan::net::Init(QString(), QString());
  // A callback is a plain function: what it needs is static, or behind FetchParams::user_data.
  static const QString archive = QString::fromLocal8Bit(argv[1]);
  static const QString other = QString::fromLocal8Bit(argv[3]);
  static const QString file = QString::fromLocal8Bit(argv[4]);

  Fetcher::FetchParams params;
  params.url = archive + QLatin1Char('/') + QString::fromLocal8Bit(argv[2]);
  params.callback = [](Fetcher& fetcher) {
    std::printf("first file: %d bytes\n", fetcher.getSize());
    // The archive is in the cache now. Without a callback, on any thread:
    const bool written = Fetcher::WriteBytesFromKmzToFile(archive, other, file);
    std::printf("second file: %s\n", written ? "written" : "not in the archive");
    QCoreApplication::exit(fetcher.GetState() == orvan::net::kFetchSuccess && written ? 0 : 1);
  };
  Fetcher::fetch(params, nullptr);

  const int result = QCoreApplication::exec();
  orvan::net::Shutdown();  // empties the cache and its temporary directory
  return result;
}
