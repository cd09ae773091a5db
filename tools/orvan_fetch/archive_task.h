#pragma once

#include <QString>
#include <vector>

#include "tools/orvan_fetch/fetch_record.h"
#include "tools/orvan_fetch/fetched_archive.h"
#include "tools/orvan_fetch/options.h"
#include "tools/orvan_fetch/report.h"
#include "tools/orvan_fetch/unpack_folder.h"

namespace orvan_fetch {

// What --list and --extract-all do with the archive that a fetch has brought.
//
// Threads: main thread only, for as long as unpacking takes; a progress line on standard error tells how far
//          it is. Ctrl-C ends it between two entries.
class ArchiveTask {
 public:
  // Both must outlive this object.
  ArchiveTask(const Options& options, Report* report);

  // Makes the directory. An empty text, or what is wrong.
  QString Prepare();

  // Lists or unpacks, and reports. Sets problem if not all of it went well. False if nobody can read the
  // report any more.
  [[nodiscard]] bool Handle(FetchRecord* record);

 private:
  using Entries = std::vector<orvan::kmz::ArchiveEntry>;

  bool UnpackAll(const FetchedArchive& archive, const Entries& entries, FetchRecord* record);
  UnpackedEntry UnpackOne(const FetchedArchive& archive, const orvan::kmz::ArchiveEntry& entry);

  const Options& options_;
  Report* const report_;
  UnpackFolder folder_;
  quint64 written_ = 0;  // bytes of files
};

}  // namespace orvan_fetch
