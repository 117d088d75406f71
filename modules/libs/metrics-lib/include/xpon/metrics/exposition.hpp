#pragma once

#include "xpon/core/result.hpp"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace xpon::metrics {

/// The Content-Type of a page in the text exposition format 0.0.4.
inline constexpr std::string_view kExpositionContentType = "text/plain; version=0.0.4; charset=utf-8";

/// The kind of a metric family, as its "# TYPE" line names it.
enum class MetricType { Gauge, Counter, Untyped };

/// One label of a sample: a name ([a-zA-Z_][a-zA-Z0-9_]*, not starting with "__") and any text.
struct Label {
  std::string name;
  std::string value;
};

/// One sample line. It has no name of its own: every sample of a family is written under the
/// family's name, which is all gauges, counters and untyped metrics need.
struct Sample {
  std::vector<Label> labels;
  double value = 0.0;
};

/// A metric family: its name ([a-zA-Z_:][a-zA-Z0-9_:]*; a counter's ends in "_total"), its help
/// text (any text), its type and its samples, written in the order given.
struct Family {
  std::string name;
  std::string help;
  MetricType type = MetricType::Untyped;
  std::vector<Sample> samples;
};

/// Checks a metric name; the error's message says what is wrong with it.
core::Result<void> validate_metric_name(std::string_view name);

/// Checks a label name (no ':', no leading "__"); the error's message says what is wrong with it.
core::Result<void> validate_label_name(std::string_view name);

/// Checks one sample of the family `family_name`: its label names, each given once.
core::Result<void> validate(const Sample& sample, std::string_view family_name);

/// Checks a family: its name, a counter's "_total" ending and every sample.
core::Result<void> validate(const Family& family);

/// Checks every family and that no family name is given twice.
core::Result<void> validate(std::span<const Family> families);

/// The page of `families` in the text exposition format 0.0.4, families in the order given: for
/// each, its "# HELP" and "# TYPE" lines, then one line per sample. What validate() refuses is
/// left out, never written: a family whose own checks fail or whose name was already written, and
/// a sample whose labels fail.
std::string render(std::span<const Family> families);

/// A sample value as the format writes it: exact integers (|value| < 2^53) without exponent or
/// fraction ("42", "-3", and "0" for -0.0), "+Inf", "-Inf", "NaN", and otherwise the shortest
/// text that reads back to the same double ("0.1", "1e+300").
std::string format_value(double value);

/// A help text escaped for its "# HELP" line: '\' as "\\" and a newline as "\n".
std::string escape_help_text(std::string_view text);

/// A label value escaped for its quotes: '\' as "\\", '"' as "\"" and a newline as "\n".
std::string escape_label_value(std::string_view value);

}  // namespace xpon::metrics
