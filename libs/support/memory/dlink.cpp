#include "orvan/support/memory/dlink.h"

namespace orvan {

DLink::~DLink() { Unlink(); }

void DLink::LinkFront(DLinkList* list) {
  Unlink();
  owner_ = list;
  next_ = list->first;
  if (next_) next_->previous_ = this;
  list->first = this;
  ++list->count;
}

void DLink::Unlink() {
  if (!owner_) return;
  (previous_ ? previous_->next_ : owner_->first) = next_;
  if (next_) next_->previous_ = previous_;
  --owner_->count;
  next_ = previous_ = nullptr;
  owner_ = nullptr;
}

}  // namespace orvan
