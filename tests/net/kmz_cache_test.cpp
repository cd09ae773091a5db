#include "orvan/net/kmz_cache.h"

#include <sys/stat.h>
#include <unistd.h>

#include <QDateTime>
#include <QFileInfo>
#include <atomic>
#include <functional>
#include <limits>
#include <thread>
#include <vector>

#include "tests/net/kmz_bed.h"
#include "tests/support/manual_clock.h"

namespace orvan::net {
namespace {

class KmzCacheTest : public test::KmzBed {};

TEST_F(KmzCacheTest, KeepsOneEntryForEachCleanedKey) {
  const RefPtr<KmzCacheEntry> local = cache().FindOrCreate("folder//x/../a.kmz");
  const QString absolute = QFileInfo("folder/a.kmz").absoluteFilePath();
  for (const QString& same : {QString("folder/a.kmz"), absolute, "/." + absolute}) {
    EXPECT_EQ(cache().FindOrCreate(same), local);
  }
  EXPECT_NE(cache().FindOrCreate("http://h/a.kmz"), cache().Find("http://h/A.kmz"));
}

TEST_F(KmzCacheTest, OpensALocalArchive) {
  const QString path = WriteFile(Path("a.kmz"), MakeKmz({{"doc.kml", "main"}}));
  const RefPtr<KmzCacheEntry> entry = cache().CacheKmzFile(path);
  EXPECT_TRUE(entry->ContainsFile("DOC.KML"));
  EXPECT_TRUE(entry->NeedsFetch(false)) << "its date is not known yet";
  EXPECT_EQ(cache().CacheKmzFile(path), entry);
  ASSERT_EQ(::mkfifo(qPrintable(Path("pipe")), 0600), 0);
  for (const QString& none : {Path("none"), Path("pipe"), folder_.path(), QString("http://h/a"), QString()}) {
    EXPECT_EQ(cache().CacheKmzFile(none), nullptr) << none.toStdString();
  }
}

TEST_F(KmzCacheTest, NobodyFindsAnArchiveBeforeItIsOpen) {
  const QString path = WriteFile(Path("a.kmz"), MakeKmz({{"doc.kml", "main"}}));
  for (int round = 0; round < 200; ++round) {
    std::atomic<int> open{0};
    std::vector<std::thread> readers(3);
    for (std::thread& reader : readers) {
      reader = std::thread([&] {
        RefPtr<KmzCacheEntry> entry;
        while (!entry) entry = cache().Find(path);
        open += entry->ContainsFile("doc.kml");
      });
    }
    cache().CacheKmzFile(path);
    for (std::thread& reader : readers) reader.join();
    ASSERT_EQ(open, 3) << round;
    cache().Remove(KmzCache::CleanUrl(path));
  }
}

TEST_F(KmzCacheTest, FindsAnArchiveUnderAnyLeadingPart) {
  for (const QString text :
       {"http://h/a/bc/d.png", "http://h/get?id=7\\x/y", ":/res/a/b", "c://x/y/z", "C:\\d\\e/f",
        "file:///a/b/c", "//x///y////", "/a//b///c/d", "/a\\\\\\\\b", "odd:/1/22/333/4444/x"}) {
    for (int i = 0; i < text.size(); ++i) {
      const QString path = QDir::cleanPath(text.mid(i + 1));
      if ((text.at(i) != '/' && text.at(i) != '\\') || path.isEmpty()) continue;
      SCOPED_TRACE(text.toStdString() + " at " + std::to_string(i));
      cache().FindOrCreate(text.left(i))->OpenZFile(MakeKmz({{path.toUtf8(), "x"}}));
      QString kmz_url, kmz_path;
      EXPECT_TRUE(FindPartialInKmzCache(text, kmz_url, kmz_path));
      EXPECT_EQ(KmzCache::CleanUrl(kmz_url) + kmz_path, KmzCache::CleanUrl(text.left(i)) + path);
      EXPECT_FALSE(FindPartialInKmzCache(text + "?", kmz_url, kmz_path));
      cache().CleanupCache();
    }
  }
}

TEST_F(KmzCacheTest, TakesTheLongestKeyThatHasTheFile) {
  cache().FindOrCreate("http://h/a")->OpenZFile(MakeKmz({{"b/c.txt", "1"}, {"b/d.txt", "2"}}));
  cache().FindOrCreate("http://h/a/b")->OpenZFile(MakeKmz({{"c.txt", "3"}}));
  QString kmz_url, kmz_path;
  EXPECT_TRUE(FindPartialInKmzCache("http://h/a/b/x/../C.txt", kmz_url, kmz_path));
  EXPECT_EQ(kmz_url + "|" + kmz_path, "http://h/a/b|C.txt");
  EXPECT_TRUE(FindPartialInKmzCache("http://h/a/b/d.txt", kmz_url, kmz_path));
  EXPECT_EQ(kmz_url + "|" + kmz_path, "http://h/a|b/d.txt");
}

TEST_F(KmzCacheTest, SweepsItsFolder) {
  const RefPtr<KmzCacheEntry> held = cache().FindOrCreate("http://h/a");
  ASSERT_TRUE(QDir().mkdir(Path("tmp")));
  WriteFile(held->file_name(), "copy");
  WriteFile(Path("tmp/qxTemp_12345.kmz"), "of an earlier process");
  QFile other(WriteFile(Path("tmp/other.kmz"), "somebody's"));
  cache().CleanupCache();
  EXPECT_EQ(QDir(Path("tmp")).entryList(QDir::Files), QStringList("other.kmz"));
  EXPECT_TRUE(other.remove());
  cache().CleanupCache();
  EXPECT_FALSE(QFile::exists(Path("tmp")));
  EXPECT_NE(cache().GenerateNextKmzName(), held->file_name()) << "the numbers go on";
}

constexpr double kNever = std::numeric_limits<double>::max();

class KmzCacheEntryTest : public test::KmzBed {
 protected:
  static RefPtr<KmzCacheEntry> Make() { return new KmzCacheEntry("http://h/a", &cache()); }
  // One that was read, and whose copy is written.
  RefPtr<KmzCacheEntry> MakeOpen() {
    RefPtr<KmzCacheEntry> entry = Make();
    entry->UpdateBytes(kmz_, kNever, nullptr);
    EXPECT_EQ(entry->unzipFile(""), "main");
    EXPECT_TRUE(pump_.DrainAll());
    return entry;
  }

  const QByteArray kmz_ = MakeKmz({{"doc.kml", "main"}, {"b.txt", "b"}});
  const QByteArray as_long_ = MakeKmz({{"doc.kml", "main"}, {"b.txt", "c"}});
  test::ManualPump pump_;
  test::ManualClock clock_;
};

TEST_F(KmzCacheEntryTest, TheSameBytesChangeNothing) {
  const RefPtr<KmzCacheEntry> entry = Make();
  entry->UpdateBytes(kmz_, clock_.Now(), nullptr);
  EXPECT_FALSE(entry->NeedsFetch(false)) << "a time that is reached has not passed";
  EXPECT_TRUE(entry->NeedsFetch(true));
  clock_.Advance(1);
  EXPECT_TRUE(pump_.DrainAll());
  entry->UpdateBytes(QByteArray(kmz_.constData(), kmz_.size()), kNever, nullptr);
  EXPECT_TRUE(entry->NeedsFetch(false));
  EXPECT_EQ(pump_.GetLength(), 0) << "nothing is written";
  entry->UpdateBytes(as_long_, kNever, nullptr);
  EXPECT_FALSE(entry->NeedsFetch(false));
}

TEST_F(KmzCacheEntryTest, KnowsItsNamesFromTheFirstReadingOn) {
  const RefPtr<KmzCacheEntry> entry = Make();
  for (const QByteArray& bytes : {kmz_, as_long_}) {
    entry->UpdateBytes(bytes, kNever, nullptr);
    EXPECT_FALSE(entry->ContainsFile("doc.kml"));
    EXPECT_EQ(entry->unzipFile("none"), "");
    EXPECT_TRUE(entry->ContainsFile("DOC.KML"));
  }
  QByteArray place = kmz_;
  entry->OpenZFile(QByteArray::fromRawData(place.data(), place.size()));
  place.fill('x');
  EXPECT_EQ(entry->unzipFile("b.txt"), "b") << "it owns what it reads from";
  entry->UpdateBytes(QByteArray(), kNever, nullptr);
  EXPECT_TRUE(pump_.DrainAll());
  EXPECT_FALSE(QFile::exists(Path("tmp"))) << "nothing is written any more";
}

TEST_F(KmzCacheEntryTest, GivesUpItsBytesOnceTheCopyIsThere) {
  const RefPtr<NetworkRequest> request(new NetworkRequest(ServerInfo(), {"/", {}, true, nullptr, nullptr}));
  const qint64 total = MemoryReclaimer::GetTotalBytes();
  const RefPtr<KmzCacheEntry> entry = Make();
  entry->UpdateBytes(kmz_, kNever, request.get());
  EXPECT_EQ(entry->unzipFile("B.txt"), "b");
  EXPECT_FALSE(entry->reclaim(kAsked)) << "the copy is not written yet";
  EXPECT_TRUE(entry->reclaim(kDemanded)) << "which writes it";
  EXPECT_EQ(request->getRefCount(), 1) << "the answer goes, too: it holds the bytes once more";
  EXPECT_EQ(entry->GetLruFrame(), -1);
  EXPECT_EQ(MemoryReclaimer::GetTotalBytes(), total);
  EXPECT_TRUE(pump_.DrainAll());
  EXPECT_EQ(entry->unzipFile("b.txt"), "b");
  EXPECT_EQ(pump_.GetLength(), 0) << "what came from the disk is not written again";
  EXPECT_TRUE(entry->reclaim(kAsked));
  entry->UpdateBytes(as_long_, kNever, nullptr);
  EXPECT_TRUE(pump_.DrainAll());
  EXPECT_TRUE(entry->reclaim(kAsked));
  EXPECT_EQ(entry->unzipFile("b.txt"), "c");
  entry->UpdateBytes(QByteArray(), kNever, nullptr);
  EXPECT_EQ(entry->unzipFile("b.txt"), "") << "nothing out of the copy of what was there before";
}

TEST_F(KmzCacheEntryTest, WhatIsReadBackDoesNotPileUpUntilTheNextPass) {
  const RefPtr<KmzCacheEntry> first = MakeOpen(), second = MakeOpen();
  MemoryReclaimer::SetBudget(1);
  EXPECT_TRUE(first->reclaim(kAsked));
  EXPECT_EQ(first->unzipFile("b.txt"), "b");
  EXPECT_TRUE(first->GetBytes().isEmpty());
  EXPECT_FALSE(second->GetBytes().isEmpty()) << "not read back";
}

TEST_F(KmzCacheEntryTest, KeepsBytesWithoutACopyUntilTheyAreDemanded) {
  const std::function<void(KmzCacheEntry&)> accidents[] = {
      [](KmzCacheEntry& entry) { QFile::remove(entry.file_name()); },
      [](KmzCacheEntry& entry) { WriteFile(entry.file_name(), "PK"); },
      [this](KmzCacheEntry& entry) {  // the folder is everybody's: the older copy stays there
        chmod(qPrintable(Path("tmp")), 0777);
        entry.UpdateBytes(as_long_, kNever, nullptr);
        EXPECT_TRUE(pump_.DrainAll());
        chmod(qPrintable(Path("tmp")), 0700);
      }};
  for (const auto& accident : accidents) {
    const RefPtr<KmzCacheEntry> entry = MakeOpen();
    accident(*entry);
    const QByteArray bytes = entry->GetBytes();
    EXPECT_FALSE(entry->reclaim(kAsked));
    EXPECT_EQ(entry->GetBytes(), bytes);
    EXPECT_TRUE(entry->reclaim(kDemanded));
    EXPECT_EQ(ReadFile(entry->file_name()), bytes);
  }
}

TEST_F(KmzCacheEntryTest, TakesNothingBackButWhatItGaveUp) {
  const std::pair<const char*, std::function<void(const QString& name)>> cases[] = {
      {"nothing", [](const QString&) {}},
      {"that of a process which counts alike", [this](const QString& name) { WriteFile(name, as_long_); }},
      {"the archive cut", [this](const QString& name) { WriteFile(name, kmz_.left(kmz_.size() - 1)); }},
      {"a link to it", [this](const QString& name) { QFile::link(WriteFile(Path("same"), kmz_), name); }},
      {"a pipe", [](const QString& name) { mkfifo(qPrintable(name), 0600); }}};
  for (const auto& [says, put] : cases) {
    SCOPED_TRACE(says);
    const RefPtr<KmzCacheEntry> entry = MakeOpen();
    EXPECT_TRUE(entry->reclaim(kAsked));
    EXPECT_TRUE(QFile::remove(entry->file_name()));
    put(entry->file_name());
    EXPECT_EQ(entry->unzipFile("b.txt"), "");
    remove(qPrintable(entry->file_name()));
    WriteFile(entry->file_name(), kmz_);
    EXPECT_EQ(entry->unzipFile("b.txt"), "b");
  }
}

TEST_F(KmzCacheEntryTest, FollowsTheUsersFileAndLeavesIt) {
  QFile file(WriteFile(Path("a.kmz"), kmz_));
  RefPtr<KmzCacheEntry> entry(new KmzCacheEntry(file.fileName(), &cache()));
  entry->UpdateBytesNoDiskIO(kmz_, kNever);
  EXPECT_FALSE(entry->NeedsFetch(true)) << "only the file's date counts";
  EXPECT_EQ(entry->unzipFile("b.txt"), "b");
  EXPECT_TRUE(entry->reclaim(kAsked));
  WriteFile(file.fileName(), as_long_);
  EXPECT_EQ(entry->unzipFile("b.txt"), "c");
  ASSERT_TRUE(file.open(QIODevice::ReadWrite));
  file.setFileTime(QDateTime::currentDateTime().addSecs(60), QFile::FileModificationTime);
  EXPECT_TRUE(entry->NeedsFetch(false));
  entry = nullptr;
  EXPECT_TRUE(file.exists());
}

TEST_F(KmzCacheEntryTest, IsLeftAloneWhileItIsRead) {
  const RefPtr<KmzCacheEntry> entry = MakeOpen();
  EXPECT_TRUE(entry->reclaim(kAsked));
  test::HoldingContainer container;
  System::s_cur_frame = 5;
  QByteArray bytes;
  std::thread reader([&] { bytes = entry->unzipFile("b.txt"); });
  ASSERT_TRUE(container.inside.Wait());
  System::s_cur_frame = 7;
  EXPECT_EQ(entry->GetLruFrame(), 7) << "looks newest";
  EXPECT_FALSE(entry->reclaim(kDemanded));
  container.go.Open();
  reader.join();
  EXPECT_EQ(bytes, "b");
  EXPECT_EQ(entry->GetLruFrame(), 5);
}

TEST_F(KmzCacheEntryTest, IsOfferedByTheLastWishOfAnyThread) {
  MemoryReclaimer::SetBudget(1);
  for (const char* then : {"offered", "withdrawn", "gone"}) {
    RefPtr<KmzCacheEntry> entry = Make();
    entry->UpdateBytes(kmz_, kNever, nullptr);
    std::thread([&] { entry->unzipFile(""); }).join();
    EXPECT_EQ(MemoryReclaimer::RunPass(), 0) << "the wish is on its way to the main thread";
    if (*then == 'w') entry->SetIsReclaimableOnMainThread(false);
    if (*then == 'g') entry = nullptr;
    EXPECT_TRUE(pump_.DrainAll());
    EXPECT_EQ(entry ? entry->GetBytes().isEmpty() : QDir(Path("tmp")).isEmpty(), *then != 'w') << then;
  }
}

}  // namespace
}  // namespace orvan::net
