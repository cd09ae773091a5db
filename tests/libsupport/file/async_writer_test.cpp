#include "orvan/support/file/async_writer.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QVector>
#include <memory>

#include "tests/support/manual_clock.h"

namespace orvan {
namespace {

using test::CountingContinuator;

constexpr int kSlice = 256 * 1024;
constexpr int kId = 5;

struct Verdict : AbstractWriterCallback {
  void OnWriteComplete(int id) override { done << id; }
  void OnWriteError(int, WriteError, const QString& file_name) override { failed << file_name; }
  QVector<int> done;
  QStringList failed;
};

class Writer : public AsyncWriterJob {
 public:
  Writer(const QString& path, const QByteArray& data, const RefPtr<Verdict>& verdict)
      : AsyncWriterJob(QStringLiteral("test"), kId, data, new QFile(path),
                       RefPtr<AbstractWriterCallback>(verdict)) {}
  using AbstractJob::SetRemoved;
};

class AsyncWriterTest : public testing::Test {
 protected:
  QString Path(const QString& name) const { return folder_.filePath(name); }
  RefPtr<Writer> Make(const QString& path, const QByteArray& data) const {
    return new Writer(path, data, verdict_);
  }
  int Run(const RefPtr<Writer>& job, int yes = 1000000) const {
    return job->Run(CountingContinuator(yes), nullptr);
  }
  static QByteArray Read(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(none)");
  }
  static QStringList Names(const QString& folder) {
    return QDir(folder).entryList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot);
  }
  static unsigned int Mode(const QString& path) {
    struct stat status {};
    return lstat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_mode & 07777 : 0;
  }

  const QTemporaryDir folder_;
  const RefPtr<Verdict> verdict_{new Verdict};
};

TEST_F(AsyncWriterTest, MakesFileAndFoldersForThisUserAlone) {
  const mode_t old_mask = umask(0);
  const QString path = Path(QStringLiteral("a/b/qxTemp_1.kmz"));
  const RefPtr<Writer> job = Make(path, "bytes");
  EXPECT_EQ(Run(job), AbstractJob::kFinished);
  umask(old_mask);
  EXPECT_EQ(Read(path), "bytes");
  EXPECT_EQ(Mode(path), 0600u);
  EXPECT_EQ(Mode(Path(QStringLiteral("a"))), 0700u);
  EXPECT_EQ(Mode(Path(QStringLiteral("a/b"))), 0700u);
  EXPECT_EQ(verdict_->done, QVector<int>({kId}));
  EXPECT_TRUE(job->job_finished() && job->succeeded());
  EXPECT_EQ(Run(job), AbstractJob::kFinished);
  EXPECT_EQ(verdict_->done.size(), 1) << "told once";
}

TEST_F(AsyncWriterTest, GivesWayBetweenSlicesAndShowsNothingHalfDone) {
  const QString path = Path(QStringLiteral("qxTemp_1.kmz"));
  QByteArray data(3 * kSlice + 1, 'x');
  data[2 * kSlice] = 'y';
  ASSERT_EQ(Run(Make(path, "old")), AbstractJob::kFinished);
  const RefPtr<Writer> job = Make(path, data);
  for (int turn = 1; turn <= 3; ++turn) {
    EXPECT_EQ(Run(job, 0), AbstractJob::kRunAgain);
    EXPECT_FALSE(job->job_finished());
    EXPECT_EQ(Read(path), "old");
    const QDir folder(folder_.path());
    ASSERT_EQ(folder.entryList({QStringLiteral("qxTemp_*.kmz")}).size(), 2)
        << "a sweep finds what is under way";
    for (const QFileInfo& file : folder.entryInfoList({QStringLiteral("qxTemp_*.kmz")})) {
      EXPECT_TRUE(file.filePath() == path || file.size() == turn * kSlice);
    }
  }
  EXPECT_EQ(Run(job, 0), AbstractJob::kFinished);
  EXPECT_EQ(Read(path), data);
  EXPECT_EQ(Names(folder_.path()), QStringList(QStringLiteral("qxTemp_1.kmz")));
}

TEST_F(AsyncWriterTest, AFailureIsToldAndLeavesEverythingAsItWas) {
  const QString file = Path(QStringLiteral("file"));
  ASSERT_EQ(Run(Make(file, "old")), AbstractJob::kFinished);
  ASSERT_TRUE(QDir(folder_.path()).mkdir(QStringLiteral("folder")));
  const QString open_to_all = Path(QStringLiteral("folder"));
  ASSERT_EQ(chmod(QFile::encodeName(open_to_all).constData(), 0777), 0);
  const QStringList paths = {open_to_all + QStringLiteral("/in"),  file + QStringLiteral("/below"),
                             Path(QStringLiteral("folder")),       QString(),
                             Path(QString(300, QLatin1Char('n'))), QStringLiteral("/proc/nowhere/file")};
  for (const QString& path : paths) {
    SCOPED_TRACE(path.toStdString());
    verdict_->failed.clear();
    const RefPtr<Writer> job = Make(path, "new");
    EXPECT_EQ(Run(job), AbstractJob::kFinished);
    EXPECT_TRUE(job->job_finished() && !job->succeeded());
    EXPECT_EQ(verdict_->failed, QStringList(path));
  }
  EXPECT_EQ(Names(folder_.path()), QStringList({QStringLiteral("file"), QStringLiteral("folder")}));
  EXPECT_EQ(Read(file), "old");
}

// The kernel's limit on file sizes stands in for a full disk: the write that passes it fails.
TEST_F(AsyncWriterTest, AFullDiskLeavesTheOldFileAndNoRest) {
  const QString path = Path(QStringLiteral("qxTemp_1.kmz"));
  ASSERT_EQ(Run(Make(path, "old")), AbstractJob::kFinished);
  struct rlimit limit {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  struct rlimit small = limit;
  small.rlim_cur = kSlice + kSlice / 2;
  const auto old_handler = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const RefPtr<Writer> job = Make(path, QByteArray(4 * kSlice, 'x'));
  EXPECT_EQ(Run(job, 0), AbstractJob::kRunAgain);
  EXPECT_EQ(Run(job, 0), AbstractJob::kFinished);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  signal(SIGXFSZ, old_handler);
  EXPECT_FALSE(job->succeeded());
  EXPECT_EQ(verdict_->failed, QStringList(path));
  EXPECT_EQ(Read(path), "old");
  EXPECT_EQ(Names(folder_.path()), QStringList(QStringLiteral("qxTemp_1.kmz")));
}

TEST_F(AsyncWriterTest, AJobThatIsTakenBackPutsNothingOverNewerBytes) {
  const QString path = Path(QStringLiteral("qxTemp_1.kmz"));
  RefPtr<Writer> dropped = Make(path, QByteArray(2 * kSlice, 'd'));
  RefPtr<Writer> finished = Make(path, QByteArray(2 * kSlice, 'f'));
  RefPtr<Writer> destroyed = Make(path, QByteArray(2 * kSlice, 'e'));
  for (const auto& job : {dropped, finished, destroyed}) EXPECT_EQ(Run(job, 0), AbstractJob::kRunAgain);
  ASSERT_EQ(Run(Make(path, "new")), AbstractJob::kFinished);
  dropped->SetRemoved();
  dropped->CleanForRemoval();
  finished->SetRemoved();
  EXPECT_EQ(Run(finished), AbstractJob::kFinished);
  EXPECT_EQ(verdict_->failed.size(), 2);
  EXPECT_TRUE(dropped->job_finished() && finished->job_finished());
  destroyed = nullptr;

  const RefPtr<Writer> running = Make(path, QByteArray(3 * kSlice, 'r'));
  const struct TakesBack : IJobContinuator {
    explicit TakesBack(Writer* job) : writer(job) {}
    bool MayContinue(const AbstractJob*) const override {
      writer->SetRemoved();
      return true;
    }
    Writer* const writer;
  } takes_back(running.get());
  EXPECT_EQ(running->Run(takes_back, nullptr), AbstractJob::kFinished);
  EXPECT_FALSE(running->succeeded());
  EXPECT_EQ(Read(path), "new");
  EXPECT_EQ(Names(folder_.path()), QStringList(QStringLiteral("qxTemp_1.kmz")));
}

}  // namespace
}  // namespace orvan
