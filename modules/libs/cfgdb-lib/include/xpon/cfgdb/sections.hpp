#pragma once

#include <cstdint>
#include <string_view>

namespace xpon::cfgdb {

/// A configuration section's identifier and its name (also the name of its change event).
struct SectionRef {
  std::uint32_t id;
  std::string_view name;
};

inline constexpr SectionRef kAlarmSystemLoadAverage{80, "ALARM_SYSTEM_LOAD_AVERAGE"};
inline constexpr SectionRef kAlarmSystemRam{77, "ALARM_SYSTEM_RAM"};
inline constexpr SectionRef kAlarmDiskSpace{78, "ALARM_DISK_SPACE"};
inline constexpr SectionRef kAlarmSystemTemperature{81, "ALARM_SYSTEM_TEMPERATURE"};
inline constexpr SectionRef kFan{42, "FAN"};
inline constexpr SectionRef kAlarmSystemFan{79, "ALARM_SYSTEM_FAN"};
inline constexpr SectionRef kAlarmSystemPwrModule{123, "ALARM_SYSTEM_PWR_MODULE"};

}  // namespace xpon::cfgdb
