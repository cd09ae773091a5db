#include "orvan/net/identity/prompt_bridge.h"

#include <QHash>
#include <QPair>
#include <atomic>
#include <chrono>
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

// The answers that one worker had to one prompt, in a row.
struct Row {
  int tries = 0;
  double last = 0.0;  // when the last of them came
};

// Unlike the system's number of a thread, never that of another one.
int ThreadNumber() {
  static std::atomic<int> latest{0};
  thread_local const int number = ++latest;
  return number;
}

double SteadySeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

class PromptBridge::State : public std::enable_shared_from_this<State> {
 public:
  State(Ask ask, int max_tries, double refusal_seconds, Clock clock)
      : ask_(std::move(ask)),
        max_tries_(max_tries),
        refusal_seconds_(refusal_seconds),
        clock_(clock ? std::move(clock) : SteadySeconds) {}

  // Waits for the user. Worker thread.
  Answer AskAndWait(const QString& prompt) {
    port::MutexGuard guard(mutex_);
    if (closed_ || IsDeclinedLocked(prompt)) return Answer();
    const std::shared_ptr<Question> question = JoinLocked(prompt);
    while (!question->answered) answered_.Wait(mutex_);
    CountLocked(*question);
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
    CountLocked(*question);
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
    if (!answer.given && !closed_) RefuseLocked(question->prompt);
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
    const double now = clock_();
    const auto refused = refused_until_.constFind(prompt);
    if (refused != refused_until_.constEnd() && now < *refused) return true;
    const auto row = rows_.constFind({prompt, ThreadNumber()});
    if (row == rows_.constEnd() || row->tries < max_tries_ || now - row->last > kRowSeconds) return false;
    rows_.erase(row);
    RefuseLocked(prompt);
    return true;
  }

  // A worker that comes back with a question soon was given a wrong answer.
  void CountLocked(const Question& question) ORVAN_REQUIRES(mutex_) {
    const QPair<QString, int> key(question.prompt, ThreadNumber());
    if (!question.answer.given) {
      rows_.remove(key);
      return;
    }
    if (rows_.size() >= kMostRemembered) rows_.clear();
    const double now = clock_();
    Row& row = rows_[key];
    row = {now - row.last > kRowSeconds ? 1 : row.tries + 1, now};
  }

  void RefuseLocked(const QString& prompt) ORVAN_REQUIRES(mutex_) {
    if (refused_until_.size() >= kMostRemembered) refused_until_.clear();
    refused_until_[prompt] = clock_() + refusal_seconds_;
  }

  static constexpr int kMostRemembered = 1000;  // prompts name hosts, and those never end

  const Ask ask_;  // main thread
  const int max_tries_;
  const double refusal_seconds_;
  const Clock clock_;
  port::MutexPosix mutex_;  // before the queue of the main thread
  port::ConditionPosix answered_;
  bool closed_ ORVAN_GUARDED_BY(mutex_) = false;
  std::deque<std::shared_ptr<Question>> open_ ORVAN_GUARDED_BY(mutex_);  // the first is being shown
  QHash<QString, double> refused_until_ ORVAN_GUARDED_BY(mutex_);
  QHash<QPair<QString, int>, Row> rows_ ORVAN_GUARDED_BY(mutex_);
};

PromptBridge::PromptBridge(Ask ask, int max_tries, double refusal_seconds, Clock clock)
    : state_(std::make_shared<State>(ask ? std::move(ask) : (std::abort(), Ask()), max_tries, refusal_seconds,
                                     std::move(clock))) {}

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
