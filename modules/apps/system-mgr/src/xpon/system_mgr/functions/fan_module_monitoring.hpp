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
class FanModuleMonitoring : public FanAlarmFunction {
 public:
  /// The function's name, as logged and as it appears in messages.
  static constexpr std::string_view kName = "FanModuleMonitoring";
  /// Reads the fan alarm section once; throws std::runtime_error when it cannot.
  FanModuleMonitoring(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                      const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, const std::shared_ptr<board::IBoard>& board,
                      std::chrono::milliseconds period);

  /// Publishes the module fault alarm, then the speed alarm of every fan of the module.
  Result<void> polling() override;

  /// Publishes the module fault alarm: raised when the module cannot be read (`ok` false).
  Result<void> fan_module_fault_handler(bool ok);

 private:
  Result<void> get_state(const ipc::Request& request);
  Result<void> get_factory(const ipc::Request& request);
  Result<void> set_speed(const ipc::Request& request);
  template <typename Record>
  Result<void> answer_record(const ipc::Request& request, Result<Record> read);
};

}  // namespace xpon::system_mgr
