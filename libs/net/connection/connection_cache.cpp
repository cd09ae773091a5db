#include "orvan/net/connection/connection_cache.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "orvan/support/thread/system.h"

namespace orvan::net {

using Deleter = ConnectionCache::ConnectionDeleterJob;

Deleter::ConnectionDeleterJob(mmvector<ConnectionEntry> entries)
    : AbstractJob(0, QStringLiteral("ConnectionDeleter")), entries_(std::move(entries)) {}

Deleter::~ConnectionDeleterJob() { DropEntries(TakeEntries()); }

int Deleter::Run(const IJobContinuator& continuator, IJobContainer*) {
  for (;;) {
    RefPtr<ConnectionRefCounter> connection;
    {
      port::MutexGuard guard(mutex_);
      if (entries_.empty()) return kFinished;
      connection.swap(entries_.back().connection);
      entries_.pop_back();
      stepping_thread_ = System::CurrentThreadId();
    }
    ConnectionRefCounter::Drop(std::move(connection));
    bool finished = false;
    {
      port::MutexGuard guard(mutex_);
      stepping_thread_ = System::kInvalidThreadId;
      step_ended_.NotifyAll();
      finished = entries_.empty();
    }
    if (finished) return kFinished;
    if (!continuator.MayContinue(this)) return kRunAgain;
  }
}

mmvector<ConnectionCache::ConnectionEntry> Deleter::TakeEntries() {
  mmvector<ConnectionEntry> taken;
  port::MutexGuard guard(mutex_);
  taken.swap(entries_);
  const unsigned long self = System::CurrentThreadId();
  while (stepping_thread_ != System::kInvalidThreadId && stepping_thread_ != self) step_ended_.Wait(mutex_);
  return taken;
}

ConnectionCache::ConnectionCache(unsigned int period_ms, SpinLock* lock, double idle_lifetime,
                                 double final_lifetime)
    : Timer("ConnectionCache", nullptr),
      lock_(lock),
      period_ms_(period_ms),
      idle_lifetime_(idle_lifetime),
      final_lifetime_(final_lifetime) {
  Start(period_ms_, false);
}

ConnectionCache::~ConnectionCache() {
  Withdraw();  // in the base it would be too late: Fire() needs the fields
  mmvector<ConnectionEntry> entries;
  RefPtr<ConnectionDeleterJob> job;
  {
    SpinLockGuard guard(*lock_);
    entries.swap(entries_);
    job.swap(deleter_job_);
  }
  // A step of the job takes lock_, so the job is emptied without it. A run to come finds nothing.
  if (job) DropEntries(job->TakeEntries());
  DropEntries(std::move(entries));
}

void ConnectionCache::RefreshOrAddConnection(ConnectionRefCounter* connection) {
  SpinLockGuard guard(*lock_);
  const double now = System::getTime();
  if (ConnectionEntry* const entry = FindConnection(connection)) {
    // Not a slip: the final expiry stays. Moving it would let a connection in constant use live for ever.
    // ConnectionCacheTest.UseDoesNotMoveTheFinalExpiry holds this in place.
    entry->idle_expiry = now + idle_lifetime_;
    return;
  }
  entries_.push_back({connection, now + idle_lifetime_, now + final_lifetime_});
}

bool ConnectionCache::Purge() {
  RefPtr<ConnectionRefCounter> evicted;
  {
    SpinLockGuard guard(*lock_);
    // The first of equal ones: min_element() never prefers a later one.
    const auto it = std::min_element(entries_.begin(), entries_.end(), CompareEntries);
    if (it == entries_.end()) return false;
    evicted.swap(it->connection);
    entries_.erase(it);
  }
  // A pass that called this holds the lock itself: the connection's place is free when Purge() returns.
  ConnectionRefCounter::Drop(std::move(evicted));
  return true;
}

void ConnectionCache::Fire() {
  RefPtr<ConnectionDeleterJob> old_job;
  RefPtr<ConnectionDeleterJob> new_job;
  {
    SpinLockGuard guard(*lock_);
    const double now = System::getTime();
    const auto expired =
        std::stable_partition(entries_.begin(), entries_.end(), [now](const ConnectionEntry& entry) {
          return !(now > entry.idle_expiry || now > entry.final_expiry);  // an equal time is not over yet
        });
    mmvector<ConnectionEntry> given_up(std::make_move_iterator(expired),
                                       std::make_move_iterator(entries_.end()));
    entries_.erase(expired, entries_.end());
    old_job = deleter_job_;
    if (!given_up.empty()) {
      new_job = new (HeapManager::GetTransientHeap()) ConnectionDeleterJob(std::move(given_up));
      deleter_job_ = new_job.get();
    }
  }
  // Without an expired entry the old job stays, emptied.
  if (old_job) DropEntries(old_job->TakeEntries());
  if (new_job) GetDefaultJobScheduler()->AddJob(new_job.get());
}

bool ConnectionCache::CompareEntries(const ConnectionEntry& a, const ConnectionEntry& b) {
  return a.idle_expiry < b.idle_expiry;
}

int ConnectionCache::GetEntryCount() const {
  SpinLockGuard guard(*lock_);
  return static_cast<int>(entries_.size());
}

void ConnectionCache::DropEntries(mmvector<ConnectionEntry> entries) {
  for (ConnectionEntry& entry : entries) ConnectionRefCounter::Drop(std::move(entry.connection));
}

ConnectionCache::ConnectionEntry* ConnectionCache::FindConnection(ConnectionRefCounter* connection) {
  const auto it = std::find_if(entries_.begin(), entries_.end(), [connection](const ConnectionEntry& entry) {
    return entry.connection == connection;
  });
  return it == entries_.end() ? nullptr : &*it;
}

}  // namespace orvan::net
