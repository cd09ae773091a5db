// Signs all requests below one URL with OAuth 1, whoever makes them, and fetches a document from there.
//
//   sign_by_url <URL prefix> <URL to fetch> <consumer key> <token>     the token's secret is in LAKE_SECRET

#include <QCoreApplication>
#include <cstdio>

#include "orvan/net/fetcher.h"
#include "orvan/net/identity/request_signers.h"
#include "orvan/net/net_init.h"

using namespace orvan::net;

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  if (argc != 5) return std::fprintf(stderr, "usage: sign_by_url <prefix> <URL> <consumer key> <token>\n"), 2;
  Init(QString(), QString());
  int result = 1;
  {
    // For as long as this object lives. A prefix without a host would sign requests to every server, and a
    // redirect takes the signature along: sign only for servers that you trust.
    const OauthHttpSigner signer(QUrl(QString::fromLocal8Bit(argv[1])), QString::fromLocal8Bit(argv[3]),
                                 QString::fromLocal8Bit(argv[4]), qEnvironmentVariable("LAKE_SECRET"));
    Fetcher::FetchParams params;
    params.url = QString::fromLocal8Bit(argv[2]);  // Fetcher itself knows nothing of signatures
    params.callback = [](Fetcher& fetcher) {
      std::printf("state %d, %d bytes\n", fetcher.GetState(), fetcher.getSize());
      QCoreApplication::exit(fetcher.GetState() == kFetchSuccess ? 0 : 1);
    };
    Fetcher::fetch(params, nullptr);
    result = QCoreApplication::exec();
  }
  Shutdown();
  return result;
}
