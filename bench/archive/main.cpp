// One measurement of one peer, in a process of its own: prints a line of JSON. run.py runs these.
#include <malloc.h>
#include <minizip/unzip.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <random>
#include <vector>

#include "bench/archive/cache.h"
#include "bench/archive/reader.h"
#include "orvan/support/file/kmz_zip.h"

namespace orvan::bench {
namespace {

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// A line of /proc/self/status, in bytes.
double Resident(const char* key) {
  QFile status(QStringLiteral("/proc/self/status"));
  if (!status.open(QIODevice::ReadOnly)) return 0;
  for (const QByteArray& line : status.readAll().split('\n')) {
    if (line.startsWith(key)) return line.mid(6).replace("kB", "").trimmed().toDouble() * 1024;
  }
  return 0;
}

double HeapBytes() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd);
}

class OrvanReader : public Reader {
 public:
  explicit OrvanReader(const QByteArray& archive) {
    MemoryFileFunctions functions;
    mem_simple_create_file(&functions, archive.constData(), static_cast<std::size_t>(archive.size()));
    handle_ = unzAttach(functions);
    names_ = kmz::FoldedNames(handle_);
  }
  ~OrvanReader() override { unzClose(handle_); }

  qint64 Extract(const QString& name) override {
    const QByteArray bytes = kmz::UnzipZFile(handle_, name);
    return bytes.isEmpty() ? -1 : bytes.size();
  }

 private:
  void* handle_ = nullptr;
  QSet<QString> names_;
};

}  // namespace

// All of this is computing, so the time that others take from it on a busy machine is none of its cost.
double Microseconds() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

std::unique_ptr<Reader> MakeReader(const QString& peer, const QByteArray& archive) {
  if (peer == "orvan") return std::make_unique<OrvanReader>(archive);
  if (peer == "minizip") return MakeMinizipReader(archive, false);
  if (peer == "minizip-index") return MakeMinizipReader(archive, true);
  if (peer == "libzip") return MakeLibzipReader(archive);
  if (peer == "zlib" || peer == "libdeflate") return MakeBareReader(archive, peer == "libdeflate");
  return nullptr;
}

// Names in the order in which they are asked for: at random, the same for every peer.
std::vector<QString> ShuffledNames(const QByteArray& archive) {
  MemoryFileFunctions functions;
  mem_simple_create_file(&functions, archive.constData(), static_cast<std::size_t>(archive.size()));
  void* const handle = unzAttach(functions);
  std::vector<QString> names;
  for (const kmz::ArchiveEntry& entry : kmz::ListEntries(handle)) names.push_back(entry.name);
  unzClose(handle);
  std::shuffle(names.begin(), names.end(), std::mt19937(17));
  return names;
}

// Opens and closes the archive `count` times.
QJsonObject MeasureOpen(const QString& peer, const QByteArray& archive, int count) {
  std::vector<double> times;
  MakeReader(peer, archive);
  for (int i = 0; i < count; ++i) {
    const double begin = Microseconds();
    const auto reader = MakeReader(peer, archive);
    times.push_back(Microseconds() - begin);
  }
  const double before = HeapBytes();
  const auto reader = MakeReader(peer, archive);
  return {{"microseconds", Median(times)}, {"heap_bytes", HeapBytes() - before}};
}

// Extracts `count` times, the first `different` names in turn. The memory is that of the first extraction.
QJsonObject MeasureExtract(const QString& peer, const QByteArray& archive, int count, int different) {
  std::vector<QString> names = ShuffledNames(archive);
  names.resize(std::min(names.size(), static_cast<std::size_t>(different)));
  const auto reader = MakeReader(peer, archive);
  std::ofstream("/proc/self/clear_refs") << '5' << std::flush;
  const double resident = Resident("VmRSS:");
  qint64 bytes = 0;
  int failed = reader->Extract(names[0]) < 0 ? 1 : 0;
  const double peak = Resident("VmHWM:") - resident;
  const double begin = Microseconds();
  for (int i = 0; i < count; ++i) {
    const qint64 size = reader->Extract(names[static_cast<std::size_t>(i) % names.size()]);
    bytes += std::max<qint64>(size, 0);
    failed += size < 0 ? 1 : 0;
  }
  return {{"microseconds", (Microseconds() - begin) / count},
          {"bytes", static_cast<double>(bytes) / count},
          {"failed", failed},
          {"peak_bytes", peak}};
}

}  // namespace orvan::bench

int main(int argc, char** argv) {
  using namespace orvan::bench;
  QCoreApplication application(argc, argv);
  QCommandLineParser parser;
  parser.addOptions({{"peer", "Who reads.", "name"},
                     {"measure", "open, extract, lookup, partial or fetch.", "what"},
                     {"count", "How often.", "number", "10"},
                     {"different", "How many entries in turn.", "number", "1000000000"}});
  parser.addPositionalArgument("what", "The archive's path, the names' prefix, or the server's URL.");
  parser.process(application);
  const QString of = parser.positionalArguments().value(0);
  const QString peer = parser.value("peer");
  const QString measure = parser.value("measure");
  const int count = parser.value("count").toInt();
  const auto print = [](const QJsonObject& result) {
    std::puts(QJsonDocument(result).toJson(QJsonDocument::Compact).constData());
    return 0;
  };
  if (measure == "lookup") return print(MeasureLookUp(peer, of, count));
  if (measure == "partial") return print(MeasurePartialSearch(count));
  if (measure == "fetch") return print(MeasureFetch(peer, of, count));

  QFile file(of);
  if (!file.open(QIODevice::ReadOnly)) return 1;
  const QByteArray archive = file.readAll();
  if (!MakeReader(peer, archive)) return 1;
  if (measure == "open") return print(MeasureOpen(peer, archive, count));
  return print(MeasureExtract(peer, archive, count, parser.value("different").toInt()));
}
