#include "orvan/support/memory/referent.h"

#include <gtest/gtest.h>

#include <thread>

#include "orvan/support/memory/dlink.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan {
namespace {

struct Node : Referent {
  explicit Node(RefPtr<Node>* watched) : watched_(watched) {}
  ~Node() override { seen_ = watched_ ? watched_->get() : nullptr; }
  RefPtr<Node>* watched_;
  inline static const Node* seen_ = nullptr;
};

TEST(RefPtrTest, AssignmentStoresLast) {
  RefPtr<Node> pointer;
  Node* const old = new Node(&pointer);
  pointer = old;
  pointer = new Node(nullptr);
  EXPECT_EQ(Node::seen_, old) << "the dying object has to find the old pointer";
  EXPECT_EQ(pointer->getRefCount(), 1);
  pointer = pointer.get();  // an unchanged pointer must not touch the only reference
  EXPECT_EQ(pointer->getRefCount(), 1);
}

// Stands still inside orphaned(), where the count is 0 and the object not yet gone.
struct Held : WeakAtomicReferent {
  void orphaned() const override {
    entered.Open();
    EXPECT_TRUE(leave.Wait());
    delete this;
  }
  const test::Gate entered, leave;
};

TEST(WeakAtomicReferentTest, ADyingObjectIsNeverRevived) {
  test::Watchdog watchdog(60, "weak revival");
  const auto* object = new Held;
  const test::Gate entered = object->entered, leave = object->leave;
  object->ref();
  const RefPtr<PtrProxy> proxy = object->get_proxy();
  std::thread dropper([object] { object->unref(); });
  ASSERT_TRUE(entered.Wait());
  EXPECT_EQ(proxy->try_ptr_ref(), nullptr);
  leave.Open();
  dropper.join();
}

TEST(DLinkTest, ADestroyedNodeLeavesItsList) {
  DLinkList list;
  DLink last;
  last.LinkFront(&list);
  {
    DLink middle, first;
    middle.LinkFront(&list);
    first.LinkFront(&list);
    EXPECT_EQ(list.count, 3);
  }
  EXPECT_EQ(list.first, &last);
  EXPECT_EQ(list.count, 1);
  EXPECT_EQ(last.next(), nullptr);
}

}  // namespace
}  // namespace orvan
