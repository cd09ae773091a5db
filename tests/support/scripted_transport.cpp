#include "tests/support/scripted_transport.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <utility>

#include "orvan/support/memory/heap_buffer.h"
#include "orvan/support/thread/system.h"

namespace orvan::test {

using net::HttpConnection;
using net::HttpRequest;
using net::ServerInfo;

struct ScriptedTransport::State {
  // A request in flight. Its reference is the one that the connection's queue stands for.
  struct Held {
    int number;
    FakeConnection* connection;  // alive: its destructor takes its entries out first
    HttpRequest* request;
  };
  enum class Mode { kHold, kAnswer, kRefuse };

  static void Fill(HttpRequest* request, const ScriptedReply& reply) {
    request->SetResponseStatus(reply.status);
    for (const QString& line : reply.headers) request->AddResponseHeader(line);
    HeapBuffer* const body = HeapBuffer::CreateFromQtBuffer(nullptr, reply.body);
    request->SetResponseBuffer(body);
    if (body) body->unref();
  }

  // Ends the held request that `wanted` picks first.
  template <typename Predicate>
  bool CompleteFirst(Predicate wanted, const ScriptedReply& reply, Where where) {
    HttpRequest* request = nullptr;
    {
      std::lock_guard<std::mutex> guard(mutex);
      const auto it = std::find_if(held.begin(), held.end(), wanted);
      if (it == held.end()) return false;
      request = it->request;
      FakeConnection* const connection = it->connection;
      held.erase(it);
      Fill(request, reply);
      connection->RemoveAsyncRequest(request);
      if (where == Where::kCallbackThread) connection->AppendCompletedRequest(request);
    }
    if (where == Where::kThisThread) request->InvokeCallback();
    request->unref();  // what the queue of requests in flight held
    return true;
  }

  mutable std::mutex mutex;  // over the locks of the connections' queues
  bool installed = true;
  Mode mode = Mode::kHold;
  ScriptedReply general_reply;
  unsigned int refusal = net::kStatusFailed;
  std::map<QString, ScriptedReply> replies;
  bool cancel_ends = true;
  bool connections_null = false;
  bool requests_null = false;
  std::function<void(const SentRequest&)> send_hook;
  std::function<void(const ServerInfo&)> destroy_hook;
  std::vector<Held> held;
  std::vector<SentRequest> sent;
  int cancelled = 0;
  int made = 0;
  int destroyed = 0;
  int requests_alive = 0;
};

ScriptedTransport::ScriptedTransport() : state_(std::make_shared<State>()) {
  HttpConnectionFactory::SetOverrideFactory(this);
}

ScriptedTransport::~ScriptedTransport() {
  HttpConnectionFactory::SetOverrideFactory(nullptr);
  std::lock_guard<std::mutex> guard(state_->mutex);
  state_->mode = State::Mode::kHold;
  state_->replies.clear();
  state_->send_hook = nullptr;
  state_->destroy_hook = nullptr;
}

void ScriptedTransport::HoldAll() {
  std::lock_guard<std::mutex> guard(state_->mutex);
  state_->mode = State::Mode::kHold;
}

void ScriptedTransport::AnswerAll(const ScriptedReply& reply) {
  std::lock_guard<std::mutex> guard(state_->mutex);
  state_->mode = State::Mode::kAnswer;
  state_->general_reply = reply;
}

void ScriptedTransport::RefuseAll(unsigned int status) {
  std::lock_guard<std::mutex> guard(state_->mutex);
  state_->mode = State::Mode::kRefuse;
  state_->refusal = status;
}

void ScriptedTransport::SetReply(const QString& url, const ScriptedReply& reply) {
  std::lock_guard<std::mutex> guard(state_->mutex);
  state_->replies[url] = reply;
}

void ScriptedTransport::ClearReply(const QString& url) {
  std::lock_guard<std::mutex> guard(state_->mutex);
  state_->replies.erase(url);
}

void ScriptedTransport::SetCancelEnds(bool ends) {
  std::lock_guard<std::mutex> guard(state_->mutex);
  state_->cancel_ends = ends;
}

void ScriptedTransport::SetConnectionsNull(bool null) {
  std::lock_guard<std::mutex> guard(state_->mutex);
  state_->connections_null = null;
}

void ScriptedTransport::SetRequestsNull(bool null) {
  std::lock_guard<std::mutex> guard(state_->mutex);
  state_->requests_null = null;
}

void ScriptedTransport::SetSendHook(std::function<void(const SentRequest&)> hook) {
  std::lock_guard<std::mutex> guard(state_->mutex);
  state_->send_hook = std::move(hook);
}

void ScriptedTransport::SetDestroyHook(std::function<void(const ServerInfo&)> hook) {
  std::lock_guard<std::mutex> guard(state_->mutex);
  state_->destroy_hook = std::move(hook);
}

bool ScriptedTransport::Complete(int number, const ScriptedReply& reply, Where where) {
  return state_->CompleteFirst([number](const State::Held& held) { return held.number == number; }, reply,
                               where);
}

bool ScriptedTransport::Complete(const QString& url, const ScriptedReply& reply, Where where) {
  return state_->CompleteFirst([&url](const State::Held& held) { return held.request->GetURL() == url; },
                               reply, where);
}

int ScriptedTransport::CompleteAll(const ScriptedReply& reply, Where where) {
  int count = 0;
  for (const int number : GetHeld()) count += Complete(number, reply, where) ? 1 : 0;
  return count;
}

std::vector<int> ScriptedTransport::GetHeld() const {
  std::lock_guard<std::mutex> guard(state_->mutex);
  std::vector<int> numbers;
  for (const State::Held& held : state_->held) numbers.push_back(held.number);
  return numbers;
}

int ScriptedTransport::GetHeldCount() const { return static_cast<int>(GetHeld().size()); }

QStringList ScriptedTransport::GetHeldUrls() const {
  std::lock_guard<std::mutex> guard(state_->mutex);
  QStringList urls;
  for (const State::Held& held : state_->held) urls.append(held.request->GetURL());
  return urls;
}

std::vector<SentRequest> ScriptedTransport::GetSent() const {
  std::lock_guard<std::mutex> guard(state_->mutex);
  return state_->sent;
}

int ScriptedTransport::GetSentCount() const {
  std::lock_guard<std::mutex> guard(state_->mutex);
  return static_cast<int>(state_->sent.size());
}

int ScriptedTransport::GetCancelCount() const {
  std::lock_guard<std::mutex> guard(state_->mutex);
  return state_->cancelled;
}

int ScriptedTransport::GetMadeCount() const {
  std::lock_guard<std::mutex> guard(state_->mutex);
  return state_->made;
}

int ScriptedTransport::GetDestroyedCount() const {
  std::lock_guard<std::mutex> guard(state_->mutex);
  return state_->destroyed;
}

int ScriptedTransport::GetAliveCount() const {
  std::lock_guard<std::mutex> guard(state_->mutex);
  return state_->made - state_->destroyed;
}

int ScriptedTransport::GetAliveRequestCount() const {
  std::lock_guard<std::mutex> guard(state_->mutex);
  return state_->requests_alive;
}

HttpConnection* ScriptedTransport::create(const ServerInfo* server, MemoryManager* manager, double timeout,
                                          int transfer_timeout, int connection_limit) {
  int number = 0;
  {
    std::lock_guard<std::mutex> guard(state_->mutex);
    if (state_->connections_null) return nullptr;
    number = ++state_->made;
  }
  return new FakeConnection(*server, manager, timeout, transfer_timeout, connection_limit, number, state_);
}

FakeRequest::FakeRequest(net::HttpMethod method, const QString& url, void* owner_data,
                         std::shared_ptr<ScriptedTransport::State> state)
    : HttpRequest(method, url, owner_data), state_(std::move(state)) {
  std::lock_guard<std::mutex> guard(state_->mutex);
  ++state_->requests_alive;
}

FakeRequest::~FakeRequest() {
  std::lock_guard<std::mutex> guard(state_->mutex);
  --state_->requests_alive;
}

void FakeRequest::Cancel() {
  {
    std::lock_guard<std::mutex> guard(state_->mutex);
    ++state_->cancelled;
    if (!state_->cancel_ends) return;
  }
  const ScriptedReply reply{net::kStatusNoConnection, {}, {}};
  (void)state_->CompleteFirst(
      [this](const ScriptedTransport::State::Held& held) { return held.request == this; }, reply,
      ScriptedTransport::Where::kCallbackThread);  // a request that is not in flight has nothing to end
}

FakeConnection::FakeConnection(const ServerInfo& server, MemoryManager* manager, double timeout,
                               int transfer_timeout, int connection_limit, int number,
                               std::shared_ptr<ScriptedTransport::State> state)
    : HttpConnection(server.host(), server.secure(), server.port(), manager, server.user_agent(), timeout,
                     transfer_timeout, connection_limit),
      server_(server),
      number_(number),
      state_(std::move(state)) {}

FakeConnection::~FakeConnection() {
  std::function<void(const ServerInfo&)> hook;
  {
    std::lock_guard<std::mutex> guard(state_->mutex);
    auto& held = state_->held;
    const auto is_mine = [this](const ScriptedTransport::State::Held& entry) {
      return entry.connection == this;
    };
    held.erase(std::remove_if(held.begin(), held.end(), is_mine), held.end());
    ++state_->destroyed;
    hook = state_->destroy_hook;
  }
  if (hook) hook(server_);
}

HttpRequest* FakeConnection::CreateRequest(net::HttpMethod method, const QString& url, void* owner_data) {
  {
    std::lock_guard<std::mutex> guard(state_->mutex);
    if (state_->requests_null) return nullptr;
  }
  return new FakeRequest(method, url, owner_data, state_);
}

unsigned int FakeConnection::EnqueueRequest(HttpRequest* request, HttpRequest::Callback* callback,
                                            void* data) {
  DoPreSendRequest(request);
  SentRequest sent;
  sent.connection = number_;
  sent.host = server_.host();
  sent.port = server_.port();
  sent.secure = server_.secure();
  sent.user_agent = server_.user_agent();
  sent.method = request->GetMethodType();
  sent.url = request->GetURL();
  for (int i = 0; i < request->GetRequestHeaderCount(); ++i) sent.headers << request->GetRequestHeader(i);
  if (request->GetRequestBuffer()) sent.body = request->GetRequestBuffer()->ToQByteArray();
  sent.cache_read = request->GetCacheRead();
  sent.cache_write = request->GetCacheWrite();
  sent.thread = System::CurrentThreadId();

  std::function<void(const SentRequest&)> hook;
  ScriptedReply reply;
  bool answer = false;
  unsigned int refusal = net::kStatusOk;
  {
    using Mode = ScriptedTransport::State::Mode;
    std::lock_guard<std::mutex> guard(state_->mutex);
    const auto own = state_->replies.find(sent.url);
    answer = own != state_->replies.end() || state_->mode == Mode::kAnswer;
    reply = own != state_->replies.end() ? own->second : state_->general_reply;
    if (!answer && state_->mode == Mode::kRefuse) refusal = state_->refusal;
    sent.refused = refusal != net::kStatusOk;
    sent.number = static_cast<int>(state_->sent.size()) + 1;
    state_->sent.push_back(sent);
    hook = state_->send_hook;
  }
  if (hook) hook(sent);
  if (refusal != net::kStatusOk) return refusal;

  request->SetCallback(callback, data);
  if (answer) {
    ScriptedTransport::State::Fill(request, reply);
    AppendCompletedRequest(request);
    request->unref();  // what a successful enqueue passes to the connection
    return net::kStatusOk;
  }
  std::lock_guard<std::mutex> guard(state_->mutex);
  AppendAsyncRequest(request);
  state_->held.push_back({sent.number, this, request});
  return net::kStatusOk;
}

unsigned int FakeConnection::SendRequest(HttpRequest*) { return net::kStatusFailed; }

}  // namespace orvan::test
