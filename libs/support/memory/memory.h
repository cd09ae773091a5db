#pragma once

#include <QString>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>

#include "orvan/support/export.h"

namespace orvan {

// An allocation domain: memory always comes from the one global heap, the domain accounts for the large
// blocks in it and may refuse them. Handed around as a plain pointer, null meaning the default domain. A
// domain outlives the buffers that were made in it; the three that HeapManager hands out live as long as
// the process.
//
// Units:   bytes.
// Threads: any.
class ORVAN_SUPPORT_EXPORT MemoryManager {
 public:
  MemoryManager() = default;
  MemoryManager(const MemoryManager&) = delete;
  MemoryManager& operator=(const MemoryManager&) = delete;
  virtual ~MemoryManager();

  // Asks for `bytes` before they are allocated. False refuses, and then nothing is accounted. Buffers
  // (HeapBuffer) ask; objects and containers do not, because they die by plain `delete`, which knows
  // neither their size nor their domain.
  virtual bool Reserve(std::size_t bytes);
  // Gives back what a successful Reserve() took.
  virtual void Release(std::size_t bytes);

  // Bytes reserved at the moment.
  std::size_t GetBytesInUse() const { return in_use_.load(std::memory_order_relaxed); }

 protected:
  // Reserve() for domains with a limit: refuses what would lift the bytes in use above `ceiling`.
  bool ReserveBelow(std::size_t ceiling, std::size_t bytes);

 private:
  std::atomic<std::size_t> in_use_{0};  // a statistic, orders nothing
};

// A named pool that a HeapManager draws from. Counted; starts with one reference, that of its maker. The
// count is not atomic: a pool belongs to one thread until its HeapManager has it.
class ORVAN_SUPPORT_EXPORT MemoryPool {
 public:
  MemoryPool(const QString& name, unsigned int bytes);
  void ref();
  void unref();
  const QString& name() const { return name_; }
  // What the pool starts with. It grows beyond that unless a ceiling says otherwise.
  unsigned int initial_bytes() const { return initial_bytes_; }

 private:
  ~MemoryPool() = default;
  const QString name_;
  const unsigned int initial_bytes_;
  int ref_count_ = 1;
};

// The usual domain. Never refuses unless it was given a ceiling.
class ORVAN_SUPPORT_EXPORT HeapManager : public MemoryManager {
 public:
  // Over `pool`, of which it takes a reference; null for the default heap.
  explicit HeapManager(MemoryPool* pool);
  ~HeapManager() override;

  bool Reserve(std::size_t bytes) override;

  // From now on, Reserve() refuses what would lift the bytes in use above `bytes`. 0 lifts the ceiling.
  void SetCeiling(std::size_t bytes) { ceiling_.store(bytes, std::memory_order_relaxed); }
  std::size_t GetCeiling() const { return ceiling_.load(std::memory_order_relaxed); }

  // The domains for objects that live as long as the process, for a middling time, and for a short one.
  static HeapManager* GetStaticHeap();
  static HeapManager* GetDynamicHeap();
  static HeapManager* GetTransientHeap();

 private:
  MemoryPool* const pool_;
  std::atomic<std::size_t> ceiling_{0};  // relaxed: a change takes effect at some next Reserve()
};

// Raw memory for an object of `manager`, not accounted (see Reserve()). Never null: a machine without memory
// ends in std::bad_alloc. Aligned like the memory of any plain `new`.
ORVAN_SUPPORT_EXPORT void* doNew(std::size_t size, MemoryManager* manager);
// Frees memory from doNew(), and from any operator new: all of them share one heap. Not for null.
ORVAN_SUPPORT_EXPORT void doDelete(void* memory);

// `pointer` moved up to the next multiple of `alignment`, a power of two.
ORVAN_SUPPORT_EXPORT void* AlignBytes(int alignment, void* pointer);

// Class-level allocation for objects that are tied to a domain.
class ORVAN_SUPPORT_EXPORT MemoryObject {
 public:
  static void* operator new(std::size_t size);
  static void* operator new(std::size_t size, MemoryManager* manager);
  static void* operator new(std::size_t, void* place) noexcept { return place; }
  static void operator delete(void* memory);
  static void operator delete(void* memory, MemoryManager*);
  static void operator delete(void*, void*) noexcept {}
};

}  // namespace orvan

// `new (manager) T(...)`: an object of that domain. It dies by plain `delete`, hence the memory comes from
// the global heap. The operators delete serve constructors that throw, and the aligned pair serves types
// with more than the usual alignment, whose plain `delete` is the aligned one.
//
// The type of `manager` must be complete here: a pointer to a class that is only declared silently selects
// the standard `new (void* place)`, which builds the object on top of its manager.
ORVAN_SUPPORT_EXPORT void* operator new(std::size_t size, orvan::MemoryManager* manager);
ORVAN_SUPPORT_EXPORT void operator delete(void* memory, orvan::MemoryManager* manager) noexcept;
ORVAN_SUPPORT_EXPORT void* operator new(std::size_t size, std::align_val_t alignment,
                                        orvan::MemoryManager* manager);
ORVAN_SUPPORT_EXPORT void operator delete(void* memory, std::align_val_t alignment,
                                          orvan::MemoryManager* manager) noexcept;
