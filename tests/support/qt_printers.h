#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <ostream>

// How GoogleTest prints Qt's types when an expectation fails; without these it prints them byte by byte. The
// build includes this file in every test source: a test program whose files disagreed about how a type is
// printed would have two definitions of one template. Outside any namespace, because the types are.

inline void PrintTo(const QByteArray& bytes, std::ostream* stream) {
  *stream << '"' << bytes.toStdString() << '"';
}

inline void PrintTo(const QString& text, std::ostream* stream) {
  if (text.isNull()) {
    *stream << "(null)";
  } else {
    PrintTo(text.toUtf8(), stream);
  }
}

inline void PrintTo(const QUrl& url, std::ostream* stream) { PrintTo(url.toEncoded(), stream); }
