#pragma once

#include <gtest/gtest.h>

#include <QString>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "orvan/net/connection/connection_manager.h"
#include "orvan/support/thread/system.h"
#include "tests/support/manual_clock.h"
#include "tests/support/scripted_transport.h"

namespace orvan::test {

// Notes every delivery. `inside` runs within it, before it is noted.
class Recorder : public net::NetworkRequest::Callback {
 public:
  static constexpr unsigned int kNoHttpRequest = ~0u;
  struct Delivery {
    unsigned int status;
    unsigned long thread;
  };

  void RequestDone(net::NetworkRequest* request, void*) override {
    if (inside) inside(request);
    const net::HttpRequest* const http = request->GetConstHttpRequest();
    std::lock_guard<std::mutex> guard(mutex_);
    deliveries_.push_back({http ? http->GetResponseStatus() : kNoHttpRequest, System::CurrentThreadId()});
  }
  std::vector<Delivery> Get() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return deliveries_;
  }
  size_t Count() const { return Get().size(); }

  std::function<void(net::NetworkRequest*)> inside;

 private:
  mutable std::mutex mutex_;
  std::vector<Delivery> deliveries_;
};

// A manager of four connections over the scripted transport, on a clock and a main thread turned by hand.
class ManagerFixture : public ::testing::Test {
 protected:
  ManagerFixture() { MakeManager(4, true); }
  void MakeManager(int connections, bool deferred) {
    manager = std::make_unique<net::ConnectionManager>(connections, 2, deferred, 60.0, 30, 60000);
  }
  RefPtr<net::NetworkRequest> Send(const QString& host, const QString& path) {
    return manager->EnqueueRequest(
        net::ServerInfo(host, 80, false),
        net::NetworkRequest::Info("http://ignored" + path, {}, true, &recorder, nullptr));
  }
  // Requests /0, /1 ... to as many servers s0, s1 ...
  void SendToServers(int count) {
    for (int i = 0; i < count; ++i) Send(QString("s%1").arg(i), QString("/%1").arg(i));
  }
  // Ends the exchange, as its callback thread would, and runs the job that brings the result.
  void Finish(const QString& path) {
    ASSERT_TRUE(transport.Complete(path, ScriptedTransport::kHere)) << qPrintable(path);
    pump.Drain();
  }
  // The pass that a finished or cancelled request asked for.
  bool Pass() { return pump.FireNow(*manager); }

  ManualClock clock;
  ManualPump pump;
  ScriptedTransport transport;
  Recorder recorder;
  std::unique_ptr<net::ConnectionManager> manager;
};

}  // namespace orvan::test
