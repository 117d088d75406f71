#include "json_reader.hpp"

#include <fmt/format.h>
#include <cmath>

namespace xpon::board_emu::detail {

FieldError::FieldError(const std::string& path, const std::string& reason)
    : std::runtime_error(path.empty() ? reason : path + ": " + reason) {}

std::string member_path(const std::string& path, std::string_view key) {
  if (path.empty()) {
    return std::string(key);
  }
  return fmt::format("{}.{}", path, key);
}

std::string element_path(const std::string& path, std::size_t index) {
  return fmt::format("{}[{}]", path, index);
}

std::string describe(const Json& value) {
  std::string text = value.dump();
  constexpr std::size_t kLongest = 40;
  if (text.size() > kLongest) {
    text = text.substr(0, kLongest) + "...";
  }
  return text;
}

std::int64_t read_integer(const Json& value, const std::string& path, std::int64_t low, std::int64_t high) {
  const auto refuse = [&]() {
    return FieldError(path, fmt::format("must be an integer from {} to {}, not {}", low, high, describe(value)));
  };
  if (value.is_number_unsigned()) {
    const auto number = value.get<std::uint64_t>();
    // high is never negative here, so a number within it also fits the signed type.
    if (high < 0 || number > static_cast<std::uint64_t>(high) || static_cast<std::int64_t>(number) < low) {
      throw refuse();
    }
    return static_cast<std::int64_t>(number);
  }
  if (value.is_number_integer()) {
    const auto number = value.get<std::int64_t>();
    if (number < low || number > high) {
      throw refuse();
    }
    return number;
  }
  throw refuse();
}

bool read_bool(const Json& value, const std::string& path) {
  if (!value.is_boolean()) {
    throw FieldError(path, fmt::format("must be true or false, not {}", describe(value)));
  }
  return value.get<bool>();
}

std::string read_text(const Json& value, const std::string& path, std::size_t max_length) {
  const auto refuse = [&]() {
    return FieldError(path,
                      fmt::format("must be a text of at most {} characters, not {}", max_length, describe(value)));
  };
  if (!value.is_string()) {
    throw refuse();
  }
  auto text = value.get<std::string>();
  if (text.size() > max_length || text.find('\0') != std::string::npos) {
    throw refuse();
  }
  return text;
}

float read_float(const Json& value, const std::string& path) {
  if (value.is_number()) {
    const auto number = value.get<double>();
    if (std::isfinite(number) && std::fabs(number) <= static_cast<double>(std::numeric_limits<float>::max())) {
      return static_cast<float>(number);
    }
  }
  throw FieldError(path, fmt::format("must be a number in the range of a float, not {}", describe(value)));
}

ObjectReader::ObjectReader(const Json& value, std::string path) : value_(value), path_(std::move(path)) {
  if (!value_.is_object()) {
    throw FieldError(path_, fmt::format("must be a JSON object, not {}", describe(value_)));
  }
}

bool ObjectReader::has(std::string_view key) const {
  const auto found = value_.find(key);
  return found != value_.end() && !found->is_null();
}

const Json* ObjectReader::get(std::string_view key) {
  known_.emplace(key);
  const auto found = value_.find(key);
  if (found == value_.end() || found->is_null()) {
    return nullptr;
  }
  return &*found;
}

bool ObjectReader::boolean(std::string_view key, bool fallback) {
  const Json* value = get(key);
  return value == nullptr ? fallback : read_bool(*value, path_of(key));
}

std::string ObjectReader::text(std::string_view key, std::size_t max_length, const std::string& fallback) {
  const Json* value = get(key);
  return value == nullptr ? fallback : read_text(*value, path_of(key), max_length);
}

void ObjectReader::finish() const {
  for (const auto& [key, value] : value_.items()) {
    if (known_.find(key) == known_.end()) {
      throw FieldError(path_of(key), "unknown field");
    }
  }
}

}  // namespace xpon::board_emu::detail
