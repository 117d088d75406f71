#include "xpon/system_mgr/functions/cpu_load_monitoring.hpp"

#include "xpon/cfgdb/schema.hpp"
#include "xpon/cfgdb/sections.hpp"
#include "xpon/cfgdb/store.hpp"
#include "xpon/test/recording_ipc.hpp"
#include "xpon/test/recording_logger.hpp"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <future>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace xpon::system_mgr {
namespace {

using namespace std::chrono_literals;
using core::Error;

// A fresh database file per test, removed afterwards.
class TempDatabase {
 public:
  TempDatabase() {
    char pattern[] = "/tmp/cpu-load-test-XXXXXX";
    const char* made = ::mkdtemp(pattern);
    if (made == nullptr) {
      throw std::runtime_error("mkdtemp failed");
    }
    dir_ = made;
  }
  ~TempDatabase() {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }
  TempDatabase(const TempDatabase&) = delete;
  TempDatabase& operator=(const TempDatabase&) = delete;
  [[nodiscard]] std::string file() const { return (dir_ / "cfgdb.sqlite3").string(); }

 private:
  std::filesystem::path dir_;
};

class CpuLoadMonitoringTest : public ::testing::Test {
 protected:
  // The real calls, except that the averages, the threshold and failures come from the test.
  CpuLoadSystemCalls fake_calls() {
    CpuLoadSystemCalls calls = CpuLoadSystemCalls::system();
    calls.getloadavg = [this](double* averages, int count) {
      ++getloadavg_calls;
      if (getloadavg_result != 3) {
        errno = getloadavg_errno;
        return getloadavg_result;
      }
      for (int i = 0; i < count && i < 3; ++i) {
        averages[i] = loads[static_cast<std::size_t>(i)];
      }
      return 3;
    };
    calls.read_config = [this](CfgDb__handle* db, CfgDb__alarm_system_load_average* cfg, const CfgDb__key* key) {
      ++config_reads;
      EXPECT_EQ(db, cfgdb->handle());
      const CfgDb__key zero{};
      EXPECT_EQ(std::memcmp(key, &zero, sizeof zero), 0);
      if (config_fails) {
        errno = EIO;
        return -1;
      }
      std::memset(cfg, 0, sizeof *cfg);
      cfg->threshold = threshold;
      return 0;
    };
    return calls;
  }

  std::unique_ptr<CpuLoadMonitoring> make(std::chrono::milliseconds period = 30000ms) {
    return std::make_unique<CpuLoadMonitoring>(logger, ipc, cfgdb, period, fake_calls());
  }

  // The one alarm event sent so far, checked for its header words.
  ipc::Payload only_alarm() const {
    const auto events = ipc->events();
    EXPECT_EQ(events.size(), 1U);
    if (events.empty()) {
      return {};
    }
    EXPECT_EQ(events.back().address, 0x0000FFFEU);
    EXPECT_EQ(events.back().group, 9000);
    EXPECT_EQ(events.back().id, 9005);
    return events.back().payload;
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

  static std::string text_of(const ipc::Payload& payload) {
    return {reinterpret_cast<const char*>(payload.data() + 45)};
  }

  TempDatabase database;
  std::shared_ptr<test::RecordingLogger> logger = std::make_shared<test::RecordingLogger>();
  std::shared_ptr<test::RecordingIpc> ipc = std::make_shared<test::RecordingIpc>();
  std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb = std::make_shared<cfgdb::CfgDbWrapper>("TEST_CFGDB", database.file());

  std::array<double, 3> loads{0.0, 0.0, 0.0};
  int getloadavg_result = 3;
  int getloadavg_errno = 0;
  std::atomic<int> getloadavg_calls{0};
  std::uint16_t threshold = 0;
  bool config_fails = false;
  int config_reads = 0;
};

TEST_F(CpuLoadMonitoringTest, ConstructionReadsTheConfigurationOnceAndLogs) {
  threshold = 250;
  auto function = make();
  EXPECT_EQ(config_reads, 1);
  EXPECT_EQ(function->threshold(), 250);
  EXPECT_EQ(function->name(), "CpuLoadMonitoring");
  const auto texts = logger->texts();
  ASSERT_EQ(texts.size(), 2U);
  EXPECT_EQ(texts[0], "SysFunction create successfully");
  EXPECT_EQ(texts[1], "CpuLoadMonitoring create successfully");
  EXPECT_TRUE(logger->contains("CpuLoadMonitoring create successfully", 0));
}

TEST_F(CpuLoadMonitoringTest, DestructionLogs) {
  make().reset();
  const auto texts = logger->texts();
  ASSERT_GE(texts.size(), 2U);
  EXPECT_EQ(texts[texts.size() - 2], "CpuLoadMonitoring destroy successfully");
  EXPECT_EQ(texts.back(), "SysFunction destroy successfully");
}

TEST_F(CpuLoadMonitoringTest, UnreadableConfigurationAtConstructionThrows) {
  config_fails = true;
  try {
    make();
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Config update for CpuLoadMonitoring failed (Error: ErrorCApi) ");
  }
  EXPECT_TRUE(logger->contains("C API function returned -1, errno=5", 4));
  EXPECT_EQ(errno, 0);
}

TEST_F(CpuLoadMonitoringTest, MissingDatabaseAtConstructionThrows) {
  try {
    CpuLoadMonitoring function(logger, ipc, nullptr, 30000ms, fake_calls());
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(),
                 "Config update for CpuLoadMonitoring failed (Error: InvalidInputArg. Message: no configuration "
                 "database.) ");
  }
}

TEST_F(CpuLoadMonitoringTest, RealGetterReadsTheStoredThresholdAndItsChanges) {
  CpuLoadSystemCalls calls = fake_calls();
  calls.read_config = CpuLoadSystemCalls::system().read_config;
  CpuLoadMonitoring function(logger, ipc, cfgdb, 30000ms, calls);
  const auto* section = cfgdb::find_section(cfgdb::kAlarmSystemLoadAverage.id);
  ASSERT_NE(section, nullptr);
  const auto defaults = cfgdb::default_values(*section);
  ASSERT_FALSE(defaults.empty());
  EXPECT_EQ(function.threshold(), defaults[0]);

  auto store = cfgdb::Store::open(database.file());
  ASSERT_TRUE(store);
  const std::vector<cfgdb::SectionChange> changes{cfgdb::SectionChange{section, {std::uint32_t{1}}}};
  ASSERT_TRUE(store.value()->change(changes));
  ASSERT_TRUE(function.config_change(ServiceCtx{}, {service::Config_change{80, 1, 0}}));
  EXPECT_EQ(function.threshold(), 1);
  EXPECT_TRUE(logger->contains("Change config event [ALARM_SYSTEM_LOAD_AVERAGE]", 0));
}

TEST_F(CpuLoadMonitoringTest, SubscribesNothing) {
  auto function = make();
  EXPECT_TRUE(function->ipc_subscribe());
  EXPECT_TRUE(function->ipc_unsubscribe());
  EXPECT_EQ(ipc->subscribe_calls(), 0U);
  EXPECT_EQ(ipc->unsubscribe_calls(), 0U);
}

TEST_F(CpuLoadMonitoringTest, LargestAverageAtTheThresholdRaisesTheAlarm) {
  threshold = 30;
  loads = {0.10, 0.20, 0.30};
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(only_alarm(), expected_alarm(0, 10, 20, 30, "CPU load average (1m, 5m, 15m): 0.10, 0.20, 0.30"));
}

TEST_F(CpuLoadMonitoringTest, ThresholdAboveTheLargestAverageIsBackToNormal) {
  threshold = 31;
  loads = {0.10, 0.20, 0.30};
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(only_alarm(),
            expected_alarm(1, 10, 20, 30, "CPU load average (1m, 5m, 15m): 0.10, 0.20, 0.30 is back to normal"));
}

TEST_F(CpuLoadMonitoringTest, ZeroThresholdReportsBackToNormalOnEveryPoll) {
  threshold = 0;
  loads = {9.99, 8.0, 7.5};
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
  threshold = 100;
  loads = {1.5, 0.25, 0.0};
  auto function = make();
  ASSERT_TRUE(function->polling());
  const auto payload = only_alarm();
  EXPECT_EQ(text_of(payload), "CPU load average (1m, 5m, 15m): 1.50, 0.25, 0.00");
  EXPECT_EQ(payload, expected_alarm(0, 150, 25, 0, "CPU load average (1m, 5m, 15m): 1.50, 0.25, 0.00"));
}

TEST_F(CpuLoadMonitoringTest, ComparisonIsOnTruncatedHundredths) {
  threshold = 250;
  loads = {2.499, 0.999, 0.0};
  auto function = make();
  ASSERT_TRUE(function->polling());
  const auto payload = only_alarm();
  EXPECT_EQ(payload[8], 1);
  EXPECT_EQ(payload,
            expected_alarm(1, 249, 99, 0, "CPU load average (1m, 5m, 15m): 2.50, 1.00, 0.00 is back to normal"));
}

TEST_F(CpuLoadMonitoringTest, AnyOfTheThreeAveragesCanRaiseTheAlarm) {
  threshold = 200;
  loads = {0.5, 0.7, 2.0};
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(only_alarm()[8], 0);
}

TEST_F(CpuLoadMonitoringTest, FailedGetloadavgSendsNothingAndLogsErrno) {
  getloadavg_result = -1;
  getloadavg_errno = ENOSYS;
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
  getloadavg_result = 2;
  getloadavg_errno = 0;
  auto function = make();
  const auto result = function->polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  EXPECT_TRUE(logger->contains("getloadavg() call failed (0)", 4));
  EXPECT_TRUE(ipc->events().empty());
}

TEST_F(CpuLoadMonitoringTest, NextPollAfterAFailureTriesAgain) {
  getloadavg_result = -1;
  auto function = make();
  ASSERT_TRUE(function->polling().has_error());
  getloadavg_result = 3;
  loads = {0.01, 0.02, 0.03};
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(getloadavg_calls.load(), 2);
  EXPECT_EQ(only_alarm()[33], 1);
}

TEST_F(CpuLoadMonitoringTest, SnprintfReturningZeroSendsNothing) {
  CpuLoadSystemCalls calls = fake_calls();
  calls.format_text = [](char*, std::size_t, const char*, double, double, double, const char*) { return 0; };
  CpuLoadMonitoring function(logger, ipc, cfgdb, 30000ms, calls);
  logger->clear();
  const auto result = function.polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  const auto lines = logger->lines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].text, "snprintf() call failed (0)");
  EXPECT_EQ(lines[0].level, 4);
  EXPECT_TRUE(ipc->events().empty());
}

TEST_F(CpuLoadMonitoringTest, TruncatedTextSendsNothing) {
  CpuLoadSystemCalls calls = fake_calls();
  calls.format_text = [](char* out, std::size_t size, const char*, double, double, double, const char*) {
    std::memset(out, 'x', size - 1);
    out[size - 1] = '\0';
    return 256;
  };
  CpuLoadMonitoring function(logger, ipc, cfgdb, 30000ms, calls);
  const auto result = function.polling();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  EXPECT_TRUE(logger->contains("snprintf() call failed (256)", 4));
  EXPECT_TRUE(ipc->events().empty());
}

TEST_F(CpuLoadMonitoringTest, TextOfExactly255CharactersIsSent) {
  CpuLoadSystemCalls calls = fake_calls();
  calls.format_text = [](char* out, std::size_t size, const char*, double, double, double, const char*) {
    EXPECT_EQ(size, 256U);
    std::memset(out, 'y', 255);
    out[255] = '\0';
    return 255;
  };
  CpuLoadMonitoring function(logger, ipc, cfgdb, 30000ms, calls);
  ASSERT_TRUE(function.polling());
  const auto payload = only_alarm();
  EXPECT_EQ(text_of(payload), std::string(255, 'y'));
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
  threshold = 1;
  loads = {std::nan(""), -1.0, 1e8};
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
  loads = {1e300, 0.0, 0.0};
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
  auto function = make();
  ASSERT_EQ(config_reads, 1);
  EXPECT_TRUE(function->config_change(ServiceCtx{}, {}));
  EXPECT_EQ(config_reads, 1);
  EXPECT_FALSE(logger->contains("Change config event [ALARM_SYSTEM_LOAD_AVERAGE]"));
}

TEST_F(CpuLoadMonitoringTest, TwoMatchingRecordsReadTheSectionTwice) {
  auto function = make();
  threshold = 77;
  logger->clear();
  EXPECT_TRUE(function->config_change(ServiceCtx{}, {service::Config_change{80, 1, 0}, service::Config_change{77, 1, 0},
                                                     service::Config_change{80, 1, 0}}));
  EXPECT_EQ(config_reads, 3);
  EXPECT_EQ(function->threshold(), 77);
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Change config event [ALARM_SYSTEM_LOAD_AVERAGE]",
                                                       "Change config event [ALARM_SYSTEM_LOAD_AVERAGE]"}));
}

TEST_F(CpuLoadMonitoringTest, RecordsOfOtherSectionsAreSkipped) {
  auto function = make();
  EXPECT_TRUE(
      function->config_change(ServiceCtx{}, {service::Config_change{77, 1, 0}, service::Config_change{81, 1, 0}}));
  EXPECT_EQ(config_reads, 1);
}

TEST_F(CpuLoadMonitoringTest, FailedReadOnChangeStopsAtOnceAndKeepsThePreviousThreshold) {
  threshold = 120;
  auto function = make();
  config_fails = true;
  logger->clear();
  const auto result =
      function->config_change(ServiceCtx{}, {service::Config_change{80, 1, 0}, service::Config_change{80, 1, 0}});
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  EXPECT_EQ(config_reads, 2);
  EXPECT_EQ(function->threshold(), 120);
  EXPECT_TRUE(logger->contains("C API function returned -1, errno=5", 4));
  EXPECT_FALSE(logger->contains("Change config event [ALARM_SYSTEM_LOAD_AVERAGE]"));
}

TEST_F(CpuLoadMonitoringTest, RunningFunctionReportsOnEveryPeriodWithTheCurrentThreshold) {
  threshold = 50;
  loads = {0.60, 0.10, 0.10};
  // Exposes the wake-up so that the test can end the thread even when stop's own wake-up
  // falls into a poll (and is lost, as designed).
  class Wakeable : public CpuLoadMonitoring {
   public:
    using CpuLoadMonitoring::CpuLoadMonitoring;
    using SysFunction::wake_polling_thread;
  };
  auto function = std::make_unique<Wakeable>(logger, ipc, cfgdb, 20ms, fake_calls());
  ASSERT_TRUE(function->run());
  ASSERT_TRUE(ipc->wait_for_events(1, 5s));
  EXPECT_EQ(ipc->events()[0].payload[8], 0);
  threshold = 70;
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
