// Calls a service: sends a JSON object, and prints the one that comes back.
//
//   json_call <URL>

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <cstdio>

#include "orvan/net/http/http_status.h"
#include "orvan/net/manager/cm_network_manager.h"
#include "orvan/net/net_init.h"

using namespace orvan::net;

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  if (argc != 2) return std::fprintf(stderr, "usage: json_call <URL>\n"), 2;
  Init(QString(), QString());
  int result = 1;
  {
    CmNetworkManager manager;  // one for all calls of a program: it keeps and shares connections
    manager.Init({QStringLiteral("Accept: application/json")}, true);  // true: answers on the main thread

    RequestOptions options;
    options.method = kHttpPost;
    options.headers["Content-Type"] = "application/json";
    options.post_data = QJsonDocument(QJsonObject{{"lake", "Kochelsee"}, {"depth", 66}}).toJson();
    manager.Request(QUrl(QString::fromLocal8Bit(argv[1])), options,
                    [](const QByteArray& body, const ResponseInfo& info) {
                      const QJsonDocument answer = QJsonDocument::fromJson(body);
                      std::printf("status 0x%08X\n%s", info.status, answer.toJson().constData());
                      QCoreApplication::exit(info.status == kStatusOk && answer.isObject() ? 0 : 1);
                    });
    result = QCoreApplication::exec();
  }  // the manager goes before the library stops
  Shutdown();
  return result;
}
