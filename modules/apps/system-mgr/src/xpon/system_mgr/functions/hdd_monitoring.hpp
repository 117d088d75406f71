#pragma once

#include "xpon/cfgdb/cfgdb.h"
#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/cfgdb/sections.hpp"
#include "xpon/host/host.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/system_mgr/functions/base.hpp"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace xpon::system_mgr {

/// Watches the free space of the board's five flash partitions, publishes one alarm record per
/// partition on every poll and answers the request for the total and free space.
class HddMonitoring : public SysFunction {
 public:
  /// The function's name, as logged and as it appears in messages.
  static constexpr std::string_view kName = "HddMonitoring";
  /// Alarm identifier of the disk space alarm; the instance is the partition's index.
  static constexpr std::uint32_t kAlarmId = SYSTEM_MGR_ALARM_DISK_SPACE;
  /// The configuration section read, whose name is also that of its change event.
  static constexpr cfgdb::SectionRef kConfigSection = cfgdb::kAlarmDiskSpace;
  /// The monitored mount points, in reporting order; the index is the alarm instance.
  static constexpr std::array<const char*, 5> kPartitions = {
      "/boot", "/data", "/configuration", "/firmware/primary_firmware", "/firmware/secondary_firmware"};

  /// Reads the configuration and the partitions' sizes once; throws std::runtime_error when
  /// either cannot be read. The host is where the partitions are queried and texts formatted.
  HddMonitoring(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, std::chrono::milliseconds period,
                const std::shared_ptr<host::IHost>& host = host::system_host());
  ~HddMonitoring() override;
  HddMonitoring(const HddMonitoring&) = delete;
  HddMonitoring& operator=(const HddMonitoring&) = delete;
  HddMonitoring(HddMonitoring&&) = delete;
  HddMonitoring& operator=(HddMonitoring&&) = delete;

  /// Re-reads the disk space alarm section for every change record naming it.
  Result<void> config_change(const ServiceCtx& ctx, const std::vector<Config_change>& changes) override;

  /// Queries every partition and publishes its alarm record with the current state.
  Result<void> polling() override;

  /// The threshold in use: the lowest acceptable free share of a partition in percent.
  [[nodiscard]] std::uint8_t threshold() const noexcept { return threshold_.load(); }

  /// The total size of the partitions in GiB, as measured at construction.
  [[nodiscard]] float total_size() const noexcept { return total_size_; }

 private:
  Result<void> cfg_update();
  Result<void> get_hdd_data(const ipc::Request& request);
  // statvfs of a partition at its place under the host root; 0, or -1 with errno set.
  int query(const char* mount_point, struct statvfs& stats);

  // The function's own copies of the shared objects; the base keeps its own as well.
  std::shared_ptr<ILogger> logger_;
  std::shared_ptr<IIpc> ipc_;
  std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb_;
  // Written only on the service's thread (construction, config_change).
  CfgDb__alarm_disk_space hdd_alarm_cfg_;
  // Written only during construction, so the request handler reads it without a lock.
  float total_size_{0.0F};
  // The polling thread reads the threshold through this copy, so the record itself is never
  // shared between threads and no lock is needed.
  std::atomic<std::uint8_t> threshold_{0};
  std::shared_ptr<host::IHost> host_;
};

}  // namespace xpon::system_mgr
