#include "orvan/net/url_text.h"

#include "tests/support/text_cases.h"

namespace orvan::net {
namespace {

using test::ExpectTexts;
using test::TextCase;

TEST(UrlTextTest, TellsPathsFromUrls) {
  const char* const names[] = {"empty", "path", "file URL", "URL"};  // as the constants count
  const TextCase rows[] = {
      {"nothing", "", "empty"},
      {"an absolute path", "/usr/x", "path"},
      {"a drive path with a backslash", "C:\\x", "path"},
      {"a drive path with a slash", "C:/x", "path"},
      {"a drive path with its backslash escaped", "C:%5Cdir", "path"},
      {"an escaped backslash anywhere else is not looked at", "CD:%5Cdir", "URL"},
      {"a drive letter alone", "C:", "URL"},
      {"one letter and two slashes is a scheme", "C://x", "URL"},
      {"a file URL in capitals", "FILE:/x", "file URL"},
      {"'file' without a colon is a name", "file", "path"},
      {"a blank cannot stand in a scheme", "a b:c", "path"},
      {"nor can a digit begin one", "1a:b", "path"},
      {"a resource has an empty scheme, so it counts as a URL", ":/res", "URL"},
  };
  ExpectTexts([&](const QString& name) { return names[GetFileNameType(name)]; }, rows);
}

TEST(UrlTextTest, EscapesText) {
  const auto escaped = [](const QString& text) {
    QString encoded = text;
    UrlEncode(encoded);
    return encoded + " " + EncodeUrlPath(text) + " " + UrlQuote(text);
  };
  const TextCase rows[] = {
      {"letters, digits and - . _ pass as they are", "aZ09-._", "aZ09-._ aZ09-._ aZ09-._"},
      {"a slash separates, except where all is quoted", "a/b", "a/b a/b a%2Fb"},
      {"a blank is escaped, and no plus sign stands for it", "a b", "a%20b a%20b a%20b"},
      {"a tilde is kept only where all is quoted", "~home", "%7Ehome %7Ehome ~home"},
      {"some are kept in a path only", "!+&',;=", "%21%2B%26%27%2C%3B%3D !+&',;= %21%2B%26%27%2C%3B%3D"},
      {"and some more", "$()*", "%24%28%29%2A $()* %24%28%29%2A"},
      {"what means something is escaped", ":?#%", "%3A%3F%23%25 %3A%3F%23%25 %3A%3F%23%25"},
      {"line ends and control characters", "\r\n\x7F", "%0D%0A%7F %0D%0A%7F %0D%0A%7F"},
      {"beyond ASCII, the bytes of UTF-8", "\u20AC", "%E2%82%AC %E2%82%AC %E2%82%AC"},
  };
  ExpectTexts(escaped, rows);
}

TEST(UrlTextTest, FormatsWholeUrls) {
  const auto formatted = [](const QString& text) {
    return FormatUrlString(text, false) + " " + FormatUrlString(text, true);
  };
  const TextCase rows[] = {
      {"what is unsafe is escaped in both modes", " \"[\\]^`{|}~",
       "%20%22%5B%5C%5D%5E%60%7B%7C%7D%7E %20%22%5B%5C%5D%5E%60%7B%7C%7D%7E"},
      {"what is reserved is kept on demand, an underscore too", "#%&'+,/:;<=>?@_",
       "%23%25%26%27%2B%2C%2F%3A%3B%3C%3D%3E%3F%40%5F #%&'+,/:;<=>?@_"},
      {"control characters pass", "\t\r\n\x7F", "\t\r\n\x7F \t\r\n\x7F"},
      {"each byte of UTF-8 becomes a Latin-1 character", "\u00E9", "\u00C3\u00A9 \u00C3\u00A9"},
  };
  ExpectTexts(formatted, rows);
  EXPECT_EQ(FormatUrlString(QString::fromLatin1("a\0b", 3), true), "a") << "a NUL ends the text";
}

TEST(UrlTextTest, WritesPathAndQueryForARequestLine) {
  const TextCase rows[] = {
      {"no path gives a slash", "http://h", "/"},
      {"the query goes behind the slash", "http://h?q=1", "/?q=1"},
      {"the path is escaped anew, the query is not", "http://h/~a%20b:c?~d%20e:f", "/%7Ea%20b%3Ac?~d%20e:f"},
      {"a fragment is left out", "http://h/a?b#c", "/a?b"},
      {"a slash that was escaped separates from now on", "http://h/a%2Fb", "/a/b"},
  };
  ExpectTexts([](const QString& url) { return GetEncodedPathAndQuery(QUrl(url)); }, rows);
}

TEST(UrlTextTest, TakesPathAndQueryApart) {
  const auto set = [](const QString& path_and_query) {
    QUrl url("http://h/old?o=1");
    SetEncodedPathAndQuery(url, path_and_query);
    return url.toEncoded();
  };
  const TextCase rows[] = {
      {"the path is decoded, the query kept", "/a%20b?q=1", "http://h/a%20b?q=1"},
      {"an empty query clears the old one", "/a?", "http://h/a"},
      {"a second question mark belongs to the query", "/a?b?c", "http://h/a?b?c"},
      {"nothing clears path and query", "", "http://h"},
  };
  ExpectTexts(set, rows);
}

TEST(UrlTextTest, ResolvesAndKeepsTheQueryOfTheBase) {
  const auto resolved = [](const QString& parts) {
    const QUrl base(parts.section(' ', 0, 0)), relative(parts.section(' ', 1));
    return ResolveUrlPreserveQuery(base, relative).toEncoded();
  };
  const TextCase rows[] = {
      {"both queries are joined", "http://h/d/a.kml?s=%26 b.png?t=%3D", "http://h/d/b.png?s=%26&t=%3D"},
      {"the base's query stays", "http://h/d/a.kml?s=1 b.png", "http://h/d/b.png?s=1"},
      {"an empty query of the reference leaves its joint", "http://h/a?s=1 b?", "http://h/b?s=1&"},
      {"another server drops the base's query", "http://h/d/a.kml?s=1 //other/x", "http://other/x"},
      {"a URL without a server keeps it", "http://h/a?s=1 file:///x", "file:///x?s=1"},
      {"an empty reference is the base without its anchor", "http://h/a?s=1#f", "http://h/a?s=1"},
      {"without a valid base there is nothing", " b", ""},
  };
  ExpectTexts(resolved, rows);
}

TEST(UrlTextTest, StripsAnchors) {
  const auto stripped = [](const QString& text) {
    QString anchor = "old", rest = text;
    StripAnchor(rest, &anchor, &rest);
    return rest + " -> " + anchor;
  };
  const TextCase rows[] = {
      {"a URL's anchor begins at the first number sign", "http://h/a#b#c", "http://h/a -> b#c"},
      {"a URL without one is not touched", "HTTP://H/a b", "HTTP://H/a b -> "},
      {"the rest of a URL that has one comes out normalised", "HTTP://H/a b#f", "http://h/a%20b -> f"},
      {"an empty fragment is taken off", "http://h/a#", "http://h/a -> "},
      {"an anchor is decoded where that is safe", "http://h/a#b%20c", "http://h/a -> b c"},
      {"a path's anchor begins at the last number sign", "/no/such#dir/a#b", "/no/such#dir/a -> b"},
      {"a number sign in the first place is no anchor", "#a", "#a -> "},
  };
  ExpectTexts(stripped, rows);
}

TEST(UrlTextTest, UnderstandsWhatAUserTyped) {
  const TextCase rows[] = {
      {"an absolute path", "/tmp/a b.kml", "file:///tmp/a%20b.kml"},
      {"a path whose first folder looks like a host", "relative/a.kml", "http://relative/a.kml"},
      {"a file URL has no host and is no path", "file:///tmp/a", ""},
  };
  ExpectTexts([](const QString& text) { return GetUrlFromUserInput(text).toEncoded(); }, rows);
}

}  // namespace
}  // namespace orvan::net
