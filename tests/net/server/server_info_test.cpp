#include "orvan/net/server/server_info.h"

#include "tests/support/text_cases.h"

namespace orvan::net {
namespace {

using test::ExpectTexts;
using test::TextCase;

TEST(ServerInfoTest, SanitizesWhatUsersAndDocumentsGive) {
  const auto sanitized = [](const QString& text) { return ServerInfo::SanitizeUrl(text, true).toString(); };
  const TextCase rows[] = {
      {"an empty text has no scheme, and nothing is put in front of it", "", ""},
      {"a host alone is HTTP, with the port written out, and a slash ends it", "host/a", "http://host:80/a/"},
      {"a port that is there stays", "http://host:8080/a/", "http://host:8080/a/"},
      {"a scheme in capitals is parsed into a supported one", "HTTPS://Host/A", "https://host:443/A/"},
      {"another scheme is refused", "ftp://host", ""},
      {"without '://' a scheme is a host, and a port that is none is none", "mailto:x", "http://mailto:80/"},
      {"a '://' anywhere counts as a scheme, also in a query", "host/?u=http://x", ""},
      {"a blank in front hides the scheme", " http://host/a", ""},
      {"a query stays behind the slash that is added", "host/a?b=c", "http://host:80/a/?b=c"},
  };
  ExpectTexts(sanitized, rows);
}

TEST(ServerInfoTest, ReadsAServerFromAUrl) {
  EXPECT_EQ(ServerInfo("https://example.test:8443/a?b"), ServerInfo("example.test", 8443, true));
  EXPECT_EQ(ServerInfo("http://b%C3%BC.de/"), ServerInfo("b\u00FC.de", 80, false))
      << "the host is kept decoded";
  EXPECT_EQ(ServerInfo("h", 0, true), ServerInfo("h", 443, true)) << "port 0 is none";
  ServerInfo server("h", 81, true);
  server.SetServerInfo("ftp://other");
  EXPECT_EQ(server, ServerInfo("h", 81, true)) << "an unsupported URL changes nothing";
}

TEST(ServerInfoTest, ProtocolsKeepToTheirCaseRules) {
  const auto claims = [](const QString& scheme) {
    return QString("%1 %2 %3 %4")
        .arg(ServerInfo::GetDefaultPort(scheme))
        .arg(ServerInfo::IsSecure(scheme))
        .arg(ServerInfo::IsHttp(scheme, false))
        .arg(ServerInfo::IsHttp(scheme, true));
  };
  const TextCase rows[] = {
      {"port, secure, HTTP, HTTP or HTTPS", "http", "80 0 1 1"}, {"the other one", "https", "443 1 0 1"},
      {"only IsHttp() folds the case", "HTTP", "0 0 1 1"},       {"for both", "Https", "0 0 0 1"},
      {"a longer name is another", "httpx", "0 0 0 0"},
  };
  ExpectTexts(claims, rows);
}

TEST(ServerInfoTest, ParsesWhatIsNotQuiteAUrl) {
  const auto parsed = [](const QString& text) { return ServerInfo::QUrlFromQString(text).toEncoded(); };
  const TextCase rows[] = {
      {"a proper URL is taken as it is", "http://h/a%20b?c#d", "http://h/a%20b?c#d"},
      {"a blank without any escape is forgiven", "http://h/a b", "http://h/a%20b"},
      {"next to a blank, an escape is a character for each byte", "http://h/a %C3%A9",
       "http://h/a%20%C3%83%C2%A9"},
      {"a percent sign at the very end stays", "http://h/a b%", "http://h/a%20b%25"},
      {"one digit at the very end is an escape", "http://h/a b%4", "http://h/a%20b%04"},
      {"an escaped number sign begins a fragment", "http://h/a b%23c", "http://h/a%20b#c"},
  };
  ExpectTexts(parsed, rows);
}

TEST(ServerInfoTest, BuildsUrlsFromTwoParts) {
  // From base and reference: the URL, its path and query, and what comes from a sanitized base.
  const auto built = [](const QString& parts) {
    const QString base = parts.section(' ', 0, 0), relative = parts.section(' ', 1);
    return ServerInfo::BuildUrl(base, relative, false) + " " + ServerInfo::BuildUrl(base, relative, true) +
           " " + ServerInfo::BuildUrlFromSanitized(base, relative);
  };
  const TextCase rows[] = {
      {"a name replaces the last one", "http://h/d/a b", "http://h:80/d/b /d/b http://h/d/ab"},
      {"both queries are joined", "h/a?s b?t", "http://h:80/b?s&t /b?s&t http://h:80/b?s&t"},
      {"another server drops the base's query", "h/a?s //other/b", "http://other/b /b http://other/b"},
      {"dots stay behind a sanitized base", "h/d/e/ ../b", "http://h:80/d/b /d/b h/d/e/../b"},
      {"a base that is refused gives nothing", "ftp://h/?a b", "  "},
  };
  ExpectTexts(built, rows);
}

TEST(ServerInfoTest, BuildsUrlsWithQueries) {
  const auto built = [](const QString& path) {
    return ServerInfo::BuildUrlWithQueries("h", 81, path, true).toEncoded();
  };
  const TextCase rows[] = {
      {"path and items are taken apart", "a?x=1&y=2", "https://h:81/a?x=1&y=2"},
      {"a slash that is there is not doubled", "/a?x=1", "https://h:81/a?x=1"},
      {"an empty path stays empty in front of a query", "?x=1", "https://h:81?x=1"},
      {"what follows a second question mark is lost", "a?x=1?y=2", "https://h:81/a?x=1"},
      {"what follows a second equals sign is lost", "a?x=1=2&y=3", "https://h:81/a?x=1&y=3"},
      {"the path is decoded text: a percent sign in it is escaped", "a%20b", "https://h:81/a%2520b"},
  };
  ExpectTexts(built, rows);
}

TEST(ServerInfoDeathTest, AQueryItemWithoutAnEqualsSignEndsTheProcessInEveryBuild) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const char* path : {"a?x", "a?", "a?x=1&y"}) {
    EXPECT_DEATH((void)ServerInfo::BuildUrlWithQueries("h", 80, path, false), "index out of range") << path;
  }
}

TEST(ServerInfoTest, ComparesUrls) {
  const auto same = [](const char* a, const char* b) {
    EXPECT_EQ(ServerInfo::EquivalentServerUrls(a, b), ServerInfo::EquivalentUrls(a, b)) << a;
    return ServerInfo::EquivalentUrls(a, b);
  };
  EXPECT_TRUE(ServerInfo::EquivalentServerUrls("host", "http://host:80/"))
      << "for servers a slash is filled in";
  EXPECT_FALSE(ServerInfo::EquivalentUrls("host", "http://host:80/"));
  EXPECT_TRUE(same("http://HOST/a", "http://host/a"));
  EXPECT_FALSE(same("http://host/A", "http://host/a"));
  EXPECT_TRUE(same("ftp://a/x", "gopher://b/y")) << "two unsupported ones, whatever they are";
  EXPECT_FALSE(same("ftp://a/", "http://a/"));
}

}  // namespace
}  // namespace orvan::net
