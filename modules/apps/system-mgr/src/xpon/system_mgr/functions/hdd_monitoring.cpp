#include "xpon/system_mgr/functions/hdd_monitoring.hpp"

#include "xpon/core/guard.hpp"
#include "xpon/core/host_path.hpp"

#include <fmt/format.h>

#include <sys/statvfs.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

namespace xpon::system_mgr {

namespace {

using core::Error;
using core::ErrorPayload;

constexpr const char* kBackToNormal = " is back to normal";
// Bytes to GiB, 2^-30, in the single precision the sizes are added up in.
constexpr float kBytesToGiB = 1.0F / 1073741824.0F;

}  // namespace

HddMonitoring::HddMonitoring(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                             const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, std::chrono::milliseconds period,
                             const std::shared_ptr<host::IHost>& host)
    : SysFunction(logger, ipc, kName, period),
      logger_(logger),
      ipc_(ipc),
      cfgdb_(cfgdb),
      hdd_alarm_cfg_{},
      host_(host) {
  std::memset(&hdd_alarm_cfg_, 0, sizeof hdd_alarm_cfg_);
  auto updated = core::guarded_call(*logger_, [this] { return cfg_update(); });
  if (!updated) {
    // The trailing blank is part of the system's text.
    throw std::runtime_error(fmt::format("Config update for {} failed ({}) ", kName, updated.error().to_string()));
  }
  // The total is measured once, here: a partition resized later shows only in the free space.
  for (const char* mount_point : kPartitions) {
    struct statvfs stats;
    std::memset(&stats, 0, sizeof stats);
    if (query(mount_point, stats) != 0) {
      throw std::runtime_error(fmt::format("statvfs({}) call failed ({})", mount_point, std::strerror(errno)));
    }
    total_size_ += static_cast<float>(stats.f_blocks) * static_cast<float>(stats.f_bsize) * kBytesToGiB;
  }
  declare_routes({{IPC_SYSTEM_MGR__GET_HDD_DATA, [this](const ipc::Request& req) { return get_hdd_data(req); }}});
  logger_->progress("{} create successfully", kName);
}

HddMonitoring::~HddMonitoring() {
  logger_->progress("{} destroy successfully", kName);
}

int HddMonitoring::query(const char* mount_point, struct statvfs& stats) {
  // The call goes to the partition under the host root; every text names the logical mount point.
  return host_->statvfs(core::host_path(mount_point).c_str(), &stats);
}

Result<void> HddMonitoring::cfg_update() {
  if (!cfgdb_) {
    return core::propagate(*logger_, Result<void>(ErrorPayload(Error::InvalidInputArg, "no configuration database")));
  }
  // The section has one instance per board, addressed by the all-zero key.
  const CfgDb__key key{};
  CfgDb__alarm_disk_space fresh = hdd_alarm_cfg_;
  auto read =
      core::check_c_api(*logger_, getRunDb_CommonGCfg_system_alarm_system_disk_space(cfgdb_->handle(), &fresh, &key));
  if (!read) {
    // The previous configuration stays in force.
    return read;
  }
  hdd_alarm_cfg_ = fresh;
  threshold_.store(hdd_alarm_cfg_.threshold);
  return core::success();
}

Result<void> HddMonitoring::config_change(const ServiceCtx& /*ctx*/, const std::vector<Config_change>& changes) {
  // The total size is deliberately not measured again.
  return apply_config_changes(changes, {{kConfigSection, [this] { return cfg_update(); }}});
}

Result<void> HddMonitoring::polling() {
  const std::uint8_t threshold = threshold_.load();
  for (std::uint32_t index = 0; index < kPartitions.size(); ++index) {
    const char* mount_point = kPartitions[index];
    Alarm alarm;
    std::memset(&alarm, 0, sizeof alarm);
    struct statvfs stats;
    std::memset(&stats, 0, sizeof stats);
    if (query(mount_point, stats) != 0) {
      // Ends the poll: the later partitions are not looked at until the next one.
      logger_->error("statvfs({}) call failed ({})", mount_point, std::strerror(errno));
      return ErrorPayload(Error::ErrorCApi);
    }

    // Block counts, not bytes, and the blocks available to unprivileged users. A partition
    // without blocks divides by zero on purpose; truncate_to_u32 gives the result a defined value.
    const double share = static_cast<double>(stats.f_bavail) * 100.0 / static_cast<double>(stats.f_blocks);
    const std::uint32_t free_share = truncate_to_u32(share);
    // Strict on purpose: a free share equal to the threshold is an alarm.
    const bool normal = threshold < free_share;

    alarm.state = normal ? kAlarmNormal : kAlarmRaised;
    alarm.alarm_id = kAlarmId;
    // Counted from 0, unlike the temperature alarms.
    alarm.instance = index;
    alarm.value[0] = free_share;
    const int written = host_->format(alarm.text, sizeof alarm.text, "%s partition free disk space %u%%%s", mount_point,
                                      free_share, normal ? kBackToNormal : "");
    // 0 or a truncated text (more than 255 characters) is a failure; so is a negative return.
    if (written < 1 || written > static_cast<int>(sizeof alarm.text) - 1) {
      logger_->error("snprintf() call failed({})", written);
      return ErrorPayload(Error::ErrorCApi);
    }

    // Level-triggered on purpose: every poll reports every partition's current state. A failed
    // send ends the poll, so the later partitions wait for the next one.
    auto sent = create_alarm_and_send_trap(&alarm);
    if (!sent) {
      return sent;
    }
  }
  return core::success();
}

Result<void> HddMonitoring::get_hdd_data(const ipc::Request& request) {
  float free_space = 0.0F;
  for (const char* mount_point : kPartitions) {
    struct statvfs stats;
    std::memset(&stats, 0, sizeof stats);
    if (query(mount_point, stats) != 0) {
      logger_->error("statvfs({}) call failed ({})", mount_point, std::strerror(errno));
      if (request.reply_to) {
        // The requester is answered with the error response; the request's own outcome is
        // Error::CommonError whatever that send gave.
        static_cast<void>(send_error_response(request));
      }
      return ErrorPayload(Error::CommonError);
    }
    free_space += static_cast<float>(stats.f_bavail) * static_cast<float>(stats.f_bsize) * kBytesToGiB;
  }

  System_mgr__hdd_data data{};
  data.total = total_size_;
  data.free = free_space;
  ipc::Payload payload(sizeof data);
  std::memcpy(payload.data(), &data, sizeof data);
  // A sender that does not wait for the answer gets none.
  if (!request.reply_to) {
    return core::success();
  }
  auto sent = core::guarded_call(*logger_, [&] { return send_answer(request, std::move(payload)); });
  if (!sent) {
    return core::propagate(*logger_, std::move(sent));
  }
  return core::success();
}

}  // namespace xpon::system_mgr
