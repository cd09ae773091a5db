#include "tools/orvan_fetch/file_name.h"

#include <QFileInfo>
#include <QUrl>

#include "orvan/net/content_type.h"
#include "orvan/net/url_text.h"
#include "tools/orvan_fetch/printable.h"

namespace orvan_fetch {
namespace {

// File systems take 255 bytes; the rest is for a number and for the ending of a temporary file.
constexpr int kLongestName = 200;
constexpr int kLongestEnding = 16;

QLatin1String EndingOf(int mime) {
  switch (mime) {
    case orvan::net::kMimeXml:
      return QLatin1String(".xml");
    case orvan::net::kMimeKml:
      return QLatin1String(".kml");
    case orvan::net::kMimeKmz:
      return QLatin1String(".kmz");
    case orvan::net::kMimeHtml:
      return QLatin1String(".html");
    case orvan::net::kMimeJpeg:
      return QLatin1String(".jpg");
    case orvan::net::kMimePng:
      return QLatin1String(".png");
    case orvan::net::kMimeGif:
      return QLatin1String(".gif");
    default:
      return QLatin1String("");
  }
}

QString LastPiece(const QString& url) {
  const bool is_url = orvan::net::GetFileNameType(url) >= orvan::net::kFileNameFileUrl;
  const QString path =
      is_url && !url.startsWith(QLatin1String(":/")) ? QUrl(url).path(QUrl::FullyDecoded) : url;
  return path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
}

// Where the ending begins, its dot included; the length of the name if it has none.
int EndingAt(const QString& name) {
  const int dot = name.lastIndexOf(QLatin1Char('.'));
  return dot > 0 && name.size() - dot <= kLongestEnding ? dot : name.size();
}

QString Shortened(const QString& name) {
  const int ending_at = EndingAt(name);
  const QString ending = name.mid(ending_at);
  QString stem = name.left(ending_at);
  const int room = kLongestName - ending.toUtf8().size();
  while (stem.toUtf8().size() > room) stem.chop(stem.at(stem.size() - 1).isLowSurrogate() ? 2 : 1);
  return stem + ending;
}

}  // namespace

QString FileNameFor(const QString& url, int mime) {
  // By way of UTF-8, which leaves no half of a surrogate pair behind.
  QString name = QString::fromUtf8(LastPiece(url).left(2 * kLongestName).toUtf8()).trimmed();
  for (QChar& c : name) {
    if (c == QLatin1Char('\\') || Printable(c) != c) c = QLatin1Char('_');
  }
  if (name.isEmpty()) return QLatin1String("index") + EndingOf(mime);
  // Dots in front would hide the file or lead out of the directory, a dash would make it an option.
  for (QChar& c : name) {
    if (c != QLatin1Char('.') && c != QLatin1Char('-')) break;
    c = QLatin1Char('_');
  }
  if (mime == orvan::net::kMimeKml && name.endsWith(QLatin1String(".kmz"), Qt::CaseInsensitive)) {
    name.replace(name.size() - 1, 1, QLatin1Char('l'));
  }
  return Shortened(name);
}

QString FreeNames::PathFor(const QString& name) {
  int& number = last_numbers_[name];
  const int ending_at = EndingAt(name);
  while (true) {
    const QString numbered =
        ++number == 1 ? name : name.left(ending_at) + QStringLiteral("-%1").arg(number) + name.mid(ending_at);
    QString path = directory_.filePath(numbered);
    // A link that leads nowhere is taken too: writing to it would make a file somewhere else.
    if (!QFileInfo::exists(path) && !QFileInfo(path).isSymLink()) return path;
  }
}

}  // namespace orvan_fetch
