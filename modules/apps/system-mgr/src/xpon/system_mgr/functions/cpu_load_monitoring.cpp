#include "xpon/system_mgr/functions/cpu_load_monitoring.hpp"

#include "xpon/core/guard.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

namespace xpon::system_mgr {

namespace {

using core::Error;
using core::ErrorPayload;

constexpr const char* kBackToNormal = " is back to normal";

}  // namespace

CpuLoadMonitoring::CpuLoadMonitoring(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                                     const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb,
                                     std::chrono::milliseconds period, const std::shared_ptr<host::IHost>& host)
    : SysFunction(logger, ipc, kName, period), logger_(logger), ipc_(ipc), cfgdb_(cfgdb), host_(host) {
  std::memset(&cfg_, 0, sizeof cfg_);
  auto updated = core::guarded_call(*logger_, [this] { return cfg_update(); });
  if (!updated) {
    // The trailing blank is part of the system's text.
    throw std::runtime_error(fmt::format("Config update for {} failed ({}) ", kName, updated.error().to_string()));
  }
  logger_->progress("{} create successfully", kName);
}

CpuLoadMonitoring::~CpuLoadMonitoring() {
  logger_->progress("{} destroy successfully", kName);
}

Result<void> CpuLoadMonitoring::cfg_update() {
  if (!cfgdb_) {
    return core::propagate(*logger_, Result<void>(ErrorPayload(Error::InvalidInputArg, "no configuration database")));
  }
  // The section has one instance per board, addressed by the all-zero key.
  const CfgDb__key key{};
  CfgDb__alarm_system_load_average fresh = cfg_;
  auto read =
      core::check_c_api(*logger_, getRunDb_CommonGCfg_system_alarm_system_load_average(cfgdb_->handle(), &fresh, &key));
  if (!read) {
    // The previous configuration stays in force.
    return read;
  }
  cfg_ = fresh;
  threshold_.store(cfg_.threshold);
  return core::success();
}

Result<void> CpuLoadMonitoring::config_change(const ServiceCtx& /*ctx*/, const std::vector<Config_change>& changes) {
  return apply_config_changes(changes, {{kConfigSection, [this] { return cfg_update(); }}});
}

Result<void> CpuLoadMonitoring::ipc_subscribe() {
  return core::success();
}

Result<void> CpuLoadMonitoring::ipc_unsubscribe() {
  return core::success();
}

Result<void> CpuLoadMonitoring::polling() {
  double averages[3] = {0.0, 0.0, 0.0};
  if (host_->getloadavg(averages, 3) != 3) {
    logger_->error("getloadavg() call failed ({})", errno);
    return ErrorPayload(Error::ErrorCApi);
  }

  const std::uint32_t one_minute = truncate_to_u32(averages[0] * 100.0);
  const std::uint32_t five_minutes = truncate_to_u32(averages[1] * 100.0);
  const std::uint32_t fifteen_minutes = truncate_to_u32(averages[2] * 100.0);

  // Compared on the converted integers, so 2.499 against a threshold of 250 is normal.
  const std::uint16_t threshold = threshold_.load();
  bool raised = false;
  if (threshold != 0) {
    raised = std::max({one_minute, five_minutes, fifteen_minutes}) >= threshold;
  }

  Alarm alarm;
  std::memset(&alarm, 0, sizeof alarm);
  alarm.state = raised ? kAlarmRaised : kAlarmNormal;
  alarm.alarm_id = kAlarmId;
  alarm.value[0] = one_minute;
  alarm.value[1] = five_minutes;
  alarm.value[2] = fifteen_minutes;

  const int written = host_->format(alarm.text, sizeof alarm.text, "CPU load average (1m, 5m, 15m): %.2f, %.2f, %.2f%s",
                                    averages[0], averages[1], averages[2], raised ? "" : kBackToNormal);
  // 0 or a truncated text (more than 255 characters) is a failure; so is a negative return.
  if (written <= 0 || written > static_cast<int>(sizeof alarm.text) - 1) {
    logger_->error("snprintf() call failed ({})", written);
    return ErrorPayload(Error::ErrorCApi);
  }

  // Level-triggered on purpose: every poll reports the current state, and the receiver
  // keeps the alarm's state.
  return create_alarm_and_send_trap(&alarm);
}

}  // namespace xpon::system_mgr
