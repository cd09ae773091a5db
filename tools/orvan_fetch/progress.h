#pragma once

#include <QElapsedTimer>
#include <QTimer>
#include <QtGlobal>

namespace orvan_fetch {

// How far a run of many fetches has come, or an archive with many entries. `done` includes the failed ones.
struct RunTotals {
  int done = 0;
  int failed = 0;
  qint64 bytes = 0;
};

// The line on standard error that tells how a run goes, while it goes: done, failed, bytes, rate. Only for
// more than one thing to do, and only on a terminal; otherwise nothing here does anything.
class Progress {
 public:
  explicit Progress(int total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // The line is drawn a few times a second, however often this is called, and from the event loop too.
  void Update(const RunTotals& totals);
  // Takes the line away, for others to write; it comes back by itself.
  void Clear();
  // Keeps the line away while somebody types into the terminal.
  static void Hold(bool held);

 private:
  void Draw();

  const int total_;
  const bool shown_;
  RunTotals totals_;
  QElapsedTimer clock_;
  QElapsedTimer since_drawn_;  // invalid before the first time
  QTimer timer_;
};

}  // namespace orvan_fetch
