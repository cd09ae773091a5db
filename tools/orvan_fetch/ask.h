#pragma once

#include <QByteArray>
#include <QSocketNotifier>
#include <QString>
#include <QStringList>
#include <memory>
#include <string>

#include "orvan/net/identity/prompt_bridge.h"

namespace CLI {
class App;
}

namespace orvan_fetch {

// What the command line says of who is fetching. The password itself is never on it.
struct AskArguments {
  std::string user;           // empty: asked for
  std::string password_file;  // empty: asked for
};

void DescribeAsk(CLI::App* app, AskArguments* arguments);

// Answers servers and proxies that ask for credentials, for as long as it lives: from the command line's
// file, or by asking on the terminal, where the event loop goes on meanwhile. Without either they get no
// answer.
//
// Threads: main thread. Ends before the library does.
class Ask {
 public:
  Ask();
  ~Ask();
  Ask(const Ask&) = delete;
  Ask& operator=(const Ask&) = delete;

  // Begins. An empty text, or what is wrong. The file's password goes to the hosts of `urls` and to nobody
  // else, wherever a redirect leads.
  QString Prepare(const AskArguments& arguments, const QStringList& urls);

 private:
  using Answer = orvan::net::PromptBridge::Answer;
  using Reply = orvan::net::PromptBridge::Reply;

  void AnswerFromFile(const QString& prompt, const Reply& reply) const;
  void AskOnTerminal(const QString& prompt, const Reply& reply);
  void ReadTerminal();
  void TakeLine();
  void AskForPassword();
  void Finish(const Answer& answer);

  QStringList hosts_;
  QString user_;
  QString password_;  // of the file

  Reply reply_;  // empty unless the terminal is being asked
  Answer answer_;
  QByteArray line_;  // as far as it was typed
  bool for_password_ = false;
  QSocketNotifier keyboard_;

  std::unique_ptr<orvan::net::PromptBridge> bridge_;
};

}  // namespace orvan_fetch
