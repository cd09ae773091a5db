#pragma once

#include <gtest/gtest.h>

#include <QDir>
#include <QTemporaryDir>
#include <utility>
#include <vector>

#include "orvan/net/fetcher.h"
#include "orvan/net/kmz_cache.h"
#include "orvan/net/net_init.h"
#include "orvan/support/cache/memory_reclaimer.h"
#include "orvan/support/thread/worker_thread.h"
#include "tests/libsupport/file/zip_maker.h"
#include "tests/support/loopback_server.h"
#include "tests/support/watchdog.h"

namespace orvan::test {

// The library from start to stop, and a cache with temporary files of its own.
class KmzBed : public ::testing::Test {
 protected:
  KmzBed() {
    net::Init(QString(), QString());
    cache().SetKmzTmpDir(Path("tmp"));
  }
  ~KmzBed() override {
    net::Fetcher::SetWorkerThread(nullptr);
    net::Shutdown();
    cache().SetKmzTmpDir(QString());
    MemoryReclaimer::SetBudget(MemoryReclaimer::kDefaultBudget);
  }

  static constexpr CacheObserver::Event kAsked{0}, kDemanded{1};
  static QByteArray MakeKmz(const std::vector<std::pair<QByteArray, QByteArray>>& files,
                            bool deflated = true) {
    ZipMaker maker;
    for (const auto& [name, content] : files) maker.Add(ZipEntry{name, content, deflated});
    return maker.Finish();
  }
  static net::KmzCache& cache() { return *net::KmzCache::GetSingleton(); }
  QString Path(const char* name) const { return folder_.filePath(name); }
  static QString WriteFile(const QString& path, const QByteArray& bytes) {
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
    return path;
  }
  static QByteArray ReadFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(none)");
  }

  const Watchdog watchdog_{280, "a test of archives"};
  const QTemporaryDir folder_;
  LoopbackServer server_;
};

// Keeps the worker busy until the gate opens. Everything queued before it has been done by now.
inline void KeepBusy(WorkerThread* worker, const Gate& over) {
  struct Job : WorkerThread::Job {
    Job(WorkerThread* there, Gate end) : WorkerThread::Job("busy", there), over(std::move(end)) {}
    void Run() override {
      running.Open();
      EXPECT_TRUE(over.Wait());
    }
    const Gate running, over;
  };
  const RefPtr<Job> job(new Job(worker, over));
  job->AddToQueue(worker);
  EXPECT_TRUE(job->running.Wait());
}

// The cache's container while it lives. Holds up whoever opens an archive on another thread than the main
// one.
struct HoldingContainer : IJobContainer {
  HoldingContainer() { net::KmzCache::GetSingleton()->OverrideJobContainer(this); }
  ~HoldingContainer() override { net::KmzCache::GetSingleton()->OverrideJobContainer(nullptr); }
  void AddJob(AbstractJob* job) override {
    inside.Open();
    EXPECT_TRUE(go.Wait());
    went_on = true;
    GetDefaultJobScheduler()->AddJob(job);
  }
  const Gate inside, go;
  std::atomic<bool> went_on{false};
};

}  // namespace orvan::test
