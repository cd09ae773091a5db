#include "orvan/net/url_text.h"

#include <gtest/gtest.h>

namespace orvan::net {
namespace {

TEST(UrlTextTest, TellsPathsFromUrls) {
  const struct {
    const char* says;
    const char* name;
    int type;
  } rows[] = {
      {"nothing", "", kFileNameEmpty},
      {"an absolute path", "/usr/x", kFileNamePath},
      {"a drive path with a backslash", "C:\\x", kFileNamePath},
      {"a drive path with a slash", "C:/x", kFileNamePath},
      {"a drive path with its backslash escaped", "C:%5Cdir", kFileNamePath},
      {"an escaped backslash anywhere else is not looked at", "CD:%5Cdir", kFileNameUrl},
      {"a drive letter alone", "C:", kFileNameUrl},
      {"one letter and two slashes is a scheme", "C://x", kFileNameUrl},
      {"a file URL in capitals", "FILE:/x", kFileNameFileUrl},
      {"'file' without a colon is a name", "file", kFileNamePath},
      {"a blank cannot stand in a scheme", "a b:c", kFileNamePath},
      {"nor can a digit begin one", "1a:b", kFileNamePath},
      {"a resource has an empty scheme, so it counts as a URL", ":/res", kFileNameUrl},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(GetFileNameType(row.name), row.type) << row.says;
  }
}

TEST(UrlTextTest, EscapesText) {
  const struct {
    const char* says;
    const char* text;
    const char* url_encode;
    const char* encode_url_path;
    const char* url_quote;
  } rows[] = {
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
      {"line ends and control characters", "\r\n\t\x01\x7F", "%0D%0A%09%01%7F", "%0D%0A%09%01%7F",
       "%0D%0A%09%01%7F"},
      {"beyond ASCII, the bytes of UTF-8", "\xC3\xA9\xE2\x82\xAC", "%C3%A9%E2%82%AC", "%C3%A9%E2%82%AC",
       "%C3%A9%E2%82%AC"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.says);
    QString text = row.text;
    UrlEncode(text);
    EXPECT_EQ(text, row.url_encode);
    EXPECT_EQ(EncodeUrlPath(row.text), row.encode_url_path);
    EXPECT_EQ(UrlQuote(row.text), row.url_quote);
  }
}

TEST(UrlTextTest, FormatsWholeUrls) {
  const struct {
    const char* says;
    const char* text;
    const char* escaped;   // keep_reserved is false
    const char* reserved;  // keep_reserved is true
  } rows[] = {
      {"what is unsafe is escaped in both modes", "a b\"[\\]^`{|}~", "a%20b%22%5B%5C%5D%5E%60%7B%7C%7D%7E",
       "a%20b%22%5B%5C%5D%5E%60%7B%7C%7D%7E"},
      {"what is reserved is kept on demand, an underscore too", "#%&'+,/:;<=>?@_",
       "%23%25%26%27%2B%2C%2F%3A%3B%3C%3D%3E%3F%40%5F", "#%&'+,/:;<=>?@_"},
      {"an escape is escaped again, or kept", "%20", "%2520", "%20"},
      {"control characters pass", "\t\r\n\x7F", "\t\r\n\x7F", "\t\r\n\x7F"},
      {"each byte of UTF-8 becomes a Latin-1 character", "\xC3\xA9", "\xC3\x83\xC2\xA9", "\xC3\x83\xC2\xA9"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.says);
    EXPECT_EQ(FormatUrlString(row.text, false), row.escaped);
    EXPECT_EQ(FormatUrlString(row.text, true), row.reserved);
  }
  EXPECT_TRUE(FormatUrlString("", true).isNull());
  EXPECT_EQ(FormatUrlString(QString::fromLatin1("a\0b", 3), true), "a") << "a NUL ends the text";
}

TEST(UrlTextTest, WritesPathAndQueryForARequestLine) {
  const struct {
    const char* says;
    const char* url;
    const char* path_and_query;
  } rows[] = {
      {"no path gives a slash", "http://h", "/"},
      {"the query goes behind the slash", "http://h?q=1", "/?q=1"},
      {"the path is escaped by this library's rule, the query stays as it is", "http://h/~a%20b:c?~d%20e:f",
       "/%7Ea%20b%3Ac?~d%20e:f"},
      {"a fragment is left out", "http://h/a?b#c", "/a?b"},
      {"a slash that was escaped separates from now on", "http://h/a%2Fb", "/a/b"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(GetEncodedPathAndQuery(QUrl(row.url)), row.path_and_query) << row.says;
  }
}

TEST(UrlTextTest, TakesPathAndQueryApart) {
  const auto set = [](const char* path_and_query) {
    QUrl url("http://h/old?o=1");
    SetEncodedPathAndQuery(url, path_and_query);
    return url.toEncoded();
  };
  EXPECT_EQ(set("/a%20b?q=1"), "http://h/a%20b?q=1");
  EXPECT_EQ(set("/a?"), "http://h/a") << "an empty query clears the old one";
  EXPECT_EQ(set("/a?b?c"), "http://h/a?b?c");
  EXPECT_EQ(set(""), "http://h");
}

TEST(UrlTextTest, ResolvesAndKeepsTheQueryOfTheBase) {
  const struct {
    const char* says;
    const char* base;
    const char* relative;
    const char* url;
  } rows[] = {
      {"both queries are joined", "http://h/d/a.kml?s=1", "b.png?t=2", "http://h/d/b.png?s=1&t=2"},
      {"the base's query stays", "http://h/d/a.kml?s=1", "b.png", "http://h/d/b.png?s=1"},
      {"an empty query of the reference leaves its joint", "http://h/a?s=1", "b?", "http://h/b?s=1&"},
      {"another server drops the base's query", "http://h/d/a.kml?s=1", "//other/x", "http://other/x"},
      {"a URL without a server keeps it", "http://h/a?s=1", "file:///x", "file:///x?s=1"},
      {"an empty reference is the base without its anchor", "http://h/a?s=1#f", "", "http://h/a?s=1"},
      {"escapes in both queries stay", "http://h/a?s=%26", "b?t=%3D", "http://h/b?s=%26&t=%3D"},
      {"without a valid base there is nothing", "", "b", ""},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ResolveUrlPreserveQuery(QUrl(row.base), QUrl(row.relative)).toEncoded(), row.url) << row.says;
  }
}

TEST(UrlTextTest, StripsAnchors) {
  const struct {
    const char* says;
    const char* text;
    int type;
    const char* anchor;
    const char* rest;
  } rows[] = {
      {"a URL's fragment", "http://h/a.kml#frag", kFileNameUrl, "frag", "http://h/a.kml"},
      {"a URL without one is not touched", "HTTP://H/a b", kFileNameUrl, "", "HTTP://H/a b"},
      {"the rest of a URL that has one comes out normalised", "HTTP://H/a b#f", kFileNameUrl, "f",
       "http://h/a%20b"},
      {"a URL's anchor begins at the first number sign", "http://h/a#b#c", kFileNameUrl, "b#c", "http://h/a"},
      {"an empty fragment is taken off", "http://h/a#", kFileNameUrl, "", "http://h/a"},
      {"an anchor is decoded where that is safe", "http://h/a#b%20c", kFileNameUrl, "b c", "http://h/a"},
      {"a path's anchor begins at the last number sign", "/no/such#dir/a#b", kFileNamePath, "b",
       "/no/such#dir/a"},
      {"a number sign in the first place is no anchor", "#a", kFileNamePath, "", "#a"},
      {"nothing has no anchor", "", kFileNameEmpty, "", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.says);
    QString anchor = "old";
    QString rest = row.text;
    EXPECT_EQ(StripAnchor(rest, &anchor, &rest), row.type);
    EXPECT_EQ(anchor, row.anchor);
    EXPECT_EQ(rest, row.rest);
    EXPECT_EQ(StripAnchor(row.text, nullptr, nullptr), row.type);
  }
}

TEST(UrlTextTest, UnderstandsWhatAUserTyped) {
  const struct {
    const char* says;
    const char* text;
    const char* url;
  } rows[] = {
      {"an absolute path", "/tmp/a b.kml", "file:///tmp/a%20b.kml"},
      {"a path whose first folder looks like a host", "relative/a.kml", "http://relative/a.kml"},
      {"a file URL has no host and is no path", "file:///tmp/a", ""},
      {"nothing", "", ""},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(GetUrlFromUserInput(row.text).toEncoded(), row.url) << row.says;
  }
}

}  // namespace
}  // namespace orvan::net
