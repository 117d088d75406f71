// The daemon's watchdog: the decision of one tick as a table of cases, then the thread with a
// clock and a notifier of the test's own: pings while the daemon makes progress, the blocked
// step named once at level 4 and the pings stopped, pings again in the next phase, the line on
// standard error without a logger, and the thread's end.

#include "xpon/system_mgr/watchdog.hpp"

#include "xpon/test/recording_logger.hpp"
#include "xpon/test/wait.hpp"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

namespace xpon::system_mgr {
namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kBound = 5000ms;
const WatchdogClock::time_point kStart{100s};

const std::string kStopLine =
    "Stop blocked for more than 5000 ms: waiting for the polling thread of SfpMonitoring; watchdog pings stopped";

struct DecisionCase {
  const char* name;
  WatchdogState state;
  std::chrono::milliseconds elapsed;
  WatchdogVerdict verdict;
};

void PrintTo(const DecisionCase& decision, std::ostream* out) {
  *out << decision.name;
}

WatchdogState state(DaemonPhase phase, FunctionWait waiting = FunctionWait::Nothing,
                    std::string_view function_name = {}, bool reported = false) {
  return WatchdogState{phase, kStart, waiting, function_name, reported};
}

class WatchdogDecisionTest : public testing::TestWithParam<DecisionCase> {};

TEST_P(WatchdogDecisionTest, DecidesPingAndLine) {
  const DecisionCase& decision = GetParam();
  EXPECT_EQ(decide_watchdog(decision.state, kStart + decision.elapsed, kBound), decision.verdict);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, WatchdogDecisionTest,
    testing::Values(DecisionCase{"RunningPingsAtOnce", state(DaemonPhase::Running), 0ms, {true, ""}},
                    DecisionCase{"RunningPingsHoweverLongItRuns", state(DaemonPhase::Running), 100h, {true, ""}},
                    DecisionCase{"StartingWithinTheBoundPings", state(DaemonPhase::Starting), 4999ms, {true, ""}},
                    DecisionCase{"StartingAtTheBoundStillPings", state(DaemonPhase::Starting), 5000ms, {true, ""}},
                    DecisionCase{"StartingPastTheBoundStopsAndSaysSo",
                                 state(DaemonPhase::Starting),
                                 5001ms,
                                 {false, "Start-up blocked for more than 5000 ms; watchdog pings stopped"}},
                    DecisionCase{
                        "FirstPollPastTheBoundNamesTheFunction",
                        state(DaemonPhase::Starting, FunctionWait::FirstPoll, "TempMonitoring"),
                        6s,
                        {false,
                         "Start-up blocked for more than 5000 ms: waiting for the first poll of TempMonitoring; "
                         "watchdog pings stopped"}},
                    DecisionCase{"StoppingWithinTheBoundPings",
                                 state(DaemonPhase::Stopping, FunctionWait::PollingThread, "SfpMonitoring"),
                                 3s,
                                 {true, ""}},
                    DecisionCase{"StoppingPastTheBoundNamesTheThreadItJoins",
                                 state(DaemonPhase::Stopping, FunctionWait::PollingThread, "SfpMonitoring"),
                                 5001ms,
                                 {false, kStopLine}},
                    DecisionCase{"StoppingPastTheBoundWithoutAWaitSaysSoPlainly",
                                 state(DaemonPhase::Stopping),
                                 1h,
                                 {false, "Stop blocked for more than 5000 ms; watchdog pings stopped"}},
                    DecisionCase{"ReportedStepStaysSilentAndUnpinged",
                                 state(DaemonPhase::Stopping, FunctionWait::PollingThread, "SfpMonitoring", true),
                                 1h,
                                 {false, ""}},
                    DecisionCase{"ReportedFlagDoesNotMatterWithinTheBound",
                                 state(DaemonPhase::Stopping, FunctionWait::PollingThread, "SfpMonitoring", true),
                                 1s,
                                 {true, ""}},
                    DecisionCase{"ClockBeforeTheStepStartPings", state(DaemonPhase::Stopping), -1s, {true, ""}}),
    [](const testing::TestParamInfo<DecisionCase>& row) { return std::string(row.param.name); });

// A clock the test moves and a notifier that counts pings; both used from the watchdog's thread.
class WatchdogThreadTest : public testing::Test {
 protected:
  WatchdogIo io() {
    return WatchdogIo{[this] { return WatchdogClock::time_point(now_ns.load() * 1ns); },
                      [this](const std::string& text) {
                        const std::lock_guard lock(mutex);
                        notifications.push_back(text);
                      }};
  }

  void advance(std::chrono::milliseconds by) { now_ns += std::chrono::nanoseconds(by).count(); }

  std::size_t pings() {
    const std::lock_guard lock(mutex);
    std::size_t count = 0;
    for (const auto& text : notifications) {
      count += text == "WATCHDOG=1" ? 1 : 0;
    }
    EXPECT_EQ(count, notifications.size()) << "the watchdog sends nothing but WATCHDOG=1";
    return count;
  }

  // Moves the clock past the bound and waits for the line that says so.
  std::vector<test::LogLine> go_past_the_bound() {
    advance(kBound + 1ms);
    EXPECT_TRUE(test::wait_until([&] { return !logger->lines().empty(); }, 5s, 1ms));
    return logger->lines();
  }

  bool more_pings_than(std::size_t count) {
    return test::wait_until([&] { return pings() > count; }, 5s, 1ms);
  }

  std::atomic<std::int64_t> now_ns{std::chrono::nanoseconds(1000s).count()};
  std::mutex mutex;
  std::vector<std::string> notifications;
  std::shared_ptr<test::RecordingLogger> logger = std::make_shared<test::RecordingLogger>();
};

TEST_F(WatchdogThreadTest, PingsAtOnceAndEveryIntervalWhileRunning) {
  Watchdog watchdog(1ms, kBound, io());
  watchdog.enter(DaemonPhase::Running);
  watchdog.start();
  EXPECT_TRUE(more_pings_than(5));
  advance(1h);
  EXPECT_TRUE(more_pings_than(pings()));
  watchdog.stop();
  EXPECT_TRUE(logger->lines().empty());
}

TEST_F(WatchdogThreadTest, BlockedStopIsLoggedOnceAtLevelFourAndThePingsStop) {
  Watchdog watchdog(1ms, kBound, io());
  watchdog.attach_logger(logger);
  watchdog.enter(DaemonPhase::Stopping);
  watchdog.function_wait(FunctionWait::PollingThread, "SfpMonitoring");
  watchdog.start();
  EXPECT_TRUE(more_pings_than(2));
  ASSERT_FALSE(go_past_the_bound().empty());
  const std::size_t stopped_at = pings();
  // Many more intervals pass: neither a ping nor a second line.
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(pings(), stopped_at);
  const auto lines = logger->lines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].level, logger::kError);
  EXPECT_EQ(lines[0].text, kStopLine);
  watchdog.stop();
}

TEST_F(WatchdogThreadTest, EveryEndedWaitStartsANewStep) {
  Watchdog watchdog(1ms, kBound, io());
  watchdog.attach_logger(logger);
  watchdog.enter(DaemonPhase::Stopping);
  watchdog.start();
  // Each join takes four seconds: the stop as a whole takes longer than the bound, each step not.
  for (const std::string_view name : {"CpuLoadMonitoring", "RamMonitoring", "HddMonitoring"}) {
    watchdog.function_wait(FunctionWait::PollingThread, name);
    advance(4s);
    watchdog.function_wait(FunctionWait::Nothing, name);
  }
  EXPECT_TRUE(more_pings_than(pings()));
  watchdog.stop();
  EXPECT_TRUE(logger->lines().empty());
}

TEST_F(WatchdogThreadTest, PingsComeBackWhenTheNextPhaseBegins) {
  Watchdog watchdog(1ms, kBound, io());
  watchdog.attach_logger(logger);
  watchdog.enter(DaemonPhase::Starting);
  watchdog.function_wait(FunctionWait::FirstPoll, "TempMonitoring");
  watchdog.start();
  const auto lines = go_past_the_bound();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0].text,
            "Start-up blocked for more than 5000 ms: waiting for the first poll of TempMonitoring; "
            "watchdog pings stopped");
  const std::size_t stopped_at = pings();
  watchdog.enter(DaemonPhase::Running);
  EXPECT_TRUE(more_pings_than(stopped_at));
  watchdog.stop();
}

TEST_F(WatchdogThreadTest, WithoutALoggerTheLineGoesToStandardError) {
  Watchdog watchdog(1ms, kBound, io());
  watchdog.attach_logger(logger);
  watchdog.detach_logger();
  watchdog.enter(DaemonPhase::Stopping);
  advance(kBound + 1ms);
  testing::internal::CaptureStderr();
  watchdog.tick();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "system-mgr: Stop blocked for more than 5000 ms; watchdog pings stopped\n");
  EXPECT_TRUE(logger->lines().empty());
  EXPECT_EQ(pings(), 0U);
}

TEST_F(WatchdogThreadTest, StopEndsTheThreadAndNoPingFollows) {
  Watchdog watchdog(1ms, kBound, io());
  watchdog.enter(DaemonPhase::Running);
  watchdog.start();
  EXPECT_TRUE(more_pings_than(0));
  watchdog.stop();
  const std::size_t after_stop = pings();
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(pings(), after_stop);
  // A second stop, and a restart after it, are allowed.
  watchdog.stop();
  watchdog.start();
  EXPECT_TRUE(more_pings_than(after_stop));
}

TEST_F(WatchdogThreadTest, TheThreadBlocksEverySignal) {
  std::atomic<bool> blocked_all{false};
  WatchdogIo checking = io();
  checking.notify = [&](const std::string& /*text*/) {
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    blocked_all =
        ::sigismember(&mask, SIGHUP) == 1 && ::sigismember(&mask, SIGTERM) == 1 && ::sigismember(&mask, SIGINT) == 1;
  };
  Watchdog watchdog(1ms, kBound, checking);
  watchdog.enter(DaemonPhase::Running);
  watchdog.start();
  EXPECT_TRUE(test::wait_until([&] { return blocked_all.load(); }, 5s, 1ms));
  watchdog.stop();
  // The starting thread's own mask is as it was.
  sigset_t mask;
  ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  EXPECT_EQ(::sigismember(&mask, SIGHUP), 0);
}

TEST(WatchdogLoggerAttachmentTest, AttachesForItsLifeAndNullIsHarmless) {
  Watchdog watchdog(1ms, kBound, WatchdogIo{[] { return WatchdogClock::time_point(1h); }, [](const std::string&) {}});
  auto logger = std::make_shared<test::RecordingLogger>();
  {
    const WatchdogLoggerAttachment attached(&watchdog, logger);
    EXPECT_EQ(logger.use_count(), 2);
  }
  EXPECT_EQ(logger.use_count(), 1);
  const WatchdogLoggerAttachment nothing(nullptr, logger);
  EXPECT_EQ(logger.use_count(), 1);
}

}  // namespace
}  // namespace xpon::system_mgr
