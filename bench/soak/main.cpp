// A long run in one process, with the library stopped and started over and over, and what it leaves behind.
// bench/soak/run.py starts the servers for it.
#include <malloc.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <atomic>
#include <cstdio>

#include "bench/soak/flights.h"
#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/identity/username_password_query_handler.h"
#include "orvan/net/kmz_cache.h"
#include "orvan/net/net_init.h"
#include "orvan/support/cache/memory_reclaimer.h"
#include "orvan/support/thread/worker_thread.h"

namespace {

using namespace orvan;
using bench::Flights;

constexpr int kEpochs = 40;  // each from Init() to Shutdown()
constexpr int kEpochsPerSample = kEpochs / 10;
constexpr double kMayGrow = 4.0;  // MiB

// Answers at once, on any worker: the pair, a wrong one, or nothing.
class Answers : public net::IUsernamePasswordQueryHandler {
 public:
  bool QueryUsernameAndPassword(const QString&, QString& username, QString& password, bool* save) override {
    const int turn = asked_.fetch_add(1);
    if (turn % 5 == 4) return false;
    username = QStringLiteral("name");
    password = turn % 5 == 2 ? QStringLiteral("none") : QStringLiteral("word");
    *save = false;
    return true;
  }
  int asked() const { return asked_; }

 private:
  std::atomic<int> asked_{0};
};

// Of the whole process, with the library stopped. Sizes in MiB.
struct Sample {
  double resident;  // as it stands
  double trimmed;   // behind malloc_trim(), which gives freed pages back to the system
  double in_use;    // what malloc() has handed out
  int threads;
  int descriptors;
};

// By itself glibc keeps up to twice the largest block that was freed at the end of each of its 16 arenas,
// here 8 MiB, and malloc_trim() does not reach those. Over the hours that would look like growth.
void TameMalloc() {
  mallopt(M_MMAP_THRESHOLD, 128 << 10);
  mallopt(M_TRIM_THRESHOLD, 128 << 10);
}

double StatusMib(const char* name) {
  QFile status(QStringLiteral("/proc/self/status"));
  if (!status.open(QIODevice::ReadOnly)) return 0;
  for (const QByteArray& line : status.readAll().split('\n')) {
    if (line.startsWith(name))
      return line.mid(line.indexOf(':') + 1).replace("kB", "").trimmed().toDouble() / 1024;
  }
  return 0;
}

int EntriesIn(const char* folder) {
  return QDir(QLatin1String(folder)).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size();
}

Sample Measure() {
  Sample sample{};
  sample.resident = StatusMib("VmRSS");
  malloc_trim(0);
  sample.trimmed = StatusMib("VmRSS");
  const struct mallinfo2 info = mallinfo2();
  sample.in_use = static_cast<double>(info.uordblks + info.hblkhd) / (1 << 20);
  sample.threads = EntriesIn("/proc/self/task");
  sample.descriptors = EntriesIn("/proc/self/fd");
  return sample;
}

// Threads of connections that were given up end by themselves, and Qt's notifiers with the next events.
Sample Settle(const Sample& wanted) {
  QElapsedTimer clock;
  clock.start();
  Sample sample = Measure();
  while ((sample.threads > wanted.threads || sample.descriptors > wanted.descriptors) &&
         clock.elapsed() < 10000) {
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents | QEventLoop::AllEvents, 20);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    sample = Measure();
  }
  return sample;
}

void Tell(const QString& when, const Sample& sample, double seconds) {
  std::printf("%9s %9.1f %9.1f %9.2f %8d %12d %9.0f\n", qPrintable(when), sample.resident, sample.trimmed,
              sample.in_use, sample.threads, sample.descriptors, seconds);
  std::fflush(stdout);
}

bool Check(bool met, const QString& says) {
  std::printf("  %s  %s\n", qPrintable(says), met ? "met" : "MISSED");
  return met;
}

// The library from start to stop. Every other time it is stopped with fetches under way.
void RunEpoch(int number, int count, Flights* flights) {
  net::Init(QString(), QString());
  flights->Run(count, number % 2 == 0 ? Flights::kAllStarted : Flights::kAllEnded);
  if (number % 4 == 0) flights->StopAll();
  net::Shutdown();
  flights->StopAll();
  flights->DropKept();
}

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  QCommandLineParser parser;
  parser.addOptions({{"fetches", "How many", "number", "200000"},
                     {"outstanding", "At once", "number", "48"},
                     {"seed", "Of the dice", "number", "1"},
                     {"plain-malloc", "Leave malloc() as it is"},
                     {"ca", "A certificate to trust", "file"},
                     {"folder", "Files on disk", "folder"}});
  parser.addPositionalArgument("servers", "Base URLs");
  parser.process(application);
  const QString folder = parser.value("folder");
  const int fetches = parser.value("fetches").toInt();
  const int outstanding = parser.value("outstanding").toInt();
  if (parser.positionalArguments().isEmpty() || fetches < kEpochs || outstanding < 1) parser.showHelp(2);
  if (!parser.isSet("plain-malloc")) TameMalloc();
  QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
  configuration.addCaCertificates(QSslCertificate::fromPath(parser.value("ca")));
  QSslConfiguration::setDefaultConfiguration(configuration);

  Answers answers;
  net::HttpConnectionFactory::SetUsernamePasswordQueryHandler(&answers);
  net::KmzCache::GetSingleton()->SetKmzTmpDir(folder + QLatin1String("-copies"));
  WorkerThread worker("soak worker");
  net::Fetcher::SetWorkerThread(&worker);
  {  // a first round, so that what a process keeps for good is there before the start is measured
    Flights first(parser.positionalArguments(), folder, 1, 40 * outstanding, outstanding);
    RunEpoch(1, 40 * outstanding, &first);
  }
  Flights flights(parser.positionalArguments(), folder, parser.value("seed").toUInt(), fetches, outstanding);
  QElapsedTimer clock;
  clock.start();
  std::printf("%9s %9s %9s %9s %8s %12s %9s\n", "fetches", "resident", "trimmed", "in use", "threads",
              "descriptors", "seconds");
  const Sample start = Settle({});
  Tell(QStringLiteral("start"), start, 0);
  Sample tenth{}, end{};
  for (int epoch = 0; epoch < kEpochs; ++epoch) {
    const int count = static_cast<int>(qint64{fetches} * (epoch + 1) / kEpochs);
    RunEpoch(epoch, count, &flights);
    if ((epoch + 1) % kEpochsPerSample != 0) continue;
    end = Settle(start);
    Tell(QString::number(count), end, static_cast<double>(clock.elapsed()) / 1000);
    if (epoch + 1 == kEpochsPerSample) tenth = end;
  }
  net::Fetcher::SetWorkerThread(nullptr);

  const bench::Tally tally = flights.Count();
  std::printf("\n%d called back, %d stopped, %d withdrawn, %d failed beside a server's hanging up\n",
              tally.ended, tally.stopped, tally.withdrawn, tally.beside);
  std::printf("%d prompts; the library was started %d times\n", answers.asked(), kEpochs + 1);
  std::printf("Goals:\n");
  bool met = Check(end.trimmed - tenth.trimmed <= kMayGrow,
                   QStringLiteral("%1 MiB more resident memory than behind the first tenth, at most %2")
                       .arg(end.trimmed - tenth.trimmed, 0, 'f', 2)
                       .arg(kMayGrow));
  met &= Check(end.threads <= start.threads && end.descriptors <= start.descriptors,
               QStringLiteral("threads and descriptors as at the start"));
  met &= Check(tally.lost == 0, QStringLiteral("%1 callbacks lost").arg(tally.lost));
  met &= Check(tally.doubled == 0, QStringLiteral("%1 callbacks doubled").arg(tally.doubled));
  met &= Check(tally.late == 0, QStringLiteral("%1 callbacks behind a stop").arg(tally.late));
  met &= Check(tally.wrong == 0, QStringLiteral("%1 fetches that ended wrong").arg(tally.wrong));
  return met ? 0 : 1;
}
