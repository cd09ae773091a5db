#include "orvan/net/identity/prompt_bridge.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

#include "orvan/net/http/http_connection_factory.h"
#include "tests/support/manual_clock.h"
#include "tests/support/wait.h"

namespace orvan::net {
namespace {

using test::Gate;
using test::PumpUntil;

// A worker that asks once.
class Asking {
 public:
  Asking(PromptBridge& bridge, const QString& prompt)
      : thread_([this, &bridge, prompt] {
          QString name, password;
          bool save = false;
          begun_.Open();
          if (bridge.QueryUsernameAndPassword(prompt, name, password, &save)) text_ = name + " " + password;
          done_.Open();
        }) {
    EXPECT_TRUE(begun_.Wait());
  }
  ~Asking() { thread_.join(); }
  QString Wait() {
    return PumpUntil([this] { return done_.IsOpen(); }) ? text_ : "nothing";
  }

 private:
  QString text_ = "declined";
  const Gate begun_, done_;
  std::thread thread_;
};

TEST(PromptBridgeTest, ShowsOneQuestionAtATimeAndTheSameOneOnce) {
  QStringList prompts;
  std::vector<PromptBridge::Reply> replies;
  PromptBridge bridge([&](const QString& prompt, const PromptBridge::Reply& reply) {
    prompts += prompt;
    replies.push_back(reply);
  });
  Asking first(bridge, "a");
  ASSERT_TRUE(PumpUntil([&] { return prompts.size() == 1; }));
  Asking same(bridge, "a"), other(bridge, "b");
  test::PumpFor(200);
  EXPECT_EQ(prompts, QStringList{"a"});
  std::thread([reply = replies[0]] { reply({true, "u", "p", true}); }).join();  // on any thread
  replies[0]({true, "too", "late", false});
  EXPECT_EQ(first.Wait(), "u p");
  EXPECT_EQ(same.Wait(), "u p");
  ASSERT_TRUE(PumpUntil([&] { return prompts.size() == 2; }));
  replies.clear();  // whoever drops a question has declined it
  EXPECT_EQ(other.Wait(), "declined");
  bridge.Close();
  EXPECT_EQ(Asking(bridge, "c").Wait(), "declined");
  EXPECT_EQ(prompts, (QStringList{"a", "b"}));
}

TEST(PromptBridgeTest, TriesInARowAreLimitedAndRefusalsRemembered) {
  test::ManualClock clock;
  int shown = 0;
  bool given = true;
  const auto ask = [&](const QString&, const PromptBridge::Reply& reply) {
    ++shown;
    reply({given, "u", "p", false});
  };
  PromptBridge bridge(ask, 2, 30.0);
  const auto expect = [&](const char* says, double later, int shown_by_then) {
    clock.Advance(later);
    const int before = shown;
    const QString result = Asking(bridge, "a").Wait();
    EXPECT_EQ(result, shown > before && given ? "u p" : "declined") << says;
    EXPECT_EQ(shown, shown_by_then) << says;
  };
  expect("the first", 0, 1);
  expect("the second in a row", 59, 2);
  expect("one too many", 59, 2);
  expect("which is remembered for a while", 29, 2);
  expect("a row is over after a minute", 61, 3);
  given = false;
  expect("the user declines", 1, 4);
  given = true;
  expect("and is left alone", 29, 4);
  EXPECT_EQ(Asking(bridge, "b").Wait(), "u p") << "another question has a row of its own";
}

TEST(PromptBridgeTest, MayGoWhileAWorkerAsksAndFromWithinItsPrompt) {
  for (int round = 0; round < 200; ++round) {
    PromptBridge::Reply kept;
    std::unique_ptr<PromptBridge> bridge;
    bridge = std::make_unique<PromptBridge>([&](const QString&, const PromptBridge::Reply& reply) {
      kept = reply;
      if (round % 2 == 0) bridge.reset();
    });
    HttpConnectionFactory::SetUsernamePasswordQueryHandler(bridge.get());
    Asking asking(*bridge, "a");
    ASSERT_TRUE(PumpUntil([&] { return kept != nullptr; }));
    bridge.reset();
    EXPECT_EQ(asking.Wait(), "declined");
    EXPECT_EQ(HttpConnectionFactory::GetUsernamePasswordQueryHandler(), nullptr);
  }
}

// As a dialog does. The second question comes up meanwhile, and is shown once the first is answered.
TEST(PromptBridgeTest, APromptMayRunAnEventLoopOfItsOwn) {
  int depth = 0;
  PromptBridge bridge([&](const QString& prompt, const PromptBridge::Reply& reply) {
    EXPECT_EQ(depth++, 0) << prompt.toStdString();
    test::PumpFor(20);
    --depth;
    reply({true, prompt, "p", false});
  });
  Asking a(bridge, "a"), b(bridge, "b");
  EXPECT_EQ(a.Wait(), "a p");
  EXPECT_EQ(b.Wait(), "b p");
}

}  // namespace
}  // namespace orvan::net
