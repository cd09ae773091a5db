#include "orvan/net/http/http_options.h"

#include "orvan/net/http/http_connection.h"

namespace orvan::net {

namespace {

constexpr int kErrorMapSize = 20;
constexpr int kDefaultMockHttpError = 503;
constexpr int kDefaultHttpPoolBytes = 1048576;
constexpr int kDefaultMaxHttpThreads = 16;

IntSetting& MakeLeakedSetting(const QString& name, int default_value) {
  return *new (HeapManager::GetStaticHeap()) IntSetting(HttpConnection::httpOptions, name, default_value);
}

QString Prefix(QLatin1String name) { return name + QLatin1Char('-'); }

// Settings of the group that are objects of their own. They stand in front of the group in this file because
// they come first among its settings. They are never destroyed: a worker thread may set the status of its
// last request while the process already ends, and reads the first two for that.
IntSetting& s_mock_http_error = MakeLeakedSetting(QStringLiteral("mockHttpError"), kDefaultMockHttpError);
IntSetting& s_mock_http_error_chance = MakeLeakedSetting(QStringLiteral("mockHttpErrorChance"), 0);
IntSetting& s_initial_http_pool_size =
    MakeLeakedSetting(QStringLiteral("initialHttpPoolSize"), kDefaultHttpPoolBytes);

}  // namespace

HttpOptions HttpConnection::httpOptions;

HttpOptions::Attachment::~Attachment() = default;

HttpOptions::HttpOptions()
    : SettingGroup(QStringLiteral("Http")),
      lastHttpErr(*this, QStringLiteral("lastHttpErr"), {0, 0}),
      attachments(mmallocator<std::unique_ptr<Attachment>>(HeapManager::GetStaticHeap())),
      qoErrMap(QStringLiteral("qoErrMap"), kErrorMapSize, *this, Setting::kStatisticsBehavior),
      errCodeMap(QStringLiteral("errCodeMap"), kErrorMapSize, *this, Setting::kStatisticsBehavior),
      usingHttpsConnectionsCount(*this, QStringLiteral("usingHttpsConnectionsCount")),
      maxHttpThreads(*this, QStringLiteral("maxHttpThreads"), kDefaultMaxHttpThreads),
      showHTTPResponses(*this, QStringLiteral("showHTTPResponses"), 0) {}

HttpOptions::~HttpOptions() = default;

QString HttpOptions::GetLastHttpErrPrefix() { return Prefix(QLatin1String("lastHttpErr")); }
QString HttpOptions::GetQoErrMapPrefix() { return Prefix(QLatin1String("qoErrMap")); }
QString HttpOptions::GetErrCodeMapPrefix() { return Prefix(QLatin1String("errCodeMap")); }
QString HttpOptions::GetHttpErrPrefix() { return Prefix(QLatin1String("httpErr")); }

IntSetting& HttpOptions::mockHttpError() { return s_mock_http_error; }
IntSetting& HttpOptions::mockHttpErrorChance() { return s_mock_http_error_chance; }
IntSetting& HttpOptions::initialHttpPoolSize() { return s_initial_http_pool_size; }

}  // namespace orvan::net
