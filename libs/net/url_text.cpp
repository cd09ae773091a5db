#include "orvan/net/url_text.h"

#include <QFile>
#include <QFileInfo>
#include <array>

#include "orvan/net/server/server_info.h"
#include "orvan/support/text/text.h"

namespace orvan::net {
namespace {

bool IsAsciiLetter(ushort c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool IsAsciiDigit(ushort c) { return c >= '0' && c <= '9'; }

// May `c` stand in a URL's scheme (RFC 3986, 3.1)?
bool IsSchemeCharacter(ushort c, bool first) {
  return IsAsciiLetter(c) || (!first && (IsAsciiDigit(c) || c == '+' || c == '.' || c == '-'));
}

// Number of characters before the ":" that ends the scheme of `text`, or -1 if `text` has no valid one.
int SchemeLength(const QString& text) {
  for (int i = 0; i < text.size(); ++i) {
    const ushort c = text.at(i).unicode();
    if (c == ':') return i;
    if (!IsSchemeCharacter(c, i == 0)) return -1;
  }
  return -1;
}

// Does `rest`, which follows "C:", make a path on that drive? "C://x" is a URL of the scheme "c".
bool ContinuesDrivePath(const QStringRef& rest) {
  if (rest.startsWith(QLatin1Char('\\'))) return true;
  return rest.startsWith(QLatin1Char('/')) && !rest.startsWith(QLatin1String("//"));
}

// A "%5C" in the third place is a drive path that came escaped ("C:%5Cdir"). Nowhere else is anything
// decoded: "%5C" may be part of a name.
bool HasEscapedDrive(const QString& name) { return name.midRef(2, 3) == QLatin1String("%5C"); }

void AppendEscaped(QString* text, unsigned char byte) {
  static const char kDigits[] = "0123456789ABCDEF";
  text->append(QLatin1Char('%'));
  text->append(QLatin1Char(kDigits[byte >> 4]));
  text->append(QLatin1Char(kDigits[byte & 0x0F]));
}

// Stays as it is in UrlQuote(): the unreserved characters of RFC 3986, 2.3.
bool IsUnreserved(unsigned char c) {
  return IsAsciiLetter(c) || IsAsciiDigit(c) || c == '_' || c == '-' || c == '~' || c == '.';
}

// How FormatUrlString() treats a byte.
enum class UrlByte : unsigned char { kPlain, kUnsafe, kReserved };

constexpr std::array<UrlByte, 256> MakeUrlByteTable() {
  std::array<UrlByte, 256> table{};  // all kPlain: letters, digits, !$()*-. and whatever is not printable
  for (const char* c = " \"[\\]^`{|}~"; *c != '\0'; ++c)
    table[static_cast<unsigned char>(*c)] = UrlByte::kUnsafe;
  for (const char* c = "#%&'+,/:;<=>?@_"; *c != '\0'; ++c) {
    table[static_cast<unsigned char>(*c)] = UrlByte::kReserved;
  }
  return table;
}
constexpr std::array<UrlByte, 256> kUrlBytes = MakeUrlByteTable();

// What is left of a path or URL once its anchor is taken off.
struct Split {
  QString anchor;
  QString rest;
};

Split SplitPath(const QString& path) {
  const int hash = path.lastIndexOf(QLatin1Char('#'));
  if (hash <= 0 || QFile(path).exists()) return {QString(), path};
  return {path.mid(hash + 1), path.left(hash)};
}

Split SplitUrl(const QString& text) {
  if (text.lastIndexOf(QLatin1Char('#')) <= 0) return {QString(), text};
  const QUrl url = ServerInfo::QUrlFromQString(text);
  if (!url.hasFragment()) return {QString(), text};
  return {url.fragment(), QString::fromLatin1(url.toEncoded(QUrl::RemoveFragment))};
}

int TypeOfText(const QString& text) {
  if (text.startsWith(QLatin1Char('/'))) return kFileNamePath;
  const int length = SchemeLength(text);
  if (length < 0) return kFileNamePath;
  if (length == 1) return ContinuesDrivePath(text.midRef(2)) ? kFileNamePath : kFileNameUrl;
  const bool is_file = text.leftRef(length).compare(QLatin1String("file"), Qt::CaseInsensitive) == 0;
  return is_file ? kFileNameFileUrl : kFileNameUrl;
}

}  // namespace

// Asked for every look into the cache of archives, hence not a copy of the text more than needed.
int GetFileNameType(const QString& name) {
  if (name.isEmpty()) return kFileNameEmpty;
  if (HasEscapedDrive(name)) return TypeOfText(QUrl::fromPercentEncoding(name.toUtf8()));
  return TypeOfText(name);
}

bool IsLocalFileName(const QString& name) {
  const int type = GetFileNameType(name);
  return type == kFileNamePath || type == kFileNameFileUrl;
}

void UrlEncode(QString& text) {
  if (text.isEmpty()) return;
  // Not a slip: the list takes the tilde, which QUrl would keep. UrlQuote() keeps it. Cached names and
  // request paths that were made with either would change. UrlTextTest.EscapesText holds all four sets.
  text = TextFromBytes(QUrl::toPercentEncoding(text, QByteArrayLiteral("/"),
                                               QByteArrayLiteral("+<>#@\"&%$:,;?={}|^~[]'`\\ \n\t\r")));
}

void UrlDecode(QString& text) {
  if (!text.isEmpty()) text = QUrl::fromPercentEncoding(text.toUtf8());
}

QString UrlQuote(const char* data, unsigned int size) {
  QString quoted;
  for (unsigned int i = 0; i < size; ++i) {
    const auto byte = static_cast<unsigned char>(data[i]);
    if (IsUnreserved(byte)) {
      quoted.append(QLatin1Char(data[i]));
    } else {
      AppendEscaped(&quoted, byte);
    }
  }
  return quoted;
}

QString UrlQuote(const QString& text) {
  const QByteArray bytes = text.toUtf8();
  return UrlQuote(bytes.constData(), static_cast<unsigned int>(bytes.size()));
}

QString EncodeUrlPath(const QString& path) {
  return TextFromBytes(QUrl::toPercentEncoding(path, QByteArrayLiteral("/!$&'()*+,;="),
                                               QByteArrayLiteral("<>#@\"%:?{}|^~[]`\\ \n\t\r")));
}

QString GetEncodedPathAndQuery(const QUrl& url) {
  const QString path = url.path(QUrl::FullyDecoded);
  const QString query = url.query(QUrl::FullyEncoded);
  const QString encoded = path.isEmpty() ? ServerInfo::GetDefaultPath() : EncodeUrlPath(path);
  return query.isEmpty() ? encoded : encoded + QLatin1Char('?') + query;
}

void SetEncodedPathAndQuery(QUrl& url, const QString& path_and_query) {
  const int mark = path_and_query.indexOf(QLatin1Char('?'));
  QString path = path_and_query.left(mark);  // all of it for -1
  const QString query = mark < 0 ? QString() : path_and_query.mid(mark + 1);
  UrlDecode(path);
  url.setPath(path, QUrl::DecodedMode);
  if (query.isEmpty()) {
    url.setQuery(QString(), QUrl::TolerantMode);  // null: the URL has no query any more
  } else {
    url.setQuery(query, QUrl::StrictMode);
  }
}

QString FormatUrlString(const QString& text, bool keep_reserved) {
  if (text.isEmpty()) return QStringNull();
  QString formatted;
  const QByteArray bytes = text.toUtf8();
  for (const char* c = bytes.constData(); *c != '\0'; ++c) {
    const auto byte = static_cast<unsigned char>(*c);
    const UrlByte kind = kUrlBytes[byte];
    if (kind == UrlByte::kUnsafe || (kind == UrlByte::kReserved && !keep_reserved)) {
      AppendEscaped(&formatted, byte);
    } else {
      // Not a slip: a UTF-8 sequence comes out as one Latin-1 character per byte. The callers' URLs go over
      // the wire as Latin-1, so the server gets the sequence whole; escaping it here would change them.
      formatted.append(QLatin1Char(*c));
    }
  }
  return formatted;
}

QUrl ResolveUrlPreserveQuery(const QUrl& base, const QUrl& relative) {
  if (!base.isValid() || (!relative.isValid() && !relative.isEmpty())) return QUrl();
  QUrl result = base.resolved(relative);
  if (!relative.authority().isEmpty()) return result;

  // Not a slip: the standard resolution drops the base's query as soon as the reference has a path. Here what
  // a document links to is asked for with the query that the document itself was asked for with.
  // UrlTextTest.ResolvesAndKeepsTheQueryOfTheBase holds this in place.
  QByteArray query = base.query(QUrl::FullyEncoded).toLatin1();
  if (relative.hasQuery()) {
    if (!query.isEmpty()) query.append('&');
    query.append(relative.query(QUrl::FullyEncoded).toLatin1());
  }
  if (!query.isEmpty()) result.setQuery(QString::fromLatin1(query), QUrl::StrictMode);
  return result;
}

QString DirPath(const QUrl& url) {
  const QFileInfo file(url.path(QUrl::FullyDecoded));
  return file.isRelative() ? file.path() : file.absolutePath();
}

int StripAnchor(const QString& text, QString* anchor, QString* rest) {
  const int type = GetFileNameType(text);
  Split split{QString(), text};
  if (type == kFileNamePath) split = SplitPath(text);
  if (type == kFileNameFileUrl || type == kFileNameUrl) split = SplitUrl(text);
  // Last, because either may be `text` itself.
  if (anchor != nullptr) *anchor = split.anchor;
  if (rest != nullptr) *rest = split.rest;
  return type;
}

QUrl GetUrlFromUserInput(const QString& text) {
  QUrl url = QUrl::fromUserInput(text);
  if (url.isValid() && !url.host().isEmpty()) return url;
  if (!IsLocalFileName(text) || QFileInfo(text).isRelative()) return QUrl();
  url = QUrl::fromLocalFile(text);
  return url.isValid() ? url : QUrl();
}

// The two texts come by value, as agreed with callers.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
QUrl CreateUrl(bool secure, QString host, QString path, int port) {
  const QString protocol = ServerInfo::GetHttpProtocolString(secure);
  QString text = protocol + QLatin1String("://") + host;
  if (port != ServerInfo::GetDefaultPort(protocol)) text += QLatin1Char(':') + QString::number(port);
  return QUrl(text + path, QUrl::TolerantMode);
}

}  // namespace orvan::net
