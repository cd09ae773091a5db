#include "orvan/net/identity/prompt_bridge.h"

#include <gtest/gtest.h>

#include <QEventLoop>
#include <QTimer>
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
    EXPECT_TRUE(PumpUntil([this] { return done_.IsOpen(); }));
    return text_;
  }

 private:
  QString text_ = "declined";
  Gate begun_, done_;
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
  Asking open(bridge, "c");
  ASSERT_TRUE(PumpUntil([&] { return prompts.size() == 3; }));
  bridge.Close();
  EXPECT_EQ(open.Wait(), "declined");
  EXPECT_EQ(Asking(bridge, "d").Wait(), "declined");
  EXPECT_EQ(prompts, (QStringList{"a", "b", "c"}));
}

TEST(PromptBridgeTest, TriesInARowAreLimitedAndRefusalsRemembered) {
  test::ManualClock clock;
  int shown = 0;
  PromptBridge::Answer answer{true, "u", "p", false};
  const auto ask = [&](const QString&, const PromptBridge::Reply& reply) {
    ++shown;
    reply(answer);
  };
  PromptBridge bridge(ask, 2, 30.0);
  const struct {
    const char* says;
    double later;
    bool given;  // by the user, if asked
    int shown;
    QString result;
  } kRows[] = {
      {"the first", 0, true, 1, "u p"},
      {"the second in a row", 59, true, 2, "u p"},
      {"one too many", 59, true, 2, "declined"},
      {"which is remembered", 29, true, 2, "declined"},
      {"for a while", 2, true, 3, "u p"},
      {"a row is over after a minute", 61, true, 4, "u p"},
      {"and has begun anew", 1, true, 5, "u p"},
      {"up to the limit", 1, true, 5, "declined"},
      {"the user declines", 31, false, 6, "declined"},
      {"and is left alone", 29, true, 6, "declined"},
  };
  for (const auto& row : kRows) {
    clock.Advance(row.later);
    answer.given = row.given;
    EXPECT_EQ(Asking(bridge, "a").Wait(), row.result) << row.says;
    EXPECT_EQ(shown, row.shown) << row.says;
  }
  EXPECT_EQ(Asking(bridge, "b").Wait(), "u p") << "another question has a row of its own";
}

TEST(PromptBridgeTest, MayGoWhileAWorkerAsksAndFromWithinItsPrompt) {
  for (int round = 0; round < 200; ++round) {
    std::vector<PromptBridge::Reply> replies;
    std::unique_ptr<PromptBridge> bridge;
    const auto ask = [&](const QString&, const PromptBridge::Reply& reply) {
      if (round % 2 == 0) bridge.reset();
      replies = {reply};
    };
    bridge = std::make_unique<PromptBridge>(ask);
    HttpConnectionFactory::SetUsernamePasswordQueryHandler(bridge.get());
    Asking asking(*bridge, "a");
    ASSERT_TRUE(PumpUntil([&] { return !replies.empty(); }));
    bridge.reset();
    EXPECT_EQ(asking.Wait(), "declined");
    EXPECT_EQ(HttpConnectionFactory::GetUsernamePasswordQueryHandler(), nullptr);
  }
}

// As a dialog does: another question comes up inside, and is shown once the first is answered.
TEST(PromptBridgeTest, APromptMayRunAnEventLoopOfItsOwn) {
  int depth = 0;
  PromptBridge bridge([&](const QString& prompt, const PromptBridge::Reply& reply) {
    EXPECT_EQ(depth++, 0) << prompt.toStdString();
    QEventLoop loop;
    QTimer::singleShot(20, &loop, &QEventLoop::quit);
    loop.exec();
    --depth;
    reply({true, prompt, "p", false});
  });
  Asking a(bridge, "a"), b(bridge, "b");
  EXPECT_EQ(a.Wait(), "a p");
  EXPECT_EQ(b.Wait(), "b p");
  // The main thread itself cannot wait: what is not answered within the call is declined.
  QString name, password;
  bool save = false;
  EXPECT_TRUE(bridge.QueryUsernameAndPassword("c", name, password, &save));
  EXPECT_EQ(name, "c");
}

}  // namespace
}  // namespace orvan::net
