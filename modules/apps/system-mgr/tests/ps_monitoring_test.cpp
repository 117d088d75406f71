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
    std::copy_n(text.begin(), std::min(size, text.size()), field);
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

  // One poll of a fresh function over these supplies, which must succeed: its log lines.
  std::vector<std::string> lines_of_one_poll(const std::vector<Brd__ps_info>& supplies) {
    set_supplies(supplies);
    auto function = make();
    logger->clear();
    EXPECT_TRUE(function->polling());
    return lines_after_creation();
  }

  // One poll of a fresh function, which must fail: its error code.
  Error failed_poll() {
    auto function = make();
    logger->clear();
    const auto result = function->polling();
    EXPECT_TRUE(result.has_error());
    return result.has_error() ? result.error().error : Error::NoError;
  }

  // The answer of a fresh function over these supplies to GET_PS_STATES, checked for its words.
  ipc::Payload states_answer(const std::vector<Brd__ps_info>& supplies) {
    set_supplies(supplies);
    auto function = make();
    EXPECT_TRUE(function->ipc_subscribe());
    EXPECT_TRUE(ipc->inject_request(request_to(IPC_SYSTEM_MGR__GET_PS_STATES)));
    const auto response = only_response(kRequestSender, kRequestTag);
    EXPECT_EQ(response.result, 1U);
    return response.payload;
  }

  // The log lines of the function's work, as "level text": all but those of its life.
  [[nodiscard]] std::vector<std::string> lines_after_creation() const {
    std::vector<std::string> lines;
    for (const auto& line : logger->lines()) {
      if (!line.text.ends_with(" create successfully") && !line.text.ends_with(" destroy successfully")) {
        lines.push_back(std::to_string(line.level) + " " + line.text);
      }
    }
    return lines;
  }

  std::shared_ptr<test::FakeBoard> board = std::make_shared<test::FakeBoard>();
};

// --- Construction and configuration -------------------------------------------------------

TEST_F(PsMonitoringTest, ConfigurationAndMastershipChangesDoNothing) {
  auto function = make();
  logger->clear();
  EXPECT_TRUE(function->config_change(ServiceCtx{}, {service::Config_change{123, 1, 0}, {80, 0, 0}}));
  EXPECT_TRUE(function->master_change(ServiceCtx{}));
  EXPECT_TRUE(logger->texts().empty());
  EXPECT_TRUE(board->calls().empty());
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
  EXPECT_EQ(lines_of_one_poll({supply(1, 0), supply(0, 0)}),
            (std::vector<std::string>{"0 PS[0] is_present: true", "0 PS[0] is_power_good: false",
                                      "0 PS[1] is_present: false", "0 PS[1] is_power_good: false"}));
}

TEST_F(PsMonitoringTest, IdentificationIsLoggedAfterTheFlagsInItsOrder) {
  EXPECT_EQ(lines_of_one_poll({supply(1, 1, 1, "PSU-150W-AC", "PS2301000123", "1.2", "B", "2023-01-17")}),
            (std::vector<std::string>{"0 PS[0] is_present: true", "0 PS[0] is_power_good: true",
                                      "0 PS[0] Model: PSU-150W-AC", "0 PS[0] SN: PS2301000123", "0 PS[0] Ver: 1.2",
                                      "0 PS[0] Rev: B", "0 PS[0] Date: 2023-01-17"}));
}

TEST_F(PsMonitoringTest, NoInfoSuppressesTheIdentificationButNotTheFlags) {
  EXPECT_EQ(lines_of_one_poll({supply(1, 1, 0, "PSU-150W-AC", "PS2301000123", "1.2", "B", "2023-01-17")}),
            (std::vector<std::string>{"0 PS[0] is_present: true", "0 PS[0] is_power_good: true"}));
}

TEST_F(PsMonitoringTest, TextsThatFillTheirFieldsAreReadOnlyWithinTheirFields) {
  const std::string model(31, 'M');
  const std::string sn(17, 'S');
  const std::string ver(6, 'V');
  const std::string rev(2, 'R');
  const std::string date(11, 'D');
  EXPECT_EQ(lines_of_one_poll({supply(1, 1, 1, model, sn, ver, rev, date)}),
            (std::vector<std::string>{"0 PS[0] is_present: true", "0 PS[0] is_power_good: true",
                                      "0 PS[0] Model: " + model, "0 PS[0] SN: " + sn, "0 PS[0] Ver: " + ver,
                                      "0 PS[0] Rev: " + rev, "0 PS[0] Date: " + date}));
}

TEST_F(PsMonitoringTest, ABoardErrorIsLoggedAndReturnedAndNothingIsSent) {
  board->fail(BoardOp::get_ps_info, Error::ErrorCApi, "BOARD_GET_PS_INFO failed");
  EXPECT_EQ(failed_poll(), Error::ErrorCApi);
  EXPECT_TRUE(logger->contains("Error: ErrorCApi. Message: BOARD_GET_PS_INFO failed.", 4));
  EXPECT_TRUE(ipc->events().empty());
}

TEST_F(PsMonitoringTest, ABoardExceptionBecomesAnExceptionError) {
  board->throw_exception(BoardOp::get_ps_info, "driver gone");
  EXPECT_EQ(failed_poll(), Error::Exception);
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
  EXPECT_EQ(failed_poll(), Error::ErrorCApi);
  EXPECT_EQ(lines_after_creation(), (std::vector<std::string>{"4 snprintf() failed(%d)"}));
  EXPECT_TRUE(ipc->events().empty());
}

TEST_F(PsMonitoringTest, ANegativeFormattingResultIsAFailure) {
  set_supplies({supply(1, 1)});
  host->set_format_result(-1);
  EXPECT_EQ(failed_poll(), Error::ErrorCApi);
  EXPECT_EQ(lines_after_creation(), (std::vector<std::string>{"4 snprintf() failed(%d)"}));
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

// --- IPC_SYSTEM_MGR__GET_PS_STATES (what every board request shares: board_request_test.cpp) ---

TEST_F(PsMonitoringTest, StatesOfOneSupplyAreItsFirstEightBytesThenZeros) {
  const auto info = supply(1, 1, 1, "PSU-150W-AC", "PS2301000123", "1.2", "B", "2023-01-17");
  const auto payload = states_answer({info});
  ipc::Payload expected(72, 0);
  const auto record = bytes_of(info);
  std::copy(record.begin(), record.begin() + 8, expected.begin());
  EXPECT_EQ(payload, expected);
  // Bytes 5-7: the first three characters of the model, the rest of the record is not copied.
  EXPECT_EQ(std::string(payload.begin() + 5, payload.begin() + 8), "PSU");
}

TEST_F(PsMonitoringTest, StatesOfTwoSuppliesAreTheFirstSixteenBytesOfTheArrayThenZeros) {
  const auto first = supply(1, 1, 1, "PSU-150W-AC", "PS2301000123", "1.2", "B", "2023-01-17");
  const auto second = supply(0, 0, 1, "OTHER", "X", "9", "Z", "2020-02-02");
  ipc::Payload expected(144, 0);
  const auto record = bytes_of(first);
  std::copy(record.begin(), record.begin() + 16, expected.begin());
  EXPECT_EQ(states_answer({first, second}), expected);
}

TEST_F(PsMonitoringTest, StatesOfABoardWithoutSuppliesAreAnEmptyAnswer) {
  EXPECT_TRUE(states_answer({}).empty());
}

TEST_F(PsMonitoringTest, StatesOfEightSuppliesAreSixtyFourCopiedBytesIn576) {
  std::vector<Brd__ps_info> supplies;
  for (std::uint8_t i = 0; i < 8; ++i) {
    supplies.push_back(supply(1, i % 2, 1, "MODEL-" + std::to_string(i), "SN", "1", "A", "2024-01-01"));
  }
  const auto payload = states_answer(supplies);
  ASSERT_EQ(payload.size(), 576U);
  const auto record = bytes_of(supplies[0]);
  EXPECT_TRUE(std::equal(payload.begin(), payload.begin() + 64, record.begin()));
  EXPECT_TRUE(std::all_of(payload.begin() + 64, payload.end(), [](std::uint8_t byte) { return byte == 0; }));
}

// --- The running function ---------------------------------------------------------------------

TEST_F(PsMonitoringTest, RunningFunctionReportsEveryPeriodAndAnswersRequests) {
  set_supplies({supply(1, 1), supply(0, 1)});
  auto function = std::make_unique<Wakeable<PsMonitoring>>(logger, ipc, board, 20ms, host);
  ASSERT_TRUE(function->run());
  // The first poll runs in run itself.
  const auto first = ipc->events();
  ASSERT_GE(first.size(), 2U);
  EXPECT_EQ(first[0].payload, expected_alarm(1, 1, "Power supply 1 is back to normal"));
  EXPECT_EQ(first[1].payload, expected_alarm(0, 2, "Power supply 2"));
  EXPECT_TRUE(function->is_running());
  ASSERT_TRUE(ipc->inject_request(request_to(IPC_SYSTEM_MGR__GET_PS_STATES)));
  // The thread's next polls report the supplies as they are then.
  set_supplies({supply(1, 0), supply(0, 1)});
  const auto reported_missing_voltage = [this] {
    const auto events = ipc->events();
    return std::any_of(events.begin(), events.end(), [](const ipc::Event& event) {
      return event.payload == expected_alarm(0, 1, "Power supply 1 is missing voltage");
    });
  };
  EXPECT_TRUE(test::wait_until(reported_missing_voltage));
  EXPECT_TRUE(stop_waking(*function));
  EXPECT_FALSE(function->is_running());
  EXPECT_TRUE(ipc->request_subscriptions().empty());
  EXPECT_TRUE(logger->contains("Start System function: PsMonitoring", 0));
  EXPECT_EQ(only_response(kRequestSender, kRequestTag).payload.size(), 144U);
}

}  // namespace
}  // namespace xpon::system_mgr
