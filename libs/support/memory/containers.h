#pragma once

#include <functional>
#include <list>
#include <map>
#include <type_traits>
#include <utility>
#include <vector>

#include "orvan/support/memory/memory.h"

namespace orvan {

// Standard allocator over a domain, null for the default one. All allocators compare equal, since all
// memory has one source: splicing and swapping between containers of different domains stays defined.
template <typename T>
class mmallocator {
 public:
  using value_type = T;
  using is_always_equal = std::true_type;
  using propagate_on_container_copy_assignment = std::true_type;
  using propagate_on_container_move_assignment = std::true_type;
  using propagate_on_container_swap = std::true_type;

  mmallocator(MemoryManager* manager = nullptr) noexcept : manager_(manager) {}
  template <typename U>
  mmallocator(const mmallocator<U>& other) noexcept : manager_(other.manager()) {}

  T* allocate(std::size_t n) {
    static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__,
                  "doNew() has no more than the usual alignment");
    constexpr std::size_t size = sizeof(T);  // NOLINT(bugprone-sizeof-expression): T may be a pointer
    if (n > static_cast<std::size_t>(-1) / size) throw std::bad_alloc();
    return static_cast<T*>(doNew(n * size, manager_));
  }
  void deallocate(T* memory, std::size_t) noexcept { doDelete(memory); }
  MemoryManager* manager() const noexcept { return manager_; }

 private:
  MemoryManager* manager_;
};

template <typename T, typename U>
bool operator==(const mmallocator<T>&, const mmallocator<U>&) noexcept {
  return true;
}
template <typename T, typename U>
bool operator!=(const mmallocator<T>&, const mmallocator<U>&) noexcept {
  return false;
}

// The standard containers with that allocator.
template <typename T>
using mmvector = std::vector<T, mmallocator<T>>;
template <typename T>
using mmlist = std::list<T, mmallocator<T>>;
template <typename K, typename V, typename Compare = std::less<K>>
using mmmap = std::map<K, V, Compare, mmallocator<std::pair<const K, V>>>;

}  // namespace orvan
