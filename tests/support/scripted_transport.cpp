#include "tests/support/scripted_transport.h"

#include <algorithm>

#include "orvan/support/memory/heap_buffer.h"

namespace orvan::test {

using net::HttpConnection;
using net::HttpRequest;
using net::ServerInfo;

namespace {

void Fill(HttpRequest* request, const ScriptedReply& reply) {
  request->SetResponseStatus(reply.status);
  for (const QString& line : reply.headers) request->AddResponseHeader(line);
  HeapBuffer* const body = HeapBuffer::CreateFromQtBuffer(nullptr, reply.body);
  request->SetResponseBuffer(body);
  body->unref();  // the request has its own
}

}  // namespace

class FakeRequest : public HttpRequest {
 public:
  FakeRequest(net::HttpMethod method, const QString& url, void* owner_data, ScriptedTransport* transport)
      : HttpRequest(method, url, owner_data), transport_(transport) {
    ++transport_->requests_alive;
  }
  ~FakeRequest() override { --transport_->requests_alive; }
  void Cancel() override {
    ++transport_->cancelled;
    if (!transport_->cancel_ends) return;
    const ScriptedReply reply{net::kStatusNoConnection, {}, {}};
    transport_->CompleteFirst([this](const auto& held) { return held.request == this; }, reply,
                              ScriptedTransport::kCallbackThread);
  }

 private:
  ScriptedTransport* const transport_;
};

class FakeConnection : public HttpConnection {
 public:
  FakeConnection(const ServerInfo& server, MemoryManager* manager, double timeout, int transfer_timeout,
                 int connection_limit, ScriptedTransport* transport)
      : HttpConnection(server.host(), server.secure(), server.port(), manager, server.user_agent(), timeout,
                       transfer_timeout, connection_limit),
        server_(server),
        transport_(transport) {
    ++transport_->made;
    ++transport_->alive;
  }
  ~FakeConnection() override {
    {
      std::lock_guard<std::mutex> guard(transport_->mutex_);
      auto& held = transport_->held_;
      const auto is_mine = [this](const auto& entry) { return entry.connection == this; };
      held.erase(std::remove_if(held.begin(), held.end(), is_mine), held.end());
    }
    --transport_->alive;
    if (transport_->destroy_hook) transport_->destroy_hook(server_);
  }

  HttpRequest* CreateRequest(net::HttpMethod method, const QString& url, void* owner_data) override {
    return transport_->requests_null ? nullptr : new FakeRequest(method, url, owner_data, transport_);
  }
  using HttpConnection::EnqueueRequest;
  unsigned int EnqueueRequest(HttpRequest* request, HttpRequest::Callback* callback, void* data) override {
    DoPreSendRequest(request);
    ++transport_->sent;
    if (transport_->send_hook) transport_->send_hook(request->GetURL());
    const auto [answer, refusal] = transport_->GetAnswer();
    if (refusal != net::kStatusOk) return refusal;
    request->SetCallback(callback, data);
    if (answer) {
      Fill(request, *answer);
      AppendCompletedRequest(request);
      request->unref();  // what a successful enqueue passes to the connection
      return net::kStatusOk;
    }
    std::lock_guard<std::mutex> guard(transport_->mutex_);
    AppendAsyncRequest(request);
    transport_->held_.push_back({this, request});
    return net::kStatusOk;
  }
  unsigned int SendRequest(HttpRequest*) override { return net::kStatusFailed; }

 private:
  const ServerInfo server_;
  ScriptedTransport* const transport_;
};

bool ScriptedTransport::CompleteFirst(const std::function<bool(const Held&)>& wanted,
                                      const ScriptedReply& reply, Where where) {
  HttpRequest* request = nullptr;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    const auto it = std::find_if(held_.begin(), held_.end(), wanted);
    if (it == held_.end()) return false;
    const Held held = *it;
    request = held.request;
    held_.erase(it);
    Fill(request, reply);
    held.connection->RemoveAsyncRequest(request);
    if (where == kCallbackThread) held.connection->AppendCompletedRequest(request);
  }
  if (where == kHere) request->InvokeCallback();
  request->unref();  // what the queue of requests in flight held
  return true;
}

bool ScriptedTransport::Complete(const QString& url, Where where) {
  return CompleteFirst([&url](const Held& held) { return held.request->GetURL() == url; }, {}, where);
}

void ScriptedTransport::CompleteAll(Where where) {
  for (const QString& url : GetHeldUrls()) Complete(url, where);
}

QStringList ScriptedTransport::GetHeldUrls() const {
  std::lock_guard<std::mutex> guard(mutex_);
  QStringList urls;
  for (const Held& held : held_) urls.append(held.request->GetURL());
  return urls;
}

HttpConnection* ScriptedTransport::create(const ServerInfo* server, MemoryManager* manager, double timeout,
                                          int transfer_timeout, int connection_limit) {
  if (connections_null) return nullptr;
  return new FakeConnection(*server, manager, timeout, transfer_timeout, connection_limit, this);
}

}  // namespace orvan::test
