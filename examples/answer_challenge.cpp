// Fetches a protected document. The keychain is asked first; if it has nothing, or the wrong thing, the
// prompt below comes. A program with windows would show a dialog there.
//
//   answer_challenge <URL> <user name>      the password is in the environment, in LAKE_PASSWORD

#include <QCoreApplication>
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

  PromptBridge bridge([argv](const QString& prompt, const PromptBridge::Reply& reply) {  // main thread
    std::printf("%s\n", qPrintable(prompt));
    PromptBridge::Answer answer;
    answer.given = true;
    answer.username = QString::fromLocal8Bit(argv[2]);
    answer.password = qEnvironmentVariable("LAKE_PASSWORD");
    reply(answer);  // answer.save would put it into the keychain
  });
  HttpConnectionFactory::SetUsernamePasswordQueryHandler(&bridge);

  Fetcher::FetchParams params;
  params.url = QString::fromLocal8Bit(argv[1]);
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
