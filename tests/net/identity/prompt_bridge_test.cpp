#include "orvan/net/identity/prompt_bridge.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

#include "tests/support/wait.h"

namespace orvan::net {
namespace {

using test::Gate;
using test::PumpUntil;

QString AskOnce(PromptBridge& bridge, const QString& prompt) {
  QString name, password;
  bool save = false;
  return bridge.QueryUsernameAndPassword(prompt, name, password, &save) ? name + " " + password : "declined";
}

// Does something on a thread of its own, and lets this one run its event loop until that is done.
struct Worker {
  explicit Worker(std::function<void()> body)
      : thread([open = done, body = std::move(body)] {
          body();
          open.Open();
        }) {}
  ~Worker() {
    EXPECT_TRUE(PumpUntil([this] { return done.IsOpen(); }));
    thread.join();
  }
  const Gate done;
  std::thread thread;
};

TEST(PromptBridgeTest, ShowsOneQuestionAtATimeAndTheSameOneOnce) {
  QStringList prompts;
  std::vector<PromptBridge::Reply> replies;
  int depth = 0;
  PromptBridge bridge([&](const QString& prompt, const PromptBridge::Reply& reply) {
    prompts += prompt;
    replies.push_back(reply);
    EXPECT_EQ(depth++, 0);
    test::PumpFor(20);  // as a dialog does
    --depth;
  });
  const auto expect = [&bridge](const char* prompt, const char* result) {
    return std::make_unique<Worker>([=, &bridge] { EXPECT_EQ(AskOnce(bridge, prompt), result); });
  };
  auto first = expect("a", "u p");
  ASSERT_TRUE(PumpUntil([&] { return prompts.size() == 1; }));
  auto same = expect("a", "u p"), other = expect("b", "declined");
  test::PumpFor(200);
  EXPECT_EQ(prompts, QStringList{"a"});
  std::thread([reply = replies[0]] { reply({true, "u", "p", true}); }).join();  // on any thread
  replies[0]({true, "too", "late", false});
  first.reset(), same.reset();
  ASSERT_TRUE(PumpUntil([&] { return prompts.size() == 2; }));
  replies.clear();  // whoever drops a question has declined it
  other.reset();
  bridge.Close();
  EXPECT_EQ(AskOnce(bridge, "c"), "declined");
  EXPECT_EQ(prompts, (QStringList{"a", "b"}));
}

TEST(PromptBridgeTest, TriesInARowAreLimitedAndRefusalsRemembered) {
  std::atomic<double> now{1.0};
  std::atomic<int> shown{0};
  std::atomic<bool> given{true};
  const auto ask = [&](const QString&, const PromptBridge::Reply& reply) {
    ++shown;
    reply({given, "u", "p", false});
  };
  PromptBridge bridge(ask, 2, 30.0, [&] { return now.load(); });
  const auto expect = [&](const char* says, double later, bool is_shown, const QString& prompt = "a") {
    now = now + later;
    const int before = shown;
    EXPECT_EQ(AskOnce(bridge, prompt), is_shown && given ? "u p" : "declined") << says;
    EXPECT_EQ(shown - before, is_shown ? 1 : 0) << says;
  };
  Worker([&] {
    expect("the first", 0, true);
    expect("the second in a row", 59, true);
    Worker([&] { expect("another's answer may have been right", 0, true); });
    expect("one too many", 59, false);
    Worker([&] { expect("which is remembered for everybody", 29, false); });
    expect("another question has a row of its own", 0, true, "b");
    expect("for a while", 2, true);
    expect("in a row", 59, true);
    expect("a row is over after a minute", 61, true);
    given = false;
    expect("the user declines", 1, true);
    given = true;
    expect("and is left alone", 29, false);
  });
}

}  // namespace
}  // namespace orvan::net
