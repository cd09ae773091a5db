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

struct Alarm : Timer {
  Alarm() : Timer("test", nullptr) {}
  ~Alarm() override { Withdraw(); }
  void Fire() override {}
};

TEST(ApplicationsTest, ThingsQueueUpWithoutAnApplicationAndRunInTheNext) {
  const test::Watchdog watchdog(60, "several applications");
  std::string log;
  Alarm alarm;
  const auto post = [&log](char letter) { EventPump::Get().PostFunction([&log, letter] { log += letter; }); };
  for (int turn = 1; turn <= 3; ++turn) {
    log.clear();
    post('a');
    alarm.Start(turn == 1 ? 0 : 100, true);
    const auto application = StartApplication();
    std::thread([&] { post('b'); }).join();
    ASSERT_TRUE(PumpUntil([&] { return log == "ab" && !alarm.IsActive(); })) << turn;
    alarm.Start(100, true);  // Qt's own timer is set, and goes with this application
    test::PumpPending();
  }
}

}  // namespace
}  // namespace orvan

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
