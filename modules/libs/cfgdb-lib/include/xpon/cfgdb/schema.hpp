#pragma once

#include "xpon/cfgdb/sections.hpp"
#include "xpon/core/result.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace xpon::cfgdb {

using core::Result;

/// One field of a section: where it sits in the section's C record and which values it takes.
/// Every field is an unsigned little-endian integer of 1, 2 or 4 bytes.
struct FieldSpec {
  std::string_view name;
  std::size_t offset;  ///< byte offset in the C record
  std::size_t width;   ///< 1, 2 or 4 bytes
  std::uint32_t min;
  std::uint32_t max;
  std::uint32_t default_value;
  std::string_view unit;
  std::string_view description;
  std::string_view default_reason;  ///< why the default suits a line card
};

/// Two fields of a section where the first must stay strictly below the second, because the
/// reader treats a value at or outside either limit as an alarm.
struct OrderedPair {
  std::string_view lower;
  std::string_view upper;
};

/// One configuration section: its identity, the size of its C record and its fields.
struct SectionSpec {
  std::uint32_t id;
  std::string_view name;
  std::size_t record_size;
  std::span<const FieldSpec> fields;
  std::span<const OrderedPair> ordered;
  std::string_view description;

  /// The field of that exact name, or nullptr.
  [[nodiscard]] const FieldSpec* field(std::string_view field_name) const noexcept;

  /// The position of the field of that exact name in `fields`, if any.
  [[nodiscard]] std::optional<std::size_t> field_index(std::string_view field_name) const noexcept;

  /// The section's identifier and name.
  [[nodiscard]] SectionRef ref() const noexcept { return {id, name}; }
};

/// The values of a section's fields, in the order of SectionSpec::fields.
using SectionValues = std::vector<std::uint32_t>;

/// Every section of the configuration database, in a fixed order (by identifier).
std::span<const SectionSpec> sections() noexcept;

/// The section with this identifier, or nullptr.
const SectionSpec* find_section(std::uint32_t id) noexcept;

/// The section named by its name (any letter case) or its decimal identifier, or nullptr.
const SectionSpec* find_section(std::string_view name_or_id) noexcept;

/// The section's default values.
SectionValues default_values(const SectionSpec& section);

/// Reads a value typed by an operator (decimal, or hexadecimal with 0x) for a field;
/// refuses malformed text and values outside the field's range with a message naming the field.
Result<std::uint32_t> parse_value(const SectionSpec& section, const FieldSpec& field, std::string_view text);

/// Checks a complete set of values: each within its field's range and every ordered pair in order.
Result<void> check_values(const SectionSpec& section, const SectionValues& values);

/// Lays the values out as the section's packed C record (reserved bytes zero).
std::vector<std::uint8_t> encode_record(const SectionSpec& section, const SectionValues& values);

}  // namespace xpon::cfgdb
