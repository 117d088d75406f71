#pragma once

// Reading JSON documents field by field with the field's path at hand, so that every
// refusal names the field it is about. Internal to the emulator library.

#include <nlohmann/json.hpp>

#include <cstdint>
#include <limits>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>

namespace xpon::board_emu::detail {

using Json = nlohmann::ordered_json;

/// A refused field; the text is "<path>: <reason>".
class FieldError : public std::runtime_error {
 public:
  FieldError(const std::string& path, const std::string& reason);
};

/// The path of a member: "inventory" + "fan_count" gives "inventory.fan_count".
std::string member_path(const std::string& path, std::string_view key);

/// The path of a list element: "fans" + 1 gives "fans[1]".
std::string element_path(const std::string& path, std::size_t index);

/// The text for the value in a refusal, shortened when long.
std::string describe(const Json& value);

/// Reads an integer in [low, high] or throws naming the field.
std::int64_t read_integer(const Json& value, const std::string& path, std::int64_t low, std::int64_t high);

/// Reads an integer of the range of T.
template <typename T>
T read_int(const Json& value, const std::string& path) {
  return static_cast<T>(read_integer(value, path, std::numeric_limits<T>::min(), std::numeric_limits<T>::max()));
}

/// Reads true or false.
bool read_bool(const Json& value, const std::string& path);

/// Reads a string of at most `max_length` bytes without NUL characters.
std::string read_text(const Json& value, const std::string& path, std::size_t max_length);

/// Reads a finite number that fits a float.
float read_float(const Json& value, const std::string& path);

/// Walks the members of one JSON object; members never asked for are refused by finish().
class ObjectReader {
 public:
  ObjectReader(const Json& value, std::string path);

  /// Whether the member is there and not null.
  [[nodiscard]] bool has(std::string_view key) const;

  /// The member (marking it read), or nullptr when it is absent or null.
  const Json* get(std::string_view key);

  /// The path of a member of this object.
  [[nodiscard]] std::string path_of(std::string_view key) const { return member_path(path_, key); }

  template <typename T>
  T integer(std::string_view key, T fallback) {
    const Json* value = get(key);
    return value == nullptr ? fallback : read_int<T>(*value, path_of(key));
  }

  bool boolean(std::string_view key, bool fallback);
  std::string text(std::string_view key, std::size_t max_length, const std::string& fallback = {});

  /// Refuses the first member that was never asked for.
  void finish() const;

 private:
  const Json& value_;
  std::string path_;
  std::set<std::string, std::less<>> known_;
};

}  // namespace xpon::board_emu::detail
