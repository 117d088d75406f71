#pragma once

#include "xpon/cfgdb/cfgdb.h"
#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/system_mgr/functions/base.hpp"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

namespace xpon::system_mgr {

/// The C library and configuration calls CPU load monitoring makes; the defaults are the
/// real ones, and tests replace them to reach their failure paths.
struct CpuLoadSystemCalls {
  /// getloadavg(3): fills up to `count` averages and returns how many it filled, or -1.
  std::function<int(double* averages, int count)> getloadavg;
  /// snprintf(3) with the alarm text's arguments: the three averages and the suffix.
  std::function<int(char* out, std::size_t size, const char* format, double one_minute, double five_minutes,
                    double fifteen_minutes, const char* suffix)>
      format_text;
  /// The configuration getter of the load-average alarm section.
  std::function<int(CfgDb__handle* db, CfgDb__alarm_system_load_average* cfg, const CfgDb__key* key)> read_config;

  /// The real calls.
  static CpuLoadSystemCalls system();
};

/// Watches the system load average and publishes its alarm record on every poll, raised
/// when the largest of the three averages reaches the configured threshold.
class CpuLoadMonitoring : public SysFunction {
 public:
  /// The function's name, as logged and as it appears in messages.
  static constexpr std::string_view kName = "CpuLoadMonitoring";
  /// Alarm identifier of the system load average.
  static constexpr std::uint32_t kAlarmId = 3;
  /// The configuration section read: ALARM_SYSTEM_LOAD_AVERAGE.
  static constexpr std::uint32_t kConfigSection = 80;

  /// Reads the configuration once; throws std::runtime_error when it cannot.
  CpuLoadMonitoring(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                    const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, std::chrono::milliseconds period,
                    CpuLoadSystemCalls calls = CpuLoadSystemCalls::system());
  ~CpuLoadMonitoring() override;
  CpuLoadMonitoring(const CpuLoadMonitoring&) = delete;
  CpuLoadMonitoring& operator=(const CpuLoadMonitoring&) = delete;
  CpuLoadMonitoring(CpuLoadMonitoring&&) = delete;
  CpuLoadMonitoring& operator=(CpuLoadMonitoring&&) = delete;

  /// Re-reads the load-average alarm section for every change record naming it.
  Result<void> config_change(const ServiceCtx& ctx, const std::vector<Config_change>& changes) override;

  /// Reads the load averages and publishes the alarm record with the current state.
  Result<void> polling() override;

  /// Returns success: the function answers no requests.
  Result<void> ipc_subscribe() override;

  /// Returns success: the function answers no requests.
  Result<void> ipc_unsubscribe() override;

  /// The threshold in use (load average x 100; 0: none).
  [[nodiscard]] std::uint16_t threshold() const noexcept { return threshold_.load(); }

 private:
  Result<void> cfg_update();

  std::shared_ptr<ILogger> logger_;
  std::shared_ptr<IIpc> ipc_;
  std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb_;
  // Written only on the service's thread (construction, config_change).
  CfgDb__alarm_system_load_average cfg_;
  // The polling thread reads the threshold through this copy, so the record itself is never
  // shared between threads and no lock is needed.
  std::atomic<std::uint16_t> threshold_{0};
  CpuLoadSystemCalls calls_;
};

}  // namespace xpon::system_mgr
