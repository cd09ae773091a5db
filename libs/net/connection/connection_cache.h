#pragma once

#include "orvan/net/connection/connection_ref_counter.h"
#include "orvan/net/export.h"
#include "orvan/support/job/job.h"
#include "orvan/support/job/timer.h"
#include "orvan/support/memory/containers.h"
#include "orvan/support/memory/ref_ptr.h"
#include "orvan/support/thread/lock.h"

namespace orvan::net {

// Keeps connections alive between requests: one reference to each that was used lately. A timer gives up what
// has been idle, or alive, for too long.
//
// Shape:     one entry for each connection, in the order of first use; a handful.
// Units:     seconds on the clock of System::getTime(); the timer's period is in milliseconds.
// Threads:   any, but Fire() comes on the main thread. Everything is guarded by the manager's lock.
// Ownership: a counted reference for each entry; the lock is not owned.
class ORVAN_NET_EXPORT ConnectionCache : private Timer {
 public:
  // A connection, and until when it is kept.
  struct ConnectionEntry {
    RefPtr<ConnectionRefCounter> connection;
    double idle_expiry;   // moved by each use
    double final_expiry;  // fixed when the entry is made: even a busy connection is given up then
  };

  // Drops the references of expired entries, one for each step, on the main thread.
  class ORVAN_NET_EXPORT ConnectionDeleterJob : public AbstractJob {
   public:
    explicit ConnectionDeleterJob(mmvector<ConnectionEntry> entries);
    ~ConnectionDeleterJob() override;
    int Run(const IJobContinuator& continuator, IJobContainer* container) override;
    // Takes what is left out of the job, and waits while a step runs on another thread.
    mmvector<ConnectionEntry> TakeEntries();

   private:
    port::MutexPosix mutex_;  // a leaf: entries are popped under it and dropped behind it
    port::ConditionPosix step_ended_;
    mmvector<ConnectionEntry> entries_ ORVAN_GUARDED_BY(mutex_);
    unsigned long stepping_thread_ ORVAN_GUARDED_BY(mutex_) = 0;  // that drops a reference at the moment
  };

  // Starts the timer.
  ConnectionCache(unsigned int period_ms, SpinLock* lock, double idle_lifetime, double final_lifetime);
  ~ConnectionCache() override;

  // Notes a use of the connection.
  void RefreshOrAddConnection(ConnectionRefCounter* connection);
  // Gives up the entry with the earliest idle expiry, the first of equal ones. True if there was one; the
  // connection itself lives on for as long as requests use it.
  bool Purge();
  // Gives up what has expired.
  void Fire() override;

  static bool CompareEntries(const ConnectionEntry& a, const ConnectionEntry& b);
  int GetEntryCount() const;

 private:
  // Gives references up. The deleter job's mutex is not held.
  static void DropEntries(mmvector<ConnectionEntry> entries);
  ConnectionEntry* FindConnection(ConnectionRefCounter* connection) ORVAN_REQUIRES(*lock_);

  SpinLock* const lock_;  // of the manager; re-entrant
  mmvector<ConnectionEntry> entries_ ORVAN_GUARDED_BY(*lock_);
  RefPtr<ConnectionDeleterJob> deleter_job_ ORVAN_GUARDED_BY(*lock_);  // the latest; null before the first
  const unsigned int period_ms_;
  const double idle_lifetime_;
  const double final_lifetime_;
};

}  // namespace orvan::net
