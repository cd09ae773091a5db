#include "orvan/net/identity/prompt_bridge.h"

#include <QHash>
#include <cstdlib>
#include <deque>
#include <utility>

#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/identity/stored_credentials.h"
#include "orvan/support/job/job.h"
#include "orvan/support/thread/lock.h"
#include "orvan/support/thread/system.h"

namespace orvan::net {

namespace {

// One prompt on its way to the user, and the workers that wait for the answer.
struct Question {
  explicit Question(QString text) : prompt(std::move(text)) {}
  const QString prompt;
  bool answered = false;  // this and the next under the state's mutex
  PromptBridge::Answer answer;
};

// What is remembered of a prompt.
struct History {
  int tries = 0;             // answers in a row
  double last_answer = 0.0;  // when the last of them came
  double refused_until = 0.0;
};

}  // namespace

class PromptBridge::State : public std::enable_shared_from_this<State> {
 public:
  State(Ask ask, int max_tries, double refusal_seconds)
      : ask_(std::move(ask)), max_tries_(max_tries), refusal_seconds_(refusal_seconds) {}

  // Waits for the user. Worker thread.
  Answer AskAndWait(const QString& prompt) {
    port::MutexGuard guard(mutex_);
    if (closed_ || IsDeclinedLocked(prompt)) return Answer();
    const std::shared_ptr<Question> question = JoinLocked(prompt);
    while (!question->answered) answered_.Wait(mutex_);
    return question->answer;
  }

  // On the main thread nobody can be waited for: what is not answered within the call is declined.
  Answer AskHere(const QString& prompt) {
    const auto question = std::make_shared<Question>(prompt);
    {
      port::MutexGuard guard(mutex_);
      if (closed_ || IsDeclinedLocked(prompt)) return Answer();
    }
    ask_(prompt, MakeReply(question));
    Take(question, Answer());
    port::MutexGuard guard(mutex_);
    return question->answer;
  }

  void Close() {
    std::deque<std::shared_ptr<Question>> open;
    {
      port::MutexGuard guard(mutex_);
      closed_ = true;
      open.swap(open_);
    }
    for (const auto& question : open) Take(question, Answer());
  }

 private:
  // Takes note of an answer, unless there is one, and shows the next question. Any thread.
  void Take(const std::shared_ptr<Question>& question, const Answer& answer) {
    port::MutexGuard guard(mutex_);
    if (question->answered) return;
    question->answered = true;
    question->answer = answer;
    RememberLocked(question->prompt, answer.given);
    answered_.NotifyAll();
    if (open_.empty() || open_.front() != question) return;
    open_.pop_front();
    ShowFirstLocked();
  }

  // The open question of this prompt, or a new one.
  std::shared_ptr<Question> JoinLocked(const QString& prompt) ORVAN_REQUIRES(mutex_) {
    for (const auto& question : open_) {
      if (question->prompt == prompt) return question;
    }
    open_.push_back(std::make_shared<Question>(prompt));
    std::shared_ptr<Question> question = open_.back();
    if (open_.size() == 1) ShowFirstLocked();
    return question;
  }

  void ShowFirstLocked() ORVAN_REQUIRES(mutex_) {
    if (open_.empty()) return;
    MainThreadJobExecutor().ExecuteAsync(
        [state = shared_from_this(), question = open_.front()] { state->Show(question); }, "PromptBridge");
  }

  void Show(const std::shared_ptr<Question>& question) {
    {
      port::MutexGuard guard(mutex_);
      if (question->answered) return;
    }
    ask_(question->prompt, MakeReply(question));
  }

  // The last copy that goes declines what was not answered.
  Reply MakeReply(const std::shared_ptr<Question>& question) {
    const std::shared_ptr<void> last(
        nullptr, [state = shared_from_this(), question](void*) { state->Take(question, Answer()); });
    return
        [state = shared_from_this(), question, last](const Answer& answer) { state->Take(question, answer); };
  }

  bool IsDeclinedLocked(const QString& prompt) ORVAN_REQUIRES(mutex_) {
    const auto found = histories_.find(prompt);
    if (found == histories_.end()) return false;
    const double now = System::getTime();
    if (now < found->refused_until) return true;
    if (now - found->last_answer > kRowSeconds) found->tries = 0;
    if (found->tries < max_tries_) return false;
    *found = History{0, 0.0, now + refusal_seconds_};
    return true;
  }

  void RememberLocked(const QString& prompt, bool given) ORVAN_REQUIRES(mutex_) {
    if (closed_) return;
    const double now = System::getTime();
    if (histories_.size() >= kMaxHistories) histories_.clear();  // prompts name hosts, and those never end
    History& history = histories_[prompt];
    if (given) {
      ++history.tries;
      history.last_answer = now;
    } else {
      history = History{0, 0.0, now + refusal_seconds_};
    }
  }

  static constexpr int kMaxHistories = 1000;

  const Ask ask_;  // main thread
  const int max_tries_;
  const double refusal_seconds_;
  port::MutexPosix mutex_;  // before the queue of the main thread
  port::ConditionPosix answered_;
  bool closed_ ORVAN_GUARDED_BY(mutex_) = false;
  std::deque<std::shared_ptr<Question>> open_ ORVAN_GUARDED_BY(mutex_);  // the first is being shown
  QHash<QString, History> histories_ ORVAN_GUARDED_BY(mutex_);
};

PromptBridge::PromptBridge(Ask ask, int max_tries, double refusal_seconds)
    : state_(std::make_shared<State>(ask ? std::move(ask) : (std::abort(), Ask()), max_tries,
                                     refusal_seconds)) {}

PromptBridge::~PromptBridge() {
  Close();
  if (HttpConnectionFactory::GetUsernamePasswordQueryHandler() == this) {
    HttpConnectionFactory::SetUsernamePasswordQueryHandler(nullptr);
  }
  QueryHandlerUse::WaitForEnd(this);
}

void PromptBridge::Close() { state_->Close(); }

bool PromptBridge::QueryUsernameAndPassword(const QString& prompt, QString& username, QString& password,
                                            bool* save) {
  const std::shared_ptr<State> state = state_;  // the bridge may go while we wait
  const Answer answer = System::IsMainThread() ? state->AskHere(prompt) : state->AskAndWait(prompt);
  if (!answer.given) return false;
  username = answer.username;
  password = answer.password;
  *save = answer.save;
  return true;
}

}  // namespace orvan::net
