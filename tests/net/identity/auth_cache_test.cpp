#include "orvan/net/identity/auth_cache.h"

#include <gtest/gtest.h>

#include <memory>

#include "orvan/net/http/http_connection.h"
#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/server/server_info.h"
#include "tests/support/scripted_transport.h"

namespace orvan::net {
namespace {

QString Text(const char* text) { return QString::fromLatin1(text); }

const AuthCache::Credentials kAlice(QStringLiteral("alice"), QStringLiteral("a"));
const AuthCache::Credentials kBob(QStringLiteral("bob"), QStringLiteral("b"));
const AuthCache::Credentials kNobody;

class AuthCacheTest : public testing::Test {
 protected:
  // What stands for the realm; kNobody for a miss, which has to leave the result alone.
  static AuthCache::Credentials Find(const AuthCache& cache, const char* host, const char* realm) {
    AuthCache::Credentials result;
    const bool found = cache.GetAuthInfo({Text(host), Text(realm)}, &result);
    EXPECT_EQ(found, result != kNobody);
    return result;
  }
  void TearDown() override { HttpConnectionFactory::shutdown(); }
};

TEST_F(AuthCacheTest, ARealmGoesBeforeItsHostAndTakesItAlong) {
  const RefPtr<AuthCache> cache(new AuthCache(nullptr));
  cache->SetHostAuthInfo(Text("h"), kBob.first, kBob.second);
  EXPECT_EQ(Find(*cache, "h", "r"), kBob);
  cache->SetAuthInfo({Text("h"), Text("r")}, kBob);
  cache->SetAuthInfo({Text("h"), Text("r")}, kAlice);
  EXPECT_EQ(Find(*cache, "h", "r"), kAlice);
  EXPECT_EQ(Find(*cache, "h", "other"), kBob);
  EXPECT_EQ(Find(*cache, "H", "r"), kNobody);
  EXPECT_EQ(Find(*cache, "r", "h"), kNobody);

  cache->ClearAuthInfo({Text("elsewhere"), Text("r")});
  EXPECT_EQ(Find(*cache, "h", "r"), kAlice);
  cache->ClearAuthInfo({Text("h"), Text("unknown")});
  EXPECT_EQ(Find(*cache, "h", "other"), kNobody) << "any realm takes the entry of its host along";
  EXPECT_EQ(Find(*cache, "h", "r"), kAlice);
  cache->Clear();
  EXPECT_EQ(Find(*cache, "h", "r"), kNobody);
}

struct RealmCase {
  const char* says;
  const char* header;
  const char* realm;
};

const RealmCase kRealmCases[] = {
    {"a quoted realm", "WWW-Authenticate: Basic realm=\"maps\"", "maps"},
    {"blanks around the sign", "WWW-Authenticate: Basic realm \t=  \"my maps\", x=\"y\"", "my maps"},
    {"the first of several", "WWW-Authenticate: Basic realm=\"a\", Digest realm=\"b\"", "a"},
    {"an empty one is skipped", "WWW-Authenticate: Basic realm=\"\", Digest realm=\"b\"", "b"},
    {"quotes are needed", "WWW-Authenticate: Basic realm=maps", ""},
    {"the word is case-sensitive", "WWW-Authenticate: Basic Realm=\"maps\"", ""},
    {"so is the name of the header", "www-authenticate: Basic realm=\"maps\"", ""},
    {"another header has none", "Proxy-Authenticate: Basic realm=\"maps\"", ""},
};

TEST_F(AuthCacheTest, ReadsTheRealmOfAHeader) {
  for (const RealmCase& row : kRealmCases) {
    SCOPED_TRACE(row.says);
    EXPECT_EQ(AuthCache::ParseRealmFromHeader(Text(row.header)).toStdString(), row.realm);
  }
}

TEST_F(AuthCacheTest, ConnectionsKeepCredentialsUnderTheirHost) {
  test::ScriptedTransport transport;
  const ServerInfo server(Text("host.example"), 80, false);
  const std::unique_ptr<HttpConnection> connection(
      HttpConnectionFactory::CreateHttpConnection(&server, nullptr, 15.0, 15, 1, 0, 0, 0));
  HttpConnectionFactory::ClearAuthCache();
  EXPECT_FALSE(HttpConnectionFactory::GetAuthCache());
  QString user = Text("kept");
  QString password = Text("kept");
  EXPECT_FALSE(connection->GetRealmAuthInfo(Text("r"), &user, &password));
  EXPECT_EQ(user + password, Text("keptkept"));
  ASSERT_TRUE(HttpConnectionFactory::GetAuthCache()) << "a miss makes the cache";
  connection->SetRealmAuthInfo(Text("r"), kAlice.first, kAlice.second);
  EXPECT_EQ(Find(*HttpConnectionFactory::GetAuthCache(), "host.example", "r"), kAlice);
  EXPECT_TRUE(connection->GetRealmAuthInfo(Text("r"), &user, &password));
  EXPECT_EQ(user + password, Text("alicea"));
  connection->ClearRealmAuthInfo(Text("r"));
  EXPECT_FALSE(connection->GetRealmAuthInfo(Text("r"), &user, &password));
}

class CountingFactory : public HttpConnectionFactory {
 public:
  HttpConnection* create(const ServerInfo*, MemoryManager*, double, int, int) override { return nullptr; }
  void ClearConnectionCredentials() override { ++cleared; }
  int cleared = 0;
};

TEST_F(AuthCacheTest, TellsOnlyAFactoryThatIsStillThere) {
  HttpConnectionFactory::shutdown();
  CountingFactory factory;
  HttpConnectionFactory::SetOverrideFactory(&factory);
  const RefPtr<AuthCache> cache = HttpConnectionFactory::GetOrCreateAuthCache();
  HttpConnectionFactory::ClearAuthCache();
  EXPECT_EQ(factory.cleared, 1);
  HttpConnectionFactory::SetOverrideFactory(nullptr);
  HttpConnectionFactory::ClearAuthCache();
  EXPECT_EQ(factory.cleared, 1);

  HttpConnectionFactory::shutdown();
  EXPECT_TRUE(HttpConnectionFactory::GetSingleton());
  const RefPtr<AuthCache> survivor = HttpConnectionFactory::GetOrCreateAuthCache();
  EXPECT_NE(survivor, cache);
  HttpConnectionFactory::shutdown();
  survivor->Clear();  // the platform's factory is gone
}

}  // namespace
}  // namespace orvan::net
