#pragma once

#include <QString>

#include "orvan/net/export.h"

namespace orvan {

// Whether `text`, the value of a Content-Type line, names the media type `mime`: it starts with it, and what
// follows cannot be more of a type's name.
ORVAN_NET_EXPORT bool StartsWithMimeType(const QString& text, const QString& mime);

namespace net {

// The media kind of a document.
constexpr int kMimeNone = 0;   // nothing known
constexpr int kMimeOther = 1;  // any other kind
constexpr int kMimeXml = 2;    // XML that is not known as KML
constexpr int kMimeKml = 3;
constexpr int kMimeKmz = 4;
constexpr int kMimeHtml = 5;
constexpr int kMimeJpeg = 6;
constexpr int kMimePng = 7;
constexpr int kMimeGif = 8;

// Media types of the two document formats.
extern ORVAN_NET_EXPORT const QString kKmlMediaType;
extern ORVAN_NET_EXPORT const QString kKmzMediaType;

}  // namespace net
}  // namespace orvan
