#include "tools/orvan_fetch/fetch_record.h"

#include <QUrl>
#include <limits>

#include "orvan/net/server/server_info.h"

namespace orvan_fetch {
namespace {

constexpr int kHttpNotModified = 304;

bool IsNetworkUrl(const QString& url) { return orvan::net::ServerInfo::IsHttp(QUrl(url).scheme(), true); }

// A connection that breaks off in mid-body ends as a success without bytes, and without header lines. A real
// answer has header lines, so the two can be told apart here; scripts rely on the exit status.
void NoteBrokenAnswer(FetchRecord* record) {
  if (record->IsEmptySuccess() && record->headers.isEmpty() && IsNetworkUrl(record->document_url)) {
    record->problem = QStringLiteral("neither header lines nor bytes came: the answer broke off");
  }
}

orvan::net::FetchState StateOf(unsigned int status) {
  using namespace orvan::net;
  switch (status) {
    case kStatusFailed:
      return kFetchInvalidRequest;
    case kStatusNoConnection:
      return kFetchNoConnection;
    case kStatusOutOfMemory:
      return kFetchOutOfMemory;
    case kStatusUnacceptableType:
      return kFetchUnexpectedType;
    default:
      break;
  }
  if (status >> 30 != kStatusSeverityError) return kFetchSuccess;
  const bool is_http = (status & kStatusFacilityMask) == kStatusHttpFacility;
  return is_http ? static_cast<int>(status & kStatusCodeMask) : kFetchUnknownError;
}

// The value of the first line with that name.
QString HeaderValue(const QStringList& lines, const QString& name) {
  for (const QString& line : lines) {
    const int colon = line.indexOf(QLatin1Char(':'));
    if (line.left(colon).compare(name, Qt::CaseInsensitive) == 0) return line.mid(colon + 1).trimmed();
  }
  return QString();
}

}  // namespace

bool FetchRecord::IsGood(bool not_modified_is_good) const {
  if (!problem.isEmpty()) return false;
  if (state == orvan::net::kFetchSuccess) return true;
  const bool not_modified = state == orvan::net::kFetchNotModified || state == kHttpNotModified;
  return not_modified && not_modified_is_good;
}

FetchRecord RecordOf(const orvan::net::Fetcher& fetch) {
  FetchRecord record;
  record.state = fetch.GetState();
  record.document_url = fetch.GetUrl();
  record.anchor = fetch.GetAnchor();
  record.mime = fetch.GetMimeType();
  record.bytes = fetch.getSize();
  record.is_kmz = fetch.IsKmz();
  if (record.is_kmz) {
    // What it says of the cache makes no difference: the archive has been found before.
    (void)orvan::net::Fetcher::FindInKmz(record.document_url, record.archive, record.archive_path);
    if (record.archive.isEmpty()) record.archive = record.document_url;
  }
  record.content_type = fetch.GetContentType();
  record.last_modified = fetch.GetLastModified().trimmed();  // a server's comes with the blank in front
  const double expires = fetch.GetExpireTime();
  if (expires < std::numeric_limits<double>::max()) record.expires = expires;
  for (int i = 0; i < fetch.GetResponseHeaderCount(); ++i) {
    record.headers.append(fetch.GetResponseHeader(static_cast<unsigned long>(i)));
  }
  NoteBrokenAnswer(&record);
  return record;
}

FetchRecord RecordOf(const QUrl& url, const QByteArray& body, const orvan::net::ResponseInfo& info) {
  FetchRecord record;
  record.state = StateOf(info.status);
  record.status = info.status;
  record.document_url = url.toString(QUrl::RemoveFragment);
  record.anchor = url.fragment();
  record.bytes = body.size();
  if (info.headers) {
    for (const QString& line : info.headers->headers) record.headers.append(line);
  }
  record.content_type = HeaderValue(record.headers, QStringLiteral("Content-Type"));
  record.last_modified = HeaderValue(record.headers, QStringLiteral("Last-Modified"));
  record.mime =
      orvan::net::Fetcher::GetMimeTypeFromContentTypeOrUrl(record.content_type, record.document_url);
  if (record.mime == orvan::net::kMimeNone) record.mime = orvan::net::kMimeOther;  // as a Fetcher has it
  NoteBrokenAnswer(&record);
  return record;
}

QString NameOfMime(int mime) {
  static const char* const kNames[] = {"none", "other", "xml", "kml", "kmz", "html", "jpeg", "png", "gif"};
  const auto index = static_cast<size_t>(mime);
  return index < std::size(kNames) ? QString::fromLatin1(kNames[index]) : QString::number(mime);
}

}  // namespace orvan_fetch
