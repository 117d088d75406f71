// The pages render() writes, checked by the Prometheus project's own linter (promtool, from the
// Debian package prometheus): what it accepts, a real Prometheus server scrapes.
#include "xpon/metrics/exposition.hpp"
#include "xpon/test/ci_skip.hpp"
#include "xpon/test/process.hpp"
#include "xpon/test/temp_dir.hpp"

#include <unistd.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace xpon::metrics {
namespace {

constexpr const char* kPromtool = "/usr/bin/promtool";

std::string promtool_missing() {
  return access(kPromtool, X_OK) == 0 ? std::string()
                                      : std::string(kPromtool) + " is not installed (package prometheus)";
}

// Runs "promtool check metrics" on `page` (through a file, as a shell would redirect it).
test::ProgramRun check_metrics(const test::TempDir& directory, const std::string& page) {
  const std::string page_path = directory.write("page.prom", page);
  return test::run_program({"/bin/sh", "-c", std::string(kPromtool) + " check metrics < \"$0\"", page_path});
}

TEST(PromtoolCheck, RepresentativePageIsAccepted) {
  XPON_SKIP_OR_FAIL_IN_CI(promtool_missing());
  const std::vector<Family> families = {
      {"xpon_board_temperature_celsius",
       "Temperature of a board sensor, in degrees Celsius.\nRead every poll; \\ marks a path.",
       MetricType::Gauge,
       {{{{"sensor", "inlet"}, {"slot", "3"}}, 41.5},
        {{{"sensor", "outlet \"rear\""}, {"slot", "3"}}, -0.25},
        {{{"sensor", "C:\\probe\nline two"}, {"slot", "4"}}, std::numeric_limits<double>::infinity()},
        {{{"sensor", "broken"}, {"slot", "4"}}, std::nan("")},
        {{{"sensor", "cold"}, {"slot", "4"}}, -std::numeric_limits<double>::infinity()},
        {{{"sensor", "température"}, {"slot", "5"}}, 1e300}}},
      {"xpon_polls_total", "Polls of the board made since the start.", MetricType::Counter, {{{}, 123456789}}},
      {"xpon_fan_modules", "Fan modules present.", MetricType::Gauge, {}},
      {"xpon_uptime_seconds", "Seconds since the start.", MetricType::Untyped, {{{}, 0.001}}},
  };
  ASSERT_TRUE(validate(families).has_value());
  const test::TempDir directory("metrics-promtool");
  const test::ProgramRun run = check_metrics(directory, render(families));
  ASSERT_TRUE(run.end.has_value()) << "promtool did not end";
  EXPECT_TRUE(run.end->exited_with(0)) << run.end->describe() << "\n" << run.output << run.errors;
  EXPECT_EQ(run.output, "");
  EXPECT_EQ(run.errors, "");
}

TEST(PromtoolCheck, CounterWithoutTotalWrittenByHandIsRefused) {
  XPON_SKIP_OR_FAIL_IN_CI(promtool_missing());
  const test::TempDir directory("metrics-promtool");
  const test::ProgramRun run =
      check_metrics(directory, "# HELP xpon_polls Polls made.\n# TYPE xpon_polls counter\nxpon_polls 3\n");
  ASSERT_TRUE(run.end.has_value()) << "promtool did not end";
  EXPECT_FALSE(run.end->exited_with(0)) << run.output << run.errors;
  EXPECT_NE(run.output + run.errors, "");
}

TEST(PromtoolCheck, DuplicateLabelWrittenByHandIsRefused) {
  XPON_SKIP_OR_FAIL_IN_CI(promtool_missing());
  const test::TempDir directory("metrics-promtool");
  const test::ProgramRun run = check_metrics(directory, "# HELP x A gauge.\n# TYPE x gauge\nx{a=\"1\",a=\"2\"} 1\n");
  ASSERT_TRUE(run.end.has_value()) << "promtool did not end";
  EXPECT_FALSE(run.end->exited_with(0)) << run.output << run.errors;
}

}  // namespace
}  // namespace xpon::metrics
