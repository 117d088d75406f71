#pragma once

#include "xpon/cfgdb/cfgdb.h"
#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/cfgdb/sections.hpp"
#include "xpon/host/host.hpp"
#include "xpon/ipc/ipc.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/system_mgr/functions/base.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace xpon::system_mgr {

/// Watches the share of free physical memory and publishes its alarm record on every poll,
/// raised when the share is at or below the configured threshold; answers the request for the
/// memory totals of "/proc/meminfo".
class RamMonitoring : public SysFunction {
 public:
  /// The function's name, as logged and as it appears in messages.
  static constexpr std::string_view kName = "RamMonitoring";
  /// Alarm identifier of the free RAM share.
  static constexpr std::uint32_t kAlarmId = SYSTEM_MGR_ALARM_RAM;
  /// The configuration section read, whose name is also that of its change event.
  static constexpr cfgdb::SectionRef kConfigSection = cfgdb::kAlarmSystemRam;
  /// The file the memory totals are read from; a kernel file, never moved under a test root.
  static constexpr const char* kMeminfoPath = "/proc/meminfo";

  /// Reads the configuration once; throws std::runtime_error when it cannot. The host is where
  /// the memory pages and "/proc/meminfo" are read and the alarm text is formatted.
  RamMonitoring(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, std::chrono::milliseconds period,
                const std::shared_ptr<host::IHost>& host = host::system_host());
  ~RamMonitoring() override;
  RamMonitoring(const RamMonitoring&) = delete;
  RamMonitoring& operator=(const RamMonitoring&) = delete;
  RamMonitoring(RamMonitoring&&) = delete;
  RamMonitoring& operator=(RamMonitoring&&) = delete;

  /// Re-reads the RAM alarm section for every change record naming it.
  Result<void> config_change(const ServiceCtx& ctx, const std::vector<Config_change>& changes) override;

  /// Computes the free share of physical memory and publishes the alarm record with the current state.
  Result<void> polling() override;

  /// The threshold in use (lowest acceptable free share, percent).
  [[nodiscard]] std::uint8_t threshold() const noexcept { return threshold_.load(); }

 private:
  Result<void> cfg_update();
  Result<void> get_ram_data(const ipc::Request& request);
  Result<System_mgr__ram_data> read_meminfo();

  // The function's own copies of the shared objects; the base keeps its own as well.
  std::shared_ptr<ILogger> logger_;
  std::shared_ptr<IIpc> ipc_;
  std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb_;
  // Written only on the service's thread (construction, config_change).
  CfgDb__alarm_system_ram ram_alarm_cfg_;
  // The polling thread reads the threshold through this copy, so the record itself is never
  // shared between threads and no lock is needed.
  std::atomic<std::uint8_t> threshold_{0};
  std::shared_ptr<host::IHost> host_;
};

}  // namespace xpon::system_mgr
