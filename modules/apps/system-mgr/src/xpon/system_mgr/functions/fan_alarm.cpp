#include "xpon/system_mgr/functions/fan_alarm.hpp"

#include "xpon/core/guard.hpp"
#include "xpon/system_mgr/functions/base.hpp"

#include <fmt/format.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace xpon::system_mgr {

FanAlarmConfig::FanAlarmConfig() {
  clear();
}

void FanAlarmConfig::clear() noexcept {
  std::memset(&record_, 0, sizeof record_);
  upper_.store(0);
  lower_.store(0);
}

core::Result<void> FanAlarmConfig::update(logger::ILogger& logger, const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb) {
  if (!cfgdb) {
    return core::propagate(
        logger, core::Result<void>(core::ErrorPayload(core::Error::InvalidInputArg, "no configuration database")));
  }
  // The section has one instance per board, addressed by the all-zero key.
  const CfgDb__key key{};
  auto read = core::check_c_api(logger, getRunDb_CommonGCfg_system_alarm_system_fan(cfgdb->handle(), &record_, &key));
  if (!read) {
    return read;
  }
  // No range check of the limits, on purpose.
  upper_.store(record_.upper_speed);
  lower_.store(record_.lower_speed);
  return core::success();
}

bool FanAlarmConfig::inside(std::int32_t rpm) const noexcept {
  return rpm > static_cast<std::int32_t>(lower_.load()) && rpm < static_cast<std::int32_t>(upper_.load());
}

Alarm fan_speed_alarm(std::uint32_t number, std::int32_t rpm, bool normal) {
  Alarm alarm;
  std::memset(&alarm, 0, sizeof alarm);
  alarm.state = normal ? kAlarmNormal : kAlarmRaised;
  alarm.alarm_id = SYSTEM_MGR_ALARM_FAN;
  alarm.instance = number;
  alarm.value[0] = static_cast<std::uint32_t>(rpm);
  // Unchecked as designed: the text always fits the field.
  static_cast<void>(std::snprintf(alarm.text, sizeof alarm.text, "Fan %d speed %u rpm%s", static_cast<int>(number),
                                  static_cast<unsigned>(rpm), normal ? " is back to normal" : ""));
  return alarm;
}

FanAlarmFunction::FanAlarmFunction(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                                   const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb,
                                   const std::shared_ptr<board::IBoard>& board, std::string_view name,
                                   std::chrono::milliseconds period)
    : SysFunction(logger, ipc, name, period), logger_(logger), ipc_(ipc), cfgdb_(cfgdb), board_(board) {
  auto updated = core::guarded_call(*logger_, [this] { return cfg_update(); });
  if (!updated) {
    // The trailing blank is part of the system's text.
    throw std::runtime_error(fmt::format("Config update for {} failed ({}) ", name, updated.error().to_string()));
  }
  logger_->progress("{} create successfully", name);
}

FanAlarmFunction::~FanAlarmFunction() {
  logger_->progress("{} destroy successfully", name());
}

Result<void> FanAlarmFunction::cfg_update() {
  return fan_alarm_cfg_.update(*logger_, cfgdb_);
}

Result<void> FanAlarmFunction::config_change(const ServiceCtx& /*ctx*/, const std::vector<Config_change>& changes) {
  return apply_config_changes(changes, {{kConfigSection, [this] { return cfg_update(); }}});
}

Result<void> FanAlarmFunction::master_change(const ServiceCtx& /*ctx*/) {
  return core::success();
}

Result<void> FanAlarmFunction::send_alarm(const Alarm& alarm) {
  auto sent = core::guarded_call(*logger_, [&] { return create_alarm_and_send_trap(&alarm); });
  if (!sent) {
    return core::propagate(*logger_, std::move(sent));
  }
  return core::success();
}

}  // namespace xpon::system_mgr
