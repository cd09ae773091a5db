#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <thread>

#include "tests/net/fetch_probe.h"
#include "tests/net/kmz_bed.h"
#include "tests/support/manual_clock.h"

namespace orvan::net {
namespace {

using test::FetchProbe;
using test::PumpUntil;

class KmzFlowTest : public test::KmzBed {
 protected:
  KmzFlowTest() {
    test::ZipMaker maker;
    for (const char* name : {"doc.kml", "doc/b.png", "b.png", "a b.txt"}) maker.Add(name, name);
    maker.Add("empty", "");
    maker.Add({"bad", "damaged", true, 0xFFFF, 0, false, false, "another CRC"});
    kmz_ = maker.Finish();
    for (const char* path : paths_) server_.On(path, test::Ok(kmz_.toStdString()));
    server_.On("/text.kmz", test::Ok("text"));
    server_.On("/a.kmzz/b.png", test::Reply(404));
    QDir().mkpath(Path("x.kmz"));
    WriteFile(Path("x.kmz/y.kmz"), kmz_);
  }
  int CountRequests() const {
    int count = 0;
    for (const char* path : paths_) count += server_.Hits(path);
    return count;
  }
  // $S is the server, $F the folder.
  QString Full(const char* url) const {
    return QString(url).replace("$S", server_.Url("")).replace("$F", folder_.path());
  }
  void Run(FetchProbe& probe, const char* url) {
    probe.Start(Full(url));
    ASSERT_TRUE(PumpUntil([&] { return probe.calls > 0; })) << url;
  }

  const char* const paths_[5] = {"/a.kmz", "/get", "/get%20it", "/text.kmz", "/a.kmzz/b.png"};
  QByteArray kmz_;
  WorkerThread worker_{"test worker"};
};

TEST_F(KmzFlowTest, AsksForWhatItHasNotAndServesTheRestFromTheCache) {
  const struct {
    const char* says;
    const char* before;  // fetched first
    const char* url;
    int requests;
    const char* bytes;
    FetchState state = kFetchSuccess;
    bool is_kmz = true;
  } cases[] = {
      {"an archive", "", "$S/a.kmz", 1, "doc.kml"},
      {"a file of it", "", "$S/a.kmz/doc/b.png", 1, "doc/b.png"},
      {"the same, cached", "$S/a.kmz", "$S/a.kmz/doc/b.png", 0, "doc/b.png"},
      {"an anchor and an escape", "$S/a.kmz", "$S/a.kmz/A%20b.txt#part", 0, "a b.txt"},
      {"a file of it, past a folder of such a name", "", "$F/x.kmz/y.kmz/b.png", 0, "b.png"},
      {"the same, cached, as a file URL", "$F/x.kmz/y.kmz", "file://$F/x.kmz/y.kmz/b.png", 0, "b.png"},
      {"a query alone, cached", "$S/get?id=7", "$S/get?id=7", 0, "doc.kml"},
      {"a query, cached, and a path behind it", "$S/get?id=7", "$S/get?id=7/b.png", 0, "b.png"},
      {"a key with an escape", "$S/get%20it", "$S/get%20it/b.png", 0, "b.png"},
      {"no zip data", "", "$S/text.kmz/b.png", 1, "text", kFetchSuccess, false},
      {"more letters behind the name", "", "$S/a.kmzz/b.png", 1, "", 404, false},
      {"no such file in it", "", "$S/a.kmz/none", 1, "", kFetchCannotOpen},
      {"an empty file in it", "", "$S/a.kmz/empty", 1, "", kFetchCannotOpen},
      {"a damaged one", "", "$S/a.kmz/bad", 1, "", kFetchCannotOpen},
  };
  for (const int way : {0, 1, 2, 3}) {
    Fetcher::SetWorkerThread(way % 2 == 0 ? nullptr : &worker_);
    for (const auto& row : cases) {
      SCOPED_TRACE(row.says);
      FetchProbe before, probe;
      probe.params.async = way >= 2;
      if (*row.before) Run(before, row.before);
      const int requests = CountRequests();
      Run(probe, row.url);
      EXPECT_EQ(CountRequests() - requests, row.requests);
      EXPECT_EQ(probe.state, row.state);
      EXPECT_EQ(probe.bytes, row.bytes);
      EXPECT_EQ(probe.fetcher->IsKmz(), row.is_kmz);
      cache().CleanupCache();
    }
  }
}

TEST_F(KmzFlowTest, AsksAgainIfItMust) {
  struct Store : FetchStore {
    bool Load(const QUrl&, QByteArray*) override { return false; }
    bool Save(const QUrl&, QByteArray*) override { return true; }
    bool Contains(const QUrl& url) override { return url.path() == "/a.kmz/b.png"; }
  } store;
  Fetcher::FetchParams silent;
  silent.url = Full("$S/a.kmz/b.png");
  const RefPtr<Fetcher> first = Fetcher::fetch(silent, nullptr);
  ASSERT_TRUE(PumpUntil([&] { return first->GetState() == kFetchSuccess; }));
  EXPECT_EQ(first->GetByteArray(), kmz_) << "for nobody nothing is unpacked";
  server_.On("/a.kmz", test::Ok(MakeKmz({{"b.png", "new"}}).toStdString()));
  FetchProbe stored, dated, uncached, unstored, lost, again;
  stored.params.store = unstored.params.store = &store;
  stored.params.if_modified_since = dated.params.if_modified_since = "Sat, 05 Nov 1994 08:49:37 GMT";
  dated.params.headers.emplace_back(RequestHeader::kAcceptTypes, "image/png");
  uncached.params.use_cache = false;
  Run(stored, "$S/a.kmz/b.png");
  EXPECT_EQ(stored.bytes, "b.png") << "the store says that nobody is to be asked";
  Run(dated, "$S/a.kmz/b.png");
  EXPECT_EQ(dated.bytes, "new");
  EXPECT_EQ(server_.LastRequest("/a.kmz").Header("Accept"), "image/png, " + kKmzMediaType.toStdString());
  Run(uncached, "$S/a.kmz/b.png");
  Run(unstored, "$S/a.kmz");  // which the store has not got
  const RefPtr<KmzCacheEntry> entry = cache().Find(Full("$S/a.kmz"));
  EXPECT_TRUE(entry->reclaim(kDemanded));
  EXPECT_TRUE(QFile::remove(entry->file_name()));
  Run(lost, "$S/a.kmz/b.png");
  EXPECT_EQ(lost.state, kFetchCannotOpen) << "the copy was taken away";
  EXPECT_EQ(server_.Hits("/a.kmz"), 4);
  Run(again, "$S/a.kmz/b.png");
  EXPECT_EQ(again.bytes, "new") << "and is asked for by the next fetch";
}

TEST_F(KmzFlowTest, SplitsReferencesToArchivesThatItHasNot) {
  cache().FindOrCreate("http://h/other");
  const std::pair<const char*, const char*> rows[] = {
      {"http://h/a.kmzz/b", "|"},
      {".kmz\\a:b", "|"},
      {"relative.kmz/b", "-|-"},
      {"http://h/a.KmZ\\b/c.kmz", "http://h/a.KmZ|b/c.kmz"},
      {"http://h/a%2Ekmz/b%20c", "http://h/a.kmz|b c"},
      {"http://h/a%3Fb.kmz/c", "http://h/a?b.kmz|c"},
      {"http://one%2F@two/a.kmz/c", "http://one/@two/a.kmz|c"},
  };
  for (const auto& [url, parts] : rows) {
    QString kmz_url = "-", kmz_path = "-";
    EXPECT_FALSE(Fetcher::FindInKmz(url, kmz_url, kmz_path));
    EXPECT_EQ(kmz_url + "|" + kmz_path, parts) << url;
  }
}

TEST_F(KmzFlowTest, IsSilentAfterStopInEveryPhaseOfAnExtraction) {
  Fetcher::SetWorkerThread(&worker_);
  const test::Gate free;
  FetchProbe queued, extracting, finishing, delivering;
  const QString url = Full("$F/x.kmz/y.kmz/b.png");
  test::ManualPump pump;
  KeepBusy(&worker_, free);
  queued.Start(url);
  pump.Drain();  // reads the archive
  queued.fetcher->Stop();
  test::HoldingContainer container;
  free.Open();
  extracting.Start(url);
  pump.Drain();
  ASSERT_TRUE(container.inside.Wait());
  std::thread opener([&container] { container.go.Open(); });
  extracting.fetcher->Stop();
  EXPECT_TRUE(container.went_on) << "nobody extracts any more";
  opener.join();
  for (FetchProbe* probe : {&finishing, &delivering}) {
    EXPECT_TRUE(pump.DrainAll());
    probe->Start(url);
    pump.Drain();
    const test::Gate over;
    KeepBusy(&worker_, over);
    EXPECT_EQ(pump.GetLength(), 1) << "its file is on the way";
    if (probe == &delivering) pump.Drain();
    probe->fetcher->Stop();
    over.Open();
  }
  EXPECT_TRUE(pump.DrainAll());
  for (const FetchProbe* probe : {&queued, &extracting, &finishing, &delivering}) {
    EXPECT_EQ(probe->calls, 0);
    EXPECT_EQ(probe->fetcher->GetState(), kFetchFetching);
    EXPECT_EQ(probe->fetcher->getRefCount(), 1);
  }
}

TEST_F(KmzFlowTest, WritesAFileCompletelyOrNotAtAll) {
  const auto write = [](const char* path, const QString& target) {
    return Fetcher::WriteBytesFromKmzToFile("http://h/a", path, target);
  };
  const QByteArray kmz = MakeKmz({{"a", "a"}, {"b", QByteArray(99999, 'b')}, {"c", ""}});
  cache().FindOrCreate("http://h/a")->OpenZFile(kmz);
  const QString old = WriteFile(Path("old"), "something longer"), target = Path("target");
  EXPECT_TRUE(write("A", old));
  EXPECT_EQ(ReadFile(old), "a");
  for (const char* none : {"none", "c"}) EXPECT_FALSE(write(none, target));
  ASSERT_EQ(mkfifo(qPrintable(Path("pipe")), 0600), 0);
  for (const char* bad : {"$F/none/a", "$F", "$F/pipe"}) EXPECT_FALSE(write("a", Full(bad))) << bad;
  // The kernel's limit on file sizes stands in for a full disk.
  struct rlimit limit {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  const struct rlimit small { 5000, limit.rlim_max };
  signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  EXPECT_FALSE(write("b", target));
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  EXPECT_FALSE(QFile::exists(target));
}

TEST_F(KmzFlowTest, ReadersGetOneArchiveOrTheOtherWhoeverInterferes) {
  constexpr int kBytes = 300000, kReads = 500;
  const QByteArray kmz[] = {MakeKmz({{"a", QByteArray(kBytes, 'o')}}, false),
                            MakeKmz({{"a", QByteArray(kBytes, 'n')}}, false)};
  std::atomic<int> full{0}, wrong{0};
  const auto read = [&] {
    while (full < kReads) {
      const QByteArray bytes = Fetcher::GetBytesFromKmz("http://h/a", "a");
      if (!bytes.isEmpty()) ++(bytes.size() == kBytes && bytes.count(bytes[0]) == kBytes ? full : wrong);
    }
  };
  MemoryReclaimer::SetBudget(1);
  std::thread readers[] = {std::thread(read), std::thread(read)};
  for (int i = 0; full < kReads; ++i) {
    const RefPtr<KmzCacheEntry> entry = cache().FindOrCreate("http://h/a");
    entry->UpdateBytes(kmz[i % 2], 0, nullptr);
    MemoryReclaimer::RunPass();
    test::PumpPending();  // which writes the copy
    if (i % 8 == 0) cache().Remove(entry->url());
  }
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace orvan::net
