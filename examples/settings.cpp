// Loads the library's settings from a file of the application's, changes one, and saves them.
//
//   settings <file.ini>

#include <QCoreApplication>
#include <QSettings>
#include <cstdio>

#include "orvan/net/http/http_connection.h"
#include "orvan/support/setting/settings_store.h"

using orvan::SettingsStore;
using orvan::net::HttpConnection;

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  if (argc != 2) return std::fprintf(stderr, "usage: settings <file.ini>\n"), 2;
  QSettings file(QString::fromLocal8Bit(argv[1]), QSettings::IniFormat);

  const int loaded = SettingsStore::Load(file);  // the library reads and writes no file by itself
  auto& threads = HttpConnection::httpOptions.maxHttpThreads;
  std::printf("%d settings loaded, maxHttpThreads was %d\n", loaded, threads.value());
  threads.SetValue(threads.value() + 1);
  SettingsStore::Save(file);  // what differs from its default
  file.sync();
  return file.status() == QSettings::NoError ? 0 : 1;
}
