// The stand-in for systemd's watchdog, driven with small shell programs that notify through
// systemd-notify: a program that pings is left alone, one that stops pinging after READY is
// killed with SIGABRT and started again, one that never became ready is not watched yet, and
// the program sees the interval in WATCHDOG_USEC.

#include "xpon/test/watchdog_supervisor.hpp"
#include "xpon/test/temp_dir.hpp"

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <thread>

namespace xpon::test {
namespace {

using namespace std::chrono_literals;

class WatchdogSupervisorTest : public testing::Test {
 protected:
  SupervisedProgram shell(const std::string& script) const {
    return SupervisedProgram{{"/bin/sh", "-c", script}, {}, dir.file("out"), dir.file("err")};
  }

  TempDir dir{"xpon-wd"};
};

TEST_F(WatchdogSupervisorTest, AProgramThatKeepsPingingIsLeftAlone) {
  WatchdogSupervisor supervisor(
      dir.file("notify.sock"), shell("systemd-notify --ready; while :; do systemd-notify WATCHDOG=1; sleep 0.05; done"),
      500ms);
  supervisor.start();
  ASSERT_TRUE(supervisor.wait_for_notification("READY=1", 1, 5s)) << supervisor.errors(1);
  ASSERT_TRUE(supervisor.wait_for_notification("WATCHDOG=1", 10, 5s)) << supervisor.errors(1);
  EXPECT_TRUE(supervisor.kills().empty());
  EXPECT_EQ(supervisor.starts(), 1U);
  const auto end = supervisor.stop(SIGTERM, 5s);
  ASSERT_TRUE(end.has_value());
  EXPECT_TRUE(end->signaled);
  EXPECT_EQ(end->value, SIGTERM);
  EXPECT_TRUE(supervisor.unexpected_ends().empty());
}

TEST_F(WatchdogSupervisorTest, AProgramThatStopsPingingIsAbortedAndStartedAgain) {
  WatchdogSupervisor supervisor(dir.file("notify.sock"), shell("systemd-notify --ready; exec sleep 100"), 200ms);
  supervisor.start();
  ASSERT_TRUE(supervisor.wait_for_notification("READY=1", 2, 10s)) << supervisor.errors(1);
  const auto kills = supervisor.kills();
  ASSERT_FALSE(kills.empty());
  EXPECT_EQ(kills[0].start, 1U);
  EXPECT_GT(kills[0].killed_at - kills[0].last_ping, 200ms);
  ASSERT_TRUE(kills[0].end.has_value());
  EXPECT_TRUE(kills[0].end->signaled);
  EXPECT_EQ(kills[0].end->value, SIGABRT);
  EXPECT_GE(supervisor.starts(), 2U);
  EXPECT_TRUE(supervisor.unexpected_ends().empty());
}

TEST_F(WatchdogSupervisorTest, ThePingsAreOnlyAwaitedOnceTheProgramIsReady) {
  WatchdogSupervisor supervisor(dir.file("notify.sock"), shell("exec sleep 100"), 50ms);
  supervisor.start();
  std::this_thread::sleep_for(500ms);
  EXPECT_TRUE(supervisor.kills().empty());
  EXPECT_EQ(supervisor.starts(), 1U);
}

TEST_F(WatchdogSupervisorTest, TheProgramSeesTheIntervalAndTheSocketAndNoPid) {
  WatchdogSupervisor supervisor(
      dir.file("notify.sock"),
      shell("echo \"$WATCHDOG_USEC $NOTIFY_SOCKET ${WATCHDOG_PID-none}\"; systemd-notify --ready; exec sleep 100"),
      1500ms);
  supervisor.start();
  ASSERT_TRUE(supervisor.wait_for_notification("READY=1", 1, 5s)) << supervisor.errors(1);
  EXPECT_EQ(read_text_file(dir.file("out.1")), "1500000 " + dir.file("notify.sock") + " none\n");
}

TEST_F(WatchdogSupervisorTest, AProgramThatEndsByItselfIsRecordedAndNotStartedAgain) {
  WatchdogSupervisor supervisor(dir.file("notify.sock"), shell("systemd-notify --ready; exit 3"), 1s);
  supervisor.start();
  ASSERT_TRUE(wait_until([&] { return !supervisor.unexpected_ends().empty(); }, 5s));
  EXPECT_TRUE(supervisor.unexpected_ends()[0].exited_with(3));
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(supervisor.starts(), 1U);
  EXPECT_TRUE(supervisor.kills().empty());
}

}  // namespace
}  // namespace xpon::test
