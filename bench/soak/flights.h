#pragma once

#include <QString>
#include <QStringList>
#include <QTimer>
#include <array>
#include <random>
#include <vector>

#include "orvan/net/fetcher.h"
#include "orvan/support/memory/ref_ptr.h"

class QEventLoop;

namespace orvan::bench {

// What all fetches came to.
struct Tally {
  int ended = 0;      // by their callback
  int stopped = 0;    // by Stop(), before or after their callback
  int withdrawn = 0;  // without a callback from some moment on
  int lost = 0;       // never ended, though nobody stopped them
  int doubled = 0;    // called back more than once
  int late = 0;       // called back behind Stop() or a withdrawal
  int beside = 0;     // failed because their server hung up on another one
  int wrong = 0;      // ended otherwise than such a fetch has to; each is told at once
};

// Keeps fetches of all kinds under way, and stops, withdraws, drops and reclaims at random moments.
//
// Threads: the main thread. Callbacks of fetches are plain functions, so there is one object at a time.
class Flights {
 public:
  // `servers`: base URLs, each of which serves what run.py puts there. `folder`: the same files on disk.
  Flights(QStringList servers, QString folder, unsigned seed, int fetches, int outstanding);
  ~Flights();
  Flights(const Flights&) = delete;
  Flights& operator=(const Flights&) = delete;

  // Starts fetches until `count` were started in all. True once all have ended; false, with up to
  // `outstanding` still under way, if that was not asked for.
  enum Until { kAllEnded, kAllStarted };
  void Run(int count, Until until);
  // Stops what is under way.
  void StopAll();
  // Gives up results that are kept.
  void DropKept();

  Tally Count() const;

 private:
  struct Flight {
    unsigned char kind = 0;
    unsigned char calls = 0;
    bool cut = false;  // stopped or withdrawn
    bool late = false;
    bool beside = false;
    bool wrong = false;
  };
  struct Slot {
    int number = -1;               // of the fetch under way here, or none
    RefPtr<net::Fetcher> fetcher;  // null if it was dropped at once
  };

  static void Done(net::Fetcher& fetcher);
  void Ended(net::Fetcher& fetcher);
  void Turn();
  void Start(Slot* slot);
  void Disturb();
  void Cut(Slot* slot);
  unsigned Roll(unsigned sides) { return static_cast<unsigned>(dice_()) % sides; }

  static Flights* s_flights;
  const QStringList servers_;
  const QString folder_;
  std::mt19937 dice_;
  std::vector<Flight> flights_;  // by number; as long as there will ever be
  std::vector<Slot> slots_;
  std::array<RefPtr<net::Fetcher>, 8> kept_;  // ended, still readable
  std::vector<int> kinds_;                    // one entry for each unit of a kind's weight
  QTimer turn_;
  QTimer beat_;
  QEventLoop* loop_ = nullptr;
  int started_ = 0;
  int under_way_ = 0;
  int target_ = 0;
  int idle_beats_ = 0;
  int stopped_ = 0;
  int withdrawn_ = 0;
  Until until_ = kAllStarted;
};

}  // namespace orvan::bench
