#pragma once

#include "orvan/support/export.h"

namespace orvan {

class DLink;

// Head of an intrusive list: how many nodes name it as their owner.
struct DLinkList {
  DLink* first = nullptr;
  int count = 0;
};

// A node of an intrusive double-linked list. Unlinked when made; the destructor takes it out of its list.
//
// Threads: a list and its nodes belong to one thread at a time.
class ORVAN_SUPPORT_EXPORT DLink {
 public:
  DLink() = default;
  DLink(const DLink&) = delete;
  DLink& operator=(const DLink&) = delete;
  virtual ~DLink();

  void LinkFront(DLinkList* list);
  void Unlink();
  bool IsLinked() const { return owner_ != nullptr; }
  DLink* next() const { return next_; }

 private:
  DLink* next_ = nullptr;
  DLink* previous_ = nullptr;
  DLinkList* owner_ = nullptr;
};

}  // namespace orvan
