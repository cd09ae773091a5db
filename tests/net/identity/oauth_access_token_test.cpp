#include "orvan/net/identity/oauth_access_token.h"

#include <gtest/gtest.h>

#include <QProcess>
#include <memory>

#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/server/server_info.h"
#include "orvan/support/memory/heap_buffer.h"
#include "tests/net/http/bare_connection.h"
#include "tests/support/wait.h"

namespace orvan::net {
namespace {

struct Done : OauthAccessToken::AccessDoneCallback {
  void OnAccessDone() override { ++calls, inside(); }
  std::function<void()> inside = [] {};
  std::atomic<int> calls{0};
};

QString ResultOf(const OauthAccessToken& token) {
  return token.oauth_token() + ' ' + token.oauth_token_secret();
}

TEST(OauthAccessTokenTest, ReadsTheAnswerByPosition) {
  const std::pair<QByteArray, const char*> rows[] = {
      // body; token and secret
      {"", " "},
      {"oauth_token=a%2Fb+%C3%A9&oauth_token_secret=c&oauth_expires_in=1", "a/b+\xC3\xA9 c"},
      {"oauth_token=c", "a/b+\xC3\xA9 c"},  // one field leaves both as they were
      {"oauth_token=&oauth_token_secret=", " "},
      {"oauth_token_secret=%41&oauth_token=b", "oauth_token_secret=%41 oauth_token=b"},
      {"oauth_token=%41&secret=b", "oauth_token=%41 secret=b"},  // one bad name spoils both
      {"oauth_token=a=&oauth_token_secret=b", "oauth_token=a= oauth_token_secret=b"},
      {QByteArray("a&b\0&c", 6), "a b"},
  };
  Done done;
  OauthAccessToken token(&done);
  test::PlainRequest request;
  for (const auto& [body, result] : rows) {
    HeapBuffer* const buffer = HeapBuffer::CreateFromQtBuffer(nullptr, body);
    request.SetResponseBuffer(buffer);
    buffer->unref();  // the request has its own
    EXPECT_EQ(token.RequestDone(&request, nullptr), 0);
    EXPECT_EQ(ResultOf(token), QString::fromUtf8(result)) << body.constData();
  }
  request.SetResponseStatus(kStatusNoConnection);
  EXPECT_EQ(token.RequestDone(&request, nullptr), 0);
  EXPECT_EQ(done.calls, 8) << "all but the failure are told";
}

TEST(OauthAccessTokenTest, OwnsWhatItWasGivenLast) {
  int ended = 0;
  auto *const first = new test::BareConnection, *const second = new test::BareConnection;
  first->in_destructor = second->in_destructor = [&ended] { ++ended; };
  second->refusal = kStatusFailed;
  {
    OauthAccessToken token(nullptr);
    HttpRequest* request = new test::PlainRequest;
    for (int i = 0; i < 2; ++i) token.Initialize(first, request, "t", "s", "v");
    EXPECT_EQ(request->GetRequestHeaderCount(), 3) << "signed at once, and again";
    EXPECT_FALSE(request->GetCacheRead() || request->GetCacheWrite());
    EXPECT_EQ(token.SendRequest(), kStatusOk);  // takes our reference
    request = new test::PlainRequest;
    token.Initialize(second, request, "t", "s", "v");
    EXPECT_EQ(ended, 1);
    EXPECT_EQ(test::PlainRequest::s_alive, 1);
    EXPECT_EQ(token.SendRequest(), kStatusFailed);
    request->unref();  // ours, which a refusal leaves to us
  }
  EXPECT_EQ(ended, 2);
  EXPECT_EQ(test::PlainRequest::s_alive, 0);
}

TEST(OauthAccessTokenTest, TheAnswerToARequestThatWasReplacedIsNotRead) {
  Done done;
  OauthAccessToken token(&done);
  auto* const connection = new test::BareConnection;
  const RefPtr<HttpRequest> replaced(new test::PlainRequest), last(new test::PlainRequest);
  for (HttpRequest* const request : {replaced.get(), last.get()}) {
    token.Initialize(connection, request, "t", "s", "v");
    EXPECT_EQ(token.SendRequest(), kStatusOk);  // takes the reference of its maker
  }
  replaced->InvokeCallback();
  EXPECT_EQ(done.calls, 0);
}

TEST(OauthAccessTokenTest, TradesWithAServerThatVerifies) {
  QProcess server;
  server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
  server.start("/usr/bin/python3", {"-B", ORVAN_OAUTH_SCRIPTS "oauth_server.py"});
  ASSERT_TRUE(server.waitForReadyRead(test::kWaitMs)) << "python3 or python3-oauthlib is missing";
  const ServerInfo address("127.0.0.1", server.readLine().trimmed().toInt(), false);
  for (const char* const secret : {"request secret", "wrong secret"}) {
    QString result;
    Done done;
    auto token = std::make_unique<OauthAccessToken>(&done);
    done.inside = [&] {
      result = ResultOf(*token);
      token.reset();  // an object may end inside its own call, and its connection with it
    };
    HttpConnection* const connection =
        HttpConnectionFactory::CreateHttpConnection(&address, nullptr, 15, 15, 1, 0, 0, 0);
    HttpRequest* const request = connection->CreateRequest(kHttpPost, "/token?scope=a%20map", nullptr);
    request->AddRequestHeader("Content-Type: application/x-www-form-urlencoded");
    const RefPtr<HttpRequest> kept(request);
    token->Initialize(connection, request, "request/token", secret, "veri&fier");
    ASSERT_EQ(token->SendRequest(), kStatusOk);
    const bool right = secret[0] == 'r';
    EXPECT_TRUE(test::PumpUntil([&] { return kept->getRefCount() == (right ? 1 : 2); }));
    token.reset();
    EXPECT_EQ(result, right ? "access/token&= access%secret" : "");
  }
  server.closeWriteChannel();
  EXPECT_TRUE(server.waitForFinished(test::kWaitMs));
}

}  // namespace
}  // namespace orvan::net
