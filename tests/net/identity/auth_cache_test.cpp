#include "orvan/net/identity/auth_cache.h"

#include <gtest/gtest.h>

#include "orvan/net/http/http_connection_factory.h"
#include "tests/net/http/bare_connection.h"
#include "tests/support/text_cases.h"

namespace orvan::net {
namespace {

const AuthCache::Credentials kAlice("alice", "a"), kBob("bob", "b"), kNobody;

// What stands for the realm; kNobody for a miss, which has to leave the result alone.
AuthCache::Credentials Find(const AuthCache& cache, const char* host, const char* realm) {
  AuthCache::Credentials result;
  const bool found = cache.GetAuthInfo({host, realm}, &result);
  EXPECT_EQ(found, result != kNobody);
  return result;
}

TEST(AuthCacheTest, ARealmGoesBeforeItsHostAndTakesItAlong) {
  const RefPtr<AuthCache> cache(new AuthCache(nullptr));
  cache->SetHostAuthInfo("h", kBob.first, kBob.second);
  cache->SetAuthInfo({"h", "r"}, kBob);
  cache->SetAuthInfo({"h", "r"}, kAlice);
  EXPECT_EQ(Find(*cache, "h", "r"), kAlice);
  EXPECT_EQ(Find(*cache, "h", "other"), kBob);
  EXPECT_EQ(Find(*cache, "H", "r"), kNobody);
  cache->ClearAuthInfo({"elsewhere", "r"});
  cache->ClearAuthInfo({"h", "unknown"});
  EXPECT_EQ(Find(*cache, "h", "other"), kNobody) << "any realm takes the entry of its host along";
  EXPECT_EQ(Find(*cache, "h", "r"), kAlice);
  cache->SetHostAuthInfo("h", kBob.first, kBob.second);
  cache->Clear();
  for (const char* realm : {"r", "other"}) EXPECT_EQ(Find(*cache, "h", realm), kNobody);
}

TEST(AuthCacheTest, ReadsTheRealmOfAHeader) {
  const test::TextCase rows[] = {
      {"blanks around the sign", "WWW-Authenticate: Basic realm \t=  \"my maps\", x=\"y\"", "my maps"},
      {"the first that is not empty", "WWW-Authenticate: x realm=\"\", y realm=\"a\", z realm=\"b\"", "a"},
      {"quotes are needed", "WWW-Authenticate: Basic realm=maps", ""},
      {"the word is case-sensitive", "WWW-Authenticate: Basic Realm=\"maps\"", ""},
      {"so is the name of the header", "www-authenticate: Basic realm=\"maps\"", ""},
  };
  test::ExpectTexts(&AuthCache::ParseRealmFromHeader, rows);
}

struct CountingFactory : HttpConnectionFactory {
  HttpConnection* create(const ServerInfo*, MemoryManager*, double, int, int) override { return nullptr; }
  void ClearConnectionCredentials() override { ++cleared; }
  int cleared = 0;
};

TEST(AuthCacheTest, ServesConnectionsAndTellsAFactoryThatIsStillThere) {
  HttpConnectionFactory::shutdown();
  CountingFactory factory;
  HttpConnectionFactory::SetOverrideFactory(&factory);
  const test::BareConnection connection("host.example");
  QString user, password;
  EXPECT_FALSE(connection.GetRealmAuthInfo("r", &user, &password));
  connection.SetRealmAuthInfo("r", kAlice.first, kAlice.second);
  const RefPtr<AuthCache> cache = HttpConnectionFactory::GetAuthCache();
  EXPECT_EQ(Find(*cache, "host.example", "r"), kAlice);
  EXPECT_TRUE(connection.GetRealmAuthInfo("r", &user, &password));
  EXPECT_EQ(user + password, "alicea");
  connection.ClearRealmAuthInfo("r");
  EXPECT_FALSE(connection.GetRealmAuthInfo("r", &user, &password));
  HttpConnectionFactory::ClearAuthCache();
  EXPECT_EQ(factory.cleared, 1);
  HttpConnectionFactory::SetOverrideFactory(nullptr);
  cache->Clear();
  EXPECT_EQ(factory.cleared, 1);

  HttpConnectionFactory::shutdown();
  EXPECT_TRUE(HttpConnectionFactory::GetSingleton());
  const RefPtr<AuthCache> survivor = HttpConnectionFactory::GetOrCreateAuthCache();
  HttpConnectionFactory::shutdown();
  survivor->Clear();  // the platform's factory is gone
}

}  // namespace
}  // namespace orvan::net
