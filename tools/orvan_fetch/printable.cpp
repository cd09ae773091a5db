#include "tools/orvan_fetch/printable.h"

#include <QJsonDocument>
#include <QTextCodec>
#include <algorithm>

namespace orvan_fetch {
namespace {

bool IsUnfit(ushort c) {
  return c < 0x20 || (c >= 0x7F && c <= 0x9F) || c == 0x061C || c == 0x200E || c == 0x200F ||
         (c >= 0x2028 && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069) || c == 0xFEFF;
}

QString Escaped(const QString& text) {
  QString escaped;
  escaped.reserve(text.size());
  for (const QChar c : text) {
    if (IsUnfit(c.unicode())) {
      escaped += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
    } else {
      escaped += c;
    }
  }
  return escaped;
}

}  // namespace

QString Printable(const QString& text) { return Escaped(text); }

bool HasControlCharacter(const QString& text) {
  return std::any_of(text.cbegin(), text.cend(), [](QChar c) { return c < QChar(0x20) || c == QChar(0x7F); });
}

QByteArray JsonLine(const QJsonObject& object) {
  // Qt escapes what JSON demands, which leaves DEL, C1 and the direction marks. In compact form they can
  // only be inside a string, where JSON takes the same escape.
  const QByteArray json = QJsonDocument(object).toJson(QJsonDocument::Compact);
  return Escaped(QString::fromUtf8(json)).toUtf8();
}

bool IsFitForTerminal(const QByteArray& bytes) {
  QTextCodec::ConverterState state;
  const QString text = QTextCodec::codecForName("UTF-8")->toUnicode(bytes.constData(), bytes.size(), &state);
  const auto unfit = [](ushort c) {
    return IsUnfit(c) && c != '\t' && c != '\n' && c != '\r' && c != 0xFEFF;
  };
  if (state.invalidChars == 0 && state.remainingChars == 0) {
    return std::none_of(text.cbegin(), text.cend(), [&](QChar c) { return unfit(c.unicode()); });
  }
  // Not UTF-8, so each byte may be a character of its own.
  return std::none_of(bytes.cbegin(), bytes.cend(), [&](char c) { return unfit(static_cast<uchar>(c)); });
}

QString ByteCount(double bytes) {
  if (bytes < 1024) return QStringLiteral("%1 bytes").arg(bytes, 0, 'f', 0);
  const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  size_t unit = 0;
  bytes /= 1024;
  while (bytes >= 1024 && unit + 1 < std::size(kUnits)) {
    bytes /= 1024;
    ++unit;
  }
  return QStringLiteral("%1 %2").arg(bytes, 0, 'f', 1).arg(QLatin1String(kUnits[unit]));
}

}  // namespace orvan_fetch
