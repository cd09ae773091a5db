#pragma once

#include <QByteArray>

#include "orvan/support/export.h"
#include "orvan/support/memory/memory.h"
#include "orvan/support/memory/referent.h"

namespace orvan {

// A counted block of bytes: the body of a request or of a response.
//
// Shape:     `size()` bytes are valid, `capacity()` are allocated and accounted in the domain;
//            size() <= capacity().
// Units:     bytes, at most kMaxBytes of them.
// Threads:   the count is atomic; the bytes belong to one thread at a time.
// Ownership: create() and CreateFromQtBuffer() return one reference, which the caller drops with unref() or
//            hands on. Bytes that came in as a QByteArray or are handed out by ToQByteArray() are shared, not
//            copied: they stay valid when the buffer goes, and writing on either side copies them first.
//            What is handed out is no longer accounted once the buffer has gone.
// Errors:    null or false if the domain refuses, if the machine has no memory, or if the size is out of
//            range; the contents stay as they were, and nothing stays reserved.
class ORVAN_SUPPORT_EXPORT HeapBuffer : public AtomicReferent {
 public:
  // Somewhat less than the most that a QByteArray holds.
  static constexpr unsigned int kMaxBytes = 0x7FFFFFBF;

  // A buffer for `capacity` bytes, with size 0 and contents undefined. The last argument means nothing.
  static HeapBuffer* create(MemoryManager* manager, unsigned int capacity, int unused);
  // A buffer that holds `bytes`.
  static HeapBuffer* CreateFromQtBuffer(MemoryManager* manager, const QByteArray& bytes);

  // For writing: copies the bytes first if a QByteArray shares them.
  char* data() { return bytes_.data(); }
  const char* data() const { return bytes_.constData(); }
  unsigned int size() const { return size_; }
  unsigned int capacity() const { return static_cast<unsigned int>(bytes_.size()); }
  // Null if the bytes are not accounted.
  MemoryManager* manager() const { return manager_; }
  // Says how many bytes are valid, after they were written through data(). Not above capacity().
  void SetSize(unsigned int size);

  // Appends, growing by doubling, or by as much of that as the domain grants. `data` may lie inside this
  // buffer. False for a negative size.
  bool AppendData(const void* data, int size);
  // The valid bytes; empty, never null, if there are none. Shares the block if it is full, copies otherwise.
  QByteArray ToQByteArray() const;
  // Gives back what is allocated behind the valid bytes, so that ToQByteArray() can share.
  void Trim();

 protected:
  ~HeapBuffer() override;

 private:
  HeapBuffer(MemoryManager* manager, QByteArray bytes, unsigned int size);
  static bool Reserve(MemoryManager* manager, unsigned int bytes);
  static void Release(MemoryManager* manager, unsigned int bytes);
  bool Grow(unsigned int capacity);

  MemoryManager* const manager_;  // not owned; domains outlive their buffers. Null: not accounted
  QByteArray bytes_;              // its size is the capacity
  unsigned int size_;
};

}  // namespace orvan
