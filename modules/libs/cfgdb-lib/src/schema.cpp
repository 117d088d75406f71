#include "xpon/cfgdb/schema.hpp"

#include "xpon/cfgdb/cfgdb.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <limits>

namespace xpon::cfgdb {
namespace {

using core::Error;
using core::ErrorPayload;

// The one declaration of every section: the getters, the checks of the writers, xpon-cfg and
// the operator documentation all follow this table.

constexpr std::array kFanFields{
    FieldSpec{"mode", offsetof(CfgDb__fan, mode), 1, 0, 1, 0, "",
              "fan speed control: 0 automatic (from the temperatures), 1 manual (set by request)",
              "automatic control keeps the fans slow while the board is cool and raises them before "
              "the temperature alarms fire, without an operator having to watch"},
    FieldSpec{"family", offsetof(CfgDb__fan, family), 4, 0, 2, 1, "",
              "device family whose fan control applies: 0 LT (own fans), 1 LC (asks the master FC "
              "board by event), 2 FC (drives the crate's fan module)",
              "a line card has no fans of its own and asks the crate's master FC board for more "
              "air flow, which is the LC behaviour"},
};

constexpr std::array kRamFields{
    FieldSpec{"threshold", offsetof(CfgDb__alarm_system_ram, threshold), 1, 0, 100, 10, "%",
              "lowest acceptable share of free RAM; a share at or below it raises the alarm",
              "the board runs without swap, so below a tenth of its memory free the kernel starts "
              "reclaiming page cache hard and the out-of-memory killer is close"},
};

constexpr std::array kDiskFields{
    FieldSpec{"threshold", offsetof(CfgDb__alarm_disk_space, threshold), 1, 0, 100, 10, "%",
              "lowest acceptable share of free space of each flash partition; a share at or below "
              "it raises that partition's alarm",
              "the partitions are small; the last tenth is what a configuration save, a firmware "
              "image or log rotation needs to complete"},
};

constexpr std::array kFanAlarmFields{
    FieldSpec{"upper_speed", offsetof(CfgDb__alarm_system_fan, upper_speed), 2, 0, 65535, 20000, "rpm",
              "a fan at or above this speed raises its alarm",
              "above the rated speed of the board's small fans, so only a runaway fan or a faulty "
              "tachometer reading reaches it"},
    FieldSpec{"lower_speed", offsetof(CfgDb__alarm_system_fan, lower_speed), 2, 0, 65535, 1000, "rpm",
              "a fan at or below this speed raises its alarm",
              "well below the speed of the lowest automatic setting, so a fan that is slowing "
              "down, blocked or stopped is reported and a slow but healthy fan is not"},
};

constexpr std::array kLoadAverageFields{
    FieldSpec{"threshold", offsetof(CfgDb__alarm_system_load_average, threshold), 2, 0, 10000, 400, "load x 100",
              "load average times 100 (250 = 2.50) at or above which the alarm is raised; 0 switches "
              "the alarm off",
              "4.00 means four tasks ready to run on average: on the board's multi-core CPU work is "
              "then queueing rather than just keeping the cores busy, and polling and protocol "
              "timers start to slip"},
};

// Temperature limits are unsigned bytes compared with a signed one-byte reading: 0 is the
// lowest lower limit there is, and an upper limit above 127 could never be reached.
constexpr FieldSpec sensor_lower(std::string_view name, std::size_t sensor) {
  return FieldSpec{name,
                   offsetof(CfgDb__alarm_system_temperature, sensor) + 2 * sensor,
                   1,
                   0,
                   127,
                   0,
                   "C",
                   "a reading of this sensor at or below it raises the sensor's alarm",
                   "the lowest limit a reading can be compared with; a board at or below freezing runs "
                   "outside its operating range or has a failed sensor"};
}

constexpr FieldSpec sensor_upper(std::string_view name, std::size_t sensor) {
  return FieldSpec{name,
                   offsetof(CfgDb__alarm_system_temperature, sensor) + 2 * sensor + 1,
                   1,
                   0,
                   127,
                   80,
                   "C",
                   "a reading of this sensor at or above it raises the sensor's alarm",
                   "20 degrees above the 60 C at which automatic control runs the fans at full speed, so "
                   "the alarm means the cooling is not keeping up; still below the 85 C that "
                   "commercial-grade parts are rated for"};
}

constexpr std::array kTemperatureFields{
    sensor_lower("sensor0_lower", 0), sensor_upper("sensor0_upper", 0), sensor_lower("sensor1_lower", 1),
    sensor_upper("sensor1_upper", 1), sensor_lower("sensor2_lower", 2), sensor_upper("sensor2_upper", 2),
    sensor_lower("sensor3_lower", 3), sensor_upper("sensor3_upper", 3), sensor_lower("sensor4_lower", 4),
    sensor_upper("sensor4_upper", 4),
};

constexpr std::array kTemperatureOrder{
    OrderedPair{"sensor0_lower", "sensor0_upper"}, OrderedPair{"sensor1_lower", "sensor1_upper"},
    OrderedPair{"sensor2_lower", "sensor2_upper"}, OrderedPair{"sensor3_lower", "sensor3_upper"},
    OrderedPair{"sensor4_lower", "sensor4_upper"},
};

constexpr std::array kFanAlarmOrder{OrderedPair{"lower_speed", "upper_speed"}};

const std::array kSections{
    SectionSpec{kFan.id, kFan.name, sizeof(CfgDb__fan), kFanFields, {}, "fan speed control"},
    SectionSpec{
        kAlarmSystemRam.id, kAlarmSystemRam.name, sizeof(CfgDb__alarm_system_ram), kRamFields, {}, "free RAM alarm"},
    SectionSpec{kAlarmDiskSpace.id,
                kAlarmDiskSpace.name,
                sizeof(CfgDb__alarm_disk_space),
                kDiskFields,
                {},
                "free flash space alarm, one threshold for all partitions"},
    SectionSpec{kAlarmSystemFan.id, kAlarmSystemFan.name, sizeof(CfgDb__alarm_system_fan), kFanAlarmFields,
                kFanAlarmOrder, "fan speed alarm, for the board's fans and the crate's fan module"},
    SectionSpec{kAlarmSystemLoadAverage.id,
                kAlarmSystemLoadAverage.name,
                sizeof(CfgDb__alarm_system_load_average),
                kLoadAverageFields,
                {},
                "CPU load average alarm"},
    SectionSpec{kAlarmSystemTemperature.id, kAlarmSystemTemperature.name, sizeof(CfgDb__alarm_system_temperature),
                kTemperatureFields, kTemperatureOrder, "temperature alarm limits of sensors 0 to 4"},
    SectionSpec{kAlarmSystemPwrModule.id,
                kAlarmSystemPwrModule.name,
                sizeof(CfgDb__alarm_system_pwr_module),
                {},
                {},
                "power module alarm (reserved: no fields yet)"},
};

bool same_letters(std::string_view left, std::string_view right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](char a, char b) {
    auto upper = [](char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; };
    return upper(a) == upper(b);
  });
}

}  // namespace

const FieldSpec* SectionSpec::field(std::string_view field_name) const noexcept {
  auto index = field_index(field_name);
  return index ? &fields[*index] : nullptr;
}

std::optional<std::size_t> SectionSpec::field_index(std::string_view field_name) const noexcept {
  for (std::size_t i = 0; i < fields.size(); ++i) {
    if (fields[i].name == field_name) {
      return i;
    }
  }
  return std::nullopt;
}

std::span<const SectionSpec> sections() noexcept {
  return kSections;
}

const SectionSpec* find_section(std::uint32_t id) noexcept {
  for (const auto& section : kSections) {
    if (section.id == id) {
      return &section;
    }
  }
  return nullptr;
}

const SectionSpec* find_section(std::string_view name_or_id) noexcept {
  if (!name_or_id.empty() &&
      std::all_of(name_or_id.begin(), name_or_id.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    std::uint32_t id = 0;
    auto [end, ec] = std::from_chars(name_or_id.data(), name_or_id.data() + name_or_id.size(), id);
    if (ec != std::errc{} || end != name_or_id.data() + name_or_id.size()) {
      return nullptr;
    }
    return find_section(id);
  }
  for (const auto& section : kSections) {
    if (same_letters(section.name, name_or_id)) {
      return &section;
    }
  }
  return nullptr;
}

SectionValues default_values(const SectionSpec& section) {
  SectionValues values;
  values.reserve(section.fields.size());
  for (const auto& field : section.fields) {
    values.push_back(field.default_value);
  }
  return values;
}

Result<std::uint32_t> parse_value(const SectionSpec& section, const FieldSpec& field, std::string_view text) {
  std::string_view digits = text;
  int base = 10;
  if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
    digits.remove_prefix(2);
    base = 16;
  }
  std::uint64_t value = 0;
  const char* first = digits.data();
  const char* last = digits.data() + digits.size();
  auto [end, ec] = std::from_chars(first, last, value, base);
  if (digits.empty() || ec == std::errc::invalid_argument || end != last) {
    return ErrorPayload{Error::InvalidInputArg,
                        fmt::format("{}: {}='{}' is not a number", section.name, field.name, text)};
  }
  if (ec == std::errc::result_out_of_range || value < field.min || value > field.max) {
    return ErrorPayload{Error::InvalidInputArg, fmt::format("{}: {}={} is out of range {}..{}", section.name,
                                                            field.name, text, field.min, field.max)};
  }
  return static_cast<std::uint32_t>(value);
}

Result<void> check_values(const SectionSpec& section, const SectionValues& values) {
  if (values.size() != section.fields.size()) {
    return ErrorPayload{Error::InvalidInputArg, fmt::format("{}: {} values given for {} fields", section.name,
                                                            values.size(), section.fields.size())};
  }
  for (std::size_t i = 0; i < values.size(); ++i) {
    const auto& field = section.fields[i];
    if (values[i] < field.min || values[i] > field.max) {
      return ErrorPayload{Error::InvalidInputArg, fmt::format("{}: {}={} is out of range {}..{}", section.name,
                                                              field.name, values[i], field.min, field.max)};
    }
  }
  for (const auto& pair : section.ordered) {
    auto lower = section.field_index(pair.lower);
    auto upper = section.field_index(pair.upper);
    if (lower && upper && values[*lower] >= values[*upper]) {
      return ErrorPayload{Error::InvalidInputArg, fmt::format("{}: {}={} must be below {}={}", section.name, pair.lower,
                                                              values[*lower], pair.upper, values[*upper])};
    }
  }
  return core::success();
}

std::vector<std::uint8_t> encode_record(const SectionSpec& section, const SectionValues& values) {
  std::vector<std::uint8_t> record(section.record_size, 0);
  for (std::size_t i = 0; i < section.fields.size() && i < values.size(); ++i) {
    const auto& field = section.fields[i];
    for (std::size_t byte = 0; byte < field.width; ++byte) {
      record[field.offset + byte] = static_cast<std::uint8_t>((values[i] >> (8U * byte)) & 0xFFU);
    }
  }
  return record;
}

}  // namespace xpon::cfgdb
