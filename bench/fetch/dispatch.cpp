// Two costs of the library's own machinery, beside the bare Qt way to the same.
#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QThread>
#include <chrono>
#include <thread>

#include "bench/fetch/load.h"
#include "orvan/net/http/http_connection.h"
#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/server/server_info.h"
#include "orvan/support/job/job.h"

namespace orvan::bench {

namespace {

using Clock = std::chrono::steady_clock;

double Microseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

class CountingJob : public AbstractJob {
 public:
  explicit CountingJob(int* count) : AbstractJob(0, QStringLiteral("CountingJob")), count_(count) {}
  int Run(const IJobContinuator&, IJobContainer*) override {
    ++*count_;
    return kFinished;
  }

 private:
  int* const count_;
};

}  // namespace

// What the main thread pays for each of `count` completions that piled up while it was busy.
double DispatchMicroseconds(const QString& peer, int count) {
  int done = 0;
  QObject receiver;
  std::thread poster([&] {
    for (int i = 0; i < count; ++i) {
      if (peer == "orvan") {
        GetDefaultJobScheduler()->AddJob(new CountingJob(&done));
      } else {
        QMetaObject::invokeMethod(
            &receiver, [&done] { ++done; }, Qt::QueuedConnection);
      }
    }
  });
  poster.join();
  const auto begin = Clock::now();
  while (done < count) QCoreApplication::processEvents();
  return Microseconds(Clock::now() - begin) / count;
}

double ConnectionMicroseconds(const QString& peer, int count, int port) {
  const net::ServerInfo server(QStringLiteral("127.0.0.1"), port, false);
  const auto once = [&] {
    if (peer == "orvan") {
      net::DisposeConnection(
          net::HttpConnectionFactory::CreateHttpConnection(&server, nullptr, 15.0, 30, 1, 0, 0, 0));
      return;
    }
    auto* const manager = new QNetworkAccessManager;
    QThread thread;
    thread.start();
    manager->connectToHost(server.host(), static_cast<quint16>(port));
    manager->moveToThread(&thread);
    QObject::connect(&thread, &QThread::finished, manager, &QObject::deleteLater);
    thread.quit();
    thread.wait();
  };
  once();  // the first one loads Qt's plug-ins
  const auto begin = Clock::now();
  for (int i = 0; i < count; ++i) once();
  return Microseconds(Clock::now() - begin) / count;
}

}  // namespace orvan::bench
