// The half of loopback_server.h that knows no sockets: requests, scripts and responses.

#include <algorithm>
#include <cctype>
#include <utility>

#include "tests/support/loopback_server.h"

namespace orvan::test {
namespace {

constexpr size_t kFillBlock = size_t{64} << 10;

bool EqualsIgnoringCase(std::string_view left, std::string_view right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
  });
}

std::string_view Trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

std::string_view ReasonOf(int status) {
  constexpr std::pair<int, const char*> kReasons[] = {
      {100, "Continue"},
      {101, "Switching Protocols"},
      {200, "OK"},
      {201, "Created"},
      {202, "Accepted"},
      {204, "No Content"},
      {206, "Partial Content"},
      {300, "Multiple Choices"},
      {301, "Moved Permanently"},
      {302, "Found"},
      {303, "See Other"},
      {304, "Not Modified"},
      {307, "Temporary Redirect"},
      {308, "Permanent Redirect"},
      {400, "Bad Request"},
      {401, "Unauthorized"},
      {403, "Forbidden"},
      {404, "Not Found"},
      {405, "Method Not Allowed"},
      {407, "Proxy Authentication Required"},
      {500, "Internal Error"},
      {503, "Service Unavailable"},
  };
  for (const auto& [code, reason] : kReasons) {
    if (code == status) return reason;
  }
  return "Some Reason";
}

bool HasName(const HeaderList& headers, std::string_view name) {
  return std::any_of(headers.begin(), headers.end(),
                     [name](const auto& header) { return EqualsIgnoringCase(header.first, name); });
}

std::string Head(int status, const HeaderList& headers) {
  std::string head = "HTTP/1.1 " + std::to_string(status) + " " + std::string(ReasonOf(status)) + "\r\n";
  for (const auto& [name, value] : headers) head.append(name).append(": ").append(value).append("\r\n");
  return head;
}

std::string Hex(size_t number) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  do {
    text.insert(text.begin(), kDigits[number % 16]);
    number /= 16;
  } while (number > 0);
  return text;
}

}  // namespace

std::string RecordedRequest::Path() const { return target.substr(0, target.find('?')); }

std::vector<std::string> RecordedRequest::Headers(std::string_view name) const {
  std::vector<std::string> values;
  size_t begin = head.find('\n');  // behind the request line
  while (begin != std::string::npos) {
    const size_t end = head.find('\n', ++begin);
    const std::string_view line = std::string_view(head).substr(begin, end - begin);
    const size_t colon = line.find(':');
    if (colon != std::string_view::npos && EqualsIgnoringCase(line.substr(0, colon), name)) {
      values.emplace_back(Trimmed(line.substr(colon + 1)));
    }
    begin = end;
  }
  return values;
}

std::string RecordedRequest::Header(std::string_view name) const {
  const std::vector<std::string> values = Headers(name);
  return values.empty() ? std::string() : values.front();
}

Script& Script::Add(Step step, bool answers) {
  steps_.push_back(std::move(step));
  if (answers) answering_ = steps_.size();
  return *this;
}

Script& Script::Do(Step step) { return Add(std::move(step), true); }

Script& Script::Send(std::string bytes) {
  return Do([bytes = std::move(bytes)](Wire& wire) { return wire.Send(bytes); });
}

Script& Script::Drip(std::string bytes, size_t piece, int pause_ms) {
  return Do([bytes = std::move(bytes), piece, pause_ms](Wire& wire) {
    for (size_t at = 0; at < bytes.size(); at += piece) {
      if (at > 0 && !wire.Pause(pause_ms)) return false;
      const bool more = at + piece < bytes.size();
      if (!wire.Send(std::string_view(bytes).substr(at, piece), more)) return false;
    }
    return true;
  });
}

Script& Script::Endless(uint64_t count, char fill) {
  return Do([count, fill](Wire& wire) {
    const std::string block(kFillBlock, fill);
    for (uint64_t left = count; left > 0;) {
      const auto now = static_cast<size_t>(std::min<uint64_t>(left, kFillBlock));
      left -= now;
      if (!wire.Send(std::string_view(block).substr(0, now), left > 0)) return false;
    }
    return true;
  });
}

Script& Script::Stall(Gate gate) {
  return Do([gate = std::move(gate)](Wire& wire) { return wire.WaitFor(gate); });
}

Script& Script::Signal(Gate gate) {
  const auto open = [gate = std::move(gate)](Wire&) {
    gate.Open();
    return true;
  };
  return Add(open, false);
}

Script& Script::Pause(int ms) {
  return Do([ms](Wire& wire) { return wire.Pause(ms); });
}

Script& Script::Silent() { return Stall(Gate()); }

Script& Script::ReadAndIgnore() {
  return Do([](Wire& wire) { return wire.ReadAndIgnore(); });
}

Script& Script::Close() {
  return Add([](Wire& wire) { return wire.Close(); }, false);
}

Script& Script::Reset() {
  return Add([](Wire& wire) { return wire.Reset(); }, false);
}

Script& Script::Then(const Script& other) {
  if (other.answering_ > 0) answering_ = steps_.size() + other.answering_;
  steps_.insert(steps_.end(), other.steps_.begin(), other.steps_.end());
  return *this;
}

bool Script::Run(Wire& wire) const {
  for (size_t step = 0; step < steps_.size(); ++step) {
    if (step + 1 == answering_) wire.BeginLastStep();
    if (!steps_[step](wire)) return false;
  }
  return true;
}

std::string Response(int status, const HeaderList& headers, std::string_view body) {
  std::string response = Head(status, headers);
  const bool bodiless = status < 200 || status == 204 || status == 304;
  if (bodiless) return response + "\r\n";
  if (!HasName(headers, "Content-Length") && !HasName(headers, "Transfer-Encoding")) {
    response += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  }
  return response.append("\r\n").append(body);
}

Script Reply(int status, const HeaderList& headers, std::string_view body) {
  return Script().Send(Response(status, headers, body));
}

Script Ok(std::string_view body, std::string_view content_type) {
  return Reply(200, {{"Content-Type", std::string(content_type)}}, body);
}

Script RedirectTo(std::string_view location, int status) {
  return Reply(status, {{"Location", std::string(location)}});
}

Script Chunked(const std::vector<std::string>& chunks, const HeaderList& headers) {
  HeaderList all = headers;
  all.emplace_back("Transfer-Encoding", "chunked");
  std::string response = Response(200, all);
  for (const std::string& chunk : chunks) response += Hex(chunk.size()) + "\r\n" + chunk + "\r\n";
  return Script().Send(response + "0\r\n\r\n");
}

Script ManyHeaders(int count, std::string_view body) {
  HeaderList headers;
  for (int n = 0; n < count; ++n) headers.emplace_back("X-Filler-" + std::to_string(n), std::to_string(n));
  return Reply(200, headers, body);
}

Script LargeBody(uint64_t count, char fill) {
  return Script().Send(Head(200, {{"Content-Length", std::to_string(count)}}) + "\r\n").Endless(count, fill);
}

Script CutBody(std::string_view sent, uint64_t promised, bool reset) {
  Script script;
  script.Send(Response(200, {{"Content-Length", std::to_string(promised)}}, sent));
  return reset ? script.Reset() : script.Close();
}

}  // namespace orvan::test
