#include "orvan/support/cache/memory_reclaimer.h"

#include <algorithm>
#include <unordered_set>
#include <utility>
#include <vector>

#include "orvan/support/cache/cache_observer.h"
#include "orvan/support/job/event_pump.h"
#include "orvan/support/thread/system.h"

namespace orvan {
namespace {

std::atomic<qint64> s_budget{MemoryReclaimer::kDefaultBudget};  // these two order nothing
std::atomic<qint64> s_total{0};
std::atomic<bool> s_pass_queued{false};

bool IsAboveBudget() { return MemoryReclaimer::GetTotalBytes() > MemoryReclaimer::GetBudget(); }

// The observers in reach, and which of them is being called. Calls come without the mutex, so that an
// observer may change its registration, or end, within one.
class Registry {
 public:
  static Registry& Get() {
    static auto* const registry = new Registry;  // leaked: observers may outlive static destructors
    return *registry;
  }

  void Add(CacheObserver* observer) {
    port::MutexGuard guard(mutex_);
    observers_.insert(observer);
  }

  void Remove(CacheObserver* observer) {
    port::MutexGuard guard(mutex_);
    observers_.erase(observer);
  }

  // Removes the observer, and waits while another thread calls it. Its own call on this thread forgets it.
  void Detach(CacheObserver* observer) {
    port::MutexGuard guard(mutex_);
    observers_.erase(observer);
    if (called_ == observer && caller_ == System::CurrentThreadId()) called_ = nullptr;
    while (called_ == observer) call_ended_.Wait(mutex_);
  }

  std::vector<CacheObserver*> Snapshot() {
    port::MutexGuard guard(mutex_);
    return {observers_.begin(), observers_.end()};
  }

  // Runs `call(observer)`, unless the observer has left. Returns by how many bytes it shrank in the call.
  // One call at a time: passes are on the main thread and do not nest.
  template <typename Call>
  qint64 CallIfRegistered(CacheObserver* observer, const Call& call) {
    qint64 before = 0;
    {
      port::MutexGuard guard(mutex_);
      if (observers_.count(observer) == 0) return 0;
      called_ = observer;
      caller_ = System::CurrentThreadId();
      before = observer->GetUnpooledBytes();
    }
    call(observer);
    port::MutexGuard guard(mutex_);
    const bool alive = called_ == observer;  // else it ended within its own call
    const qint64 after = alive ? observer->GetUnpooledBytes() : 0;
    called_ = nullptr;
    call_ended_.NotifyAll();
    return std::max<qint64>(0, before - after);
  }

 private:
  port::MutexPosix mutex_;  // a leaf
  port::ConditionPosix call_ended_;
  std::unordered_set<CacheObserver*> observers_ ORVAN_GUARDED_BY(mutex_);
  const CacheObserver* called_ ORVAN_GUARDED_BY(mutex_) = nullptr;
  unsigned long caller_ ORVAN_GUARDED_BY(mutex_) = System::kInvalidThreadId;
};

// Observers that have something to give, the longest unused first.
std::vector<CacheObserver*> FindCandidates() {
  std::vector<std::pair<int, CacheObserver*>> by_age;
  for (CacheObserver* observer : Registry::Get().Snapshot()) {
    int frame = -1;
    Registry::Get().CallIfRegistered(observer,
                                     [&frame](CacheObserver* called) { frame = called->GetLruFrame(); });
    if (frame != -1) by_age.emplace_back(frame, observer);
  }
  std::stable_sort(by_age.begin(), by_age.end(), [](auto& a, auto& b) { return a.first < b.first; });
  std::vector<CacheObserver*> candidates;
  candidates.reserve(by_age.size());
  for (const auto& [frame, observer] : by_age) candidates.push_back(observer);
  return candidates;
}

// Offers each candidate once, until the total is down to `goal`. What it answers makes no difference.
qint64 Offer(const std::vector<CacheObserver*>& candidates, qint64 goal, CacheObserver::Event event) {
  qint64 freed = 0;
  for (CacheObserver* candidate : candidates) {
    if (MemoryReclaimer::GetTotalBytes() <= goal) break;
    freed += Registry::Get().CallIfRegistered(candidate,
                                              [event](CacheObserver* called) { called->reclaim(event); });
  }
  return freed;
}

void QueuePassIfNeeded() {
  if (!IsAboveBudget() || s_pass_queued.exchange(true)) return;
  EventPump::Get().PostFunction([] {
    s_pass_queued = false;
    if (IsAboveBudget()) MemoryReclaimer::RunPass();
  });
}

}  // namespace

void MemoryReclaimer::SetBudget(qint64 bytes) {
  s_budget.store(bytes, std::memory_order_relaxed);
  QueuePassIfNeeded();
}

qint64 MemoryReclaimer::GetBudget() { return s_budget.load(std::memory_order_relaxed); }

qint64 MemoryReclaimer::GetTotalBytes() { return s_total.load(std::memory_order_relaxed); }

qint64 MemoryReclaimer::RunPass() {
  Q_ASSERT(System::IsMainThread());
  static bool s_in_pass = false;  // main thread only
  if (s_in_pass) return 0;        // an observer runs an event loop
  s_in_pass = true;
  const std::vector<CacheObserver*> candidates = FindCandidates();
  qint64 freed = Offer(candidates, GetBudget() / 4 * 3, CacheObserver::Event{0});
  freed += Offer(candidates, GetBudget(), CacheObserver::Event{1});
  s_in_pass = false;
  return freed;
}

void MemoryReclaimer::Register(CacheObserver* observer, bool reclaimable) {
  if (!reclaimable) {
    Registry::Get().Remove(observer);
    return;
  }
  Registry::Get().Add(observer);
  QueuePassIfNeeded();  // the pass that its bytes caused may have come too early to find it
}

void MemoryReclaimer::Detach(CacheObserver* observer) { Registry::Get().Detach(observer); }

void MemoryReclaimer::ChangeTotal(qint64 delta) {
  s_total.fetch_add(delta, std::memory_order_relaxed);
  if (delta > 0) QueuePassIfNeeded();
}

}  // namespace orvan
