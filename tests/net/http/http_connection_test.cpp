#include "orvan/net/http/http_connection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "tests/net/http/bare_connection.h"
#include "tests/support/scripted_transport.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan::net {
namespace {

using test::BareConnection;
using test::Gate;
using test::PlainRequest;
using test::ScriptedTransport;
using test::SpinUntil;

// Writes down what was delivered, on the callback thread. Look when that has nothing more to deliver.
class Receiver : public HttpRequest::Callback {
 public:
  int RequestDone(HttpRequest* request, void*) override {
    delivered += request->GetURL().toStdString();
    entered.Open();
    EXPECT_TRUE(let_go.Wait());
    return 0;
  }
  std::string delivered;
  const Gate entered, let_go;
};

// A request that is over, in the completed queue and nowhere else.
void Complete(HttpConnection* connection, const char* url, Receiver* receiver, int priority = 0) {
  auto* const request = new PlainRequest(url);
  request->SetPriority(priority);
  request->SetCallback(receiver, nullptr);
  connection->AppendCompletedRequest(request);
  request->unref();
}

std::unique_ptr<HttpConnection> Connect() {
  const ServerInfo server("host.example", 80, false);
  return std::unique_ptr<HttpConnection>(
      HttpConnectionFactory::CreateHttpConnection(&server, nullptr, 15.0, 15, 1, 0, 0, 0));
}

class HttpConnectionTest : public testing::Test {
 protected:
  static bool NoneAlive() { return PlainRequest::s_alive == 0; }
  test::Watchdog watchdog_{120, "a connection does not end"};
};

TEST_F(HttpConnectionTest, DeliversByPriorityWhatPilesUpBehindACallback) {
  BareConnection connection;
  Receiver receiver;
  Complete(&connection, "first", &receiver);
  ASSERT_TRUE(receiver.entered.Wait());
  Complete(&connection, " late", &receiver, 5);
  Complete(&connection, " plain", &receiver);
  Complete(&connection, " plain too", &receiver);
  Complete(&connection, " urgent", &receiver, -1);
  receiver.let_go.Open();
  ASSERT_TRUE(SpinUntil(NoneAlive));
  EXPECT_EQ(receiver.delivered, "first urgent plain plain too late");
}

TEST_F(HttpConnectionTest, AnUnacceptableTypeHidesTheStatus) {
  ScriptedTransport transport;
  transport.AnswerAll({kStatusNoConnection, "body", {"Server: x"}});
  const auto connection = Connect();
  HttpRequest* const request = connection->CreateRequest(kHttpGet, "/", nullptr);
  EXPECT_EQ(connection->ProcessRequest(request), kStatusNoConnection);
  request->AddAcceptContentType("image/png");
  EXPECT_EQ(connection->ProcessRequest(request), kStatusUnacceptableType);
  EXPECT_TRUE(SpinUntil([&] { return request->getRefCount() == 1; }));
  request->unref();
}

TEST_F(HttpConnectionTest, ARefusedRequestKeepsNoCallback) {
  BareConnection connection;
  connection.refusal = kStatusOutOfMemory;
  HttpRequest* const request = connection.CreateRequest(kHttpGet, "/", nullptr);
  EXPECT_EQ(connection.ProcessRequest(request), kStatusOutOfMemory);
  EXPECT_EQ(request->getRefCount(), 2) << "ProcessRequest() keeps its reference";
  EXPECT_EQ(request->InvokeCallback(), 0);
  EXPECT_EQ(connection.EnqueueRequest(request, [] { ADD_FAILURE(); }), kStatusOutOfMemory);
  EXPECT_EQ(request->getRefCount(), 2);
  EXPECT_EQ(request->InvokeCallback(), 0);
  request->unref();
  request->unref();
}

// Whatever happens to the request, the function goes, and with it what it holds on to.
TEST_F(HttpConnectionTest, ABoundFunctionIsLetGo) {
  ScriptedTransport transport;
  const char* const says[] = {"answered", "cut off", "refused", "in flight when the connection ends"};
  for (int i = 0; i < 4; ++i) {
    SCOPED_TRACE(says[i]);
    auto held = std::make_shared<Gate>();
    const std::weak_ptr<Gate> watch = held;
    const Gate called = *held;
    auto connection = Connect();
    HttpRequest* const request = connection->CreateRequest(kHttpGet, "/", nullptr);
    transport.HoldAll();
    if (i == 2) transport.RefuseAll(kStatusFailed);
    const unsigned int status = connection->EnqueueRequest(request, [held] { held->Open(); });
    held.reset();
    EXPECT_EQ(status, i == 2 ? kStatusFailed : kStatusOk);
    if (i == 1) request->SetCallback(nullptr, nullptr);
    if (i < 2) transport.CompleteAll();
    if (i == 2) request->unref();
    if (i == 3) connection.reset();
    EXPECT_TRUE(SpinUntil([&] { return watch.expired(); }));
    EXPECT_EQ(called.IsOpen(), i == 0);
    EXPECT_TRUE(SpinUntil([&] { return transport.requests_alive == 0; }));
  }
}

class Hook : public HttpConnection::RequestCallbacks {
 public:
  bool PreSendRequest(HttpConnection*, HttpRequest*) override {
    ++sent;
    return go_on;
  }
  bool PreCompleteRequest(HttpConnection*, HttpRequest* request) override {
    ++completed;
    if (!go_on) refused = request;
    return go_on;
  }
  std::atomic<bool> go_on{true};
  std::atomic<int> sent{0}, completed{0};
  std::atomic<HttpRequest*> refused{nullptr};
};

TEST_F(HttpConnectionTest, ARefusingHookStopsTheOnesBehindIt) {
  ScriptedTransport transport;
  transport.AnswerAll({});
  Hook first, second;
  first.go_on = false;
  const auto connection = Connect();
  Receiver receiver;
  HttpRequest* const request = connection->CreateRequest(kHttpGet, "/", nullptr);
  EXPECT_EQ(connection->EnqueueRequest(request, &receiver, nullptr), kStatusOk);
  ASSERT_TRUE(SpinUntil([&] { return first.refused != nullptr; }));
  EXPECT_EQ(transport.sent, 1) << "before sending, a refusal does not keep the request here";
  EXPECT_EQ(second.sent, 0);

  // Behind this one nothing is left of the first, so its callback is really missing.
  first.go_on = true;
  HttpRequest* const next = connection->CreateRequest(kHttpGet, "/2", nullptr);
  EXPECT_EQ(connection->ProcessRequest(next), kStatusOk);
  next->unref();
  EXPECT_EQ(second.completed, 1);
  EXPECT_EQ(receiver.delivered, "");
  EXPECT_EQ(request->getRefCount(), 1) << "the reference is the hook's";
  request->unref();
}

TEST_F(HttpConnectionTest, DestroyingItDeliversNothingMore) {
  auto connection = std::make_unique<BareConnection>();
  Receiver receiver;
  Complete(connection.get(), "first", &receiver);
  ASSERT_TRUE(receiver.entered.Wait());
  Complete(connection.get(), "later", &receiver);
  connection->AppendAsyncRequest(new PlainRequest("in flight"));
  connection->in_destructor = [&] { receiver.let_go.Open(); };
  connection.reset();
  EXPECT_EQ(receiver.delivered, "first");
  EXPECT_TRUE(NoneAlive());
}

}  // namespace
}  // namespace orvan::net
