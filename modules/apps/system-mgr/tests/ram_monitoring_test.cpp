#include "xpon/system_mgr/functions/ram_monitoring.hpp"

#include "function_test.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace xpon::system_mgr {
namespace {

using namespace std::chrono_literals;
using core::Error;

constexpr ipc::Address kSender = 0x0042FFFEU;
constexpr std::uint16_t kTag = 0x1234;

// The usual layout of the file: MemTotal first, MemFree second.
const std::string kMeminfo =
    "MemTotal:        4045632 kB\n"
    "MemFree:         1234567 kB\n"
    "MemAvailable:    2345678 kB\n"
    "Buffers:           12345 kB\n";

// 4045632.0F then 1234567.0F, little-endian IEEE 754 singles.
const ipc::Payload kAnswer{0x00, 0xED, 0x76, 0x4A, 0x38, 0xB4, 0x96, 0x49};

// The function over a real configuration database file and a fake host: the test sets the
// threshold in the database, the memory pages and "/proc/meminfo" in the host, and reads what
// was sent.
class RamMonitoringTest : public FunctionTest {
 protected:
  std::unique_ptr<RamMonitoring> make(std::chrono::milliseconds period = 30000ms) {
    return std::make_unique<RamMonitoring>(logger, ipc, cfgdb, period, host);
  }

  void store_threshold(std::uint32_t value) { store_section(cfgdb::kAlarmSystemRam, {value}); }

  // A threshold the getter refuses (EINVAL).
  void store_unreadable_threshold() { store_raw_field(cfgdb::kAlarmSystemRam, "threshold", "300"); }

  static ipc::Payload expected_alarm(std::uint8_t state, std::uint32_t share, const std::string& text) {
    ipc::Payload bytes(305, 0);
    bytes[8] = state;
    bytes[9] = 1;
    for (std::size_t b = 0; b < 4; ++b) {
      bytes[33 + b] = static_cast<std::uint8_t>((share >> (8 * b)) & 0xFFU);
    }
    std::copy(text.begin(), text.end(), bytes.begin() + 45);
    return bytes;
  }

  static ipc::Request ram_request(ipc::Payload payload = {}) {
    ipc::Request request;
    request.payload = std::move(payload);
    request.group = IPC_SYSTEM_MGR;
    request.id = IPC_SYSTEM_MGR__GET_RAM_DATA;
    request.reply_to = ipc::ReplyTo{kSender, kTag};
    return request;
  }

  ipc::Response only_response() const { return FunctionTest::only_response(kSender, kTag); }

  // One poll with the threshold and page counts given; expects one alarm and returns it.
  ipc::Payload alarm_for(std::uint32_t threshold, long physical, long available) {
    store_threshold(threshold);
    host->set_pages(physical, available);
    auto function = make();
    EXPECT_TRUE(function->polling());
    return only_alarm();
  }

  // One poll that fails in a page query; expects nothing sent, Error::ErrorCApi, the one error
  // line and the host calls made.
  void expect_poll_failure(const std::string& line, const std::vector<std::string>& calls) {
    auto function = make();
    logger->clear();
    const auto result = function->polling();
    ASSERT_TRUE(result.has_error());
    EXPECT_EQ(result.error().error, Error::ErrorCApi);
    EXPECT_TRUE(ipc->events().empty());
    const auto lines = logger->lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].text, line);
    EXPECT_EQ(lines[0].level, 4);
    EXPECT_EQ(host->calls(), calls);
  }

  // Asks for the RAM data with the given file text; expects one answer and returns its payload.
  ipc::Payload answer_for(const std::string& meminfo, const ipc::Request& request = ram_request()) {
    host->set_file("/proc/meminfo", meminfo);
    auto function = make();
    EXPECT_TRUE(function->handle_request(request));
    const auto response = only_response();
    EXPECT_EQ(response.result, 1U);
    return response.payload;
  }

  // Asks for the RAM data with the given file text; expects the error response and returns
  // the handler's error.
  core::ErrorPayload failure_for(const std::string& meminfo) {
    host->set_file("/proc/meminfo", meminfo);
    auto function = make();
    const auto result = function->handle_request(ram_request());
    const auto response = only_response();
    EXPECT_EQ(response.result, 0U);
    EXPECT_TRUE(response.payload.empty());
    EXPECT_TRUE(result.has_error());
    return result.has_error() ? result.error() : core::ErrorPayload{};
  }

  static std::string message_of(const core::ErrorPayload& error) {
    return error.info && error.info->message ? *error.info->message : std::string();
  }
};

// --- Construction and configuration --------------------------------------------------------

TEST_F(RamMonitoringTest, ConstructionReadsTheConfigurationAndLogs) {
  store_threshold(25);
  auto function = make();
  EXPECT_EQ(function->threshold(), 25);
  EXPECT_EQ(function->name(), "RamMonitoring");
  EXPECT_EQ(function->period(), 30000ms);
  EXPECT_EQ(logger->texts(),
            (std::vector<std::string>{"SysFunction create successfully", "RamMonitoring create successfully"}));
  EXPECT_TRUE(logger->contains("RamMonitoring create successfully", 0));
}

TEST_F(RamMonitoringTest, ChangeOfTheRamSectionRereadsTheThreshold) {
  store_threshold(10);
  auto function = make();
  store_threshold(40);
  logger->clear();
  ASSERT_TRUE(function->config_change(ServiceCtx{}, {service::Config_change{77, 1, 0}}));
  EXPECT_EQ(function->threshold(), 40);
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Change config event [ALARM_SYSTEM_RAM]"}));
  EXPECT_TRUE(logger->contains("Change config event [ALARM_SYSTEM_RAM]", 0));
}

TEST_F(RamMonitoringTest, ChangesOfOtherSectionsAreSkipped) {
  store_threshold(10);
  auto function = make();
  store_threshold(40);
  logger->clear();
  EXPECT_TRUE(function->config_change(ServiceCtx{}, {service::Config_change{80, 1, 0}, service::Config_change{78, 1, 0},
                                                     service::Config_change{81, 1, 0}}));
  EXPECT_EQ(function->threshold(), 10);
  EXPECT_TRUE(logger->texts().empty());
}

TEST_F(RamMonitoringTest, FailedReadOnChangeStopsAtOnceAndKeepsThePreviousThreshold) {
  store_threshold(30);
  auto function = make();
  store_unreadable_threshold();
  logger->clear();
  // One failed read only: the second record is not looked at.
  expect_failed_reread(
      function->config_change(ServiceCtx{}, {service::Config_change{77, 1, 0}, service::Config_change{77, 1, 0}}),
      {"Change config event [ALARM_SYSTEM_RAM]"});
  EXPECT_EQ(function->threshold(), 30);
}

// --- Subscriptions -------------------------------------------------------------------------

// --- Polling -------------------------------------------------------------------------------

TEST_F(RamMonitoringTest, FreeShareEqualToTheThresholdRaisesTheAlarm) {
  EXPECT_EQ(alarm_for(25, 1000, 250), expected_alarm(0, 25, "Free RAM is 25%"));
}

TEST_F(RamMonitoringTest, FreeShareOnePercentAboveTheThresholdIsBackToNormal) {
  EXPECT_EQ(alarm_for(25, 1000, 261), expected_alarm(1, 26, "Free RAM is 26% is back to normal"));
}

TEST_F(RamMonitoringTest, SinglePrecisionQuotientCanTruncateBelowTheExactPercent) {
  // 26 / 100 in single precision is 0.2599999..., so the share is 25: equal to the threshold.
  EXPECT_EQ(alarm_for(25, 100, 26), expected_alarm(0, 25, "Free RAM is 25%"));
}

TEST_F(RamMonitoringTest, FreeShareIsTruncated) {
  // 12.9 % is 12, equal to the threshold: raised.
  EXPECT_EQ(alarm_for(12, 1000, 129), expected_alarm(0, 12, "Free RAM is 12%"));
}

TEST_F(RamMonitoringTest, ZeroThresholdClearsForAnyNonZeroShare) {
  EXPECT_EQ(alarm_for(0, 1000, 11), expected_alarm(1, 1, "Free RAM is 1% is back to normal"));
}

TEST_F(RamMonitoringTest, ZeroThresholdWithNoFreeMemoryRaises) {
  EXPECT_EQ(alarm_for(0, 1000, 9), expected_alarm(0, 0, "Free RAM is 0%"));
}

TEST_F(RamMonitoringTest, EveryPollReportsTheCurrentState) {
  store_threshold(50);
  host->set_pages(100, 80);
  auto function = make();
  ASSERT_TRUE(function->polling());
  ASSERT_TRUE(function->polling());
  const auto events = ipc->events();
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0].payload, expected_alarm(1, 80, "Free RAM is 80% is back to normal"));
  EXPECT_EQ(events[1].payload, events[0].payload);
}

TEST_F(RamMonitoringTest, FailedGetPhysPagesSendsNothingAndLogsTheErrorText) {
  host->fail_get_phys_pages(ENOSYS);
  expect_poll_failure(std::string("get_phys_pages() call failed (") + std::strerror(ENOSYS) + ")", {"get_phys_pages"});
}

TEST_F(RamMonitoringTest, FailedGetAvphysPagesSendsNothingAndLogsItsOwnText) {
  host->set_pages(1000, 500);
  host->fail_get_avphys_pages(EINVAL);
  expect_poll_failure(std::string("get_pages_available() call fail (") + std::strerror(EINVAL) + ")",
                      {"get_phys_pages", "get_avphys_pages"});
}

TEST_F(RamMonitoringTest, NextPollAfterAFailureTriesAgain) {
  host->fail_get_phys_pages(EAGAIN);
  store_threshold(5);
  auto function = make();
  ASSERT_TRUE(function->polling().has_error());
  host->set_pages(200, 100);
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(only_alarm(), expected_alarm(1, 50, "Free RAM is 50% is back to normal"));
}

TEST_F(RamMonitoringTest, FormattingResultIsNotChecked) {
  store_threshold(10);
  host->set_pages(100, 5);
  host->set_format_result(-1);
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(only_alarm(), expected_alarm(0, 5, "Free RAM is 5%"));
}

TEST_F(RamMonitoringTest, FailedSendOfTheAlarmIsReturned) {
  host->set_pages(100, 50);
  auto function = make();
  ipc->fail_next_send(Error::InvalidState);
  const auto result = function->polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
  EXPECT_TRUE(ipc->events().empty());
}

TEST_F(RamMonitoringTest, NoPhysicalPagesIsPinnedInsteadOfOverflowing) {
  EXPECT_EQ(alarm_for(10, 0, 0), expected_alarm(0, 0, "Free RAM is 0%"));
}

// --- IPC_SYSTEM_MGR__GET_RAM_DATA ----------------------------------------------------------

TEST_F(RamMonitoringTest, RamDataAnswersTotalThenFree) {
  host->set_file("/proc/meminfo", kMeminfo);
  auto function = make();
  logger->clear();
  ASSERT_TRUE(function->handle_request(ram_request()));
  const auto response = only_response();
  EXPECT_EQ(response.result, 1U);
  EXPECT_EQ(response.payload, kAnswer);
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Handle IPC request [IPC_SYSTEM_MGR__GET_RAM_DATA]"}));
  EXPECT_TRUE(logger->contains("Handle IPC request [IPC_SYSTEM_MGR__GET_RAM_DATA]", 0));
  // The kernel's file, never one under a test root.
  EXPECT_EQ(host->calls(), (std::vector<std::string>{"read_file /proc/meminfo"}));
}

TEST_F(RamMonitoringTest, RamDataThroughTheSubscription) {
  host->set_file("/proc/meminfo", kMeminfo);
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  ASSERT_TRUE(ipc->inject_request(ram_request()));
  EXPECT_EQ(only_response().payload, kAnswer);
}

TEST_F(RamMonitoringTest, MemFreeAfterMemTotalGivesTheSameAnswer) {
  EXPECT_EQ(answer_for("MemFree:         1234567 kB\nMemTotal:        4045632 kB\n"), kAnswer);
  ipc->clear_sent();
  EXPECT_EQ(answer_for("MemAvailable:    2345678 kB\nMemTotal:        4045632 kB\nMemFree:         1234567 kB\n"),
            kAnswer);
}

TEST_F(RamMonitoringTest, MissingMemFreeGivesAnErrorResponse) {
  const auto error = failure_for("MemTotal:        4045632 kB\nMemAvailable:    2345678 kB\n");
  EXPECT_EQ(error.error, Error::CommonError);
  EXPECT_EQ(message_of(error), "Can't find MemFree info in /proc/meminfo");
  EXPECT_TRUE(logger->contains("Error: CommonError. Message: Can't find MemFree info in /proc/meminfo.", 4));
}

TEST_F(RamMonitoringTest, MissingMemTotalGivesAnErrorResponse) {
  const auto error = failure_for("MemFree:         1234567 kB\n");
  EXPECT_EQ(error.error, Error::CommonError);
  EXPECT_EQ(message_of(error), "Can't find MemTotal info in /proc/meminfo");
}

TEST_F(RamMonitoringTest, EmptyFileNamesMemTotalAsMissing) {
  const auto error = failure_for("");
  EXPECT_EQ(error.error, Error::CommonError);
  EXPECT_EQ(message_of(error), "Can't find MemTotal info in /proc/meminfo");
}

TEST_F(RamMonitoringTest, MissingFileGivesAnErrorResponse) {
  auto function = make();
  const auto result = function->handle_request(ram_request());
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  EXPECT_EQ(message_of(result.error()), "/proc/meminfo file is not open");
  const auto response = only_response();
  EXPECT_EQ(response.result, 0U);
  EXPECT_TRUE(response.payload.empty());
  EXPECT_TRUE(logger->contains("Error: CommonError. Message: /proc/meminfo file is not open.", 4));
}

TEST_F(RamMonitoringTest, NumberBeyondAFloatIsAnExceptionAndAnErrorResponse) {
  const auto error = failure_for("MemTotal:        " + std::string(60, '9') + " kB\nMemFree:         1234567 kB\n");
  EXPECT_EQ(error.error, Error::Exception);
  EXPECT_TRUE(logger->contains("An std::exception was thrown: stof ", 4));
}

TEST_F(RamMonitoringTest, LineWithoutTheUnitIsNotARecord) {
  const auto error = failure_for("MemTotal:        4045632\nMemFree:         1234567 kB\n");
  EXPECT_EQ(message_of(error), "Can't find MemTotal info in /proc/meminfo");
}

TEST_F(RamMonitoringTest, LineWithoutTheColonIsNotARecord) {
  const auto error = failure_for("MemTotal:        4045632 kB\nMemFree         1234567 kB\n");
  EXPECT_EQ(message_of(error), "Can't find MemFree info in /proc/meminfo");
}

TEST_F(RamMonitoringTest, FirstRecordOfEachKindCounts) {
  EXPECT_EQ(answer_for(kMeminfo + "MemTotal:        1 kB\nMemFree:         2 kB\n"), kAnswer);
}

TEST_F(RamMonitoringTest, EmptyRequestPayloadIsIgnored) {
  EXPECT_EQ(answer_for(kMeminfo, ram_request({})), kAnswer);
}

TEST_F(RamMonitoringTest, OneByteRequestPayloadIsIgnored) {
  EXPECT_EQ(answer_for(kMeminfo, ram_request({0x7F})), kAnswer);
}

TEST_F(RamMonitoringTest, FarTooLongRequestPayloadIsIgnored) {
  EXPECT_EQ(answer_for(kMeminfo, ram_request(ipc::Payload(4096, 0xAB))), kAnswer);
}

TEST_F(RamMonitoringTest, RequestWithoutReplyInformationIsNotAnswered) {
  host->set_file("/proc/meminfo", kMeminfo);
  auto function = make();
  auto request = ram_request();
  request.reply_to.reset();
  EXPECT_TRUE(function->handle_request(request));
  EXPECT_TRUE(ipc->responses().empty());
  EXPECT_EQ(host->calls(), (std::vector<std::string>{"read_file /proc/meminfo"}));
}

TEST_F(RamMonitoringTest, FailedRequestWithoutReplyInformationReturnsTheReadError) {
  auto function = make();
  auto request = ram_request();
  request.reply_to.reset();
  const auto result = function->handle_request(request);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  EXPECT_EQ(message_of(result.error()), "/proc/meminfo file is not open");
  EXPECT_TRUE(ipc->responses().empty());
  // The error response could not be addressed: the guard reports it.
  EXPECT_TRUE(logger->contains("An std::exception was thrown: bad optional access ", 4));
}

TEST_F(RamMonitoringTest, FailedSendOfTheErrorResponseStillReturnsTheReadError) {
  auto function = make();
  ipc->fail_next_send(Error::InvalidState);
  const auto result = function->handle_request(ram_request());
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  EXPECT_EQ(message_of(result.error()), "/proc/meminfo file is not open");
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(RamMonitoringTest, UnknownRequestIsNeitherAnsweredNorLogged) {
  host->set_file("/proc/meminfo", kMeminfo);
  auto function = make();
  logger->clear();
  auto request = ram_request();
  request.id = IPC_SYSTEM_MGR__GET_HDD_DATA;
  const auto result = function->handle_request(request);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  EXPECT_EQ(message_of(result.error()), "Unexpected IPC request: 15500|15502");
  EXPECT_TRUE(ipc->responses().empty());
  EXPECT_TRUE(logger->texts().empty());
  EXPECT_TRUE(host->calls().empty());
}

// --- Running -------------------------------------------------------------------------------

TEST_F(RamMonitoringTest, RunningFunctionReportsOnEveryPeriodAndAnswersRequests) {
  store_threshold(50);
  host->set_pages(100, 40);
  host->set_file("/proc/meminfo", kMeminfo);
  // Exposes the wake-up so that the test can end the thread even when stop's own wake-up
  // falls into a poll (and is lost, as designed).
  class Wakeable : public RamMonitoring {
   public:
    using RamMonitoring::RamMonitoring;
    using SysFunction::wake_polling_thread;
  };
  auto function = std::make_unique<Wakeable>(logger, ipc, cfgdb, 20ms, host);
  ASSERT_TRUE(function->run());
  ASSERT_TRUE(ipc->wait_for_events(1, 5s));
  EXPECT_EQ(ipc->events()[0].payload, expected_alarm(0, 40, "Free RAM is 40%"));
  ASSERT_TRUE(ipc->inject_request(ram_request()));
  store_threshold(30);
  ASSERT_TRUE(function->config_change(ServiceCtx{}, {service::Config_change{77, 1, 0}}));
  const auto seen = ipc->events().size();
  ASSERT_TRUE(ipc->wait_for_events(seen + 2, 5s));
  EXPECT_EQ(ipc->events().back().payload, expected_alarm(1, 40, "Free RAM is 40% is back to normal"));
  auto stopped = std::async(std::launch::async, [&] { return function->stop(); });
  while (stopped.wait_for(5ms) != std::future_status::ready) {
    function->wake_polling_thread();
  }
  EXPECT_TRUE(stopped.get());
  EXPECT_TRUE(ipc->request_subscriptions().empty());
  EXPECT_EQ(only_response().payload, kAnswer);
}

}  // namespace
}  // namespace xpon::system_mgr
