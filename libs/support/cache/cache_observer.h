#pragma once

#include <QtGlobal>
#include <atomic>

#include "orvan/support/export.h"
#include "orvan/support/thread/lock.h"

namespace orvan {

// Base class for objects that hold memory on behalf of a cache, and can give it back.
//
// Units:   bytes.
// Threads: ChangeUnpooledBytes() on any thread, under any lock: it never reclaims by itself.
//          SetIsReclaimable() on the main thread only. reclaim() comes on the main thread, at any moment
//          while the object is reclaimable.
class ORVAN_SUPPORT_EXPORT CacheObserver {
 public:
  // How urgently memory is wanted.
  struct Event {
    unsigned char demanded;  // 0: freeing is asked for; otherwise it is demanded
  };

  CacheObserver();
  CacheObserver(const CacheObserver&) = delete;
  CacheObserver& operator=(const CacheObserver&) = delete;
  virtual ~CacheObserver();

  // Gives back what the object can spare. True if it could be looked at; false asks to be left alone for now.
  virtual bool reclaim(const Event& event) = 0;
  // Frame of the last use: the smaller, the sooner the object is asked. -1 if it has nothing to give.
  virtual int GetLruFrame() = 0;

  // The object now holds `delta` bytes more, or less.
  void ChangeUnpooledBytes(int delta);
  // Offers the object to the reclaimer, or withdraws it. A new object is withdrawn.
  void SetIsReclaimable(bool reclaimable);
  qint64 GetUnpooledBytes() const { return bytes_.load(std::memory_order_relaxed); }

 protected:
  // Takes the object out of the reclaimer's reach and waits while reclaim() runs on another thread. A
  // subclass calls it first thing in its destructor, before it takes any lock that reclaim() takes.
  void Detach();

 private:
  friend class MemoryReclaimer;
  std::atomic<qint64> bytes_{0};  // a statistic, orders nothing
};

}  // namespace orvan
