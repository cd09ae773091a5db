#include "orvan/net/http/http_connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "orvan/support/thread/system.h"
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

// Writes down what was delivered, by URL.
class Receiver : public HttpRequest::Callback {
 public:
  int RequestDone(HttpRequest* request, void*) override {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      delivered_.push_back(request->GetURL().toStdString());
    }
    ++count;
    if (then) then();
    return 0;
  }
  std::vector<std::string> delivered() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return delivered_;
  }
  std::function<void()> then;  // set while nothing is delivered
  std::atomic<int> count{0};

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> delivered_;
};

// A request that tells of its end.
class CountedRequest : public PlainRequest {
 public:
  CountedRequest(const QString& url, std::atomic<int>* alive) : PlainRequest(url), alive_(alive) {
    ++*alive_;
  }
  ~CountedRequest() override { --*alive_; }

 private:
  std::atomic<int>* const alive_;
};

class HttpConnectionTest : public testing::Test {
 protected:
  // A request that is over, in the completed queue and nowhere else.
  void Complete(HttpConnection* connection, const char* url, HttpRequest::Callback* callback,
                int priority = 0) {
    auto* const request = new CountedRequest(QString::fromLatin1(url), &alive_);
    request->SetPriority(priority);
    request->SetCallback(callback, nullptr);
    connection->AppendCompletedRequest(request);
    request->unref();
  }

  static std::unique_ptr<HttpConnection> Connect() {
    const ServerInfo server(QStringLiteral("host.example"), 80, false);
    return std::unique_ptr<HttpConnection>(
        HttpConnectionFactory::CreateHttpConnection(&server, nullptr, 15.0, 15, 1, 0, 0, 0));
  }

  test::Watchdog watchdog_{120, "a connection does not end"};
  std::atomic<int> alive_{0};  // CountedRequest objects
};

TEST_F(HttpConnectionTest, DeliversByPriorityWhatPilesUpBehindACallback) {
  BareConnection connection;
  const Gate first_runs;
  const Gate let_go;
  Receiver receiver;
  receiver.then = [&] {
    first_runs.Open();
    EXPECT_TRUE(let_go.Wait());
  };
  Complete(&connection, "first", &receiver);
  ASSERT_TRUE(first_runs.Wait());
  Complete(&connection, "late", &receiver, 5);
  Complete(&connection, "plain", &receiver);
  Complete(&connection, "plain too", &receiver);
  Complete(&connection, "urgent", &receiver, -1);
  let_go.Open();
  ASSERT_TRUE(SpinUntil([&] { return alive_ == 0; }));
  EXPECT_THAT(receiver.delivered(), testing::ElementsAre("first", "urgent", "plain", "plain too", "late"));
}

// Only the first request of a pile wakes the callback thread. None may be forgotten for that.
TEST_F(HttpConnectionTest, DeliversEverythingThatSeveralThreadsComplete) {
  constexpr int kThreads = 4;
  constexpr int kEach = 500;
  BareConnection connection;
  Receiver receiver;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int k = 0; k < kEach; ++k) Complete(&connection, "/", &receiver);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(SpinUntil([&] { return alive_ == 0; }));
  EXPECT_EQ(receiver.count, kThreads * kEach);
}

struct ProcessCase {
  const char* says;
  unsigned int status;
  const char* header;
  unsigned int result;
};

const ProcessCase kProcessCases[] = {
    {"an acceptable type shows the status", kStatusOk, "Content-Type: image/png", kStatusOk},
    {"of a failure too", kStatusNoConnection, "Content-Type: image/png", kStatusNoConnection},
    {"another type hides a success", kStatusOk, "Content-Type: text/html", kStatusUnacceptableType},
    {"and a failure", kStatusNoConnection, "Server: x", kStatusUnacceptableType},
};

TEST_F(HttpConnectionTest, ProcessRequestChecksTheMediaType) {
  ScriptedTransport transport;
  for (const ProcessCase& row : kProcessCases) {
    SCOPED_TRACE(row.says);
    transport.AnswerAll({row.status, "body", {QString::fromLatin1(row.header)}});
    const auto connection = Connect();
    HttpRequest* const request = connection->CreateRequest(kHttpGet, QStringLiteral("/"), nullptr);
    request->AddAcceptContentType(QStringLiteral("image/png"));
    EXPECT_EQ(connection->ProcessRequest(request), row.result);
    EXPECT_EQ(request->GetResponseBuffer()->size(), 4u);
    EXPECT_TRUE(SpinUntil([&] { return request->getRefCount() == 1; }));
    request->unref();
  }
}

TEST_F(HttpConnectionTest, ARefusedRequestKeepsNoCallback) {
  BareConnection connection;
  connection.refusal = kStatusOutOfMemory;
  HttpRequest* const request = connection.CreateRequest(kHttpGet, QStringLiteral("/"), nullptr);
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
    HttpRequest* const request = connection->CreateRequest(kHttpGet, QStringLiteral("/"), nullptr);
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
    EXPECT_TRUE(SpinUntil([&] { return transport.GetAliveRequestCount() == 0; }));
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
  std::atomic<int> sent{0};
  std::atomic<int> completed{0};
  std::atomic<HttpRequest*> refused{nullptr};
};

TEST_F(HttpConnectionTest, ARefusingHookStopsTheOnesBehindIt) {
  ScriptedTransport transport;
  transport.AnswerAll({});
  Hook first;
  Hook second;
  first.go_on = false;
  const auto connection = Connect();
  Receiver receiver;
  HttpRequest* const request = connection->CreateRequest(kHttpGet, QStringLiteral("/"), nullptr);
  EXPECT_EQ(connection->EnqueueRequest(request, &receiver, nullptr), kStatusOk);
  ASSERT_TRUE(SpinUntil([&] { return first.refused != nullptr; }));
  EXPECT_EQ(transport.GetSentCount(), 1) << "before sending, a refusal does not keep the request here";
  EXPECT_EQ(second.sent, 0);

  // Behind this one nothing is left of the first, so its callback is really missing.
  first.go_on = true;
  HttpRequest* const next = connection->CreateRequest(kHttpGet, QStringLiteral("/2"), nullptr);
  EXPECT_EQ(connection->ProcessRequest(next), kStatusOk);
  next->unref();
  EXPECT_EQ(second.completed, 1);
  EXPECT_EQ(receiver.count, 0);
  EXPECT_EQ(request->getRefCount(), 1) << "the reference is the hook's";
  request->unref();
}

TEST_F(HttpConnectionTest, AHookIsCalledOncePerRegistration) {
  BareConnection connection;
  PlainRequest request;
  {
    Hook hook;
    HttpConnection::RegisterHttpCallback(&hook);
    EXPECT_TRUE(connection.DoPreSendRequest(&request));
    EXPECT_EQ(hook.sent, 2);
    HttpConnection::UnregisterHttpCallback(&hook);
    EXPECT_TRUE(connection.DoPreSendRequest(&request));
    EXPECT_EQ(hook.sent, 3);
  }
  EXPECT_TRUE(connection.DoPreSendRequest(&request));  // the destructor took the last one away
}

TEST_F(HttpConnectionTest, DestroyingItDeliversNothingMore) {
  auto connection = std::make_unique<BareConnection>();
  const Gate first_runs;
  const Gate let_go;
  Receiver receiver;
  receiver.then = [&] {
    first_runs.Open();
    EXPECT_TRUE(let_go.Wait());
  };
  Complete(connection.get(), "first", &receiver);
  ASSERT_TRUE(first_runs.Wait());
  for (int i = 0; i < 3; ++i) Complete(connection.get(), "later", &receiver);
  connection->AppendAsyncRequest(new CountedRequest(QStringLiteral("in flight"), &alive_));
  connection->in_destructor = [&] { let_go.Open(); };
  connection.reset();
  EXPECT_THAT(receiver.delivered(), testing::ElementsAre("first"));
  EXPECT_EQ(alive_, 0);
}

TEST_F(HttpConnectionTest, ACallbackMayDestroyItsConnection) {
  const int threads = test::CountThreads();
  auto* const connection = new BareConnection;
  const Gate all_there;
  Receiver receiver;
  receiver.then = [&] {
    EXPECT_TRUE(all_there.Wait());
    DisposeConnection(connection);
  };
  for (int i = 0; i < 3; ++i) Complete(connection, "request", &receiver);
  all_there.Open();
  EXPECT_TRUE(SpinUntil([&] { return alive_ == 0; }));
  EXPECT_TRUE(SpinUntil([&] { return test::CountThreads() == threads; }));
  EXPECT_EQ(receiver.count, 1);
}

TEST_F(HttpConnectionTest, DisposingWaitsForNobodyElsewhere) {
  DisposeConnection(nullptr);
  auto* const connection = new BareConnection;
  connection->may_be_destroyed_here = false;
  const Gate disposed;
  const Gate destroyed;
  connection->in_destructor = [disposed, destroyed, here = System::CurrentThreadId()] {
    EXPECT_TRUE(disposed.Wait());
    EXPECT_NE(System::CurrentThreadId(), here);
    destroyed.Open();
  };
  DisposeConnection(connection);
  disposed.Open();
  EXPECT_TRUE(destroyed.Wait());
}

}  // namespace
}  // namespace orvan::net
