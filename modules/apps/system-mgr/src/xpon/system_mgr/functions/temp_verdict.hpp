#pragma once

// What a temperature poll decides for one sensor, apart from the I/O that carries it out: the
// sensor's alarm state and the step of the automatic fan control (the board's fans, the crate's
// fan module, or an event asking the master FC board). TempMonitoring feeds it the reading, the
// limits and its fan control state, and does what it says.

#include "xpon/cfgdb/cfgdb.h"

#include <cstdint>

namespace xpon::system_mgr {

/// The family codes of the fan section's family field.
inline constexpr std::uint32_t kFanFamilyLt = 0;
inline constexpr std::uint32_t kFanFamilyLc = 1;
inline constexpr std::uint32_t kFanFamilyFc = 2;

/// Above it the fans go to the maximum rate, below it to the minimum; at it nothing changes.
inline constexpr int kFanSwitchTemperature = 60;

/// The highest sensor id that has limits in the temperature section.
inline constexpr std::int32_t kLastMonitoredSensor = CFGDB__TEMPERATURE_SENSOR_COUNT - 1;

/// Where one step of the automatic fan control sends a setting.
enum class FanTarget : std::uint8_t {
  /// Nothing is sent.
  None,
  /// The board's own fans (set_fan_speed): an LT fan family.
  BoardFans,
  /// The crate's fan module (set_fan_module_speed): the master of an FC fan family.
  FanModule,
  /// The crate's master FC board, by event: an LC fan family or an FC board that is not master.
  MasterByEvent,
};

/// One step of the automatic fan control: where the setting goes and whether it is the maximum
/// rate (159, or the event 15537) or the minimum (102, or the event 15538).
struct FanDecision {
  FanTarget target = FanTarget::None;
  bool maximum = false;

  bool operator==(const FanDecision&) const = default;
};

/// The state the fan control decides from, as the function holds it when the sensor comes up.
struct FanControlState {
  /// The fan section's mode is automatic.
  bool auto_fan = false;
  /// The fan section's family code (0 LT, 1 LC, 2 FC; any other: no fan action).
  std::uint32_t family = kFanFamilyLt;
  /// This FC board is the crate's master.
  bool is_master = false;
  /// This board last set its fans (or the module) to the maximum rate.
  bool max_rate_set = false;
  /// Some slot of the crate asks the master for the maximum rate.
  bool slot_asks = false;
  /// This process last asked the master for the maximum rate (process-wide).
  bool event_max_rate_sent = false;
};

/// The verdict on one sensor's reading.
struct SensorVerdict {
  /// The id has limits (0 to 4); otherwise the reading is only warned about: no alarm, no fan step.
  bool monitored = false;
  /// Strictly inside both limits: the alarm is cleared (back to normal); otherwise it is raised.
  bool normal = false;
  /// The fan control's step for this reading.
  FanDecision fan;

  bool operator==(const SensorVerdict&) const = default;
};

/// The fan control's step for one reading. No hysteresis band, on purpose: a setting is sent only
/// when the reading is on the other side of 60 °C than the flag of its path says, and exactly 60
/// keeps the last state. The master FC board keeps the module at the maximum while any slot asks.
constexpr FanDecision decide_fan(int temperature, const FanControlState& state) {
  const bool hot = temperature > kFanSwitchTemperature;
  const bool cool = temperature < kFanSwitchTemperature;
  const auto switch_on = [&](FanTarget target, bool at_maximum) -> FanDecision {
    if (hot && !at_maximum) {
      return {target, true};
    }
    if (cool && at_maximum) {
      return {target, false};
    }
    return {};
  };
  if (!state.auto_fan) {
    return {};
  }
  switch (state.family) {
    case kFanFamilyLt:
      return switch_on(FanTarget::BoardFans, state.max_rate_set);
    case kFanFamilyLc:
      return switch_on(FanTarget::MasterByEvent, state.event_max_rate_sent);
    case kFanFamilyFc:
      if (!state.is_master) {
        return switch_on(FanTarget::MasterByEvent, state.event_max_rate_sent);
      }
      if (state.slot_asks || hot) {
        return state.max_rate_set ? FanDecision{} : FanDecision{FanTarget::FanModule, true};
      }
      return (cool && state.max_rate_set) ? FanDecision{FanTarget::FanModule, false} : FanDecision{};
    default:
      return {};
  }
}

/// The verdict on one reading: `temperature` is the sensor's signed reading, `limits` the
/// temperature section as read. Both limit comparisons are strict, on purpose: a reading equal to
/// a limit is an alarm, and an upper limit above 127 can never be reached.
constexpr SensorVerdict decide_sensor(std::int32_t id, int temperature, const CfgDb__alarm_system_temperature& limits,
                                      const FanControlState& state) {
  // A negative id has no limits either: it is skipped like an unknown one, so that no limit is
  // read outside the section.
  if (id < 0 || id > kLastMonitoredSensor) {
    return {};
  }
  const CfgDb__temperature_limits& sensor = limits.sensor[id];
  const bool normal = temperature > static_cast<int>(sensor.lower) && temperature < static_cast<int>(sensor.upper);
  return {true, normal, decide_fan(temperature, state)};
}

}  // namespace xpon::system_mgr
