#include "orvan/support/memory/referent.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <atomic>
#include <thread>

#include "orvan/support/memory/dlink.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan {
namespace {

using test::kWaitMs;

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
    entered.Post();
    EXPECT_TRUE(leave.wait_for(kWaitMs));
    delete this;
  }
  static Semaphore entered, leave;
};
Semaphore Held::entered(0), Held::leave(0);

TEST(WeakAtomicReferentTest, ADyingObjectIsNeverRevived) {
  test::Watchdog watchdog(60, "weak revival");
  const auto* object = new Held;
  object->ref();
  const RefPtr<PtrProxy> proxy = object->get_proxy();
  std::thread dropper([object] { object->unref(); });
  ASSERT_TRUE(Held::entered.wait_for(kWaitMs));
  EXPECT_EQ(proxy->try_ptr_ref(), nullptr);
  Held::leave.Post();
  dropper.join();
  EXPECT_EQ(proxy->try_ptr_ref(), nullptr);
}

// The last reference is dropped while another thread keeps asking the proxy for one: whoever comes first, the
// object ends exactly once, and never under somebody who was given a reference.
struct Counted : WeakAtomicReferent {
  void orphaned() const override { ends.fetch_add(1); }  // kept, so that a second end can be counted
  mutable std::atomic<int> ends{0};
};

TEST(WeakAtomicReferentTest, TheLastStepAndTheProxyExcludeEachOther) {
  test::Watchdog watchdog(60, "weak revival race");
  QElapsedTimer elapsed;  // a loaded machine gets through fewer rounds
  elapsed.start();
  for (int round = 0; round < 1000 && !elapsed.hasExpired(1500); ++round) {
    Counted object;
    object.ref();
    const RefPtr<PtrProxy> proxy = object.get_proxy();
    std::atomic<bool> asked{false};
    std::thread asker([&] {
      while (const auto* given = static_cast<const Counted*>(proxy->try_ptr_ref())) {
        EXPECT_EQ(given->ends.load(), 0) << "a reference to an object that has ended";
        given->unref();
        asked = true;
      }
    });
    while (!asked) std::this_thread::yield();  // from here on the asker is in its loop
    object.unref();
    asker.join();
    EXPECT_EQ(object.ends.load(), 1);
  }
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
