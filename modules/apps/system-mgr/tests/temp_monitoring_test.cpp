#include "xpon/system_mgr/functions/temp_monitoring.hpp"

#include "function_test.hpp"
#include "xpon/core/guard.hpp"
#include "xpon/test/fake_board.hpp"
#include "xpon/test/wait.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace xpon::system_mgr {
namespace {

using namespace std::chrono_literals;
using core::Error;
using test::BoardOp;

constexpr ipc::Address kSender = 0x0042FFFEU;
constexpr std::uint16_t kTag = 0x4321;

Brd__temp_info reading(std::int32_t id, std::int8_t temperature) {
  Brd__temp_info record{};
  record.id = id;
  record.temperature = temperature;
  return record;
}

// The function over a real configuration database and a fake board. The process-wide
// "maximum rate asked for" flag is put back before every test.
class TempMonitoringTest : public FunctionTest {
 protected:
  void SetUp() override {
    TempMonitoring::set_event_max_rate_sent(false);
    board->answer(BoardOp::get_temp_count, std::uint8_t{1});
  }
  void TearDown() override { TempMonitoring::set_event_max_rate_sent(false); }

  std::unique_ptr<TempMonitoring> make(std::chrono::milliseconds period = 20000ms) {
    return std::make_unique<TempMonitoring>(logger, ipc, cfgdb, board, period, host);
  }

  // Fan control: mode 0 (automatic) or 1, family 0 LT, 1 LC, 2 FC.
  void store_fan(std::uint32_t mode, std::uint32_t family) { store_section(cfgdb::kFan, {mode, family}); }

  void set_readings(const std::vector<Brd__temp_info>& readings) {
    board->answer(BoardOp::get_temp_count, static_cast<std::uint8_t>(readings.size()));
    board->answer(BoardOp::get_temp_info, readings);
  }

  // An FC board's function; the Election Manager answers that `master` is the master's slot.
  std::unique_ptr<TempMonitoring> make_fc(std::uint16_t master) {
    store_fan(0, 2);
    ipc->answer_next_request(election_answer(master));
    return make();
  }

  static ipc::Response election_answer(std::uint16_t slot, std::uint32_t result = 1) {
    ipc::Response response;
    response.payload = {static_cast<std::uint8_t>(slot & 0xFFU), static_cast<std::uint8_t>(slot >> 8U)};
    response.result = result;
    return response;
  }

  static ipc::Payload expected_alarm(std::uint8_t state, std::uint32_t instance, std::int8_t temperature,
                                     const std::string& text) {
    return alarm_record(state, 4, instance, static_cast<std::uint8_t>(temperature), text);
  }

  static ipc::Request temp_request(ipc::Payload payload = {}) {
    return daemon_request(IPC_SYSTEM_MGR__GET_TEMP, std::move(payload), kSender, kTag);
  }

  static ipc::Event rate_event(std::uint16_t id, std::uint16_t slot) {
    ipc::Event event;
    event.address = 0x0000FFFE;
    event.group = IPC_SYSTEM_MGR;
    event.id = id;
    event.source = ipc::make_address(0x0019, slot);
    return event;
  }

  [[nodiscard]] std::vector<ipc::Payload> alarms() const { return alarm_payloads(); }

  // The ids of the fan rate events sent so far.
  [[nodiscard]] std::vector<std::uint16_t> rate_events() const {
    std::vector<std::uint16_t> ids;
    for (const auto& event : ipc->events()) {
      if (event.group == IPC_SYSTEM_MGR) {
        EXPECT_EQ(event.address, 0x0000FFFEU);
        EXPECT_TRUE(event.payload.empty());
        ids.push_back(event.id);
      }
    }
    return ids;
  }

  // A function that reads sensor 0 at 70 C against the limits 0/80, with automatic LT fan control.
  std::unique_ptr<TempMonitoring> make_reading_70_with_limits_0_80_and_automatic_lt_fans() {
    store_fan(0, 0);
    store_section(cfgdb::kAlarmSystemTemperature, {0, 80, 0, 80, 0, 80, 0, 80, 0, 80});
    set_readings({reading(0, 70)});
    return make();
  }

  // After a change list whose first section cannot be re-read: the failure, logged once, and a
  // poll that shows both sections as read at construction (the reading normal, the fans raised).
  void expect_nothing_re_read(TempMonitoring& function, const std::vector<Config_change>& changes) {
    logger->clear();
    expect_failed_reread(function.config_change({}, changes),
                         {"Change config event [ALARM_SYSTEM_TEMPERATURE]", "Change config event [FAN]"});
    ASSERT_TRUE(function.polling());
    EXPECT_EQ(
        alarms(),
        (std::vector<ipc::Payload>{expected_alarm(1, 1, 70, "Sensor PON SFP 1 temperature 70C is back to normal")}));
    EXPECT_EQ(board->arguments<std::uint8_t>(BoardOp::set_fan_speed), (std::vector<std::uint8_t>{159}));
  }

  // Slot 5 asks an FC master for the maximum rate: the slot is recorded, the board is not touched.
  void expect_max_rate_from_slot_5_recorded_without_touching_the_board(TempMonitoring& function) {
    board->clear_calls();
    ASSERT_TRUE(function.handle_event(rate_event(IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE, 5)));
    EXPECT_TRUE(logger->contains("Handle IPC event [IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE] | Slot ID 5", 0));
    EXPECT_TRUE(function.slot_max_rate().at(5));
    EXPECT_TRUE(board->calls().empty());
  }

  std::shared_ptr<test::FakeBoard> board = std::make_shared<test::FakeBoard>();
};

// --- Construction -----------------------------------------------------------------------------

TEST_F(TempMonitoringTest, ConstructionReadsTheSensorCountAndLogsItsLife) {
  board->answer(BoardOp::get_temp_count, std::uint8_t{3});
  {
    auto function = make();
    EXPECT_EQ(function->sensor_count(), 3);
    EXPECT_EQ(function->name(), "TempMonitoring");
    EXPECT_EQ(function->period(), 20000ms);
    EXPECT_EQ(board->ops(), (std::vector<BoardOp>{BoardOp::get_temp_count}));
    EXPECT_TRUE(logger->contains("TempMonitoring create successfully", 0));
    // Not an FC fan family: nobody is asked about mastership and no slot is kept.
    EXPECT_TRUE(ipc->requests().empty());
    EXPECT_EQ(function->own_slot(), 0);
    EXPECT_TRUE(function->slot_max_rate().empty());
  }
  EXPECT_TRUE(logger->contains("TempMonitoring destroy successfully", 0));
}

TEST_F(TempMonitoringTest, UnreadableTemperatureSectionFailsConstruction) {
  store_raw_field(cfgdb::kAlarmSystemTemperature, "sensor0_upper", "300");
  expect_construction_failure([&] { make(); }, "Config update for TempMonitoring failed (Error: ErrorCApi) ");
  EXPECT_TRUE(logger->contains("C API function returned -1, errno=22", 4));
  EXPECT_TRUE(board->calls().empty());
}

TEST_F(TempMonitoringTest, UnreadableFanSectionFailsConstruction) {
  store_raw_field(cfgdb::kFan, "family", "9");
  expect_construction_failure([&] { make(); }, "Fan config update for TempMonitoring failed (Error: ErrorCApi) ");
  EXPECT_TRUE(board->calls().empty());
}

TEST_F(TempMonitoringTest, SensorCountFailureFailsConstruction) {
  board->fail(BoardOp::get_temp_count, Error::ErrorCApi, "no count");
  expect_construction_failure(
      [&] { make(); },
      "Get temperature sensor count for TempMonitoring failed (Error: ErrorCApi. Message: no count.) ");
}

TEST_F(TempMonitoringTest, FcFamilyAsksTheElectionManagerBeforeItKnowsItsOwnSlot) {
  // The answer names slot 0: the first query compares with own_slot while it is still 0, on purpose.
  auto function = make_fc(0);
  const auto requests = ipc->requests();
  ASSERT_EQ(requests.size(), 1U);
  EXPECT_EQ(requests[0].address, 0x0015FFFEU);
  EXPECT_EQ(requests[0].request.address, 0x0000FFFEU);
  EXPECT_EQ(requests[0].request.group, 14500);
  EXPECT_EQ(requests[0].request.id, 14504);
  EXPECT_TRUE(requests[0].request.payload.empty());
  EXPECT_EQ(requests[0].timeout, 1000ms);
  EXPECT_TRUE(function->is_master());
  EXPECT_EQ(function->own_slot(), 21);
  std::unordered_map<std::uint16_t, bool> expected;
  for (std::uint16_t slot = 1; slot <= 16; ++slot) {
    expected[slot] = false;
  }
  expected[21] = false;
  expected[22] = false;
  EXPECT_EQ(function->slot_max_rate(), expected);
}

TEST_F(TempMonitoringTest, FcFamilyWithoutAnElectionAnswerFailsConstruction) {
  store_fan(0, 2);
  expect_construction_failure([&] { make(); },
                              "Triggering master change for TempMonitoring failed (Error: CommonError. Message: no "
                              "answer to the mastership query.) ");
}

// --- Mastership -------------------------------------------------------------------------------

TEST_F(TempMonitoringTest, MasterChangeOnAnLcFamilyAsksNothing) {
  store_fan(0, 1);
  auto function = make();
  // An answer is at hand, so that a query would make the board master: none is made.
  ipc->answer_next_request(election_answer(0));
  EXPECT_TRUE(function->master_change({}));
  EXPECT_TRUE(ipc->requests().empty());
  EXPECT_FALSE(function->is_master());
}

TEST_F(TempMonitoringTest, MasterChangeNamingSlot21MakesTheFcBoardMaster) {
  auto function = make_fc(7);
  EXPECT_FALSE(function->is_master());
  ipc->answer_next_request(election_answer(21));
  EXPECT_TRUE(function->master_change({}));
  EXPECT_TRUE(function->is_master());
  // Every query, at construction and on each change, waits at most a second for its answer.
  for (const auto& request : ipc->requests()) {
    EXPECT_EQ(request.timeout, 1000ms);
  }
  ipc->answer_next_request(election_answer(22));
  EXPECT_TRUE(function->master_change({}));
  EXPECT_FALSE(function->is_master());
}

TEST_F(TempMonitoringTest, MasterChangeOnAnLtFamilyAlsoAsks) {
  store_fan(0, 0);
  auto function = make();
  EXPECT_FALSE(function->is_master());
  // Not an FC family: the own slot stays 0, so an answer naming slot 0 makes the board master.
  ipc->answer_next_request(election_answer(0));
  EXPECT_TRUE(function->master_change({}));
  const auto requests = ipc->requests();
  ASSERT_EQ(requests.size(), 1U);
  EXPECT_EQ(requests[0].address, 0x0015FFFEU);
  EXPECT_EQ(requests[0].request.group, 14500);
  EXPECT_EQ(requests[0].request.id, 14504);
  EXPECT_EQ(requests[0].timeout, 1000ms);
  EXPECT_EQ(function->own_slot(), 0);
  EXPECT_TRUE(function->is_master());
  ipc->answer_next_request(election_answer(21));
  EXPECT_TRUE(function->master_change({}));
  EXPECT_FALSE(function->is_master());
}

TEST_F(TempMonitoringTest, ErrorAnswerOrShortPayloadIsCommonErrorAndKeepsMastership) {
  auto function = make_fc(0);
  ipc->answer_next_request(election_answer(5, 0));
  auto result = function->master_change({});
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  ipc::Response short_answer;
  short_answer.result = 1;
  short_answer.payload = {21};
  ipc->answer_next_request(short_answer);
  result = function->master_change({});
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  EXPECT_TRUE(function->is_master());
}

// --- Polling: alarms --------------------------------------------------------------------------

TEST_F(TempMonitoringTest, EverySensorIsReportedInBoardOrderWithItsRecord) {
  store_fan(1, 0);
  set_readings({reading(2, 45), reading(0, 30), reading(4, 50)});
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(alarms(), (std::vector<ipc::Payload>{
                          expected_alarm(1, 3, 45, "Sensor Front SFP temperature 45C is back to normal"),
                          expected_alarm(1, 1, 30, "Sensor PON SFP 1 temperature 30C is back to normal"),
                          expected_alarm(1, 5, 50, "Sensor PON chip   temperature 50C is back to normal")}));
  EXPECT_TRUE(logger->contains("Sensor id 2 temperature 45 C. Sensor name: Front SFP", 0));
  EXPECT_TRUE(logger->contains("Sensor id 4 temperature 50 C. Sensor name: PON chip  ", 0));
  EXPECT_EQ(host->calls().size(), 3U);
}

TEST_F(TempMonitoringTest, ReadingEqualToEitherLimitIsAnAlarm) {
  store_fan(1, 0);
  store_section(cfgdb::kAlarmSystemTemperature, {10, 40, 10, 40, 0, 80, 0, 80, 0, 80});
  set_readings({reading(0, 10), reading(1, 40), reading(1, 11)});
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(alarms(), (std::vector<ipc::Payload>{
                          expected_alarm(0, 1, 10, "Sensor PON SFP 1 temperature 10C"),
                          expected_alarm(0, 2, 40, "Sensor PON SFP 2 temperature 40C"),
                          expected_alarm(1, 2, 11, "Sensor PON SFP 2 temperature 11C is back to normal")}));
}

TEST_F(TempMonitoringTest, NegativeReadingIsSignedAgainstTheLimits) {
  store_fan(1, 0);
  store_section(cfgdb::kAlarmSystemTemperature, {0, 80, 0, 80, 0, 80, 0, 80, 0, 80});
  set_readings({reading(3, -3), reading(3, 1)});
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(alarms(), (std::vector<ipc::Payload>{
                          expected_alarm(0, 4, -3, "Sensor Switch chip temperature -3C"),
                          expected_alarm(1, 4, 1, "Sensor Switch chip temperature 1C is back to normal")}));
}

TEST_F(TempMonitoringTest, UnknownSensorIdIsSkippedWithAWarning) {
  store_fan(1, 0);
  set_readings({reading(9, 99), reading(0, 30)});
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_TRUE(logger->contains("Temperature sensor Unkown (9) not yet supported in data-model", 3));
  ASSERT_EQ(alarms().size(), 1U);
  EXPECT_EQ(text_of(alarms()[0]), "Sensor PON SFP 1 temperature 30C is back to normal");
}

TEST_F(TempMonitoringTest, NegativeSensorIdIsSkippedLikeAnUnknownOne) {
  store_fan(1, 0);
  set_readings({reading(-1, 30)});
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_TRUE(logger->contains("Temperature sensor Unkown (-1) not yet supported in data-model", 3));
  EXPECT_TRUE(alarms().empty());
}

TEST_F(TempMonitoringTest, SensorFiveEndsThePollThroughTheGuard) {
  store_fan(1, 0);
  set_readings({reading(0, 30), reading(5, 30), reading(1, 30)});
  auto function = make();
  const auto result = core::guarded_call(*logger, [&] { return function->polling(); });
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Exception);
  EXPECT_TRUE(logger->contains("An std::exception was thrown: string pointer is null ", 4));
  // The sensor before it was reported, the one after it not.
  ASSERT_EQ(alarms().size(), 1U);
  EXPECT_EQ(alarms()[0][17], 1);
}

TEST_F(TempMonitoringTest, FormattingOutsideOneTo255EndsThePoll) {
  store_fan(1, 0);
  set_readings({reading(0, 30), reading(1, 30)});
  auto function = make();
  for (const int returned : {0, -1, 256}) {
    host->set_format_result(returned);
    logger->clear();
    const auto result = function->polling();
    ASSERT_TRUE(result.has_error());
    EXPECT_EQ(result.error().error, Error::ErrorCApi);
    EXPECT_TRUE(logger->contains("snprintf() call failed(" + std::to_string(returned) + ")", 4));
  }
  EXPECT_TRUE(ipc->events().empty());
  host->set_format_result(255);
  EXPECT_TRUE(function->polling());
  EXPECT_EQ(alarms().size(), 2U);
}

TEST_F(TempMonitoringTest, FailedAlarmSendEndsThePollBeforeTheFanStep) {
  store_fan(0, 0);
  set_readings({reading(0, 70), reading(1, 70)});
  auto function = make();
  ipc->fail_next_send();
  const auto result = function->polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_TRUE(ipc->events().empty());
  EXPECT_EQ(board->count(BoardOp::set_fan_speed), 0U);
}

TEST_F(TempMonitoringTest, BoardReadFailureEndsThePollWithoutSending) {
  board->fail(BoardOp::get_temp_info, Error::ErrorCApi, "no readings");
  auto function = make();
  const auto result = function->polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  EXPECT_TRUE(ipc->events().empty());
  EXPECT_TRUE(logger->contains("Error: ErrorCApi. Message: no readings.", 4));
}

TEST_F(TempMonitoringTest, NoSensorsPollSendsNothingAndSucceeds) {
  set_readings({});
  auto function = make();
  EXPECT_EQ(function->sensor_count(), 0);
  ASSERT_TRUE(function->polling());
  EXPECT_TRUE(ipc->events().empty());
  const auto asked = board->arguments<std::vector<Brd__temp_info>>(BoardOp::get_temp_info);
  ASSERT_EQ(asked.size(), 1U);
  EXPECT_TRUE(asked[0].empty());
}

// The function with its sensor limits zeroed, as the record of a section never filled (the
// database itself refuses a lower limit at or above the upper one).
class NeverFilledTempMonitoring : public TempMonitoring {
 public:
  using TempMonitoring::TempMonitoring;
  void forget_limits() {
    const std::lock_guard lock(mutex());
    std::memset(&thresholds(), 0, sizeof(CfgDb__alarm_system_temperature));
  }
};

TEST_F(TempMonitoringTest, LimitsZeroAndZeroMakeEverySensorAnAlarm) {
  store_fan(1, 0);
  set_readings({reading(0, 0), reading(1, 1), reading(2, -1), reading(3, 30), reading(4, 127)});
  NeverFilledTempMonitoring function(logger, ipc, cfgdb, board, 20000ms, host);
  function.forget_limits();
  ASSERT_TRUE(function.polling());
  EXPECT_EQ(alarms(), (std::vector<ipc::Payload>{expected_alarm(0, 1, 0, "Sensor PON SFP 1 temperature 0C"),
                                                 expected_alarm(0, 2, 1, "Sensor PON SFP 2 temperature 1C"),
                                                 expected_alarm(0, 3, -1, "Sensor Front SFP temperature -1C"),
                                                 expected_alarm(0, 4, 30, "Sensor Switch chip temperature 30C"),
                                                 expected_alarm(0, 5, 127, "Sensor PON chip   temperature 127C")}));
}

TEST_F(TempMonitoringTest, TheBoardIsAskedForExactlyTheSensorCount) {
  set_readings({reading(0, 30), reading(1, 30), reading(2, 30)});
  auto function = make();
  ASSERT_TRUE(function->polling());
  const auto asked = board->arguments<std::vector<Brd__temp_info>>(BoardOp::get_temp_info);
  ASSERT_EQ(asked.size(), 1U);
  EXPECT_EQ(asked[0].size(), 3U);
}

// --- Automatic fan control: LT ----------------------------------------------------------------

TEST_F(TempMonitoringTest, LtBoardRaisesItsFansAbove60AndLowersThemBelow) {
  store_fan(0, 0);
  set_readings({reading(0, 61)});
  auto function = make();
  ASSERT_TRUE(function->polling());
  set_readings({reading(0, 59)});
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(board->arguments<std::uint8_t>(BoardOp::set_fan_speed), (std::vector<std::uint8_t>{159, 102}));
  EXPECT_FALSE(function->max_rate_set());
}

TEST_F(TempMonitoringTest, ExactlySixtyNeverChangesTheFanSetting) {
  store_fan(0, 0);
  set_readings({reading(0, 60)});
  auto function = make();
  ASSERT_TRUE(function->polling());
  set_readings({reading(0, 70), reading(1, 60)});
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(board->arguments<std::uint8_t>(BoardOp::set_fan_speed), (std::vector<std::uint8_t>{159}));
  EXPECT_TRUE(function->max_rate_set());
}

TEST_F(TempMonitoringTest, TheLastSensorDecidesWithinOnePoll) {
  store_fan(0, 0);
  set_readings({reading(0, 70), reading(1, 40)});
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(board->arguments<std::uint8_t>(BoardOp::set_fan_speed), (std::vector<std::uint8_t>{159, 102}));
  EXPECT_FALSE(function->max_rate_set());
}

TEST_F(TempMonitoringTest, FirstPollBelowSixtyDoesNothing) {
  store_fan(0, 0);
  set_readings({reading(0, 20)});
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(board->count(BoardOp::set_fan_speed), 0U);
}

TEST_F(TempMonitoringTest, FailedFanSettingIsTriedAgainOnTheNextPoll) {
  store_fan(0, 0);
  set_readings({reading(0, 70), reading(1, 70)});
  board->fail(BoardOp::set_fan_speed, Error::ErrorCApi, "busy", test::FakeBoard::Times::once);
  auto function = make();
  const auto result = function->polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  // The poll ended at the first sensor.
  EXPECT_EQ(alarms().size(), 1U);
  EXPECT_FALSE(function->max_rate_set());
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(board->arguments<std::uint8_t>(BoardOp::set_fan_speed), (std::vector<std::uint8_t>{159, 159}));
  EXPECT_TRUE(function->max_rate_set());
}

TEST_F(TempMonitoringTest, ManualFanModeLeavesTheFansAlone) {
  store_fan(1, 0);
  set_readings({reading(0, 90)});
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(board->count(BoardOp::set_fan_speed), 0U);
  EXPECT_TRUE(rate_events().empty());
}

TEST_F(TempMonitoringTest, FanSectionChangeSwitchesTheModeButKeepsTheRateFlag) {
  store_fan(0, 0);
  set_readings({reading(0, 70)});
  auto function = make();
  ASSERT_TRUE(function->polling());
  store_fan(1, 0);
  logger->clear();
  ASSERT_TRUE(function->config_change({}, {{42, 1, 0}}));
  EXPECT_TRUE(logger->contains("Change config event [FAN]", 0));
  EXPECT_TRUE(function->max_rate_set());
  set_readings({reading(0, 20)});
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(board->arguments<std::uint8_t>(BoardOp::set_fan_speed), (std::vector<std::uint8_t>{159}));
}

TEST_F(TempMonitoringTest, TemperatureSectionChangeIsReRead) {
  store_fan(1, 0);
  set_readings({reading(0, 50)});
  auto function = make();
  store_section(cfgdb::kAlarmSystemTemperature, {0, 50, 0, 80, 0, 80, 0, 80, 0, 80});
  ASSERT_TRUE(function->config_change({}, {{81, 1, 0}, {80, 1, 0}}));
  EXPECT_TRUE(logger->contains("Change config event [ALARM_SYSTEM_TEMPERATURE]", 0));
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(text_of(alarms().back()), "Sensor PON SFP 1 temperature 50C");
}

TEST_F(TempMonitoringTest, FailedTemperatureReadOnChangeIsLoggedAndTheFanSectionAfterItIsNotLookedAt) {
  auto function = make_reading_70_with_limits_0_80_and_automatic_lt_fans();
  store_raw_field(cfgdb::kAlarmSystemTemperature, "sensor0_upper", "300");
  store_fan(1, 0);
  expect_nothing_re_read(*function, {{81, 1, 0}, {42, 1, 0}});
}

TEST_F(TempMonitoringTest, FailedFanReadOnChangeIsLoggedAndTheTemperatureSectionAfterItIsNotLookedAt) {
  auto function = make_reading_70_with_limits_0_80_and_automatic_lt_fans();
  store_raw_field(cfgdb::kFan, "family", "9");
  store_section(cfgdb::kAlarmSystemTemperature, {0, 50, 0, 80, 0, 80, 0, 80, 0, 80});
  expect_nothing_re_read(*function, {{42, 1, 0}, {81, 1, 0}});
}

// --- Automatic fan control: by event (LC, non-master FC) ---------------------------------------

TEST_F(TempMonitoringTest, LcBoardAsksTheMasterByEvent) {
  store_fan(0, 1);
  set_readings({reading(0, 70)});
  auto function = make();
  ASSERT_TRUE(function->polling());
  ASSERT_TRUE(function->polling());
  set_readings({reading(0, 60)});
  ASSERT_TRUE(function->polling());
  set_readings({reading(0, 50)});
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(rate_events(), (std::vector<std::uint16_t>{IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE,
                                                       IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE}));
  EXPECT_TRUE(board->arguments<std::uint8_t>(BoardOp::set_fan_speed).empty());
}

TEST_F(TempMonitoringTest, TheEventFlagIsSharedByEveryInstance) {
  store_fan(0, 1);
  set_readings({reading(0, 70)});
  auto first = make();
  auto second = make();
  ASSERT_TRUE(first->polling());
  ASSERT_TRUE(second->polling());
  EXPECT_TRUE(TempMonitoring::event_max_rate_sent());
  EXPECT_EQ(rate_events(), (std::vector<std::uint16_t>{IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE}));
}

TEST_F(TempMonitoringTest, FailedEventSendKeepsTheFlag) {
  store_fan(0, 1);
  set_readings({reading(0, 40)});
  // The master was asked for the maximum rate earlier; this poll's first send (the alarm) goes
  // out, its second (the minimum-rate event) fails.
  TempMonitoring::set_event_max_rate_sent(true);
  auto failing = std::make_shared<FailingNthEventIpc>(2);
  TempMonitoring function(logger, failing, cfgdb, board, 20000ms, host);
  auto result = function.polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().to_string(), "Error: CommonError. Message: send failed.");
  const auto events = failing->events();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].group, 9000);
  EXPECT_EQ(events[0].id, 9005);
  EXPECT_EQ(events[0].payload, expected_alarm(1, 1, 40, "Sensor PON SFP 1 temperature 40C is back to normal"));
  EXPECT_TRUE(TempMonitoring::event_max_rate_sent());
}

TEST_F(TempMonitoringTest, NonMasterFcBoardAsksByEvent) {
  auto function = make_fc(9);
  set_readings({reading(0, 70)});
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(rate_events(), (std::vector<std::uint16_t>{IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE}));
  EXPECT_EQ(board->count(BoardOp::set_fan_module_speed), 0U);
}

// --- Automatic fan control: master FC ---------------------------------------------------------

TEST_F(TempMonitoringTest, MasterFcBoardDrivesTheFanModuleFromItsOwnTemperature) {
  auto function = make_fc(0);
  set_readings({reading(0, 65)});
  ASSERT_TRUE(function->polling());
  set_readings({reading(0, 60)});
  ASSERT_TRUE(function->polling());
  set_readings({reading(0, 55)});
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(board->arguments<std::uint8_t>(BoardOp::set_fan_module_speed), (std::vector<std::uint8_t>{159, 102}));
  EXPECT_TRUE(rate_events().empty());
}

TEST_F(TempMonitoringTest, MasterFcBoardKeepsTheMaximumWhileASlotAsks) {
  auto function = make_fc(0);
  ASSERT_TRUE(function->handle_event(rate_event(IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE, 5)));
  EXPECT_EQ(board->arguments<std::uint8_t>(BoardOp::set_fan_module_speed), (std::vector<std::uint8_t>{159}));
  set_readings({reading(0, 30)});
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(board->count(BoardOp::set_fan_module_speed), 1U);
  ASSERT_TRUE(function->handle_event(rate_event(IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE, 5)));
  // Lowered only by the next poll.
  EXPECT_EQ(board->count(BoardOp::set_fan_module_speed), 1U);
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(board->arguments<std::uint8_t>(BoardOp::set_fan_module_speed), (std::vector<std::uint8_t>{159, 102}));
}

// --- Events -----------------------------------------------------------------------------------

TEST_F(TempMonitoringTest, NonFcBoardReceivingMaxRateLogsAndChangesNothing) {
  auto function = make();
  ASSERT_TRUE(function->handle_event(rate_event(IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE, 5)));
  EXPECT_TRUE(
      logger->contains("IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE event handled only FC device family", 4));
  EXPECT_TRUE(function->slot_max_rate().empty());
  EXPECT_EQ(board->ops(), (std::vector<BoardOp>{BoardOp::get_temp_count}));
}

TEST_F(TempMonitoringTest, NonFcBoardReceivingMinRateLogsAndChangesNothing) {
  auto function = make();
  ASSERT_TRUE(function->handle_event(rate_event(IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE, 5)));
  EXPECT_TRUE(
      logger->contains("IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE event handled only FC device family", 4));
  EXPECT_TRUE(function->slot_max_rate().empty());
}

TEST_F(TempMonitoringTest, MasterAlreadyAtMaximumOnlyRecordsTheSlot) {
  auto function = make_fc(0);
  set_readings({reading(0, 70)});
  ASSERT_TRUE(function->polling());
  expect_max_rate_from_slot_5_recorded_without_touching_the_board(*function);
}

TEST_F(TempMonitoringTest, MasterInManualModeRecordsTheSlotWithoutTouchingTheBoard) {
  store_fan(1, 2);
  ipc->answer_next_request(election_answer(0));
  auto function = make();
  ASSERT_TRUE(function->is_master());
  expect_max_rate_from_slot_5_recorded_without_touching_the_board(*function);
  EXPECT_FALSE(function->max_rate_set());
  // Nor does a poll while the slot asks: the mode is manual.
  set_readings({reading(0, 30)});
  board->clear_calls();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(board->ops(), (std::vector<BoardOp>{BoardOp::get_temp_info}));
}

TEST_F(TempMonitoringTest, NonMasterFcRecordsTheSlotWithoutTouchingTheFans) {
  auto function = make_fc(3);
  ASSERT_TRUE(function->handle_event(rate_event(IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE, 12)));
  EXPECT_TRUE(function->slot_max_rate().at(12));
  EXPECT_EQ(board->count(BoardOp::set_fan_module_speed), 0U);
}

TEST_F(TempMonitoringTest, EventsFromSlotsOutsideTheCrateAreAdded) {
  auto function = make_fc(0);
  for (const std::uint16_t slot : {std::uint16_t{0}, std::uint16_t{65534}, std::uint16_t{17}}) {
    ASSERT_TRUE(function->handle_event(rate_event(IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE, slot)));
    EXPECT_TRUE(function->slot_max_rate().at(slot));
  }
  EXPECT_EQ(function->slot_max_rate().size(), 21U);
  ASSERT_TRUE(function->handle_event(rate_event(IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE, 65534)));
  EXPECT_TRUE(
      logger->contains("Handle IPC event [IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE] | Slot ID 65534", 0));
  EXPECT_FALSE(function->slot_max_rate().at(65534));
  EXPECT_EQ(board->arguments<std::uint8_t>(BoardOp::set_fan_module_speed), (std::vector<std::uint8_t>{159}));
}

TEST_F(TempMonitoringTest, EventPayloadIsIgnored) {
  auto function = make_fc(0);
  auto event = rate_event(IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE, 4);
  event.payload = ipc::Payload(4096, 0xAB);
  ASSERT_TRUE(function->handle_event(event));
  EXPECT_TRUE(function->slot_max_rate().at(4));
}

TEST_F(TempMonitoringTest, UnknownEventIsCommonErrorNamingItsWords) {
  auto function = make_fc(0);
  const auto result = function->handle_event(rate_event(15539, 5));
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().to_string(), "Error: CommonError. Message: Unknown IPC event: 15500|15539.");
  auto other_group = rate_event(IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE, 5);
  other_group.group = 9000;
  const auto second = function->handle_event(other_group);
  ASSERT_TRUE(second.has_error());
  EXPECT_EQ(second.error().to_string(), "Error: CommonError. Message: Unknown IPC event: 9000|15537.");
  EXPECT_FALSE(function->slot_max_rate().at(5));
}

TEST_F(TempMonitoringTest, FailedModuleSettingOnAnEventIsLoggedAndTriedByTheNextPoll) {
  auto function = make_fc(0);
  board->fail(BoardOp::set_fan_module_speed, Error::ErrorCApi, "busy", test::FakeBoard::Times::once);
  ASSERT_TRUE(function->handle_event(rate_event(IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE, 5)));
  EXPECT_TRUE(logger->contains("Error: ErrorCApi. Message: busy.", 4));
  EXPECT_FALSE(function->max_rate_set());
  set_readings({reading(0, 30)});
  ASSERT_TRUE(function->polling());
  EXPECT_TRUE(function->max_rate_set());
  EXPECT_EQ(board->arguments<std::uint8_t>(BoardOp::set_fan_module_speed), (std::vector<std::uint8_t>{159, 159}));
}

// --- Requests ---------------------------------------------------------------------------------

TEST_F(TempMonitoringTest, GetTempForThreeSensorsIsExactly24RawBytes) {
  set_readings({reading(0, 30), reading(1, -20), reading(3, 99)});
  auto function = make();
  ASSERT_TRUE(function->handle_request(temp_request()));
  EXPECT_TRUE(logger->contains("Handle IPC request [IPC_SYSTEM_MGR__GET_TEMP]", 0));
  const auto response = only_response(kSender, kTag);
  EXPECT_EQ(response.result, 1U);
  EXPECT_EQ(response.payload,
            (ipc::Payload{0, 0, 0, 0, 30, 0, 0, 0, 1, 0, 0, 0, 0xEC, 0, 0, 0, 3, 0, 0, 0, 99, 0, 0, 0}));
}

TEST_F(TempMonitoringTest, GetTempWithNoSensorsAnswersAnEmptyPayload) {
  set_readings({});
  auto function = make();
  ASSERT_TRUE(function->handle_request(temp_request()));
  const auto response = only_response(kSender, kTag);
  EXPECT_EQ(response.result, 1U);
  EXPECT_TRUE(response.payload.empty());
}

TEST_F(TempMonitoringTest, GetTempIgnoresAnyPayload) {
  set_readings({reading(0, 30)});
  auto function = make();
  ASSERT_TRUE(function->handle_request(temp_request(ipc::Payload(70000, 0xFF))));
  EXPECT_EQ(only_response(kSender, kTag).payload, (ipc::Payload{0, 0, 0, 0, 30, 0, 0, 0}));
}

TEST_F(TempMonitoringTest, GetTempWithoutReplyInformationReadsAndSendsNothing) {
  auto function = make();
  auto request = temp_request();
  request.reply_to.reset();
  EXPECT_TRUE(function->handle_request(request));
  EXPECT_EQ(board->count(BoardOp::get_temp_info), 1U);
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(TempMonitoringTest, GetTempBoardFailureAnswersTheErrorResponse) {
  board->fail(BoardOp::get_temp_info, Error::ErrorCApi);
  auto function = make();
  const auto result = function->handle_request(temp_request());
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  const auto response = only_response(kSender, kTag);
  EXPECT_EQ(response.result, 0U);
  EXPECT_TRUE(response.payload.empty());
}

TEST_F(TempMonitoringTest, GetTempFailedSendIsReturned) {
  auto function = make();
  ipc->fail_next_send(Error::Empty);
  const auto result = function->handle_request(temp_request());
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Empty);
}

TEST_F(TempMonitoringTest, UnexpectedRequestIsCommonError) {
  auto function = make();
  auto request = temp_request();
  request.id = IPC_SYSTEM_MGR__GET_FAN_STATES;
  const auto result = function->handle_request(request);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().to_string(), "Error: CommonError. Message: Unexpected IPC request: 15500|15527.");
  EXPECT_TRUE(ipc->responses().empty());
}

// --- Subscriptions ----------------------------------------------------------------------------

TEST_F(TempMonitoringTest, SubscribesTheRequestAndBothEventsAndUndoesThem) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  EXPECT_TRUE(ipc->has_request_subscription(ipc::Key{IPC_SYSTEM_MGR, IPC_SYSTEM_MGR__GET_TEMP}));
  EXPECT_TRUE(ipc->has_event_subscription(ipc::Key{IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE}));
  EXPECT_TRUE(ipc->has_event_subscription(ipc::Key{IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE}));
  ASSERT_TRUE(function->ipc_unsubscribe());
  EXPECT_TRUE(ipc->request_subscriptions().empty());
  EXPECT_TRUE(ipc->event_subscriptions().empty());
}

// --- Threads ----------------------------------------------------------------------------------

TEST_F(TempMonitoringTest, EventsConfigurationAndPollsShareTheStateSafely) {
  // Exposes the wake-up so that the test can end the thread even when stop's own wake-up falls
  // into a poll (and is lost, as designed).
  class Wakeable : public TempMonitoring {
   public:
    using SysFunction::wake_polling_thread;
    using TempMonitoring::TempMonitoring;
  };
  store_fan(0, 2);
  ipc->answer_next_request(election_answer(0));
  set_readings({reading(0, 30), reading(1, 70)});
  auto function = std::make_unique<Wakeable>(logger, ipc, cfgdb, board, 2ms, host);
  ASSERT_TRUE(function->run());
  std::atomic<bool> done{false};
  std::thread events([&] {
    for (unsigned round = 0; !done.load(); ++round) {
      const auto id = (round % 2 == 0) ? IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE
                                       : IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE;
      static_cast<void>(
          ipc->inject_event(rate_event(static_cast<std::uint16_t>(id), static_cast<std::uint16_t>(1 + round % 16))));
      static_cast<void>(ipc->inject_request(temp_request()));
    }
  });
  std::thread config([&] {
    while (!done.load()) {
      static_cast<void>(function->config_change({}, {{81, 1, 0}, {42, 1, 0}}));
      ipc->answer_next_request(election_answer(21));
      static_cast<void>(function->master_change({}));
    }
  });
  ASSERT_TRUE(test::wait_until([&] { return board->count(BoardOp::get_temp_info) >= 20; }, 10s));
  done = true;
  events.join();
  config.join();
  auto stopped = std::async(std::launch::async, [&] { return function->stop(); });
  while (stopped.wait_for(5ms) != std::future_status::ready) {
    function->wake_polling_thread();
  }
  EXPECT_TRUE(stopped.get());
  // Sensor 1 at 70 C is the last one of every poll: the module was left at the maximum.
  EXPECT_TRUE(function->max_rate_set());
  EXPECT_TRUE(function->is_master());
}

// --- The per-sensor verdict, apart from the I/O ----------------------------------------------

struct VerdictCase {
  const char* name;
  std::int32_t id;
  int temperature;
  // Every sensor's lower and upper limit.
  std::uint8_t lower;
  std::uint8_t upper;
  FanControlState state;
  SensorVerdict verdict;
};

void PrintTo(const VerdictCase& verdict, std::ostream* out) {
  *out << verdict.name;
}

CfgDb__alarm_system_temperature limits_of(std::uint8_t lower, std::uint8_t upper) {
  CfgDb__alarm_system_temperature limits{};
  for (auto& sensor : limits.sensor) {
    sensor.lower = lower;
    sensor.upper = upper;
  }
  return limits;
}

// Fan control states: automatic mode with the family code and the flags of each path.
constexpr FanControlState manual(std::uint32_t family) {
  return FanControlState{.auto_fan = false, .family = family};
}
constexpr FanControlState lt(bool max_rate_set) {
  return FanControlState{.auto_fan = true, .family = 0, .max_rate_set = max_rate_set};
}
constexpr FanControlState by_event(std::uint32_t family, bool event_max_rate_sent, bool max_rate_set = false) {
  return FanControlState{
      .auto_fan = true, .family = family, .max_rate_set = max_rate_set, .event_max_rate_sent = event_max_rate_sent};
}
constexpr FanControlState master(bool max_rate_set, bool slot_asks, bool event_max_rate_sent = false) {
  return FanControlState{.auto_fan = true,
                         .family = 2,
                         .is_master = true,
                         .max_rate_set = max_rate_set,
                         .slot_asks = slot_asks,
                         .event_max_rate_sent = event_max_rate_sent};
}

constexpr FanDecision kNoFanAction{};
constexpr FanDecision kBoardMax{FanTarget::BoardFans, true};
constexpr FanDecision kBoardMin{FanTarget::BoardFans, false};
constexpr FanDecision kModuleMax{FanTarget::FanModule, true};
constexpr FanDecision kModuleMin{FanTarget::FanModule, false};
constexpr FanDecision kAskMax{FanTarget::MasterByEvent, true};
constexpr FanDecision kAskMin{FanTarget::MasterByEvent, false};

constexpr SensorVerdict normal(FanDecision fan = kNoFanAction) {
  return {true, true, fan};
}
constexpr SensorVerdict raised(FanDecision fan = kNoFanAction) {
  return {true, false, fan};
}
constexpr SensorVerdict kSkipped{};

class SensorVerdictTest : public testing::TestWithParam<VerdictCase> {};

TEST_P(SensorVerdictTest, DecidesTheAlarmAndTheFanStep) {
  const VerdictCase& verdict = GetParam();
  const SensorVerdict decided =
      decide_sensor(verdict.id, verdict.temperature, limits_of(verdict.lower, verdict.upper), verdict.state);
  EXPECT_EQ(decided.monitored, verdict.verdict.monitored);
  EXPECT_EQ(decided.normal, verdict.verdict.normal);
  EXPECT_EQ(decided.fan.target, verdict.verdict.fan.target);
  EXPECT_EQ(decided.fan.maximum, verdict.verdict.fan.maximum);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SensorVerdictTest,
    testing::Values(
        // The alarm: strictly inside both limits is normal; the ids 0 to 4 have limits.
        VerdictCase{"InsideBothLimitsIsNormal", 0, 30, 10, 40, manual(0), normal()},
        VerdictCase{"AtTheLowerLimitIsRaised", 1, 10, 10, 40, manual(0), raised()},
        VerdictCase{"AtTheUpperLimitIsRaised", 4, 40, 10, 40, manual(0), raised()},
        VerdictCase{"OneAboveTheLowerLimitIsNormal", 4, 11, 10, 40, manual(0), normal()},
        VerdictCase{"ANegativeReadingIsSigned", 3, -3, 0, 80, manual(0), raised()},
        VerdictCase{"AnUpperLimitAbove127IsNeverReached", 2, 127, 0, 200, manual(0), normal()},
        VerdictCase{"LimitsZeroAndZeroRaiseEveryReading", 0, 1, 0, 0, manual(0), raised()},
        VerdictCase{"SensorFiveHasNoLimits", 5, 30, 0, 80, lt(false), kSkipped},
        VerdictCase{"AnUnknownSensorHasNoLimits", 9, 99, 0, 80, lt(false), kSkipped},
        VerdictCase{"ANegativeSensorIdHasNoLimits", -1, 99, 0, 80, lt(false), kSkipped},
        // Manual mode: no fan step, whatever the reading.
        VerdictCase{"ManualModeLeavesTheFansAlone", 0, 90, 0, 100, manual(0), normal()},
        VerdictCase{"ManualModeOnAnFcMasterLeavesTheModuleAlone", 0, 90, 0, 100,
                    FanControlState{.family = 2, .is_master = true, .slot_asks = true}, normal()},
        // LT: the board's own fans.
        VerdictCase{"LtAbove60RaisesTheFans", 0, 61, 0, 80, lt(false), normal(kBoardMax)},
        VerdictCase{"LtAbove60AtTheMaximumDoesNothing", 0, 70, 0, 80, lt(true), normal()},
        VerdictCase{"LtBelow60LowersTheFans", 0, 59, 0, 80, lt(true), normal(kBoardMin)},
        VerdictCase{"LtFirstReadingBelow60DoesNothing", 0, 20, 0, 80, lt(false), normal()},
        VerdictCase{"LtExactly60KeepsTheMaximum", 0, 60, 0, 80, lt(true), normal()},
        VerdictCase{"LtExactly60KeepsTheMinimum", 0, 60, 0, 80, lt(false), normal()},
        VerdictCase{"AnAlarmingReadingStillDrivesTheFans", 0, 90, 0, 80, lt(false), raised(kBoardMax)},
        // LC: the master is asked by event, by the process-wide flag alone.
        VerdictCase{"LcAbove60AsksForTheMaximum", 0, 70, 0, 80, by_event(1, false), normal(kAskMax)},
        VerdictCase{"LcAbove60AfterAskingSendsNothing", 0, 70, 0, 80, by_event(1, true), normal()},
        VerdictCase{"LcBelow60AfterAskingAsksForTheMinimum", 0, 50, 0, 80, by_event(1, true), normal(kAskMin)},
        VerdictCase{"LcBelow60WithoutAskingSendsNothing", 0, 50, 0, 80, by_event(1, false), normal()},
        VerdictCase{"LcExactly60SendsNothing", 0, 60, 0, 80, by_event(1, true), normal()},
        VerdictCase{"LcIgnoresTheBoardFansFlag", 0, 50, 0, 80, by_event(1, false, true), normal()},
        // FC: a board that is not master asks by event like an LC board.
        VerdictCase{"NonMasterFcAbove60AsksForTheMaximum", 0, 70, 0, 80, by_event(2, false), normal(kAskMax)},
        VerdictCase{"NonMasterFcBelow60AfterAskingAsksForTheMinimum", 0, 40, 0, 80, by_event(2, true), normal(kAskMin)},
        // FC master: the crate's fan module, at the maximum while a slot asks.
        VerdictCase{"MasterAbove60RaisesTheModule", 0, 65, 0, 80, master(false, false), normal(kModuleMax)},
        VerdictCase{"MasterAbove60AtTheMaximumDoesNothing", 0, 65, 0, 80, master(true, false), normal()},
        VerdictCase{"MasterWithASlotAskingRaisesTheModuleWhenCool", 0, 30, 0, 80, master(false, true),
                    normal(kModuleMax)},
        VerdictCase{"MasterWithASlotAskingKeepsTheMaximum", 0, 30, 0, 80, master(true, true), normal()},
        VerdictCase{"MasterWithASlotAskingAt60RaisesTheModule", 0, 60, 0, 80, master(false, true), normal(kModuleMax)},
        VerdictCase{"MasterBelow60WithNoSlotAskingLowersTheModule", 0, 55, 0, 80, master(true, false),
                    normal(kModuleMin)},
        VerdictCase{"MasterExactly60WithNoSlotAskingDoesNothing", 0, 60, 0, 80, master(true, false), normal()},
        VerdictCase{"MasterFirstReadingBelow60DoesNothing", 0, 30, 0, 80, master(false, false), normal()},
        VerdictCase{"MasterSendsNoEventWhateverTheEventFlag", 0, 30, 0, 80, master(false, false, true), normal()},
        // A family code outside 0 to 2: no fan action at all.
        VerdictCase{"FamilyThreeAbove60DoesNothing", 0, 90, 0, 100, by_event(3, false), normal()},
        VerdictCase{"FamilyThreeBelow60AtTheMaximumDoesNothing", 0, 20, 0, 80, by_event(3, true, true), normal()},
        VerdictCase{"TheLargestFamilyCodeDoesNothing", 0, 90, 0, 100,
                    FanControlState{.auto_fan = true, .family = 0xFFFFFFFFU, .is_master = true, .slot_asks = true},
                    normal()}),
    [](const testing::TestParamInfo<VerdictCase>& verdict) { return std::string(verdict.param.name); });

// The fan step alone is the same function the verdict uses.
static_assert(decide_fan(61, lt(false)) == kBoardMax);
static_assert(decide_fan(60, master(false, true)) == kModuleMax);
static_assert(decide_fan(90, by_event(7, false)) == kNoFanAction);

}  // namespace
}  // namespace xpon::system_mgr
