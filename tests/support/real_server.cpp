#include "tests/support/real_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <QDir>
#include <QFileInfo>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>

namespace orvan::test {
namespace {

constexpr int kAttempts = 5;
constexpr int kReadyMs = 30000;

sockaddr_in LoopbackAddress(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  return address;
}

QString UrlOf(std::string_view scheme, std::string_view host, int port, std::string_view path) {
  std::string url(scheme);
  url.append("://").append(host).append(":").append(std::to_string(port)).append(path);
  return QString::fromStdString(url);
}

std::string GetRequest(std::string_view path) {
  return "GET " + std::string(path) + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";
}

std::string RandomWord() {
  std::random_device source;
  return std::to_string(source()) + "-" + std::to_string(source());
}

}  // namespace

int FreePort() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = LoopbackAddress(0);
  socklen_t size = sizeof(address);
  const bool bound = bind(fd, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
                     getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  close(fd);
  return bound ? ntohs(address.sin_port) : 0;
}

std::string RawExchange(int port, std::string_view bytes, int timeout_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = LoopbackAddress(port);
  std::string answer;
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
      send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size())) {
    for (;;) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      pollfd wait = {fd, POLLIN, 0};
      if (left.count() <= 0 || poll(&wait, 1, static_cast<int>(left.count())) <= 0) break;
      char block[16384];
      const ssize_t got = recv(fd, block, sizeof(block), 0);
      if (got <= 0) break;
      answer.append(block, static_cast<size_t>(got));
    }
  }
  close(fd);
  return answer;
}

NginxServer::NginxServer() : docroot_(folder_.filePath(QStringLiteral("docroot")).toStdString()) {
  QDir().mkpath(QString::fromStdString(docroot_));
}

NginxServer::~NginxServer() { Stop(); }

void NginxServer::SetDocroot(const std::string& folder) { docroot_ = folder; }

void NginxServer::AddFile(const std::string& path, std::string_view content) const {
  const std::string file = docroot_ + "/" + path;
  QDir().mkpath(QFileInfo(QString::fromStdString(file)).path());
  std::ofstream(file, std::ios::binary) << content;
}

void NginxServer::UseTls(const TestCertificates& certificates, const std::string& name) {
  certificate_path_ = certificates.Path(name + ".crt");
  key_path_ = certificates.Path(name + ".key");
}

void NginxServer::AddServerLines(const std::string& lines) { server_lines_ += lines + "\n"; }

void NginxServer::AddHttpLines(const std::string& lines) { http_lines_ += lines + "\n"; }

std::string NginxServer::Configuration(const std::string& ready_word) const {
  const std::string folder = folder_.path().toStdString();
  std::ostringstream text;
  text << "daemon off;\nmaster_process off;\npid " << folder << "/nginx.pid;\nerror_log stderr;\n"
       << "events { worker_connections 1000; }\nhttp {\n";
  for (const char* kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
    text << kind << "_temp_path " << folder << "/" << kind << ";\n";
  }
  text << "types { text/html html; text/plain txt; text/xml xml; image/png png; image/jpeg jpg; }\n"
       << "default_type application/octet-stream;\n"
       << "log_format bed '$request_method $request_uri $status $connection $http_user_agent';\n"
       << "access_log " << folder << "/access.log bed;\n"
       << "client_max_body_size 1g;\nkeepalive_requests 1000000;\n"
       << http_lines_ << "server {\nlisten 127.0.0.1:" << port_ << ";\nroot " << docroot_ << ";\n";
  if (!certificate_path_.empty()) {
    text << "listen 127.0.0.1:" << tls_port_ << " ssl;\nssl_certificate " << certificate_path_
         << ";\nssl_certificate_key " << key_path_ << ";\n";
  }
  text << server_lines_ << "location = /nginx-ready { access_log off; return 200 " << ready_word << "; }\n"
       << "location = /nginx-status { access_log off; stub_status; }\n}\n}\n";
  return text.str();
}

::testing::AssertionResult NginxServer::Start() {
  const std::string folder = folder_.path().toStdString();
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    port_ = FreePort();
    tls_port_ = certificate_path_.empty() ? 0 : FreePort();
    if (port_ == tls_port_) continue;
    // Somebody else may get the port first, and would then be the one who answers our connect. Only we
    // know the word.
    const std::string word = RandomWord();
    std::ofstream(folder + "/nginx.conf") << Configuration(word);
    const auto started = process_.Start("nginx", {"-p", folder + "/", "-c", "nginx.conf", "-e", "stderr"},
                                        folder + "/nginx.log", "nginx-light");
    if (!started) return started;
    const auto answers = [&] {
      return RawExchange(port_, GetRequest("/nginx-ready"), 1000).find(word) != std::string::npos;
    };
    bool ready = false;
    (void)SpinUntil([&] { return (ready = answers()) || !process_.Running(); }, kReadyMs);
    if (ready) return ::testing::AssertionSuccess();
    process_.Stop();
    if (process_.Log().find("Address already in use") == std::string::npos) break;
  }
  return ::testing::AssertionFailure() << "nginx did not start: " << process_.Log();
}

void NginxServer::Stop() { process_.Stop(); }

QString NginxServer::Url(std::string_view path, std::string_view host) const {
  return UrlOf("http", host, port_, path);
}

QString NginxServer::TlsUrl(std::string_view path, std::string_view host) const {
  return UrlOf("https", host, tls_port_, path);
}

std::vector<std::string> NginxServer::AccessLog() const {
  std::ifstream log(folder_.filePath(QStringLiteral("access.log")).toStdString());
  std::vector<std::string> lines;
  for (std::string line; std::getline(log, line);) lines.push_back(line);
  return lines;
}

HttpbinServer::HttpbinServer() = default;

HttpbinServer::~HttpbinServer() { Stop(); }

::testing::AssertionResult HttpbinServer::Start() {
  const std::string folder = folder_.path().toStdString();
  // Debian's interpreter by its path: another python in the PATH does not see Debian's modules. The bytes
  // that it compiles stay out of the way.
  const auto started = process_.Start(
      "/usr/bin/python3",
      {"-B", "-m", "gunicorn", "--bind", "127.0.0.1:0", "--workers", "1", "--threads", "8",
       "--worker-tmp-dir", folder, "--graceful-timeout", "1", "--pid", folder + "/pid", "httpbin:app"},
      folder + "/gunicorn.log", "python3");
  if (!started) return started;
  // The port is open before the worker has loaded the application, so ask for a page.
  const auto answers = [this] {
    const std::string log = process_.Log();
    const std::string mark = "Listening at: http://127.0.0.1:";
    const size_t at = log.find(mark);
    if (at == std::string::npos) return false;
    port_ = static_cast<int>(std::strtol(log.c_str() + at + mark.size(), nullptr, 10));
    return RawExchange(port_, GetRequest("/status/200"), 5000).compare(0, 12, "HTTP/1.1 200") == 0;
  };
  bool ready = false;
  (void)SpinUntil([&] { return (ready = answers()) || !process_.Running(); }, kReadyMs);
  if (ready) return ::testing::AssertionSuccess();
  process_.Stop();
  return ::testing::AssertionFailure() << "httpbin did not start; it needs the Debian packages gunicorn and "
                                          "python3-httpbin: "
                                       << process_.Log();
}

void HttpbinServer::Stop() { process_.Stop(); }

QString HttpbinServer::Url(std::string_view path, std::string_view host) const {
  return UrlOf("http", host, port_, path);
}

}  // namespace orvan::test
