#pragma once

#include "xpon/cfgdb/cfgdb.h"
#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/core/result.hpp"
#include "xpon/logger/ilogger.hpp"
#include "xpon/system_mgr/api.h"

#include <atomic>
#include <cstdint>
#include <memory>

namespace xpon::system_mgr {

/// The fan speed alarm section (ALARM_SYSTEM_FAN) as the fan functions read it: the record the
/// configuration library fills, and a copy of its two limits that a poll may read while the
/// service's thread re-reads the section. No lock is taken for the limits, on purpose: a poll
/// compares with whichever pair of values it finds.
class FanAlarmConfig {
 public:
  /// The record starts zeroed (limits 0/0: every fan an alarm).
  FanAlarmConfig();

  /// Re-reads the section through its C getter; a failure is logged by the C-API rule and
  /// returned as Error::ErrorCApi.
  core::Result<void> update(logger::ILogger& logger, const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb);

  /// Whether a fan at this speed is inside both limits (both strict, on purpose: a speed equal
  /// to either limit is an alarm, and lower at or above upper makes every speed an alarm).
  [[nodiscard]] bool inside(std::int32_t rpm) const noexcept;

  [[nodiscard]] std::uint16_t upper() const noexcept { return upper_.load(); }
  [[nodiscard]] std::uint16_t lower() const noexcept { return lower_.load(); }

 private:
  // Written only on the service's thread (construction, config_change).
  CfgDb__alarm_system_fan record_;
  std::atomic<std::uint16_t> upper_{0};
  std::atomic<std::uint16_t> lower_{0};
};

/// The speed alarm of fan `number` (from 1): alarm kind 2, the fan's number, its speed in rpm
/// and the text "Fan <n> speed <rpm> rpm", with " is back to normal" when `normal`.
Alarm fan_speed_alarm(std::uint32_t number, std::int32_t rpm, bool normal);

}  // namespace xpon::system_mgr
