#include "xpon/system_mgr/services/lc_service.hpp"

#include "xpon/system_mgr/functions/cpu_load_monitoring.hpp"
#include "xpon/system_mgr/functions/ram_monitoring.hpp"
#include "xpon/system_mgr/functions/temp_monitoring.hpp"

#include <chrono>

namespace xpon::system_mgr {

using std::chrono::milliseconds;

LcService::LcService(const std::shared_ptr<logger::ILogger>& logger, const std::shared_ptr<ipc::IIpc>& ipc,
                     const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, const std::shared_ptr<board::IBoard>& board)
    : FamilyService(logger, ipc, cfgdb, board) {
  connect_election_manager("Unable to connect Election Manager IPC client [LcService]");
  functions_.push_back(std::make_shared<CpuLoadMonitoring>(logger_, ipc_, cfgdb_, milliseconds(30000)));
  functions_.push_back(std::make_shared<RamMonitoring>(logger_, ipc_, cfgdb_, milliseconds(30000)));
  functions_.push_back(std::make_shared<TempMonitoring>(logger_, ipc_, cfgdb_, board_, milliseconds(20000)));
  logger_->progress("LcService create successfully");
}

LcService::~LcService() {
  logger_->progress("LcService destroy successfully");
}

}  // namespace xpon::system_mgr
