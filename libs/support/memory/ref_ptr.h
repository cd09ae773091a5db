#pragma once

#include <cstddef>
#include <utility>

namespace orvan {

// The smart pointer for every class with ref() and unref(). Compares by the pointer's value.
//
// Threads: one RefPtr belongs to one thread at a time, like a plain pointer; the counts decide whether the
//          object may be shared.
template <typename T>
class RefPtr {
 public:
  RefPtr() = default;
  RefPtr(std::nullptr_t) {}
  RefPtr(T* pointer) : pointer_(pointer) {
    if (pointer_) pointer_->ref();
  }
  RefPtr(const RefPtr& other) : RefPtr(other.pointer_) {}
  RefPtr(RefPtr&& other) noexcept : pointer_(std::exchange(other.pointer_, nullptr)) {}
  template <typename U>
  RefPtr(const RefPtr<U>& other) : RefPtr(other.get()) {}
  ~RefPtr() {
    if (pointer_) pointer_->unref();
  }

  RefPtr& operator=(const RefPtr& other) {
    if (this != &other) *this = other.pointer_;
    return *this;
  }
  RefPtr& operator=(RefPtr&& other) noexcept {
    RefPtr taken(std::move(other));
    swap(taken);
    return *this;
  }
  // Not a slip: the new reference is taken and the old one dropped before the pointer is stored, so a
  // destructor that runs here still sees the old value. An unchanged pointer is left alone. It follows that
  // this RefPtr must not belong to what the old object takes along, as in `head = head->next` on a list that
  // only the old head keeps. RefPtrTest.AssignmentStoresLast holds the order in place.
  RefPtr& operator=(T* pointer) {
    if (pointer == pointer_) return *this;
    if (pointer) pointer->ref();
    T* const old = pointer_;
    if (old) old->unref();
    pointer_ = pointer;
    return *this;
  }

  T* get() const { return pointer_; }
  T& operator*() const { return *pointer_; }
  T* operator->() const { return pointer_; }
  explicit operator bool() const { return pointer_ != nullptr; }
  void swap(RefPtr& other) noexcept { std::swap(pointer_, other.pointer_); }

 private:
  T* pointer_ = nullptr;
};

template <typename T, typename U>
bool operator==(const RefPtr<T>& a, const RefPtr<U>& b) {
  return a.get() == b.get();
}
template <typename T, typename U>
bool operator!=(const RefPtr<T>& a, const RefPtr<U>& b) {
  return a.get() != b.get();
}
template <typename T, typename U>
bool operator==(const RefPtr<T>& a, const U* b) {
  return a.get() == b;
}
template <typename T, typename U>
bool operator!=(const RefPtr<T>& a, const U* b) {
  return a.get() != b;
}
template <typename T, typename U>
bool operator==(const U* a, const RefPtr<T>& b) {
  return a == b.get();
}
template <typename T, typename U>
bool operator!=(const U* a, const RefPtr<T>& b) {
  return a != b.get();
}
template <typename T>
bool operator==(const RefPtr<T>& a, std::nullptr_t) {
  return !a.get();
}
template <typename T>
bool operator!=(const RefPtr<T>& a, std::nullptr_t) {
  return a.get() != nullptr;
}
template <typename T>
bool operator<(const RefPtr<T>& a, const RefPtr<T>& b) {
  return a.get() < b.get();
}

}  // namespace orvan
