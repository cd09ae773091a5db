#pragma once

#include <gtest/gtest.h>

#include <QStringList>
#include <functional>

#include "orvan/net/http/http_connection.h"
#include "orvan/net/http/http_status.h"
#include "orvan/net/http/qnetwork/qthttpimpl.h"
#include "orvan/net/server/server_info.h"
#include "orvan/support/memory/memory.h"
#include "tests/support/wait.h"

namespace orvan::net::test {

using namespace orvan::test;

// A connection of the Qt transport, ended by its scope if nobody ended it before.
class Transport {
 public:
  explicit Transport(int port, const QString& host = "127.0.0.1", bool secure = false,
                     const QString& user_agent = QString(),
                     MemoryManager* manager = HeapManager::GetDynamicHeap()) {
    const ServerInfo server(host, port, secure, user_agent);
    connection_ = new QtHttpConnection(&server, manager, 15.0, 0, 1);
  }
  ~Transport() { Dispose(); }
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;

  void Dispose() {
    DisposeConnection(connection_);
    connection_ = nullptr;
  }
  QtHttpConnection* get() const { return connection_; }

 private:
  QtHttpConnection* connection_;
};

// One request and what came of it. Keeps a reference, so that the response can be looked at afterwards.
class Exchange : public HttpRequest::Callback {
 public:
  Exchange(const Transport& transport, const QString& path, HttpMethod method = kHttpGet)
      : connection_(transport.get()), request_(connection_->CreateRequest(method, path, nullptr)) {}
  ~Exchange() override {
    request_->SetCallback(nullptr, nullptr);
    request_->unref();  // our own
  }

  HttpRequest* operator->() const { return request_; }
  HttpRequest* request() const { return request_; }

  Exchange& Line(const QString& line) {
    request_->AddRequestHeader(line);
    return *this;
  }
  Exchange& Body(const QByteArray& body) {
    HeapBuffer* const buffer = HeapBuffer::CreateFromQtBuffer(nullptr, body);
    request_->SetRequestBuffer(buffer);
    buffer->unref();  // the request has its own
    return *this;
  }

  unsigned int Send() {
    request_->ref();  // the connection's
    const unsigned int status = connection_->EnqueueRequest(request_, this, nullptr);
    if (status != kStatusOk) request_->unref();  // which a failed send leaves to us
    return status;
  }
  [[nodiscard]] bool Wait() { return done_.Wait(); }
  [[nodiscard]] bool Run() { return Send() == kStatusOk && Wait(); }
  bool IsDone() const { return done_.IsOpen(); }

  unsigned int status() const { return request_->GetResponseStatus(); }
  bool HasBuffer() const { return request_->GetResponseBuffer() != nullptr; }
  QByteArray body() const {
    return HasBuffer() ? request_->GetResponseBuffer()->ToQByteArray() : QByteArray();
  }
  QStringList headers() const {
    QStringList lines;
    for (int i = 0; i < request_->GetResponseHeaderCount(); ++i) lines += request_->GetResponseHeader(i);
    return lines;
  }
  // Runs on the callback thread before the exchange counts as done.
  std::function<void()> on_done;

 private:
  int RequestDone(HttpRequest*, void*) override {
    if (on_done) on_done();
    done_.Open();
    return 0;
  }

  QtHttpConnection* const connection_;
  HttpRequest* const request_;
  Gate done_;
};

}  // namespace orvan::net::test
