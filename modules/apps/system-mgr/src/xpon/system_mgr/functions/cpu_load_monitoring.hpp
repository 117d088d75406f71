#pragma once

#include "xpon/cfgdb/cfgdb.h"
#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/cfgdb/sections.hpp"
#include "xpon/host/host.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/system_mgr/functions/base.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace xpon::system_mgr {

/// Watches the system load average and publishes its alarm record on every poll, raised
/// when the largest of the three averages reaches the configured threshold.
class CpuLoadMonitoring : public SysFunction {
 public:
  /// The function's name, as logged and as it appears in messages.
  static constexpr std::string_view kName = "CpuLoadMonitoring";
  /// Alarm identifier of the system load average.
  static constexpr std::uint32_t kAlarmId = SYSTEM_MGR_ALARM_LOAD_AVERAGE;
  /// The configuration section read, whose name is also that of its change event.
  static constexpr cfgdb::SectionRef kConfigSection = cfgdb::kAlarmSystemLoadAverage;

  /// Reads the configuration once; throws std::runtime_error when it cannot. The host is where
  /// the load averages are read and the alarm text is formatted.
  CpuLoadMonitoring(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                    const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, std::chrono::milliseconds period,
                    const std::shared_ptr<host::IHost>& host = host::system_host());
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

  // The function's own copies of the shared objects; the base keeps its own as well.
  std::shared_ptr<ILogger> logger_;
  std::shared_ptr<IIpc> ipc_;
  std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb_;
  // Written only on the service's thread (construction, config_change).
  CfgDb__alarm_system_load_average cfg_;
  // The polling thread reads the threshold through this copy, so the record itself is never
  // shared between threads and no lock is needed.
  std::atomic<std::uint16_t> threshold_{0};
  std::shared_ptr<host::IHost> host_;
};

}  // namespace xpon::system_mgr
