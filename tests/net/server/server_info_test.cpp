#include "orvan/net/server/server_info.h"

#include <gtest/gtest.h>

namespace orvan::net {
namespace {

TEST(ServerInfoTest, SanitizesWhatUsersAndDocumentsGive) {
  const struct {
    const char* says;
    const char* text;
    bool add_slash;
    const char* url;  // empty for the empty QUrl
  } rows[] = {
      {"an empty text has no scheme, and nothing is put in front of it", "", true, ""},
      {"a host alone is HTTP, with the port written out", "host/a", false, "http://host:80/a"},
      {"a slash ends the path if wanted", "host/a", true, "http://host:80/a/"},
      {"a port that is there stays", "http://host:8080/a", false, "http://host:8080/a"},
      {"a scheme in capitals is parsed into a supported one", "HTTPS://Host/A", false, "https://host:443/A"},
      {"another scheme is refused", "ftp://host", true, ""},
      {"without '://' a scheme is a host, and a port that is none gives way to the default", "mailto:x", true,
       "http://mailto:80/"},
      {"a '://' anywhere counts as a scheme, also in a query", "host/?u=http://x", false, ""},
      {"a blank in front hides the scheme", " http://host/a", false, ""},
      {"a query stays behind the slash that is added", "host/a?b=c", true, "http://host:80/a/?b=c"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ServerInfo::SanitizeUrl(row.text, row.add_slash).toString(), row.url) << row.says;
  }
}

TEST(ServerInfoTest, ReadsAServerFromAUrl) {
  const struct {
    const char* says;
    const char* url;
    const char* host;
    int port;
    bool secure;
  } rows[] = {
      {"host, port and protocol are read from the URL", "https://example.test:8443/a?b", "example.test", 8443,
       true},
      {"the default port is filled in", "http://example.test", "example.test", 80, false},
      {"the host is kept decoded", "http://b%C3%BCcher.de/",
       "b\xC3\xBC"
       "cher.de",
       80, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.says);
    const ServerInfo server{QString(row.url)};
    EXPECT_EQ(server.host(), row.host);
    EXPECT_EQ(server.port(), row.port);
    EXPECT_EQ(server.secure(), row.secure);
  }
}

TEST(ServerInfoTest, AnUnsupportedUrlLeavesTheServerAsItWas) {
  ServerInfo server("h", 81, true);
  server.SetServerInfo("ftp://other");
  EXPECT_EQ(server, ServerInfo("h", 81, true));
}

TEST(ServerInfoTest, ProtocolsKeepToTheirCaseRules) {
  const struct {
    const char* scheme;
    int default_port;
    bool is_secure;
    bool is_http;
    bool is_http_or_https;
  } rows[] = {
      {"http", 80, false, true, true},   {"https", 443, true, false, true}, {"HTTP", 0, false, true, true},
      {"Https", 0, false, false, true},  {"ftp", 0, false, false, false},   {"", 0, false, false, false},
      {"httpx", 0, false, false, false}, {"http ", 0, false, false, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.scheme);
    const QString scheme = row.scheme;
    EXPECT_EQ(ServerInfo::GetDefaultPort(scheme), row.default_port);
    EXPECT_EQ(ServerInfo::SupportedProtocol(scheme), row.default_port != 0);
    EXPECT_EQ(ServerInfo::IsSecure(scheme), row.is_secure);
    EXPECT_EQ(ServerInfo::IsHttp(scheme, false), row.is_http);
    EXPECT_EQ(ServerInfo::IsHttp(scheme, true), row.is_http_or_https);
  }
}

TEST(ServerInfoTest, ParsesWhatIsNotQuiteAUrl) {
  const struct {
    const char* says;
    const char* text;
    const char* url;  // as QUrl::toEncoded() writes it
  } rows[] = {
      {"a proper URL is taken as it is", "http://h/a%20b?c#d", "http://h/a%20b?c#d"},
      {"a blank without any escape is forgiven", "http://h/a b", "http://h/a%20b"},
      {"next to a blank, an escape is one character for each byte", "http://h/a %C3%A9",
       "http://h/a%20%C3%83%C2%A9"},
      {"a percent sign at the very end stays", "http://h/a b%", "http://h/a%20b%25"},
      {"one digit at the very end is an escape", "http://h/a b%4", "http://h/a%20b%04"},
      {"an escaped number sign begins a fragment", "http://h/a b%23c", "http://h/a%20b#c"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ServerInfo::QUrlFromQString(row.text).toEncoded(), row.url) << row.says;
  }
}

TEST(ServerInfoTest, BuildsUrlsFromTwoParts) {
  const struct {
    const char* says;
    const char* base;
    const char* relative;
    const char* url;
    const char* path;  // with path_only
    const char* from_sanitized;
  } rows[] = {
      {"a name replaces the last one", "http://h/d/a", "b", "http://h:80/d/b", "/d/b", "http://h/d/ab"},
      {"the base's query stays, and the reference's joins it", "h/a?s=1", "b?t=2", "http://h:80/b?s=1&t=2",
       "/b?s=1&t=2", "http://h:80/b?s=1&t=2"},
      {"another server drops the base's query", "h/a?s=1", "//other/b", "http://other/b", "/b",
       "http://other/b"},
      {"dots are resolved, but not in front of a sanitized base", "h/d/e/", "../b", "http://h:80/d/b", "/d/b",
       "h/d/e/../b"},
      {"an empty reference is the base", "h/a", "", "http://h:80/a", "/a", "h/a"},
      {"a base that is refused gives nothing", "ftp://h/?a", "b", "", "", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.says);
    EXPECT_EQ(ServerInfo::BuildUrl(row.base, row.relative, false), row.url);
    EXPECT_EQ(ServerInfo::BuildUrl(row.base, row.relative, true), row.path);
    EXPECT_EQ(ServerInfo::BuildUrlFromSanitized(row.base, row.relative), row.from_sanitized);
  }
}

TEST(ServerInfoTest, BuildsUrlsWithQueries) {
  const struct {
    const char* says;
    const char* path;
    const char* url;
  } rows[] = {
      {"path and items are taken apart", "a?x=1&y=2", "https://h:81/a?x=1&y=2"},
      {"a slash that is there is not doubled", "/a?x=1", "https://h:81/a?x=1"},
      {"without a question mark it is all path", "a/b", "https://h:81/a/b"},
      {"an empty path stays empty in front of a query", "?x=1", "https://h:81?x=1"},
      {"what follows a second question mark is lost", "a?x=1?y=2", "https://h:81/a?x=1"},
      {"what follows a second equals sign is lost", "a?x=1=2&y=3", "https://h:81/a?x=1&y=3"},
      {"the path is decoded text: a percent sign in it is escaped", "a%20b", "https://h:81/a%2520b"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ServerInfo::BuildUrlWithQueries("h", 81, row.path, true).toEncoded(), row.url) << row.says;
  }
}

TEST(ServerInfoDeathTest, AQueryItemWithoutAnEqualsSignEndsTheProcessInEveryBuild) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const char* path : {"a?x", "a?", "a?x=1&", "a?x=1&y"}) {
    SCOPED_TRACE(path);
    EXPECT_DEATH((void)ServerInfo::BuildUrlWithQueries("h", 80, path, false), "index out of range");
  }
}

TEST(ServerInfoTest, ComparesUrls) {
  const struct {
    const char* says;
    const char* a;
    const char* b;
    bool same_server;
    bool same_url;
  } rows[] = {
      {"scheme, port and slash are filled in for servers, the slash not for URLs", "host", "http://host:80/",
       true, false},
      {"the host's case does not count", "http://HOST/a", "http://host/a", true, true},
      {"the path's case does", "http://host/A", "http://host/a", false, false},
      {"two unsupported ones are equivalent, whatever they are", "ftp://a/x", "gopher://b/y", true, true},
      {"an unsupported one is not equivalent to a supported one", "ftp://a/", "http://a/", false, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.says);
    EXPECT_EQ(ServerInfo::EquivalentServerUrls(row.a, row.b), row.same_server);
    EXPECT_EQ(ServerInfo::EquivalentUrls(row.a, row.b), row.same_url);
  }
}

}  // namespace
}  // namespace orvan::net
