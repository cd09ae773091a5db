#include "tools/orvan_fetch/interrupts.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

namespace orvan_fetch {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM};

// All that the signal handler touches. The pipe stays open for as long as the process lives, so that a late
// signal finds it.
int g_pipe[2] = {-1, -1};
volatile sig_atomic_t g_pending = 0;

void Notice(int signal_number) {
  const int saved_errno = errno;
  g_pending = 1;
  const auto byte = static_cast<unsigned char>(signal_number);
  // A full pipe means that the event loop has something to read anyway.
  if (write(g_pipe[1], &byte, 1) < 0) errno = 0;
  errno = saved_errno;
}

}  // namespace

Interrupts::Interrupts(std::function<void(int)> handler) : handler_(std::move(handler)) {
  if (g_pipe[0] < 0 && pipe2(g_pipe, O_CLOEXEC | O_NONBLOCK) != 0) return;
  notifier_ = std::make_unique<QSocketNotifier>(g_pipe[0], QSocketNotifier::Read);
  QObject::connect(notifier_.get(), &QSocketNotifier::activated, [this] { Deliver(); });
  struct sigaction action = {};
  action.sa_handler = Notice;
  // Without SA_RESTART a blocking write returns; with SA_RESETHAND the second signal is not ours any more.
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int signal_number : kSignals) sigaction(signal_number, &action, nullptr);
}

Interrupts::~Interrupts() {
  for (const int signal_number : kSignals) signal(signal_number, SIG_DFL);
}

bool Interrupts::Pending() { return g_pending != 0; }

void Interrupts::Deliver() {
  unsigned char byte = 0;
  if (read(g_pipe[0], &byte, 1) == 1) handler_(byte);
}

}  // namespace orvan_fetch
