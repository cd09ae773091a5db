// Starts several requests, and cancels together those that are still open when the first one has ended.
//
//   cancel_group <URL> <URL>...     all on one server

#include <QCoreApplication>
#include <QUrl>
#include <atomic>
#include <cstdio>

#include "orvan/net/http/http_connection.h"
#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/http/http_status.h"
#include "orvan/net/http/request_set.h"
#include "orvan/net/net_init.h"
#include "orvan/net/server/server_info.h"
#include "orvan/net/url_text.h"
#include "orvan/support/job/job.h"

using namespace orvan::net;

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  if (argc < 3) return std::fprintf(stderr, "usage: cancel_group <URL> <URL>...\n"), 2;
  Init(QString(), QString());
  const ServerInfo server(QString::fromLocal8Bit(argv[1]));
  HttpConnection* const connection =
      HttpConnectionFactory::CreateHttpConnection(&server, nullptr, 15.0, 30, 1, 0, 0, 0);

  std::atomic<int> ended{0};
  int open = 0;
  RequestSet group;
  for (int i = 1; i < argc; ++i) {
    const QUrl url(QString::fromLocal8Bit(argv[i]));
    HttpRequest* const request = connection->CreateRequest(kHttpGet, GetEncodedPathAndQuery(url), nullptr);
    group.AddPendingRequest(request);
    const unsigned int status = connection->EnqueueRequest(request, [&ended] {  // on a thread of its own
      if (++ended == 1) orvan::MainThreadJobExecutor().ExecuteAsync([] { QCoreApplication::quit(); }, "end");
    });
    if (status == kStatusOk) ++open;
    if (status != kStatusOk) request->unref();  // refused: it is still ours, and nothing calls back
  }
  if (open > 0) QCoreApplication::exec();
  const int by_themselves = ended;
  group.CancelAllRequests();  // callbacks may come while this runs, and none runs or comes behind it
  std::printf("%d of %d requests had ended\n", by_themselves, argc - 1);
  DisposeConnection(connection);
  Shutdown();
  return by_themselves > 0 ? 0 : 1;
}
