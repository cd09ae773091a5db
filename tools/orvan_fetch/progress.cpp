#include "tools/orvan_fetch/progress.h"

#include <unistd.h>

#include <QString>
#include <cstdio>
#include <utility>

#include "tools/orvan_fetch/printable.h"

namespace orvan_fetch {
namespace {

constexpr int kDrawEveryMs = 200;

// There is one terminal. Main thread.
bool g_drawn = false;  // the line stands there
bool g_held = false;

void Erase() {
  if (!std::exchange(g_drawn, false)) return;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
}

}  // namespace

Progress::Progress(int total) : total_(total), shown_(total > 1 && isatty(STDERR_FILENO)) {
  if (!shown_) return;
  clock_.start();
  QObject::connect(&timer_, &QTimer::timeout, [this] { Draw(); });
  timer_.start(kDrawEveryMs);
}

Progress::~Progress() { Clear(); }

void Progress::Update(const RunTotals& totals) {
  totals_ = totals;
  if (shown_ && (!since_drawn_.isValid() || since_drawn_.elapsed() >= kDrawEveryMs)) Draw();
}

void Progress::Clear() { Erase(); }

void Progress::Hold(bool held) {
  g_held = held;
  Erase();
}

void Progress::Draw() {
  if (g_held) return;
  const double seconds = static_cast<double>(clock_.elapsed()) / 1000;
  const double rate = seconds > 0 ? static_cast<double>(totals_.bytes) / seconds : 0.0;
  const QString line = QStringLiteral("%1 of %2 done, %3 failed, %4, %5/s")
                           .arg(totals_.done)
                           .arg(total_)
                           .arg(totals_.failed)
                           .arg(ByteCount(static_cast<double>(totals_.bytes)), ByteCount(rate));
  std::fprintf(stderr, "\r\033[K%s", line.toUtf8().constData());
  std::fflush(stderr);
  g_drawn = true;
  since_drawn_.start();
}

}  // namespace orvan_fetch
