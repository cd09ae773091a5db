#include "tools/orvan_fetch/report.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
#include <QLocale>
#include <cmath>

#include "orvan/net/http/http_status.h"
#include "tools/orvan_fetch/interrupts.h"
#include "tools/orvan_fetch/printable.h"

namespace orvan_fetch {
namespace {

using orvan::kmz::ArchiveEntry;

QString HttpDate(double seconds_since_1970) {
  const QDateTime moment =
      QDateTime::fromMSecsSinceEpoch(static_cast<qint64>(seconds_since_1970 * 1000), Qt::UTC);
  return QLocale::c().toString(moment, QStringLiteral("ddd, dd MMM yyyy hh:mm:ss 'GMT'"));
}

QString Seconds(double seconds) { return QStringLiteral("%1 s").arg(seconds, 0, 'f', 3); }

QString StatusWord(const FetchRecord& record) {
  return record.status ? QString::asprintf("0x%08X", *record.status) : QString();
}

// What came, for people.
QString KindOf(const FetchRecord& record) {
  if (record.entries >= 0) return QStringLiteral("archive with %1 entries").arg(record.entries);
  return record.is_kmz ? QStringLiteral("from an archive") : NameOfMime(record.mime);
}

constexpr char kListHead[] = "             bytes        packed  method     modified             name\n";

QString MethodName(const ArchiveEntry& entry) {
  if (entry.encrypted) return QStringLiteral("encrypted");
  if (entry.method == 0) return QStringLiteral("stored");
  return entry.method == 8 ? QStringLiteral("deflated") : QStringLiteral("method %1").arg(entry.method);
}

// In the archive's own time, whatever zone that is.
QString Modified(const ArchiveEntry& entry, const QString& format) {
  return entry.modified.isValid() ? entry.modified.toString(format) : QString();
}

QByteArray ListLine(const ArchiveEntry& entry) {
  const QString date = Modified(entry, QStringLiteral("yyyy-MM-dd hh:mm:ss"));
  return QStringLiteral("        %1  %2  %3  %4  ")
             .arg(entry.size, 10)
             .arg(entry.packed_size, 12)
             .arg(MethodName(entry), -9)
             .arg(date, -19)
             .toUtf8() +
         Printable(entry.name).toUtf8() + '\n';
}

QJsonObject EntryObject(const QString& url, const ArchiveEntry& entry) {
  return {
      {QStringLiteral("archive"), url},
      {QStringLiteral("name"), entry.name},
      {QStringLiteral("bytes"), static_cast<double>(entry.size)},
      {QStringLiteral("packed"), static_cast<double>(entry.packed_size)},
      {QStringLiteral("method"), entry.method},
      {QStringLiteral("encrypted"), entry.encrypted},
      {QStringLiteral("modified"), Modified(entry, QStringLiteral("yyyy-MM-ddThh:mm:ss"))},
  };
}

}  // namespace

Report::Report(const Options& options)
    : options_(options), stream_(options.output == OutputPlace::kStandardOutput ? stderr : stdout) {}

bool Report::Print(const FetchRecord& record) {
  return Write(options_.json ? AsJson(record) : AsText(record));
}

bool Report::PrintList(const QString& url, const std::vector<ArchiveEntry>& entries) {
  if (!options_.json && !Write(kListHead)) return false;
  for (const ArchiveEntry& entry : entries) {
    if (Interrupts::Pending()) return true;
    if (!Write(options_.json ? JsonLine(EntryObject(url, entry)) + '\n' : ListLine(entry))) return false;
  }
  return true;
}

bool Report::PrintUnpacked(const QString& url, const ArchiveEntry& entry, const UnpackedEntry& unpacked) {
  if (!options_.json) {
    if (unpacked.problem.isEmpty()) return true;
    const QString line = QStringLiteral("left out  \"%1\": %2").arg(entry.name, unpacked.problem);
    return Write(Printable(line).toUtf8() + '\n');
  }
  QJsonObject object = EntryObject(url, entry);
  object.insert(QStringLiteral("ok"), unpacked.problem.isEmpty());
  object.insert(QStringLiteral("problem"), unpacked.problem);
  object.insert(QStringLiteral("saved_as"), unpacked.saved_as);
  return Write(JsonLine(object) + '\n');
}

bool Report::Write(const QByteArray& text) {
  const bool written = std::fwrite(text.constData(), 1, static_cast<size_t>(text.size()), stream_) ==
                       static_cast<size_t>(text.size());
  return std::fflush(stream_) == 0 && written;
}

void Report::PrintTotals(const RunTotals& totals, double seconds) {
  if (options_.json || options_.FetchCount() <= 1) return;
  std::fprintf(stream_, "%d fetches, %d failed, %s in %s\n", totals.done, totals.failed,
               ByteCount(static_cast<double>(totals.bytes)).toUtf8().constData(),
               Seconds(seconds).toUtf8().constData());
  std::fflush(stream_);
}

QByteArray Report::AsText(const FetchRecord& record) const {
  const bool good = record.IsGood(!options_.if_modified_since.isEmpty());
  QStringList lines;
  lines.append((good ? QStringLiteral("ok      ") : QStringLiteral("FAILED  ")) + record.url);
  if (!record.problem.isEmpty()) lines.append(record.problem);
  lines.append(
      QStringLiteral("state %1: %2").arg(record.state).arg(orvan::net::GetFetchStateText(record.state)));
  if (record.status) lines.append(QStringLiteral("status word ") + StatusWord(record));
  // The library can guess a kind from the URL alone, which would only confuse where nothing came.
  lines.append(record.bytes == 0 && !good ? Seconds(record.seconds)
                                          : QStringLiteral("%1, %2 bytes, %3")
                                                .arg(KindOf(record))
                                                .arg(record.bytes)
                                                .arg(Seconds(record.seconds)));
  if (!record.last_modified.isEmpty()) lines.append(QStringLiteral("last modified ") + record.last_modified);
  if (record.expires) lines.append(QStringLiteral("expires ") + HttpDate(*record.expires));
  if (!record.anchor.isEmpty()) lines.append(QStringLiteral("anchor ") + record.anchor);
  if (!record.saved_as.isEmpty()) lines.append(QStringLiteral("saved as ") + record.saved_as);
  if (options_.include_headers) {
    for (const QString& header : record.headers) lines.append(QStringLiteral("< ") + header);
  }
  QString text;
  for (const QString& line : lines) {
    if (!text.isEmpty()) text += QLatin1String("        ");
    text += Printable(line) + QLatin1Char('\n');
  }
  return text.toUtf8();
}

QByteArray Report::AsJson(const FetchRecord& record) const {
  QJsonObject object{
      {QStringLiteral("url"), record.url},
      {QStringLiteral("run"), record.run},
      {QStringLiteral("ok"), record.IsGood(!options_.if_modified_since.isEmpty())},
      {QStringLiteral("state"), record.state},
      {QStringLiteral("text"), orvan::net::GetFetchStateText(record.state)},
      {QStringLiteral("status"), StatusWord(record)},
      {QStringLiteral("problem"), record.problem},
      {QStringLiteral("mime"), NameOfMime(record.mime)},
      {QStringLiteral("content_type"), record.content_type},
      {QStringLiteral("bytes"), record.bytes},
      {QStringLiteral("is_kmz"), record.is_kmz},
      {QStringLiteral("archive"), record.archive},
      {QStringLiteral("archive_path"), record.archive_path},
      {QStringLiteral("last_modified"), record.last_modified},
      {QStringLiteral("expires"), record.expires ? HttpDate(*record.expires) : QString()},
      {QStringLiteral("anchor"), record.anchor},
      {QStringLiteral("seconds"), std::round(record.seconds * 1e6) / 1e6},
      {QStringLiteral("saved_as"), record.saved_as},
  };
  if (options_.include_headers) {
    object.insert(QStringLiteral("headers"), QJsonArray::fromStringList(record.headers));
  }
  return JsonLine(object) + '\n';
}

}  // namespace orvan_fetch
