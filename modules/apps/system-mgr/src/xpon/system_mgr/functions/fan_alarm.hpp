#pragma once

#include "xpon/board/iboard.hpp"
#include "xpon/cfgdb/cfgdb.h"
#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/cfgdb/sections.hpp"
#include "xpon/core/result.hpp"
#include "xpon/logger/ilogger.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/system_mgr/functions/base.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

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

  /// Back to the never-filled record (limits 0/0), as before the first update.
  void clear() noexcept;

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

/// What the board's fan function and the crate's fan module function share: their own copies of
/// the logger, the IPC endpoint, the configuration database and the board, the fan alarm section
/// read at construction and on its change event, and no interest in mastership.
class FanAlarmFunction : public SysFunction {
 public:
  /// The configuration section read, whose name is also that of its change event.
  static constexpr cfgdb::SectionRef kConfigSection = cfgdb::kAlarmSystemFan;

  ~FanAlarmFunction() override;
  FanAlarmFunction(const FanAlarmFunction&) = delete;
  FanAlarmFunction& operator=(const FanAlarmFunction&) = delete;
  FanAlarmFunction(FanAlarmFunction&&) = delete;
  FanAlarmFunction& operator=(FanAlarmFunction&&) = delete;

  /// Re-reads the fan alarm section for every change record naming it.
  Result<void> config_change(const ServiceCtx& ctx, const std::vector<Config_change>& changes) override;

  /// Does nothing: mastership does not concern the fans' alarms.
  Result<void> master_change(const ServiceCtx& ctx) override;

  /// The limits in use.
  [[nodiscard]] const FanAlarmConfig& limits() const noexcept { return fan_alarm_cfg_; }

 protected:
  /// Reads the fan alarm section once; throws std::runtime_error "Config update for <name> failed
  /// (<error>) " when it cannot. `name` must be static text.
  FanAlarmFunction(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                   const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, const std::shared_ptr<board::IBoard>& board,
                   std::string_view name, std::chrono::milliseconds period);

  /// Publishes one alarm record, guarded; a failure is logged and returned.
  Result<void> send_alarm(const Alarm& alarm);

  // The function's own copies of the shared objects; the base keeps its own as well.
  std::shared_ptr<ILogger> logger_;
  std::shared_ptr<IIpc> ipc_;
  std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb_;
  std::shared_ptr<board::IBoard> board_;
  FanAlarmConfig fan_alarm_cfg_;

 private:
  Result<void> cfg_update();
};

}  // namespace xpon::system_mgr
