#include "tests/support/loopback_server.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QByteArray>
#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>

#include "tests/support/watchdog.h"

namespace orvan::test {
namespace {

void Check(bool done, const char* what) {
  if (done) return;
  perror(what);
  std::abort();
}

// A TCP socket bound to a free port of 127.0.0.1.
int BindToFreePort(int* port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const name = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof(address);
  Check(bind(fd, name, size) == 0 && getsockname(fd, name, &size) == 0, "no free port");
  *port = ntohs(address.sin_port);
  return fd;
}

// What was sent and not yet received may get lost, and neither side keeps its port in TIME_WAIT.
void CloseByReset(int fd) {
  const linger none = {1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &none, sizeof(none));
}

bool SendAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

bool ReadMore(int fd, std::string* buffer) {
  char block[65536];
  const ssize_t got = recv(fd, block, sizeof(block), 0);
  if (got > 0) buffer->append(block, static_cast<size_t>(got));
  return got > 0;
}

bool TakeBytes(int fd, std::string* buffer, size_t count, std::string* taken) {
  while (buffer->size() < count) {
    if (!ReadMore(fd, buffer)) return false;
  }
  *taken = buffer->substr(0, count);
  buffer->erase(0, count);
  return true;
}

bool ReadRequest(int fd, std::string* buffer, RecordedRequest* request) {
  size_t end = 0;
  while ((end = buffer->find("\r\n\r\n")) == std::string::npos) {
    if (!ReadMore(fd, buffer)) return false;
  }
  if (!TakeBytes(fd, buffer, end + 4, &request->head)) return false;
  const QList<QByteArray> words = QByteArray::fromStdString(request->head).split('\r').front().split(' ');
  request->method = words.value(0).toStdString();
  request->target = words.value(1).toStdString();
  return TakeBytes(fd, buffer, std::strtoul(request->Header("Content-Length").c_str(), nullptr, 10),
                   &request->body);
}

std::string PathOf(const std::string& target) { return target.substr(0, target.find('?')); }

}  // namespace

std::vector<std::string> RecordedRequest::Headers(const std::string& name) const {
  std::vector<std::string> values;
  for (const QByteArray& line : QByteArray::fromStdString(head).split('\n')) {
    const int colon = line.indexOf(':');
    if (colon >= 0 && line.left(colon).toLower() == QByteArray::fromStdString(name).toLower()) {
      values.push_back(line.mid(colon + 1).trimmed().toStdString());
    }
  }
  return values;
}

std::string RecordedRequest::Header(const std::string& name) const {
  const std::vector<std::string> values = Headers(name);
  return values.empty() ? std::string() : values.front();
}

Script& Script::Add(std::function<bool(int)> step) {
  steps_.push_back(std::move(step));
  return *this;
}

Script& Script::Send(std::string bytes) {
  return Add([bytes = std::move(bytes)](int fd) { return SendAll(fd, bytes); });
}

Script& Script::Drip(const std::string& bytes, size_t piece, int pause_ms) {
  const auto pause = [pause_ms](int) { return !Gate().Wait(pause_ms); };
  for (size_t at = 0; at < bytes.size(); at += piece) Send(bytes.substr(at, piece)).Add(pause);
  return *this;
}

Script& Script::Endless(uint64_t count) {
  return Add([count](int fd) {
    const std::string block(65536, 'x');
    for (uint64_t left = count; left > 0; left -= std::min(left, uint64_t{block.size()})) {
      if (!SendAll(fd, std::string_view(block).substr(0, left))) return false;
    }
    return true;
  });
}

Script& Script::Stall(const Gate& gate) {
  return Add([gate](int fd) {
    pollfd gone = {fd, POLLRDHUP, 0};
    while (!gate.Wait(5)) {
      if (poll(&gone, 1, 0) != 0) return false;
    }
    return true;
  });
}

Script& Script::Signal(const Gate& gate) {
  return Add([gate](int) {
    gate.Open();
    return true;
  });
}

Script& Script::Close() {
  return Add([](int) { return false; });
}

Script& Script::Reset() {
  return Add([](int fd) {
    CloseByReset(fd);
    return false;
  });
}

Script& Script::Then(const Script& other) {
  steps_.insert(steps_.end(), other.steps_.begin(), other.steps_.end());
  return *this;
}

bool Script::Run(int fd) const {
  return std::all_of(steps_.begin(), steps_.end(), [fd](const auto& step) { return step(fd); });
}

std::string Response(int status, const HeaderList& headers, std::string_view body) {
  std::string response = "HTTP/1.1 " + std::to_string(status) + " Some Reason\r\n";
  bool has_length = status == 204 || status == 304;
  if (has_length) body = {};
  for (const auto& [name, value] : headers) {
    response.append(name).append(": ").append(value).append("\r\n");
    has_length = has_length || name == "Content-Length" || name == "Transfer-Encoding";
  }
  if (!has_length) response += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  return response.append("\r\n").append(body);
}

Script Reply(int status, const HeaderList& headers, std::string_view body) {
  return Script().Send(Response(status, headers, body));
}

Script Ok(std::string_view body, const std::string& content_type) {
  return Reply(200, {{"Content-Type", content_type}}, body);
}

Script RedirectTo(const std::string& location, int status) { return Reply(status, {{"Location", location}}); }

Script LargeBody(uint64_t count) {
  return Reply(200, {{"Content-Length", std::to_string(count)}}).Endless(count);
}

struct LoopbackServer::State {
  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  // Guarded by mutex, all of them.
  bool stopping = false;
  std::map<std::string, Script> scripts;
  Script otherwise = Reply(404, {}, "nothing here");
  std::map<std::string, std::pair<int, RecordedRequest>> requests;  // how many there were, and the last
  std::set<int> open;                                               // descriptors of connections

  template <class Predicate>
  bool Wait(int timeout_ms, const Predicate& predicate) const {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::milliseconds(timeout_ms), predicate);
  }
  int Hits(const std::string& path) const {
    const auto it = requests.find(path);
    return it == requests.end() ? 0 : it->second.first;
  }
  // Counts and records `request`, and returns its script.
  Script Begin(const RecordedRequest& request) {
    const std::lock_guard<std::mutex> guard(mutex);
    const Script* script = &otherwise;
    for (const std::string& key : std::set{PathOf(request.target), request.target}) {  // the longer one last
      requests[key] = {Hits(key) + 1, request};
      const auto found = scripts.find(key);
      if (found != scripts.end()) script = &found->second;
    }
    changed.notify_all();
    return *script;
  }
};

LoopbackServer::LoopbackServer() : state_(std::make_shared<State>()) {
  listener_ = BindToFreePort(&port_);
  Check(listen(listener_, 1024) == 0, "cannot listen");
  accept_thread_ = std::thread([this] {
    for (;;) {
      const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      const std::lock_guard<std::mutex> guard(state_->mutex);
      if (state_->stopping) {
        close(fd);
        break;
      }
      if (fd < 0) continue;  // out of descriptors, for one: some will be free again
      const int on = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
      state_->open.insert(fd);
      state_->changed.notify_all();
      std::thread([state = state_, fd] { Serve(state, fd); }).detach();
    }
  });
}

LoopbackServer::~LoopbackServer() {
  const Watchdog watchdog(30, "stopping a loopback server");
  {
    const std::lock_guard<std::mutex> guard(state_->mutex);
    state_->stopping = true;
    for (const int fd : state_->open) shutdown(fd, SHUT_RDWR);
  }
  shutdown(listener_, SHUT_RDWR);
  accept_thread_.join();
  close(listener_);
  (void)WaitForConnections(0);
}

// The thread of a connection.
void LoopbackServer::Serve(const std::shared_ptr<State>& state, int fd) {
  std::string buffer;  // read and not yet taken
  for (bool go_on = true; go_on;) {
    RecordedRequest request;
    go_on = ReadRequest(fd, &buffer, &request);
    if (!go_on) CloseByReset(fd);  // the client has gone; a stress would use up the machine's ports
    go_on = go_on && state->Begin(request).Run(fd);
  }
  const std::lock_guard<std::mutex> guard(state->mutex);
  state->open.erase(fd);
  close(fd);
  state->changed.notify_all();
}

std::string LoopbackServer::Origin(const std::string& host) const {
  return "http://" + host + ":" + std::to_string(port_);
}

void LoopbackServer::On(const std::string& path, const Script& script) {
  const std::lock_guard<std::mutex> guard(state_->mutex);
  state_->scripts[path] = script;
}

void LoopbackServer::Otherwise(const Script& script) {
  const std::lock_guard<std::mutex> guard(state_->mutex);
  state_->otherwise = script;
}

std::string LoopbackServer::AddRedirects(const std::string& prefix, int steps, const Script& end) {
  const auto path = [&prefix](int step) { return prefix + "/" + std::to_string(step); };
  for (int step = 0; step < steps; ++step) On(path(step), RedirectTo(Origin() + path(step + 1)));
  On(path(steps), end);
  return path(0);
}

RecordedRequest LoopbackServer::LastRequest(const std::string& path) const {
  const std::lock_guard<std::mutex> guard(state_->mutex);
  return state_->Hits(path) > 0 ? state_->requests[path].second : RecordedRequest();
}

int LoopbackServer::Hits(const std::string& path) const {
  const std::lock_guard<std::mutex> guard(state_->mutex);
  return state_->Hits(path);
}

bool LoopbackServer::WaitForHits(const std::string& path, int at_least) const {
  return state_->Wait(kWaitMs, [&] { return state_->Hits(path) >= at_least; });
}

bool LoopbackServer::WaitForConnections(size_t open) const {
  return state_->Wait(kWaitMs, [&] { return state_->open.size() == open; });
}

RefusingPort::RefusingPort() { fd_ = BindToFreePort(&port_); }

RefusingPort::~RefusingPort() { close(fd_); }

}  // namespace orvan::test
