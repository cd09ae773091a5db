#include <QEventLoop>
#include <QHash>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QThread>
#include <memory>

#include "bench/fetch/load.h"

namespace orvan::bench {

namespace {

// A bare access manager and the thread that it lives on.
class Worker {
 public:
  Worker() {
    manager_->moveToThread(&thread_);
    QObject::connect(&thread_, &QThread::finished, manager_, &QObject::deleteLater);
    thread_.start();
  }
  ~Worker() {
    thread_.quit();
    thread_.wait();
  }

  void Get(int number, const QString& url, QObject* main_thread, Meter* meter) {
    QNetworkAccessManager* const manager = manager_;
    QMetaObject::invokeMethod(manager, [=] {
      QNetworkReply* const reply = manager->get(QNetworkRequest(QUrl(url)));
      QObject::connect(reply, &QNetworkReply::finished, reply, [=] {
        const bool good = reply->error() == QNetworkReply::NoError;
        const QByteArray body = reply->readAll();
        reply->deleteLater();
        QMetaObject::invokeMethod(main_thread, [=] { meter->Completed(number, good, body.size()); });
      });
    });
  }

 private:
  QThread thread_;
  QNetworkAccessManager* const manager_ = new QNetworkAccessManager;  // deleted on its thread
};

}  // namespace

void RunQtWorkers(const Load&, Meter* meter) {
  QHash<QString, std::shared_ptr<Worker>> workers;  // by server
  QObject main_thread;
  QEventLoop loop;
  meter->Begin(
      [&](int number, const QString& url) {
        std::shared_ptr<Worker>& worker = workers[QUrl(url).authority()];
        if (!worker) worker = std::make_shared<Worker>();
        worker->Get(number, url, &main_thread, meter);
      },
      [&loop] { loop.quit(); });
  loop.exec();
}

void RunQtMainThread(const Load&, Meter* meter) {
  QNetworkAccessManager manager;
  QEventLoop loop;
  meter->Begin(
      [&](int number, const QString& url) {
        QNetworkReply* const reply = manager.get(QNetworkRequest(QUrl(url)));
        QObject::connect(reply, &QNetworkReply::finished, reply, [=] {
          const QByteArray body = reply->readAll();
          reply->deleteLater();
          meter->Completed(number, reply->error() == QNetworkReply::NoError, body.size());
        });
      },
      [&loop] { loop.quit(); });
  loop.exec();
}

}  // namespace orvan::bench
