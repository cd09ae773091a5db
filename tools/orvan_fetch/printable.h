#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

namespace orvan_fetch {

// Texts of servers and users, made fit for a terminal. Unfit are control characters, C1 ones included, which
// could steer the terminal, and the marks that turn the direction of writing, which could make a line say
// something else than it does.

// `text` with each unfit character as \u001b or the like.
QString Printable(const QString& text);

// Whether there is a line end or another control character in `text`.
bool HasControlCharacter(const QString& text);

// One line of JSON without its line end. Loses nothing: unfit characters are written as JSON escapes.
QByteArray JsonLine(const QJsonObject& object);

// Whether a document may go to a terminal as it stands: text, with tabs and line ends at most.
bool IsFitForTerminal(const QByteArray& bytes);

// "17 bytes", "3.4 KiB", "1.2 GiB".
QString ByteCount(double bytes);

}  // namespace orvan_fetch
