#pragma once

#include <QByteArray>
#include <QList>
#include <QNetworkCookie>
#include <QNetworkRequest>
#include <QString>

namespace orvan::net {

// From the header lines of a request to what Qt sends (RFC 7230, 3.2). Internal; any thread.

// `value` as it may stand in one header line: each run of CR, LF and NUL becomes one blank. Qt writes values
// out as they are, so a line end inside one would begin a header of its own.
QByteArray SingleLine(const QByteArray& value);

// Sets the header of `line`, "Name: value", over an earlier one of the same name in whatever case. Skipped
// without a word: a line without a colon, and one whose name is no token, which a line end would make of it.
// A line whose name begins with "Cookie" also adds its pairs to `jar_cookies`.
void AddHeaderLine(const QString& line, QNetworkRequest* wire, QList<QNetworkCookie>* jar_cookies);

}  // namespace orvan::net
