#pragma once

#include <QByteArray>
#include <QString>
#include <memory>

#include "tools/orvan_fetch/fetch_record.h"
#include "tools/orvan_fetch/file_name.h"
#include "tools/orvan_fetch/options.h"

namespace orvan_fetch {

// Takes the bodies to where the command line wants them: nowhere, a file, a directory or standard output.
//
// Files appear whole or not at all: they are written under another name first.
class BodySink {
 public:
  // `options` must outlive this object.
  explicit BodySink(const Options& options);

  // Makes the directory. An empty text, or what is wrong.
  QString Prepare();

  // Writes the body if the fetch has brought one. Sets saved_as, or problem if that fails.
  void Write(const QByteArray& body, FetchRecord* record);

 private:
  void WriteFile(const QString& path, const QByteArray& body, FetchRecord* record);
  void WriteStandardOutput(const QByteArray& body, FetchRecord* record);

  const Options& options_;
  std::unique_ptr<FreeNames> names_;  // of kDirectory
};

}  // namespace orvan_fetch
