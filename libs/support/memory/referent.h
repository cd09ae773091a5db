#pragma once

#include "orvan/support/export.h"
#include "orvan/support/memory/ref_ptr.h"
#include "orvan/support/thread/lock.h"

namespace orvan {

// Base classes for counted objects. A count starts at 0; the first RefPtr makes it 1. When it falls back to
// 0, orphaned() is called, which deletes the object unless a subclass has better plans. Copies and
// assignments leave the counts alone: each object counts its own holders.

// For objects that stay on one thread.
class ORVAN_SUPPORT_EXPORT Referent {
 public:
  Referent() = default;
  Referent(const Referent&) : ref_count_(0) {}
  Referent& operator=(const Referent&) { return *this; }  // NOLINT(cert-oop54-cpp): copies nothing
  virtual ~Referent();
  virtual void orphaned() const;

  void ref() const { ++ref_count_; }
  void unref() const {
    if (--ref_count_ == 0) orphaned();
  }
  int getRefCount() const { return ref_count_; }

 private:
  mutable int ref_count_ = 0;
};

// For objects that are shared between threads.
class ORVAN_SUPPORT_EXPORT AtomicReferent {
 public:
  AtomicReferent() = default;
  AtomicReferent(const AtomicReferent&) : ref_count_(0) {}
  AtomicReferent& operator=(const AtomicReferent&) { return *this; }  // NOLINT(cert-oop54-cpp): as above
  virtual ~AtomicReferent();
  virtual void orphaned() const;

  void ref() const;
  void unref() const;
  int getRefCount() const;

 private:
  mutable int ref_count_ = 0;
};

class WeakAtomicReferent;

// What remains reachable of a WeakAtomicReferent when the object itself has gone.
class ORVAN_SUPPORT_EXPORT PtrProxy : public AtomicReferent {
 public:
  // The object with a new reference, which the caller drops, or null if it is dying or dead.
  const WeakAtomicReferent* try_ptr_ref() const;

 private:
  friend class WeakAtomicReferent;
  explicit PtrProxy(const WeakAtomicReferent* object) : object_(object) {}
  bool DropLastReference(int* ref_count) const;
  void Clear() const;

  mutable SpinLock lock_;  // a leaf
  mutable const WeakAtomicReferent* object_ ORVAN_GUARDED_BY(lock_);
};

// Like AtomicReferent, and can be watched through a proxy. The step of the count from 1 to 0 and
// try_ptr_ref() exclude each other, so a dying object is never revived. From that step on the proxy
// answers null, even if an orphaned() of a subclass spares the object.
class ORVAN_SUPPORT_EXPORT WeakAtomicReferent {
 public:
  WeakAtomicReferent();
  WeakAtomicReferent(const WeakAtomicReferent&) = delete;
  WeakAtomicReferent& operator=(const WeakAtomicReferent&) = delete;
  virtual ~WeakAtomicReferent();

  void ref() const;
  void unref() const;
  virtual void orphaned() const;
  // Valid for as long as somebody holds it, also when this object has gone.
  RefPtr<PtrProxy> get_proxy() const;
  int getRefCount() const;

 private:
  mutable int ref_count_ = 0;
  const RefPtr<PtrProxy> proxy_;
};

}  // namespace orvan
