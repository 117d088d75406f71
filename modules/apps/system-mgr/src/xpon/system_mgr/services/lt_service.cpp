#include "xpon/system_mgr/services/lt_service.hpp"

#include "xpon/system_mgr/functions/cpu_load_monitoring.hpp"
#include "xpon/system_mgr/functions/fan_monitoring.hpp"
#include "xpon/system_mgr/functions/hdd_monitoring.hpp"
#include "xpon/system_mgr/functions/led_panel_cntrl.hpp"
#include "xpon/system_mgr/functions/ps_monitoring.hpp"
#include "xpon/system_mgr/functions/ram_monitoring.hpp"
#include "xpon/system_mgr/functions/sfp_monitoring.hpp"
#include "xpon/system_mgr/functions/temp_monitoring.hpp"
#include "xpon/system_mgr/services/factory_records.hpp"

#include <chrono>

namespace xpon::system_mgr {

using std::chrono::milliseconds;

LtService::LtService(const std::shared_ptr<logger::ILogger>& logger, const std::shared_ptr<ipc::IIpc>& ipc,
                     const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, const std::shared_ptr<board::IBoard>& board)
    : FamilyService(logger, ipc, cfgdb, board) {
  functions_.push_back(std::make_shared<CpuLoadMonitoring>(logger_, ipc_, cfgdb_, milliseconds(30000)));
  functions_.push_back(std::make_shared<RamMonitoring>(logger_, ipc_, cfgdb_, milliseconds(30000)));
  functions_.push_back(std::make_shared<HddMonitoring>(logger_, ipc_, cfgdb_, milliseconds(30000)));
  functions_.push_back(std::make_shared<LedPanelCntrl>(logger_, ipc_, board_));
  functions_.push_back(make_misc_parameters(logger_, ipc_, board_, DeviceType::LT));
  functions_.push_back(std::make_shared<TempMonitoring>(logger_, ipc_, cfgdb_, board_, milliseconds(20000)));
  functions_.push_back(std::make_shared<SfpMonitoring>(logger_, ipc_, board_, milliseconds(1000)));
  functions_.push_back(std::make_shared<FanMonitoring>(logger_, ipc_, cfgdb_, board_, milliseconds(30000)));
  functions_.push_back(std::make_shared<PsMonitoring>(logger_, ipc_, board_, milliseconds(1000)));
  logger_->progress("LtService create successfully");
}

LtService::~LtService() {
  logger_->progress("LtService destroy successfully");
}

core::Result<void> LtService::master_change(const service::ServiceCtx& ctx) {
  // NOLINTNEXTLINE(bugprone-parent-virtual-call): no LT function sees a mastership change, on purpose
  return service::ServiceBaseKorvan::master_change(ctx);
}

}  // namespace xpon::system_mgr
