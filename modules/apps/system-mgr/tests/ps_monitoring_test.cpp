#include "xpon/system_mgr/functions/ps_monitoring.hpp"

#include "function_test.hpp"
#include "xpon/test/fake_board.hpp"
#include "xpon/test/fake_host.hpp"
#include "xpon/test/recording_ipc.hpp"
#include "xpon/test/recording_logger.hpp"
#include "xpon/test/wait.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <future>
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

constexpr ipc::Address kSender = ipc::make_address(0x0042);
constexpr std::uint16_t kTag = 0x2468;

// An endpoint whose n-th alarm event (counted from 1) fails to be sent.
class FailingNthEventIpc : public test::RecordingIpc {
 public:
  explicit FailingNthEventIpc(std::size_t failing) : failing_(failing) {}
  core::Result<void> send_event(const ipc::Event& event) override {
    if (++attempts_ == failing_) {
      return core::ErrorPayload(Error::CommonError, "send failed");
    }
    return RecordingIpc::send_event(event);
  }

 private:
  std::size_t failing_;
  std::size_t attempts_ = 0;
};

// A supply record as the driver fills it; texts are copied without their NUL when they fill the field.
Brd__ps_info supply(std::uint8_t present, std::uint8_t power_good, std::uint8_t has_info = 0,
                    const std::string& model = {}, const std::string& sn = {}, const std::string& ver = {},
                    const std::string& rev = {}, const std::string& date = {}) {
  Brd__ps_info info;
  std::memset(&info, 0, sizeof info);
  info.id = 0x5A;
  info.is_present = present;
  info.is_power_good = power_good;
  info.has_info = has_info;
  info.alert = 0xA5;
  const auto put = [](char* field, std::size_t size, const std::string& text) {
    std::memcpy(field, text.data(), std::min(size, text.size()));
  };
  put(info.model, sizeof info.model, model);
  put(info.sn, sizeof info.sn, sn);
  put(info.ver, sizeof info.ver, ver);
  put(info.rev, sizeof info.rev, rev);
  put(info.date, sizeof info.date, date);
  return info;
}

ipc::Payload bytes_of(const Brd__ps_info& info) {
  ipc::Payload bytes(sizeof info);
  std::memcpy(bytes.data(), &info, sizeof info);
  return bytes;
}

class PsMonitoringTest : public FunctionTest {
 protected:
  std::unique_ptr<PsMonitoring> make(std::chrono::milliseconds period = 1000ms) {
    return std::make_unique<PsMonitoring>(logger, ipc, board, period, host);
  }

  void set_supplies(const std::vector<Brd__ps_info>& supplies) { board->answer(BoardOp::get_ps_info, supplies); }

  // The alarm events sent so far, each checked for its header words.
  [[nodiscard]] std::vector<ipc::Payload> alarms() const {
    std::vector<ipc::Payload> payloads;
    for (const auto& event : ipc->events()) {
      EXPECT_EQ(event.address, 0x0000FFFEU);
      EXPECT_EQ(event.group, 9000);
      EXPECT_EQ(event.id, 9005);
      payloads.push_back(event.payload);
    }
    return payloads;
  }

  static ipc::Payload expected_alarm(std::uint8_t state, std::uint32_t instance, const std::string& text) {
    ipc::Payload bytes(305, 0);
    bytes[8] = state;
    bytes[9] = 46;
    for (std::size_t b = 0; b < 4; ++b) {
      bytes[17 + b] = static_cast<std::uint8_t>((instance >> (8 * b)) & 0xFFU);
    }
    std::copy(text.begin(), text.end(), bytes.begin() + 45);
    return bytes;
  }

  // One poll of a fresh function over one supply: the one alarm record it sent.
  ipc::Payload alarm_of_one_supply(const Brd__ps_info& info) {
    set_supplies({info});
    auto function = make();
    EXPECT_TRUE(function->polling());
    return only_alarm();
  }

  static ipc::Request ps_request(ipc::Payload payload = {}) {
    ipc::Request request;
    request.payload = std::move(payload);
    request.group = IPC_SYSTEM_MGR;
    request.id = IPC_SYSTEM_MGR__GET_PS_STATES;
    request.reply_to = ipc::ReplyTo{kSender, kTag};
    return request;
  }

  // The log lines written after construction, as "level text".
  [[nodiscard]] std::vector<std::string> lines_after_creation() const {
    std::vector<std::string> lines;
    for (const auto& line : logger->lines()) {
      if (line.text != "SysFunction create successfully" && line.text != "PsMonitoring create successfully") {
        lines.push_back(std::to_string(line.level) + " " + line.text);
      }
    }
    return lines;
  }

  std::shared_ptr<test::FakeBoard> board = std::make_shared<test::FakeBoard>();
};

// --- Construction, configuration, subscription ----------------------------------------------

TEST_F(PsMonitoringTest, LogsItsCreationAndDestructionWithItsName) {
  make().reset();
  EXPECT_EQ(logger->texts(),
            (std::vector<std::string>{"SysFunction create successfully", "PsMonitoring create successfully",
                                      "PsMonitoring destroy successfully", "SysFunction destroy successfully"}));
  EXPECT_TRUE(board->calls().empty());
}

TEST_F(PsMonitoringTest, KeepsItsNameAndPeriod) {
  auto function = make(1000ms);
  EXPECT_EQ(function->name(), "PsMonitoring");
  EXPECT_EQ(function->period(), 1000ms);
}

TEST_F(PsMonitoringTest, ConfigurationAndMastershipChangesDoNothing) {
  auto function = make();
  logger->clear();
  EXPECT_TRUE(function->config_change(ServiceCtx{}, {service::Config_change{123, 1, 0}, {80, 0, 0}}));
  EXPECT_TRUE(function->master_change(ServiceCtx{}));
  EXPECT_TRUE(logger->texts().empty());
  EXPECT_TRUE(board->calls().empty());
}

TEST_F(PsMonitoringTest, SubscribesAndUnsubscribesTheStatesRequest) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  EXPECT_EQ(ipc->request_subscriptions(),
            (std::vector<ipc::Key>{ipc::Key{IPC_SYSTEM_MGR, IPC_SYSTEM_MGR__GET_PS_STATES}}));
  EXPECT_EQ(IPC_SYSTEM_MGR__GET_PS_STATES, 15529);
  ASSERT_TRUE(function->ipc_unsubscribe());
  EXPECT_TRUE(ipc->request_subscriptions().empty());
}

TEST_F(PsMonitoringTest, AFailingSubscriptionIsLoggedAndReturned) {
  auto function = make();
  ipc->fail_next_subscribe(Error::InvalidState);
  const auto result = function->ipc_subscribe();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
  EXPECT_TRUE(logger->contains("Error: InvalidState. Message: injected failure.", 4));
}

TEST_F(PsMonitoringTest, AFailingUnsubscriptionIsReturned) {
  auto function = make();
  const auto result = function->ipc_unsubscribe();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Empty);
}

// --- Classification of one supply -------------------------------------------------------------

TEST_F(PsMonitoringTest, PresentAndPowerGoodIsBackToNormal) {
  EXPECT_EQ(alarm_of_one_supply(supply(1, 1)), expected_alarm(1, 1, "Power supply 1 is back to normal"));
}

TEST_F(PsMonitoringTest, PresentWithoutPowerGoodRaisesMissingVoltage) {
  EXPECT_EQ(alarm_of_one_supply(supply(1, 0)), expected_alarm(0, 1, "Power supply 1 is missing voltage"));
}

TEST_F(PsMonitoringTest, NeitherPresentNorPowerGoodClearsTheAlarmAsOffline) {
  EXPECT_EQ(alarm_of_one_supply(supply(0, 0)), expected_alarm(1, 1, "Power supply 1 is offline"));
}

TEST_F(PsMonitoringTest, PowerGoodWithoutPresenceRaisesTheAlarmWithoutSuffix) {
  EXPECT_EQ(alarm_of_one_supply(supply(0, 1)), expected_alarm(0, 1, "Power supply 1"));
}

TEST_F(PsMonitoringTest, AnyNonZeroFlagCounts) {
  EXPECT_EQ(alarm_of_one_supply(supply(0x80, 0xFF)), expected_alarm(1, 1, "Power supply 1 is back to normal"));
  EXPECT_TRUE(logger->contains("PS[0] is_present: true", 0));
  EXPECT_TRUE(logger->contains("PS[0] is_power_good: true", 0));
}

// --- Polling ------------------------------------------------------------------------------------

TEST_F(PsMonitoringTest, ABoardWithoutSuppliesSendsAndLogsNothing) {
  set_supplies({});
  auto function = make();
  logger->clear();
  EXPECT_TRUE(function->polling());
  EXPECT_TRUE(ipc->events().empty());
  EXPECT_TRUE(logger->texts().empty());
  EXPECT_EQ(board->ops(), (std::vector<BoardOp>{BoardOp::get_ps_info}));
}

TEST_F(PsMonitoringTest, EverySupplyIsReportedInBoardOrderNumberedFromOne) {
  set_supplies({supply(1, 1), supply(1, 0), supply(0, 0)});
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(alarms(), (std::vector<ipc::Payload>{expected_alarm(1, 1, "Power supply 1 is back to normal"),
                                                 expected_alarm(0, 2, "Power supply 2 is missing voltage"),
                                                 expected_alarm(1, 3, "Power supply 3 is offline")}));
}

TEST_F(PsMonitoringTest, EveryPollReportsAgainWhetherOrNotAnythingChanged) {
  set_supplies({supply(1, 1)});
  auto function = make();
  ASSERT_TRUE(function->polling());
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(alarms(), (std::vector<ipc::Payload>(2, expected_alarm(1, 1, "Power supply 1 is back to normal"))));
}

TEST_F(PsMonitoringTest, LogLinesCountSuppliesFromZeroAfterEachAlarm) {
  set_supplies({supply(1, 0), supply(0, 0)});
  auto function = make();
  logger->clear();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(lines_after_creation(),
            (std::vector<std::string>{"0 PS[0] is_present: true", "0 PS[0] is_power_good: false",
                                      "0 PS[1] is_present: false", "0 PS[1] is_power_good: false"}));
}

TEST_F(PsMonitoringTest, IdentificationIsLoggedAfterTheFlagsInItsOrder) {
  set_supplies({supply(1, 1, 1, "PSU-150W-AC", "PS2301000123", "1.2", "B", "2023-01-17")});
  auto function = make();
  logger->clear();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(lines_after_creation(),
            (std::vector<std::string>{"0 PS[0] is_present: true", "0 PS[0] is_power_good: true",
                                      "0 PS[0] Model: PSU-150W-AC", "0 PS[0] SN: PS2301000123", "0 PS[0] Ver: 1.2",
                                      "0 PS[0] Rev: B", "0 PS[0] Date: 2023-01-17"}));
}

TEST_F(PsMonitoringTest, NoInfoSuppressesTheIdentificationButNotTheFlags) {
  set_supplies({supply(1, 1, 0, "PSU-150W-AC", "PS2301000123", "1.2", "B", "2023-01-17")});
  auto function = make();
  logger->clear();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(lines_after_creation(),
            (std::vector<std::string>{"0 PS[0] is_present: true", "0 PS[0] is_power_good: true"}));
}

TEST_F(PsMonitoringTest, TextsThatFillTheirFieldsAreReadOnlyWithinTheirFields) {
  const std::string model(31, 'M');
  const std::string sn(17, 'S');
  const std::string ver(6, 'V');
  const std::string rev(2, 'R');
  const std::string date(11, 'D');
  set_supplies({supply(1, 1, 1, model, sn, ver, rev, date)});
  auto function = make();
  logger->clear();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(lines_after_creation(),
            (std::vector<std::string>{"0 PS[0] is_present: true", "0 PS[0] is_power_good: true",
                                      "0 PS[0] Model: " + model, "0 PS[0] SN: " + sn, "0 PS[0] Ver: " + ver,
                                      "0 PS[0] Rev: " + rev, "0 PS[0] Date: " + date}));
}

TEST_F(PsMonitoringTest, ABoardErrorIsLoggedAndReturnedAndNothingIsSent) {
  board->fail(BoardOp::get_ps_info, Error::ErrorCApi, "BOARD_GET_PS_INFO failed");
  auto function = make();
  const auto result = function->polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  EXPECT_TRUE(logger->contains("Error: ErrorCApi. Message: BOARD_GET_PS_INFO failed.", 4));
  EXPECT_TRUE(ipc->events().empty());
}

TEST_F(PsMonitoringTest, ABoardExceptionBecomesAnExceptionError) {
  board->throw_exception(BoardOp::get_ps_info, "driver gone");
  auto function = make();
  const auto result = function->polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Exception);
  EXPECT_TRUE(logger->contains("An std::exception was thrown: driver gone ", 4));
  EXPECT_TRUE(ipc->events().empty());
}

TEST_F(PsMonitoringTest, AFailedSendAtTheSecondSupplyEndsThePoll) {
  ipc = std::make_shared<FailingNthEventIpc>(2);
  set_supplies({supply(1, 1), supply(1, 1), supply(1, 1)});
  auto function = make();
  logger->clear();
  const auto result = function->polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  EXPECT_EQ(alarms(), (std::vector<ipc::Payload>{expected_alarm(1, 1, "Power supply 1 is back to normal")}));
  // The first supply's lines, then the failure; nothing of the second or third supply.
  EXPECT_TRUE(logger->contains("PS[0] is_power_good: true", 0));
  EXPECT_FALSE(logger->contains("PS[1] is_present: true"));
  EXPECT_TRUE(logger->contains("Error: CommonError. Message: send failed.", 4));

  // The next poll starts again from supply 1.
  ASSERT_TRUE(function->polling());
  const auto sent = alarms();
  ASSERT_EQ(sent.size(), 4U);
  EXPECT_EQ(sent[1], expected_alarm(1, 1, "Power supply 1 is back to normal"));
  EXPECT_EQ(sent[3], expected_alarm(1, 3, "Power supply 3 is back to normal"));
}

TEST_F(PsMonitoringTest, AnEmptyFormattedTextLogsTheTextAsWrittenAndEndsThePoll) {
  set_supplies({supply(1, 1), supply(1, 1)});
  host->set_format_result(0);
  auto function = make();
  logger->clear();
  const auto result = function->polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  EXPECT_EQ(lines_after_creation(), (std::vector<std::string>{"4 snprintf() failed(%d)"}));
  EXPECT_TRUE(ipc->events().empty());
}

TEST_F(PsMonitoringTest, ANegativeFormattingResultIsAFailure) {
  set_supplies({supply(1, 1)});
  host->set_format_result(-1);
  auto function = make();
  const auto result = function->polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  EXPECT_TRUE(logger->contains("snprintf() failed(%d)", 4));
  EXPECT_TRUE(ipc->events().empty());
}

TEST_F(PsMonitoringTest, ATruncatedTextIsAFailureWhileTheLongestThatFitsIsNot) {
  set_supplies({supply(1, 1)});
  host->set_format_result(255);
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(ipc->events().size(), 1U);
  host->set_format_result(256);
  const auto result = function->polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  EXPECT_EQ(ipc->events().size(), 1U);
}

// --- IPC_SYSTEM_MGR__GET_PS_STATES ------------------------------------------------------------

TEST_F(PsMonitoringTest, StatesOfOneSupplyAreItsFirstEightBytesThenZeros) {
  const auto info = supply(1, 1, 1, "PSU-150W-AC", "PS2301000123", "1.2", "B", "2023-01-17");
  set_supplies({info});
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  logger->clear();
  ASSERT_TRUE(ipc->inject_request(ps_request()));
  const auto response = only_response(kSender, kTag);
  EXPECT_EQ(response.result, 1U);
  ipc::Payload expected(72, 0);
  const auto record = bytes_of(info);
  std::copy(record.begin(), record.begin() + 8, expected.begin());
  EXPECT_EQ(response.payload, expected);
  // Bytes 5-7: the first three characters of the model, the rest of the record is not copied.
  EXPECT_EQ(std::string(response.payload.begin() + 5, response.payload.begin() + 8), "PSU");
  EXPECT_EQ(lines_after_creation(), (std::vector<std::string>{"0 Handle IPC request [IPC_SYSTEM_MGR__GET_PS_STATES]"}));
}

TEST_F(PsMonitoringTest, StatesOfTwoSuppliesAreTheFirstSixteenBytesOfTheArrayThenZeros) {
  const auto first = supply(1, 1, 1, "PSU-150W-AC", "PS2301000123", "1.2", "B", "2023-01-17");
  const auto second = supply(0, 0, 1, "OTHER", "X", "9", "Z", "2020-02-02");
  set_supplies({first, second});
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  ASSERT_TRUE(ipc->inject_request(ps_request()));
  const auto response = only_response(kSender, kTag);
  EXPECT_EQ(response.result, 1U);
  ipc::Payload expected(144, 0);
  const auto record = bytes_of(first);
  std::copy(record.begin(), record.begin() + 16, expected.begin());
  EXPECT_EQ(response.payload, expected);
}

TEST_F(PsMonitoringTest, StatesOfABoardWithoutSuppliesAreAnEmptyAnswer) {
  set_supplies({});
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  ASSERT_TRUE(ipc->inject_request(ps_request()));
  const auto response = only_response(kSender, kTag);
  EXPECT_EQ(response.result, 1U);
  EXPECT_TRUE(response.payload.empty());
}

TEST_F(PsMonitoringTest, StatesOfEightSuppliesAreSixtyFourCopiedBytesIn576) {
  std::vector<Brd__ps_info> supplies;
  for (std::uint8_t i = 0; i < 8; ++i) {
    supplies.push_back(supply(1, i % 2, 1, "MODEL-" + std::to_string(i), "SN", "1", "A", "2024-01-01"));
  }
  set_supplies(supplies);
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  ASSERT_TRUE(ipc->inject_request(ps_request()));
  const auto payload = only_response(kSender, kTag).payload;
  ASSERT_EQ(payload.size(), 576U);
  const auto record = bytes_of(supplies[0]);
  EXPECT_TRUE(std::equal(payload.begin(), payload.begin() + 64, record.begin()));
  EXPECT_TRUE(std::all_of(payload.begin() + 64, payload.end(), [](std::uint8_t byte) { return byte == 0; }));
}

TEST_F(PsMonitoringTest, TheRequestPayloadIsIgnoredWhateverItsLength) {
  set_supplies({supply(1, 1)});
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  for (const std::size_t length : {std::size_t{0}, std::size_t{1}, std::size_t{65536}}) {
    ipc->clear_sent();
    ASSERT_TRUE(ipc->inject_request(ps_request(ipc::Payload(length, 0xEE)))) << length;
    const auto response = only_response(kSender, kTag);
    EXPECT_EQ(response.result, 1U) << length;
    EXPECT_EQ(response.payload.size(), 72U) << length;
  }
}

TEST_F(PsMonitoringTest, ABoardFailureIsAnsweredWithTheErrorResponseAndNotLogged) {
  board->fail(BoardOp::get_ps_info, Error::ErrorCApi, "BOARD_GET_PS_INFO failed");
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  logger->clear();
  const auto result = ipc->inject_request(ps_request());
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  const auto response = only_response(kSender, kTag);
  EXPECT_EQ(response.result, 0U);
  EXPECT_TRUE(response.payload.empty());
  EXPECT_EQ(lines_after_creation(), (std::vector<std::string>{"0 Handle IPC request [IPC_SYSTEM_MGR__GET_PS_STATES]"}));
}

TEST_F(PsMonitoringTest, ABoardFailureWhoseErrorResponseFailsReturnsTheSendError) {
  board->fail(BoardOp::get_ps_info, Error::ErrorCApi);
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  ipc->fail_next_send(Error::InvalidState);
  const auto result = ipc->inject_request(ps_request());
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(PsMonitoringTest, AFailingAnswerIsLoggedAndReturned) {
  set_supplies({supply(1, 1)});
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  ipc->fail_next_send(Error::InvalidState);
  const auto result = ipc->inject_request(ps_request());
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
  EXPECT_TRUE(logger->contains("Error: InvalidState. Message: injected failure.", 4));
}

TEST_F(PsMonitoringTest, ARequestWithoutReplyInformationThrowsAfterTheBoardRead) {
  set_supplies({supply(1, 1)});
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  auto request = ps_request();
  request.reply_to.reset();
  EXPECT_THROW(static_cast<void>(ipc->inject_request(request)), std::bad_optional_access);
  EXPECT_EQ(board->count(BoardOp::get_ps_info), 1U);
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(PsMonitoringTest, ARequestWithoutReplyInformationOnABoardFailureIsAnException) {
  board->fail(BoardOp::get_ps_info, Error::ErrorCApi);
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  auto request = ps_request();
  request.reply_to.reset();
  const auto result = ipc->inject_request(request);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Exception);
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(PsMonitoringTest, AnUnknownRequestIsNeitherAnsweredNorLogged) {
  auto function = make();
  logger->clear();
  auto request = ps_request();
  request.id = IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE;
  const auto result = function->handle_request(request);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  EXPECT_EQ(result.error().to_string(), "Error: CommonError. Message: Unexpected IPC request: 15500|15533.");
  EXPECT_TRUE(logger->texts().empty());
  EXPECT_TRUE(ipc->responses().empty());
  EXPECT_TRUE(board->calls().empty());
}

// --- The running function ---------------------------------------------------------------------

TEST_F(PsMonitoringTest, RunningFunctionReportsEveryPeriodAndAnswersRequests) {
  set_supplies({supply(1, 1), supply(0, 1)});
  // Exposes the wake-up so that the test can end the thread even when stop's own wake-up
  // falls into a poll (and is lost, as designed).
  class Wakeable : public PsMonitoring {
   public:
    using PsMonitoring::PsMonitoring;
    using SysFunction::wake_polling_thread;
  };
  auto function = std::make_unique<Wakeable>(logger, ipc, board, 20ms, host);
  ASSERT_TRUE(function->run());
  // The first poll runs in run itself.
  const auto first = ipc->events();
  ASSERT_GE(first.size(), 2U);
  EXPECT_EQ(first[0].payload, expected_alarm(1, 1, "Power supply 1 is back to normal"));
  EXPECT_EQ(first[1].payload, expected_alarm(0, 2, "Power supply 2"));
  EXPECT_TRUE(function->is_running());
  ASSERT_TRUE(ipc->inject_request(ps_request()));
  // The thread's next polls report the supplies as they are then.
  set_supplies({supply(1, 0), supply(0, 1)});
  const auto reported_missing_voltage = [this] {
    const auto events = ipc->events();
    return std::any_of(events.begin(), events.end(), [](const ipc::Event& event) {
      return event.payload == expected_alarm(0, 1, "Power supply 1 is missing voltage");
    });
  };
  EXPECT_TRUE(test::wait_until(reported_missing_voltage));
  auto stopped = std::async(std::launch::async, [&] { return function->stop(); });
  while (stopped.wait_for(5ms) != std::future_status::ready) {
    function->wake_polling_thread();
  }
  EXPECT_TRUE(stopped.get());
  EXPECT_FALSE(function->is_running());
  EXPECT_TRUE(ipc->request_subscriptions().empty());
  EXPECT_TRUE(logger->contains("Start System function: PsMonitoring", 0));
  EXPECT_EQ(only_response(kSender, kTag).payload.size(), 144U);
}

}  // namespace
}  // namespace xpon::system_mgr
