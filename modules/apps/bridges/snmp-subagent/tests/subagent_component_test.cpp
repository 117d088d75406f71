// The subagent against Debian's own snmpd and snmptrapd: the subagent runs in this process, fed by
// a board view over a daemon stand-in; snmpd (AgentX master, UDP on loopback) and snmptrapd (its
// trap sink) are started by the test; snmpget and snmpwalk ask, and what they print is checked
// exactly.
//
// net-snmp opens the AgentX connection of a subagent once per process (its subagent_init() runs
// once), so each test here starts the subagent in a process of its own: ctest runs every test
// as its own process. Run by hand, give one test at a time (--gtest_filter).
#include "snmp_sandbox.hpp"
#include "subagent.hpp"

#include "xpon/board_view/board_view.hpp"
#include "xpon/board_view/test/daemon_stand_in.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/test/ci_skip.hpp"
#include "xpon/test/process.hpp"
#include "xpon/test/recording_logger.hpp"
#include "xpon/test/temp_dir.hpp"
#include "xpon/test/wait.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace xpon::snmp_subagent {
namespace {

using namespace std::chrono_literals;
using namespace xpon::system_mgr;
using board_view::test::bytes_of;
using board_view::test::DaemonStandIn;
using board_view::test::factory_of;
using board_view::test::module_record;

System_mgr__sfp_eddi_data diagnostics_of(std::uint32_t port) {
  System_mgr__sfp_eddi_data data{};
  data.port = port;
  data.valid = 1;
  data.temperature = 41.5;
  data.voltage = 3300000;  // microvolts
  data.bias_current = 6;   // milliamperes
  data.optical_power = 2;  // milliwatts
  return data;
}

ipc::Event alarm_event(std::uint8_t state) {
  return board_view::test::alarm_event(state, SYSTEM_MGR_ALARM_TEMPERATURE, 4, "temperature too high");
}

class SubagentComponentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    XPON_SKIP_OR_FAIL_IN_CI(missing_programs());
    ASSERT_EQ(snmp_.start(), "");

    daemon_->answer(IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, factory_of(SYSTEM_MGR_FAMILY_LT));
    System_mgr__temperature sensor{};
    sensor.id = 3;
    sensor.temperature = 45;
    daemon_->answer(IPC_SYSTEM_MGR__GET_TEMP, bytes_of(sensor));
    System_mgr__fan_state fan{};
    fan.present = 1;
    fan.speed = 100;
    daemon_->answer(IPC_SYSTEM_MGR__GET_FAN_STATES, bytes_of(fan));
    daemon_->answer(IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO, bytes_of(module_record(3, "SN0042")));
    daemon_->answer(IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO, {});
    daemon_->answer(IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA, bytes_of(diagnostics_of(3)), 3U);
    System_mgr__rx_power rx{};
    rx.value = 100;  // 10 microwatts
    daemon_->answer(IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER, bytes_of(rx), 3U);
  }

  void TearDown() override { stop_subagent(); }

  void start_subagent() {
    static bool started_in_this_process = false;
    if (started_in_this_process) {
      // ctest runs each test as a process of its own, so this is seen only when run by hand.
      XPON_SKIP_OR_FAIL_IN_CI(
          "net-snmp starts one AgentX subagent per process: run this test on its own (--gtest_filter)");
    }
    started_in_this_process = true;
    board_view::BoardViewOptions view_options;
    view_options.period = 200ms;
    view_ = std::make_unique<board_view::BoardView>(daemon_, nullptr, log_, view_options);
    SubagentOptions options;
    options.agentx_socket = snmp_.agentx_socket();
    options.refresh = 100ms;
    options.update_rate = view_options.period;
    options.ping_interval = 1;
    subagent_ = std::make_unique<Subagent>([view = view_.get()] { return view->snapshot(); }, log_, options);
    view_->on_transition(
        [subagent = subagent_.get()](const board_view::AlarmTransition& transition) { subagent->post(transition); });
    ASSERT_TRUE(view_->start().has_value());
    agent_thread_ = std::thread([subagent = subagent_.get()] { subagent->run(); });
    // Served once the first round's module is in the table.
    ASSERT_TRUE(test::wait_until([&] { return walk("1.3.6.1.2.1.47.1.1.1.1.11").find("SN0042") != std::string::npos; },
                                 10s, 20ms))
        << walk("1.3.6.1.2.1.47");
  }

  void stop_subagent() {
    if (subagent_) {
      subagent_->stop();
    }
    if (agent_thread_.joinable()) {
      agent_thread_.join();
    }
    if (view_) {
      view_->stop();
    }
  }

  std::string get(const std::vector<std::string>& oids) { return snmp_.get(oids); }
  std::string walk(const std::string& oid) { return snmp_.walk(oid); }
  std::string traps() { return snmp_.traps(); }

  bool log_has(const std::string& text) {
    const auto lines = log_->lines();
    return std::any_of(lines.begin(), lines.end(),
                       [&](const auto& line) { return line.text.find(text) != std::string::npos; });
  }

  SnmpSandbox snmp_;
  std::shared_ptr<DaemonStandIn> daemon_ = std::make_shared<DaemonStandIn>();
  std::shared_ptr<test::RecordingLogger> log_ = std::make_shared<test::RecordingLogger>();
  std::unique_ptr<board_view::BoardView> view_;
  std::unique_ptr<Subagent> subagent_;
  std::thread agent_thread_;
};

const std::string kTrapOid = ".1.3.6.1.6.3.1.1.4.1.0 = OID: ";

TEST_F(SubagentComponentTest, TheEntityAndSensorTablesAreServedThroughSnmpd) {
  start_subagent();
  if (HasFatalFailure() || IsSkipped()) {
    return;
  }
  EXPECT_EQ(
      get({"1.3.6.1.2.1.47.1.1.1.1.2.11003", "1.3.6.1.2.1.47.1.1.1.1.4.11003", "1.3.6.1.2.1.47.1.1.1.1.5.11003",
           "1.3.6.1.2.1.47.1.1.1.1.11.11003", "1.3.6.1.2.1.47.1.1.1.1.12.11003", "1.3.6.1.2.1.47.1.1.1.1.13.11003",
           "1.3.6.1.2.1.47.1.1.1.1.8.11003", "1.3.6.1.2.1.47.1.1.1.1.5.10003"}),
      ".1.3.6.1.2.1.47.1.1.1.1.2.11003 = STRING: \"SFP module, 1490 nm\"\n"
      ".1.3.6.1.2.1.47.1.1.1.1.4.11003 = INTEGER: 10003\n"
      ".1.3.6.1.2.1.47.1.1.1.1.5.11003 = INTEGER: 9\n"
      ".1.3.6.1.2.1.47.1.1.1.1.11.11003 = STRING: \"SN0042\"\n"
      ".1.3.6.1.2.1.47.1.1.1.1.12.11003 = STRING: \"XPON-OPTICS\"\n"
      ".1.3.6.1.2.1.47.1.1.1.1.13.11003 = STRING: \"GP-SFP-C\"\n"
      ".1.3.6.1.2.1.47.1.1.1.1.8.11003 = STRING: \"A\"\n"
      ".1.3.6.1.2.1.47.1.1.1.1.5.10003 = INTEGER: 5\n");

  // The classes of the whole table, in index order: board, sensor 3, fan 1 and its speed
  // sensor, cage, module and the module's five sensors.
  EXPECT_EQ(walk("1.3.6.1.2.1.47.1.1.1.1.5"),
            ".1.3.6.1.2.1.47.1.1.1.1.5.1 = INTEGER: 9\n"
            ".1.3.6.1.2.1.47.1.1.1.1.5.1003 = INTEGER: 8\n"
            ".1.3.6.1.2.1.47.1.1.1.1.5.2001 = INTEGER: 7\n"
            ".1.3.6.1.2.1.47.1.1.1.1.5.2501 = INTEGER: 8\n"
            ".1.3.6.1.2.1.47.1.1.1.1.5.10003 = INTEGER: 5\n"
            ".1.3.6.1.2.1.47.1.1.1.1.5.11003 = INTEGER: 9\n"
            ".1.3.6.1.2.1.47.1.1.1.1.5.12031 = INTEGER: 8\n"
            ".1.3.6.1.2.1.47.1.1.1.1.5.12032 = INTEGER: 8\n"
            ".1.3.6.1.2.1.47.1.1.1.1.5.12033 = INTEGER: 8\n"
            ".1.3.6.1.2.1.47.1.1.1.1.5.12034 = INTEGER: 8\n"
            ".1.3.6.1.2.1.47.1.1.1.1.5.12035 = INTEGER: 8\n");

  // Type, scale, precision, value and status of each sensor.
  std::string expected;
  const std::vector<std::pair<int, std::vector<int>>> sensors{{1003, {8, 9, 0, 45, 1}},    {2501, {10, 9, 0, 6000, 1}},
                                                              {12031, {8, 9, 2, 4150, 1}}, {12032, {4, 8, 1, 33000, 1}},
                                                              {12033, {5, 8, 3, 6000, 1}}, {12034, {6, 7, 1, 20000, 1}},
                                                              {12035, {6, 7, 1, 100, 1}}};
  for (int column = 1; column <= 5; ++column) {
    for (const auto& [index, values] : sensors) {
      expected += ".1.3.6.1.2.1.99.1.1.1." + std::to_string(column) + "." + std::to_string(index) +
                  " = INTEGER: " + std::to_string(values[static_cast<std::size_t>(column - 1)]) + "\n";
    }
  }
  std::string walked = walk("1.3.6.1.2.1.99.1.1.1");
  walked = walked.substr(0, walked.find(".1.3.6.1.2.1.99.1.1.1.6."));
  EXPECT_EQ(walked, expected);
  EXPECT_EQ(get({"1.3.6.1.2.1.99.1.1.1.8.1003"}), ".1.3.6.1.2.1.99.1.1.1.8.1003 = Gauge32: 200\n");

  // XPON-BOARD-MIB at its default arc: the powers in hundredths of a dBm (2 mW: 3.01 dBm; 10 uW:
  // -20 dBm) and the wavelength. No limits: this view has no configuration database.
  EXPECT_EQ(walk("1.3.6.1.4.1.8072.9999.4242"),
            ".1.3.6.1.4.1.8072.9999.4242.1.4.1.1.11003 = INTEGER: 301\n"
            ".1.3.6.1.4.1.8072.9999.4242.1.4.1.2.11003 = INTEGER: -2000\n"
            ".1.3.6.1.4.1.8072.9999.4242.1.4.1.3.11003 = Gauge32: 1490\n");
  EXPECT_NE(get({"1.3.6.1.2.1.99.1.1.1.7.1003"}).find("Timeticks"), std::string::npos);
}

TEST_F(SubagentComponentTest, AFailedReadMakesTheSensorUnavailable) {
  start_subagent();
  if (HasFatalFailure() || IsSkipped()) {
    return;
  }
  ASSERT_EQ(get({"1.3.6.1.2.1.99.1.1.1.5.1003"}), ".1.3.6.1.2.1.99.1.1.1.5.1003 = INTEGER: 1\n");
  daemon_->answer(IPC_SYSTEM_MGR__GET_TEMP, ipc::Payload(3));  // not a whole record: the read failed
  EXPECT_TRUE(test::wait_until(
      [&] { return get({"1.3.6.1.2.1.99.1.1.1.5.1003"}) == ".1.3.6.1.2.1.99.1.1.1.5.1003 = INTEGER: 2\n"; }, 10s,
      20ms));
  // The last value stays; the other sources are still fine.
  EXPECT_EQ(get({"1.3.6.1.2.1.99.1.1.1.4.1003", "1.3.6.1.2.1.99.1.1.1.5.2501"}),
            ".1.3.6.1.2.1.99.1.1.1.4.1003 = INTEGER: 45\n.1.3.6.1.2.1.99.1.1.1.5.2501 = INTEGER: 1\n");
}

TEST_F(SubagentComponentTest, AnAlarmRaisedOverSeveralPeriodsIsOneRowAndOneNotificationEachWay) {
  start_subagent();
  if (HasFatalFailure() || IsSkipped()) {
    return;
  }
  const auto active = kTrapOid + ".1.3.6.1.2.1.118.0.2";
  const auto clear = kTrapOid + ".1.3.6.1.2.1.118.0.3";
  // The daemon reports a raised alarm every period: five reports over several rounds.
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(daemon_->publish(alarm_event(SYSTEM_MGR_ALARM_RAISED)));
    const auto rounds = view_->stats().rounds;
    ASSERT_TRUE(test::wait_until([&] { return view_->stats().rounds > rounds; }, 5s));
  }
  ASSERT_TRUE(test::wait_until([&] { return count_of(traps(), active) >= 1; }, 10s)) << traps();
  const auto rows = walk("1.3.6.1.2.1.118.1.2.2.1.11");
  EXPECT_EQ(count_of(rows, " = STRING: \"temperature too high\""), 1U) << rows;
  // The row's resource is sensor 4 counted from 1: entity 1003.
  EXPECT_EQ(count_of(walk("1.3.6.1.2.1.118.1.2.2.1.10"), "= OID: .1.3.6.1.2.1.47.1.1.1.1.2.1003"), 1U);
  // The notification carries the row's resource too.
  EXPECT_NE(traps().find(".1.3.6.1.2.1.47.1.1.1.1.2.1003"), std::string::npos) << traps();

  ASSERT_TRUE(daemon_->publish(alarm_event(SYSTEM_MGR_ALARM_BACK_TO_NORMAL)));
  ASSERT_TRUE(daemon_->publish(alarm_event(SYSTEM_MGR_ALARM_BACK_TO_NORMAL)));
  ASSERT_TRUE(test::wait_until([&] { return count_of(traps(), clear) >= 1; }, 10s)) << traps();
  EXPECT_TRUE(test::wait_until(
      [&] { return walk("1.3.6.1.2.1.118.1.2.2").find(".1.3.6.1.2.1.118.1.2.2.1") == std::string::npos; }, 5s, 20ms));
  // Notifications leave in order over one connection: a second alarmActiveState would have come first.
  EXPECT_EQ(count_of(traps(), active), 1U) << traps();
  EXPECT_EQ(count_of(traps(), clear), 1U) << traps();
}

TEST_F(SubagentComponentTest, ARemovedModuleSendsEntConfigChangeAndLeavesNoRows) {
  start_subagent();
  if (HasFatalFailure() || IsSkipped()) {
    return;
  }
  const auto changed_before = get({"1.3.6.1.2.1.47.1.4.1.0"});
  const auto config_change = kTrapOid + ".1.3.6.1.2.1.47.2.0.1";
  ASSERT_EQ(count_of(traps(), config_change), 0U) << traps();

  daemon_->answer(IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO, {});
  ipc::Event removed;
  removed.group = IPC_SYSTEM_MGR;
  removed.id = IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_REMOVED;
  removed.payload = bytes_of(std::uint32_t{3});
  ASSERT_TRUE(daemon_->publish(removed));
  ASSERT_TRUE(test::wait_until([&] { return count_of(traps(), config_change) == 1; }, 10s)) << traps();

  // The cage stays, empty; nothing of the module is left in either table.
  const auto entities = walk("1.3.6.1.2.1.47.1.1.1.1.5");
  EXPECT_NE(entities.find(".1.3.6.1.2.1.47.1.1.1.1.5.10003 = INTEGER: 5"), std::string::npos) << entities;
  EXPECT_EQ(entities.find(".11003 "), std::string::npos) << entities;
  EXPECT_EQ(entities.find(".1203"), std::string::npos) << entities;
  EXPECT_EQ(walk("1.3.6.1.2.1.99.1.1.1.1").find(".1203"), std::string::npos);
  EXPECT_NE(get({"1.3.6.1.2.1.47.1.4.1.0"}), changed_before);

  // Plugged again: the same indexes come back, with one more notification.
  daemon_->answer(IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO, bytes_of(module_record(3, "SN0077")));
  ipc::Event inserted;
  inserted.group = IPC_SYSTEM_MGR;
  inserted.id = IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_INSERTED;
  inserted.payload = bytes_of(module_record(3, "SN0077"));
  ASSERT_TRUE(daemon_->publish(inserted));
  EXPECT_TRUE(test::wait_until(
      [&] {
        return get({"1.3.6.1.2.1.47.1.1.1.1.11.11003"}) == ".1.3.6.1.2.1.47.1.1.1.1.11.11003 = STRING: \"SN0077\"\n";
      },
      10s, 20ms));
  EXPECT_TRUE(test::wait_until([&] { return count_of(traps(), config_change) == 2; }, 10s)) << traps();
}

TEST_F(SubagentComponentTest, AfterSnmpdRestartsTheSubagentRegistersAgainAndWalksAreComplete) {
  start_subagent();
  if (HasFatalFailure() || IsSkipped()) {
    return;
  }
  const auto before = walk("1.3.6.1.2.1.47.1.1.1.1.2");
  ASSERT_NE(before.find(".11003 = STRING"), std::string::npos) << before;

  ASSERT_TRUE(snmp_.stop_snmpd());
  EXPECT_TRUE(test::wait_until([&] { return log_has("lost the master agent"); }, 10s));
  ASSERT_EQ(snmp_.start_snmpd(), "");
  EXPECT_TRUE(test::wait_until([&] { return walk("1.3.6.1.2.1.47.1.1.1.1.2") == before; }, 15s, 50ms))
      << walk("1.3.6.1.2.1.47.1.1.1.1.2");
  EXPECT_TRUE(test::wait_until(
      [&] { return walk("1.3.6.1.2.1.99.1.1.1.1").find(".12035 = INTEGER: 6") != std::string::npos; }, 5s, 20ms));
  const auto lines = log_->lines();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const auto& line) { return line.text.find("registered with the master agent") == 0; }),
            2);
}

TEST(SubagentProgramTest, HelpNamesTheOptions) {
  const auto run = test::run_program({SNMP_SUBAGENT_PATH, "--help"}, {}, 10s);
  ASSERT_TRUE(run.end && run.end->exited_with(0)) << run.errors;
  for (const auto* option : {"--agentx-socket", "--enterprise-arc", "--period-ms", "--ping-interval"}) {
    EXPECT_NE(run.output.find(option), std::string::npos) << option;
  }
}

TEST(SubagentProgramTest, BadOptionsAreRefusedWithTheirReasonAndStatusTwo) {
  const struct {
    std::string option;
    std::string value;
    std::string error;
  } cases[] = {
      {"--period-ms", "0", "--period-ms: Value 0 not in range 100 to 3600000\n"},
      {"--enterprise-arc", "x", "--enterprise-arc: not a dotted OID: x\n"},
  };
  for (const auto& one : cases) {
    const auto run = test::run_program({SNMP_SUBAGENT_PATH, one.option, one.value}, {}, 10s);
    ASSERT_TRUE(run.end.has_value());
    EXPECT_TRUE(run.end->exited_with(2)) << one.option << ": " << run.end->describe();
    EXPECT_EQ(run.errors.substr(0, one.error.size()), one.error) << run.errors;
  }
}

}  // namespace
}  // namespace xpon::snmp_subagent
