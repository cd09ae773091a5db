#include "orvan/support/memory/referent.h"

#include "orvan/support/thread/atomic.h"

namespace orvan {

Referent::~Referent() = default;
void Referent::orphaned() const { delete this; }

AtomicReferent::~AtomicReferent() = default;
void AtomicReferent::orphaned() const { delete this; }

void AtomicReferent::ref() const { AtomicAdd32(&ref_count_, 1); }

void AtomicReferent::unref() const {
  if (AtomicAdd32(&ref_count_, -1) == 1) orphaned();
}

int AtomicReferent::getRefCount() const { return AtomicLoad32(&ref_count_); }

const WeakAtomicReferent* PtrProxy::try_ptr_ref() const {
  SpinLockGuard guard(lock_);
  if (object_) object_->ref();  // the caller's
  return object_;
}

WeakAtomicReferent::WeakAtomicReferent() : proxy_(new PtrProxy(this)) {}

// For objects that were never counted: unref() has cleared the pointer of all others.
WeakAtomicReferent::~WeakAtomicReferent() { proxy_->Clear(); }

void WeakAtomicReferent::ref() const { AtomicAdd32(&ref_count_, 1); }

void WeakAtomicReferent::unref() const {
  int count = AtomicLoad32(&ref_count_);
  while (count > 1) {
    const int found = AtomicCompareAndSwap32(&ref_count_, count - 1, count);
    if (found == count) return;
    count = found;
  }
  // Not a slip: a plain decrement would do for the count, but try_ptr_ref() in another thread could then add
  // a reference to an object on its way into orphaned(). A count of 0 does not tell it: each count starts
  // there. WeakAtomicReferentTest.ADyingObjectIsNeverRevived holds this in place.
  //
  // The proxy is pinned: when the guard unlocks it, the object may already have died in another thread.
  const RefPtr<PtrProxy> proxy = proxy_;
  if (proxy->DropLastReference(&ref_count_)) orphaned();
}

void WeakAtomicReferent::orphaned() const { delete this; }

RefPtr<PtrProxy> WeakAtomicReferent::get_proxy() const { return proxy_; }

int WeakAtomicReferent::getRefCount() const { return AtomicLoad32(&ref_count_); }

// Subtracts one under the lock, and forgets the object if that made 0. Somebody may have added a reference
// meanwhile; then this one was not the last.
bool PtrProxy::DropLastReference(int* ref_count) const {
  SpinLockGuard guard(lock_);
  if (AtomicAdd32(ref_count, -1) != 1) return false;
  object_ = nullptr;
  return true;
}

void PtrProxy::Clear() const {
  SpinLockGuard guard(lock_);
  object_ = nullptr;
}

}  // namespace orvan
