#include "orvan/net/fetcher.h"
#include "orvan/net/kmz_cache.h"
#include "orvan/net/server/server_info.h"
#include "orvan/support/text/path.h"
#include "tests/fuzz/fuzz.h"

void Fuzz(const QByteArray& input, const QString&) {
  const QByteArrayList fields = Fields(input, 2);
  const QString base = Text(fields[0]), relative = Text(fields[1]);
  for (const bool slash : {false, true}) {
    const QUrl clean = ServerInfo::SanitizeUrl(base, slash), link(relative);
    if (!clean.isValid()) continue;
    FUZZ_CHECK(ServerInfo::SupportedProtocol(clean.scheme()) && clean.port(-1) != -1);
    FUZZ_CHECK(!slash || clean.path(QUrl::FullyDecoded).endsWith('/'));
    const QString text = clean.toString(QUrl::FullyEncoded);
    FUZZ_CHECK(ServerInfo::SanitizeUrl(text, slash).toString(QUrl::FullyEncoded) == text);
    const QUrl built(ServerInfo::AssembleUrls(clean, link, false));
    if (!built.isValid() || !link.isRelative() || relative.contains("//")) continue;
    FUZZ_CHECK(built.host() == clean.host() && built.port() == clean.port());
  }
  const ServerInfo server(base);
  FUZZ_CHECK(server.port() == 0 || ServerInfo(server.host(), server.port(), server.secure()) == server);
  QString path = Fetcher::SanitizeUrlString(ServerInfo::QUrlFromQString(relative).toString());
  file::CleanupPathname(path);
  const QString once = path, key = KmzCache::CleanUrl(relative);
  file::CleanupPathname(path);
  FUZZ_CHECK(path == once);
  const bool is_name = !relative.contains(QChar::Null);  // of a file, for Qt
  FUZZ_CHECK(!is_name || KmzCache::CleanUrl(key) == key);
}
