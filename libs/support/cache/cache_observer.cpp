#include "orvan/support/cache/cache_observer.h"

#include "orvan/support/cache/memory_reclaimer.h"
#include "orvan/support/thread/system.h"

namespace orvan {

CacheObserver::CacheObserver() = default;

CacheObserver::~CacheObserver() {
  Detach();
  MemoryReclaimer::ChangeTotal(-bytes_.load(std::memory_order_relaxed));
}

// Nothing is reclaimed in here, however high the total: the caller may hold the lock that reclaim() tries to
// take. Such locks are re-entrant, so reclaim() would get it, on the thread that is just reading the memory.
void CacheObserver::ChangeUnpooledBytes(int delta) {
  bytes_.fetch_add(delta, std::memory_order_relaxed);
  MemoryReclaimer::ChangeTotal(delta);
}

void CacheObserver::SetIsReclaimable(bool reclaimable) {
  Q_ASSERT(System::IsMainThread());
  MemoryReclaimer::Register(this, reclaimable);
}

void CacheObserver::Detach() { MemoryReclaimer::Detach(this); }

}  // namespace orvan
