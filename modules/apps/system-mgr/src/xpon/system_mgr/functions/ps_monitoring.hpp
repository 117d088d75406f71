#pragma once

#include "xpon/board/iboard.hpp"
#include "xpon/host/host.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/system_mgr/functions/base.hpp"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace xpon::system_mgr {

/// Watches the board's power supplies: publishes one alarm record per supply on every poll (normal,
/// offline or missing voltage), logs each supply's flags and identification, and answers the
/// request for the supplies' records. It reads no configuration.
class PsMonitoring : public SysFunction {
 public:
  /// The function's name, as logged and as it appears in messages.
  static constexpr std::string_view kName = "PsMonitoring";
  /// Alarm identifier of the power supply alarm; the instance is the supply's number from 1.
  static constexpr std::uint32_t kAlarmId = SYSTEM_MGR_ALARM_POWER_SUPPLY;

  /// The host is where the alarm texts are formatted.
  PsMonitoring(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
               const std::shared_ptr<board::IBoard>& board, std::chrono::milliseconds period,
               const std::shared_ptr<host::IHost>& host = host::system_host());
  ~PsMonitoring() override;
  PsMonitoring(const PsMonitoring&) = delete;
  PsMonitoring& operator=(const PsMonitoring&) = delete;
  PsMonitoring(PsMonitoring&&) = delete;
  PsMonitoring& operator=(PsMonitoring&&) = delete;

  /// Returns success: the function has no configuration.
  Result<void> config_change(const ServiceCtx& ctx, const std::vector<Config_change>& changes) override;

  /// Returns success: mastership does not matter here.
  Result<void> master_change(const ServiceCtx& ctx) override;

  /// Reads every supply and publishes its alarm record with its current state.
  Result<void> polling() override;

 private:
  Result<void> get_ps_states(const ipc::Request& request);
  // Publishes the alarm record of one supply and logs its flags and identification.
  Result<void> report(const Brd__ps_info& supply, std::uint32_t index);

  // The function's own copies of the shared objects; the base keeps its own as well.
  std::shared_ptr<ILogger> logger_;
  std::shared_ptr<IIpc> ipc_;
  std::shared_ptr<board::IBoard> board_;
  std::shared_ptr<host::IHost> host_;
};

}  // namespace xpon::system_mgr
