// xpon-snmp-subagent as installed, against the real daemon on the emulated LT and FC boards, with
// Debian's snmpd and snmptrapd: the sensors as the scenarios have them, a supply alarm raised and
// cleared with one notification each way, a module pulled and plugged.
#include "snmp_sandbox.hpp"
#include "system_test.hpp"
#include "xpon/test/ci_skip.hpp"
#include "xpon/test/process.hpp"
#include "xpon/test/wait.hpp"

#include <csignal>
#include <optional>
#include <string>
#include <thread>

namespace xpon::system_mgr::test {
namespace {

using snmp_subagent::count_of;
using snmp_subagent::SnmpSandbox;

constexpr const char* kSensorValues = "1.3.6.1.2.1.99.1.1.1.4";  // entPhySensorValue
constexpr const char* kSerials = "1.3.6.1.2.1.47.1.1.1.1.11";    // entPhysicalSerialNum
const std::string kTrapOid = ".1.3.6.1.6.3.1.1.4.1.0 = OID: ";

class SubagentSystemTest : public SystemMgrTest {
 protected:
  void TearDown() override {
    if (subagent_) {
      const auto end = subagent_->stop(SIGTERM, kStepTimeout);
      EXPECT_TRUE(end.exited_with(0)) << end.describe() << "\n" << subagent_log();
    }
  }

  // The board, the daemon, snmpd with snmptrapd, and the subagent, registered and serving the board.
  void start_all(const char* scenario, const char* product) {
    XPON_SKIP_OR_FAIL_IN_CI(snmp_subagent::missing_programs());
    ASSERT_NO_FATAL_FAILURE(start_board(scenario, product));
    if (IsSkipped()) {
      return;
    }
    ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
    ASSERT_NO_FATAL_FAILURE(settle(1));
    ASSERT_EQ(snmp_.start(), "");
    auto environment = snmp_.environment();
    environment.push_back("XPON_ROOT=" + rig_.root());
    subagent_.emplace(std::vector<std::string>{XPON_SNMP_SUBAGENT_PROGRAM, "--agentx-socket", snmp_.agentx_socket(),
                                               "--period-ms", "200", "--ping-interval", "1"},
                      environment, "", rig_.path("/subagent.log"));
    ASSERT_TRUE(xpon::test::wait_until(
        [&] { return subagent_log().find("registered with the master agent") != std::string::npos; }, kStepTimeout))
        << subagent_log();
    // The board's row is there once the view's first round is in.
    ASSERT_TRUE(xpon::test::wait_until([&] { return snmp_.walk(kSensorValues).find(".1000 = ") != std::string::npos; },
                                       kStepTimeout))
        << snmp_.walk("1.3.6.1.2.1.47") << subagent_log();
  }

  std::string subagent_log() const { return xpon::test::read_text_file(rig_.path("/subagent.log")); }

  SnmpSandbox snmp_;
  std::optional<xpon::test::Process> subagent_;
};

TEST_F(SubagentSystemTest, TheLtBoardsSensorsAreItsScenarios) {
  ASSERT_NO_FATAL_FAILURE(start_all("board-lt.json", kLtProduct));
  if (IsSkipped()) {
    return;
  }
  const auto values = snmp_.walk(kSensorValues);
  // The five temperatures of the scenario (sensor id n at 1000 + n), the four fans at 6000 rpm.
  for (const auto* line :
       {".1.3.6.1.2.1.99.1.1.1.4.1000 = INTEGER: 41\n", ".1.3.6.1.2.1.99.1.1.1.4.1001 = INTEGER: 43\n",
        ".1.3.6.1.2.1.99.1.1.1.4.1002 = INTEGER: 38\n", ".1.3.6.1.2.1.99.1.1.1.4.1003 = INTEGER: 52\n",
        ".1.3.6.1.2.1.99.1.1.1.4.1004 = INTEGER: 57\n", ".1.3.6.1.2.1.99.1.1.1.4.2501 = INTEGER: 6000\n",
        ".1.3.6.1.2.1.99.1.1.1.4.2504 = INTEGER: 6000\n"}) {
    EXPECT_NE(values.find(line), std::string::npos) << line << values;
  }
  EXPECT_EQ(snmp_.get({"1.3.6.1.2.1.47.1.1.1.1.13.1", "1.3.6.1.2.1.47.1.1.1.1.11.11000"}),
            ".1.3.6.1.2.1.47.1.1.1.1.13.1 = STRING: \"Korvan-16GP\"\n"
            ".1.3.6.1.2.1.47.1.1.1.1.11.11000 = STRING: \"XO2311000100\"\n");
  // Every sensor ok(1).
  const auto status = snmp_.walk("1.3.6.1.2.1.99.1.1.1.5");
  EXPECT_EQ(status.find("INTEGER: 2"), std::string::npos) << status;
  EXPECT_GT(count_of(status, "INTEGER: 1\n"), 10U) << status;
}

TEST_F(SubagentSystemTest, ASupplyAlarmGivesOneNotificationEachWayAndOneRowWhileRaised) {
  ASSERT_NO_FATAL_FAILURE(start_all("board-lt.json", kLtProduct));
  if (IsSkipped()) {
    return;
  }
  const std::string active = kTrapOid + ".1.3.6.1.2.1.118.0.2";
  const std::string clear = kTrapOid + ".1.3.6.1.2.1.118.0.3";
  // Supplies are polled every second, and their alarm reported again at each poll.
  ASSERT_NO_FATAL_FAILURE(patch_emulator(R"({"power_supplies": {"1": {"present": true, "power_good": false}}})"));
  ASSERT_TRUE(xpon::test::wait_until([&] { return count_of(snmp_.traps(), active) == 1; }, kStepTimeout))
      << snmp_.traps() << subagent_log();
  const auto rows = snmp_.walk("1.3.6.1.2.1.118.1.2.2.1.10");  // alarmActiveResourceId
  EXPECT_EQ(count_of(rows, "= OID: .1.3.6.1.2.1.47.1.1.1.1.2.3002"), 1U) << rows;
  // Three more reports of the raised alarm (one a second): still one notification.
  std::this_thread::sleep_for(3s);
  EXPECT_EQ(count_of(snmp_.traps(), active), 1U) << snmp_.traps();

  ASSERT_NO_FATAL_FAILURE(patch_emulator(R"({"power_supplies": {"1": {"present": true, "power_good": true}}})"));
  ASSERT_TRUE(xpon::test::wait_until([&] { return count_of(snmp_.traps(), clear) == 1; }, kStepTimeout))
      << snmp_.traps();
  EXPECT_TRUE(xpon::test::wait_until(
      [&] { return snmp_.walk("1.3.6.1.2.1.118.1.2.2.1.10").find("3002") == std::string::npos; }, kStepTimeout));
  EXPECT_EQ(count_of(snmp_.traps(), active), 1U) << snmp_.traps();
}

TEST_F(SubagentSystemTest, APulledModuleLeavesTheTablesAndComesBackWithTheSameIndex) {
  ASSERT_NO_FATAL_FAILURE(start_all("board-lt.json", kLtProduct));
  if (IsSkipped()) {
    return;
  }
  const std::string config_change = kTrapOid + ".1.3.6.1.2.1.47.2.0.1";
  const std::string serial = ".1.3.6.1.2.1.47.1.1.1.1.11.11003 = STRING: \"XO2311000103\"";
  ASSERT_NE(snmp_.walk(kSerials).find(serial), std::string::npos);
  ASSERT_NO_FATAL_FAILURE(patch_emulator(R"({"pon_ports": {"3": {"present": false}}})"));
  EXPECT_TRUE(xpon::test::wait_until([&] { return snmp_.walk(kSerials).find(".11003 = ") == std::string::npos; },
                                     kStepTimeout));
  EXPECT_TRUE(xpon::test::wait_until([&] { return count_of(snmp_.traps(), config_change) >= 1; }, kStepTimeout))
      << snmp_.traps();
  // The module's sensors (12000 + 10 x port + k) are gone with it.
  EXPECT_EQ(snmp_.walk(kSensorValues).find(".1203"), std::string::npos);
  ASSERT_NO_FATAL_FAILURE(patch_emulator(R"({"pon_ports": {"3": {"present": true}}})"));
  EXPECT_TRUE(
      xpon::test::wait_until([&] { return snmp_.walk(kSerials).find(serial) != std::string::npos; }, kStepTimeout));
}

TEST_F(SubagentSystemTest, AnFcBoardShowsTheCratesModules) {
  ASSERT_NO_FATAL_FAILURE(start_all("board-fc.json", kFcProduct));
  if (IsSkipped()) {
    return;
  }
  const auto classes = snmp_.walk("1.3.6.1.2.1.47.1.1.1.1.5");  // entPhysicalClass
  // The fan module is a fan(7) with its fans, the power module a powerSupply(6) with its sensors.
  EXPECT_NE(classes.find(".1.3.6.1.2.1.47.1.1.1.1.5.4000 = INTEGER: 7\n"), std::string::npos) << classes;
  EXPECT_NE(classes.find(".1.3.6.1.2.1.47.1.1.1.1.5.5000 = INTEGER: 6\n"), std::string::npos) << classes;
  const auto values = snmp_.walk(kSensorValues);
  for (const auto* index : {".5001 = INTEGER: ", ".5005 = INTEGER: ", ".4101 = INTEGER: "}) {
    EXPECT_NE(values.find(index), std::string::npos) << index << values;
  }
  // No board fan on an FC board.
  EXPECT_EQ(values.find(".2501 = "), std::string::npos) << values;
}

}  // namespace
}  // namespace xpon::system_mgr::test
