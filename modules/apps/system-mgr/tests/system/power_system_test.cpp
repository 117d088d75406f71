// The board's power as the rest of the board sees it: the LT board's own supplies (an alarm per
// supply every second, their records on request) and the FC crate's power module state, with the
// real daemon on the board emulator's example boards.

#include "system_test.hpp"
#include "xpon/ipc/zmq_ipc.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/test/process.hpp"
#include "xpon/test/temp_dir.hpp"
#include "xpon/test/wait.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace xpon::system_mgr::test {
namespace {

using namespace std::chrono_literals;

// What examples/board-lt.json gives its two supplies: both installed and good, with these texts.
constexpr const char* kModel = "PSU-150W-AC";
constexpr std::array<const char*, 2> kSerials = {"PS2301000123", "PS2301000124"};
constexpr const char* kVersion = "1.2";
constexpr const char* kRevision = "B";
constexpr const char* kDate = "2023-01-17";

// A supply alarm record exactly as the daemon must publish it.
std::vector<std::uint8_t> supply_alarm(std::uint8_t state, std::uint32_t supply, const std::string& text) {
  std::vector<std::uint8_t> record(305, 0);
  record[8] = state;
  record[9] = SYSTEM_MGR_ALARM_POWER_SUPPLY;
  record[17] = static_cast<std::uint8_t>(supply);
  std::copy(text.begin(), text.end(), record.begin() + 45);
  return record;
}

class PowerSystemTest : public SystemMgrTest {
 protected:
  // The next supply alarm record on the bus, or nothing after the time-out.
  static std::optional<std::vector<std::uint8_t>> next_supply_alarm(BusSubscriber& subscriber,
                                                                    std::chrono::milliseconds timeout) {
    auto alarm = subscriber.next_alarm_of(SYSTEM_MGR_ALARM_POWER_SUPPLY, timeout);
    if (!alarm) {
      return std::nullopt;
    }
    return alarm->payload;
  }

  // Writes a patch to the emulator's control file and checks that it was applied.
  void patch_board(const std::string& patch) {
    {
      std::ofstream control(rig_.path("/dev/board-control"));
      control << patch;
      control.flush();
      ASSERT_TRUE(control.good()) << "the emulator refused " << patch << "\n" << rig_.helper_logs();
    }
    EXPECT_EQ(xpon::test::read_text_file(rig_.path("/dev/board-control")), "ok\n") << patch;
  }

  // Sends one request to the daemon from a client endpoint in the rig's sandbox and checks the
  // words of its answer; `answer` is the payload. READY comes before the functions subscribe
  // their requests, so the caller waits for the daemon to settle first.
  void ask(std::uint16_t id, std::uint32_t result, ipc::Payload& answer) {
    const auto response = ask_daemon(rig_, id, "power-client");
    ASSERT_TRUE(response.has_value()) << response.error().to_string() << "\n" << rig_.daemon_log();
    EXPECT_EQ(response.value().result, result);
    EXPECT_EQ(response.value().address, 0x0000FFFEU);
    answer = response.value().payload;
  }
};

TEST_F(PowerSystemTest, EachSupplyOfTheLtBoardHasItsAlarmEverySecond) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  BusSubscriber subscriber(rig_.path("/run/xpon/ipc"));
  ASSERT_TRUE(subscriber.wait_subscribed(kStepTimeout)) << rig_.helper_logs();
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());

  // The first poll runs at start-up, the next ones a second apart: two rounds of both supplies.
  std::vector<std::vector<std::uint8_t>> alarms;
  const auto first = std::chrono::steady_clock::now();
  auto last = first;
  while (alarms.size() < 4) {
    auto alarm = next_supply_alarm(subscriber, kStepTimeout);
    ASSERT_TRUE(alarm.has_value()) << "only " << alarms.size() << " supply alarms; daemon log:\n" << rig_.daemon_log();
    if (alarms.empty()) {
      // The first alarm seen need not be supply 1's when the subscription came in mid-poll.
      if (u32_at(*alarm, 17) != 1) {
        continue;
      }
    }
    last = std::chrono::steady_clock::now();
    alarms.push_back(*alarm);
  }
  const auto normal_1 = supply_alarm(1, 1, "Power supply 1 is back to normal");
  const auto normal_2 = supply_alarm(1, 2, "Power supply 2 is back to normal");
  EXPECT_EQ(alarms, (std::vector<std::vector<std::uint8_t>>{normal_1, normal_2, normal_1, normal_2}));
  // A period of 1000 ms: the second round comes about a second after the first.
  EXPECT_GE(last - first, 700ms);
  EXPECT_LT(last - first, 3000ms);

  // The log numbers the supplies from 0 and carries their identification.
  EXPECT_TRUE(rig_.wait_for_log("PS[0] is_present: true", kStepTimeout)) << rig_.daemon_log();
  EXPECT_TRUE(rig_.wait_for_log("PS[1] is_power_good: true", kStepTimeout)) << rig_.daemon_log();
  EXPECT_TRUE(rig_.wait_for_log(std::string("PS[0] Model: ") + kModel, kStepTimeout)) << rig_.daemon_log();
  EXPECT_TRUE(rig_.wait_for_log(std::string("PS[1] SN: ") + kSerials[1], kStepTimeout)) << rig_.daemon_log();
  EXPECT_TRUE(rig_.wait_for_log(std::string("PS[1] Date: ") + kDate, kStepTimeout)) << rig_.daemon_log();
}

TEST_F(PowerSystemTest, APulledSupplyChangesItsAlarmWithinTwoPolls) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  BusSubscriber subscriber(rig_.path("/run/xpon/ipc"));
  ASSERT_TRUE(subscriber.wait_subscribed(kStepTimeout)) << rig_.helper_logs();
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());

  // Supply 2 as it starts: installed and good.
  std::optional<std::vector<std::uint8_t>> alarm;
  while ((alarm = next_supply_alarm(subscriber, kStepTimeout)) && u32_at(*alarm, 17) != 2) {
  }
  ASSERT_TRUE(alarm.has_value()) << rig_.daemon_log();
  EXPECT_EQ(*alarm, supply_alarm(1, 2, "Power supply 2 is back to normal"));

  // A poll under way while the patch lands may still see the supply; the one after cannot.
  const auto expect_within_two_polls = [&](const std::vector<std::uint8_t>& expected) {
    std::vector<std::vector<std::uint8_t>> seen;
    while (seen.size() < 2) {
      auto next = next_supply_alarm(subscriber, kStepTimeout);
      ASSERT_TRUE(next.has_value()) << rig_.daemon_log();
      if (u32_at(*next, 17) != 2) {
        continue;
      }
      seen.push_back(*next);
      if (*next == expected) {
        return;
      }
    }
    ADD_FAILURE() << "supply 2's alarm did not change within two polls; last text: "
                  << reinterpret_cast<const char*>(seen.back().data() + 45);
  };

  ASSERT_NO_FATAL_FAILURE(patch_board(R"({"power_supplies": {"1": {"present": false, "power_good": false}}})"));
  // An empty slot clears the alarm, saying it is offline.
  expect_within_two_polls(supply_alarm(1, 2, "Power supply 2 is offline"));

  ASSERT_NO_FATAL_FAILURE(patch_board(R"({"power_supplies": {"1": {"present": true, "power_good": false}}})"));
  expect_within_two_polls(supply_alarm(0, 2, "Power supply 2 is missing voltage"));

  // Supply 1 was never touched.
  while ((alarm = next_supply_alarm(subscriber, kStepTimeout)) && u32_at(*alarm, 17) != 1) {
  }
  ASSERT_TRUE(alarm.has_value());
  EXPECT_EQ(*alarm, supply_alarm(1, 1, "Power supply 1 is back to normal"));
  EXPECT_TRUE(rig_.daemon().running());
}

TEST_F(PowerSystemTest, AFailingSupplyReadSkipsOnePollAndTheDaemonGoesOn) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  BusSubscriber subscriber(rig_.path("/run/xpon/ipc"));
  ASSERT_TRUE(subscriber.wait_subscribed(kStepTimeout)) << rig_.helper_logs();
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  ASSERT_TRUE(next_supply_alarm(subscriber, kStepTimeout).has_value()) << rig_.daemon_log();

  ASSERT_NO_FATAL_FAILURE(patch_board(R"({"faults": {"BOARD_GET_PS_INFO": {"errno": "EIO", "count": 1}}})"));
  ASSERT_TRUE(rig_.wait_for_log("BOARD_GET_PS_INFO", kStepTimeout)) << rig_.daemon_log();
  // The poll after the failed one reads and reports the supplies again.
  const auto reported_after_the_failure = [this] {
    const std::string log = rig_.daemon_log();
    const auto failure = log.find("BOARD_GET_PS_INFO");
    return failure != std::string::npos && log.find("PS[1] is_power_good: true", failure) != std::string::npos;
  };
  EXPECT_TRUE(xpon::test::wait_until(reported_after_the_failure, kStepTimeout)) << rig_.daemon_log();
  EXPECT_TRUE(rig_.daemon().running());
}

TEST_F(PowerSystemTest, SupplyStatesAreSeventyTwoBytesPerSupplyWithEightCopiedEach) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  ASSERT_NO_FATAL_FAILURE(settle(1));

  ipc::Payload payload;
  ASSERT_NO_FATAL_FAILURE(ask(IPC_SYSTEM_MGR__GET_PS_STATES, 1, payload));
  ASSERT_EQ(payload.size(), 2 * sizeof(System_mgr__ps_state));
  // Two supplies: the array's first 16 bytes, all of them supply 1's: driver id 0, installed,
  // good, with identification, no alert, and the first 11 characters of its model.
  std::vector<std::uint8_t> expected(144, 0);
  expected[1] = 1;
  expected[2] = 1;
  expected[3] = 1;
  const std::string model(kModel);
  ASSERT_EQ(model.size(), 11U);
  std::copy(model.begin(), model.end(), expected.begin() + 5);
  EXPECT_EQ(payload, expected);
  EXPECT_TRUE(rig_.wait_for_log("Handle IPC request [IPC_SYSTEM_MGR__GET_PS_STATES]", kStepTimeout))
      << rig_.daemon_log();
  // The whole records reach the log, texts and all.
  for (std::size_t supply = 0; supply < kSerials.size(); ++supply) {
    const std::string prefix = "PS[" + std::to_string(supply) + "] ";
    EXPECT_TRUE(rig_.wait_for_log(prefix + "Model: " + kModel, kStepTimeout)) << rig_.daemon_log();
    EXPECT_TRUE(rig_.wait_for_log(prefix + "SN: " + kSerials[supply], kStepTimeout)) << rig_.daemon_log();
    EXPECT_TRUE(rig_.wait_for_log(prefix + "Ver: " + kVersion, kStepTimeout)) << rig_.daemon_log();
    EXPECT_TRUE(rig_.wait_for_log(prefix + "Rev: " + kRevision, kStepTimeout)) << rig_.daemon_log();
  }
}

TEST_F(PowerSystemTest, SupplyTextsFillingTheirFieldsAreLoggedWithinTheirFields) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  const std::string model(31, 'M');
  const std::string serial(17, 'S');
  ASSERT_NO_FATAL_FAILURE(
      patch_board(R"({"power_supplies": {"0": {"model": ")" + model + R"(", "serial": ")" + serial + R"("}}})"));
  // The model runs straight into the serial number in the record: the line stops at the field's end.
  EXPECT_TRUE(rig_.wait_for_log("PS[0] Model: " + model + "\n", kStepTimeout)) << rig_.daemon_log();
  EXPECT_TRUE(rig_.wait_for_log("PS[0] SN: " + serial + "\n", kStepTimeout)) << rig_.daemon_log();
  EXPECT_TRUE(rig_.daemon().running());
}

TEST_F(PowerSystemTest, PowerModuleStateOfTheFcBoardIsTheScenariosTwentyBytes) {
  XPON_START_BOARD("board-fc.json", kFcProduct);
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  ASSERT_NO_FATAL_FAILURE(settle(1));

  ipc::Payload payload;
  ASSERT_NO_FATAL_FAILURE(ask(IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE, 1, payload));
  // examples/board-fc.json: installed and good, no faults, 230.0 V in, 12.00 V and 12.50 A out,
  // 150 W, 38 degrees.
  const std::vector<std::uint8_t> expected = {0x01, 0x01, 0x00, 0x00, 0xFC, 0x08, 0xB0, 0x04, 0xE2, 0x04,
                                              0x96, 0x00, 0x26, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
  EXPECT_EQ(payload, expected);
  EXPECT_TRUE(rig_.wait_for_log("Handle IPC request [IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE]", kStepTimeout))
      << rig_.daemon_log();
  // The function's thread runs (an empty poll every 30 s) next to the others.
  EXPECT_TRUE(rig_.wait_for_log("Start System function: PwrModuleMonitoring", kStepTimeout)) << rig_.daemon_log();
}

TEST_F(PowerSystemTest, PowerModuleFaultsReachTheAnswerAndAnUnreadableModuleGetsTheErrorAnswer) {
  XPON_START_BOARD("board-fc.json", kFcProduct);
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  ASSERT_NO_FATAL_FAILURE(settle(1));

  ASSERT_NO_FATAL_FAILURE(patch_board(R"({"power_module": {"power_good": false, "fault": true, "temperature": -5}})"));
  ipc::Payload payload;
  ASSERT_NO_FATAL_FAILURE(ask(IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE, 1, payload));
  ASSERT_EQ(payload.size(), 20U);
  EXPECT_EQ(payload[1], 0);  // power good
  EXPECT_EQ(payload[2], 1);  // fault
  EXPECT_EQ(u16_at(payload, 12), 0xFFFB);

  ASSERT_NO_FATAL_FAILURE(patch_board(R"({"faults": {"BOARD_GET_PWR_MODULE_STATE": {"errno": "EIO", "count": 1}}})"));
  ASSERT_NO_FATAL_FAILURE(ask(IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE, 0, payload));
  EXPECT_TRUE(payload.empty());

  // The fault was for one call: the module answers again.
  ASSERT_NO_FATAL_FAILURE(ask(IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE, 1, payload));
  EXPECT_EQ(payload.size(), 20U);
  EXPECT_TRUE(rig_.daemon().running());
}

}  // namespace
}  // namespace xpon::system_mgr::test
