#pragma once

#include <QString>
#include <functional>
#include <memory>

#include "orvan/net/export.h"
#include "orvan/net/identity/username_password_query_handler.h"

namespace orvan::net {

// A query handler that takes the question to the main thread, where windows live, and lets only the worker
// that asks wait for the user. For applications that choose it:
//
//   PromptBridge bridge([](const QString& prompt, const PromptBridge::Reply& reply) { ... });
//   HttpConnectionFactory::SetUsernamePasswordQueryHandler(&bridge);
//
// Shape:     one question is shown at a time. Workers that ask the same while it is open, as the connections
//            to one server do, get the same answer. A worker that was answered several times, no two of them
//            more than a minute apart, and asks the same once more had wrong answers: it is declined, and so
//            is everybody for a while, as after the user's own refusal. Other workers' answers do not count:
//            they may have been right. The prompt's text is all that tells one question from another.
// Units:     seconds on a clock that never goes back.
// Threads:   QueryUsernameAndPassword() on the library's workers; all else on the main thread, which never
//            waits for a user here. It needs a main thread that runs its event loop.
// Ownership: made and owned by the application. The destructor takes the bridge back from
//            HttpConnectionFactory, and waits for workers that have just been told that nobody answers.
// Errors:    whatever prevents an answer counts as declined: the request ends with the error of its
//            challenge.
class ORVAN_NET_EXPORT PromptBridge : public IUsernamePasswordQueryHandler {
 public:
  // What the user said. Declined unless `given`.
  struct Answer {
    bool given = false;
    QString username;
    QString password;
    bool save = false;
  };
  // Takes the answer, once; later calls do nothing. Any thread. If every copy goes without a call, nobody has
  // answered.
  using Reply = std::function<void(const Answer& answer)>;
  // Shows a prompt to the user. Runs on the main thread, under no lock, and may fetch, stop and shut down in
  // there. May call `reply` before it returns, from an event loop of its own for example, or keep it for
  // later.
  using Ask = std::function<void(const QString& prompt, const Reply& reply)>;

  using Clock = std::function<double()>;

  static constexpr int kMaxTries = 3;
  static constexpr double kRowSeconds = 60.0;
  static constexpr double kRefusalSeconds = 30.0;

  // `ask` must not be empty: the process ends by abort() if it is. `clock`, on any thread and under a lock,
  // is that of the system unless it is given.
  explicit PromptBridge(Ask ask, int max_tries = kMaxTries, double refusal_seconds = kRefusalSeconds,
                        Clock clock = Clock());
  ~PromptBridge() override;

  // Declines what is open, and all that follows. Before Shutdown(), for users who have not answered yet.
  void Close();

  bool QueryUsernameAndPassword(const QString& prompt, QString& username, QString& password,
                                bool* save) override;

 private:
  class ORVAN_NET_HIDDEN State;
  const std::shared_ptr<State> state_;  // shared with what is on its way to the main thread
};

}  // namespace orvan::net
