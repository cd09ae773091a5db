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

// Which of these a name is, by its text alone. A drive letter is no scheme.
ORVAN_NET_EXPORT int GetFileNameType(const QString& name);
// A path or a file URL.
ORVAN_NET_EXPORT bool IsLocalFileName(const QString& name);
// Escapes, as the table says.
ORVAN_NET_EXPORT void UrlEncode(QString& text);
// The way back. "+" stays a plus sign.
ORVAN_NET_EXPORT void UrlDecode(QString& text);
// Escapes bytes, NUL among them.
ORVAN_NET_EXPORT QString UrlQuote(const char* data, unsigned int size);
// The same of a text's UTF-8.
ORVAN_NET_EXPORT QString UrlQuote(const QString& text);
// Escapes the path of a request line.
ORVAN_NET_EXPORT QString EncodeUrlPath(const QString& path);
// Path and query of `url`, ready for a request line; "/" for an empty path.
ORVAN_NET_EXPORT QString GetEncodedPathAndQuery(const QUrl& url);
// The way back. Without a "?", or with nothing behind it, `url` has no query afterwards.
ORVAN_NET_EXPORT void SetEncodedPathAndQuery(QUrl& url, const QString& path_and_query);
// Escapes what is unsafe in a URL, and with `keep_reserved` false what is reserved too. Bytes from 0x80 on
// come out as one Latin-1 character each: escape text that is to survive before.
ORVAN_NET_EXPORT QString FormatUrlString(const QString& text, bool keep_reserved);
// Resolves like QUrl::resolved(), and keeps the base's query unless the reference names a server. An invalid
// URL if either one is.
ORVAN_NET_EXPORT QUrl ResolveUrlPreserveQuery(const QUrl& base, const QUrl& relative);
// The directory part of the decoded path, without a slash at its end.
ORVAN_NET_EXPORT QString DirPath(const QUrl& url);
// Splits `text` at its anchor and returns its GetFileNameType(). Either pointer may be null, and may point to
// `text` itself. The "#" in the name of a file that exists is no anchor; the rest of a URL comes out
// normalised.
ORVAN_NET_EXPORT int StripAnchor(const QString& text, QString* anchor, QString* rest);
// What a user typed: a URL with a host, or an absolute path; else empty.
ORVAN_NET_EXPORT QUrl GetUrlFromUserInput(const QString& text);
// A URL with HTTP or HTTPS; the protocol's default port is left out. `path` begins with "/".
ORVAN_NET_EXPORT QUrl CreateUrl(bool secure, QString host, QString path, int port);

}  // namespace orvan::net
