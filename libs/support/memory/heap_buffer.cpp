#include "orvan/support/memory/heap_buffer.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

namespace orvan {

HeapBuffer* HeapBuffer::create(MemoryManager* manager, unsigned int capacity, int) {
  if (capacity > kMaxBytes || !Reserve(manager, capacity)) return nullptr;
  HeapBuffer* buffer = nullptr;
  try {
    buffer = new HeapBuffer(manager, QByteArray(static_cast<int>(capacity), Qt::Uninitialized), 0);
  } catch (const std::bad_alloc&) {  // `capacity` may be what a server announced
    Release(manager, capacity);
    return nullptr;
  }
  buffer->ref();  // the caller's
  return buffer;
}

HeapBuffer* HeapBuffer::CreateFromQtBuffer(MemoryManager* manager, const QByteArray& bytes) {
  const auto size = static_cast<unsigned int>(bytes.size());
  if (size > kMaxBytes || !Reserve(manager, size)) return nullptr;
  // Without a capacity of its own the array looks at memory of somebody else (fromRawData()), which may go
  // while the buffer is alive.
  const bool borrowed = bytes.capacity() == 0;
  HeapBuffer* buffer = nullptr;
  try {
    buffer = new HeapBuffer(manager, borrowed ? QByteArray(bytes.constData(), bytes.size()) : bytes, size);
  } catch (const std::bad_alloc&) {
    Release(manager, size);
    return nullptr;
  }
  buffer->ref();  // the caller's
  return buffer;
}

HeapBuffer::HeapBuffer(MemoryManager* manager, QByteArray bytes, unsigned int size)
    : manager_(manager), bytes_(std::move(bytes)), size_(size) {}

HeapBuffer::~HeapBuffer() { Release(manager_, capacity()); }

void HeapBuffer::SetSize(unsigned int size) {
  Q_ASSERT(size <= capacity());
  size_ = std::min(size, capacity());
}

bool HeapBuffer::AppendData(const void* data, int size) {
  if (size < 0) return false;
  if (size == 0) return true;
  const auto added = static_cast<unsigned int>(size);
  if (added > kMaxBytes - size_) return false;
  const unsigned int needed = size_ + added;
  // Bytes of this buffer itself move when it grows.
  const auto offset =
      reinterpret_cast<std::uintptr_t>(data) - reinterpret_cast<std::uintptr_t>(bytes_.constData());
  const bool own = offset < size_;
  if (needed > capacity()) {
    const unsigned int doubled = capacity() > kMaxBytes / 2 ? kMaxBytes : 2 * capacity();
    // Near a ceiling half of what is refused is asked for next: with just what is needed, every piece that
    // follows would move the block once more.
    unsigned int spare = std::max(needed, doubled) - needed;
    while (!Grow(needed + spare)) {
      if (spare == 0) return false;
      spare /= 2;
    }
  }
  char* const block = bytes_.data();
  std::memmove(block + size_, own ? block + offset : data, added);
  size_ = needed;
  return true;
}

QByteArray HeapBuffer::ToQByteArray() const {
  if (size_ == 0) return QByteArray("");
  if (size_ == capacity()) return bytes_;
  return QByteArray(bytes_.constData(), static_cast<int>(size_));
}

void HeapBuffer::Trim() {
  const unsigned int spare = capacity() - size_;
  if (spare == 0) return;
  bytes_.resize(static_cast<int>(size_));
  bytes_.squeeze();
  Release(manager_, spare);
}

bool HeapBuffer::Reserve(MemoryManager* manager, unsigned int bytes) {
  return !manager || manager->Reserve(bytes);
}

void HeapBuffer::Release(MemoryManager* manager, unsigned int bytes) {
  if (manager) manager->Release(bytes);
}

// Precondition: `wanted` is above capacity() and at most kMaxBytes.
bool HeapBuffer::Grow(unsigned int wanted) {
  const unsigned int more = wanted - capacity();
  if (!Reserve(manager_, more)) return false;
  try {
    bytes_.reserve(static_cast<int>(wanted));  // exactly; resize() alone would add room of its own
  } catch (const std::bad_alloc&) {
    Release(manager_, more);
    return false;
  }
  bytes_.resize(static_cast<int>(wanted));
  return true;
}

}  // namespace orvan
