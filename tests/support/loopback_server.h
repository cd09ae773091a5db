#pragma once

#include <QString>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
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
  int connection = 0;  // the connection it came on; the first accepted one is 1
  int hit = 0;         // how many requests for this path there were, this one included

  std::string Path() const;  // the target without its query
  // The value of the first line with this name in any case, without blanks around it; empty if there is none.
  std::string Header(std::string_view name) const;
  std::vector<std::string> Headers(std::string_view name) const;  // all of them, in order
  bool HasHeader(std::string_view name) const { return !Headers(name).empty(); }
};

// What a step of a script may do with its connection. On the connection's own thread only.
//
// Errors: every operation returns false once the connection is of no more use (the client has gone, or the
// server stops); the script ends there and the connection is closed.
class Wire {
 public:
  // `more` says that the same step will send again.
  virtual bool Send(std::string_view bytes, bool more = false) = 0;
  // Waits, but not for longer than the client stays and the server runs.
  virtual bool Pause(int ms) = 0;
  virtual bool WaitFor(const Gate& gate) = 0;
  // Reads and drops what the client sends until it goes.
  virtual bool ReadAndIgnore() = 0;
  // Ends the connection in order, after what was sent, or with a reset that lets sent bytes get lost.
  virtual bool Close() = 0;
  virtual bool Reset() = 0;
  // Tells that no later step sends or waits: the request ends with this step's last bytes.
  virtual void BeginLastStep() = 0;

 protected:
  ~Wire() = default;
};

// What the server does with one request: steps, run in order on the thread of the connection. After the
// last step the connection waits for its next request, unless a step has ended it or the client asked for
// "Connection: close". Bytes are sent exactly as given: a script may be as wrong as it likes.
//
//   Script().Send("HTTP/1.1 200 OK\r\nContent-Le").Stall(gate).Send("ngth: 2\r\n\r\nok")
//   Script().Drip(Response(200, {}, "slow"), 1, 20)
class Script {
 public:
  using Step = std::function<bool(Wire&)>;

  Script& Send(std::string bytes);
  // Sends `bytes` in pieces of `piece` bytes with `pause_ms` between two of them.
  Script& Drip(std::string bytes, size_t piece, int pause_ms);
  // Sends `count` times the byte `fill`, made on the fly.
  Script& Endless(uint64_t count, char fill = 'x');
  // Goes on when the test opens `gate`.
  Script& Stall(Gate gate);
  // Opens `gate`: tells the test that the script has come this far.
  Script& Signal(Gate gate);
  Script& Pause(int ms);
  // Says nothing more, and keeps the connection until the client goes or the server stops.
  Script& Silent();
  Script& ReadAndIgnore();
  Script& Close();
  Script& Reset();
  // Any other step.
  Script& Do(Step step);

  // The steps of `other` after those of this one.
  Script& Then(const Script& other);

  bool Empty() const { return steps_.empty(); }
  // True if every step was done and the connection may go on.
  bool Run(Wire& wire) const;

 private:
  Script& Add(Step step, bool answers);

  std::vector<Step> steps_;
  size_t answering_ = 0;  // how many steps there are up to the last one that sends or waits
};

// --- Correct responses, and the usual ways to be wrong.

// A whole response. Content-Length is added unless `headers` names it or Transfer-Encoding, or the status
// has no body (1xx, 204, 304; then `body` is not sent either).
std::string Response(int status, const HeaderList& headers = {}, std::string_view body = {});
Script Reply(int status, const HeaderList& headers = {}, std::string_view body = {});
Script Ok(std::string_view body, std::string_view content_type = "text/plain");
Script RedirectTo(std::string_view location, int status = 302);
// 200 with one chunk for each of `chunks`.
Script Chunked(const std::vector<std::string>& chunks, const HeaderList& headers = {});
// 200 with `count` lines "X-Filler-<n>: <n>" before the Content-Length, and `body`.
Script ManyHeaders(int count, std::string_view body = "ok");
// 200 with Content-Length `count` and as many bytes.
Script LargeBody(uint64_t count, char fill = 'x');
// 200 that promises `promised` bytes, sends `sent` and closes or resets.
Script CutBody(std::string_view sent, uint64_t promised, bool reset = false);

// An HTTP server on 127.0.0.1 and a free port, made for what a good server never does.
//
// Shape:     a thread that accepts and one for each connection, so idle connections that never send a byte
//            (every preconnect is one) hold nobody up. HTTP/1.1 with keep-alive; bodies of requests are
//            read by Content-Length or chunks before the script runs.
// Which script: that of the exact hit, else that of the path, else the catch-all's, else 404. "Path" is
//            the target as sent; if nothing is known for that, the target without its query.
// Threads:   everything may be called from any thread, scripts may be changed at any time. The Wait...
//            operations block without an event loop; on the main thread use PumpUntil() with a counter
//            when the client needs the main thread.
// Ownership: the destructor stops the server. Handlers run on connection threads and must not outlive what
//            they refer to.
// Errors:    the process ends with a message if there is no port, and if stopping takes 30 seconds.
class LoopbackServer {
 public:
  using Handler = std::function<Script(const RecordedRequest&)>;

  LoopbackServer();
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  int port() const { return port_; }
  // "http://127.0.0.1:<port>", and a URL there; `path` begins with "/".
  std::string Origin(std::string_view host = "127.0.0.1") const;
  QString Url(std::string_view path, std::string_view host = "127.0.0.1") const;

  void On(const std::string& path, Script script);
  void On(const std::string& path, Handler handler);
  // Only the n-th request for the path, counted from 1.
  void OnHit(const std::string& path, int hit, Script script);
  void Otherwise(Handler handler);
  // Runs before anything is read from the n-th connection (from 1); an empty script changes nothing.
  // Remember that a client may open connections that it never uses.
  void OnAccept(std::function<Script(int connection)> handler);
  // `prefix`/0 redirects to `prefix`/1 and so on; after `steps` redirects `prefix`/<steps> runs `end`.
  // The locations are absolute. Returns the path to begin with.
  std::string AddRedirects(const std::string& prefix, int steps, Script end, int status = 302);

  // Requests that came in whole, in order of arrival. At most the first 100,000 are kept; set it to 0 for
  // long runs, the counters go on.
  std::vector<RecordedRequest> Requests() const;
  RecordedRequest LastRequest(const std::string& path) const;  // empty if there was none
  void KeepRequests(size_t at_most);

  int RequestCount() const;
  int Hits(const std::string& path) const;  // counted for the path, whatever the query
  int AcceptedConnections() const;
  int OpenConnections() const;
  // A request runs until the last bytes of its script are handed to the kernel, just before that: whoever
  // has the whole answer finds it ended, so requests that a client makes one after the other never count as
  // running together. One that the client has dropped counts until the server sees it.
  int RunningRequests() const;
  int MaxRunningRequests() const;
  uint64_t BytesSent() const;

  [[nodiscard]] bool WaitForRequests(int at_least, int timeout_ms = kWaitMs) const;
  [[nodiscard]] bool WaitForHits(const std::string& path, int at_least, int timeout_ms = kWaitMs) const;
  [[nodiscard]] bool WaitForAccepted(int at_least, int timeout_ms = kWaitMs) const;
  [[nodiscard]] bool WaitForOpen(int at_most, int timeout_ms = kWaitMs) const;

  // Closes every connection and ends every thread; scripts end at their present step. Later connects are
  // refused. Safe to call again.
  void Stop();

 private:
  class State;       // scripts, records and counters: what all threads share
  class Connection;  // one accepted socket and its thread
  void AcceptLoop();
  void JoinFinishedConnections();

  const std::unique_ptr<State> state_;
  int listener_ = -1;
  int port_ = 0;
  std::list<std::unique_ptr<Connection>> connections_;  // accepting thread; after its end the stopping one
  std::thread accept_thread_;
  std::mutex stop_mutex_;  // one Stop() at a time
};

// A port of 127.0.0.1 that refuses every connect for as long as the object lives.
class RefusingPort {
 public:
  RefusingPort();
  ~RefusingPort();
  RefusingPort(const RefusingPort&) = delete;
  RefusingPort& operator=(const RefusingPort&) = delete;
  int port() const { return port_; }
  QString Url(std::string_view path = "/") const;

 private:
  int fd_ = -1;
  int port_ = 0;
};

// A port on which a connect neither succeeds nor fails for as long as the object lives: its queue of
// connections is full and nobody accepts.
class HangingPort {
 public:
  HangingPort();
  ~HangingPort();
  HangingPort(const HangingPort&) = delete;
  HangingPort& operator=(const HangingPort&) = delete;
  int port() const { return port_; }
  QString Url(std::string_view path = "/") const;

 private:
  int fd_ = -1;
  int port_ = 0;
  std::vector<int> fillers_;
};

}  // namespace orvan::test
