#include "orvan/net/server/server_info.h"

#include <gtest/gtest.h>

#include <QUrlQuery>
#include <cmath>
#include <limits>

namespace orvan::net {
namespace {

QString Text(const char* utf8) { return QString::fromUtf8(utf8); }

struct SanitizeCase {
  const char* says;
  const char* text;
  bool add_slash;
  const char* url;  // empty for the empty QUrl
};

const SanitizeCase kSanitizeCases[] = {
    {"an empty text has no scheme, and nothing is put in front of it", "", true, ""},
    {"a host alone is HTTP, with the port written out", "host/a", false, "http://host:80/a"},
    {"a slash ends the path if wanted", "host/a", true, "http://host:80/a/"},
    {"one slash is enough", "host/a/", true, "http://host:80/a/"},
    {"HTTPS has its own port", "https://host", true, "https://host:443/"},
    {"a port that is there stays", "http://host:8080/a", false, "http://host:8080/a"},
    {"a scheme in capitals is parsed into a supported one", "HTTPS://Host/A", false, "https://host:443/A"},
    {"another scheme is refused", "ftp://host", true, ""},
    {"without '://' a scheme is a host, and a port that is none gives way to the default", "mailto:x", true,
     "http://mailto:80/"},
    {"a '://' anywhere counts as a scheme, also in a query", "host/?u=http://x", false, ""},
    {"a blank in front hides the scheme", " http://host/a", false, ""},
    {"a query stays behind the slash that is added", "host/a?b=c", true, "http://host:80/a/?b=c"},
    {"an IPv6 literal keeps its brackets", "[::1]/a", false, "http://[::1]:80/a"},
};

TEST(ServerInfoTest, SanitizesWhatUsersAndDocumentsGive) {
  for (const SanitizeCase& row : kSanitizeCases) {
    SCOPED_TRACE(row.says);
    const QUrl url = ServerInfo::SanitizeUrl(Text(row.text), row.add_slash);
    EXPECT_EQ(url.toString().toStdString(), row.url);
  }
}

struct ServerCase {
  const char* says;
  const char* url;
  const char* host;  // null if the fields keep their defaults
  int port;
  bool secure;
};

const ServerCase kServerCases[] = {
    {"host, port and protocol are read from the URL", "https://example.test:8443/a?b", "example.test", 8443,
     true},
    {"the default port is filled in", "http://example.test", "example.test", 80, false},
    {"a host alone is enough", "example.test", "example.test", 80, false},
    {"the host is kept decoded", "http://b%C3%BCcher.de/",
     "b\xC3\xBC"
     "cher.de",
     80, false},
    {"an unsupported scheme changes nothing", "ftp://host", nullptr, 0, false},
    {"an empty text changes nothing", "", nullptr, 0, false},
};

TEST(ServerInfoTest, ReadsAServerFromAUrl) {
  for (const ServerCase& row : kServerCases) {
    SCOPED_TRACE(row.says);
    const ServerInfo server(Text(row.url));
    EXPECT_EQ(server.host().isNull(), row.host == nullptr);
    EXPECT_EQ(server.host().toStdString(), row.host == nullptr ? "" : row.host);
    EXPECT_EQ(server.port(), row.port);
    EXPECT_EQ(server.secure(), row.secure);
  }
}

TEST(ServerInfoTest, AnUnsupportedUrlLeavesTheServerAsItWas) {
  ServerInfo server(QStringLiteral("h"), 81, true);
  server.SetServerInfo(QStringLiteral("ftp://other"));
  EXPECT_EQ(server, ServerInfo(QStringLiteral("h"), 81, true));
}

TEST(ServerInfoTest, ServersAreTheSameOnlyIfAllSixFieldsAre) {
  const ServerInfo server(QStringLiteral("h"), 80, false, QStringLiteral("agent"));
  EXPECT_EQ(server, ServerInfo(server));
  EXPECT_NE(server, ServerInfo(QStringLiteral("H"), 80, false, QStringLiteral("agent")));
  EXPECT_NE(server, ServerInfo(QStringLiteral("h"), 81, false, QStringLiteral("agent")));
  EXPECT_NE(server, ServerInfo(QStringLiteral("h"), 80, true, QStringLiteral("agent")));
  EXPECT_NE(server, ServerInfo(QStringLiteral("h"), 80, false, QStringLiteral("other")));
  ServerInfo matched = server;
  matched.set_match(1.5, 0);
  EXPECT_NE(server, matched);
  matched.set_match(0.0, 1);
  EXPECT_NE(server, matched);
  matched.set_match(std::numeric_limits<double>::quiet_NaN(), 0);
  EXPECT_NE(matched, ServerInfo(matched)) << "a server with a NaN is not even its own equal";
}

struct ProtocolCase {
  const char* scheme;
  int default_port;
  bool is_secure;
  bool is_http;
  bool is_http_or_https;
};

const ProtocolCase kProtocolCases[] = {
    {"http", 80, false, true, true},   {"https", 443, true, false, true}, {"HTTP", 0, false, true, true},
    {"Https", 0, false, false, true},  {"ftp", 0, false, false, false},   {"", 0, false, false, false},
    {"httpx", 0, false, false, false}, {"http ", 0, false, false, false},
};

TEST(ServerInfoTest, ProtocolsKeepToTheirCaseRules) {
  for (const ProtocolCase& row : kProtocolCases) {
    SCOPED_TRACE(row.scheme);
    const QString scheme = Text(row.scheme);
    EXPECT_EQ(ServerInfo::GetDefaultPort(scheme), row.default_port);
    EXPECT_EQ(ServerInfo::SupportedProtocol(scheme), row.default_port != 0);
    EXPECT_EQ(ServerInfo::IsSecure(scheme), row.is_secure);
    EXPECT_EQ(ServerInfo::IsHttp(scheme, false), row.is_http);
    EXPECT_EQ(ServerInfo::IsHttp(scheme, true), row.is_http_or_https);
  }
  EXPECT_EQ(ServerInfo::GetHttpProtocolString(true), QStringLiteral("https"));
  EXPECT_EQ(ServerInfo::GetHttpProtocolString(false), QStringLiteral("http"));
  EXPECT_TRUE(ServerInfo::GetProtocolString(2).isNull());
  EXPECT_TRUE(ServerInfo::GetProtocolString(-1).isNull());
}

struct ParseCase {
  const char* says;
  const char* text;
  const char* url;  // as QUrl::toEncoded() writes it
};

const ParseCase kParseCases[] = {
    {"a proper URL is taken as it is", "http://h/a%20b?c#d", "http://h/a%20b?c#d"},
    {"a proper URL keeps its UTF-8 escapes", "http://h/%C3%A9", "http://h/%C3%A9"},
    {"a blank without any escape is forgiven", "http://h/a b", "http://h/a%20b"},
    {"next to a blank, an escape is one character for each byte", "http://h/a %C3%A9",
     "http://h/a%20%C3%83%C2%A9"},
    {"an escape of lower case counts too", "http://h/a %c3", "http://h/a%20%C3%83"},
    {"what is no escape keeps its percent sign", "http://h/a %zz", "http://h/a%20%25zz"},
    {"a percent sign at the very end stays", "http://h/a b%", "http://h/a%20b%25"},
    {"one digit at the very end is an escape", "http://h/a b%4", "http://h/a%20b%04"},
    {"an escaped number sign begins a fragment", "http://h/a b%23c", "http://h/a%20b#c"},
};

TEST(ServerInfoTest, ParsesWhatIsNotQuiteAUrl) {
  for (const ParseCase& row : kParseCases) {
    SCOPED_TRACE(row.says);
    EXPECT_EQ(ServerInfo::QUrlFromQString(Text(row.text)).toEncoded().toStdString(), row.url);
  }
}

struct BuildCase {
  const char* says;
  const char* base;
  const char* relative;
  const char* url;
  const char* path;  // with path_only
  const char* from_sanitized;
};

const BuildCase kBuildCases[] = {
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

TEST(ServerInfoTest, BuildsUrlsFromTwoParts) {
  for (const BuildCase& row : kBuildCases) {
    SCOPED_TRACE(row.says);
    const QString base = Text(row.base);
    const QString relative = Text(row.relative);
    EXPECT_EQ(ServerInfo::BuildUrl(base, relative, false).toStdString(), row.url);
    EXPECT_EQ(ServerInfo::BuildUrl(base, relative, true).toStdString(), row.path);
    EXPECT_EQ(ServerInfo::BuildUrlFromSanitized(base, relative).toStdString(), row.from_sanitized);
  }
}

struct QueryCase {
  const char* says;
  const char* path;
  const char* url;
};

const QueryCase kQueryCases[] = {
    {"path and items are taken apart", "a?x=1&y=2", "https://h:81/a?x=1&y=2"},
    {"a slash that is there is not doubled", "/a?x=1", "https://h:81/a?x=1"},
    {"without a question mark it is all path", "a/b", "https://h:81/a/b"},
    {"an empty path stays empty", "", "https://h:81"},
    {"an empty path stays empty in front of a query", "?x=1", "https://h:81?x=1"},
    {"what follows a second question mark is lost", "a?x=1?y=2", "https://h:81/a?x=1"},
    {"what follows a second equals sign is lost", "a?x=1=2&y=3", "https://h:81/a?x=1&y=3"},
    {"name and value may be empty", "a?=", "https://h:81/a?="},
    {"the path is decoded text: a percent sign in it is escaped", "a%20b", "https://h:81/a%2520b"},
};

TEST(ServerInfoTest, BuildsUrlsWithQueries) {
  for (const QueryCase& row : kQueryCases) {
    SCOPED_TRACE(row.says);
    const QUrl url = ServerInfo::BuildUrlWithQueries(QStringLiteral("h"), 81, Text(row.path), true);
    EXPECT_EQ(url.toEncoded().toStdString(), row.url);
  }
  EXPECT_EQ(ServerInfo::BuildUrlWithQueries(QStringLiteral("h"), 80, QStringLiteral("/"), false).toString(),
            QStringLiteral("http://h:80/"));
}

TEST(ServerInfoDeathTest, AQueryItemWithoutAnEqualsSignEndsTheProcessInEveryBuild) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const char* path : {"a?x", "a?", "a?x=1&", "a?x=1&y"}) {
    SCOPED_TRACE(path);
    EXPECT_DEATH((void)ServerInfo::BuildUrlWithQueries(QStringLiteral("h"), 80, Text(path), false),
                 "index out of range");
  }
}

struct EquivalenceCase {
  const char* says;
  const char* a;
  const char* b;
  bool same_server;
  bool same_url;
};

const EquivalenceCase kEquivalenceCases[] = {
    {"scheme, port and slash are filled in for servers, the slash not for URLs", "host", "http://host:80/",
     true, false},
    {"the host's case does not count", "http://HOST/a", "http://host/a", true, true},
    {"the path's case does", "http://host/A", "http://host/a", false, false},
    {"the protocols differ", "http://host/", "https://host/", false, false},
    {"two unsupported ones are equivalent, whatever they are", "ftp://a/x", "gopher://b/y", true, true},
    {"an unsupported one is not equivalent to a supported one", "ftp://a/", "http://a/", false, false},
};

TEST(ServerInfoTest, ComparesUrls) {
  for (const EquivalenceCase& row : kEquivalenceCases) {
    SCOPED_TRACE(row.says);
    EXPECT_EQ(ServerInfo::EquivalentServerUrls(Text(row.a), Text(row.b)), row.same_server);
    EXPECT_EQ(ServerInfo::EquivalentUrls(Text(row.a), Text(row.b)), row.same_url);
  }
}

}  // namespace
}  // namespace orvan::net
