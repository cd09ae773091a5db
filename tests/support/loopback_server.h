#pragma once

#include <QString>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/wait.h"

namespace orvan::test {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

// A request as it came over the wire.
struct RecordedRequest {
  std::string method;
  std::string target;  // as sent: "/path?query", an absolute URL or "host:port" when we act as a proxy
  std::string head;    // raw: from the request line up to and including the empty line
  std::string body;

  // The values of all lines with this name in any case, without blanks around them; the first, or nothing.
  std::vector<std::string> Headers(const std::string& name) const;
  std::string Header(const std::string& name) const;
  bool HasHeader(const std::string& name) const { return !Headers(name).empty(); }
};

// What the server does with one request: steps, run in order on the thread of the connection, which then
// waits for its next request. Bytes are sent exactly as given.
//
//   Script().Send("HTTP/1.1 200 OK\r\nContent-Le").Stall(gate).Send("ngth: 2\r\n\r\nok")
class Script {
 public:
  Script& Send(std::string bytes);
  // Sends `bytes` in pieces of `piece` bytes with `pause_ms` behind each.
  Script& Drip(const std::string& bytes, size_t piece, int pause_ms);
  // Sends `count` bytes, made on the fly.
  Script& Endless(uint64_t count);
  // Goes on when the test opens `gate`, or ends when the client or the server does.
  Script& Stall(const Gate& gate);
  Script& Silent() { return Stall(Gate()); }
  // Opens `gate`: tells the test that the script has come this far.
  Script& Signal(const Gate& gate);
  // Ends the connection in order, after what was sent, or with a reset that lets sent bytes get lost.
  Script& Close();
  Script& Reset();
  // The steps of `other` after those of this one.
  Script& Then(const Script& other);

  // True if every step was done and the connection may go on.
  bool Run(int fd) const;

 private:
  Script& Add(std::function<bool(int fd)> step);
  std::vector<std::function<bool(int fd)>> steps_;
};

// --- Correct responses, and the usual ways to be wrong.

// A whole response. Content-Length is added unless `headers` names it or Transfer-Encoding, or the status has
// no body (204, 304; then `body` is not sent either).
std::string Response(int status, const HeaderList& headers = {}, std::string_view body = {});
Script Reply(int status, const HeaderList& headers = {}, std::string_view body = {});
Script Ok(std::string_view body, const std::string& content_type = "text/plain");
Script RedirectTo(const std::string& location, int status = 302);
// 200 with Content-Length `count` and as many bytes.
Script LargeBody(uint64_t count);

// An HTTP server on 127.0.0.1 and a free port, made for what a good server never does.
//
// Shape:   a thread that accepts and one for each connection, so idle connections (every preconnect is one)
//          hold nobody up. Keep-alive; bodies of requests are read by Content-Length before the script runs.
//          A script is looked up by the target as sent, then without its query, then it is Otherwise()'s.
// Threads: any, and scripts may be changed at any time. The Wait... operations block without an event loop.
// Errors:  the process ends with a message.
class LoopbackServer {
 public:
  LoopbackServer();
  ~LoopbackServer();  // closes every connection; scripts end at their present step
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  int port() const { return port_; }
  // "http://127.0.0.1:<port>", and a URL there; `path` begins with "/".
  std::string Origin(const std::string& host = "127.0.0.1") const;
  QString Url(const std::string& path) const { return QString::fromStdString(Origin() + path); }

  void On(const std::string& path, const Script& script);
  void Otherwise(const Script& script);
  // `prefix`/0 redirects to `prefix`/1 and so on; after `steps` redirects `prefix`/<steps> runs `end`.
  // Returns the path to begin with.
  std::string AddRedirects(const std::string& prefix, int steps, const Script& end);

  // Of those for that target, or for that path whatever the query.
  RecordedRequest LastRequest(const std::string& path) const;
  int Hits(const std::string& path) const;
  [[nodiscard]] bool WaitForHits(const std::string& path, int at_least) const;
  // Until that many connections are open.
  [[nodiscard]] bool WaitForConnections(size_t open) const;

 private:
  struct State;
  static void Serve(const std::shared_ptr<State>& state, int fd);
  const std::shared_ptr<State> state_;  // the threads of the connections have their own reference
  int listener_ = -1;
  int port_ = 0;
  std::thread accept_thread_;
};

// A port of 127.0.0.1 that refuses every connect for as long as the object lives.
class RefusingPort {
 public:
  RefusingPort();
  ~RefusingPort();
  int port() const { return port_; }

 private:
  int fd_ = -1;
  int port_ = 0;
};

}  // namespace orvan::test
