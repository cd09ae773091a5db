#pragma once

namespace orvan {

// Adds `delta` and returns the value from before the addition. Every reference count of the program goes
// through here: the result 1 from adding -1 means that the count has reached 0, and that everything the
// other holders did to the object is visible to this thread.
inline int AtomicAdd32(volatile int* value, int delta) {
  return __atomic_fetch_add(value, delta, __ATOMIC_ACQ_REL);
}

// Stores `new_value` if `*value` is `expected`. Returns the value found, so the swap took place exactly if
// the result equals `expected`.
inline int AtomicCompareAndSwap32(volatile int* value, int new_value, int expected) {
  __atomic_compare_exchange_n(value, &expected, new_value, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
  return expected;
}

// The current value of a counter that other threads change with the two operations above.
inline int AtomicLoad32(const volatile int* value) { return __atomic_load_n(value, __ATOMIC_ACQUIRE); }

}  // namespace orvan
