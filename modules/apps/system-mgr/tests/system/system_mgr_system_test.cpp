// system-mgr as systemd and the rest of the board see it: the real daemon against the real
// event bus, the board emulator and a factory image made by xpon-factory.

#include "system_test.hpp"
#include "xpon/ipc/zmq_ipc.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/test/ci_skip.hpp"
#include "xpon/test/temp_dir.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <ostream>
#include <string>
#include <vector>
#include <zmq.hpp>
#include <zmq_addon.hpp>

namespace xpon::system_mgr::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

/// The 1-minute load average of the machine, times 100.
double machine_load_hundredths() {
  std::ifstream file("/proc/loadavg");
  double one_minute = 0.0;
  file >> one_minute;
  return one_minute * 100.0;
}

/// Checks a CPU load alarm record byte by byte against `threshold` (load x 100, 0: none).
testing::AssertionResult is_cpu_load_alarm(const std::vector<std::uint8_t>& record, std::uint32_t threshold) {
  if (record.size() != 305) {
    return testing::AssertionFailure() << "the record has " << record.size() << " bytes, not 305";
  }
  const std::uint8_t state = record[8];
  if (state != 0 && state != 1) {
    return testing::AssertionFailure() << "state byte " << int{state};
  }
  if (u32_at(record, 9) != 3) {
    return testing::AssertionFailure() << "alarm id " << u32_at(record, 9) << ", not 3 (system load average)";
  }
  const std::uint32_t values[3] = {u32_at(record, 33), u32_at(record, 37), u32_at(record, 41)};
  const auto* text_begin = record.data() + 45;
  const auto* text_end = std::find(text_begin, record.data() + 301, std::uint8_t{0});
  if (text_end == record.data() + 301) {
    return testing::AssertionFailure() << "the text is not NUL-terminated within its 256 bytes";
  }
  const std::string text(text_begin, text_end);
  // Everything the function does not fill stays zero: the header words, the instance, the
  // rest of the text field and the tail.
  for (std::size_t i = 0; i < record.size(); ++i) {
    const bool filled = i == 8 || (i >= 9 && i < 13) || (i >= 33 && i < 45) || (i >= 45 && i < 45 + text.size());
    if (!filled && record[i] != 0) {
      return testing::AssertionFailure() << "byte " << i << " is " << int{record[i]} << ", not 0";
    }
  }

  double averages[3] = {0.0, 0.0, 0.0};
  int consumed = 0;
  if (std::sscanf(text.c_str(), "CPU load average (1m, 5m, 15m): %lf, %lf, %lf%n", &averages[0], &averages[1],
                  &averages[2], &consumed) != 3) {
    return testing::AssertionFailure() << "unexpected text \"" << text << "\"";
  }
  for (int i = 0; i < 3; ++i) {
    // The text rounds to two places, the value truncates the hundredths: they differ by one at most.
    if (std::abs(std::lround(averages[i] * 100.0) - static_cast<long>(values[i])) > 1) {
      return testing::AssertionFailure() << "text \"" << text << "\" does not match value " << values[i];
    }
  }
  const std::uint32_t largest = std::max({values[0], values[1], values[2]});
  const std::uint8_t expected_state = threshold != 0 && largest >= threshold ? 0 : 1;
  if (state != expected_state) {
    return testing::AssertionFailure() << "state " << int{state} << " for loads " << values[0] << ", " << values[1]
                                       << ", " << values[2] << " and threshold " << threshold;
  }
  std::array<char, 256> expected{};
  (void)std::snprintf(expected.data(), expected.size(), "CPU load average (1m, 5m, 15m): %.2f, %.2f, %.2f%s",
                      averages[0], averages[1], averages[2], state == 0 ? "" : " is back to normal");
  if (text != expected.data()) {
    return testing::AssertionFailure() << "text \"" << text << "\", expected \"" << expected.data() << "\"";
  }
  // The daemon reads the machine's real load: a few seconds apart, the two agree closely.
  if (std::abs(machine_load_hundredths() - values[0]) > 150.0) {
    return testing::AssertionFailure() << "1-minute load " << values[0] << " is far from the machine's "
                                       << machine_load_hundredths();
  }
  return testing::AssertionSuccess();
}

TEST_F(SystemMgrTest, ReportsStartupThenReadyAndExitsWithZeroOnSigterm) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  EXPECT_EQ(rig_.notifications().messages(), (std::vector<std::string>{kStartupText, kReadyText}));

  ASSERT_NO_FATAL_FAILURE(settle(1));
  ASSERT_TRUE(rig_.daemon().signal(SIGTERM));
  const auto end = rig_.daemon().wait(kStepTimeout);
  ASSERT_TRUE(end.has_value()) << "system-mgr did not end after SIGTERM";
  EXPECT_TRUE(end->exited_with(0)) << end->describe() << "\n" << rig_.daemon_log();
  EXPECT_EQ(rig_.notifications().messages(), (std::vector<std::string>{kStartupText, kReadyText, kShutdownText}));
}

TEST_F(SystemMgrTest, ExitsWithZeroOnSigint) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());

  ASSERT_NO_FATAL_FAILURE(settle(1));
  ASSERT_TRUE(rig_.daemon().signal(SIGINT));
  const auto end = rig_.daemon().wait(kStepTimeout);
  ASSERT_TRUE(end.has_value()) << "system-mgr did not end after SIGINT";
  EXPECT_TRUE(end->exited_with(0)) << end->describe() << "\n" << rig_.daemon_log();
  EXPECT_EQ(rig_.notifications().messages(), (std::vector<std::string>{kStartupText, kReadyText, kShutdownText}));
}

TEST_F(SystemMgrTest, SighupRestartsInPlaceWithASecondReady) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  const pid_t pid = rig_.daemon().pid();

  ASSERT_NO_FATAL_FAILURE(settle(1));
  ASSERT_TRUE(rig_.daemon().signal(SIGHUP));
  ASSERT_TRUE(rig_.wait_for_notification(kReadyText, 2, kStepTimeout))
      << "no second READY; notifications:\n"
      << rig_.notifications_text() << rig_.daemon_log();
  EXPECT_EQ(rig_.notifications().messages(),
            (std::vector<std::string>{kStartupText, kReadyText, kShutdownText, kStartupText, kReadyText}));
  EXPECT_TRUE(rig_.daemon().running()) << "system-mgr ended after SIGHUP";
  EXPECT_EQ(rig_.daemon().pid(), pid);

  // The new cycle is as alive as the first: it stops on SIGTERM with status 0.
  ASSERT_NO_FATAL_FAILURE(settle(2));
  ASSERT_TRUE(rig_.daemon().signal(SIGTERM));
  const auto end = rig_.daemon().wait(kStepTimeout);
  ASSERT_TRUE(end.has_value()) << "system-mgr did not end after SIGTERM in its second cycle; notifications:\n"
                               << rig_.notifications_text() << "daemon log:\n"
                               << rig_.daemon_log();
  EXPECT_TRUE(end->exited_with(0)) << end->describe();
  EXPECT_EQ(rig_.notifications().messages().back(), kShutdownText);
}

TEST_F(SystemMgrTest, WithoutTheBoardDeviceReportsTheBoardFailureAndExitsWithOne) {
  ASSERT_EQ(rig_.make_factory_image(kLtProduct), "");
  rig_.install_example_log_config();
  expect_start_up_failure(
      "STATUS=Exception on create Board object: Can't open /dev/board file (No such file or directory) .");
}

TEST_F(SystemMgrTest, AnUnknownDeviceNameReportsTheFactoryFailureAndExitsWithOne) {
  ASSERT_EQ(rig_.make_factory_image("QD7R-F"), "");
  rig_.install_example_log_config();
  expect_start_up_failure("STATUS=Exception on create Factory object: Unknown device type (QD7R-F).");
}

TEST_F(SystemMgrTest, AMissingFactoryImageReportsTheFactoryFailureAndExitsWithOne) {
  rig_.install_example_log_config();
  // get_factory returns the errno of the failed open: ENOENT.
  expect_start_up_failure("STATUS=Exception on create Factory object: get_factory call failed (error: 2).");
}

TEST_F(SystemMgrTest, AMissingLoggingConfigurationReportsItAndExitsWithOne) {
  ASSERT_EQ(rig_.make_factory_image(kLtProduct), "");
  expect_start_up_failure("STATUS=Unable to create logging context.");
}

TEST_F(SystemMgrTest, AnIpcAddressOwnedByAnotherEndpointReportsTheIpcFailureAndExitsWithOne) {
  ASSERT_EQ(rig_.make_factory_image(kLtProduct), "");
  rig_.install_example_log_config();
  // An endpoint owns its address by holding the lock of the address file: take it first.
  fs::create_directories(rig_.path("/run/xpon/ipc"));
  const int lock = ::open(rig_.path("/run/xpon/ipc/0019fffe.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(lock, 0) << std::strerror(errno);
  ASSERT_EQ(::flock(lock, LOCK_EX | LOCK_NB), 0) << std::strerror(errno);
  expect_start_up_failure(
      "STATUS=Exception on create IPC subsystem: IPC endpoint SYSTEM-MGR_IPC: address 0x0019fffe is already owned "
      "by another endpoint.");
  ::close(lock);
}

TEST_F(SystemMgrTest, AConfigurationDatabaseThatCannotBeOpenedReportsTheCfgdbFailureAndExitsWithOne) {
  ASSERT_EQ(rig_.make_factory_image(kLtProduct), "");
  rig_.install_example_log_config();
  // A directory where the database file belongs: SQLite cannot open it.
  fs::create_directories(rig_.path("/var/lib/xpon/cfgdb.sqlite3"));
  expect_start_up_failure("STATUS=Error on create CFGDB subsystem.");
}

/// Runs one SQL statement on the sandbox's configuration database; an error text or empty.
std::string run_sql(const std::string& database, const std::string& statement) {
  sqlite3* db = nullptr;
  std::string failure;
  if (::sqlite3_open_v2(database.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
    failure = "cannot open " + database + ": " + ::sqlite3_errmsg(db);
  } else if (char* message = nullptr; ::sqlite3_exec(db, statement.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
    failure = "\"" + statement + "\" failed: " + message;
    ::sqlite3_free(message);
  } else if (::sqlite3_changes(db) != 1) {
    failure = "\"" + statement + "\" changed " + std::to_string(::sqlite3_changes(db)) + " rows, not 1";
  }
  ::sqlite3_close(db);
  return failure;
}

TEST_F(SystemMgrTest, AFunctionWhoseConfigurationCannotBeReadReportsTheServiceFailureAndExitsWithOne) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  // The database is made with its defaults, then the load-average threshold is spoilt behind
  // the tools' back: CpuLoadMonitoring, the first function of every family, cannot read it.
  const ProgramRun set = rig_.run_cfg({"set", "ALARM_SYSTEM_LOAD_AVERAGE", "threshold=400"});
  ASSERT_TRUE(set.end && set.end->exited_with(0)) << set.errors;
  ASSERT_EQ(run_sql(rig_.path("/var/lib/xpon/cfgdb.sqlite3"),
                    "UPDATE field SET value = 'high' WHERE section_id = 80 AND name = 'threshold'"),
            "");

  rig_.start_daemon();
  const auto end = rig_.daemon().wait(kStepTimeout);
  ASSERT_TRUE(end.has_value()) << "the daemon did not end; notifications:\n" << rig_.notifications_text();
  EXPECT_TRUE(end->exited_with(1)) << end->describe() << "\n" << rig_.daemon_log();
  EXPECT_EQ(rig_.notifications().messages(),
            (std::vector<std::string>{kStartupText,
                                      "STATUS=Error: Exception. Message: Exception on create LtService: "
                                      "Config update for CpuLoadMonitoring failed (Error: ErrorCApi) ..."}))
      << rig_.daemon_log();
}

TEST_F(SystemMgrTest, StopSignalsDuringStartUpAreIgnored) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  // With the emulator paused, opening /dev/board waits for it, so the daemon's start-up is
  // held at the creation of the board for as long as the test needs.
  ASSERT_TRUE(rig_.emulator().signal(SIGSTOP));
  struct Resume {
    DaemonRig& rig;
    ~Resume() { (void)rig.emulator().signal(SIGCONT); }
  } resume{rig_};

  rig_.start_daemon();
  ASSERT_TRUE(rig_.wait_for_log("Factory create successfully", kStepTimeout)) << rig_.daemon_log();
  ASSERT_EQ(rig_.notifications().messages(), (std::vector<std::string>{kStartupText}));
  for (const int signal_number : {SIGTERM, SIGINT, SIGHUP}) {
    ASSERT_TRUE(rig_.daemon().signal(signal_number));
  }
  ASSERT_TRUE(rig_.emulator().signal(SIGCONT));

  ASSERT_TRUE(rig_.wait_for_notification(kReadyText, 1, kStepTimeout))
      << rig_.notifications_text() << rig_.daemon_log();
  ASSERT_NO_FATAL_FAILURE(settle(1));
  EXPECT_TRUE(rig_.daemon().running());
  EXPECT_EQ(rig_.notifications().messages(), (std::vector<std::string>{kStartupText, kReadyText}));

  // Had the early SIGTERM cleared the keep-running flag, this SIGHUP would end the process.
  ASSERT_TRUE(rig_.daemon().signal(SIGHUP));
  ASSERT_TRUE(rig_.wait_for_notification(kReadyText, 2, kStepTimeout)) << rig_.notifications_text();
  ASSERT_NO_FATAL_FAILURE(settle(2));
  ASSERT_TRUE(rig_.daemon().signal(SIGTERM));
  const auto end = rig_.daemon().wait(kStepTimeout);
  ASSERT_TRUE(end.has_value()) << rig_.notifications_text();
  EXPECT_TRUE(end->exited_with(0)) << end->describe();
  EXPECT_EQ(rig_.notifications().messages(), (std::vector<std::string>{kStartupText, kReadyText, kShutdownText,
                                                                       kStartupText, kReadyText, kShutdownText}));
}

TEST_F(SystemMgrTest, TheIpcEndpointLogsToTheDaemonsLogFile) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  const std::string log_file = rig_.path("/var/log/system-mgr.log");
  rig_.write_log_config(kDebugToStderr + "\n[[sink]]\ntype = \"file\"\npath = \"" + log_file + "\"\n");
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());

  // A message whose header is one byte long: the endpoint drops it and says so in its log.
  zmq::context_t context;
  zmq::socket_t sender(context, zmq::socket_type::dealer);
  sender.set(zmq::sockopt::linger, 0);
  sender.connect("ipc://" + rig_.path("/run/xpon/ipc/0019fffe"));
  sender.send(zmq::str_buffer("x"), zmq::send_flags::sndmore);
  sender.send(zmq::message_t(), zmq::send_flags::none);

  const std::string line = "IPC endpoint SYSTEM-MGR_IPC: dropped a message (short header)";
  EXPECT_TRUE(xpon::test::wait_until(
      [&] { return xpon::test::read_text_file(log_file).find(line) != std::string::npos; }, kStepTimeout))
      << "log file:\n"
      << xpon::test::read_text_file(log_file) << "stderr:\n"
      << rig_.daemon_log();
}

struct Family {
  const char* scenario;
  const char* product;
};

void PrintTo(const Family& family, std::ostream* out) {
  *out << family.scenario << " with " << family.product;
}

class CpuLoadAlarmTest : public SystemMgrTest, public testing::WithParamInterface<Family> {};

// FC and LC boards connect a client to the Election Manager at start-up. The link is prepared
// without a peer answering (messages to it would wait in its queue), so no stand-in runs
// here: the daemon must come up on these boards all the same.
TEST_P(CpuLoadAlarmTest, IsPublishedOnTheBusAtStartUp) {
  XPON_START_BOARD(GetParam().scenario, GetParam().product);
  BusSubscriber subscriber(rig_.path("/run/xpon/ipc"));
  ASSERT_TRUE(subscriber.wait_subscribed(kStepTimeout)) << "the bus did not echo a probe" << rig_.helper_logs();

  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  std::optional<BusEvent> alarm;
  while ((alarm = subscriber.next_alarm(kStepTimeout))) {
    if (alarm->payload.size() >= 13 && u32_at(alarm->payload, 9) == 3) {
      break;
    }
  }
  ASSERT_TRUE(alarm.has_value()) << "no CPU load alarm on the bus; daemon log:\n" << rig_.daemon_log();
  ASSERT_EQ(alarm->header.size(), 24U);
  EXPECT_EQ(alarm->header[0], 1);  // wire version
  EXPECT_EQ(alarm->header[1], 3);  // an event
  EXPECT_EQ(u32_at(alarm->header, 4), kDaemonAddress);
  EXPECT_EQ(u16_at(alarm->header, 12), IPC_EVENT_ALARM_GROUP);
  EXPECT_EQ(u16_at(alarm->header, 14), IPC_EVENT_ALARM_ID);
  EXPECT_TRUE(is_cpu_load_alarm(alarm->payload, kDefaultLoadThreshold));
}

INSTANTIATE_TEST_SUITE_P(Families, CpuLoadAlarmTest,
                         testing::Values(Family{"board-lt.json", kLtProduct}, Family{"board-lc.json", kLcProduct},
                                         Family{"board-fc.json", kFcProduct}),
                         [](const testing::TestParamInfo<Family>& family) {
                           return std::string(family.param.scenario).substr(6, 2);
                         });

TEST_F(SystemMgrTest, AZeroLoadThresholdGivesBackToNormal) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  const ProgramRun set = rig_.run_cfg({"set", "ALARM_SYSTEM_LOAD_AVERAGE", "threshold=0"});
  ASSERT_TRUE(set.end && set.end->exited_with(0)) << set.errors;
  BusSubscriber subscriber(rig_.path("/run/xpon/ipc"));
  ASSERT_TRUE(subscriber.wait_subscribed(kStepTimeout)) << rig_.helper_logs();

  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  const auto alarm = subscriber.next_alarm(kStepTimeout);
  ASSERT_TRUE(alarm.has_value()) << rig_.daemon_log();
  EXPECT_TRUE(is_cpu_load_alarm(alarm->payload, 0));
  ASSERT_EQ(alarm->payload.size(), 305U);
  EXPECT_EQ(alarm->payload[8], 1);
  const std::string text(reinterpret_cast<const char*>(alarm->payload.data()) + 45);
  EXPECT_TRUE(text.ends_with(" is back to normal")) << text;
}

TEST_F(SystemMgrTest, LogsAConfigurationChangeOfTheLoadThreshold) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  const std::string change_line = "Change config event [ALARM_SYSTEM_LOAD_AVERAGE]";
  EXPECT_EQ(rig_.daemon_log().find(change_line), std::string::npos);

  const ProgramRun set = rig_.run_cfg({"set", "ALARM_SYSTEM_LOAD_AVERAGE", "threshold=1"});
  ASSERT_TRUE(set.end && set.end->exited_with(0)) << set.errors;
  EXPECT_TRUE(rig_.wait_for_log(change_line, kStepTimeout)) << rig_.daemon_log();
  EXPECT_TRUE(rig_.daemon().running());
}

TEST_F(SystemMgrTest, RamAlarmIsPublishedOnTheBusAtStartUp) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  // Threshold 0 clears the alarm for any share above 0, whatever the machine has free.
  const ProgramRun set = rig_.run_cfg({"set", "ALARM_SYSTEM_RAM", "threshold=0"});
  ASSERT_TRUE(set.end && set.end->exited_with(0)) << set.errors;
  BusSubscriber subscriber(rig_.path("/run/xpon/ipc"));
  ASSERT_TRUE(subscriber.wait_subscribed(kStepTimeout)) << rig_.helper_logs();

  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  std::optional<BusEvent> alarm;
  while ((alarm = subscriber.next_alarm(kStepTimeout))) {
    if (alarm->payload.size() >= 13 && u32_at(alarm->payload, 9) == SYSTEM_MGR_ALARM_RAM) {
      break;
    }
  }
  ASSERT_TRUE(alarm.has_value()) << "no RAM alarm on the bus; daemon log:\n" << rig_.daemon_log();
  ASSERT_EQ(alarm->payload.size(), 305U);
  const auto& record = alarm->payload;
  const std::uint32_t share = u32_at(record, 33);
  EXPECT_GT(share, 0U);
  EXPECT_LE(share, 100U);
  EXPECT_EQ(u32_at(record, 17), 0U);  // one RAM alarm: instance 0
  const std::string text(reinterpret_cast<const char*>(record.data()) + 45);
  EXPECT_EQ(record[8], 1) << text;
  EXPECT_EQ(text, "Free RAM is " + std::to_string(share) + "% is back to normal");
}

TEST_F(SystemMgrTest, RamDataAnswerIsTwoPlausibleFloats) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  // READY comes before the functions subscribe their requests: wait until they have.
  ASSERT_NO_FATAL_FAILURE(settle(1));

  const auto answer = ask_daemon(rig_, IPC_SYSTEM_MGR__GET_RAM_DATA, "ram-client");
  ASSERT_TRUE(answer.has_value()) << answer.error().to_string() << "\n" << rig_.daemon_log();
  EXPECT_EQ(answer.value().result, 1U);
  EXPECT_EQ(answer.value().address, 0x0000FFFEU);
  ASSERT_EQ(answer.value().payload.size(), sizeof(System_mgr__ram_data));
  System_mgr__ram_data data{};
  std::memcpy(&data, answer.value().payload.data(), sizeof data);
  EXPECT_GT(data.total, 0.0F);
  EXPECT_GT(data.free, 0.0F);
  EXPECT_LT(data.free, data.total);
  EXPECT_TRUE(rig_.wait_for_log("Handle IPC request [IPC_SYSTEM_MGR__GET_RAM_DATA]", kStepTimeout))
      << rig_.daemon_log();
}

TEST_F(SystemMgrTest, EachFlashPartitionHasItsAlarmWithItsLogicalMountPoint) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  // Threshold 0 clears every alarm of a partition with at least 1 % free.
  const ProgramRun set = rig_.run_cfg({"set", "ALARM_DISK_SPACE", "threshold=0"});
  ASSERT_TRUE(set.end && set.end->exited_with(0)) << set.errors;
  BusSubscriber subscriber(rig_.path("/run/xpon/ipc"));
  ASSERT_TRUE(subscriber.wait_subscribed(kStepTimeout)) << rig_.helper_logs();

  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  std::vector<std::vector<std::uint8_t>> partitions;
  std::optional<BusEvent> alarm;
  while (partitions.size() < 5 && (alarm = subscriber.next_alarm(kStepTimeout))) {
    if (alarm->payload.size() == 305 && u32_at(alarm->payload, 9) == SYSTEM_MGR_ALARM_DISK_SPACE) {
      partitions.push_back(alarm->payload);
    }
  }
  ASSERT_EQ(partitions.size(), 5U) << "daemon log:\n" << rig_.daemon_log();
  // The sandbox's folders share the test machine's file system; texts name the board's mount points.
  const char* mount_points[] = {"/boot", "/data", "/configuration", "/firmware/primary_firmware",
                                "/firmware/secondary_firmware"};
  for (std::uint32_t index = 0; index < 5; ++index) {
    const auto& record = partitions[index];
    EXPECT_EQ(u32_at(record, 17), index);
    const std::uint32_t share = u32_at(record, 33);
    EXPECT_LE(share, 100U);
    EXPECT_EQ(record[8], share > 0 ? 1 : 0);
    const std::string text(reinterpret_cast<const char*>(record.data()) + 45);
    EXPECT_EQ(text, std::string(mount_points[index]) + " partition free disk space " + std::to_string(share) + "%" +
                        (share > 0 ? " is back to normal" : ""));
  }
}

TEST_F(SystemMgrTest, DiskDataAnswerIsTwoPlausibleFloats) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  // READY comes before the functions subscribe their requests: wait until they have.
  ASSERT_NO_FATAL_FAILURE(settle(1));

  const xpon::test::ScopedEnv root("XPON_ROOT", rig_.root());
  auto client = ipc::make_zmq_endpoint(ipc::make_address(0x0042), "disk-client");
  ipc::Request request;
  request.group = IPC_SYSTEM_MGR;
  request.id = IPC_SYSTEM_MGR__GET_HDD_DATA;
  const auto answer = client->request(kDaemonAddress, request, kStepTimeout);
  ASSERT_TRUE(answer.has_value()) << answer.error().to_string() << "\n" << rig_.daemon_log();
  EXPECT_EQ(answer.value().result, 1U);
  ASSERT_EQ(answer.value().payload.size(), sizeof(System_mgr__hdd_data));
  System_mgr__hdd_data data{};
  std::memcpy(&data, answer.value().payload.data(), sizeof data);
  EXPECT_GT(data.total, 0.0F);
  EXPECT_GE(data.free, 0.0F);
  EXPECT_LE(data.free, data.total);
}

}  // namespace
}  // namespace xpon::system_mgr::test
