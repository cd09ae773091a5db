#include <QEventLoop>
#include <QUrl>
#include <chrono>
#include <mutex>

#include "bench/managers/peers.h"
#include "orvan/net/http/http_connection.h"
#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/http/http_status.h"
#include "orvan/net/manager/cm_network_manager.h"
#include "orvan/net/manager/network_manager.h"
#include "orvan/net/server/server_info.h"

namespace orvan::bench {

namespace {

void Run(net::AbstractNetworkManager* manager, Meter* meter) {
  QEventLoop loop;
  std::recursive_mutex mutex;  // over the meter: callables of shared connections may run on several threads
  const auto start = [&, manager](int number, const QString& url) {
    manager->Get(QUrl(url), [&, number](const QByteArray& body, const net::ResponseInfo& info) {
      const std::lock_guard<std::recursive_mutex> guard(mutex);
      meter->Completed(number, info.status == net::kStatusOk, body.size());
    });
  };
  const auto finished = [&loop] {
    QMetaObject::invokeMethod(&loop, &QEventLoop::quit, Qt::QueuedConnection);
  };
  {
    const std::lock_guard<std::recursive_mutex> guard(mutex);
    meter->Begin(start, finished);
  }
  loop.exec();
  const std::lock_guard<std::recursive_mutex> last(mutex);  // the last callable may just be leaving
}

}  // namespace

void RunNetworkManager(const Load&, Meter* meter) {
  net::NetworkManager manager;
  Run(&manager, meter);
}

void RunCmNetworkManager(const Load&, Meter* meter, Completion completion) {
  net::CmNetworkManager manager;
  manager.Init({}, completion == kOnTheMainThread);
  Run(&manager, meter);
}

double ManagerConnectionMicroseconds(int count, int port) {
  using Clock = std::chrono::steady_clock;
  const net::ServerInfo server(QStringLiteral("127.0.0.1"), port, false);
  const auto once = [&server] {
    // As NetworkManager makes them.
    net::DisposeConnection(
        net::HttpConnectionFactory::CreateHttpConnection(&server, nullptr, 15.0, 30, 1, 0, 0, 0));
  };
  once();  // the first one loads Qt's plug-ins
  const auto begin = Clock::now();
  for (int i = 0; i < count; ++i) once();
  return std::chrono::duration<double, std::micro>(Clock::now() - begin).count() / count;
}

}  // namespace orvan::bench
