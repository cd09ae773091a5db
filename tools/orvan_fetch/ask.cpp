#include "tools/orvan_fetch/ask.h"

#include <pthread.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <QFile>
#include <QUrl>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <limits>
#include <utility>

#include "orvan/net/http/http_connection_factory.h"
#include "tools/orvan_fetch/printable.h"
#include "tools/orvan_fetch/progress.h"

namespace orvan_fetch {
namespace {

using orvan::net::PromptBridge;

constexpr qint64 kLongestPassword = 4096;

// An empty text, or what is wrong.
QString ReadPassword(const QString& name, QString* password) {
  QFile file(name);
  if (!file.open(QIODevice::ReadOnly)) {
    return QStringLiteral("--password-file %1: %2").arg(name, file.errorString());
  }
  QByteArray text = file.read(kLongestPassword + 1);
  if (text.endsWith('\n')) text.chop(1);
  if (text.endsWith('\r')) text.chop(1);
  *password = QString::fromUtf8(text);
  if (text.size() <= kLongestPassword && !HasControlCharacter(*password)) return QString();
  return QStringLiteral("--password-file %1: that is not one password on one line").arg(name);
}

// The terminal without its echo. One that is left so is of no use to whoever comes next, therefore a signal
// that ends or stops the program turns it on first. What there is for this, readpassphrase(3), waits for the
// line and counts on being alone, while here other fetches go on.
constexpr int kSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGTSTP};
constexpr char kPasswordPrompt[] = "Password: ";
termios g_echoing, g_silent;
struct sigaction g_earlier[std::size(kSignals)];
volatile sig_atomic_t g_is_silent = 0;
pthread_t g_main_thread;

sigset_t AllSignals() {
  sigset_t all;
  sigemptyset(&all);
  for (const int number : kSignals) sigaddset(&all, number);
  return all;
}

// Keeps them from the main thread, where they are handled, while their handling changes.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    const sigset_t all = AllSignals();
    pthread_sigmask(SIG_BLOCK, &all, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

void SetSignals(void (*handler)(int)) {
  for (size_t i = 0; i < std::size(kSignals); ++i) {
    if (!handler) {
      sigaction(kSignals[i], &g_earlier[i], nullptr);
      continue;
    }
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_mask = AllSignals();  // one at a time
    sigaction(kSignals[i], &action, &g_earlier[i]);
    if (g_earlier[i].sa_handler == SIG_IGN)
      sigaction(kSignals[i], &g_earlier[i], nullptr);  // as nohup wants it
  }
}

// Nothing but what a signal handler may call.
void OnSignal(int number) {
  const int saved_errno = errno;
  // While the main thread handles one, the next goes to another thread, which must not do so at the same
  // time.
  if (!pthread_equal(pthread_self(), g_main_thread)) {
    pthread_kill(g_main_thread, number);
    errno = saved_errno;
    return;
  }
  tcsetattr(STDIN_FILENO, TCSANOW, &g_echoing);
  SetSignals(nullptr);
  g_is_silent = 0;
  raise(number);
  sigset_t only, before;
  sigemptyset(&only);
  sigaddset(&only, number);
  pthread_sigmask(SIG_UNBLOCK, &only, &before);  // here it ends, or stops until it is told to go on
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (number == SIGTSTP && tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_silent) == 0) {
    SetSignals(OnSignal);
    g_is_silent = 1;
    if (write(STDERR_FILENO, kPasswordPrompt, sizeof kPasswordPrompt - 1) < 0) errno = 0;
  }
  errno = saved_errno;
}

bool Silence() {
  if (tcgetattr(STDIN_FILENO, &g_echoing) != 0) return false;
  g_silent = g_echoing;
  g_silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  const SignalsBlocked blocked;
  g_main_thread = pthread_self();
  SetSignals(OnSignal);
  g_is_silent = 1;
  // What was typed ahead goes: it was typed with an echo.
  return tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_silent) == 0;
}

void EndSilence() {
  const SignalsBlocked blocked;
  if (!g_is_silent) return;
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_echoing);
  g_is_silent = 0;
  SetSignals(nullptr);
}

void Say(const QString& text) { std::fputs(Printable(text).toUtf8().constData(), stderr); }

}  // namespace

void DescribeAsk(CLI::App* app, AskArguments* arguments) {
  auto* user = app->add_option("--user", arguments->user,
                               "the name for servers and proxies that want one; the system's keychain is "
                               "looked at first, and what is missing is asked for on the terminal")
                   ->type_name("NAME");
  app->add_option("--password-file", arguments->password_file,
                  "the password is in FILE, for the hosts of the URLs only; nothing is asked")
      ->type_name("FILE")
      ->needs(user);
}

Ask::Ask() : keyboard_(STDIN_FILENO, QSocketNotifier::Read) {
  keyboard_.setEnabled(false);
  QObject::connect(&keyboard_, &QSocketNotifier::activated, [this] { ReadTerminal(); });
}

Ask::~Ask() {
  bridge_.reset();
  if (reply_) Finish(Answer());
}

QString Ask::Prepare(const AskArguments& arguments, const QStringList& urls) {
  user_ = QString::fromStdString(arguments.user);
  if (!arguments.password_file.empty()) {
    QString problem = ReadPassword(QString::fromStdString(arguments.password_file), &password_);
    if (!problem.isEmpty()) return problem;
    for (const QString& url : urls) hosts_.append(QUrl(url).host(QUrl::FullyDecoded));
    // However often, since each fetch may ask. The library does not send a pair again that was refused.
    bridge_ = std::make_unique<PromptBridge>(
        [this](const QString& prompt, const Reply& reply) { AnswerFromFile(prompt, reply); },
        std::numeric_limits<int>::max(), 0.0);
  } else if (isatty(STDIN_FILENO) && isatty(STDERR_FILENO)) {
    bridge_ = std::make_unique<PromptBridge>(
        [this](const QString& prompt, const Reply& reply) { AskOnTerminal(prompt, reply); });
  }
  orvan::net::HttpConnectionFactory::SetUsernamePasswordQueryHandler(bridge_.get());
  return QString();
}

void Ask::AnswerFromFile(const QString& prompt, const Reply& reply) const {
  Answer answer;
  // All that is known of who asks is the end of the prompt. A proxy's has another word before the host.
  for (const QString& host : hosts_) {
    if (!host.isEmpty() && prompt.endsWith(QStringLiteral(" password for ") + host)) answer.given = true;
  }
  if (answer.given) {
    answer.username = user_;
    answer.password = password_;
  } else {
    Say(QStringLiteral("orvan-fetch: not answered: ") + prompt);
    std::fputc('\n', stderr);
  }
  reply(answer);
}

void Ask::AskOnTerminal(const QString& prompt, const Reply& reply) {
  reply_ = reply;
  answer_ = Answer();
  Progress::Hold(true);
  Say(prompt);
  std::fputc('\n', stderr);
  keyboard_.setEnabled(true);
  if (user_.isEmpty()) {
    std::fputs("User name: ", stderr);
  } else {
    answer_.username = user_;
    AskForPassword();
  }
}

void Ask::ReadTerminal() {
  char bytes[1024];
  const ssize_t count = read(STDIN_FILENO, bytes, sizeof bytes);
  if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
  // Ctrl-D; or a terminal that is not ours any more, which would be found readable for ever.
  if (count <= 0) return Finish(Answer());
  line_.append(bytes, static_cast<int>(count));
  if (line_.endsWith('\n')) TakeLine();
}

void Ask::TakeLine() {
  line_.chop(1);
  const QString text = QString::fromUtf8(std::exchange(line_, QByteArray()));
  if (for_password_) {
    answer_.password = text;
    Finish(answer_);
  } else if (text.isEmpty()) {
    Finish(Answer());
  } else {
    answer_.username = text;
    AskForPassword();
  }
}

void Ask::AskForPassword() {
  if (!Silence()) return Finish(Answer());
  for_password_ = true;
  answer_.given = true;
  std::fputs(kPasswordPrompt, stderr);
}

void Ask::Finish(const Answer& answer) {
  keyboard_.setEnabled(false);
  line_.clear();
  for_password_ = false;
  EndSilence();
  std::fputc('\n', stderr);
  Progress::Hold(false);
  // A copy: the next question may come from within.
  const Reply reply = std::exchange(reply_, Reply());
  reply(answer);
}

}  // namespace orvan_fetch
