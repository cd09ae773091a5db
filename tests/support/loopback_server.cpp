#include "tests/support/loopback_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>

#include "tests/support/watchdog.h"

namespace orvan::test {
namespace {

constexpr size_t kLongestHead = size_t{4} << 20;
constexpr size_t kReadBlock = size_t{64} << 10;
constexpr size_t kRequestsKept = 100000;
constexpr int kBacklog = 1024;
constexpr int kStopSeconds = 30;

[[noreturn]] void Die(const char* what) {
  (void)std::fprintf(stderr, "Loopback server: %s: %s\n", what, qPrintable(qt_error_string(errno)));
  std::abort();
}

sockaddr_in LoopbackAddress(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  return address;
}

// A TCP socket bound to a free port of 127.0.0.1.
int BindToFreePort(int* port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) Die("no socket");
  sockaddr_in address = LoopbackAddress(0);
  socklen_t size = sizeof(address);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0) Die("no free port");
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) Die("the port has no name");
  *port = ntohs(address.sin_port);
  return fd;
}

std::string OriginOf(std::string_view host, int port) {
  return "http://" + std::string(host) + ":" + std::to_string(port);
}

QString UrlOf(std::string_view host, int port, std::string_view path) {
  return QString::fromStdString(OriginOf(host, port).append(path));
}

}  // namespace

class LoopbackServer::State {
 public:
  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  // Guarded by mutex, all of them.
  bool stopping = false;
  std::map<std::string, Handler> handlers;
  std::map<std::pair<std::string, int>, Script> hit_scripts;
  Handler otherwise;
  std::function<Script(int)> on_accept;
  std::vector<RecordedRequest> requests;
  size_t requests_kept = kRequestsKept;
  std::map<std::string, int> hits;
  int request_count = 0;
  int accepted = 0;
  int open = 0;
  int running = 0;
  int max_running = 0;

  std::atomic<uint64_t> bytes_sent{0};  // relaxed: a counter that orders nothing

  template <class Change>
  void Apply(const Change& change) {
    {
      const std::lock_guard<std::mutex> guard(mutex);
      change();
    }
    changed.notify_all();
  }

  template <class Value>
  Value Read(const Value& value) const {
    const std::lock_guard<std::mutex> guard(mutex);
    return value;
  }

  template <class Predicate>
  bool Wait(int timeout_ms, const Predicate& predicate) const {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::milliseconds(timeout_ms), predicate);
  }

  int HitsLocked(const std::string& path) const {
    const auto it = hits.find(path);
    return it == hits.end() ? 0 : it->second;
  }

  // Counts and records `request`, and returns its script. The handler that makes it runs without the lock.
  Script Begin(RecordedRequest request) {
    Handler handler;
    std::optional<Script> script;
    Apply([&] {
      const std::string path = request.Path();
      request.hit = ++hits[path];
      ++request_count;
      max_running = std::max(max_running, ++running);
      if (requests.size() < requests_kept) requests.push_back(request);
      for (const std::string& key : {request.target, path}) {
        const auto hit = hit_scripts.find({key, request.hit});
        if (hit != hit_scripts.end()) {
          script = hit->second;
          return;
        }
        const auto found = handlers.find(key);
        if (found != handlers.end()) {
          handler = found->second;
          return;
        }
      }
      handler = otherwise;
    });
    if (script) return *script;
    return handler ? handler(request) : Reply(404, {}, "nothing here");
  }

  void End() {
    Apply([this] { --running; });
  }
};

class LoopbackServer::Connection final : public Wire {
 public:
  Connection(State* state, int fd, int number)
      : state_(state), number_(number), fd_(fd), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (wake_ < 0) Die("no eventfd");
    thread_ = std::thread([this] { Run(); });
  }
  ~Connection() { thread_.join(); }

  // Any thread: makes every operation of the connection's thread fail, those that wait included.
  void Shutdown() {
    const std::lock_guard<std::mutex> guard(fd_mutex_);
    if (fd_ >= 0) shutdown(fd_, SHUT_RDWR);
  }
  bool Finished() const { return finished_.load(std::memory_order_acquire); }

  bool Send(std::string_view bytes, bool more) override {
    if (last_step_ && !more) EndRequest();
    while (!bytes.empty()) {
      const ssize_t sent = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent < 0 && errno == EINTR) continue;
      if (sent <= 0) return false;
      state_->bytes_sent.fetch_add(static_cast<uint64_t>(sent), std::memory_order_relaxed);
      bytes.remove_prefix(static_cast<size_t>(sent));
    }
    return fd_ >= 0;
  }

  bool Pause(int ms) override {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
      if (left <= 0) return true;
      if (!WaitForWake(static_cast<int>(left))) return false;
    }
  }

  bool WaitFor(const Gate& gate) override {
    const int listener = gate.AddListener([this] {
      const uint64_t one = 1;
      if (write(wake_, &one, sizeof(one)) < 0) Die("no wake-up");
    });
    while (!gate.IsOpen() && WaitForWake(-1)) {
    }
    gate.RemoveListener(listener);
    return gate.IsOpen();
  }

  bool ReadAndIgnore() override {
    buffer_.clear();
    while (ReadMore()) buffer_.clear();
    return false;
  }

  bool Close() override {
    EndRequest();
    // Closing with bytes unread would be a reset, and that can take back what was sent.
    int unread = 0;
    while (ioctl(fd_, FIONREAD, &unread) == 0 && unread > 0 && ReadMore()) buffer_.clear();
    CloseDescriptor();
    return false;
  }

  bool Reset() override {
    EndRequest();
    const linger none = {1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &none, sizeof(none));
    CloseDescriptor();
    return false;
  }

  void BeginLastStep() override { last_step_ = true; }

 private:
  void Run() {
    pthread_setname_np(pthread_self(), "test-connection");
    const std::function<Script(int)> on_accept = state_->Read(state_->on_accept);
    if (!on_accept || on_accept(number_).Run(*this)) ServeRequests();
    CloseDescriptor();
    close(wake_);  // here and not with the object, which the server drops only at its next connection
    state_->Apply([this] { --state_->open; });
    finished_.store(true, std::memory_order_release);  // orders the end before the join, nothing else
  }

  void ServeRequests() {
    for (bool go_on = true; go_on;) {
      RecordedRequest request;
      if (!ReadRequest(&request)) return;
      go_on = MayGoOn(request);
      last_step_ = false;
      request_runs_ = true;
      go_on = state_->Begin(std::move(request)).Run(*this) && go_on;
      EndRequest();
    }
  }

  void EndRequest() {
    if (request_runs_) state_->End();
    request_runs_ = false;
  }

  // HTTP/1.0 clients that ask for keep-alive are not worth the trouble.
  static bool MayGoOn(const RecordedRequest& request) {
    return request.Header("Connection") != "close" && request.head.find(" HTTP/1.0\r\n") == std::string::npos;
  }

  bool ReadRequest(RecordedRequest* request) {
    if (!TakeThrough("\r\n\r\n", kLongestHead, &request->head)) return false;
    const size_t method_end = request->head.find(' ');
    const size_t target_end = request->head.find(' ', method_end + 1);
    if (target_end == std::string::npos) return false;
    request->method = request->head.substr(0, method_end);
    request->target = request->head.substr(method_end + 1, target_end - method_end - 1);
    request->connection = number_;
    if (request->Header("Transfer-Encoding") == "chunked") return ReadChunks(&request->body);
    return TakeBytes(std::strtoul(request->Header("Content-Length").c_str(), nullptr, 10), &request->body);
  }

  bool ReadChunks(std::string* body) {
    for (;;) {
      std::string line;
      std::string chunk;
      if (!TakeThrough("\r\n", kLongestHead, &line)) return false;
      const size_t size = std::strtoul(line.c_str(), nullptr, 16);
      if (!TakeBytes(size, &chunk) || !TakeThrough("\r\n", kLongestHead, &line)) return false;
      if (size == 0) return true;
      *body += chunk;
    }
  }

  bool TakeThrough(std::string_view mark, size_t longest, std::string* taken) {
    size_t at = 0;
    for (size_t from = 0; (at = buffer_.find(mark, from)) == std::string::npos;) {
      from = buffer_.size() < mark.size() ? 0 : buffer_.size() - mark.size();
      if (buffer_.size() > longest || !ReadMore()) return false;
    }
    return TakeBytes(at + mark.size(), taken);
  }

  bool TakeBytes(size_t count, std::string* taken) {
    while (buffer_.size() < count) {
      if (!ReadMore()) return false;
    }
    taken->assign(buffer_, 0, count);
    buffer_.erase(0, count);
    return true;
  }

  bool ReadMore() {
    char block[kReadBlock];
    ssize_t got = 0;
    do {
      got = recv(fd_, block, sizeof(block), 0);
    } while (got < 0 && errno == EINTR);
    if (got <= 0) return false;
    buffer_.append(block, static_cast<size_t>(got));
    return true;
  }

  // Waits for a write to wake_ or the time; false once the client has gone or the server stops.
  bool WaitForWake(int timeout_ms) {
    pollfd waits[] = {{fd_, POLLRDHUP, 0}, {wake_, POLLIN, 0}};
    if (poll(waits, 2, timeout_ms) < 0) return errno == EINTR;
    uint64_t count = 0;
    if ((waits[1].revents & POLLIN) != 0 && read(wake_, &count, sizeof(count)) < 0) return false;
    return waits[0].revents == 0;
  }

  void CloseDescriptor() {
    const std::lock_guard<std::mutex> guard(fd_mutex_);
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

  State* const state_;
  const int number_;
  std::mutex fd_mutex_;  // for writing fd_, and for reading it on any thread but thread_
  int fd_;
  const int wake_;
  // thread_ only:
  std::string buffer_;  // read and not yet taken
  bool request_runs_ = false;
  bool last_step_ = false;
  std::atomic<bool> finished_{false};
  std::thread thread_;
};

LoopbackServer::LoopbackServer() : state_(std::make_unique<State>()) {
  listener_ = BindToFreePort(&port_);
  if (listen(listener_, kBacklog) != 0) Die("cannot listen");
  accept_thread_ = std::thread([this] { AcceptLoop(); });
}

LoopbackServer::~LoopbackServer() { Stop(); }

void LoopbackServer::AcceptLoop() {
  pthread_setname_np(pthread_self(), "test-accept");
  while (!state_->Read(state_->stopping)) {
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    JoinFinishedConnections();
    if (fd < 0) {
      // Out of descriptors, for one: some will be free again.
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      continue;
    }
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    int number = 0;
    state_->Apply([&] {
      number = ++state_->accepted;
      ++state_->open;
    });
    connections_.push_back(std::make_unique<Connection>(state_.get(), fd, number));
  }
}

void LoopbackServer::JoinFinishedConnections() {
  connections_.remove_if([](const auto& connection) { return connection->Finished(); });
}

void LoopbackServer::Stop() {
  const std::lock_guard<std::mutex> guard(stop_mutex_);
  if (!accept_thread_.joinable()) return;
  const Watchdog watchdog(kStopSeconds, "stopping a loopback server");
  state_->Apply([this] { state_->stopping = true; });
  shutdown(listener_, SHUT_RDWR);
  accept_thread_.join();
  for (const auto& connection : connections_) connection->Shutdown();
  connections_.clear();
  close(listener_);
}

std::string LoopbackServer::Origin(std::string_view host) const { return OriginOf(host, port_); }

QString LoopbackServer::Url(std::string_view path, std::string_view host) const {
  return UrlOf(host, port_, path);
}

void LoopbackServer::On(const std::string& path, Script script) {
  On(path, [script = std::move(script)](const RecordedRequest&) { return script; });
}

void LoopbackServer::On(const std::string& path, Handler handler) {
  state_->Apply([&] { state_->handlers[path] = std::move(handler); });
}

void LoopbackServer::OnHit(const std::string& path, int hit, Script script) {
  state_->Apply([&] { state_->hit_scripts[{path, hit}] = std::move(script); });
}

void LoopbackServer::Otherwise(Handler handler) {
  state_->Apply([&] { state_->otherwise = std::move(handler); });
}

void LoopbackServer::OnAccept(std::function<Script(int)> handler) {
  state_->Apply([&] { state_->on_accept = std::move(handler); });
}

std::string LoopbackServer::AddRedirects(const std::string& prefix, int steps, Script end, int status) {
  const auto step_path = [&prefix](int step) { return prefix + "/" + std::to_string(step); };
  for (int step = 0; step < steps; ++step) {
    On(step_path(step), RedirectTo(Origin() + step_path(step + 1), status));
  }
  On(step_path(steps), std::move(end));
  return step_path(0);
}

std::vector<RecordedRequest> LoopbackServer::Requests() const { return state_->Read(state_->requests); }

RecordedRequest LoopbackServer::LastRequest(const std::string& path) const {
  const std::lock_guard<std::mutex> guard(state_->mutex);
  const auto& requests = state_->requests;
  const auto last = std::find_if(requests.rbegin(), requests.rend(), [&](const RecordedRequest& request) {
    return request.target == path || request.Path() == path;
  });
  return last == requests.rend() ? RecordedRequest() : *last;
}

void LoopbackServer::KeepRequests(size_t at_most) {
  state_->Apply([&] { state_->requests_kept = at_most; });
}

int LoopbackServer::RequestCount() const { return state_->Read(state_->request_count); }

int LoopbackServer::Hits(const std::string& path) const {
  const std::lock_guard<std::mutex> guard(state_->mutex);
  return state_->HitsLocked(path);
}

int LoopbackServer::AcceptedConnections() const { return state_->Read(state_->accepted); }

int LoopbackServer::OpenConnections() const { return state_->Read(state_->open); }

int LoopbackServer::RunningRequests() const { return state_->Read(state_->running); }

int LoopbackServer::MaxRunningRequests() const { return state_->Read(state_->max_running); }

uint64_t LoopbackServer::BytesSent() const { return state_->bytes_sent.load(std::memory_order_relaxed); }

bool LoopbackServer::WaitForRequests(int at_least, int timeout_ms) const {
  return state_->Wait(timeout_ms, [&] { return state_->request_count >= at_least; });
}

bool LoopbackServer::WaitForHits(const std::string& path, int at_least, int timeout_ms) const {
  return state_->Wait(timeout_ms, [&] { return state_->HitsLocked(path) >= at_least; });
}

bool LoopbackServer::WaitForAccepted(int at_least, int timeout_ms) const {
  return state_->Wait(timeout_ms, [&] { return state_->accepted >= at_least; });
}

bool LoopbackServer::WaitForOpen(int at_most, int timeout_ms) const {
  return state_->Wait(timeout_ms, [&] { return state_->open <= at_most; });
}

RefusingPort::RefusingPort() { fd_ = BindToFreePort(&port_); }

RefusingPort::~RefusingPort() { close(fd_); }

QString RefusingPort::Url(std::string_view path) const { return UrlOf("127.0.0.1", port_, path); }

HangingPort::HangingPort() {
  fd_ = BindToFreePort(&port_);
  if (listen(fd_, 0) != 0) Die("cannot listen");
  // The kernel takes one or two into a queue of length 0; the rest stay in mid-connect, as ours shall.
  const sockaddr_in address = LoopbackAddress(port_);
  for (int n = 0; n < 3; ++n) {
    const int filler = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (filler < 0) Die("no socket");
    if (connect(filler, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 &&
        errno != EINPROGRESS) {
      Die("cannot connect");
    }
    fillers_.push_back(filler);
  }
}

HangingPort::~HangingPort() {
  for (const int filler : fillers_) close(filler);
  close(fd_);
}

QString HangingPort::Url(std::string_view path) const { return UrlOf("127.0.0.1", port_, path); }

}  // namespace orvan::test
