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

/// Watches the speed of every fan of the board and publishes one alarm record per fan on every
/// poll; answers the request for the fans' states and the one that sets their speed.
class FanMonitoring : public FanAlarmFunction {
 public:
  /// The function's name, as logged and as it appears in messages.
  static constexpr std::string_view kName = "FanMonitoring";
  /// Reads the fan alarm section once; throws std::runtime_error when it cannot.
  FanMonitoring(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, const std::shared_ptr<board::IBoard>& board,
                std::chrono::milliseconds period);

  /// Publishes the speed alarm of every fan with its current state.
  Result<void> polling() override;

 private:
  Result<void> get_fan_states(const ipc::Request& request);
  Result<void> set_fan_speed(const ipc::Request& request);
  Result<void> answer_error(const ipc::Request& request);
};

}  // namespace xpon::system_mgr
