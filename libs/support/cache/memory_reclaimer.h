#pragma once

#include <QtGlobal>

#include "orvan/support/export.h"

namespace orvan {

class CacheObserver;

// Keeps the bytes of all CacheObservers within a budget.
//
// When the total rises above the budget, one pass is queued on the main thread. It goes through the
// reclaimable observers from the longest unused on, asks each until the total is down to three quarters of
// the budget, and demands from each for as long as it is still above the budget. Every observer is offered
// once in each half of a pass. What is in use or not reclaimable stays, so the budget is a goal and not a
// limit.
//
// Units:   bytes.
// Threads: any; passes run on the main thread.
class ORVAN_SUPPORT_EXPORT MemoryReclaimer {
 public:
  static constexpr qint64 kDefaultBudget = qint64{256} * 1024 * 1024;

  static void SetBudget(qint64 bytes);
  static qint64 GetBudget();
  static qint64 GetTotalBytes();

  // Runs a pass now, on the main thread. Returns the bytes that it freed.
  static qint64 RunPass();

 private:
  friend class CacheObserver;
  static void Register(CacheObserver* observer, bool reclaimable);
  static void Detach(CacheObserver* observer);
  static void ChangeTotal(qint64 delta);
};

}  // namespace orvan
