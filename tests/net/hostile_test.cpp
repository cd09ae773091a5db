// Servers that lie, stall, flood and break off: each fetch ends as it should or can be stopped, once, within
// bounds of memory, and leaves nothing behind.
// The cases, and what may stand in them: hostile_cases.json.

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSslConfiguration>
#include <QTemporaryFile>
#include <map>
#include <optional>

#include "orvan/net/http/http_connection.h"
#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/identity/cookie_jar.h"
#include "orvan/net/net_init.h"
#include "orvan/support/memory/memory.h"
#include "tests/net/fetch_probe.h"
#include "tests/support/loopback_server.h"
#include "tests/support/real_server.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan::net {
namespace {

using namespace test;

constexpr qint64 kMiB = qint64{1} << 20;

struct End {
  unsigned int word;
  FetchState state;
};

// Throws if the name is none of these.
End EndOf(const QJsonValue& ends) {
  static const std::map<QString, End> kNamed = {
      {"success", {kStatusOk, kFetchSuccess}},
      {"no connection", {kStatusNoConnection, kFetchNoConnection}},
      {"out of memory", {kStatusOutOfMemory, kFetchUnknownError}},
      {"failed", {kStatusFailed, kFetchInvalidRequest}},
      {"unexpected type", {kStatusUnacceptableType, kFetchUnexpectedType}},
      {"hangs", {kStatusOk, kFetchFetching}},
  };
  const int code = ends.toInt();
  return code == 0 ? kNamed.at(ends.toString())
                   : End{kStatusHttpError | static_cast<unsigned int>(code), code};
}

QJsonArray Group(const char* name) {
  QFile file(ORVAN_HOSTILE_FOLDER "hostile_cases.json");
  EXPECT_TRUE(file.open(QIODevice::ReadOnly));
  QJsonParseError error;
  const QJsonArray group = QJsonDocument::fromJson(file.readAll(), &error)[QLatin1String(name)].toArray();
  EXPECT_FALSE(group.isEmpty()) << error.errorString().toStdString() << " at byte " << error.offset;
  return group;
}

// Sees the status word of each request.
class WordHook : public HttpConnection::RequestCallbacks {
 public:
  bool PreSendRequest(HttpConnection*, HttpRequest*) override { return true; }
  bool PreCompleteRequest(HttpConnection*, HttpRequest* request) override {
    word = request->GetResponseStatus();
    return true;
  }
  std::atomic<unsigned int> word{0};
};

// TLS with a certificate that is trusted.
struct TlsServer : RealServer {
  explicit TlsServer(const QJsonObject& row) {
    QStringList arguments = {"-B", ORVAN_HOSTILE_FOLDER "hostile_tls.py", Path(".")};
    for (const char* const name : {"certificate", "days", "cut"}) arguments += row[name].toString();
    const auto ready = [this] { return Read("log").endsWith('\n'); };
    EXPECT_TRUE(Launch("/usr/bin/python3", arguments, "python3, openssl", ready));
    port_ = Read("log").trimmed().toInt();
    QSslConfiguration trusting = QSslConfiguration::defaultConfiguration();
    trusting.addCaCertificates(Path("crt"));
    QSslConfiguration::setDefaultConfiguration(trusting);
  }
  ~TlsServer() { TestCertificate::Distrust(); }
};

class HostileTest : public ::testing::Test {
 protected:
  HostileTest() { places_["here"] = QByteArray::number(server_.port()); }

  // Of connections: each has three.
  static int CountConnectionThreads() {
    int count = 0;
    const QDir tasks("/proc/self/task");
    for (const QString& task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
      QFile file(tasks.filePath(task + "/comm"));
      const QByteArray name = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
      for (const char* const theirs : {"orvan_http", "http_callback_h", "QNetworkAccess"}) {
        count += name.startsWith(theirs);
      }
    }
    return count;
  }

  QByteArray Bytes(const QJsonValue& text) const {
    QByteArray bytes = text.toString().toLatin1();
    for (const auto& [name, value] : places_) bytes.replace("${" + name + "}", value);
    return bytes;
  }

  Script ScriptOf(const QJsonObject& row) const {
    Script script;
    const QJsonValue sends = row["sends"];
    for (const QJsonValue& step : sends.isString() ? QJsonArray{sends} : sends.toArray()) {
      const QString verb = step.toObject().keys().value(0);
      const QJsonValue what = step[verb];
      if (verb == "drip") script.Drip(Bytes(what).toStdString(), 1, 1);
      if (verb == "endless") script.Endless(static_cast<uint64_t>(what.toDouble()));
      QByteArray all;
      for (int n = 0; n < what[1].toInt(); ++n) {
        const QByteArray turn = Bytes(what[0]).replace("${n}", QByteArray::number(n));
        all += turn;
        if (verb == "each") script.Send(turn.toStdString());
      }
      if (verb == "repeat") script.Send(all.toStdString());
      if (step.isString()) script.Send(Bytes(step).toStdString());
    }
    if (row["then"] == "close") script.Close();
    if (row["then"] == "reset") script.Reset();
    if (row["then"] == "silent") script.Silent();
    return script;
  }

  void Run(const char* group, qint64 ceiling = 0) {
    for (const QJsonValue& row : Group(group)) RunOne(row.toObject(), ceiling);
  }

  void RunOne(const QJsonObject& row, qint64 ceiling = 0) {
    const std::string says = row["says"].toString().toStdString();
    SCOPED_TRACE(says);
    const Watchdog watchdog(100, says.c_str());
    std::optional<TlsServer> tls;
    if (row.contains("certificate")) tls.emplace(row);
    places_["tls"] = QByteArray::number(tls ? tls->port() : 0);
    server_.On("/case", ScriptOf(row));
    const QByteArray expected = Bytes(row["bytes"]);
    const End end = EndOf(row["ends"]);
    const qint64 before = ResidentBytes();
    EXPECT_TRUE(ResetPeakResidentBytes());
    Init(QString(), QString());
    WordHook hook;
    FetchProbe probe;
    probe.Start(row.contains("url") ? QString(Bytes(row["url"])) : server_.Url("/case"));
    const bool hangs = end.state == kFetchFetching;
    if (hangs) {
      PumpFor(UnderSanitizer() ? 200 : 100);
      EXPECT_EQ(probe.calls, 0);
      EXPECT_GT(CountConnectionThreads(), 0);
      probe.fetcher->Stop();
    } else {
      EXPECT_TRUE(PumpUntil([&] { return probe.calls > 0; }));
      const bool nothing = row["or_nothing"].toBool() && probe.bytes.isEmpty() && hook.word == kStatusOk;
      EXPECT_EQ(hook.word, nothing ? kStatusOk : end.word);
      EXPECT_EQ(probe.state, nothing ? kFetchSuccess : end.state);
      EXPECT_TRUE(nothing || probe.bytes == expected)
          << probe.bytes.size() << " bytes: " << probe.bytes.left(80).toStdString();
    }
    Shutdown();
    EXPECT_TRUE(PumpUntil([] { return CountConnectionThreads() == 0; }));
    EXPECT_EQ(probe.calls, hangs ? 0 : 1);
    const qint64 peak = PeakResidentBytes() - before;
    const qint64 bound = std::max<qint64>(ceiling, expected.size()) + 32 * kMiB;
    EXPECT_TRUE(UnderSanitizer() || peak < bound) << peak << " bytes in use";
    EXPECT_TRUE(server_.WaitForConnections(0));
    s_highest_peak = std::max(s_highest_peak, peak);
    ++s_cases;
  }
  static void TearDownTestSuite() {
    std::printf("%d cases, at most %lld KiB more in use\n", s_cases,
                static_cast<long long>(s_highest_peak / 1024));
  }

  static inline int s_cases = 0;
  static inline qint64 s_highest_peak = 0;
  LoopbackServer server_;
  std::map<QByteArray, QByteArray> places_;
};

// What a server sends beyond its answer is not taken for the answer to the next request.
TEST_F(HostileTest, KeepAlive) {
  server_.On("/second", Ok("second"));
  for (const QJsonValue& row : Group("KeepAlive")) {
    SCOPED_TRACE(row["says"].toString().toStdString());
    Init(QString(), QString());
    server_.On("/first", ScriptOf(row.toObject()));
    for (int i = 0; i < 5; ++i) {
      FetchProbe one, two;
      one.Start(server_.Url("/first"));
      EXPECT_TRUE(PumpUntil([&] { return one.calls > 0; }));
      two.Start(server_.Url("/second"));
      EXPECT_TRUE(PumpUntil([&] { return two.calls > 0; }));
      EXPECT_EQ(two.bytes, "second") << two.state;
    }
    Shutdown();
  }
}

TEST_F(HostileTest, Heads) { Run("Heads"); }
TEST_F(HostileTest, Challenges) { Run("Challenges"); }

TEST_F(HostileTest, Bodies) {
  Run("Bodies");
  EXPECT_TRUE(CookieJar::GetCookiesForUrl(QUrl("http://elsewhere.test/")).isEmpty());
  CookieJar::ClearAllCookies();
}

TEST_F(HostileTest, Redirects) {
  LoopbackServer other;
  other.Otherwise(Reply(200, {}, "other"));
  other.On("/silent", Script().Silent());
  server_.On("/back", RedirectTo(server_.Origin() + "/case"));
  server_.AddRedirects("/ten", 10, Ok("end"));
  server_.AddRedirects("/eleven", 11, Ok("end"));
  const RefusingPort refusing;
  QTemporaryFile file;
  ASSERT_TRUE(file.open() && file.write("mine") == 4 && file.flush());
  places_["other"] = QByteArray::number(other.port());
  places_["refusing"] = QByteArray::number(refusing.port());
  places_["file"] = file.fileName().toUtf8();
  Run("Redirects");
}

TEST_F(HostileTest, Codes) {
  for (int code = 200; code < 600; ++code) {
    QJsonObject row = {{"says", QString::number(code)}, {"ends", "success"}};
    row["sends"] = QString::fromStdString(Response(code, {}, "body"));
    if (code >= 400) row["ends"] = code;
    if (code >= 400 && InterpretHttpResponseCode(code) == kStatusFailed) row["ends"] = "failed";
    if (code == 415) row["ends"] = "unexpected type";
    if (code < 400 && code != 204 && code != 304) row["bytes"] = "body";
    RunOne(row);
  }
}

TEST_F(HostileTest, Tls) {
  TestCertificate::Distrust();  // notes what is trusted by default
  Run("Tls");
}

TEST_F(HostileTest, Ceiling) {
  HeapManager& heap = *HttpConnectionFactory::GetHttpHeap();
  const size_t before = heap.GetCeiling();
  constexpr qint64 kCeiling = 16 * kMiB;
  heap.SetCeiling(kCeiling);
  places_["bomb"] = qCompress(QByteArray(static_cast<int>(256 * kMiB), '\0')).mid(4);
  places_["bomb_size"] = QByteArray::number(places_["bomb"].size());
  Run("Ceiling", kCeiling);
  EXPECT_EQ(heap.GetBytesInUse(), 0u);
  heap.SetCeiling(before);
}

}  // namespace
}  // namespace orvan::net
