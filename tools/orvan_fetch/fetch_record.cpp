#include "tools/orvan_fetch/fetch_record.h"

#include <QUrl>
#include <limits>

#include "orvan/net/server/server_info.h"

namespace orvan_fetch {
namespace {

constexpr int kHttpNotModified = 304;

bool IsNetworkUrl(const QString& url) { return orvan::net::ServerInfo::IsHttp(QUrl(url).scheme(), true); }

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
  // A connection that breaks off in mid-body ends as a success without bytes, and without header lines. A
  // real answer has header lines, so the two can be told apart here; scripts rely on the exit status.
  if (record.IsEmptySuccess() && record.headers.isEmpty() && IsNetworkUrl(record.document_url)) {
    record.problem = QStringLiteral("neither header lines nor bytes came: the answer broke off");
  }
  return record;
}

QString NameOfMime(int mime) {
  static const char* const kNames[] = {"none", "other", "xml", "kml", "kmz", "html", "jpeg", "png", "gif"};
  const auto index = static_cast<size_t>(mime);
  return index < std::size(kNames) ? QString::fromLatin1(kNames[index]) : QString::number(mime);
}

}  // namespace orvan_fetch
