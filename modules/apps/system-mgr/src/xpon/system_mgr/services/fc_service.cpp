#include "xpon/system_mgr/services/fc_service.hpp"

#include "xpon/system_mgr/functions/cpu_load_monitoring.hpp"
#include "xpon/system_mgr/functions/fan_module_monitoring.hpp"
#include "xpon/system_mgr/functions/hdd_monitoring.hpp"
#include "xpon/system_mgr/functions/led_panel_cntrl.hpp"
#include "xpon/system_mgr/functions/pwr_module_monitoring.hpp"
#include "xpon/system_mgr/functions/ram_monitoring.hpp"
#include "xpon/system_mgr/functions/sfp_monitoring.hpp"
#include "xpon/system_mgr/functions/temp_monitoring.hpp"
#include "xpon/system_mgr/services/factory_records.hpp"

#include <chrono>

namespace xpon::system_mgr {

using std::chrono::milliseconds;

FcService::FcService(const std::shared_ptr<logger::ILogger>& logger, const std::shared_ptr<ipc::IIpc>& ipc,
                     const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, const std::shared_ptr<board::IBoard>& board)
    : FamilyService(logger, ipc, cfgdb, board) {
  connect_election_manager("Unable to connect Election Manager IPC client [FcService]");
  functions_.push_back(std::make_shared<CpuLoadMonitoring>(logger_, ipc_, cfgdb_, milliseconds(30000)));
  functions_.push_back(std::make_shared<RamMonitoring>(logger_, ipc_, cfgdb_, milliseconds(30000)));
  functions_.push_back(std::make_shared<HddMonitoring>(logger_, ipc_, cfgdb_, milliseconds(30000)));
  functions_.push_back(std::make_shared<LedPanelCntrl>(logger_, ipc_, board_));
  functions_.push_back(make_misc_parameters(logger_, ipc_, board_, DeviceType::FC));
  functions_.push_back(std::make_shared<TempMonitoring>(logger_, ipc_, cfgdb_, board_, milliseconds(20000)));
  functions_.push_back(std::make_shared<SfpMonitoring>(logger_, ipc_, board_, milliseconds(1000)));
  functions_.push_back(std::make_shared<FanModuleMonitoring>(logger_, ipc_, cfgdb_, board_, milliseconds(30000)));
  functions_.push_back(std::make_shared<PwrModuleMonitoring>(logger_, ipc_, cfgdb_, board_, milliseconds(30000)));
  logger_->progress("FcService create successfully");
}

FcService::~FcService() {
  logger_->progress("FcService destroy successfully");
}

}  // namespace xpon::system_mgr
