#pragma once

#include <QByteArray>
#include <QStringList>
#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "orvan/net/http/http_connection.h"
#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/http/http_status.h"
#include "orvan/net/server/server_info.h"

namespace orvan::test {

// What comes back for one request.
struct ScriptedReply {
  unsigned int status = net::kStatusOk;
  QByteArray body;
  QStringList headers;  // whole lines
};

// A transport without a network: stands in for the platform's connection factory from its construction to its
// destruction. Its connections are real HttpConnections with their callback thread, which keep the rules of
// references; what happens to the requests is up to the test. They end before it does.
//
// Threads: every operation on any thread; the hooks are set while nothing is sent and nothing ends.
class ScriptedTransport : public net::HttpConnectionFactory {
 public:
  enum Where {
    kCallbackThread,  // through the connection's completed queue, as in life
    kHere,            // before the call returns, without the pre-complete hooks
  };

  ScriptedTransport() { SetOverrideFactory(this); }
  ~ScriptedTransport() override { SetOverrideFactory(nullptr); }

  // What happens to requests from now on.
  void HoldAll() { SetAnswer(std::nullopt, net::kStatusOk); }  // the start: in flight until Complete()
  void AnswerAll(const ScriptedReply& reply) { SetAnswer(reply, net::kStatusOk); }
  void RefuseAll(unsigned int status) { SetAnswer(std::nullopt, status); }  // EnqueueRequest() fails with it

  // Ends the oldest request that is held for this URL with success; false if there is none.
  bool Complete(const QString& url, Where where = kCallbackThread);
  // Ends everything that is held, oldest first.
  void CompleteAll(Where where = kCallbackThread);
  QStringList GetHeldUrls() const;

  net::HttpConnection* create(const net::ServerInfo* server, MemoryManager* manager, double timeout,
                              int transfer_timeout, int connection_limit) override;
  void ClearConnectionCredentials() override {}

  std::atomic<bool> cancel_ends{true};  // a cancelled request that is held ends at once, as no connection
  std::atomic<bool> connections_null{false}, requests_null{false};  // nothing more is made
  // Run inside EnqueueRequest() before the request has a callback, and when a connection has ended.
  std::function<void(const QString& url)> send_hook;
  std::function<void(const net::ServerInfo&)> destroy_hook;

  std::atomic<int> sent{0}, cancelled{0};  // requests, refused ones included; calls of Cancel()
  std::atomic<int> made{0}, alive{0}, requests_alive{0};  // connections, and requests

 private:
  friend class FakeConnection;
  friend class FakeRequest;
  struct Held {
    net::HttpConnection* connection;
    net::HttpRequest* request;  // holds the reference that the connection's queue stands for
  };
  using Answer = std::pair<std::optional<ScriptedReply>, unsigned int>;  // what comes back, why it is refused
  Answer GetAnswer() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return answer_;
  }
  void SetAnswer(const std::optional<ScriptedReply>& answer, unsigned int refusal) {
    std::lock_guard<std::mutex> guard(mutex_);
    answer_ = {answer, refusal};
  }
  bool CompleteFirst(const std::function<bool(const Held&)>& wanted, const ScriptedReply& reply, Where where);

  mutable std::mutex mutex_;  // over the locks of the connections' queues
  Answer answer_{std::nullopt, net::kStatusOk};
  std::vector<Held> held_;
};

}  // namespace orvan::test
