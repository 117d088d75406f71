#include "xpon/system_mgr/functions/fan_monitoring.hpp"

#include "function_test.hpp"
#include "xpon/test/fake_board.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace xpon::system_mgr {
namespace {

using namespace std::chrono_literals;
using core::Error;
using test::BoardOp;

constexpr ipc::Address kSender = 0x0042FFFEU;
constexpr std::uint16_t kTag = 0x0BCD;

Brd__fan_info fan(std::uint8_t fault, std::uint8_t present, std::uint16_t speed) {
  Brd__fan_info record{};
  record.fault = fault;
  record.present = present;
  record.speed = speed;
  return record;
}

class FanMonitoringTest : public FunctionTest {
 protected:
  std::unique_ptr<FanMonitoring> make() { return std::make_unique<FanMonitoring>(logger, ipc, cfgdb, board, 30000ms); }

  void store_limits(std::uint32_t upper, std::uint32_t lower) { store_section(cfgdb::kAlarmSystemFan, {upper, lower}); }

  static ipc::Payload expected_alarm(std::uint8_t state, std::uint32_t number, std::uint32_t rpm,
                                     const std::string& text) {
    return alarm_record(state, 2, number, rpm, text);
  }

  static ipc::Request request(std::uint16_t id, ipc::Payload payload = {}) {
    return daemon_request(id, std::move(payload), kSender, kTag);
  }

  [[nodiscard]] std::vector<ipc::Payload> alarms() const { return alarm_payloads(); }

  std::shared_ptr<test::FakeBoard> board = std::make_shared<test::FakeBoard>();
};

TEST_F(FanMonitoringTest, ConstructionReadsTheLimitsAndLogsItsLife) {
  store_limits(9000, 1200);
  {
    auto function = make();
    EXPECT_EQ(function->limits().upper(), 9000);
    EXPECT_EQ(function->limits().lower(), 1200);
    EXPECT_EQ(function->name(), "FanMonitoring");
    EXPECT_TRUE(logger->contains("FanMonitoring create successfully", 0));
    EXPECT_TRUE(board->calls().empty());
    EXPECT_TRUE(function->master_change({}));
  }
  EXPECT_TRUE(logger->contains("FanMonitoring destroy successfully", 0));
}

TEST_F(FanMonitoringTest, SpeedEqualToEitherLimitIsAnAlarmOneInsideIsNot) {
  store_limits(6000, 1200);
  // 20 rps = 1200 rpm, 100 rps = 6000 rpm, 21 and 99 just inside.
  board->answer(BoardOp::get_fan_info,
                std::vector<Brd__fan_info>{fan(0, 1, 20), fan(0, 1, 100), fan(0, 1, 21), fan(0, 1, 99)});
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(alarms(),
            (std::vector<ipc::Payload>{expected_alarm(0, 1, 1200, "Fan 1 speed 1200 rpm"),
                                       expected_alarm(0, 2, 6000, "Fan 2 speed 6000 rpm"),
                                       expected_alarm(1, 3, 1260, "Fan 3 speed 1260 rpm is back to normal"),
                                       expected_alarm(1, 4, 5940, "Fan 4 speed 5940 rpm is back to normal")}));
}

TEST_F(FanMonitoringTest, MissingOrFaultyFanIsAnAlarmWithItsSpeed) {
  store_limits(6000, 1200);
  board->answer(BoardOp::get_fan_info, std::vector<Brd__fan_info>{fan(0, 0, 90), fan(1, 1, 50)});
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(alarms(), (std::vector<ipc::Payload>{expected_alarm(0, 1, 5400, "Fan 1 speed 5400 rpm"),
                                                 expected_alarm(0, 2, 3000, "Fan 2 speed 3000 rpm")}));
}

TEST(FanAlarmConfig, ARecordNeverFilledMakesEverySpeedAnAlarm) {
  // The database refuses lower >= upper, so 0/0 is the record before its first read.
  const FanAlarmConfig never_filled;
  EXPECT_EQ(never_filled.upper(), 0);
  EXPECT_EQ(never_filled.lower(), 0);
  for (const std::int32_t rpm : {-60, 0, 1, 60, 65535 * 60}) {
    EXPECT_FALSE(never_filled.inside(rpm)) << rpm;
  }
}

// The function with its limits put back to the never-filled record.
class NeverFilledFanMonitoring : public FanMonitoring {
 public:
  using FanMonitoring::FanMonitoring;
  void forget_limits() { fan_alarm_cfg_.clear(); }
};

TEST_F(FanMonitoringTest, LimitsZeroAndZeroMakeEveryFanAnAlarmThroughThePoll) {
  store_limits(6000, 1200);
  board->answer(BoardOp::get_fan_info, std::vector<Brd__fan_info>{fan(0, 1, 0), fan(0, 1, 1), fan(0, 1, 50)});
  NeverFilledFanMonitoring function(logger, ipc, cfgdb, board, 30000ms);
  function.forget_limits();
  ASSERT_TRUE(function.polling());
  EXPECT_EQ(alarms(), (std::vector<ipc::Payload>{expected_alarm(0, 1, 0, "Fan 1 speed 0 rpm"),
                                                 expected_alarm(0, 2, 60, "Fan 2 speed 60 rpm"),
                                                 expected_alarm(0, 3, 3000, "Fan 3 speed 3000 rpm")}));
}

TEST_F(FanMonitoringTest, RefusedLimitsLeaveTheLastOnesInForce) {
  store_limits(6000, 1200);
  auto function = make();
  store_raw_field(cfgdb::kAlarmSystemFan, "lower_speed", "6000");
  const auto result = function->config_change({}, {{79, 1, 0}});
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  EXPECT_EQ(function->limits().upper(), 6000);
  EXPECT_EQ(function->limits().lower(), 1200);
}

TEST_F(FanMonitoringTest, NoFansSendsNothingAndSucceeds) {
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_TRUE(ipc->events().empty());
}

TEST_F(FanMonitoringTest, TwoPollsSendTwoIdenticalEventsPerFan) {
  store_limits(6000, 1200);
  board->answer(BoardOp::get_fan_info, std::vector<Brd__fan_info>{fan(0, 1, 50)});
  auto function = make();
  ASSERT_TRUE(function->polling());
  ASSERT_TRUE(function->polling());
  const auto sent = alarms();
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_EQ(sent[0], sent[1]);
}

TEST_F(FanMonitoringTest, FailedSendOfFanTwoEndsThePoll) {
  // An endpoint whose second send fails.
  class SecondSendFails : public test::RecordingIpc {
   public:
    core::Result<void> send_event(const ipc::Event& event) override {
      if (++sends_ == 2) {
        return core::ErrorPayload(Error::Empty, "bus full");
      }
      return test::RecordingIpc::send_event(event);
    }

   private:
    int sends_ = 0;
  };
  auto failing = std::make_shared<SecondSendFails>();
  board->answer(BoardOp::get_fan_info, std::vector<Brd__fan_info>{fan(0, 1, 50), fan(0, 1, 50), fan(0, 1, 50)});
  FanMonitoring function(logger, failing, cfgdb, board, 30000ms);
  const auto result = function.polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Empty);
  ASSERT_EQ(failing->events().size(), 1U);
  EXPECT_EQ(failing->events()[0].payload[17], 1);
  EXPECT_TRUE(logger->contains("Error: Empty. Message: bus full.", 4));
}

TEST_F(FanMonitoringTest, BoardReadFailureIsLoggedAndReturned) {
  board->fail(BoardOp::get_fan_info, Error::ErrorCApi, "no fans");
  auto function = make();
  const auto result = function->polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  EXPECT_TRUE(logger->contains("Error: ErrorCApi. Message: no fans.", 4));
  EXPECT_TRUE(ipc->events().empty());
}

TEST_F(FanMonitoringTest, ConfigChangeReReadsTheLimits) {
  auto function = make();
  store_limits(5000, 100);
  ASSERT_TRUE(function->config_change({}, {{79, 1, 0}}));
  EXPECT_TRUE(logger->contains("Change config event [ALARM_SYSTEM_FAN]", 0));
  EXPECT_EQ(function->limits().upper(), 5000);
  EXPECT_EQ(function->limits().lower(), 100);
}

TEST_F(FanMonitoringTest, GetFanStatesAnswersFourBytesPerFan) {
  board->answer(BoardOp::get_fan_info, std::vector<Brd__fan_info>{fan(0, 1, 0x1234), fan(2, 0, 7)});
  auto function = make();
  ASSERT_TRUE(function->handle_request(request(IPC_SYSTEM_MGR__GET_FAN_STATES, ipc::Payload(5000, 1))));
  EXPECT_TRUE(logger->contains("Handle IPC request [IPC_SYSTEM_MGR__GET_FAN_STATES]", 0));
  const auto response = only_response(kSender, kTag);
  EXPECT_EQ(response.result, 1U);
  EXPECT_EQ(response.payload, (ipc::Payload{0, 1, 0x34, 0x12, 2, 0, 7, 0}));
}

TEST_F(FanMonitoringTest, GetFanStatesWithNoFansAnswersAnEmptyPayload) {
  auto function = make();
  ASSERT_TRUE(function->handle_request(request(IPC_SYSTEM_MGR__GET_FAN_STATES)));
  const auto response = only_response(kSender, kTag);
  EXPECT_EQ(response.result, 1U);
  EXPECT_TRUE(response.payload.empty());
}

TEST_F(FanMonitoringTest, GetFanStatesBoardFailureAnswersTheErrorResponseWithoutALogLine) {
  board->fail(BoardOp::get_fan_info, Error::ErrorCApi, "no fans");
  auto function = make();
  logger->clear();
  const auto result = function->handle_request(request(IPC_SYSTEM_MGR__GET_FAN_STATES));
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  EXPECT_EQ(only_response(kSender, kTag).result, 0U);
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Handle IPC request [IPC_SYSTEM_MGR__GET_FAN_STATES]"}));
}

TEST_F(FanMonitoringTest, GetFanStatesWithoutReplyInformationThrowsAfterTheBoardRead) {
  auto function = make();
  auto req = request(IPC_SYSTEM_MGR__GET_FAN_STATES);
  req.reply_to.reset();
  EXPECT_THROW(static_cast<void>(function->handle_request(req)), std::bad_optional_access);
  EXPECT_EQ(board->count(BoardOp::get_fan_info), 1U);
}

TEST_F(FanMonitoringTest, SetFanSpeedPassesByteZeroAndAnswersEmpty) {
  auto function = make();
  ASSERT_TRUE(function->handle_request(request(IPC_SYSTEM_MGR__SET_FAN_SPEED, {0xC8, 3, 4})));
  EXPECT_TRUE(logger->contains("Handle IPC request [IPC_SYSTEM_MGR__SET_FAN_SPEED]", 0));
  EXPECT_EQ(board->arguments<std::uint8_t>(BoardOp::set_fan_speed), (std::vector<std::uint8_t>{0xC8}));
  const auto response = only_response(kSender, kTag);
  EXPECT_EQ(response.result, 1U);
  EXPECT_TRUE(response.payload.empty());
}

TEST_F(FanMonitoringTest, SetFanSpeedWithAFarTooLongPayloadUsesByteZero) {
  auto function = make();
  ASSERT_TRUE(function->handle_request(request(IPC_SYSTEM_MGR__SET_FAN_SPEED, ipc::Payload(100000, 0x66))));
  EXPECT_EQ(board->arguments<std::uint8_t>(BoardOp::set_fan_speed), (std::vector<std::uint8_t>{0x66}));
}

TEST_F(FanMonitoringTest, SetFanSpeedWithAnEmptyPayloadDoesNotTouchTheBoard) {
  auto function = make();
  const auto result = function->handle_request(request(IPC_SYSTEM_MGR__SET_FAN_SPEED));
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  EXPECT_EQ(only_response(kSender, kTag).result, 0U);
  EXPECT_TRUE(board->calls().empty());
}

TEST_F(FanMonitoringTest, SetFanSpeedBoardFailureAnswersTheErrorResponse) {
  board->fail(BoardOp::set_fan_speed, Error::ErrorCApi, "stuck");
  auto function = make();
  const auto result = function->handle_request(request(IPC_SYSTEM_MGR__SET_FAN_SPEED, {1}));
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  EXPECT_EQ(only_response(kSender, kTag).result, 0U);
  EXPECT_FALSE(logger->contains("Error: ErrorCApi. Message: stuck."));
}

TEST_F(FanMonitoringTest, SetFanSpeedWithoutReplyInformationStillSetsTheSpeed) {
  auto function = make();
  auto req = request(IPC_SYSTEM_MGR__SET_FAN_SPEED, {159});
  req.reply_to.reset();
  EXPECT_THROW(static_cast<void>(function->handle_request(req)), std::bad_optional_access);
  EXPECT_EQ(board->arguments<std::uint8_t>(BoardOp::set_fan_speed), (std::vector<std::uint8_t>{159}));
}

TEST_F(FanMonitoringTest, SetFanSpeedFailedSendIsLoggedAndReturned) {
  auto function = make();
  ipc->fail_next_send(Error::Empty);
  const auto result = function->handle_request(request(IPC_SYSTEM_MGR__SET_FAN_SPEED, {1}));
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Empty);
  EXPECT_TRUE(logger->contains("Error: Empty. Message: injected failure.", 4));
}

TEST_F(FanMonitoringTest, GetFanStatesFailedSendIsLoggedAndReturned) {
  board->answer(BoardOp::get_fan_info, std::vector<Brd__fan_info>{fan(0, 1, 50)});
  auto function = make();
  ipc->fail_next_send(Error::Empty);
  const auto result = function->handle_request(request(IPC_SYSTEM_MGR__GET_FAN_STATES));
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Empty);
  EXPECT_TRUE(logger->contains("Error: Empty. Message: injected failure.", 4));
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(FanMonitoringTest, SubscribesBothRequestsInOrder) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  EXPECT_EQ(ipc->request_subscriptions(), (std::vector<ipc::Key>{{IPC_SYSTEM_MGR, IPC_SYSTEM_MGR__GET_FAN_STATES},
                                                                 {IPC_SYSTEM_MGR, IPC_SYSTEM_MGR__SET_FAN_SPEED}}));
  ASSERT_TRUE(function->ipc_unsubscribe());
  EXPECT_TRUE(ipc->request_subscriptions().empty());
}

}  // namespace
}  // namespace xpon::system_mgr
