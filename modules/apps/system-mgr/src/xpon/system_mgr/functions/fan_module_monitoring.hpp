#pragma once

#include "xpon/board/iboard.hpp"
#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/cfgdb/sections.hpp"
#include "xpon/ipc/ipc.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/system_mgr/functions/base.hpp"
#include "xpon/system_mgr/functions/fan_alarm.hpp"

#include <chrono>
#include <memory>
#include <string_view>
#include <vector>

namespace xpon::system_mgr {

/// Watches the crate's fan module (FC boards): on every poll publishes the module fault alarm
/// (the module can or cannot be read) and one speed alarm per fan of the module; answers the
/// module's state, its factory data and the request that sets its fan speed.
class FanModuleMonitoring : public SysFunction {
 public:
  /// The function's name, as logged and as it appears in messages.
  static constexpr std::string_view kName = "FanModuleMonitoring";
  /// The configuration section read, whose name is also that of its change event.
  static constexpr cfgdb::SectionRef kConfigSection = cfgdb::kAlarmSystemFan;

  /// Reads the fan alarm section once; throws std::runtime_error when it cannot.
  FanModuleMonitoring(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                      const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, const std::shared_ptr<board::IBoard>& board,
                      std::chrono::milliseconds period);
  ~FanModuleMonitoring() override;
  FanModuleMonitoring(const FanModuleMonitoring&) = delete;
  FanModuleMonitoring& operator=(const FanModuleMonitoring&) = delete;
  FanModuleMonitoring(FanModuleMonitoring&&) = delete;
  FanModuleMonitoring& operator=(FanModuleMonitoring&&) = delete;

  /// Re-reads the fan alarm section for every change record naming it.
  Result<void> config_change(const ServiceCtx& ctx, const std::vector<Config_change>& changes) override;

  /// Does nothing.
  Result<void> master_change(const ServiceCtx& ctx) override;

  /// Publishes the module fault alarm, then the speed alarm of every fan of the module.
  Result<void> polling() override;

  /// Subscribes the state, factory and speed requests, in this order.
  Result<void> ipc_subscribe() override;

  /// Unsubscribes them in the same order.
  Result<void> ipc_unsubscribe() override;

  /// Answers the three requests; any other id is returned as an unexpected request.
  Result<void> handle_request(const ipc::Request& request);

  /// Publishes the module fault alarm: raised when the module cannot be read (`ok` false).
  Result<void> fan_module_fault_handler(bool ok);

  /// The limits in use.
  [[nodiscard]] const FanAlarmConfig& limits() const noexcept { return fan_alarm_cfg_; }

 private:
  Result<void> cfg_update();
  Result<void> get_state(const ipc::Request& request);
  Result<void> get_factory(const ipc::Request& request);
  Result<void> set_speed(const ipc::Request& request);
  template <typename Record>
  Result<void> answer_record(const ipc::Request& request, Result<Record> read);

  // The function's own copies of the shared objects; the base keeps its own as well.
  std::shared_ptr<ILogger> logger_;
  std::shared_ptr<IIpc> ipc_;
  std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb_;
  std::shared_ptr<board::IBoard> board_;
  FanAlarmConfig fan_alarm_cfg_;
};

}  // namespace xpon::system_mgr
