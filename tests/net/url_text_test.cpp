#include "orvan/net/url_text.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>
#include <QUrlQuery>

namespace orvan::net {
namespace {

QString Text(const char* utf8) { return QString::fromUtf8(utf8); }

struct FileNameCase {
  const char* says;
  const char* name;
  int type;
};

const FileNameCase kFileNameCases[] = {
    {"nothing", "", kFileNameEmpty},
    {"an absolute path", "/usr/x", kFileNamePath},
    {"a path is a path, whatever follows", "/usr/http://x", kFileNamePath},
    {"a relative path", "x", kFileNamePath},
    {"a drive path with a backslash", "C:\\x", kFileNamePath},
    {"a drive path with a slash", "C:/x", kFileNamePath},
    {"a drive path with one slash at its end", "C:/", kFileNamePath},
    {"a drive path with its backslash escaped", "C:%5Cdir", kFileNamePath},
    {"an escape of lower case is not looked at", "C:%5cdir", kFileNameUrl},
    {"an escaped backslash anywhere else is not looked at", "CD:%5Cdir", kFileNameUrl},
    {"a drive letter alone", "C:", kFileNameUrl},
    {"one letter and two slashes is a scheme", "C://x", kFileNameUrl},
    {"a file URL", "file:///x", kFileNameFileUrl},
    {"a file URL in capitals", "FILE:/x", kFileNameFileUrl},
    {"'file' without a colon is a name", "file", kFileNamePath},
    {"a web URL", "http://x", kFileNameUrl},
    {"a scheme of many kinds of characters", "a1+.-:x", kFileNameUrl},
    {"a blank cannot stand in a scheme", "a b:c", kFileNamePath},
    {"nor can a digit begin one", "1a:b", kFileNamePath},
    {"nor can a letter beyond ASCII", "\xC3\xA9:x", kFileNamePath},
    {"a resource has an empty scheme, so it counts as a URL", ":/res", kFileNameUrl},
};

TEST(UrlTextTest, TellsPathsFromUrls) {
  for (const FileNameCase& row : kFileNameCases) {
    SCOPED_TRACE(row.says);
    EXPECT_EQ(GetFileNameType(Text(row.name)), row.type);
  }
}

struct EscapeCase {
  const char* says;
  const char* text;
  const char* url_encode;
  const char* encode_url_path;
  const char* url_quote;
};

const EscapeCase kEscapeCases[] = {
    {"nothing stays nothing", "", "", "", ""},
    {"letters, digits and - . _ pass as they are", "aZ09-._", "aZ09-._", "aZ09-._", "aZ09-._"},
    {"a slash separates, except where all is quoted", "a/b", "a/b", "a/b", "a%2Fb"},
    {"a blank is escaped, and no plus sign stands for it", "a b", "a%20b", "a%20b", "a%20b"},
    {"a plus sign is kept in a path only", "c+d", "c%2Bd", "c+d", "c%2Bd"},
    {"a tilde is escaped although it need not be, and kept where all is quoted", "~home", "%7Ehome",
     "%7Ehome", "~home"},
    {"a colon is escaped everywhere", "a:b", "a%3Ab", "a%3Ab", "a%3Ab"},
    {"the sub-delimiters are kept in a path only", "!$&'()*,;=", "%21%24%26%27%28%29%2A%2C%3B%3D",
     "!$&'()*,;=", "%21%24%26%27%28%29%2A%2C%3B%3D"},
    {"what ends a path is escaped", "?#%", "%3F%23%25", "%3F%23%25", "%3F%23%25"},
    {"an escape is escaped again", "%20", "%2520", "%2520", "%2520"},
    {"brackets, braces and quotes", "[]{}<>\"`\\^|@", "%5B%5D%7B%7D%3C%3E%22%60%5C%5E%7C%40",
     "%5B%5D%7B%7D%3C%3E%22%60%5C%5E%7C%40", "%5B%5D%7B%7D%3C%3E%22%60%5C%5E%7C%40"},
    {"line ends and control characters", "\r\n\t\x01\x7F", "%0D%0A%09%01%7F", "%0D%0A%09%01%7F",
     "%0D%0A%09%01%7F"},
    {"beyond ASCII, the bytes of UTF-8", "\xC3\xA9\xE2\x82\xAC", "%C3%A9%E2%82%AC", "%C3%A9%E2%82%AC",
     "%C3%A9%E2%82%AC"},
};

TEST(UrlTextTest, EscapesText) {
  for (const EscapeCase& row : kEscapeCases) {
    SCOPED_TRACE(row.says);
    QString text = Text(row.text);
    UrlEncode(text);
    EXPECT_EQ(text.toStdString(), row.url_encode);
    EXPECT_EQ(EncodeUrlPath(Text(row.text)).toStdString(), row.encode_url_path);
    EXPECT_EQ(UrlQuote(Text(row.text)).toStdString(), row.url_quote);
  }
}

TEST(UrlTextTest, DecodesEscapesAndLeavesPlusSigns) {
  QString text = QStringLiteral("a%20b+c%2Bd%C3%A9");
  UrlDecode(text);
  EXPECT_EQ(text.toStdString(), "a b+c+d\xC3\xA9");
}

struct FormatCase {
  const char* says;
  const char* text;
  const char* escaped;   // keep_reserved is false
  const char* reserved;  // keep_reserved is true
};

const FormatCase kFormatCases[] = {
    {"what is unsafe is escaped in both modes", "a b\"[\\]^`{|}~", "a%20b%22%5B%5C%5D%5E%60%7B%7C%7D%7E",
     "a%20b%22%5B%5C%5D%5E%60%7B%7C%7D%7E"},
    {"what is reserved is kept on demand, an underscore too", "#%&'+,/:;<=>?@_",
     "%23%25%26%27%2B%2C%2F%3A%3B%3C%3D%3E%3F%40%5F", "#%&'+,/:;<=>?@_"},
    {"the rest is kept in both modes", "aZ09!$()*-.", "aZ09!$()*-.", "aZ09!$()*-."},
    {"an escape is escaped again, or kept", "%20", "%2520", "%20"},
    {"control characters pass", "\t\r\n\x7F", "\t\r\n\x7F", "\t\r\n\x7F"},
    {"each byte of UTF-8 becomes a Latin-1 character", "\xC3\xA9", "\xC3\x83\xC2\xA9", "\xC3\x83\xC2\xA9"},
};

TEST(UrlTextTest, FormatsWholeUrls) {
  for (const FormatCase& row : kFormatCases) {
    SCOPED_TRACE(row.says);
    EXPECT_EQ(FormatUrlString(Text(row.text), false).toStdString(), row.escaped);
    EXPECT_EQ(FormatUrlString(Text(row.text), true).toStdString(), row.reserved);
  }
  EXPECT_TRUE(FormatUrlString(QStringLiteral(""), true).isNull());
  EXPECT_EQ(FormatUrlString(QString::fromLatin1("a\0b", 3), true), QStringLiteral("a"))
      << "a NUL ends the text";
}

struct PathCase {
  const char* says;
  const char* url;
  const char* path_and_query;
};

const PathCase kPathCases[] = {
    {"no path gives a slash", "http://h", "/"},
    {"an empty query gives no question mark", "http://h/a?", "/a"},
    {"the query goes behind the slash", "http://h?q=1", "/?q=1"},
    {"the path is escaped by this library's rule, the query stays as it is", "http://h/~a%20b:c?~d%20e:f",
     "/%7Ea%20b%3Ac?~d%20e:f"},
    {"a fragment is left out", "http://h/a?b#c", "/a?b"},
    {"a slash that was escaped separates from now on", "http://h/a%2Fb", "/a/b"},
    {"a line end stays escaped", "http://h/a%0D%0Ab?c%0D%0Ad", "/a%0D%0Ab?c%0D%0Ad"},
};

TEST(UrlTextTest, WritesPathAndQueryForARequestLine) {
  for (const PathCase& row : kPathCases) {
    SCOPED_TRACE(row.says);
    EXPECT_EQ(GetEncodedPathAndQuery(QUrl(Text(row.url))).toStdString(), row.path_and_query);
  }
}

const PathCase kSetPathCases[] = {
    {"the path is decoded, the query kept", "http://h/a%20b?q=1", "/a%20b?q=1"},
    {"no query clears the old one", "http://h/a", "/a"},
    {"an empty query clears it too", "http://h/a", "/a?"},
    {"a second question mark belongs to the query", "http://h/a?b?c", "/a?b?c"},
    {"nothing clears path and query", "http://h", ""},
};

TEST(UrlTextTest, TakesPathAndQueryApart) {
  for (const PathCase& row : kSetPathCases) {
    SCOPED_TRACE(row.says);
    QUrl url(QStringLiteral("http://h/old?o=1"));
    SetEncodedPathAndQuery(url, Text(row.path_and_query));
    EXPECT_EQ(url.toEncoded().toStdString(), row.url);
    EXPECT_EQ(url.hasQuery(), QString::fromLatin1(row.url).contains(QLatin1Char('?')));
  }
}

struct ResolveCase {
  const char* says;
  const char* base;
  const char* relative;
  const char* url;
};

const ResolveCase kResolveCases[] = {
    {"both queries are joined", "http://h/d/a.kml?s=1", "b.png?t=2", "http://h/d/b.png?s=1&t=2"},
    {"the base's query stays", "http://h/d/a.kml?s=1", "b.png", "http://h/d/b.png?s=1"},
    {"the reference's query alone needs no joint", "http://h/d/a.kml", "b.png?t=2", "http://h/d/b.png?t=2"},
    {"an empty query of the reference leaves its joint", "http://h/a?s=1", "b?", "http://h/b?s=1&"},
    {"another server drops the base's query", "http://h/d/a.kml?s=1", "//other/x", "http://other/x"},
    {"a whole URL drops it too", "http://h/a?s=1", "https://other/x?t=2", "https://other/x?t=2"},
    {"a URL without a server keeps it", "http://h/a?s=1", "file:///x", "file:///x?s=1"},
    {"an empty reference is the base without its anchor", "http://h/a?s=1#f", "", "http://h/a?s=1"},
    {"escapes in both queries stay", "http://h/a?s=%26", "b?t=%3D", "http://h/b?s=%26&t=%3D"},
    {"without a valid base there is nothing", "", "b", ""},
    {"nor with an invalid reference", "http://h/a", "http://[", ""},
};

TEST(UrlTextTest, ResolvesAndKeepsTheQueryOfTheBase) {
  for (const ResolveCase& row : kResolveCases) {
    SCOPED_TRACE(row.says);
    const QUrl url = ResolveUrlPreserveQuery(QUrl(Text(row.base)), QUrl(Text(row.relative)));
    EXPECT_EQ(url.toEncoded().toStdString(), row.url);
  }
}

struct AnchorCase {
  const char* says;
  const char* text;
  int type;
  const char* anchor;
  const char* rest;
};

const AnchorCase kAnchorCases[] = {
    {"a URL's fragment", "http://h/a.kml#frag", kFileNameUrl, "frag", "http://h/a.kml"},
    {"a URL without one is not touched", "HTTP://H/a b", kFileNameUrl, "", "HTTP://H/a b"},
    {"the rest of a URL that has one comes out normalised", "HTTP://H/a b#f", kFileNameUrl, "f",
     "http://h/a%20b"},
    {"a URL's anchor begins at the first number sign", "http://h/a#b#c", kFileNameUrl, "b#c", "http://h/a"},
    {"an empty fragment is taken off", "http://h/a#", kFileNameUrl, "", "http://h/a"},
    {"an anchor is decoded where that is safe", "http://h/a#b%20c", kFileNameUrl, "b c", "http://h/a"},
    {"a file URL has fragments too", "file:///a.kml#b", kFileNameFileUrl, "b", "file:///a.kml"},
    {"a path's anchor begins at the last number sign", "/no/such#dir/a#b", kFileNamePath, "b",
     "/no/such#dir/a"},
    {"a number sign in the first place is no anchor", "#a", kFileNamePath, "", "#a"},
    {"nothing has no anchor", "", kFileNameEmpty, "", ""},
};

TEST(UrlTextTest, StripsAnchors) {
  for (const AnchorCase& row : kAnchorCases) {
    SCOPED_TRACE(row.says);
    QString anchor = QStringLiteral("old");
    QString rest = Text(row.text);
    EXPECT_EQ(StripAnchor(rest, &anchor, &rest), row.type);
    EXPECT_EQ(anchor.toStdString(), row.anchor);
    EXPECT_EQ(rest.toStdString(), row.rest);
    EXPECT_EQ(StripAnchor(Text(row.text), nullptr, nullptr), row.type);
  }
}

TEST(UrlTextTest, ANumberSignInTheNameOfAFileThatExistsIsNoAnchor) {
  const QTemporaryDir directory;
  ASSERT_TRUE(directory.isValid());
  const QString path = directory.filePath(QStringLiteral("a#b.kml"));
  QString anchor;
  QString rest;
  StripAnchor(path, &anchor, &rest);
  EXPECT_EQ(anchor, QStringLiteral("b.kml"));
  QFile file(path);
  ASSERT_TRUE(file.open(QIODevice::WriteOnly));
  StripAnchor(path, &anchor, &rest);
  EXPECT_EQ(anchor, QString());
  EXPECT_EQ(rest, path);
}

struct InputCase {
  const char* says;
  const char* text;
  const char* url;
};

const InputCase kInputCases[] = {
    {"a URL", "https://h.test/a", "https://h.test/a"},
    {"a host", "www.h.test", "http://www.h.test"},
    {"an absolute path", "/tmp/a b.kml", "file:///tmp/a%20b.kml"},
    {"a path whose first folder looks like a host", "relative/a.kml", "http://relative/a.kml"},
    {"a file URL has no host and is no path", "file:///tmp/a", ""},
    {"nothing", "", ""},
};

TEST(UrlTextTest, UnderstandsWhatAUserTyped) {
  for (const InputCase& row : kInputCases) {
    SCOPED_TRACE(row.says);
    EXPECT_EQ(GetUrlFromUserInput(Text(row.text)).toEncoded().toStdString(), row.url);
  }
}

}  // namespace
}  // namespace orvan::net
