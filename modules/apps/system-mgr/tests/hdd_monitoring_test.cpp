#include "xpon/system_mgr/functions/hdd_monitoring.hpp"

#include "function_test.hpp"
#include "xpon/cfgdb/sections.hpp"
#include "xpon/test/fake_host.hpp"
#include "xpon/test/recording_ipc.hpp"
#include "xpon/test/recording_logger.hpp"
#include "xpon/test/sandbox.hpp"
#include "xpon/test/temp_dir.hpp"

#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <future>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace xpon::system_mgr {
namespace {

using namespace std::chrono_literals;
using core::Error;

// Where the fake host sees the partitions: the fixture makes this the host root, so every call
// must go to the mapped path while every text keeps the logical mount point.
constexpr const char* kRoot = "/sandbox-root";
constexpr ipc::Address kSender = ipc::make_address(0x0042);
constexpr std::uint16_t kTag = 0x1234;

struct Partition {
  const char* mount_point;
  fsblkcnt_t blocks;
  fsblkcnt_t available;
};

// 4096-byte blocks: 1 + 2 + 0.5 + 0.25 + 0.25 = 4 GiB in all, 1.3125 GiB available; free shares
// 50, 25, 12 (12.5 truncated), 100 and 0 percent.
constexpr Partition kLayout[] = {{"/boot", 262144, 131072},
                                 {"/data", 524288, 131072},
                                 {"/configuration", 131072, 16384},
                                 {"/firmware/primary_firmware", 65536, 65536},
                                 {"/firmware/secondary_firmware", 65536, 0}};

// The function over a real configuration database file and a fake host: the test sets the
// threshold in the database and the file-system statistics in the host, and reads what was sent.
class HddMonitoringTest : public FunctionTest {
 protected:
  HddMonitoringTest() {
    for (const auto& partition : kLayout) {
      set_partition(partition.mount_point, partition.blocks, partition.available);
    }
  }

  std::unique_ptr<HddMonitoring> make(std::chrono::milliseconds period = 30000ms) {
    return std::make_unique<HddMonitoring>(logger, ipc, cfgdb, period, host);
  }

  static std::string mapped(const std::string& mount_point) { return std::string(kRoot) + mount_point; }

  void set_partition(const std::string& mount_point, fsblkcnt_t blocks, fsblkcnt_t available) {
    struct statvfs stats;
    std::memset(&stats, 0, sizeof stats);
    stats.f_bsize = 4096;
    stats.f_frsize = 4096;
    stats.f_blocks = blocks;
    // Different from f_bavail, so that a use of the wrong field shows.
    stats.f_bfree = std::min<fsblkcnt_t>(blocks, available + 1000);
    stats.f_bavail = available;
    host->set_file_system(mapped(mount_point), stats);
  }

  // Stores a new threshold, as a configuration writer would.
  void store_threshold(std::uint32_t value) { store_section(cfgdb::kAlarmDiskSpace, {value}); }

  // Puts a value the getter refuses (EINVAL) into the database, as a damaged database would hold it.
  void store_unreadable_threshold() { store_raw_field(cfgdb::kAlarmDiskSpace, "threshold", "70000"); }

  // The text of the std::runtime_error the construction throws; empty if it does not throw.
  std::string construction_failure(const std::shared_ptr<cfgdb::CfgDbWrapper>& database) {
    try {
      HddMonitoring function(logger, ipc, database, 30000ms, host);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return {};
  }

  [[nodiscard]] std::vector<std::string> statvfs_calls() const {
    std::vector<std::string> calls;
    for (const auto& call : host->calls()) {
      if (call.starts_with("statvfs ")) {
        calls.push_back(call);
      }
    }
    return calls;
  }

  // The statvfs calls of the first `count` partitions, in order, at their mapped paths.
  static std::vector<std::string> expected_statvfs_calls(std::size_t count) {
    std::vector<std::string> calls;
    for (std::size_t i = 0; i < count; ++i) {
      calls.push_back("statvfs " + mapped(kLayout[i].mount_point));
    }
    return calls;
  }

  // One poll of a fresh function, which must succeed: the five alarm records it sent (padded
  // with empty records if fewer came, so that a failed expectation still indexes in bounds).
  std::vector<ipc::Payload> five_alarms_of_one_poll() {
    auto function = make();
    EXPECT_TRUE(function->polling());
    auto sent = alarms();
    EXPECT_EQ(sent.size(), 5U);
    sent.resize(5);
    return sent;
  }

  static void put_u32(ipc::Payload& bytes, std::size_t offset, std::uint32_t value) {
    for (std::size_t b = 0; b < 4; ++b) {
      bytes[offset + b] = static_cast<std::uint8_t>((value >> (8 * b)) & 0xFFU);
    }
  }

  static ipc::Payload expected_alarm(std::uint8_t state, std::uint32_t instance, std::uint32_t share,
                                     const std::string& text) {
    ipc::Payload bytes(305, 0);
    bytes[8] = state;
    put_u32(bytes, 9, 45);
    put_u32(bytes, 17, instance);
    put_u32(bytes, 33, share);
    std::copy(text.begin(), text.end(), bytes.begin() + 45);
    return bytes;
  }

  static ipc::Request hdd_request(ipc::Payload payload = {}) {
    ipc::Request request;
    request.payload = std::move(payload);
    request.group = IPC_SYSTEM_MGR;
    request.id = IPC_SYSTEM_MGR__GET_HDD_DATA;
    request.reply_to = ipc::ReplyTo{kSender, kTag};
    return request;
  }

  // The one response sent so far, checked for its address, words and tag.
  [[nodiscard]] ipc::Response only_response(std::uint32_t result) const {
    const auto responses = ipc->responses();
    EXPECT_EQ(responses.size(), 1U);
    if (responses.empty()) {
      return {};
    }
    EXPECT_EQ(responses[0].address, kSender);
    EXPECT_EQ(responses[0].response.address, 0x0000FFFEU);
    EXPECT_EQ(responses[0].response.reply_tag, kTag);
    EXPECT_EQ(responses[0].response.result, result);
    return responses[0].response;
  }

  // 4.0 and 1.3125 as IEEE 754 single, little-endian.
  static ipc::Payload expected_answer() { return {0x00, 0x00, 0x80, 0x40, 0x00, 0x00, 0xA8, 0x3F}; }

  test::ScopedEnv root{"XPON_ROOT", std::string(kRoot)};
};

// --- The conversion of the free share -----------------------------------------------------

TEST(PercentToU32Test, TruncatesTowardZero) {
  EXPECT_EQ(truncate_to_u32(12.9), 12U);
  EXPECT_EQ(truncate_to_u32(0.99), 0U);
  EXPECT_EQ(truncate_to_u32(100.0), 100U);
}

TEST(PercentToU32Test, NotANumberGivesZero) {
  EXPECT_EQ(truncate_to_u32(std::numeric_limits<double>::quiet_NaN()), 0U);
  EXPECT_EQ(truncate_to_u32(-std::numeric_limits<double>::quiet_NaN()), 0U);
}

TEST(PercentToU32Test, PositiveInfinityGivesTheMaximum) {
  EXPECT_EQ(truncate_to_u32(std::numeric_limits<double>::infinity()), 4294967295U);
}

TEST(PercentToU32Test, TooLargeGivesTheMaximum) {
  EXPECT_EQ(truncate_to_u32(4294967296.0), 4294967295U);
  EXPECT_EQ(truncate_to_u32(1e300), 4294967295U);
  EXPECT_EQ(truncate_to_u32(std::numeric_limits<double>::max()), 4294967295U);
}

TEST(PercentToU32Test, LargestValueInRangeIsKept) {
  EXPECT_EQ(truncate_to_u32(4294967295.0), 4294967295U);
  EXPECT_EQ(truncate_to_u32(4294967295.5), 4294967295U);
}

TEST(PercentToU32Test, NegativeGivesZero) {
  EXPECT_EQ(truncate_to_u32(-0.5), 0U);
  EXPECT_EQ(truncate_to_u32(-1.0), 0U);
  EXPECT_EQ(truncate_to_u32(-0.0), 0U);
  EXPECT_EQ(truncate_to_u32(-std::numeric_limits<double>::infinity()), 0U);
}

// --- Construction and configuration -------------------------------------------------------

TEST_F(HddMonitoringTest, ConstructionReadsTheConfigurationAndTheSizes) {
  store_threshold(20);
  auto function = make();
  EXPECT_EQ(function->threshold(), 20);
  EXPECT_EQ(function->name(), "HddMonitoring");
  EXPECT_EQ(function->period(), 30000ms);
  EXPECT_EQ(function->total_size(), 4.0F);
  EXPECT_EQ(statvfs_calls(), expected_statvfs_calls(5));
  EXPECT_EQ(logger->texts(),
            (std::vector<std::string>{"SysFunction create successfully", "HddMonitoring create successfully"}));
  EXPECT_TRUE(logger->contains("HddMonitoring create successfully", 0));
}

TEST_F(HddMonitoringTest, DestructionLogs) {
  make().reset();
  const auto texts = logger->texts();
  ASSERT_GE(texts.size(), 2U);
  EXPECT_EQ(texts[texts.size() - 2], "HddMonitoring destroy successfully");
  EXPECT_EQ(texts.back(), "SysFunction destroy successfully");
}

TEST_F(HddMonitoringTest, UnreadableConfigurationAtConstructionThrows) {
  store_unreadable_threshold();
  EXPECT_EQ(construction_failure(cfgdb), "Config update for HddMonitoring failed (Error: ErrorCApi) ");
  EXPECT_TRUE(logger->contains("C API function returned -1, errno=" + std::to_string(EINVAL), 4));
  // The partitions are not looked at without a configuration.
  EXPECT_TRUE(statvfs_calls().empty());
}

TEST_F(HddMonitoringTest, MissingDatabaseAtConstructionThrows) {
  EXPECT_EQ(construction_failure(nullptr),
            "Config update for HddMonitoring failed (Error: InvalidInputArg. Message: no configuration database.) ");
}

TEST_F(HddMonitoringTest, UnqueryablePartitionAtConstructionThrowsWithItsMountPoint) {
  host->fail_file_system(mapped("/configuration"), EACCES);
  EXPECT_EQ(construction_failure(cfgdb),
            "statvfs(/configuration) call failed (" + std::string(std::strerror(EACCES)) + ")");
  EXPECT_EQ(statvfs_calls(), expected_statvfs_calls(3));
}

TEST_F(HddMonitoringTest, ChangedThresholdIsReadOnItsChangeEventAndTheTotalStays) {
  auto function = make();
  store_threshold(7);
  set_partition("/boot", 524288, 0);
  logger->clear();
  ASSERT_TRUE(function->config_change(ServiceCtx{}, {service::Config_change{78, 1, 0}}));
  EXPECT_EQ(function->threshold(), 7);
  EXPECT_EQ(function->total_size(), 4.0F);
  EXPECT_EQ(statvfs_calls().size(), 5U);
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Change config event [ALARM_DISK_SPACE]"}));
  EXPECT_TRUE(logger->contains("Change config event [ALARM_DISK_SPACE]", 0));
}

TEST_F(HddMonitoringTest, OtherSectionsAreIgnored) {
  store_threshold(7);
  auto function = make();
  store_threshold(9);
  logger->clear();
  ASSERT_TRUE(function->config_change(ServiceCtx{}, {service::Config_change{80, 1, 0}}));
  EXPECT_EQ(function->threshold(), 7);
  EXPECT_TRUE(logger->texts().empty());
}

TEST_F(HddMonitoringTest, FailedReadOnChangeIsLoggedStopsAtOnceAndKeepsThePreviousThreshold) {
  store_threshold(7);
  auto function = make();
  store_unreadable_threshold();
  logger->clear();
  // One failed read only: the second record is not looked at.
  expect_failed_reread(
      function->config_change(ServiceCtx{}, {service::Config_change{78, 1, 0}, service::Config_change{78, 1, 0}}),
      {"Change config event [ALARM_DISK_SPACE]"});
  EXPECT_EQ(function->threshold(), 7);
}

TEST_F(HddMonitoringTest, SubscribesAndUnsubscribesGetHddData) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  EXPECT_EQ(ipc->request_subscriptions(), (std::vector<ipc::Key>{ipc::Key{15500, 15502}}));
  ASSERT_TRUE(function->ipc_unsubscribe());
  EXPECT_TRUE(ipc->request_subscriptions().empty());
  EXPECT_EQ(ipc->subscribe_calls(), 1U);
  EXPECT_EQ(ipc->unsubscribe_calls(), 1U);
}

// --- The poll -----------------------------------------------------------------------------

TEST_F(HddMonitoringTest, PollReportsEveryPartitionInOrderWithItsLogicalMountPoint) {
  store_threshold(12);
  auto function = make();
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(
      alarms(),
      (std::vector<ipc::Payload>{
          expected_alarm(1, 0, 50, "/boot partition free disk space 50% is back to normal"),
          expected_alarm(1, 1, 25, "/data partition free disk space 25% is back to normal"),
          expected_alarm(0, 2, 12, "/configuration partition free disk space 12%"),
          expected_alarm(1, 3, 100, "/firmware/primary_firmware partition free disk space 100% is back to normal"),
          expected_alarm(0, 4, 0, "/firmware/secondary_firmware partition free disk space 0%"),
      }));
  // Construction, then the poll: each at the mapped paths.
  auto expected = expected_statvfs_calls(5);
  const auto poll = expected_statvfs_calls(5);
  expected.insert(expected.end(), poll.begin(), poll.end());
  EXPECT_EQ(statvfs_calls(), expected);
}

TEST_F(HddMonitoringTest, BootCarriesInstanceZero) {
  const auto sent = five_alarms_of_one_poll();
  EXPECT_EQ(sent[0][17], 0);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(sent[0].data() + 45)).rfind("/boot partition", 0), 0U);
}

TEST_F(HddMonitoringTest, SecondaryFirmwareCarriesInstanceFour) {
  const auto sent = five_alarms_of_one_poll();
  EXPECT_EQ(sent[4][17], 4);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(sent[4].data() + 45)).rfind("/firmware/secondary_firmware", 0),
            0U);
}

TEST_F(HddMonitoringTest, FreeShareEqualToTheThresholdRaisesTheAlarm) {
  store_threshold(25);
  const auto sent = five_alarms_of_one_poll();
  EXPECT_EQ(sent[1], expected_alarm(0, 1, 25, "/data partition free disk space 25%"));
}

TEST_F(HddMonitoringTest, FreeShareOneAboveTheThresholdIsBackToNormal) {
  store_threshold(24);
  const auto sent = five_alarms_of_one_poll();
  EXPECT_EQ(sent[1], expected_alarm(1, 1, 25, "/data partition free disk space 25% is back to normal"));
}

TEST_F(HddMonitoringTest, ThresholdZeroClearsEveryPartitionWithAtLeastOnePercent) {
  store_threshold(0);
  set_partition("/firmware/secondary_firmware", 65536, 656);  // 1.0009... %
  const auto sent = five_alarms_of_one_poll();
  for (std::size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(sent[i][8], 1) << kLayout[i].mount_point;
  }
  EXPECT_EQ(sent[4],
            expected_alarm(1, 4, 1, "/firmware/secondary_firmware partition free disk space 1% is back to normal"));
}

TEST_F(HddMonitoringTest, ThresholdZeroStillRaisesBelowOnePercent) {
  store_threshold(0);
  set_partition("/firmware/secondary_firmware", 65536, 655);  // 0.9994... %
  const auto sent = five_alarms_of_one_poll();
  EXPECT_EQ(sent[4], expected_alarm(0, 4, 0, "/firmware/secondary_firmware partition free disk space 0%"));
}

TEST_F(HddMonitoringTest, FreeShareIsTruncatedAndCountsBlocksAvailableToUsers) {
  store_threshold(0);
  set_partition("/data", 1000, 129);  // 12.9 % of f_bavail; f_bfree would give more
  const auto sent = five_alarms_of_one_poll();
  EXPECT_EQ(sent[1], expected_alarm(1, 1, 12, "/data partition free disk space 12% is back to normal"));
}

TEST_F(HddMonitoringTest, PartitionWithoutBlocksAndNothingAvailableReportsZero) {
  // 0 x 100 / 0 is not-a-number.
  store_threshold(10);
  set_partition("/boot", 0, 0);
  const auto sent = five_alarms_of_one_poll();
  EXPECT_EQ(sent[0], expected_alarm(0, 0, 0, "/boot partition free disk space 0%"));
}

TEST_F(HddMonitoringTest, PartitionWithoutBlocksButSomeAvailableReportsTheMaximum) {
  // n x 100 / 0 is +infinity.
  store_threshold(10);
  set_partition("/boot", 0, 5);
  const auto sent = five_alarms_of_one_poll();
  EXPECT_EQ(sent[0],
            expected_alarm(1, 0, 4294967295U, "/boot partition free disk space 4294967295% is back to normal"));
}

TEST_F(HddMonitoringTest, StatvfsFailureEndsThePollAtThatPartition) {
  auto function = make();
  host->fail_file_system(mapped("/configuration"), EIO);
  logger->clear();
  const auto polled = function->polling();
  ASSERT_FALSE(polled);
  EXPECT_EQ(polled.error().error, Error::ErrorCApi);
  EXPECT_EQ(alarms().size(), 2U);
  const auto calls = statvfs_calls();
  ASSERT_EQ(calls.size(), 8U);
  EXPECT_EQ(std::vector<std::string>(calls.begin() + 5, calls.end()), expected_statvfs_calls(3));
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"statvfs(/configuration) call failed (" +
                                                       std::string(std::strerror(EIO)) + ")"}));
  EXPECT_TRUE(logger->contains("statvfs(/configuration) call failed (" + std::string(std::strerror(EIO)) + ")", 4));
}

TEST_F(HddMonitoringTest, FailedSendAtTheThirdPartitionEndsThePoll) {
  auto failing = std::make_shared<FailingNthEventIpc>(3);
  ipc = failing;
  auto function = make();
  const auto polled = function->polling();
  ASSERT_FALSE(polled);
  EXPECT_EQ(polled.error().error, Error::CommonError);
  EXPECT_EQ(alarms().size(), 2U);
  const auto calls = statvfs_calls();
  ASSERT_EQ(calls.size(), 8U);
  EXPECT_EQ(std::vector<std::string>(calls.begin() + 5, calls.end()), expected_statvfs_calls(3));
}

TEST_F(HddMonitoringTest, FormattingThatWritesNothingEndsThePoll) {
  auto function = make();
  host->set_format_result(0);
  logger->clear();
  const auto polled = function->polling();
  ASSERT_FALSE(polled);
  EXPECT_EQ(polled.error().error, Error::ErrorCApi);
  EXPECT_TRUE(alarms().empty());
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"snprintf() call failed(0)"}));
  EXPECT_TRUE(logger->contains("snprintf() call failed(0)", 4));
  EXPECT_EQ(statvfs_calls().size(), 6U);
}

TEST_F(HddMonitoringTest, FormattingErrorEndsThePoll) {
  auto function = make();
  host->set_format_result(-1);
  const auto polled = function->polling();
  ASSERT_FALSE(polled);
  EXPECT_EQ(polled.error().error, Error::ErrorCApi);
  EXPECT_TRUE(alarms().empty());
  EXPECT_TRUE(logger->contains("snprintf() call failed(-1)", 4));
}

TEST_F(HddMonitoringTest, TruncatedTextEndsThePoll) {
  auto function = make();
  host->set_format_result(256);
  const auto polled = function->polling();
  ASSERT_FALSE(polled);
  EXPECT_EQ(polled.error().error, Error::ErrorCApi);
  EXPECT_TRUE(alarms().empty());
  EXPECT_TRUE(logger->contains("snprintf() call failed(256)", 4));
}

TEST_F(HddMonitoringTest, TextOfTheLongestLengthIsSent) {
  auto function = make();
  host->set_format_result(255);
  ASSERT_TRUE(function->polling());
  EXPECT_EQ(alarms().size(), 5U);
}

TEST_F(HddMonitoringTest, PollsOnItsThreadUntilStopped) {
  store_threshold(12);
  // Exposes the wake-up so that the test can end the thread even when stop's own wake-up
  // falls into a poll (and is lost, as designed).
  class Wakeable : public HddMonitoring {
   public:
    using HddMonitoring::HddMonitoring;
    using SysFunction::wake_polling_thread;
  };
  auto function = std::make_unique<Wakeable>(logger, ipc, cfgdb, 20ms, host);
  ASSERT_TRUE(function->run());
  ASSERT_TRUE(ipc->wait_for_events(15, 5s));
  EXPECT_EQ(ipc->events()[12].payload[8], 0);
  EXPECT_EQ(ipc->events()[12].payload[17], 2);
  auto stopped = std::async(std::launch::async, [&] { return function->stop(); });
  while (stopped.wait_for(5ms) != std::future_status::ready) {
    function->wake_polling_thread();
  }
  EXPECT_TRUE(stopped.get());
  EXPECT_TRUE(ipc->request_subscriptions().empty());
}

// --- GET_HDD_DATA -------------------------------------------------------------------------

TEST_F(HddMonitoringTest, AnswerIsTheTotalThenTheFreeSpaceInEightBytes) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  logger->clear();
  ASSERT_TRUE(ipc->inject_request(hdd_request()));
  const auto response = only_response(1);
  EXPECT_EQ(response.payload.size(), 8U);
  EXPECT_EQ(response.payload, expected_answer());
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Handle IPC request [IPC_SYSTEM_MGR__GET_HDD_DATA]"}));
  EXPECT_TRUE(logger->contains("Handle IPC request [IPC_SYSTEM_MGR__GET_HDD_DATA]", 0));
}

TEST_F(HddMonitoringTest, AnswerHasTheFreeSpaceOfTheRequestTimeAndTheTotalOfTheStart) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  set_partition("/data", 1048576, 262144);  // 4 GiB now, 1 GiB available instead of 0.5
  ASSERT_TRUE(ipc->inject_request(hdd_request()));
  // 4.0, then 1.8125.
  EXPECT_EQ(only_response(1).payload, (ipc::Payload{0x00, 0x00, 0x80, 0x40, 0x00, 0x00, 0xE8, 0x3F}));
}

TEST_F(HddMonitoringTest, EmptyRequestPayloadIsAnswered) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  ASSERT_TRUE(ipc->inject_request(hdd_request({})));
  EXPECT_EQ(only_response(1).payload, expected_answer());
}

TEST_F(HddMonitoringTest, OneByteRequestPayloadIsIgnored) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  ASSERT_TRUE(ipc->inject_request(hdd_request({0x7F})));
  EXPECT_EQ(only_response(1).payload, expected_answer());
}

TEST_F(HddMonitoringTest, FarTooLongRequestPayloadIsIgnored) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  ASSERT_TRUE(ipc->inject_request(hdd_request(ipc::Payload(65536, 0xAB))));
  EXPECT_EQ(only_response(1).payload, expected_answer());
}

TEST_F(HddMonitoringTest, RequestWithoutReplyInformationIsNotAnswered) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  auto request = hdd_request();
  request.reply_to.reset();
  ASSERT_TRUE(ipc->inject_request(request));
  EXPECT_TRUE(ipc->responses().empty());
  EXPECT_EQ(statvfs_calls().size(), 10U);
}

TEST_F(HddMonitoringTest, StatvfsFailureInTheRequestGivesAnErrorResponse) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  host->fail_file_system(mapped("/data"), ENOENT);
  logger->clear();
  const auto handled = ipc->inject_request(hdd_request());
  ASSERT_FALSE(handled);
  EXPECT_EQ(handled.error().error, Error::CommonError);
  EXPECT_TRUE(only_response(0).payload.empty());
  const std::string failure = "statvfs(/data) call failed (" + std::string(std::strerror(ENOENT)) + ")";
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Handle IPC request [IPC_SYSTEM_MGR__GET_HDD_DATA]", failure}));
  EXPECT_TRUE(logger->contains(failure, 4));
  // The later partitions are not looked at.
  EXPECT_EQ(statvfs_calls().size(), 7U);
}

TEST_F(HddMonitoringTest, StatvfsFailureInARequestWithoutReplyInformationIsNotAnswered) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  host->fail_file_system(mapped("/boot"), ENOENT);
  auto request = hdd_request();
  request.reply_to.reset();
  const auto handled = ipc->inject_request(request);
  ASSERT_FALSE(handled);
  EXPECT_EQ(handled.error().error, Error::CommonError);
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(HddMonitoringTest, FailedErrorResponseStillReturnsCommonError) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  host->fail_file_system(mapped("/boot"), ENOENT);
  ipc->fail_next_send(Error::InvalidState);
  const auto handled = ipc->inject_request(hdd_request());
  ASSERT_FALSE(handled);
  EXPECT_EQ(handled.error().error, Error::CommonError);
  EXPECT_TRUE(ipc->responses().empty());
  // The failed send itself is logged where it happened.
  EXPECT_TRUE(logger->contains("Error: InvalidState. Message: injected failure.", 4));
}

TEST_F(HddMonitoringTest, FailedAnswerReturnsTheSendError) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  ipc->fail_next_send(Error::InvalidState);
  const auto handled = ipc->inject_request(hdd_request());
  ASSERT_FALSE(handled);
  EXPECT_EQ(handled.error().error, Error::InvalidState);
  EXPECT_TRUE(ipc->responses().empty());
}

}  // namespace
}  // namespace xpon::system_mgr
