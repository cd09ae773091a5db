#include "orvan/support/memory/memory.h"

#include "orvan/support/thread/atomic.h"

namespace orvan {

MemoryManager::~MemoryManager() = default;

bool MemoryManager::Reserve(std::size_t bytes) { return ReserveBelow(static_cast<std::size_t>(-1), bytes); }

void MemoryManager::Release(std::size_t bytes) { in_use_.fetch_sub(bytes, std::memory_order_relaxed); }

bool MemoryManager::ReserveBelow(std::size_t ceiling, std::size_t bytes) {
  std::size_t in_use = GetBytesInUse();
  do {
    if (in_use > ceiling || bytes > ceiling - in_use) return false;
  } while (!in_use_.compare_exchange_weak(in_use, in_use + bytes, std::memory_order_relaxed));
  return true;
}

MemoryPool::MemoryPool(const QString& name, unsigned int bytes) : name_(name), initial_bytes_(bytes) {}

void MemoryPool::ref() { AtomicAdd32(&ref_count_, 1); }

void MemoryPool::unref() {
  if (AtomicAdd32(&ref_count_, -1) == 1) delete this;
}

HeapManager::HeapManager(MemoryPool* pool) : pool_(pool) {
  if (pool_) pool_->ref();  // ours; the destructor drops it
}

HeapManager::~HeapManager() {
  if (pool_) pool_->unref();
}

bool HeapManager::Reserve(std::size_t bytes) {
  const std::size_t ceiling = GetCeiling();
  return ceiling == 0 ? MemoryManager::Reserve(bytes) : ReserveBelow(ceiling, bytes);
}

// The three are never freed: buffers of worker threads may outlive the destruction of statics.
HeapManager* HeapManager::GetStaticHeap() {
  static HeapManager* const heap = new HeapManager(nullptr);
  return heap;
}

HeapManager* HeapManager::GetDynamicHeap() {
  static HeapManager* const heap = new HeapManager(nullptr);
  return heap;
}

HeapManager* HeapManager::GetTransientHeap() {
  static HeapManager* const heap = new HeapManager(nullptr);
  return heap;
}

void* doNew(std::size_t size, MemoryManager*) { return ::operator new(size); }

void doDelete(void* memory) { ::operator delete(memory); }

void* AlignBytes(int alignment, void* pointer) {
  const auto mask = static_cast<std::uintptr_t>(alignment) - 1;
  return static_cast<char*>(pointer) + (-reinterpret_cast<std::uintptr_t>(pointer) & mask);
}

void* MemoryObject::operator new(std::size_t size) { return doNew(size, nullptr); }
void* MemoryObject::operator new(std::size_t size, MemoryManager* manager) { return doNew(size, manager); }
void MemoryObject::operator delete(void* memory) { doDelete(memory); }
void MemoryObject::operator delete(void* memory, MemoryManager*) { doDelete(memory); }

}  // namespace orvan

void* operator new(std::size_t size, orvan::MemoryManager* manager) { return orvan::doNew(size, manager); }
void operator delete(void* memory, orvan::MemoryManager*) noexcept { orvan::doDelete(memory); }

void* operator new(std::size_t size, std::align_val_t alignment, orvan::MemoryManager*) {
  return ::operator new(size, alignment);
}
void operator delete(void* memory, std::align_val_t alignment, orvan::MemoryManager*) noexcept {
  ::operator delete(memory, alignment);
}
