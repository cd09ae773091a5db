#include "orvan/net/identity/request_signers.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

#include "tests/net/http/bare_connection.h"

namespace orvan::net {
namespace {

// The Authorization lines that a request gets, those with a signature without what is never twice the same.
QStringList LinesFor(HttpConnection* connection, const QString& path) {
  const RefPtr<HttpRequest> request(new test::PlainRequest(path));
  request->unref();  // the creator's reference
  EXPECT_TRUE(connection->DoPreSendRequest(request.get()));
  QStringList lines;
  for (int i = 1; i < request->GetRequestHeaderCount(); ++i) {
    const QString line = request->GetRequestHeader(i);
    const int key = line.indexOf("oauth_consumer_key");
    lines += key < 0 ? line : "signed: " + line.mid(key).section('"', 1, 1);
  }
  return lines;
}

TEST(RequestSignersTest, MatchHostPortAndPath) {
  const struct {
    const char *signer_url, *host, *path;
    int port;
    bool oauth1, others;
  } rows[] = {
      {"http://h.example", "h.example", "/", 80, true, true},
      {"http://h.example", "sub.h.example", "/", 80, true, false},
      {"http://h.example", "evilh.example", "/", 80, true, false},
      {"http://h.example", "h.example.com", "/", 80, false, false},
      {"http://H.example", "h.example", "/", 80, true, true},  // QUrl has lowered it
      {"http://h.example", "H.example", "/", 80, false, false},
      {"", "h.example", "/", 80, true, false},
      {"https://h.example", "h.example", "/", 81, true, true},
      {"http://h.example:8080", "h.example", "/", 8080, true, true},
      {"http://h.example:8080", "h.example", "/", 80, true, false},
      {"http://h.example/a", "h.example", "/a?x=1", 80, true, true},
      {"http://h.example/a", "h.example", "/abc", 80, true, true},
      {"http://h.example/a", "h.example", "/A", 80, false, false},
      {"http://h.example/a%20b", "h.example", "/a%20b", 80, false, false},  // text against decoded text
  };
  for (const auto& row : rows) {
    test::BareConnection connection(row.host, false, row.port);
    const QUrl url(row.signer_url);
    const OauthHttpSigner oauth1(url, "key", "", "");
    const RefPtr<Oauth2HttpSigner> oauth2(new Oauth2HttpSigner(url, "2"));
    const OrvanBuilderAuth builder(url, "3");
    QStringList expected;
    if (row.oauth1) expected << "signed: key";
    if (row.others) expected += {"Authorization: OAuth 2", "Authorization: QuorexLogin auth=3\r\n"};
    EXPECT_EQ(LinesFor(&connection, row.path), expected) << row.signer_url << " " << row.host << row.path;
  }
}

TEST(RequestSignersTest, KeepTheOrderOfTheirMaking) {
  test::BareConnection connection("h");
  const auto find = [](const char* url) { return OauthHttpSigner::FindSigner(QUrl(url)); };
  EXPECT_EQ(find("http://h/"), nullptr);
  const OauthHttpSigner other(QUrl("https://h"), "1", "", "");
  auto whole_host = std::make_unique<OauthHttpSigner>(QUrl("http://h:81"), "2", "", "");
  const OauthHttpSigner folder(QUrl("http://h/a"), "3", "t", "s");
  EXPECT_EQ(find("http://h:8080/a/b?q"), whole_host.get()) << "the oldest, not the longest";
  for (const char* url : {"http://sub.h/a", "http://h:99999/"}) EXPECT_EQ(find(url), nullptr) << url;
  EXPECT_EQ(LinesFor(&connection, "/abc"), QStringList({"signed: 1", "signed: 2", "signed: 3"}));
  whole_host.reset();
  EXPECT_EQ(find("http://h/abc"), &folder);
  EXPECT_EQ(LinesFor(&connection, "/abc"), QStringList({"signed: 1", "signed: 3"}));
  EXPECT_TRUE(folder.CreateAuthHeader(QUrl("http://x/"), kHttpGet).second.endsWith("oauth_token=\"t\""));
}

// A hook that meets a signer half made, or half gone, is a report of ThreadSanitizer or a crash.
TEST(RequestSignersTest, ComeAndGoWhileOthersSend) {
  std::atomic<bool> stop{false};
  std::atomic<int> lines{0};
  std::vector<std::thread> senders;
  const auto send = [&] {
    test::BareConnection connection("h");
    while (!stop) lines += LinesFor(&connection, "/").size();
  };
  for (int i = 0; i < 4; ++i) senders.emplace_back(send);
  const QUrl url("http://h");
  for (int i = 0; i < 33334; ++i) {
    const OauthHttpSigner oauth1(url, "k", "", "");
    const RefPtr<Oauth2HttpSigner> oauth2(new Oauth2HttpSigner(url, ""));
    const OrvanBuilderAuth builder(url, "");
    EXPECT_EQ(OauthHttpSigner::FindSigner(url), &oauth1);
  }
  stop = true;
  for (std::thread& sender : senders) sender.join();
  EXPECT_GT(lines, 1000);
}

}  // namespace
}  // namespace orvan::net
