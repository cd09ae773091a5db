// The main thread without an application object, and with several one after the other. A program of its own:
// others begin with one.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <memory>
#include <string>
#include <thread>

#include "orvan/support/job/event_pump.h"
#include "orvan/support/job/timer.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan {
namespace {

using test::PumpUntil;

std::unique_ptr<QCoreApplication> StartApplication() {
  static char name[] = "applications";
  static char* arguments[] = {name, nullptr};
  static int count = 1;
  return std::make_unique<QCoreApplication>(count, arguments);
}

class Alarm : public Timer {
 public:
  explicit Alarm(int* fired) : Timer("test", nullptr), fired_(fired) {}
  ~Alarm() override { Withdraw(); }

 private:
  void Fire() override { ++*fired_; }
  int* const fired_;
};

TEST(ApplicationsTest, ThingsQueueUpWithoutAnApplicationAndRunInTheNext) {
  const test::Watchdog watchdog(60, "several applications");
  std::string log;
  int fired = 0;
  Alarm alarm(&fired);
  const auto post = [&log](char letter) { EventPump::Get().PostFunction([&log, letter] { log += letter; }); };
  post('a');
  alarm.Start(0, true);
  EXPECT_EQ(log, "");
  for (int turn = 1; turn <= 3; ++turn) {
    const auto application = StartApplication();
    std::thread([&] { post('b'); }).join();
    ASSERT_TRUE(PumpUntil([&] { return log == "ab" && fired == turn; })) << turn;
    // Left behind for the next application, by this one that does not run its loop any more.
    log.clear();
    post('a');
    alarm.Start(1, true);
  }
  std::thread([&] { post('c'); }).join();
  EXPECT_EQ(log, "");
  EXPECT_EQ(EventPump::Get().GetQueueLength(), 2);
  EXPECT_TRUE(alarm.IsActive());
  EventPump::Get().DrainForTest();
  EXPECT_EQ(log, "ac");
}

TEST(ApplicationsTest, AnArmedIntervalOutlivesTheApplicationThatItWasArmedUnder) {
  int fired = 0;
  Alarm alarm(&fired);
  {
    const auto application = StartApplication();
    bool ran = false;
    alarm.Start(3600000, true);
    EventPump::Get().PostFunction([&ran] { ran = true; });
    ASSERT_TRUE(PumpUntil([&] { return ran; }));
  }
  alarm.Start(30, true);
  const auto application = StartApplication();
  EXPECT_TRUE(PumpUntil([&] { return fired == 1; }));
}

}  // namespace
}  // namespace orvan

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
