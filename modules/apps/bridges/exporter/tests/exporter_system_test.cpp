// xpon-exporter against the real daemon on the emulated board, scraped with Debian's curl and
// checked with Debian's promtool: the readings as the emulator's scenario has them, a raised
// alarm and its clearing, a driver fault and the recovery, an SFP module pulled; and its command line.
#include "system_test.hpp"
#include "xpon/test/process.hpp"
#include "xpon/test/sandbox.hpp"
#include "xpon/test/wait.hpp"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

namespace xpon::system_mgr::test {
namespace {

const std::string kCurl = "/usr/bin/curl";
const std::string kPromtool = "/usr/bin/promtool";

class ExporterSystemTest : public SystemMgrTest {
 protected:
  void TearDown() override {
    if (exporter_) {
      const auto end = exporter_->stop(SIGTERM, kStepTimeout);
      EXPECT_TRUE(end.exited_with(0)) << end.describe() << "\n" << exporter_log();
    }
  }

  // Starts the board, the daemon and the exporter, and waits for the exporter's first full round.
  void start_all(const char* scenario, const char* product) {
    std::string missing;
    for (const auto& program : {kCurl, kPromtool}) {
      if (!std::filesystem::exists(program)) {
        missing += program + " is not installed; ";
      }
    }
    XPON_SKIP_OR_FAIL_IN_CI(missing);
    ASSERT_NO_FATAL_FAILURE(start_board(scenario, product));
    if (IsSkipped()) {
      return;
    }
    ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
    ASSERT_NO_FATAL_FAILURE(settle(1));
    exporter_.emplace(std::vector<std::string>{XPON_EXPORTER_PROGRAM, "--listen", "127.0.0.1:0", "--period", "0.2"},
                      std::vector<std::string>{"XPON_ROOT=" + rig_.root()}, "", rig_.path("/exporter.log"));
    const std::regex serving(R"(Serving metrics at http://(127\.0\.0\.1:[0-9]+)/metrics)");
    ASSERT_TRUE(xpon::test::wait_until(
        [&] {
          std::smatch match;
          const auto log = exporter_log();
          if (std::regex_search(log, match, serving)) {
            endpoint_ = match[1];
            return true;
          }
          return false;
        },
        kStepTimeout))
        << exporter_log();
    ASSERT_TRUE(wait_for_page([](const std::string& page) {
      return page.find("xpon_exporter_rounds_total 0\n") == std::string::npos &&
             page.find("xpon_exporter_rounds_total") != std::string::npos;
    })) << page_;
  }

  std::string exporter_log() const { return xpon::test::read_text_file(rig_.path("/exporter.log")); }

  // One scrape with curl: the headers and the body.
  xpon::test::ProgramRun scrape(const std::string& path = "/metrics") {
    return xpon::test::run_program({kCurl, "-sS", "-D", "-", "http://" + endpoint_ + path});
  }

  // Scrapes until the page satisfies `wanted`; the last page is kept in page_.
  template <typename Wanted>
  bool wait_for_page(Wanted wanted) {
    return xpon::test::wait_until(
        [&] {
          const auto run = xpon::test::run_program({kCurl, "-sS", "http://" + endpoint_ + "/metrics"});
          page_ = run.output;
          return run.end && run.end->exited_with(0) && wanted(page_);
        },
        kStepTimeout);
  }

  bool page_has(const std::string& line) {
    return wait_for_page([&](const std::string& page) { return page.find(line) != std::string::npos; });
  }

  bool page_lacks(const std::string& part) {
    return wait_for_page([&](const std::string& page) { return page.find(part) == std::string::npos; });
  }

  std::optional<xpon::test::Process> exporter_;
  std::string endpoint_;
  std::string page_;
};

TEST_F(ExporterSystemTest, AnLtBoardIsScrapedAsItsScenarioDescribesIt) {
  ASSERT_NO_FATAL_FAILURE(start_all("board-lt.json", kLtProduct));
  if (IsSkipped()) {
    return;
  }
  const auto run = scrape();
  ASSERT_TRUE(run.end && run.end->exited_with(0)) << run.errors;
  EXPECT_NE(run.output.find("HTTP/1.1 200 OK\r\n"), std::string::npos) << run.output;
  EXPECT_NE(run.output.find("Content-Type: text/plain; version=0.0.4; charset=utf-8\r\n"), std::string::npos);
  const std::string& page = run.output;
  EXPECT_NE(page.find("xpon_board_info{family=\"LT\",product=\"Korvan-16GP\","), std::string::npos) << page;
  // The scenario's five sensors (as GET_TEMP answers them).
  for (const auto* line : {"xpon_temperature_celsius{sensor=\"0\"} 41\n", "xpon_temperature_celsius{sensor=\"1\"} 43\n",
                           "xpon_temperature_celsius{sensor=\"2\"} 38\n", "xpon_temperature_celsius{sensor=\"3\"} 52\n",
                           "xpon_temperature_celsius{sensor=\"4\"} 57\n", "xpon_read_ok{source=\"temperatures\"} 1\n",
                           "xpon_read_ok{source=\"fans\"} 1\n", "xpon_read_ok{source=\"limits\"} 1\n",
                           "xpon_power_supply_present{supply=\"1\"} 1\n"}) {
    EXPECT_NE(page.find(line), std::string::npos) << line << page;
  }
  EXPECT_NE(page.find("xpon_temperature_upper_limit_celsius{sensor=\"4\"} "), std::string::npos) << page;
  EXPECT_NE(page.find("xpon_sfp_info{group=\"pon\",port=\"0\",vendor=\""), std::string::npos) << page;
  EXPECT_NE(page.find("xpon_sfp_rx_power_dbm{group=\"pon\",port=\"0\"} "), std::string::npos) << page;
  EXPECT_EQ(page.find("Inf"), std::string::npos) << page;

  // The whole page, as Prometheus would read it.
  const auto file = rig_.path("/metrics.txt");
  std::ofstream(file) << scrape().output.substr(run.output.find("\r\n\r\n") + 4);
  const auto check = xpon::test::run_program({"/bin/sh", "-c", kPromtool + " check metrics < " + file});
  ASSERT_TRUE(check.end.has_value());
  EXPECT_TRUE(check.end->exited_with(0)) << check.output << check.errors;

  const auto missing = scrape("/nothing");
  EXPECT_NE(missing.output.find("HTTP/1.1 404 "), std::string::npos) << missing.output;
}

TEST_F(ExporterSystemTest, ASupplyAlarmIsOneSeriesWhileRaisedAndGoneOnceCleared) {
  ASSERT_NO_FATAL_FAILURE(start_all("board-lt.json", kLtProduct));
  if (IsSkipped()) {
    return;
  }
  EXPECT_EQ(page_.find("xpon_alarm_active"), std::string::npos) << page_;
  // Supplies are polled every second: no restart needed. A supply present without its output
  // raises the alarm (an empty slot does not: the daemon reports it back to normal, "offline").
  ASSERT_NO_FATAL_FAILURE(patch_emulator(R"({"power_supplies": {"1": {"present": true, "power_good": false}}})"));
  ASSERT_TRUE(
      page_has("xpon_alarm_active{kind=\"power supply\",alarm_id=\"46\",instance=\"2\","
               "text=\"Power supply 2 is missing voltage\"} 1\n"))
      << page_ << rig_.daemon_log();
  EXPECT_NE(page_.find("xpon_power_supply_power_good{supply=\"2\"} 0\n"), std::string::npos) << page_;
  ASSERT_NO_FATAL_FAILURE(patch_emulator(R"({"power_supplies": {"1": {"present": true, "power_good": true}}})"));
  EXPECT_TRUE(page_lacks("xpon_alarm_active")) << page_;
}

TEST_F(ExporterSystemTest, ADriverFaultMakesReadOkZeroUntilTheBoardAnswersAgain) {
  ASSERT_NO_FATAL_FAILURE(start_all("board-lt.json", kLtProduct));
  if (IsSkipped()) {
    return;
  }
  ASSERT_NO_FATAL_FAILURE(patch_emulator(R"({"faults": {"BOARD_GET_TEMP_INFO": {"errno": "EIO", "count": 100000}}})"));
  ASSERT_TRUE(page_has("xpon_read_ok{source=\"temperatures\"} 0\n")) << page_;
  // The last values stay, marked by read_ok.
  EXPECT_NE(page_.find("xpon_temperature_celsius{sensor=\"4\"} 57\n"), std::string::npos) << page_;
  ASSERT_NO_FATAL_FAILURE(patch_emulator(R"({"faults": {"BOARD_GET_TEMP_INFO": null}})"));
  EXPECT_TRUE(page_has("xpon_read_ok{source=\"temperatures\"} 1\n")) << page_;
}

TEST_F(ExporterSystemTest, APulledModuleLeavesThePageAndComesBackWhenPlugged) {
  ASSERT_NO_FATAL_FAILURE(start_all("board-lt.json", kLtProduct));
  if (IsSkipped()) {
    return;
  }
  const std::string present = "xpon_sfp_present{group=\"pon\",port=\"3\"} 1\n";
  ASSERT_NE(page_.find(present), std::string::npos) << page_;
  ASSERT_NO_FATAL_FAILURE(patch_emulator(R"({"pon_ports": {"3": {"present": false}}})"));
  EXPECT_TRUE(page_lacks("group=\"pon\",port=\"3\"")) << page_;
  ASSERT_NO_FATAL_FAILURE(patch_emulator(R"({"pon_ports": {"3": {"present": true}}})"));
  EXPECT_TRUE(page_has(present)) << page_;
  EXPECT_TRUE(page_has("xpon_read_ok{source=\"sfp_diagnostics\",group=\"pon\",port=\"3\"} 1\n")) << page_;
}

TEST_F(ExporterSystemTest, AnFcBoardShowsTheCratesModules) {
  ASSERT_NO_FATAL_FAILURE(start_all("board-fc.json", kFcProduct));
  if (IsSkipped()) {
    return;
  }
  for (const auto* part : {"xpon_board_info{family=\"FC\"", "xpon_fan_module_present 1\n",
                           "xpon_fan_module_speed_setting ", "xpon_power_module_present 1\n",
                           "xpon_power_module_input_volts ", "xpon_read_ok{source=\"power_module\"} 1\n"}) {
    EXPECT_TRUE(page_has(part)) << part << "\n" << page_;
  }
  EXPECT_EQ(page_.find("xpon_fan_speed_rpm"), std::string::npos) << page_;
}

}  // namespace
}  // namespace xpon::system_mgr::test

namespace xpon::system_mgr::test {
namespace {

// The command line: what is wrong with it is said at once, with the tools' usage status 2.
TEST(ExporterProgramTest, BadOptionsAreRefusedWithTheirReasonAndStatusTwo) {
  const struct {
    std::vector<std::string> arguments;
    std::string error;
  } cases[] = {
      {{"--listen", "nonsense"}, "xpon-exporter: --listen nonsense: expected ADDRESS:PORT\n"},
      {{"--listen", "127.0.0.1:"}, "xpon-exporter: --listen 127.0.0.1:: expected ADDRESS:PORT\n"},
      {{"--listen", "127.0.0.1:99999"}, "xpon-exporter: --listen port: 99999 is out of range (at most 0xffff)\n"},
      {{"--listen", "[::1]:x1"}, "xpon-exporter: --listen port: 'x1' is not a number (decimal or 0x hex)\n"},
      {{"--period", "0"}, "--period: Value 0 not in range 0.100000 to 3600.000000\n"},
      {{"--timeout", "0"}, "--timeout: Value 0 not in range 1 to 600000\n"},
  };
  for (const auto& one : cases) {
    std::vector<std::string> argv{XPON_EXPORTER_PROGRAM};
    argv.insert(argv.end(), one.arguments.begin(), one.arguments.end());
    const auto run = xpon::test::run_program(argv, {}, kStepTimeout);
    ASSERT_TRUE(run.end.has_value());
    EXPECT_TRUE(run.end->exited_with(2)) << one.arguments.back() << ": " << run.end->describe();
    EXPECT_EQ(run.errors.substr(0, one.error.size()), one.error) << run.errors;
  }
  const auto help = xpon::test::run_program({XPON_EXPORTER_PROGRAM, "--help"}, {}, kStepTimeout);
  ASSERT_TRUE(help.end && help.end->exited_with(0)) << help.errors;
  for (const auto* option : {"--listen", "--period", "--timeout"}) {
    EXPECT_NE(help.output.find(option), std::string::npos) << option;
  }
}

// An address that is not there, or a port another program holds: status 1 and the reason.
TEST(ExporterProgramTest, AnAddressItCannotListenOnEndsItWithTheReason) {
  const xpon::test::Sandbox sandbox;
  const auto run = xpon::test::run_program({XPON_EXPORTER_PROGRAM, "--listen", "999.1.1.1:0"},
                                           {sandbox.environment_entry()}, kStepTimeout);
  ASSERT_TRUE(run.end.has_value());
  EXPECT_TRUE(run.end->exited_with(1)) << run.end->describe() << run.errors;
  EXPECT_NE(run.errors.find("Cannot listen on 999.1.1.1:0: not an IPv4 or IPv6 address"), std::string::npos)
      << run.errors;
}

}  // namespace
}  // namespace xpon::system_mgr::test
