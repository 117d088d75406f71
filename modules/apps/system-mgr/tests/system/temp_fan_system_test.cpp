// Temperatures, fans and the crate's fan module: the real daemon on the board emulator, a real
// bus, and test endpoints that play the Election Manager and another slot of the crate.

#include "system_test.hpp"
#include "xpon/ipc/zmq_ipc.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/test/temp_dir.hpp"
#include "xpon/test/wait.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <map>
#include <optional>
#include <ostream>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace xpon::system_mgr::test {
namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t kAlarmFan = 2;
constexpr std::uint32_t kAlarmTemperature = 4;
// The Election Manager's endpoint and its messages.
constexpr ipc::Address kElectionManager = 0x0015FFFE;
constexpr ipc::Key kMasterQuery{14500, 14504};
constexpr ipc::Key kMasterChanged{14500, 14505};
constexpr std::uint16_t kFcSlot = 21;

std::string text_of(const std::vector<std::uint8_t>& payload) {
  return {reinterpret_cast<const char*>(payload.data() + 45)};
}

class TempFanSystemTest : public SystemMgrTest {
 protected:
  // Fan control: mode 0 is automatic; family 0 LT, 1 LC, 2 FC.
  void set_fan_control(int family) {
    const ProgramRun set = rig_.run_cfg({"set", "FAN", "mode=0", "family=" + std::to_string(family)});
    ASSERT_TRUE(set.end && set.end->exited_with(0)) << set.errors;
  }

  // The first unsigned number after `"key":` in the emulator's board-state.json.
  std::optional<unsigned> state_value(const std::string& key) const {
    const std::string state = xpon::test::read_text_file(rig_.path("/dev/board-state.json"));
    std::smatch match;
    if (std::regex_search(state, match, std::regex("\"" + key + R"("\s*:\s*(\d+))"))) {
      return static_cast<unsigned>(std::stoul(match[1].str()));
    }
    return std::nullopt;
  }

  bool wait_for_state(const std::string& key, unsigned value) const {
    return xpon::test::wait_until([&] { return state_value(key) == value; }, kStepTimeout);
  }

  // A SIGHUP restart: the new cycle polls at once.
  void restart(std::size_t cycle) {
    ASSERT_NO_FATAL_FAILURE(settle(cycle - 1));
    ASSERT_TRUE(rig_.daemon().signal(SIGHUP));
    ASSERT_TRUE(rig_.wait_for_notification(kReadyText, cycle, kStepTimeout)) << rig_.daemon_log();
  }

  // A client endpoint in the daemon's sandbox, as any other daemon of the board would have.
  std::shared_ptr<ipc::ZmqIpc> client(ipc::Address address) { return sandbox_endpoint(address, "fan-test-client"); }

  core::Result<ipc::Response> ask(std::uint16_t id, ipc::Payload payload = {}) {
    auto endpoint = client(ipc::make_address(0x0042));
    ipc::Request request;
    request.group = IPC_SYSTEM_MGR;
    request.id = id;
    request.payload = std::move(payload);
    return endpoint->request(kDaemonAddress, request, kStepTimeout);
  }
};

TEST_F(TempFanSystemTest, LtBoardReportsEverySensorAndFanAfterReady) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  BusSubscriber subscriber(rig_.path("/run/xpon/ipc"));
  ASSERT_TRUE(subscriber.wait_subscribed(kStepTimeout)) << rig_.helper_logs();
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  // Every function has subscribed and made its first poll.
  ASSERT_NO_FATAL_FAILURE(settle(1));

  // The example board: sensors 0-4 at 41, 43, 38, 52 and 57 C; four fans at 100 rps.
  const std::map<std::uint32_t, std::string> expected_temperatures{
      {1, "Sensor PON SFP 1 temperature 41C is back to normal"},
      {2, "Sensor PON SFP 2 temperature 43C is back to normal"},
      {3, "Sensor Front SFP temperature 38C is back to normal"},
      {4, "Sensor Switch chip temperature 52C is back to normal"},
      {5, "Sensor PON chip   temperature 57C is back to normal"}};
  std::map<std::uint32_t, std::string> temperatures;
  std::map<std::uint32_t, std::string> fans;
  while (temperatures.size() < 5 || fans.size() < 4) {
    const auto alarm = subscriber.next_alarm(kStepTimeout);
    ASSERT_TRUE(alarm.has_value()) << "temperature alarms " << temperatures.size() << ", fan alarms " << fans.size()
                                   << "; daemon log:\n"
                                   << rig_.daemon_log();
    ASSERT_EQ(alarm->payload.size(), 305U);
    const std::uint32_t kind = u32_at(alarm->payload, 9);
    if (kind == kAlarmTemperature) {
      temperatures[u32_at(alarm->payload, 17)] = text_of(alarm->payload);
    } else if (kind == kAlarmFan) {
      fans[u32_at(alarm->payload, 17)] = text_of(alarm->payload);
      EXPECT_EQ(u32_at(alarm->payload, 33), 6000U);
    }
  }
  EXPECT_EQ(temperatures, expected_temperatures);
  for (std::uint32_t fan = 1; fan <= 4; ++fan) {
    EXPECT_EQ(fans[fan], "Fan " + std::to_string(fan) + " speed 6000 rpm is back to normal");
  }
}

TEST_F(TempFanSystemTest, GetTempIsEightBytesPerSensor) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  // Every function has subscribed and made its first poll.
  ASSERT_NO_FATAL_FAILURE(settle(1));
  const auto answer = ask(IPC_SYSTEM_MGR__GET_TEMP);
  ASSERT_TRUE(answer.has_value()) << answer.error().to_string() << rig_.daemon_log();
  EXPECT_EQ(answer.value().result, 1U);
  EXPECT_EQ(answer.value().payload, (ipc::Payload{0,  0, 0, 0, 41, 0, 0, 0, 1,  0, 0, 0, 43, 0, 0, 0, 2,  0, 0, 0,
                                                  38, 0, 0, 0, 3,  0, 0, 0, 52, 0, 0, 0, 4,  0, 0, 0, 57, 0, 0, 0}));
}

TEST_F(TempFanSystemTest, AHotSensorDrivesTheFansTo159AndACoolLastSensorBackTo102) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  ASSERT_NO_FATAL_FAILURE(set_fan_control(0));
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  // Every function has subscribed and made its first poll.
  ASSERT_NO_FATAL_FAILURE(settle(1));
  ASSERT_EQ(state_value("fan_speed_setting"), 102U) << "the example board starts at the minimum rate";

  // The last sensor (PON chip) heats above 60 C; the restart's first poll raises the fans.
  ASSERT_NO_FATAL_FAILURE(patch_emulator(R"({"sensors": {"4": {"temperature": 71}}})"));
  ASSERT_NO_FATAL_FAILURE(restart(2));
  EXPECT_TRUE(wait_for_state("fan_speed_setting", 159)) << rig_.daemon_log();

  // It cools while the first sensor heats: within one poll the first raises the fans (the new
  // cycle starts from the minimum) and the last, which decides, lowers them again.
  ASSERT_NO_FATAL_FAILURE(patch_emulator(R"({"sensors": {"0": {"temperature": 65}, "4": {"temperature": 45}}})"));
  ASSERT_NO_FATAL_FAILURE(restart(3));
  EXPECT_TRUE(rig_.wait_for_log("Sensor id 4 temperature 45 C. Sensor name: PON chip  ", kStepTimeout))
      << rig_.daemon_log();
  EXPECT_TRUE(wait_for_state("fan_speed_setting", 102)) << rig_.daemon_log();
}

// An LC board cooled by the crate with its five sensors only, all below 60 C, and no timeline:
// the board changes only when the test patches it.
constexpr const char* kLcSensorsScenario = R"({
  "description": "LC board: five sensors, no ports, no timeline",
  "inventory": {"cpld_version": 5, "fan_count": 0, "ps_count": 0, "temp_count": 5, "pon_port_count": 0,
                "front_port_count": 0},
  "sensors": [{"id": 0, "temperature": 44}, {"id": 1, "temperature": 45}, {"id": 2, "temperature": 40},
              {"id": 3, "temperature": 55}, {"id": 4, "temperature": 59}]
})";

// The id of the next fan rate event the daemon publishes (15537 or 15538), checked for its
// sender and its empty payload; nothing after the time-out.
std::optional<std::uint16_t> next_rate_event(BusSubscriber& subscriber) {
  const auto deadline = std::chrono::steady_clock::now() + kStepTimeout;
  while (std::chrono::steady_clock::now() < deadline) {
    const auto event = subscriber.next_event(100ms);
    if (!event || u16_at(event->header, 12) != IPC_SYSTEM_MGR) {
      continue;
    }
    const std::uint16_t id = u16_at(event->header, 14);
    if (id == IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE ||
        id == IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE) {
      EXPECT_EQ(u32_at(event->header, 4), kDaemonAddress);
      EXPECT_TRUE(event->payload.empty());
      return id;
    }
  }
  return std::nullopt;
}

TEST_F(TempFanSystemTest, AnLcBoardThatAskedForTheMaximumAsksForTheMinimumOnTheFirstCoolReadingAfterASighup) {
  const std::string scenario = rig_.path("/lc-sensors.json");
  {
    std::ofstream file(scenario);
    file << kLcSensorsScenario;
    ASSERT_TRUE(file.good());
  }
  XPON_START_BOARD(scenario, kLcProduct);
  ASSERT_NO_FATAL_FAILURE(set_fan_control(1));
  BusSubscriber subscriber(rig_.path("/run/xpon/ipc"));
  subscriber.subscribe(IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE);
  subscriber.subscribe(IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE);
  ASSERT_TRUE(subscriber.wait_subscribed(kStepTimeout)) << rig_.helper_logs();
  // The first cycle reads every sensor below 60 C and asks nothing.
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());

  // The last sensor heats: the next cycle's first poll asks the master for the maximum. Being the
  // first rate event on the bus, it also shows that the first cycle sent none.
  ASSERT_NO_FATAL_FAILURE(patch_emulator(R"({"sensors": {"4": {"temperature": 71}}})"));
  ASSERT_NO_FATAL_FAILURE(restart(2));
  EXPECT_EQ(next_rate_event(subscriber), IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE) << rig_.daemon_log();

  // It cools: the flag that says the maximum was asked for belongs to the process and survives
  // the restart, so the new cycle's first reading below 60 C asks for the minimum.
  ASSERT_NO_FATAL_FAILURE(patch_emulator(R"({"sensors": {"4": {"temperature": 45}}})"));
  ASSERT_NO_FATAL_FAILURE(restart(3));
  EXPECT_EQ(next_rate_event(subscriber), IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE) << rig_.daemon_log();
  EXPECT_TRUE(rig_.wait_for_log("Sensor id 4 temperature 45 C. Sensor name: PON chip  ", kStepTimeout))
      << rig_.daemon_log();
  EXPECT_TRUE(rig_.daemon().running());
}

TEST_F(TempFanSystemTest, SetFanSpeedChangesTheEmulatorsSettingAndAnEmptyPayloadIsRefused) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  // Every function has subscribed and made its first poll.
  ASSERT_NO_FATAL_FAILURE(settle(1));
  const auto empty = ask(IPC_SYSTEM_MGR__SET_FAN_SPEED);
  ASSERT_TRUE(empty.has_value()) << empty.error().to_string();
  EXPECT_EQ(empty.value().result, 0U);
  EXPECT_EQ(state_value("fan_speed_setting"), 102U);

  const auto set = ask(IPC_SYSTEM_MGR__SET_FAN_SPEED, {0x80, 1, 2});
  ASSERT_TRUE(set.has_value()) << set.error().to_string();
  EXPECT_EQ(set.value().result, 1U);
  EXPECT_TRUE(set.value().payload.empty());
  EXPECT_EQ(state_value("fan_speed_setting"), 0x80U);
}

TEST_F(TempFanSystemTest, FailingFanReadsAreAnsweredWithTheErrorResponseAndTheNextReadRecovers) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  // Every function has subscribed and made its first poll.
  ASSERT_NO_FATAL_FAILURE(settle(1));
  ASSERT_NO_FATAL_FAILURE(patch_emulator(R"({"faults": {"BOARD_GET_FAN_INFO": {"errno": "EIO", "count": 1}}})"));
  const auto failed = ask(IPC_SYSTEM_MGR__GET_FAN_STATES);
  ASSERT_TRUE(failed.has_value()) << failed.error().to_string() << rig_.daemon_log();
  EXPECT_EQ(failed.value().result, 0U) << rig_.helper_logs() << rig_.daemon_log();
  const auto answered = ask(IPC_SYSTEM_MGR__GET_FAN_STATES);
  ASSERT_TRUE(answered.has_value()) << answered.error().to_string();
  EXPECT_EQ(answered.value().result, 1U);
  EXPECT_EQ(answered.value().payload.size(), 16U);
  EXPECT_TRUE(rig_.daemon().running());
}

TEST_F(TempFanSystemTest, ADelayedFailingTemperatureReadIsAnsweredWithTheErrorResponseAndTheNextReadRecovers) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  // Every function has subscribed and made its first poll.
  ASSERT_NO_FATAL_FAILURE(settle(1));
  ASSERT_NO_FATAL_FAILURE(
      patch_emulator(R"({"faults": {"BOARD_GET_TEMP_INFO": {"errno": "EIO", "count": 1, "delay_ms": 1500}}})"));
  auto slow_client = client(ipc::make_address(0x0043));
  ipc::Request slow;
  slow.group = IPC_SYSTEM_MGR;
  slow.id = IPC_SYSTEM_MGR__GET_TEMP;
  const auto slow_answer = slow_client->request(kDaemonAddress, slow, kStepTimeout);
  ASSERT_TRUE(slow_answer.has_value()) << slow_answer.error().to_string();
  EXPECT_EQ(slow_answer.value().result, 0U);
  const auto next = ask(IPC_SYSTEM_MGR__GET_TEMP);
  ASSERT_TRUE(next.has_value()) << next.error().to_string();
  EXPECT_EQ(next.value().result, 1U);
  EXPECT_EQ(next.value().payload.size(), 40U);
}

TEST_F(TempFanSystemTest, ATemperatureReadDelayedPastTheIpcTimeOutLeavesTheSupplyPollsGoing) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  BusSubscriber subscriber(rig_.path("/run/xpon/ipc"));
  ASSERT_TRUE(subscriber.wait_subscribed(kStepTimeout)) << rig_.helper_logs();
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  // Every function has subscribed and made its first poll.
  ASSERT_NO_FATAL_FAILURE(settle(1));
  // What the first cycle sent is left behind: from here on, a temperature alarm can only come
  // from the restart's delayed read (the next regular one is 20 s away).
  while (subscriber.next_event(300ms)) {
  }
  // Past the IPC time-out of one second.
  constexpr auto kDelay = 1500ms;
  ASSERT_NO_FATAL_FAILURE(patch_emulator(R"({"faults": {"BOARD_GET_TEMP_INFO": {"delay_ms": 1500, "count": 1}}})"));
  ASSERT_NO_FATAL_FAILURE(restart(2));
  const auto start = std::chrono::steady_clock::now();

  // Supply 1's alarm (a poll every second) may wait for the board while the temperature read
  // hangs, but not beyond it: no gap between two of them longer than the period, the delay and a
  // margin, and the polls go on after the slow read.
  std::vector<std::chrono::steady_clock::duration> supply_alarms;
  std::optional<std::chrono::steady_clock::duration> temperature_alarm;
  while (!temperature_alarm || supply_alarms.empty() || supply_alarms.back() < *temperature_alarm + 1500ms) {
    const auto event = subscriber.next_event(kStepTimeout);
    ASSERT_TRUE(event.has_value()) << supply_alarms.size() << " supply alarms; daemon log:\n" << rig_.daemon_log();
    if (event->payload.size() != sizeof(Alarm)) {
      continue;
    }
    const auto at = std::chrono::steady_clock::now() - start;
    const std::uint32_t kind = u32_at(event->payload, 9);
    if (kind == SYSTEM_MGR_ALARM_POWER_SUPPLY && u32_at(event->payload, 17) == 1) {
      supply_alarms.push_back(at);
    } else if (kind == kAlarmTemperature && !temperature_alarm) {
      temperature_alarm = at;
    }
  }
  // The temperature poll did wait for its read (it starts after READY).
  EXPECT_GE(*temperature_alarm, kDelay - 500ms) << rig_.daemon_log();
  std::chrono::steady_clock::duration longest_gap = supply_alarms.front();
  for (std::size_t i = 1; i < supply_alarms.size(); ++i) {
    longest_gap = std::max(longest_gap, supply_alarms[i] - supply_alarms[i - 1]);
  }
  EXPECT_LT(longest_gap, 1000ms + kDelay + 1000ms)
      << "longest gap " << std::chrono::duration_cast<std::chrono::milliseconds>(longest_gap).count() << " ms";
  EXPECT_TRUE(rig_.daemon().running());
}

TEST_F(TempFanSystemTest, FcMasterRaisesTheFanModuleWhenSlotFiveAsks) {
  XPON_START_BOARD("board-fc.json", kFcProduct);
  ASSERT_NO_FATAL_FAILURE(set_fan_control(2));

  // The Election Manager's stand-in: slot 21 is the master.
  auto election = client(kElectionManager);
  std::atomic<int> queries{0};
  ASSERT_TRUE(election->subscribe_request(kMasterQuery, [&](const ipc::Request& request) -> core::Result<void> {
    ++queries;
    ipc::Response response;
    response.payload = {kFcSlot, 0};
    response.reply_tag = request.reply_to.value().tag;
    response.result = 1;
    return election->send_response(request.reply_to->address, response);
  }));

  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  // Every function has subscribed and made its first poll.
  ASSERT_NO_FATAL_FAILURE(settle(1));
  // At construction the answer is compared with a slot of 0: not master yet.
  EXPECT_EQ(queries.load(), 1);
  EXPECT_EQ(state_value("speed_setting"), 102U);

  // The mastership change makes it ask again, now as slot 21.
  auto slot_five = client(ipc::make_address(0x0042, 5));
  ipc::Event changed;
  changed.group = kMasterChanged.group;
  changed.id = kMasterChanged.id;
  changed.payload = {kFcSlot, 0};
  ASSERT_TRUE(election->send_event(changed));
  ASSERT_TRUE(xpon::test::wait_until([&] { return queries.load() >= 2; }, kStepTimeout)) << rig_.daemon_log();
  EXPECT_TRUE(rig_.wait_for_log("Deliver mastership change: master slot 21", kStepTimeout));

  // Slot 5 asks for the maximum rate until the master (which may still be storing the answer)
  // acts on it.
  ipc::Event asks;
  asks.group = IPC_SYSTEM_MGR;
  asks.id = IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE;
  const bool raised = xpon::test::wait_until(
      [&] {
        static_cast<void>(slot_five->send_event(asks));
        return xpon::test::wait_until([&] { return state_value("speed_setting") == 159U; }, 500ms);
      },
      kStepTimeout);
  EXPECT_TRUE(raised) << rig_.daemon_log();
  EXPECT_TRUE(rig_.wait_for_log("Handle IPC event [IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE] | Slot ID 5",
                                kStepTimeout))
      << rig_.daemon_log();
}

TEST_F(TempFanSystemTest, FanModuleRequestsReadAndSetTheEmulatorsModule) {
  XPON_START_BOARD("board-fc.json", kFcProduct);
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  // Every function has subscribed and made its first poll.
  ASSERT_NO_FATAL_FAILURE(settle(1));
  const auto state = ask(IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE);
  ASSERT_TRUE(state.has_value()) << state.error().to_string() << rig_.daemon_log();
  EXPECT_EQ(state.value().result, 1U);
  ASSERT_EQ(state.value().payload.size(), 50U);
  EXPECT_EQ(state.value().payload[30], 6);  // the example module's six fans
  EXPECT_EQ(state.value().payload[2], 95);
  const auto factory = ask(IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY);
  ASSERT_TRUE(factory.has_value()) << factory.error().to_string();
  ASSERT_EQ(factory.value().payload.size(), 42U);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(factory.value().payload.data()), 12), "FAN-MODULE-6");

  const auto empty = ask(IPC_SYSTEM_MGR__SET_FAN_MODULE_SPEED);
  ASSERT_TRUE(empty.has_value()) << empty.error().to_string();
  EXPECT_EQ(empty.value().result, 0U);
  EXPECT_EQ(state_value("speed_setting"), 102U);
  const auto set = ask(IPC_SYSTEM_MGR__SET_FAN_MODULE_SPEED, {0x9F});
  ASSERT_TRUE(set.has_value()) << set.error().to_string();
  EXPECT_EQ(set.value().result, 1U);
  EXPECT_EQ(state_value("speed_setting"), 159U);
}

// One board operation a request reaches, made to fail (EIO) after 1500 ms once.
struct FaultyOperation {
  const char* scenario;
  const char* product;
  const char* command;
  std::uint16_t request;
  std::vector<std::uint8_t> payload;
};

void PrintTo(const FaultyOperation& operation, std::ostream* out) {
  *out << operation.command;
}

class FaultyOperationTest : public TempFanSystemTest, public testing::WithParamInterface<FaultyOperation> {};

TEST_P(FaultyOperationTest, ASlowFailingBoardCallGivesTheErrorAnswerAndTheNextCallRecovers) {
  const FaultyOperation& operation = GetParam();
  XPON_START_BOARD(operation.scenario, operation.product);
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  ASSERT_NO_FATAL_FAILURE(settle(1));
  ASSERT_NO_FATAL_FAILURE(patch_emulator(std::string(R"({"faults": {")") + operation.command +
                                         R"(": {"errno": "EIO", "delay_ms": 1500, "count": 1}}})"));
  const auto started = std::chrono::steady_clock::now();
  const auto failed = ask(operation.request, operation.payload);
  ASSERT_TRUE(failed.has_value()) << failed.error().to_string() << rig_.daemon_log();
  EXPECT_EQ(failed.value().result, 0U);
  EXPECT_TRUE(failed.value().payload.empty());
  EXPECT_GE(std::chrono::steady_clock::now() - started, 1500ms);
  const auto recovered = ask(operation.request, operation.payload);
  ASSERT_TRUE(recovered.has_value()) << recovered.error().to_string() << rig_.daemon_log();
  EXPECT_EQ(recovered.value().result, 1U);
  EXPECT_TRUE(rig_.daemon().running());
}

INSTANTIATE_TEST_SUITE_P(
    BoardOperations, FaultyOperationTest,
    testing::Values(
        FaultyOperation{"board-lt.json", kLtProduct, "BOARD_GET_TEMP_INFO", IPC_SYSTEM_MGR__GET_TEMP, {}},
        FaultyOperation{"board-lt.json", kLtProduct, "BOARD_GET_FAN_INFO", IPC_SYSTEM_MGR__GET_FAN_STATES, {}},
        FaultyOperation{"board-lt.json", kLtProduct, "BOARD_SET_FAN_SPEED", IPC_SYSTEM_MGR__SET_FAN_SPEED, {0x66}},
        FaultyOperation{
            "board-fc.json", kFcProduct, "BOARD_GET_FAN_MODULE_STATE", IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE, {}},
        FaultyOperation{
            "board-fc.json", kFcProduct, "BOARD_GET_FAN_MODULE_FACTORY", IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY, {}},
        FaultyOperation{
            "board-fc.json", kFcProduct, "BOARD_SET_FAN_MODULE_SPEED", IPC_SYSTEM_MGR__SET_FAN_MODULE_SPEED, {0x9F}}),
    [](const testing::TestParamInfo<FaultyOperation>& operation) {
      return std::string(operation.param.command).substr(6);
    });

TEST_F(TempFanSystemTest, AnUnreadableFanModuleRaisesItsAlarmAndAReadableOneClearsIt) {
  XPON_START_BOARD("board-fc.json", kFcProduct);
  BusSubscriber subscriber(rig_.path("/run/xpon/ipc"));
  ASSERT_TRUE(subscriber.wait_subscribed(kStepTimeout)) << rig_.helper_logs();
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  ASSERT_NO_FATAL_FAILURE(settle(1));
  ASSERT_NO_FATAL_FAILURE(
      patch_emulator(R"({"faults": {"BOARD_GET_FAN_MODULE_STATE": {"errno": "EIO", "count": 1}}})"));
  // The restart's first poll finds the module unreadable.
  ASSERT_NO_FATAL_FAILURE(restart(2));
  std::vector<std::string> module_alarms;
  while (module_alarms.size() < 2) {
    const auto alarm = subscriber.next_alarm(kStepTimeout);
    ASSERT_TRUE(alarm.has_value()) << "module alarms seen: " << module_alarms.size() << rig_.daemon_log();
    if (u32_at(alarm->payload, 9) == kAlarmFan && u32_at(alarm->payload, 17) == 0) {
      module_alarms.push_back(text_of(alarm->payload));
    }
  }
  // The first start reported the module readable; the restart's poll could not read it.
  EXPECT_EQ(module_alarms, (std::vector<std::string>{"Fan Module fault is back to normal", "Fan Module fault"}));
  EXPECT_TRUE(rig_.daemon().running());
}

}  // namespace
}  // namespace xpon::system_mgr::test
