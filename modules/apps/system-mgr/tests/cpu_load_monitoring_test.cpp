#include "xpon/system_mgr/functions/cpu_load_monitoring.hpp"

#include "function_test.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace xpon::system_mgr {
namespace {

using namespace std::chrono_literals;
using core::Error;

// The function over a real configuration database file and a fake host: the test sets the
// threshold in the database and the load averages in the host, and reads what was sent.
class CpuLoadMonitoringTest : public FunctionTest {
 protected:
  std::unique_ptr<CpuLoadMonitoring> make(std::chrono::milliseconds period = 30000ms) {
    return std::make_unique<CpuLoadMonitoring>(logger, ipc, cfgdb, period, host);
  }

  void store_threshold(std::uint32_t value) { store_section(cfgdb::kAlarmSystemLoadAverage, {value}); }

  // A threshold the getter refuses (EINVAL).
  void store_unreadable_threshold() { store_raw_field(cfgdb::kAlarmSystemLoadAverage, "threshold", "70000"); }

  void set_loads(double one_minute, double five_minutes, double fifteen_minutes) {
    host->set_load_averages(one_minute, five_minutes, fifteen_minutes);
  }

  [[nodiscard]] std::size_t loadavg_calls() const {
    std::size_t count = 0;
    for (const auto& call : host->calls()) {
      count += call == "getloadavg" ? 1 : 0;
    }
    return count;
  }

  static ipc::Payload expected_alarm(std::uint8_t state, std::uint32_t one, std::uint32_t five, std::uint32_t fifteen,
                                     const std::string& text) {
    ipc::Payload bytes(305, 0);
    bytes[8] = state;
    bytes[9] = 3;
    const std::array<std::uint32_t, 3> values{one, five, fifteen};
    for (std::size_t i = 0; i < values.size(); ++i) {
      for (std::size_t b = 0; b < 4; ++b) {
        bytes[33 + 4 * i + b] = static_cast<std::uint8_t>((values[i] >> (8 * b)) & 0xFFU);
      }
    }
    std::copy(text.begin(), text.end(), bytes.begin() + 45);
    return bytes;
  }
};

TEST_F(CpuLoadMonitoringTest, ConstructionReadsTheConfigurationAndLogs) {
  store_threshold(250);
  auto function = make();
  EXPECT_EQ(function->threshold(), 250);
  EXPECT_EQ(function->name(), "CpuLoadMonitoring");
  EXPECT_EQ(function->period(), 30000ms);
  const auto texts = logger->texts();
  ASSERT_EQ(texts.size(), 2U);
  EXPECT_EQ(texts[0], "SysFunction create successfully");
  EXPECT_EQ(texts[1], "CpuLoadMonitoring create successfully");
  EXPECT_TRUE(logger->contains("CpuLoadMonitoring create successfully", 0));
}

TEST_F(CpuLoadMonitoringTest, DefaultThresholdOfAFreshDatabase) {
  const auto* section = cfgdb::find_section(cfgdb::kAlarmSystemLoadAverage.id);
  ASSERT_NE(section, nullptr);
  const auto defaults = cfgdb::default_values(*section);
  ASSERT_FALSE(defaults.empty());
  EXPECT_EQ(make()->threshold(), defaults[0]);
}

TEST_F(CpuLoadMonitoringTest, MissingDatabaseAtConstructionThrows) {
  try {
    CpuLoadMonitoring function(logger, ipc, nullptr, 30000ms, host);
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(),
                 "Config update for CpuLoadMonitoring failed (Error: InvalidInputArg. Message: no configuration "
                 "database.) ");
  }
}

TEST_F(CpuLoadMonitoringTest, ChangedThresholdIsReadOnItsChangeEvent) {
  auto function = make();
  store_threshold(1);
  logger->clear();
  ASSERT_TRUE(function->config_change(ServiceCtx{}, {service::Config_change{80, 1, 0}}));
  EXPECT_EQ(function->threshold(), 1);
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Change config event [ALARM_SYSTEM_LOAD_AVERAGE]"}));
  EXPECT_TRUE(logger->contains("Change config event [ALARM_SYSTEM_LOAD_AVERAGE]", 0));
}

TEST_F(CpuLoadMonitoringTest, LargestAverageAtTheThresholdRaisesTheAlarm) {
  store_threshold(30);
  set_loads(0.10, 0.20, 0.30);
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(only_alarm(), expected_alarm(0, 10, 20, 30, "CPU load average (1m, 5m, 15m): 0.10, 0.20, 0.30"));
}

TEST_F(CpuLoadMonitoringTest, ThresholdAboveTheLargestAverageIsBackToNormal) {
  store_threshold(31);
  set_loads(0.10, 0.20, 0.30);
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(only_alarm(),
            expected_alarm(1, 10, 20, 30, "CPU load average (1m, 5m, 15m): 0.10, 0.20, 0.30 is back to normal"));
}

TEST_F(CpuLoadMonitoringTest, ZeroThresholdReportsBackToNormalOnEveryPoll) {
  store_threshold(0);
  set_loads(9.99, 8.0, 7.5);
  auto function = make();
  ASSERT_TRUE(function->polling());
  ASSERT_TRUE(function->polling());
  const auto events = ipc->events();
  ASSERT_EQ(events.size(), 2U);
  for (const auto& event : events) {
    ASSERT_EQ(event.payload.size(), 305U);
    EXPECT_EQ(event.payload[8], 1);
    EXPECT_EQ(text_of(event.payload), "CPU load average (1m, 5m, 15m): 9.99, 8.00, 7.50 is back to normal");
  }
}

TEST_F(CpuLoadMonitoringTest, RaisedTextEndsWithTheLastAverage) {
  store_threshold(100);
  set_loads(1.5, 0.25, 0.0);
  auto function = make();
  ASSERT_TRUE(function->polling());
  const auto payload = only_alarm();
  EXPECT_EQ(text_of(payload), "CPU load average (1m, 5m, 15m): 1.50, 0.25, 0.00");
  EXPECT_EQ(payload, expected_alarm(0, 150, 25, 0, "CPU load average (1m, 5m, 15m): 1.50, 0.25, 0.00"));
}

TEST_F(CpuLoadMonitoringTest, ComparisonIsOnTruncatedHundredths) {
  store_threshold(250);
  set_loads(2.499, 0.999, 0.0);
  auto function = make();
  ASSERT_TRUE(function->polling());
  const auto payload = only_alarm();
  EXPECT_EQ(payload[8], 1);
  EXPECT_EQ(payload,
            expected_alarm(1, 249, 99, 0, "CPU load average (1m, 5m, 15m): 2.50, 1.00, 0.00 is back to normal"));
}

TEST_F(CpuLoadMonitoringTest, AnyOfTheThreeAveragesCanRaiseTheAlarm) {
  store_threshold(200);
  set_loads(0.5, 0.7, 2.0);
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(only_alarm()[8], 0);
}

TEST_F(CpuLoadMonitoringTest, FailedGetloadavgSendsNothingAndLogsErrno) {
  host->fail_getloadavg(ENOSYS);
  auto function = make();
  logger->clear();
  const auto result = function->polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  EXPECT_TRUE(ipc->events().empty());
  const auto lines = logger->lines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].text, "getloadavg() call failed (" + std::to_string(ENOSYS) + ")");
  EXPECT_EQ(lines[0].level, 4);
}

TEST_F(CpuLoadMonitoringTest, GetloadavgReturningFewerThanThreeIsAFailure) {
  host->fail_getloadavg(0, 2);
  auto function = make();
  const auto result = function->polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  EXPECT_TRUE(logger->contains("getloadavg() call failed (0)", 4));
  EXPECT_TRUE(ipc->events().empty());
}

TEST_F(CpuLoadMonitoringTest, NextPollAfterAFailureTriesAgain) {
  host->fail_getloadavg(EAGAIN);
  auto function = make();
  ASSERT_TRUE(function->polling().has_error());
  set_loads(0.01, 0.02, 0.03);
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(loadavg_calls(), 2U);
  EXPECT_EQ(only_alarm()[33], 1);
}

TEST_F(CpuLoadMonitoringTest, SnprintfReturningZeroSendsNothing) {
  host->set_format_result(0);
  auto function = make();
  logger->clear();
  const auto result = function->polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  const auto lines = logger->lines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].text, "snprintf() call failed (0)");
  EXPECT_EQ(lines[0].level, 4);
  EXPECT_TRUE(ipc->events().empty());
}

TEST_F(CpuLoadMonitoringTest, TruncatedTextSendsNothing) {
  host->set_format_result(256);
  auto function = make();
  const auto result = function->polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  EXPECT_TRUE(logger->contains("snprintf() call failed (256)", 4));
  EXPECT_TRUE(ipc->events().empty());
}

TEST_F(CpuLoadMonitoringTest, NegativeFormattingResultSendsNothing) {
  host->set_format_result(-1);
  auto function = make();
  ASSERT_TRUE(function->polling().has_error());
  EXPECT_TRUE(logger->contains("snprintf() call failed (-1)", 4));
  EXPECT_TRUE(ipc->events().empty());
}

TEST_F(CpuLoadMonitoringTest, TextOfExactly255CharactersIsSent) {
  // 5e207 prints with 208 digits: with the 32-character head the raised text is 255 long.
  constexpr double kLoad = 5e207;
  char expected[300];
  ASSERT_EQ(
      std::snprintf(expected, sizeof expected, "CPU load average (1m, 5m, 15m): %.2f, %.2f, %.2f", kLoad, 0.0, 0.0),
      255);
  store_threshold(1);
  set_loads(kLoad, 0.0, 0.0);
  auto function = make();
  ASSERT_TRUE(function->polling());
  const auto payload = only_alarm();
  const std::string text = text_of(payload);
  EXPECT_EQ(text.size(), 255U);
  EXPECT_EQ(text, std::string(expected));
  EXPECT_EQ(payload[300], 0);
}

TEST_F(CpuLoadMonitoringTest, FailedSendIsReturned) {
  auto function = make();
  ipc->fail_next_send(Error::InvalidState);
  const auto result = function->polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
  EXPECT_TRUE(ipc->events().empty());
}

TEST_F(CpuLoadMonitoringTest, NonFiniteOrNegativeAveragesArePinnedInsteadOfOverflowing) {
  store_threshold(1);
  set_loads(std::nan(""), -1.0, 1e8);
  auto function = make();
  ASSERT_TRUE(function->polling());
  const auto payload = only_alarm();
  EXPECT_EQ(payload[33], 0);
  EXPECT_EQ(payload[37], 0);
  EXPECT_EQ(payload[41], 0xFF);
  EXPECT_EQ(payload[44], 0xFF);
  EXPECT_EQ(payload[8], 0);
  EXPECT_EQ(text_of(payload), "CPU load average (1m, 5m, 15m): nan, -1.00, 100000000.00");
}

TEST_F(CpuLoadMonitoringTest, AverageTooLargeForTheTextFieldIsASnprintfFailure) {
  store_threshold(0);
  set_loads(1e300, 0.0, 0.0);
  auto function = make();
  const auto result = function->polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  EXPECT_TRUE(logger->contains(
      "snprintf() call failed (" +
          std::to_string(std::snprintf(nullptr, 0, "CPU load average (1m, 5m, 15m): %.2f, %.2f, %.2f%s", 1e300, 0.0,
                                       0.0, " is back to normal")) +
          ")",
      4));
  EXPECT_TRUE(ipc->events().empty());
}

TEST_F(CpuLoadMonitoringTest, EmptyChangeListReadsNothing) {
  store_threshold(10);
  auto function = make();
  store_threshold(20);
  logger->clear();
  EXPECT_TRUE(function->config_change(ServiceCtx{}, {}));
  EXPECT_EQ(function->threshold(), 10);
  EXPECT_TRUE(logger->texts().empty());
}

TEST_F(CpuLoadMonitoringTest, TwoMatchingRecordsReadTheSectionTwice) {
  auto function = make();
  store_threshold(77);
  logger->clear();
  EXPECT_TRUE(function->config_change(ServiceCtx{}, {service::Config_change{80, 1, 0}, service::Config_change{77, 1, 0},
                                                     service::Config_change{80, 1, 0}}));
  EXPECT_EQ(function->threshold(), 77);
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Change config event [ALARM_SYSTEM_LOAD_AVERAGE]",
                                                       "Change config event [ALARM_SYSTEM_LOAD_AVERAGE]"}));
}

TEST_F(CpuLoadMonitoringTest, RecordsOfOtherSectionsAreSkipped) {
  store_threshold(10);
  auto function = make();
  store_threshold(20);
  logger->clear();
  EXPECT_TRUE(
      function->config_change(ServiceCtx{}, {service::Config_change{77, 1, 0}, service::Config_change{81, 1, 0}}));
  EXPECT_EQ(function->threshold(), 10);
  EXPECT_TRUE(logger->texts().empty());
}

TEST_F(CpuLoadMonitoringTest, FailedReadOnChangeStopsAtOnceAndKeepsThePreviousThreshold) {
  store_threshold(120);
  auto function = make();
  store_unreadable_threshold();
  logger->clear();
  // One failed read only: the second record is not looked at.
  expect_failed_reread(
      function->config_change(ServiceCtx{}, {service::Config_change{80, 1, 0}, service::Config_change{80, 1, 0}}),
      {"Change config event [ALARM_SYSTEM_LOAD_AVERAGE]"});
  EXPECT_EQ(function->threshold(), 120);
}

TEST_F(CpuLoadMonitoringTest, RunningFunctionReportsOnEveryPeriodWithTheCurrentThreshold) {
  store_threshold(50);
  set_loads(0.60, 0.10, 0.10);
  // Exposes the wake-up so that the test can end the thread even when stop's own wake-up
  // falls into a poll (and is lost, as designed).
  class Wakeable : public CpuLoadMonitoring {
   public:
    using CpuLoadMonitoring::CpuLoadMonitoring;
    using SysFunction::wake_polling_thread;
  };
  auto function = std::make_unique<Wakeable>(logger, ipc, cfgdb, 20ms, host);
  ASSERT_TRUE(function->run());
  ASSERT_TRUE(ipc->wait_for_events(1, 5s));
  EXPECT_EQ(ipc->events()[0].payload[8], 0);
  store_threshold(70);
  ASSERT_TRUE(function->config_change(ServiceCtx{}, {service::Config_change{80, 1, 0}}));
  const auto seen = ipc->events().size();
  ASSERT_TRUE(ipc->wait_for_events(seen + 2, 5s));
  EXPECT_EQ(ipc->events().back().payload[8], 1);
  auto stopped = std::async(std::launch::async, [&] { return function->stop(); });
  while (stopped.wait_for(5ms) != std::future_status::ready) {
    function->wake_polling_thread();
  }
  EXPECT_TRUE(stopped.get());
}

}  // namespace
}  // namespace xpon::system_mgr
