#include "orvan/net/content_type.h"

#include <gtest/gtest.h>

#include "orvan/net/fetcher.h"

namespace orvan::net {
namespace {

QString Text(const char* utf8) { return QString::fromUtf8(utf8); }

struct MediaTypeCase {
  const char* says;
  const char* text;
  bool names_html;
};

const MediaTypeCase kMediaTypeCases[] = {
    {"the type alone", "text/html", true},
    {"a parameter follows", "text/html; charset=utf-8", true},
    {"a parameter follows without a blank", "text/html;charset=utf-8", true},
    {"a blank follows", "text/html ", true},
    {"a list goes on", "text/html,text/xml", true},
    {"a slash continues no name", "text/html/x", true},
    {"a letter continues the name", "text/htmlx", false},
    {"a digit continues it", "text/html5", false},
    {"a suffix continues it", "text/html+x", false},
    {"an underscore continues it", "text/html_", false},
    {"a bracket does not, although it lies between the letters", "text/html[", true},
    {"a letter beyond ASCII continues it", "text/html\xC3\xA9", false},
    {"a sign beyond ASCII does not", "text/html\xE2\x82\xAC", true},
    {"the case counts", "Text/html", false},
    {"only the beginning counts", "a text/html", false},
    {"less than the name is not enough", "text/htm", false},
    {"nothing names nothing", "", false},
};

TEST(ContentTypeTest, AMediaTypeEndsWhereItsNameCannotGoOn) {
  for (const MediaTypeCase& row : kMediaTypeCases) {
    SCOPED_TRACE(row.says);
    EXPECT_EQ(StartsWithMimeType(Text(row.text), QStringLiteral("text/html")), row.names_html);
  }
  for (const char mark : {'!', '#', '$', '&', '.', '+', '-', '^', '_'}) {
    SCOPED_TRACE(mark);
    EXPECT_FALSE(StartsWithMimeType(QStringLiteral("a/b") + QLatin1Char(mark), QStringLiteral("a/b")));
  }
  EXPECT_TRUE(StartsWithMimeType(QStringLiteral("a/b") + QChar(0), QStringLiteral("a/b")));
}

struct KindCase {
  const char* says;
  const char* content_type;
  const char* url;
  int kind;
};

const KindCase kKindCases[] = {
    {"KML by its type", "application/vnd.quorex-orvan.kml+xml", "http://s/a.png", kMimeKml},
    {"KMZ by its type", "application/vnd.quorex-orvan.kmz", "http://s/a", kMimeKmz},
    {"HTML with a parameter", " text/html; charset=utf-8", "http://s/a", kMimeHtml},
    {"XML that is KML by its name, whatever the case", "text/xml", "http://s/a.KML", kMimeKml},
    {"XML of any other name", "application/xml", "http://s/a.kml?x", kMimeXml},
    {"XML of the third kind", "text/xml-external-parsed-entity", "http://s/a", kMimeXml},
    {"XML of the third kind that is KML", "text/xml-external-parsed-entity", "http://s/a.kml", kMimeKml},
    {"a KML suffix is not XML", "text/xml+kml", "http://s/a.kml", kMimeNone},
    {"JPEG under the short name", "image/jpg", "http://s/a", kMimeJpeg},
    {"JPEG under its registered name is not known, whatever the URL", "image/jpeg", "http://s/a.jpg",
     kMimeNone},
    {"PNG", "image/png", "http://s/a", kMimePng},
    {"GIF", "image/gif", "http://s/a", kMimeGif},
    {"any other type, although the URL would tell", "text/plain", "http://s/a.kml", kMimeNone},
    {"no type: KML by the ending", "", "http://s/a.KmL", kMimeKml},
    {"blanks are no type: JPEG by the ending", " \t ", "a.jpg", kMimeJpeg},
    {"no type: the long JPEG ending is not known", "", "a.jpeg", kMimeNone},
    {"no type: PNG by the ending", "", "a.png", kMimePng},
    {"no type: GIF by the ending", "", "a.gif", kMimeGif},
    {"no type: an archive is known by its content only", "", "a.kmz", kMimeNone},
    {"no type and no URL", "", "", kMimeNone},
};

TEST(ContentTypeTest, ClassifiesByTheHeaderOrByTheUrl) {
  for (const KindCase& row : kKindCases) {
    SCOPED_TRACE(row.says);
    EXPECT_EQ(Fetcher::GetMimeTypeFromContentTypeOrUrl(Text(row.content_type), Text(row.url)), row.kind);
  }
}

TEST(ContentTypeTest, EveryListOfAcceptableTypesNamesTheArchiveOnce) {
  mmvector<RequestHeader> headers;
  headers.emplace_back(RequestHeader::kLine, QStringLiteral("Accept: text/html"));
  headers.emplace_back(RequestHeader::kAcceptTypes, QStringLiteral("text/html"));
  headers.emplace_back(RequestHeader::kAcceptTypes,
                       QStringLiteral("a/b,") + kKmzMediaType + QStringLiteral(";q=0"));
  headers.emplace_back(RequestHeader::kAcceptTypes, QString());
  headers.emplace_back(RequestHeader::kCookie, QStringLiteral("n"), QStringLiteral("v"));
  for (int times = 0; times < 2; ++times) {
    Fetcher::EditToAcceptKMZ(headers);
    ASSERT_EQ(headers.size(), 5u);
    EXPECT_EQ(headers[0].text, QStringLiteral("Accept: text/html"));
    EXPECT_EQ(headers[1].text, QStringLiteral("text/html,application/vnd.quorex-orvan.kmz"));
    EXPECT_EQ(headers[2].text, QStringLiteral("a/b,application/vnd.quorex-orvan.kmz;q=0"));
    EXPECT_EQ(headers[3].text, QStringLiteral(",application/vnd.quorex-orvan.kmz"));
    EXPECT_EQ(headers[4].text, QStringLiteral("n"));
  }
}

struct PlainCase {
  const char* says;
  const char* url;
  const char* plain;
};

const PlainCase kPlainCases[] = {
    {"a file URL loses scheme and escapes", "file:///a%20b/c", "/a b/c"},
    {"a drive path loses its slash too", "file:///C:/a%20b", "C:/a b"},
    {"a longer name in front of the colon keeps it", "file:///CD:/a", "/CD:/a"},
    {"a host of a file URL stays", "file://host/a", "host/a"},
    {"a file scheme in capitals stays, the escapes go", "FILE:///a%20b", "FILE:///a b"},
    {"an HTTP URL loses its escapes too", "http://s/a%20b", "http://s/a b"},
    {"an escaped percent sign is decoded once", "http://s/a%2520b", "http://s/a%20b"},
    {"UTF-8 is put together", "http://s/%C3%A9", "http://s/\xC3\xA9"},
    {"a path keeps its escapes", "/a%20b", "/a%20b"},
    {"a drive letter is no scheme", "C:/a%20b", "C:/a%20b"},
    {"nothing stays nothing", "", ""},
};

TEST(ContentTypeTest, CacheKeysArePlainText) {
  for (const PlainCase& row : kPlainCases) {
    SCOPED_TRACE(row.says);
    EXPECT_EQ(Fetcher::SanitizeUrlString(Text(row.url)).toStdString(), row.plain);
  }
}

}  // namespace
}  // namespace orvan::net
