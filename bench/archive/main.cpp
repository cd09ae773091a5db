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
#include <chrono>
#include <cstdio>
#include <fstream>
#include <random>
#include <vector>

#include "bench/archive/reader.h"
#include "orvan/support/file/kmz_zip.h"

namespace orvan::bench {
namespace {

using Clock = std::chrono::steady_clock;

double MicrosecondsSince(Clock::time_point begin) {
  return std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
}

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
    const auto begin = Clock::now();
    const auto reader = MakeReader(peer, archive);
    times.push_back(MicrosecondsSince(begin));
  }
  const std::size_t before = mallinfo2().uordblks;
  const auto reader = MakeReader(peer, archive);
  const std::size_t after = mallinfo2().uordblks;
  return {{"microseconds", Median(times)}, {"heap_bytes", static_cast<double>(after - before)}};
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
  const auto begin = Clock::now();
  for (int i = 0; i < count; ++i) {
    const qint64 size = reader->Extract(names[static_cast<std::size_t>(i) % names.size()]);
    bytes += std::max<qint64>(size, 0);
    failed += size < 0 ? 1 : 0;
  }
  return {{"microseconds", MicrosecondsSince(begin) / count},
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
                     {"measure", "open or extract.", "what"},
                     {"count", "How often.", "number", "10"},
                     {"different", "How many entries in turn.", "number", "1000000000"}});
  parser.addPositionalArgument("archive", "The archive's path.");
  parser.process(application);
  QFile file(parser.positionalArguments().value(0));
  if (!file.open(QIODevice::ReadOnly)) return 1;
  const QByteArray archive = file.readAll();
  const QString peer = parser.value("peer");
  if (!MakeReader(peer, archive)) return 1;
  const int count = parser.value("count").toInt();
  const QJsonObject result = parser.value("measure") == "open"
                                 ? MeasureOpen(peer, archive, count)
                                 : MeasureExtract(peer, archive, count, parser.value("different").toInt());
  std::puts(QJsonDocument(result).toJson(QJsonDocument::Compact).constData());
  return 0;
}
