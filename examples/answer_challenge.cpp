// Fetches a protected document. The keychain is asked first; if it has nothing, or the wrong thing, the
// prompt below comes. A program with windows would show a dialog there.
//
//   answer_challenge <URL> <user name>      the password is in the environment, in LAKE_PASSWORD
//
// Whoever it is redirected to may ask, and so may a proxy. All that tells one from the other is the host at
// the end of the prompt: a user can read it, and a program that answers by itself must.

#include <QCoreApplication>
#include <QUrl>
#include <cstdio>

#include "orvan/net/fetcher.h"
#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/identity/prompt_bridge.h"
#include "orvan/net/net_init.h"

using namespace orvan::net;

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  QCoreApplication::setApplicationName(QStringLiteral("answer_challenge"));  // names our keychain items
  if (argc != 3) return std::fprintf(stderr, "usage: answer_challenge <URL> <user name>\n"), 2;
  Init(QString(), QString());

  const QString url = QString::fromLocal8Bit(argv[1]);
  const QString ours = QStringLiteral("password for ") + QUrl(url).host();  // a proxy's says "for HTTP proxy"
  PromptBridge bridge([argv, ours](const QString& prompt, const PromptBridge::Reply& reply) {  // main thread
    std::printf("%s\n", qPrintable(prompt));
    PromptBridge::Answer answer;
    answer.given = prompt.endsWith(ours);
    answer.username = QString::fromLocal8Bit(argv[2]);
    answer.password = qEnvironmentVariable("LAKE_PASSWORD");
    reply(answer);  // answer.save would put it into the keychain
  });
  HttpConnectionFactory::SetUsernamePasswordQueryHandler(&bridge);

  Fetcher::FetchParams params;
  params.url = url;
  params.callback = [](Fetcher& fetcher) {
    std::printf("state %d, %d bytes\n", fetcher.GetState(), fetcher.getSize());
    QCoreApplication::exit(fetcher.GetState() == kFetchSuccess ? 0 : 1);
  };
  Fetcher::fetch(params, nullptr);

  const int result = QCoreApplication::exec();
  bridge.Close();  // whoever has not answered yet has declined
  Shutdown();
  return result;
}
