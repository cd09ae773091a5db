#include "tools/orvan_fetch/archive_task.h"

#include "tools/orvan_fetch/interrupts.h"
#include "tools/orvan_fetch/progress.h"

namespace orvan_fetch {

namespace {

constexpr quint64 kFolderBytes = 4096;  // what a directory takes on disk, more or less

}  // namespace

ArchiveTask::ArchiveTask(const Options& options, Report* report) : options_(options), report_(report) {}

QString ArchiveTask::Prepare() {
  return options_.task == Task::kExtractAll ? folder_.Open(options_.output_path) : QString();
}

bool ArchiveTask::Handle(FetchRecord* record) {
  const FetchedArchive archive(*record);
  if (!archive.problem().isEmpty()) {
    // A failed fetch has its state to tell why.
    const bool not_modified = !options_.if_modified_since.isEmpty() && record->IsEmptySuccess();
    const bool came = record->state == orvan::net::kFetchSuccess || record->is_kmz;
    if (record->problem.isEmpty() && came && !not_modified) record->problem = archive.problem();
    return report_->Print(*record);
  }
  const Entries entries = archive.List();
  record->state = orvan::net::kFetchSuccess;  // the archive came, whether or not it has a main document
  record->entries = static_cast<int>(entries.size());
  record->bytes = archive.size();
  if (options_.task == Task::kExtractAll) return UnpackAll(archive, entries, record);
  return (options_.json || report_->Print(*record)) && report_->PrintList(archive.url(), entries);
}

bool ArchiveTask::UnpackAll(const FetchedArchive& archive, const Entries& entries, FetchRecord* record) {
  RunTotals totals;
  Progress progress(record->entries);
  for (const orvan::kmz::ArchiveEntry& entry : entries) {
    if (Interrupts::Pending()) break;
    const UnpackedEntry unpacked = UnpackOne(archive, entry);
    ++totals.done;
    totals.bytes += unpacked.bytes;
    if (!unpacked.problem.isEmpty()) ++totals.failed;
    if (options_.json || !unpacked.problem.isEmpty()) {
      progress.Clear();
      if (!report_->PrintUnpacked(archive.url(), entry, unpacked)) return false;
    }
    progress.Update(totals);
  }
  progress.Clear();

  const int missing = record->entries - totals.done + totals.failed;
  if (missing > 0) {
    record->problem = QStringLiteral("%1 of %2 entries were left out").arg(missing).arg(record->entries);
  }
  record->bytes = totals.bytes;
  record->saved_as = options_.output_path;
  return options_.json || report_->Print(*record);
}

UnpackedEntry ArchiveTask::UnpackOne(const FetchedArchive& archive, const orvan::kmz::ArchiveEntry& entry) {
  const EntryPath path = EntryPath::Of(entry.name);
  if (!path.problem.isEmpty()) return {path.problem, QString(), 0};
  // One packed file may serve a thousand entries, so a small archive can be meant to fill the disk.
  // A directory takes a block, too, and needs no packed byte at all.
  const quint64 taken = written_ + folder_.folders_made() * kFolderBytes;
  if (taken > options_.max_total_bytes || entry.size > options_.max_total_bytes - taken) {
    return {QStringLiteral("with its %1 bytes it would be more than --max-total-bytes").arg(entry.size),
            QString(), 0};
  }
  QString problem;
  const QByteArray bytes = archive.Unpack(entry, &problem);
  if (problem.isEmpty() && path.file.isEmpty() && !bytes.isEmpty()) {
    problem = QStringLiteral("it is a directory with contents");
  }
  if (problem.isEmpty()) problem = folder_.Write(path, bytes);
  if (!problem.isEmpty()) return {problem, QString(), 0};
  written_ += static_cast<quint64>(bytes.size());

  QString saved_as = options_.output_path;
  for (const QByteArray& piece : path.folders) saved_as += QLatin1Char('/') + QString::fromUtf8(piece);
  if (!path.file.isEmpty()) saved_as += QLatin1Char('/') + QString::fromUtf8(path.file);
  return {QString(), saved_as, bytes.size()};
}

}  // namespace orvan_fetch
