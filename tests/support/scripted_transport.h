#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <functional>
#include <memory>
#include <vector>

#include "orvan/net/http/http_connection.h"
#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/http/http_request.h"
#include "orvan/net/http/http_status.h"
#include "orvan/net/server/server_info.h"

namespace orvan::test {

// What comes back for one request.
struct ScriptedReply {
  unsigned int status = net::kStatusOk;
  QByteArray body;
  QStringList headers;  // whole lines
};

// What a caller asked for, as it stood when the request was enqueued.
struct SentRequest {
  int number = 0;      // 1 for the first request
  int connection = 0;  // number of the connection, 1 for the first one
  QString host;
  int port = 0;
  bool secure = false;
  QString user_agent;
  net::HttpMethod method = net::kHttpGet;
  QString url;  // path and query
  QStringList headers;
  QByteArray body;
  bool cache_read = true;
  bool cache_write = true;
  bool refused = false;
  unsigned long thread = 0;  // that enqueued it
};

// A transport without a network: stands in for the platform's connection factory from its construction to its
// destruction. Its connections are real HttpConnections with their callback thread, which keep the rules of
// references; what happens to the requests is up to the test.
//
//   ScriptedTransport transport;                       // holds whatever is sent
//   transport.SetReply(QStringLiteral("/a"), {kStatusOk, "body", {}});  // but answers this one at once
//   ... transport.Complete(QStringLiteral("/b"), {kStatusFailed, {}, {}});
//
// Threads:   every operation on any thread. A completion runs on the connection's own callback thread, or on
//            the thread that asks for it.
// Ownership: connections may outlive the transport: from then on they hold what they get.
class ScriptedTransport : public net::HttpConnectionFactory {
 public:
  enum class Where {
    kCallbackThread,  // through the connection's completed queue, as in life, behind the pre-complete hooks
    kThisThread,      // here and now, before the call returns; without hooks
  };

  ScriptedTransport();
  ~ScriptedTransport() override;

  // What happens to requests from now on. A reply that was set for a URL goes before it.
  void HoldAll();  // the start: requests stay in flight until Complete()
  void AnswerAll(const ScriptedReply& reply);
  void RefuseAll(unsigned int status);  // EnqueueRequest() fails with it
  // Answers the requests for that path and query at once. The second takes it back.
  void SetReply(const QString& url, const ScriptedReply& reply);
  void ClearReply(const QString& url);
  // Whether a cancelled request that is held ends at once, with kStatusNoConnection. True at the start.
  void SetCancelEnds(bool ends);
  // From now on create() and CreateRequest() return null, or make objects again.
  void SetConnectionsNull(bool null);
  void SetRequestsNull(bool null);
  // Run inside EnqueueRequest() before the request has a callback, and at the start of a connection's
  // destructor. Empty at the start. Not while requests are being sent.
  void SetSendHook(std::function<void(const SentRequest&)> hook);
  void SetDestroyHook(std::function<void(const net::ServerInfo&)> hook);

  // Ends a held request; false if there is none of that number, or for that URL (the oldest counts).
  bool Complete(int number, const ScriptedReply& reply = {}, Where where = Where::kCallbackThread);
  bool Complete(const QString& url, const ScriptedReply& reply = {}, Where where = Where::kCallbackThread);
  // Ends everything that is held, oldest first, and returns how many these were.
  int CompleteAll(const ScriptedReply& reply = {}, Where where = Where::kCallbackThread);

  // Numbers of the requests in flight, oldest first.
  std::vector<int> GetHeld() const;
  int GetHeldCount() const;
  // URLs of the requests in flight, oldest first.
  QStringList GetHeldUrls() const;
  std::vector<SentRequest> GetSent() const;
  int GetSentCount() const;    // refused ones included
  int GetCancelCount() const;  // calls of HttpRequest::Cancel()
  int GetMadeCount() const;    // connections
  int GetDestroyedCount() const;
  int GetAliveCount() const;
  int GetAliveRequestCount() const;  // HttpRequest objects

  net::HttpConnection* create(const net::ServerInfo* server, MemoryManager* manager, double timeout,
                              int transfer_timeout, int connection_limit) override;
  void ClearConnectionCredentials() override {}

 private:
  friend class FakeConnection;
  friend class FakeRequest;
  struct State;
  std::shared_ptr<State> state_;
};

// A request of the scripted transport.
class FakeRequest : public net::HttpRequest {
 public:
  FakeRequest(net::HttpMethod method, const QString& url, void* owner_data,
              std::shared_ptr<ScriptedTransport::State> state);
  ~FakeRequest() override;
  void Cancel() override;

 private:
  const std::shared_ptr<ScriptedTransport::State> state_;
};

// A connection of the scripted transport.
class FakeConnection : public net::HttpConnection {
 public:
  FakeConnection(const net::ServerInfo& server, MemoryManager* manager, double timeout, int transfer_timeout,
                 int connection_limit, int number, std::shared_ptr<ScriptedTransport::State> state);
  ~FakeConnection() override;

  net::HttpRequest* CreateRequest(net::HttpMethod method, const QString& url, void* owner_data) override;
  using net::HttpConnection::EnqueueRequest;
  unsigned int EnqueueRequest(net::HttpRequest* request, net::HttpRequest::Callback* callback,
                              void* data) override;
  unsigned int SendRequest(net::HttpRequest* request) override;

  const net::ServerInfo& server() const { return server_; }

 private:
  const net::ServerInfo server_;
  const int number_;
  const std::shared_ptr<ScriptedTransport::State> state_;
};

}  // namespace orvan::test
