#include "orvan/net/content_type.h"

#include "orvan/net/fetcher.h"
#include "tests/support/text_cases.h"

namespace orvan::net {
namespace {

TEST(ContentTypeTest, AMediaTypeEndsWhereItsNameCannotGoOn) {
  for (const char* text : {"text/html", "text/html; charset=utf-8", "text/html[", "text/html\u20AC"}) {
    EXPECT_TRUE(StartsWithMimeType(text, "text/html")) << text;
  }
  for (const char* text : {"text/htmlx", "text/html5", "text/html\u00E9", "Text/html", "a text/html"}) {
    EXPECT_FALSE(StartsWithMimeType(text, "text/html")) << text;
  }
  for (const char mark : {'!', '#', '$', '&', '.', '+', '-', '^', '_'}) {
    EXPECT_FALSE(StartsWithMimeType(QString("a/b") + QChar(mark), "a/b")) << mark;
  }
  EXPECT_TRUE(StartsWithMimeType(QString("a/b") + QChar(0), "a/b"));
}

TEST(ContentTypeTest, ClassifiesByTheHeaderOrByTheUrl) {
  const struct {
    const char* says;
    const char* content_type;
    const char* url;
    int kind;
  } rows[] = {
      {"KMZ by its type", "application/vnd.quorex-orvan.kmz", "http://s/a", kMimeKmz},
      {"XML that is KML by its name, whatever the case", "text/xml", "http://s/a.KML", kMimeKml},
      {"XML of any other name", "application/xml", "http://s/a.kml?x", kMimeXml},
      {"XML of the third kind that is KML", "text/xml-external-parsed-entity", "http://s/a.kml", kMimeKml},
      {"a KML suffix is not XML", "text/xml+kml", "http://s/a.kml", kMimeNone},
      {"JPEG under the short name", "image/jpg", "http://s/a", kMimeJpeg},
      {"JPEG under its registered name is not known", "image/jpeg", "http://s/a.jpg", kMimeNone},
      {"any other type, although the URL would tell", "text/plain", "http://s/a.kml", kMimeNone},
      {"no type: KML by the ending", "", "http://s/a.KmL", kMimeKml},
      {"blanks are no type: JPEG by the ending", " \t ", "a.jpg", kMimeJpeg},
      {"no type: the long JPEG ending is not known", "", "a.jpeg", kMimeNone},
      {"no type: an archive is known by its content only", "", "a.kmz", kMimeNone},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Fetcher::GetMimeTypeFromContentTypeOrUrl(row.content_type, row.url), row.kind) << row.says;
  }
}

TEST(ContentTypeTest, EveryListOfAcceptableTypesNamesTheArchiveOnce) {
  const QString kmz = ",application/vnd.quorex-orvan.kmz";
  mmvector<RequestHeader> headers;
  headers.emplace_back(RequestHeader::kLine, "Accept: text/html");
  headers.emplace_back(RequestHeader::kAcceptTypes, "text/html");
  headers.emplace_back(RequestHeader::kAcceptTypes, "a/b" + kmz + ";q=0");
  headers.emplace_back(RequestHeader::kAcceptTypes, QString());
  for (int times = 0; times < 2; ++times) {
    Fetcher::EditToAcceptKMZ(headers);
    ASSERT_EQ(headers.size(), 4u);
    EXPECT_EQ(headers[0].text, "Accept: text/html");
    EXPECT_EQ(headers[1].text, "text/html" + kmz);
    EXPECT_EQ(headers[2].text, "a/b" + kmz + ";q=0");
    EXPECT_EQ(headers[3].text, kmz);
  }
}

TEST(ContentTypeTest, CacheKeysArePlainText) {
  const test::TextCase rows[] = {
      {"a file URL loses scheme and escapes", "file:///a%20b/c", "/a b/c"},
      {"a drive path loses its slash too", "file:///C:/a%20b", "C:/a b"},
      {"a host of a file URL stays", "file://host/a", "host/a"},
      {"a file scheme in capitals stays, the escapes go", "FILE:///a%20b", "FILE:///a b"},
      {"an HTTP URL loses its escapes too", "http://s/a%20b", "http://s/a b"},
      {"an escaped percent sign is decoded once", "http://s/a%2520b", "http://s/a%20b"},
      {"a path keeps its escapes", "/a%20b", "/a%20b"},
  };
  test::ExpectTexts(&Fetcher::SanitizeUrlString, rows);
}

}  // namespace
}  // namespace orvan::net
