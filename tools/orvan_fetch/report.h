#pragma once

#include <cstdio>
#include <vector>

#include "orvan/support/file/kmz_zip.h"
#include "tools/orvan_fetch/fetch_record.h"
#include "tools/orvan_fetch/options.h"
#include "tools/orvan_fetch/progress.h"

namespace orvan_fetch {

// What has become of an entry of an archive.
struct UnpackedEntry {
  QString problem;   // why it was left out, or empty
  QString saved_as;  // empty if it was left out
  qint64 bytes = 0;
};

// Tells how each fetch ended, for people or as one JSON object a line. Goes to standard output, unless that
// belongs to a document; then to standard error.
class Report {
 public:
  // `options` must outlive this object.
  explicit Report(const Options& options);

  // False if nobody can read it any more.
  [[nodiscard]] bool Print(const FetchRecord& record);
  // A list of what is in the archive at `url`; the next operation, of one entry that was unpacked or left
  // out. For people only those that were left out are worth a line.
  [[nodiscard]] bool PrintList(const QString& url, const std::vector<orvan::kmz::ArchiveEntry>& entries);
  [[nodiscard]] bool PrintUnpacked(const QString& url, const orvan::kmz::ArchiveEntry& entry,
                                   const UnpackedEntry& unpacked);
  // The last line for people, if there was more than one fetch.
  void PrintTotals(const RunTotals& totals, double seconds);

 private:
  bool Write(const QByteArray& text);
  QByteArray AsText(const FetchRecord& record) const;
  QByteArray AsJson(const FetchRecord& record) const;

  const Options& options_;
  std::FILE* const stream_;
};

}  // namespace orvan_fetch
