#pragma once

#include "xpon/board/iboard.hpp"
#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/cfgdb/sections.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/system_mgr/functions/base.hpp"

#include <chrono>
#include <memory>
#include <string_view>
#include <vector>

namespace xpon::system_mgr {

/// Serves the state of the crate's power module. It has the whole shape of a monitoring function
/// (configuration section, change handling, polling thread), but its poll and its configuration
/// update do nothing yet and it raises no alarm: only the state request does work.
class PwrModuleMonitoring : public SysFunction {
 public:
  /// The function's name, as logged and as it appears in messages.
  static constexpr std::string_view kName = "PwrModuleMonitoring";
  /// The configuration section reserved for the power module alarm; its name is that of its change event.
  static constexpr cfgdb::SectionRef kConfigSection = cfgdb::kAlarmSystemPwrModule;

  /// Throws std::runtime_error when the configuration update fails (the empty update never does).
  PwrModuleMonitoring(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                      const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, const std::shared_ptr<board::IBoard>& board,
                      std::chrono::milliseconds period);
  ~PwrModuleMonitoring() override;
  PwrModuleMonitoring(const PwrModuleMonitoring&) = delete;
  PwrModuleMonitoring& operator=(const PwrModuleMonitoring&) = delete;
  PwrModuleMonitoring(PwrModuleMonitoring&&) = delete;
  PwrModuleMonitoring& operator=(PwrModuleMonitoring&&) = delete;

  /// Runs the (empty) update for every change record naming the power module section.
  Result<void> config_change(const ServiceCtx& ctx, const std::vector<Config_change>& changes) override;

  /// Returns success: mastership does not matter here.
  Result<void> master_change(const ServiceCtx& ctx) override;

  /// Does nothing and succeeds, so the polling thread runs all the same.
  Result<void> polling() override;

 private:
  Result<void> cfg_update();
  Result<void> get_pwr_module_state(const ipc::Request& request);

  // The function's own copies of the shared objects; the base keeps its own as well.
  std::shared_ptr<ILogger> logger_;
  std::shared_ptr<IIpc> ipc_;
  // Kept for the power module alarm's section, which nothing reads yet.
  std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb_;
  std::shared_ptr<board::IBoard> board_;
};

}  // namespace xpon::system_mgr
