#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFileInfo>
#include <QProcess>

#include "tests/net/fetch_probe.h"
#include "tests/net/kmz_bed.h"
#include "tests/support/manual_clock.h"

// The folder of copies in other hands: archives are served all the same, and nothing foreign is touched.

namespace orvan::net {
namespace {

class FilesUnderAttackTest : public test::KmzBed {
 protected:
  FilesUnderAttackTest() {
    for (const char* name : {"mine.kmz", "theirs.kmz"}) {
      const QByteArray archive = MakeKmz({{"a", name}, {"filler", QByteArray(600000, 'x')}}, false);
      server_.On(std::string("/") + name, test::Ok(archive.toStdString()));
    }
    EXPECT_EQ(chdir(qPrintable(folder_.path())), 0);  // attacks have relative names
  }
  ~FilesUnderAttackTest() override {
    (void)umount2("tmp", MNT_DETACH);
    EXPECT_EQ(chdir(qPrintable(old_folder_)), 0);
  }

  static FetchState Fetch(const QString& archive) {
    test::FetchProbe probe;
    probe.Start(archive + "/a");
    EXPECT_TRUE(test::PumpUntil([&] { return probe.calls > 0; }));
    EXPECT_EQ(probe.bytes, probe.state == kFetchSuccess ? archive.section('/', -1).toUtf8() : QByteArray());
    test::PumpPending();  // the copy
    return probe.state;
  }
  // A fetch, one without bytes in memory, and one more; and how often the server was asked.
  void ExpectServed(bool copy_is_good, int hits) {
    EXPECT_EQ(Fetch(mine_), copy_is_good ? kFetchSuccess : kFetchCannotOpen);
    EXPECT_EQ(Fetch(mine_), kFetchSuccess);
    EXPECT_EQ(server_.Hits("/mine.kmz"), hits + (copy_is_good ? 0 : 1));
  }
  void FetchAndDemandMemory() const {
    EXPECT_EQ(Fetch(mine_), kFetchSuccess);
    MemoryReclaimer::SetBudget(1);
    EXPECT_GT(MemoryReclaimer::RunPass(), 0);
    MemoryReclaimer::SetBudget(MemoryReclaimer::kDefaultBudget);
  }
  static int NumberOf(const QString& copy) { return QFileInfo(copy).baseName().section('_', 1).toInt(); }

  const QString old_folder_ = QDir::currentPath();
  const QString mine_ = server_.Url("/mine.kmz");
};

struct Attack {
  const char* name;
  bool copied;                    // there is a copy all the same
  int (*make)(const char* copy);  // not 0 if that is not permitted
};
int MakeLink() { return rmdir("tmp") || symlink("outside", "tmp"); }
int Mount(unsigned long flags) {
  return unshare(CLONE_NEWNS) || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) ||
         mount("tmpfs", "tmp", "tmpfs", flags, "size=64k,mode=0700");
}

const Attack kAll[] = {
    {"Link", true, [](auto copy) { return symlink("../outside/victim", copy); }},
    {"LinkToNowhere", true, [](auto copy) { return symlink("../outside/new", copy); }},
    {"HardLink", true, [](auto copy) { return link("outside/victim", copy); }},
    {"Folder", false, [](auto copy) { return mkdir(copy, 0700); }},
    {"OpenFolder", false, [](auto) { return chmod("tmp", 0777); }},
    {"LinkToForeignFolder", false, [](auto) { return MakeLink() ? 1 : chown("outside", 1, 1); }},
    {"ForeignLink", false, [](auto) { return MakeLink() ? 1 : lchown("tmp", 1, 1); }},
    {"ForeignFolder", false,
     [](auto) { return Fetcher::GetKmzCache()->SetKmzTmpDir("outside"), chown("outside", 1, 1); }},
    {"ReadOnlyFolder", false, [](auto) { return Mount(MS_RDONLY); }},
    {"FullDisk", false, [](auto) { return Mount(0); }},
};

class AttackTest : public FilesUnderAttackTest, public testing::WithParamInterface<Attack> {};

TEST_P(AttackTest, CostsACopyAtMost) {
  EXPECT_EQ(mkdir("tmp", 0700) + mkdir("outside", 0700), 0);
  WriteFile("outside/victim", "precious");
  const QString copy = QString("/qxTemp_%1.kmz").arg(NumberOf(cache().GenerateNextKmzName()) + 1);
  WriteFile("outside" + copy, "theirs");
  if (GetParam().make(qPrintable("tmp" + copy)) != 0) GTEST_SKIP() << "needs root, and permission to mount";
  FetchAndDemandMemory();
  ExpectServed(GetParam().copied, 1);
  cache().CleanupCache();
  EXPECT_EQ(ReadFile("outside/victim") + ReadFile("outside" + copy), "precioustheirs");
  EXPECT_EQ(QDir("outside").entryList(QDir::Files).size(), 2);
}

INSTANTIATE_TEST_SUITE_P(Each, AttackTest, testing::ValuesIn(kAll), [](auto& it) { return it.param.name; });

// The other process of the test below, which comes to use the same name.
TEST_F(FilesUnderAttackTest, DISABLED_OtherProcess) {
  const QStringList what = qEnvironmentVariable("ORVAN_OTHER_PROCESS").split(' ');
  static struct : IJobContainer {
    void AddJob(AbstractJob* job) override {
      job->Run(test::CountingContinuator(0), nullptr);
      kill(getpid(), SIGKILL);
    }
  } dies_writing;
  cache().SetKmzTmpDir(what[1]);
  while (NumberOf(cache().GenerateNextKmzName()) + 1 < what[2].toInt()) continue;
  if (what[0] == "writing") cache().OverrideJobContainer(&dies_writing);
  EXPECT_EQ(Fetch(what[3]), kFetchSuccess);
  if (what[0] == "written") kill(getpid(), SIGKILL);
}

TEST_F(FilesUnderAttackTest, AnotherProcessTakesCopiesAndNoMore) {
  const QStringList arguments{"--gtest_filter=*OtherProcess", "--gtest_also_run_disabled_tests"};
  for (const QString ends : {"writing", "written", "ended"}) {
    SCOPED_TRACE(ends.toStdString());
    cache().GenerateNextKmzName();  // 0, if this is the first test
    FetchAndDemandMemory();
    const int hits = server_.Hits("/mine.kmz"), number = NumberOf(cache().Find(mine_)->file_name());
    const QStringList what{ends, Path("tmp"), QString::number(number), server_.Url("/theirs.kmz")};
    qputenv("ORVAN_OTHER_PROCESS", what.join(' ').toUtf8());
    EXPECT_EQ(QProcess::execute("/proc/self/exe", arguments), ends == "ended" ? 0 : -1);
    EXPECT_EQ(QDir("tmp").entryList(QDir::Files).size(), ends == "writing" ? 2 : ends == "written");
    ExpectServed(ends == "writing", hits);
    cache().CleanupCache();
    EXPECT_FALSE(QFile::exists("tmp")) << "with what the dead have left";
  }
}

}  // namespace
}  // namespace orvan::net
