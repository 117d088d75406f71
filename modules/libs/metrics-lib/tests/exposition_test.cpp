#include "xpon/metrics/exposition.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace xpon::metrics {
namespace {

std::string message_of(const core::Result<void>& result) {
  if (result.has_value()) {
    return "(valid)";
  }
  return result.error().info && result.error().info->message ? *result.error().info->message : "(no message)";
}

TEST(Exposition, RendersHelpTypeAndSamplesOfEachFamilyInOrder) {
  const std::vector<Family> families = {
      {"board_temperature_celsius",
       "Temperature of a sensor.",
       MetricType::Gauge,
       {{{{"sensor", "inlet"}}, 41.5}, {{{"sensor", "outlet"}}, 48}}},
      {"polls_total", "Polls made.", MetricType::Counter, {{{}, 12}}},
      {"uptime", "Seconds up.", MetricType::Untyped, {{{{"unit", "a"}, {"slot", "3"}}, 7}}},
  };
  EXPECT_EQ(render(families),
            "# HELP board_temperature_celsius Temperature of a sensor.\n"
            "# TYPE board_temperature_celsius gauge\n"
            "board_temperature_celsius{sensor=\"inlet\"} 41.5\n"
            "board_temperature_celsius{sensor=\"outlet\"} 48\n"
            "# HELP polls_total Polls made.\n"
            "# TYPE polls_total counter\n"
            "polls_total 12\n"
            "# HELP uptime Seconds up.\n"
            "# TYPE uptime untyped\n"
            "uptime{unit=\"a\",slot=\"3\"} 7\n");
  EXPECT_TRUE(validate(families).has_value()) << message_of(validate(families));
}

TEST(Exposition, EmptyListRendersNothing) {
  EXPECT_EQ(render({}), "");
}

TEST(Exposition, FamilyWithoutSamplesWritesOnlyHelpAndType) {
  const std::vector<Family> families = {{"fans", "Fans present.", MetricType::Gauge, {}}};
  EXPECT_EQ(render(families), "# HELP fans Fans present.\n# TYPE fans gauge\n");
}

TEST(Exposition, EmptyHelpKeepsTheSpaceAfterTheName) {
  const std::vector<Family> families = {{"x", "", MetricType::Gauge, {{{}, 1}}}};
  EXPECT_EQ(render(families), "# HELP x \n# TYPE x gauge\nx 1\n");
}

TEST(Exposition, HelpEscapesBackslashAndNewlineButNotQuote) {
  EXPECT_EQ(escape_help_text("a\\b\nc\"d"), "a\\\\b\\nc\"d");
  const std::vector<Family> families = {{"x", "one\\two\nthree \"q\"", MetricType::Gauge, {}}};
  EXPECT_EQ(render(families), "# HELP x one\\\\two\\nthree \"q\"\n# TYPE x gauge\n");
}

TEST(Exposition, LabelValueEscapesBackslashQuoteAndNewline) {
  EXPECT_EQ(escape_label_value("a\\b\"c\nd"), "a\\\\b\\\"c\\nd");
  const std::vector<Family> families = {{"x", "h", MetricType::Gauge, {{{{"l", "C:\\dir \"x\"\nend"}}, 1}}}};
  EXPECT_EQ(render(families), "# HELP x h\n# TYPE x gauge\nx{l=\"C:\\\\dir \\\"x\\\"\\nend\"} 1\n");
}

TEST(Exposition, LabelValueMayBeEmptyOrUtf8) {
  const std::vector<Family> families = {{"x", "h", MetricType::Gauge, {{{{"a", ""}, {"b", "température"}}, 1}}}};
  EXPECT_EQ(render(families), "# HELP x h\n# TYPE x gauge\nx{a=\"\",b=\"température\"} 1\n");
}

TEST(Exposition, ExactIntegersPrintWithoutFractionOrExponent) {
  EXPECT_EQ(format_value(42), "42");
  EXPECT_EQ(format_value(-3), "-3");
  EXPECT_EQ(format_value(0), "0");
  EXPECT_EQ(format_value(-0.0), "0");
  EXPECT_EQ(format_value(1e15), "1000000000000000");
  EXPECT_EQ(format_value(9007199254740991.0), "9007199254740991");
  EXPECT_EQ(format_value(-9007199254740991.0), "-9007199254740991");
}

TEST(Exposition, OtherValuesPrintShortestTextThatReadsBack) {
  EXPECT_EQ(format_value(0.1), "0.1");
  EXPECT_EQ(format_value(-2.5), "-2.5");
  EXPECT_EQ(format_value(1.0 / 3.0), "0.3333333333333333");
  EXPECT_EQ(format_value(1e-7), "1e-07");
  EXPECT_EQ(format_value(1e300), "1e+300");
  EXPECT_EQ(format_value(9007199254740992.0), "9007199254740992");
  EXPECT_EQ(format_value(1e20), "1e+20");
  EXPECT_EQ(format_value(std::numeric_limits<double>::max()), "1.7976931348623157e+308");
  EXPECT_EQ(format_value(std::numeric_limits<double>::denorm_min()), "5e-324");
  for (const double value : {0.1, 1.0 / 3.0, 1e-7, 123456.789, 2.2250738585072014e-308}) {
    EXPECT_EQ(std::stod(format_value(value)), value) << format_value(value);
  }
}

TEST(Exposition, SpecialValuesPrintAsTheFormatSpellsThem) {
  EXPECT_EQ(format_value(std::numeric_limits<double>::infinity()), "+Inf");
  EXPECT_EQ(format_value(-std::numeric_limits<double>::infinity()), "-Inf");
  EXPECT_EQ(format_value(std::numeric_limits<double>::quiet_NaN()), "NaN");
  EXPECT_EQ(format_value(-std::numeric_limits<double>::quiet_NaN()), "NaN");
  const std::vector<Family> families = {{"x",
                                         "h",
                                         MetricType::Gauge,
                                         {{{{"v", "a"}}, std::numeric_limits<double>::infinity()},
                                          {{{"v", "b"}}, -std::numeric_limits<double>::infinity()},
                                          {{{"v", "c"}}, std::nan("")}}}};
  EXPECT_EQ(render(families), "# HELP x h\n# TYPE x gauge\nx{v=\"a\"} +Inf\nx{v=\"b\"} -Inf\nx{v=\"c\"} NaN\n");
}

TEST(Exposition, ValidMetricNamesPass) {
  for (const char* name : {"a", "_", ":", "a_b:c9", "A", "ab:cd_total", "_9"}) {
    EXPECT_TRUE(validate_metric_name(name).has_value()) << name;
  }
}

TEST(Exposition, InvalidMetricNamesAreRefusedWithAReason) {
  EXPECT_EQ(message_of(validate_metric_name("")), "Metric name is empty");
  EXPECT_EQ(message_of(validate_metric_name("9lives")),
            "Metric name '9lives' has a character not allowed at position 0: it must match [a-zA-Z_:][a-zA-Z0-9_:]*");
  EXPECT_EQ(message_of(validate_metric_name("a-b")),
            "Metric name 'a-b' has a character not allowed at position 1: it must match [a-zA-Z_:][a-zA-Z0-9_:]*");
  for (const char* name : {"a b", "a.b", "é", "a\nb", "a{b}"}) {
    EXPECT_FALSE(validate_metric_name(name).has_value()) << name;
  }
}

TEST(Exposition, ValidLabelNamesPass) {
  for (const char* name : {"a", "_", "_a", "a__b", "A9", "le"}) {
    EXPECT_TRUE(validate_label_name(name).has_value()) << name;
  }
}

TEST(Exposition, InvalidLabelNamesAreRefusedWithAReason) {
  EXPECT_EQ(message_of(validate_label_name("")), "Label name is empty");
  EXPECT_EQ(message_of(validate_label_name("a:b")),
            "Label name 'a:b' has a character not allowed at position 1: it must match [a-zA-Z_][a-zA-Z0-9_]*");
  EXPECT_EQ(message_of(validate_label_name("1a")),
            "Label name '1a' has a character not allowed at position 0: it must match [a-zA-Z_][a-zA-Z0-9_]*");
  EXPECT_EQ(message_of(validate_label_name("__name__")), "Label name '__name__' starts with \"__\", which is reserved");
  EXPECT_FALSE(validate_label_name("a-b").has_value());
}

TEST(Exposition, CounterWithoutTotalIsRefused) {
  const Family counter{"polls", "h", MetricType::Counter, {}};
  EXPECT_EQ(message_of(validate(counter)), "Counter name 'polls' does not end in \"_total\"");
  EXPECT_TRUE(validate(Family{"polls_total", "h", MetricType::Counter, {}}).has_value());
  EXPECT_TRUE(validate(Family{"polls", "h", MetricType::Gauge, {}}).has_value());
}

TEST(Exposition, DuplicateLabelAndFamilyNamesAreRefused) {
  const Family family{"x", "h", MetricType::Gauge, {{{{"a", "1"}, {"a", "2"}}, 1}}};
  EXPECT_EQ(message_of(validate(family)), "Label name 'a' is given twice in a sample of 'x'");
  const std::vector<Family> families = {{"x", "h", MetricType::Gauge, {}}, {"x", "again", MetricType::Gauge, {}}};
  EXPECT_EQ(message_of(validate(families)), "Metric family 'x' is given twice");
}

TEST(Exposition, ValidateOfAFamilyReportsABadSampleLabel) {
  const Family family{"x", "h", MetricType::Gauge, {{{{"ok", "1"}}, 1}, {{{"__bad", "1"}}, 2}}};
  EXPECT_EQ(message_of(validate(family)), "Label name '__bad' starts with \"__\", which is reserved");
}

TEST(Exposition, RenderSkipsInvalidFamiliesAndSamplesAndKeepsTheRest) {
  const std::vector<Family> families = {
      {"bad name", "h", MetricType::Gauge, {{{}, 1}}},
      {"polls", "counter without _total", MetricType::Counter, {{{}, 1}}},
      {"good", "h", MetricType::Gauge, {{{{"bad-label", "v"}}, 1}, {{{"ok", "v"}}, 2}, {{{"a", "1"}, {"a", "2"}}, 3}}},
      {"good", "second copy", MetricType::Gauge, {{{}, 4}}},
      {"", "empty", MetricType::Gauge, {}},
      {"last_total", "h", MetricType::Counter, {{{}, 5}}},
  };
  EXPECT_EQ(render(families),
            "# HELP good h\n# TYPE good gauge\ngood{ok=\"v\"} 2\n"
            "# HELP last_total h\n# TYPE last_total counter\nlast_total 5\n");
  EXPECT_FALSE(validate(families).has_value());
}

TEST(Exposition, ContentTypeNamesVersion004) {
  EXPECT_EQ(kExpositionContentType, "text/plain; version=0.0.4; charset=utf-8");
}

}  // namespace
}  // namespace xpon::metrics
