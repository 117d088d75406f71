// The exporter's page of a board model: exact series for each kind of reading, the optical power
// floor, the alarms, the read states, and a whole page accepted by Debian's promtool.
#include "board_metrics.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/test/ci_skip.hpp"
#include "xpon/test/process.hpp"
#include "xpon/test/temp_dir.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace xpon::exporter {
namespace {

using namespace xpon::board_view;
using namespace xpon::system_mgr;

const Clock::time_point kUpdated = Clock::time_point(std::chrono::seconds(1764000000));

ReadState read_at(Clock::time_point when) {
  ReadState state;
  state.updated = when;
  return state;
}

BoardModel lt_board() {
  BoardModel model;
  model.family = SYSTEM_MGR_FAMILY_LT;
  model.product = "Korvan-16GP";
  model.serial = "LT2311000007";
  model.fpga_version = 3;
  model.cpld_version = 7;
  model.factory_read = read_at(kUpdated);
  model.temperature_limits[0] = {0, 85};
  model.temperatures = {Temperature{0, 42, 0, 85}, Temperature{4, -3, std::nullopt, std::nullopt}};
  model.temperatures_read = read_at(kUpdated);
  model.fans = {Fan{1, true, false, 5700}, Fan{2, true, true, 0}};
  model.fans_read.failed = true;  // read once, failed since
  model.fans_read.updated = kUpdated;
  model.limits.fan_lower_rpm = 1200;
  model.limits.fan_upper_rpm = 12000;
  model.supplies = {Supply{1, true, true, 0}};
  SfpModule pon;
  pon.group = PortGroup::Pon;
  pon.port = 1;
  pon.state = 1;
  pon.vendor = "XPON \"OPTICS\"";
  pon.part_number = "GP-SFP-C++";
  pon.serial = "XO2311000100";
  pon.revision = "A";
  pon.wavelength_nm = 1490;
  pon.diagnostics = Diagnostics{38.5, 3.3, 0.012, 0.002};
  pon.diagnostics_read = read_at(kUpdated);
  pon.rx_watts = 0.0;
  pon.rx_read = read_at(kUpdated);
  model.sfp[{PortGroup::Pon, 1}] = pon;
  ActiveAlarm alarm;
  alarm.alarm_id = SYSTEM_MGR_ALARM_TEMPERATURE;
  alarm.instance = 4;
  alarm.text = "Temperature of sensor 4 is out of range";
  model.alarms[{alarm.alarm_id, alarm.instance}] = alarm;
  return model;
}

std::string page_of(const BoardModel& model, BoardViewStats stats = {}) {
  const auto families = board_metrics(model, stats);
  return metrics::render(families);
}

// The lines of the page that start with `prefix` (a metric name and its opening brace, say).
std::string lines_of(const std::string& page, const std::string& prefix) {
  std::string out;
  std::size_t at = 0;
  while (at < page.size()) {
    const auto end = page.find('\n', at);
    const auto line = page.substr(at, end - at);
    if (line.rfind(prefix, 0) == 0) {
      out += line + "\n";
    }
    at = end == std::string::npos ? page.size() : end + 1;
  }
  return out;
}

TEST(BoardMetricsTest, TemperaturesWithTheirLimits) {
  const auto page = page_of(lt_board());
  EXPECT_EQ(lines_of(page, "xpon_temperature_"),
            "xpon_temperature_celsius{sensor=\"0\"} 42\n"
            "xpon_temperature_celsius{sensor=\"4\"} -3\n"
            "xpon_temperature_upper_limit_celsius{sensor=\"0\"} 85\n"
            "xpon_temperature_lower_limit_celsius{sensor=\"0\"} 0\n");
  EXPECT_NE(page.find("# HELP xpon_temperature_celsius Temperature of a board sensor\n"
                      "# TYPE xpon_temperature_celsius gauge\n"),
            std::string::npos);
}

TEST(BoardMetricsTest, BoardIdentityFansAndSupplies) {
  const auto page = page_of(lt_board());
  EXPECT_EQ(lines_of(page, "xpon_board_info"),
            "xpon_board_info{family=\"LT\",product=\"Korvan-16GP\",serial=\"LT2311000007\",fpga_version=\"3\","
            "cpld_version=\"7\"} 1\n");
  EXPECT_EQ(lines_of(page, "xpon_fan_"),
            "xpon_fan_speed_rpm{fan=\"1\"} 5700\n"
            "xpon_fan_speed_rpm{fan=\"2\"} 0\n"
            "xpon_fan_present{fan=\"1\"} 1\n"
            "xpon_fan_present{fan=\"2\"} 1\n"
            "xpon_fan_fault{fan=\"1\"} 0\n"
            "xpon_fan_fault{fan=\"2\"} 1\n"
            "xpon_fan_lower_limit_rpm 1200\n"
            "xpon_fan_upper_limit_rpm 12000\n");
  EXPECT_EQ(lines_of(page, "xpon_power_supply_"),
            "xpon_power_supply_present{supply=\"1\"} 1\n"
            "xpon_power_supply_power_good{supply=\"1\"} 1\n"
            "xpon_power_supply_alert{supply=\"1\"} 0\n");
  // An LT board has no crate modules: no such family at all.
  EXPECT_EQ(page.find("xpon_fan_module"), std::string::npos);
  EXPECT_EQ(page.find("xpon_power_module"), std::string::npos);
}

TEST(BoardMetricsTest, SfpModuleInBaseUnitsWithNoLightAtTheFloor) {
  const auto page = page_of(lt_board());
  EXPECT_EQ(lines_of(page, "xpon_sfp_info"),
            "xpon_sfp_info{group=\"pon\",port=\"1\",vendor=\"XPON \\\"OPTICS\\\"\",part_number=\"GP-SFP-C++\","
            "serial=\"XO2311000100\",revision=\"A\"} 1\n");
  EXPECT_EQ(lines_of(page, "xpon_sfp_temperature_celsius"),
            "xpon_sfp_temperature_celsius{group=\"pon\",port=\"1\"} 38.5\n");
  EXPECT_EQ(lines_of(page, "xpon_sfp_supply_volts"), "xpon_sfp_supply_volts{group=\"pon\",port=\"1\"} 3.3\n");
  EXPECT_EQ(lines_of(page, "xpon_sfp_bias_amperes"), "xpon_sfp_bias_amperes{group=\"pon\",port=\"1\"} 0.012\n");
  EXPECT_EQ(lines_of(page, "xpon_sfp_tx_power"),
            "xpon_sfp_tx_power_watts{group=\"pon\",port=\"1\"} 0.002\n"
            "xpon_sfp_tx_power_dbm{group=\"pon\",port=\"1\"} 3.010299956639812\n"
            "xpon_sfp_tx_power_low{group=\"pon\",port=\"1\"} 0\n");
  // 0 W received: the floor and the flag, never -Inf.
  EXPECT_EQ(lines_of(page, "xpon_sfp_rx_power"),
            "xpon_sfp_rx_power_watts{group=\"pon\",port=\"1\"} 0\n"
            "xpon_sfp_rx_power_dbm{group=\"pon\",port=\"1\"} -40\n"
            "xpon_sfp_rx_power_low{group=\"pon\",port=\"1\"} 1\n");
  EXPECT_EQ(page.find("Inf"), std::string::npos);
}

TEST(BoardMetricsTest, PowerInDbmNeverGoesBelowTheFloor) {
  EXPECT_EQ(watts_to_dbm(0.0), -40.0);
  EXPECT_EQ(watts_to_dbm(-1.0), -40.0);
  EXPECT_EQ(watts_to_dbm(1e-12), -40.0);
  EXPECT_EQ(watts_to_dbm(std::numeric_limits<double>::quiet_NaN()), -40.0);
  EXPECT_EQ(watts_to_dbm(std::numeric_limits<double>::infinity()), -40.0);
  EXPECT_DOUBLE_EQ(watts_to_dbm(1e-3), 0.0);
  EXPECT_DOUBLE_EQ(watts_to_dbm(1e-7), -40.0);
  EXPECT_DOUBLE_EQ(watts_to_dbm(1e-5), -20.0);
}

TEST(BoardMetricsTest, OneSeriesPerRaisedAlarm) {
  const auto page = page_of(lt_board());
  EXPECT_EQ(
      lines_of(page, "xpon_alarm_active"),
      "xpon_alarm_active{kind=\"temperature\",alarm_id=\"4\",instance=\"4\",text=\"Temperature of sensor 4 is out "
      "of range\"} 1\n");
  BoardModel quiet = lt_board();
  quiet.alarms.clear();
  EXPECT_EQ(page_of(quiet).find("xpon_alarm_active"), std::string::npos);
}

TEST(BoardMetricsTest, EverySourceSaysWhetherItsLastReadSucceededAndWhen) {
  const auto page = page_of(lt_board());
  EXPECT_EQ(lines_of(page, "xpon_read_ok"),
            "xpon_read_ok{source=\"factory\"} 1\n"
            "xpon_read_ok{source=\"temperatures\"} 1\n"
            "xpon_read_ok{source=\"fans\"} 0\n"
            "xpon_read_ok{source=\"sfp_diagnostics\",group=\"pon\",port=\"1\"} 1\n"
            "xpon_read_ok{source=\"sfp_rx_power\",group=\"pon\",port=\"1\"} 1\n");
  EXPECT_EQ(lines_of(page, "xpon_last_update_timestamp_seconds{source=\"fans\"}"),
            "xpon_last_update_timestamp_seconds{source=\"fans\"} 1764000000\n");
}

TEST(BoardMetricsTest, CountersOfTheExporterItself) {
  BoardViewStats stats;
  stats.rounds = 3;
  stats.requests = 42;
  stats.failed_requests = 2;
  stats.events = 17;
  stats.malformed_events = 1;
  const auto page = page_of(BoardModel{}, stats);
  EXPECT_EQ(page,
            "# HELP xpon_exporter_rounds_total Complete rounds of requests to the system manager\n"
            "# TYPE xpon_exporter_rounds_total counter\n"
            "xpon_exporter_rounds_total 3\n"
            "# HELP xpon_exporter_requests_total Requests sent to the system manager\n"
            "# TYPE xpon_exporter_requests_total counter\n"
            "xpon_exporter_requests_total 42\n"
            "# HELP xpon_exporter_failed_requests_total Requests with no answer in time, an error answer or an "
            "answer of the wrong layout\n"
            "# TYPE xpon_exporter_failed_requests_total counter\n"
            "xpon_exporter_failed_requests_total 2\n"
            "# HELP xpon_exporter_events_total Alarm records and SFP events received\n"
            "# TYPE xpon_exporter_events_total counter\n"
            "xpon_exporter_events_total 17\n"
            "# HELP xpon_exporter_malformed_events_total Events whose payload is not their record\n"
            "# TYPE xpon_exporter_malformed_events_total counter\n"
            "xpon_exporter_malformed_events_total 1\n");
}

TEST(BoardMetricsTest, CrateModulesOfAnFcBoard) {
  BoardModel model;
  model.family = SYSTEM_MGR_FAMILY_FC;
  model.fan_module = FanModule{true, false, {6000, 5940}, 159, "FM-16", "FM0001", "B"};
  model.power_module = PowerModule{true, true, false, false, 230.1, 12.0, 15.5, 186.0, 31};
  const auto page = page_of(model);
  EXPECT_EQ(lines_of(page, "xpon_fan_module_"),
            "xpon_fan_module_present 1\n"
            "xpon_fan_module_fault 0\n"
            "xpon_fan_module_speed_setting 159\n"
            "xpon_fan_module_fan_speed_rpm{fan=\"1\"} 6000\n"
            "xpon_fan_module_fan_speed_rpm{fan=\"2\"} 5940\n"
            "xpon_fan_module_info{product=\"FM-16\",serial=\"FM0001\",revision=\"B\"} 1\n");
  EXPECT_EQ(lines_of(page, "xpon_power_module_"),
            "xpon_power_module_present 1\n"
            "xpon_power_module_power_good 1\n"
            "xpon_power_module_fault 0\n"
            "xpon_power_module_fan_fault 0\n"
            "xpon_power_module_input_volts 230.1\n"
            "xpon_power_module_output_volts 12\n"
            "xpon_power_module_output_amperes 15.5\n"
            "xpon_power_module_output_watts 186\n"
            "xpon_power_module_temperature_celsius 31\n");
}

TEST(BoardMetricsTest, AWholePageIsAcceptedByPromtool) {
  const std::string promtool = "/usr/bin/promtool";
  XPON_SKIP_OR_FAIL_IN_CI(std::filesystem::exists(promtool) ? ""
                                                            : "promtool is not installed (Debian package prometheus)");
  BoardModel model = lt_board();
  model.fan_module = FanModule{true, true, {6000}, 102, "FM-16", "FM0001", "B"};
  model.power_module = PowerModule{};
  model.limits.ram_free_percent = 10;
  model.limits.load_average = 4.0;
  model.ram_total_bytes = 2097152.0;
  model.ram_free_bytes = 524288.0;
  BoardViewStats stats;
  stats.rounds = 1;
  const xpon::test::TempDir dir("exporter");
  const auto file = dir.path() + "/metrics.txt";
  std::ofstream(file) << page_of(model, stats);
  const auto run = xpon::test::run_program({"/bin/sh", "-c", promtool + " check metrics < " + file});
  ASSERT_TRUE(run.end.has_value());
  EXPECT_TRUE(run.end->exited_with(0)) << run.output << run.errors;
  EXPECT_EQ(run.output + run.errors, "");
}

TEST(ExampleAlertRulesTest, AreValidAndFireOnTheExportersSeries) {
  const std::string promtool = "/usr/bin/promtool";
  XPON_SKIP_OR_FAIL_IN_CI(std::filesystem::exists(promtool) ? ""
                                                            : "promtool is not installed (Debian package prometheus)");
  const std::string dir = XPON_EXAMPLES_DIR "/prometheus";
  const auto check = xpon::test::run_program({promtool, "check", "rules", dir + "/xpon-alerts.yml"});
  ASSERT_TRUE(check.end.has_value());
  EXPECT_TRUE(check.end->exited_with(0)) << check.output << check.errors;
  EXPECT_NE(check.output.find("SUCCESS: 5 rules found"), std::string::npos) << check.output;
  // promtool reads the rule files named in the test file relative to the test file.
  const auto test = xpon::test::run_program({promtool, "test", "rules", dir + "/xpon-alerts.test.yml"});
  ASSERT_TRUE(test.end.has_value());
  EXPECT_TRUE(test.end->exited_with(0)) << test.output << test.errors;
  EXPECT_NE(test.output.find("SUCCESS"), std::string::npos) << test.output;
}

}  // namespace
}  // namespace xpon::exporter
