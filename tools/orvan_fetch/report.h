#pragma once

#include <cstdio>

#include "tools/orvan_fetch/fetch_record.h"
#include "tools/orvan_fetch/options.h"
#include "tools/orvan_fetch/progress.h"

namespace orvan_fetch {

// Tells how each fetch ended, for people or as one JSON object a line. Goes to standard output, unless that
// belongs to a document; then to standard error.
class Report {
 public:
  // `options` must outlive this object.
  explicit Report(const Options& options);

  // False if nobody can read it any more.
  [[nodiscard]] bool Print(const FetchRecord& record);
  // The last line for people, if there was more than one fetch.
  void PrintTotals(const RunTotals& totals, double seconds);

 private:
  QByteArray AsText(const FetchRecord& record) const;
  QByteArray AsJson(const FetchRecord& record) const;

  const Options& options_;
  std::FILE* const stream_;
};

}  // namespace orvan_fetch
