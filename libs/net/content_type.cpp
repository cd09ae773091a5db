#include "orvan/net/content_type.h"

#include <QUrl>
#include <algorithm>
#include <iterator>

#include "orvan/net/fetcher.h"
#include "orvan/support/file/kmz_zip.h"

namespace orvan {
namespace {

// May `c` follow a media type's name and still belong to it ("text/html5", "text/html+x")?
bool ContinuesMediaType(QChar c) {
  static const char kMarks[] = "!#$&.+-^_";
  const ushort code = c.unicode();
  if (code > 0x7F) return c.isLetterOrNumber();
  const bool is_letter = code >= 0x41 && code <= 0x7A && (code < 0x5B || code > 0x60);
  const bool is_digit = code >= '0' && code <= '9';
  const char* const marks_end = std::end(kMarks) - 1;  // without the NUL, which is no mark
  return is_letter || is_digit || std::find(kMarks, marks_end, static_cast<char>(code)) != marks_end;
}

}  // namespace

bool StartsWithMimeType(const QString& text, const QString& mime) {
  if (!text.startsWith(mime, Qt::CaseSensitive)) return false;
  return text.size() == mime.size() || !ContinuesMediaType(text.at(mime.size()));
}

namespace net {

const QString kKmlMediaType = QStringLiteral("application/vnd.quorex-orvan.kml+xml");
const QString kKmzMediaType = QStringLiteral("application/vnd.quorex-orvan.kmz");

namespace {

struct MediaKind {
  const char* name;  // a media type, or the ending of a URL
  int kind;
};

// Not a slip: "image/jpg", although "image/jpeg" is the registered name. It is meant so: with the latter
// added, answers that are kMimeOther to callers of GetMimeType() would become kMimeJpeg.
// ContentTypeTest.ClassifiesByTheHeaderOrByTheUrl holds this in place.
constexpr MediaKind kMediaTypes[] = {
    {"application/vnd.quorex-orvan.kml+xml", kMimeKml},
    {"application/vnd.quorex-orvan.kmz", kMimeKmz},
    {"text/html", kMimeHtml},
    {"application/xml", kMimeXml},
    {"text/xml", kMimeXml},
    {"text/xml-external-parsed-entity", kMimeXml},
    {"image/jpg", kMimeJpeg},
    {"image/png", kMimePng},
    {"image/gif", kMimeGif},
};

// Not a slip: ".kmz" is missing, an archive is recognised by its content.
constexpr MediaKind kEndings[] = {
    {".kml", kMimeKml},
    {".jpg", kMimeJpeg},
    {".png", kMimePng},
    {".gif", kMimeGif},
};

bool IsKmlUrl(const QString& url) { return url.endsWith(QLatin1String(".kml"), Qt::CaseInsensitive); }

int KindOfUrl(const QString& url) {
  for (const MediaKind& row : kEndings) {
    if (url.endsWith(QLatin1String(row.name), Qt::CaseInsensitive)) return row.kind;
  }
  return kMimeNone;
}

int KindOfMediaType(const QString& content_type) {
  for (const MediaKind& row : kMediaTypes) {
    if (StartsWithMimeType(content_type, QString::fromLatin1(row.name))) return row.kind;
  }
  return kMimeNone;
}

}  // namespace

int Fetcher::GetMimeTypeFromContentTypeOrUrl(const QString& content_type, const QString& url) {
  const QString trimmed = content_type.trimmed();
  if (trimmed.isEmpty()) return KindOfUrl(url);
  const int kind = KindOfMediaType(trimmed);
  return kind == kMimeXml && IsKmlUrl(url) ? kMimeKml : kind;  // servers call KML plain XML
}

void Fetcher::EditToAcceptKMZ(mmvector<RequestHeader>& headers) {
  for (RequestHeader& header : headers) {
    if (header.type != RequestHeader::kAcceptTypes) continue;
    if (header.text.contains(kKmzMediaType, Qt::CaseSensitive)) continue;
    header.text += QLatin1Char(',') + kKmzMediaType;
  }
}

bool Fetcher::IsKmzData(const unsigned char* data, int size) { return kmz::IsKmzData(data, size); }

QString Fetcher::SanitizeUrlString(const QString& url) {
  QString plain = url;
  if (plain.startsWith(QLatin1String("file://"), Qt::CaseSensitive)) {
    plain.remove(0, 7);
    if (plain.indexOf(QLatin1String(":/")) == 2) plain.remove(0, 1);  // "/C:/x" of "file:///C:/x"
  }
  // Not a slip: HTTP URLs lose their escapes too. Cache keys are the decoded text, and an archive that was
  // stored under one form of its address would not be found under the other.
  const QUrl parsed = QUrl::fromEncoded(url.toUtf8(), QUrl::TolerantMode);
  const bool is_url =
      parsed.isValid() && !parsed.isRelative() && parsed.scheme().size() > 1;  // no drive letter
  return is_url ? QUrl::fromPercentEncoding(plain.toUtf8()) : plain;
}

}  // namespace net
}  // namespace orvan
