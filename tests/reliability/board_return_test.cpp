// The board device going away under a running daemon and coming back: the emulator is stopped
// and unmounted for ten seconds, as a driver reload or an emulator restart does, then started again.

#include "system_test.hpp"
#include "xpon/test/wait.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace xpon::system_mgr::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// The power supplies' polling period on an LT board.
constexpr auto kSupplyPeriod = 1000ms;
constexpr auto kOutage = 10s;

constexpr const char* kLostLine = "Board device /dev/board lost (Transport endpoint is not connected); reopening it";
constexpr const char* kBackLine = "Board device /dev/board reopened";

std::string alarm_text(const BusEvent& event) {
  return {reinterpret_cast<const char*>(event.payload.data() + offsetof(Alarm, text))};
}

class BoardReturnTest : public SystemMgrTest {
 protected:
  core::Result<ipc::Response> ask(std::uint16_t id) {
    if (!asker_) {
      asker_ = sandbox_endpoint(ipc::make_address(0x0042), "board-return-test");
    }
    ipc::Request request;
    request.group = IPC_SYSTEM_MGR;
    request.id = id;
    return asker_->request(kDaemonAddress, request, 2s);
  }

  std::shared_ptr<ipc::ZmqIpc> asker_;
};

TEST_F(BoardReturnTest, LtReadingsAndSupplyAlarmsResumeWithinOnePeriodOfTheEmulatorsReturn) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  BusSubscriber subscriber(rig_.path("/run/xpon/ipc"));
  ASSERT_TRUE(subscriber.wait_subscribed(kStepTimeout)) << rig_.helper_logs();
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  ASSERT_NO_FATAL_FAILURE(settle(1));
  const auto before = ask(IPC_SYSTEM_MGR__GET_PS_STATES);
  ASSERT_TRUE(before.has_value() && before.value().result == 1U) << rig_.daemon_log();

  rig_.stop_emulator();
  const auto outage_end = Clock::now() + kOutage;
  // A poll that was under way when the device went may still report; from the next one on, what
  // the board reports while its device is gone is collected.
  const auto settled = Clock::now() + kSupplyPeriod + 500ms;
  while (Clock::now() < settled) {
    (void)subscriber.next_event(100ms);
  }
  std::vector<std::string> during_outage;
  while (Clock::now() < outage_end) {
    // The board's own alarms: supplies, temperatures, fans. CPU load, RAM and disk space go on.
    if (const auto event = subscriber.next_alarm(100ms); event && event->payload.size() == sizeof(Alarm)) {
      const std::uint32_t kind = u32_at(event->payload, offsetof(Alarm, alarm_id));
      if (kind == SYSTEM_MGR_ALARM_POWER_SUPPLY || kind == SYSTEM_MGR_ALARM_TEMPERATURE ||
          kind == SYSTEM_MGR_ALARM_FAN) {
        during_outage.push_back(alarm_text(*event));
      }
    }
  }
  const auto gone = ask(IPC_SYSTEM_MGR__GET_PS_STATES);
  ASSERT_TRUE(gone.has_value()) << gone.error().to_string();
  EXPECT_EQ(gone.value().result, 0U) << "an error answer while the device is gone";
  // An LT board's only sign on the bus: its supply alarms, sent every second, stop.
  EXPECT_EQ(during_outage, std::vector<std::string>{}) << rig_.daemon_log();

  std::string skip;
  ASSERT_EQ(rig_.start_emulator("board-lt.json", skip), "");
  const auto back = Clock::now();
  const auto supply_alarm = subscriber.next_alarm_of(SYSTEM_MGR_ALARM_POWER_SUPPLY, kStepTimeout);
  const auto first_alarm_after = Clock::now() - back;
  ASSERT_TRUE(supply_alarm.has_value()) << rig_.daemon_log();
  EXPECT_EQ(alarm_text(*supply_alarm), "Power supply 1 is back to normal");
  EXPECT_LT(first_alarm_after, kSupplyPeriod + 200ms)
      << std::chrono::duration_cast<std::chrono::milliseconds>(first_alarm_after).count() << " ms";
  const auto supplies = ask(IPC_SYSTEM_MGR__GET_PS_STATES);
  ASSERT_TRUE(supplies.has_value()) << supplies.error().to_string();
  EXPECT_EQ(supplies.value().result, 1U);
  EXPECT_EQ(supplies.value().payload.size(), 144U) << "two supplies of 72 bytes";
  const auto temperatures = ask(IPC_SYSTEM_MGR__GET_TEMP);
  ASSERT_TRUE(temperatures.has_value()) << temperatures.error().to_string();
  EXPECT_EQ(temperatures.value().result, 1U);
  EXPECT_EQ(temperatures.value().payload.size(), 40U) << "five sensors of eight bytes";

  EXPECT_TRUE(rig_.daemon().running());
  const std::string log = rig_.daemon_log();
  EXPECT_EQ(occurrences(log, kLostLine), 1U) << log;
  EXPECT_EQ(occurrences(log, kBackLine), 1U) << log;
  EXPECT_EQ(rig_.notifications().messages().size(), 2U) << "no restart: " << rig_.notifications_text();
}

}  // namespace
}  // namespace xpon::system_mgr::test
