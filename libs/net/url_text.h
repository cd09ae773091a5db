#pragma once

#include <QString>
#include <QUrl>

#include "orvan/net/export.h"

namespace orvan::net {

// The library's rules for turning text into URLs and back. QUrl parses (RFC 3986); the sets of characters to
// escape are the library's own, and differ from rule to rule:
//
//   function         input           kept                                        escapes
//   UrlEncode        text, in place  letters, digits, - . _ /                    UTF-8, upper case
//   EncodeUrlPath    decoded path    letters, digits, - . _ /!$&'()*+,;=         UTF-8, upper case
//   UrlQuote         bytes           letters, digits, _ - ~ .                    upper case
//   FormatUrlString  a whole URL     see there                                   upper case
//
// Threads: all functions on any thread.

// What GetFileNameType() tells apart.
constexpr int kFileNameEmpty = 0;
constexpr int kFileNamePath = 1;     // a local path, or text without a valid scheme
constexpr int kFileNameFileUrl = 2;  // a URL with the scheme "file", in any case
constexpr int kFileNameUrl = 3;      // any other URL, and ":/resource"

ORVAN_NET_EXPORT int GetFileNameType(const QString& name);
ORVAN_NET_EXPORT void UrlEncode(QString& text);
// "+" stays a plus sign.
ORVAN_NET_EXPORT void UrlDecode(QString& text);
ORVAN_NET_EXPORT QString UrlQuote(const char* data, unsigned int size);
ORVAN_NET_EXPORT QString UrlQuote(const QString& text);
ORVAN_NET_EXPORT QString EncodeUrlPath(const QString& path);
// Path and query of `url`, ready for a request line; "/" for an empty path.
ORVAN_NET_EXPORT QString GetEncodedPathAndQuery(const QUrl& url);
ORVAN_NET_EXPORT void SetEncodedPathAndQuery(QUrl& url, const QString& path_and_query);
// Escapes what is unsafe in a URL, and with `keep_reserved` false what is reserved too. Bytes from 0x80 on
// come out as one Latin-1 character each: escape text that is to survive before.
ORVAN_NET_EXPORT QString FormatUrlString(const QString& text, bool keep_reserved);
// Resolves like QUrl::resolved(), and keeps the base's query unless the reference names a server.
ORVAN_NET_EXPORT QUrl ResolveUrlPreserveQuery(const QUrl& base, const QUrl& relative);
ORVAN_NET_EXPORT QString DirPath(const QUrl& url);
// Splits `text` at its anchor and returns its GetFileNameType(). Either pointer may be null, and may point to
// `text` itself. The "#" in the name of a file that exists is no anchor; the rest of a URL comes out
// normalised.
ORVAN_NET_EXPORT int StripAnchor(const QString& text, QString* anchor, QString* rest);
// What a user typed: a URL with a host, or an absolute path; else empty.
ORVAN_NET_EXPORT QUrl GetUrlFromUserInput(const QString& text);
ORVAN_NET_EXPORT QUrl CreateUrl(bool secure, QString host, QString path, int port);

}  // namespace orvan::net
