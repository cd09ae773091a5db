#include "tools/orvan_fetch/body_sink.h"

#include <unistd.h>

#include <QDir>
#include <QFileInfo>
#include <QSaveFile>
#include <cerrno>

#include "tools/orvan_fetch/printable.h"
#include "tools/orvan_fetch/write_all.h"

namespace orvan_fetch {
namespace {

// A document out of an archive goes by its name in there; an archive's main document by that of the archive.
QString NameOf(const FetchRecord& record) {
  if (!record.is_kmz) return FileNameFor(record.document_url, record.mime);
  if (record.archive_path.isEmpty()) return FileNameFor(record.archive, orvan::net::kMimeKml);
  return FileNameFor(QLatin1Char('/') + record.archive_path, orvan::net::kMimeOther);
}

}  // namespace

BodySink::BodySink(const Options& options) : options_(options) {}

QString BodySink::Prepare() {
  if (options_.output != OutputPlace::kDirectory) return QString();
  const QDir directory(options_.output_path);
  if (!directory.mkpath(QStringLiteral("."))) {
    return QStringLiteral("cannot make the directory %1").arg(options_.output_path);
  }
  names_ = std::make_unique<FreeNames>(directory);
  return QString();
}

void BodySink::Write(const QByteArray& body, FetchRecord* record) {
  if (record->state != orvan::net::kFetchSuccess || !record->problem.isEmpty()) return;
  // A server's "not modified" is a success without bytes, which must not empty the copy that is there.
  if (!options_.if_modified_since.isEmpty() && record->IsEmptySuccess()) return;
  switch (options_.output) {
    case OutputPlace::kNowhere:
      break;
    case OutputPlace::kFile:
      WriteFile(options_.output_path, body, record);
      break;
    case OutputPlace::kDirectory:
      WriteFile(names_->PathFor(NameOf(*record)), body, record);
      break;
    case OutputPlace::kStandardOutput:
      WriteStandardOutput(body, record);
      break;
  }
}

void BodySink::WriteFile(const QString& path, const QByteArray& body, FetchRecord* record) {
  const auto write = [&](auto* file, auto finish) {
    if (file->open(QIODevice::WriteOnly) && file->write(body) == body.size() && finish()) {
      record->saved_as = path;
    } else {
      record->problem = QStringLiteral("cannot write %1: %2").arg(path, file->errorString());
    }
  };
  // A device or a pipe cannot be replaced by a file that was written beside it: /dev/null would be gone.
  if (QFileInfo::exists(path) && !QFileInfo(path).isFile()) {
    QFile file(path);
    write(&file, [&] { return file.flush(); });
  } else {
    QSaveFile file(path);
    write(&file, [&] { return file.commit(); });
  }
}

void BodySink::WriteStandardOutput(const QByteArray& body, FetchRecord* record) {
  if (isatty(STDOUT_FILENO) && !IsFitForTerminal(body)) {
    record->problem = QStringLiteral("not written: the document could upset the terminal; use -o FILE");
  } else if (!WriteAll(STDOUT_FILENO, body)) {
    record->problem = QStringLiteral("cannot write to standard output: %1").arg(qt_error_string(errno));
  }
}

}  // namespace orvan_fetch
