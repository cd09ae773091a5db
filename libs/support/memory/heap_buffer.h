#pragma once

#include <QByteArray>

#include "orvan/support/export.h"
#include "orvan/support/memory/memory.h"
#include "orvan/support/memory/referent.h"

namespace orvan {

// A counted block of bytes: the body of a request or of a response.
//
// Shape:     `size()` bytes are valid, `capacity()` are allocated; size() <= capacity().
// Units:     bytes, at most 2^31 - 65 of them (what a QByteArray holds).
// Threads:   the count is atomic; the bytes belong to one thread at a time.
// Ownership: create() and CreateFromQtBuffer() return one reference, which the caller drops with unref() or
//            hands on. Bytes handed out by ToQByteArray() are shared, not copied, and stay valid when the
//            buffer goes; writing into the buffer afterwards leaves them as they are.
// Errors:    null or false if the domain refuses or the size is out of range; the contents stay.
class ORVAN_SUPPORT_EXPORT HeapBuffer : public AtomicReferent {
 public:
  // A buffer for `capacity` bytes, with size 0 and contents undefined. The last argument means nothing.
  static HeapBuffer* create(MemoryManager* manager, unsigned int capacity, int unused);
  // A buffer that holds `bytes`.
  static HeapBuffer* CreateFromQtBuffer(MemoryManager* manager, const QByteArray& bytes);

  char* data() { return bytes_.data(); }
  const char* data() const { return bytes_.constData(); }
  unsigned int size() const { return size_; }
  unsigned int capacity() const { return static_cast<unsigned int>(bytes_.size()); }
  // Says how many bytes are valid, after they were written through data(). Not above capacity().
  void SetSize(unsigned int size);

  // Appends, growing by doubling.
  bool AppendData(const void* data, int size);
  // The valid bytes. Shares the block with the buffer if it is full, copies otherwise.
  QByteArray ToQByteArray() const;
  // Gives back what is allocated behind the valid bytes, so that ToQByteArray() can share.
  void Trim();

 protected:
  ~HeapBuffer() override;

 private:
  HeapBuffer(MemoryManager* manager, const QByteArray& bytes, unsigned int size);

  MemoryManager* const manager_;  // not owned; domains outlive their buffers. Null: not accounted
  QByteArray bytes_;              // its size is the capacity
  unsigned int size_;
};

}  // namespace orvan
