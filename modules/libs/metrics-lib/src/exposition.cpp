#include "xpon/metrics/exposition.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <set>
#include <string_view>
#include <system_error>

namespace xpon::metrics {

namespace {

bool is_letter(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}

bool is_digit(char character) {
  return character >= '0' && character <= '9';
}

core::Result<void> invalid(const std::string& message) {
  return core::ErrorPayload(core::Error::InvalidInputArg, message);
}

std::string_view type_name(MetricType type) {
  switch (type) {
    case MetricType::Gauge:
      return "gauge";
    case MetricType::Counter:
      return "counter";
    case MetricType::Untyped:
      break;
  }
  return "untyped";
}

// Escapes '\' and newline, and '"' too when `quote` is set.
std::string escape(std::string_view text, bool quote) {
  std::string escaped;
  escaped.reserve(text.size());
  for (const char character : text) {
    if (character == '\\') {
      escaped += "\\\\";
    } else if (character == '\n') {
      escaped += "\\n";
    } else if (quote && character == '"') {
      escaped += "\\\"";
    } else {
      escaped += character;
    }
  }
  return escaped;
}

void write_sample(std::string& page, std::string_view family_name, const Sample& sample) {
  page += family_name;
  if (!sample.labels.empty()) {
    page += '{';
    bool first = true;
    for (const Label& label : sample.labels) {
      if (!first) {
        page += ',';
      }
      first = false;
      fmt::format_to(std::back_inserter(page), "{}=\"{}\"", label.name, escape_label_value(label.value));
    }
    page += '}';
  }
  page += ' ';
  page += format_value(sample.value);
  page += '\n';
}

}  // namespace

// The checks of a family's own name, without its samples.
static core::Result<void> validate_family_name(const Family& family) {
  if (auto checked = validate_metric_name(family.name); !checked) {
    return checked;
  }
  if (family.type == MetricType::Counter && !family.name.ends_with("_total")) {
    return invalid(fmt::format("Counter name '{}' does not end in \"_total\"", family.name));
  }
  return core::success();
}

core::Result<void> validate_metric_name(std::string_view name) {
  if (name.empty()) {
    return invalid("Metric name is empty");
  }
  for (std::size_t index = 0; index < name.size(); ++index) {
    const char character = name[index];
    const bool allowed =
        is_letter(character) || character == '_' || character == ':' || (index > 0 && is_digit(character));
    if (!allowed) {
      return invalid(
          fmt::format("Metric name '{}' has a character not allowed at position {}: "
                      "it must match [a-zA-Z_:][a-zA-Z0-9_:]*",
                      name, index));
    }
  }
  return core::success();
}

core::Result<void> validate_label_name(std::string_view name) {
  if (name.empty()) {
    return invalid("Label name is empty");
  }
  for (std::size_t index = 0; index < name.size(); ++index) {
    const char character = name[index];
    if (!is_letter(character) && character != '_' && !(index > 0 && is_digit(character))) {
      return invalid(
          fmt::format("Label name '{}' has a character not allowed at position {}: "
                      "it must match [a-zA-Z_][a-zA-Z0-9_]*",
                      name, index));
    }
  }
  if (name.starts_with("__")) {
    return invalid(fmt::format("Label name '{}' starts with \"__\", which is reserved", name));
  }
  return core::success();
}

core::Result<void> validate(const Sample& sample, std::string_view family_name) {
  // A sample has a few labels: comparing each with those before it beats a set, made per sample per scrape.
  for (auto label = sample.labels.begin(); label != sample.labels.end(); ++label) {
    if (auto checked = validate_label_name(label->name); !checked) {
      return checked;
    }
    if (std::any_of(sample.labels.begin(), label,
                    [&label](const Label& earlier) { return earlier.name == label->name; })) {
      return invalid(fmt::format("Label name '{}' is given twice in a sample of '{}'", label->name, family_name));
    }
  }
  return core::success();
}

core::Result<void> validate(const Family& family) {
  if (auto checked = validate_family_name(family); !checked) {
    return checked;
  }
  for (const Sample& sample : family.samples) {
    if (auto checked = validate(sample, family.name); !checked) {
      return checked;
    }
  }
  return core::success();
}

core::Result<void> validate(std::span<const Family> families) {
  std::set<std::string_view> seen;
  for (const Family& family : families) {
    if (auto checked = validate(family); !checked) {
      return checked;
    }
    if (!seen.insert(family.name).second) {
      return invalid(fmt::format("Metric family '{}' is given twice", family.name));
    }
  }
  return core::success();
}

std::string render(std::span<const Family> families) {
  std::string page;
  std::set<std::string_view> written;
  for (const Family& family : families) {
    if (validate_family_name(family).has_error() || written.contains(family.name)) {
      continue;
    }
    written.insert(family.name);
    fmt::format_to(std::back_inserter(page), "# HELP {} {}\n# TYPE {} {}\n", family.name, escape_help_text(family.help),
                   family.name, type_name(family.type));
    for (const Sample& sample : family.samples) {
      if (validate(sample, family.name).has_value()) {
        write_sample(page, family.name, sample);
      }
    }
  }
  return page;
}

std::string format_value(double value) {
  if (std::isnan(value)) {
    return "NaN";
  }
  if (std::isinf(value)) {
    return value > 0 ? "+Inf" : "-Inf";
  }
  // Below 2^53 every integer is exact and fits an int64_t; larger ones print shortest, as "1e+20".
  constexpr double kExactIntegerLimit = 9007199254740992.0;
  if (std::fabs(value) < kExactIntegerLimit && std::trunc(value) == value) {
    return fmt::format("{}", static_cast<std::int64_t>(value));
  }
  std::array<char, 32> buffer{};
  const auto [end, error] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
  if (error != std::errc()) {
    return "NaN";  // cannot happen: 32 characters hold the shortest form of every double
  }
  return {buffer.data(), end};
}

std::string escape_help_text(std::string_view text) {
  return escape(text, false);
}

std::string escape_label_value(std::string_view value) {
  return escape(value, true);
}

}  // namespace xpon::metrics
