#include "orvan/net/fetcher.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QMap>
#include <QTemporaryDir>
#include <limits>
#include <thread>

#include "orvan/net/net_init.h"
#include "orvan/support/job/event_pump.h"
#include "orvan/support/thread/worker_thread.h"
#include "tests/net/fetch_probe.h"
#include "tests/support/loopback_server.h"
#include "tests/support/scripted_transport.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan::net {
namespace {

using namespace test;

class FetcherTest : public ::testing::Test {
 protected:
  FetcherTest() { Init(QString(), QString()); }
  ~FetcherTest() override {
    Fetcher::SetWorkerThread(nullptr);
    Shutdown();
  }

  // Runs a fetch to its end.
  void Run(FetchProbe& probe, const QString& url) {
    probe.Start(url);
    ASSERT_TRUE(PumpUntil([&] { return probe.calls > 0; })) << url.toStdString();
  }
  QString WriteFile(const char* name, const QByteArray& bytes) {
    QFile file(folder_.filePath(QLatin1String(name)));
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(bytes);
    return file.fileName();
  }

  Watchdog watchdog_{120, "a test of Fetcher"};
  QTemporaryDir folder_;
  LoopbackServer server_;
};

TEST_F(FetcherTest, EndsWhateverIsNoDocumentInTheStateForIt) {
  const struct {
    const char* says;
    const char* url;  // %1 is the folder with "a.kml" and "a#b.kml" in it
    FetchState state;
    const char* anchor = "";
  } cases[] = {
      {"a path", "%1/a.kml", kFetchSuccess},
      {"a path with an anchor", "%1/a.kml#b", kFetchSuccess, "b"},
      {"a number sign in the name of a file that exists", "%1/a#b.kml", kFetchSuccess},
      {"a file URL", "file://%1/a.kml", kFetchSuccess},
      {"a file URL in capitals is read as a path", "FILE://%1/a.kml", kFetchSuccess},
      {"white space around", "  %1/a.kml\n", kFetchSuccess},
      {"a missing file", "%1/missing.kml", kFetchCannotOpen},
      {"a folder", "%1", kFetchCannotOpen},
      {"a pipe, which would hold the main thread up", "%1/pipe", kFetchCannotOpen},
      {"a device without an end", "/dev/zero", kFetchCannotOpen},
      {"nothing", "", kFetchUnknownError},
      {"a missing resource", ":/missing", kFetchCannotOpen},
      {"a scheme that nobody speaks", "ftp://127.0.0.1/a", kFetchUnsupportedProtocol},
      {"http without a host", "http:///a", kFetchInvalidServer},
      {"https without a host is no prefix of http", "https:///a", kFetchUnsupportedProtocol},
      {"the beginning of http counts as http", "htt:///a", kFetchInvalidServer},
      {"the beginning of http with a host", "htt://127.0.0.1/a", kFetchUnknownError},
      {"an unknown host", "http://no-such-host.invalid/", kFetchNoConnection},
  };
  WriteFile("a.kml", "<kml/>");
  WriteFile("a#b.kml", "<kml/>");
  ASSERT_EQ(::mkfifo(QFile::encodeName(folder_.filePath("pipe")).constData(), 0600), 0);
  for (const auto& row : cases) {
    SCOPED_TRACE(row.says);
    FetchProbe probe;
    Run(probe, QString(row.url).replace("%1", folder_.path()));
    EXPECT_EQ(probe.state, row.state);
    EXPECT_EQ(probe.bytes, row.state == kFetchSuccess ? QByteArray("<kml/>") : QByteArray());
    EXPECT_EQ(probe.fetcher->GetAnchor(), row.anchor);
    EXPECT_TRUE(probe.on_main_thread);
    EXPECT_FALSE(probe.called_in_fetch);
  }
}

TEST_F(FetcherTest, BringsBytesHeadersAndDateOfAnHttpDocument) {
  server_.On("/a.kml", Reply(200,
                             {{"Content-Type", "application/vnd.quorex-orvan.kml+xml; charset=utf-8"},
                              {"Last-Modified", "Sun, 06 Nov 1994 08:49:37 GMT"},
                              {"X-N", "\xC3\xA4"}},
                             "<kml/>"));
  FetchProbe probe;
  probe.params.headers.emplace_back(RequestHeader::kLine, "X-Mine: 1");
  probe.params.headers.emplace_back(RequestHeader::kAcceptTypes, "text/xml, image/png");
  probe.params.user_agent = "probe/1";
  probe.params.if_modified_since = "Sat, 05 Nov 1994 08:49:37 GMT";
  Run(probe, server_.Url("/a.kml?q=1#frag"));
  EXPECT_EQ(probe.state, kFetchSuccess);
  EXPECT_EQ(probe.bytes, "<kml/>");
  EXPECT_EQ(probe.fetcher->GetUrl(), server_.Url("/a.kml?q=1"));
  EXPECT_EQ(probe.fetcher->GetAnchor(), "frag");
  EXPECT_EQ(probe.fetcher->GetMimeType(), kMimeKml);
  EXPECT_EQ(probe.fetcher->GetLastModified(), QString(" Sun, 06 Nov 1994 08:49:37 GMT")) << "with its blank";
  EXPECT_EQ(probe.fetcher->GetLastModifiedDateTime().GetFieldSeconds(), 784111777);
  EXPECT_EQ(probe.fetcher->GetResponseHeader(2), QLatin1String("X-N: \xC3\xA4")) << "byte by byte";
  EXPECT_TRUE(probe.fetcher->GetResponseHeader(std::numeric_limits<unsigned long>::max()).isNull());
  EXPECT_EQ(probe.fetcher->GetExpireTime(), std::numeric_limits<double>::max());

  const RecordedRequest request = server_.LastRequest("/a.kml?q=1");
  EXPECT_EQ(request.Header("X-Mine"), "1");
  EXPECT_EQ(request.Header("Accept"), "text/xml, image/png");
  EXPECT_EQ(request.Header("User-Agent"), "probe/1");
  EXPECT_EQ(request.Header("If-Modified-Since"), "Sat, 05 Nov 1994 08:49:37 GMT");
}

TEST_F(FetcherTest, AStalledOrDrippingServerHoldsUpNobodyElse) {
  const Gate release;
  LoopbackServer other;
  const Script begun = Script().Send("HTTP/1.1 200 OK\r\nContent-Le").Stall(release);
  server_.On("/stalled", Script(begun).Send("ngth: 1\r\n\r\nx"));
  server_.Otherwise(Script().Drip(Response(200, {}, "drips"), 3, 1));
  other.Otherwise(Ok("drips"));
  FetchProbe stalled, beside, elsewhere;
  stalled.Start(server_.Url("/stalled"));
  ASSERT_TRUE(server_.WaitForHits("/stalled", 1));
  for (auto& [probe, url] : {std::pair(&beside, server_.Url("/")), {&elsewhere, other.Url("/")}}) {
    Run(*probe, url);
    EXPECT_EQ(probe->bytes, "drips");
  }
  EXPECT_EQ(stalled.calls, 0);
  release.Open();
  EXPECT_TRUE(PumpUntil([&] { return stalled.calls == 1; }));
  EXPECT_EQ(stalled.bytes, "x");
}

// Its result and its end meet on the main thread, whichever thread lets go of it.
TEST_F(FetcherTest, MayBeLetGoOnAnyThreadOnceItsCallbackIsGone) {
  server_.On("/a", Ok("a"));
  const QString urls[] = {server_.Url("/a"), WriteFile("a.txt", "a")};
  for (int i = 0; i < 100; ++i) {
    FetchProbe probe;
    probe.Start(urls[i % 2]);
    probe.fetcher->SetCallback(nullptr);
    std::thread dropper([held = std::move(probe.fetcher)]() mutable { held = nullptr; });
    PumpPending();
    dropper.join();
  }
}

// Those that no server can bring about with the transport of the platform.
TEST_F(FetcherTest, EndsInTheStateOfItsStatusWord) {
  const struct {
    const char* says;
    unsigned int word;
    FetchState state;
  } cases[] = {
      {"aborted", kStatusAborted, kFetchInvalidRequest},
      {"no such host", kStatusBadHost, kFetchInvalidServer},
      {"cancelled", kStatusCancelled, kFetchCancelled},
      {"a word of other transports", kStatusUnspecified, kFetchUnspecified},
      {"HTTP 201", kStatusHttpFacility | 201, kFetchSuccess},
      {"an HTTP error word with a good code", kStatusHttpError | 200, kFetchSuccess},
      {"HTTP 204 has no bytes", kStatusHttpFacility | 204, 204},
      {"an HTTP error beyond the known codes", kStatusHttpError | 506, kFetchUnknownError},
      {"an unknown HTTP code that is no error", kStatusHttpFacility | 506, kFetchSuccess},
      {"another facility without an error", 0x40010001, kFetchSuccess},
      {"another facility's error", 0xC0010001, kFetchUnknownError},
  };
  ScriptedTransport transport;
  for (const auto& row : cases) {
    SCOPED_TRACE(row.says);
    transport.AnswerAll(
        {row.word, "body", {"last-modified: never", "", "Last-Modified:then", "Last-Modified:later"}});
    FetchProbe probe;
    Run(probe, "http://scripted.test/a");
    EXPECT_EQ(probe.state, row.state);
    EXPECT_EQ(probe.bytes, row.state == kFetchSuccess ? QByteArray("body") : QByteArray());
    EXPECT_EQ(probe.fetcher->GetLastModified(), QString("then")) << "the first match, whatever the result";
  }
  Shutdown();  // before the transport goes
  Init(QString(), QString());
}

TEST_F(FetcherTest, ReadsALocalFileOnlyIfItIsNewer) {
  const QString path = WriteFile("a.kml", "<kml/>");
  QFile file(path);
  ASSERT_TRUE(file.open(QIODevice::ReadWrite));
  ASSERT_TRUE(
      file.setFileTime(QDateTime(QDate(2020, 2, 29), QTime(13, 14, 15)), QFile::FileModificationTime));
  const struct {
    const char* says;
    const char* date;
    FetchState state;
  } cases[] = {
      {"a second before", "Sat, 29 Feb 2020 13:14:14 GMT", kFetchSuccess},
      {"the same second, local time taken as it stands", "Sat, 29 Feb 2020 13:14:15 GMT", kFetchNotModified},
      {"later", "Sun, 01 Mar 2020 00:00:00 GMT", kFetchNotModified},
      {"no date at all", "yesterday", kFetchSuccess},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.says);
    FetchProbe probe;
    probe.params.if_modified_since = row.date;
    Run(probe, path);
    EXPECT_EQ(probe.state, row.state);
    EXPECT_EQ(probe.bytes, row.state == kFetchSuccess ? QByteArray("<kml/>") : QByteArray());
    EXPECT_EQ(probe.fetcher->GetLastModified(), QString("Sat, 29 Feb 2020 13:14:15 GMT"));
  }
}

// --- The store

class MapStore : public FetchStore {
 public:
  bool Load(const QUrl& url, QByteArray* bytes) override {
    ++loads;
    if (!kept.contains(url)) return false;
    *bytes = kept.value(url);
    return true;
  }
  bool Save(const QUrl& url, QByteArray* bytes) override {
    kept[url] = *bytes;
    return true;
  }
  bool Contains(const QUrl& url) override { return answers && kept.contains(url); }

  QMap<QUrl, QByteArray> kept;
  bool answers = false;
  int loads = 0;
};

TEST_F(FetcherTest, AsksTheStoreBeforeTheNetworkAndAfterAFailure) {
  MapStore store;
  server_.On("/a", Ok("fresh"));
  server_.On("/refused", Reply(415));
  const QUrl url(server_.Url("/a"));
  FetchProbe first, kept, offline, refused;
  for (FetchProbe* probe : {&first, &kept, &offline, &refused}) probe->params.store = &store;

  Run(first, server_.Url("/a#anchor"));
  EXPECT_EQ(store.kept.value(url), "fresh") << "a success is saved under the URL without its anchor";

  store.answers = true;
  store.kept[url] = "kept";
  Run(kept, server_.Url("/a"));
  EXPECT_EQ(kept.bytes, "kept");
  EXPECT_EQ(server_.Hits("/a"), 1);

  store.answers = false;
  store.kept[QUrl(server_.Url("/gone"))] = "offline";
  Run(offline, server_.Url("/gone"));
  EXPECT_EQ(offline.state, kFetchSuccess) << "a 404 that the store can answer is a success";
  EXPECT_EQ(offline.bytes, "offline");

  store.loads = 0;
  Run(refused, server_.Url("/refused"));
  EXPECT_EQ(refused.state, kFetchUnexpectedType);
  FetchProbe unchanged;
  unchanged.params.store = &store;
  unchanged.params.if_modified_since = "Fri, 31 Dec 2100 23:59:59 GMT";
  Run(unchanged, WriteFile("old.txt", "old"));
  EXPECT_EQ(unchanged.state, kFetchNotModified);
  EXPECT_EQ(store.loads, 0) << "neither is the business of the store";
}

// --- Life

// On the worker if there is one, else here.
TEST_F(FetcherTest, CallsBackAlthoughTheCallerLetGoAtOnce) {
  server_.On("/a", Ok("a"));
  const QString path = WriteFile("a.txt", "a");
  WorkerThread worker("test worker");
  for (const bool async : {false, true}) {
    for (WorkerThread* const there : {static_cast<WorkerThread*>(nullptr), &worker}) {
      for (const QString& url : {server_.Url("/a"), path}) {
        FetchProbe probe;
        probe.params.async = async;
        Fetcher::SetWorkerThread(there);
        probe.Start(url).fetcher = nullptr;
        probe.params = Fetcher::FetchParams();  // the job has a copy
        ASSERT_TRUE(PumpUntil([&] { return probe.calls > 0; }));
        EXPECT_EQ(probe.bytes, "a");
        EXPECT_TRUE(probe.on_main_thread);
      }
    }
  }
  Fetcher::SetWorkerThread(nullptr);
}

TEST_F(FetcherTest, SurvivesWhatItsCallbackDoesToIt) {
  const QString path = WriteFile("a.txt", "a");
  void (*const deeds[])(FetchProbe&, Fetcher&) = {
      [](FetchProbe&, Fetcher& fetcher) { fetcher.SetCallback(nullptr); },
      [](FetchProbe& probe, Fetcher&) { probe.fetcher = nullptr; },
      [](FetchProbe& probe, Fetcher& fetcher) {
        fetcher.Stop();
        probe.fetcher = nullptr;
        EXPECT_EQ(fetcher.GetByteArray(), "a");
      },
  };
  for (const auto deed : deeds) {
    FetchProbe probe;
    probe.in_callback = deed;
    probe.Start(path);
    ASSERT_TRUE(PumpUntil([&] { return probe.calls > 0; }));
    PumpFor(5);
    EXPECT_EQ(probe.calls, 1);
  }
}

TEST_F(FetcherTest, IsSilentAfterStopInEveryPhase) {
  WorkerThread worker("test worker");
  const Gate release;
  server_.On("/held", Script().Stall(release).Then(Ok("late")));
  server_.On("/quick", Ok("a"));
  FetchProbe queued, waiting, timer, completed;
  Fetcher::SetWorkerThread(&worker);
  queued.params.async = true;
  queued.Start(server_.Url("/held")).fetcher->Stop();
  Fetcher::SetWorkerThread(nullptr);
  waiting.Start(server_.Url("/held"));
  ASSERT_TRUE(server_.WaitForHits("/held", 1));
  waiting.fetcher->Stop();
  timer.Start(WriteFile("a.txt", "a")).fetcher->Stop();
  completed.Start(server_.Url("/quick"));  // its completion is posted while nobody runs the main thread
  ASSERT_TRUE(server_.WaitForHits("/quick", 1));
  for (int times = 0; times < 2; ++times) completed.fetcher->Stop();

  release.Open();
  FetchProbe after;
  Run(after, server_.Url("/quick"));
  for (const FetchProbe* probe : {&queued, &waiting, &timer, &completed}) {
    EXPECT_EQ(probe->calls, 0);
    EXPECT_EQ(probe->fetcher->getRefCount(), 1);
  }
  EXPECT_EQ(waiting.fetcher->GetState(), kFetchFetching);
  EXPECT_EQ(timer.fetcher->GetState(), kFetchSuccess) << "nothing withdraws the call that reads a local file";
}

TEST_F(FetcherTest, StopsBetweenResultAndDelivery) {
  EventPump& pump = EventPump::Get();
  pump.SetManualForTest(true);
  FetchProbe probe;
  probe.Start(WriteFile("a.txt", "a"));
  pump.DrainForTest();
  EXPECT_EQ(probe.fetcher->GetByteArray(), "a") << "the result is there, its delivery is queued";
  EXPECT_EQ(probe.fetcher->GetState(), kFetchFetching);
  probe.fetcher->Stop();
  pump.DrainForTest();
  EXPECT_EQ(probe.calls, 0);
  EXPECT_EQ(probe.fetcher->GetState(), kFetchFetching);
  EXPECT_EQ(probe.fetcher->getRefCount(), 1);
  pump.SetManualForTest(false);
}

TEST_F(FetcherTest, IsNothingWithoutInit) {
  Shutdown();
  FetchProbe probe;
  EXPECT_EQ(probe.Start(server_.Url("/a")).fetcher, nullptr);
  Init(QString(), QString());
}

}  // namespace
}  // namespace orvan::net
