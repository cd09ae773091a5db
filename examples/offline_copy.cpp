// Keeps a copy of what was fetched in a folder, and answers from there when the server does not.
//
//   offline_copy <URL> <folder>

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QSaveFile>
#include <cstdio>

#include "orvan/net/fetcher.h"
#include "orvan/net/net_init.h"

using namespace orvan::net;

// One file for each URL. Load() is asked when the server had nothing, Save() told when it had something.
class Folder : public FetchStore {
 public:
  explicit Folder(const QString& path) : path_(path) {}

  bool Contains(const QUrl&) override { return false; }  // true would keep the network out of it
  bool Load(const QUrl& url, QByteArray* bytes) override {
    QFile file(NameOf(url));
    if (!file.open(QIODevice::ReadOnly)) return false;
    *bytes = file.readAll();
    return true;
  }
  bool Save(const QUrl& url, QByteArray* bytes) override {
    QSaveFile file(NameOf(url));
    return file.open(QIODevice::WriteOnly) && file.write(*bytes) == bytes->size() && file.commit();
  }

 private:
  QString NameOf(const QUrl& url) const {
    const QByteArray name = QCryptographicHash::hash(url.toEncoded(), QCryptographicHash::Sha256).toHex();
    return QDir(path_).filePath(QString::fromLatin1(name));
  }
  const QString path_;
};

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  if (argc != 3) return std::fprintf(stderr, "usage: offline_copy <URL> <folder>\n"), 2;
  Init(QString(), QString());
  Folder folder(QString::fromLocal8Bit(argv[2]));  // outlives the fetch
  Fetcher::FetchParams params;
  params.url = QString::fromLocal8Bit(argv[1]);
  params.store = &folder;
  params.callback = [](Fetcher& fetcher) {
    std::printf("state %d, %d bytes\n", fetcher.GetState(), fetcher.getSize());
    QCoreApplication::exit(fetcher.GetState() == kFetchSuccess ? 0 : 1);
  };
  Fetcher::fetch(params, nullptr);
  const int result = QCoreApplication::exec();
  Shutdown();
  return result;
}
