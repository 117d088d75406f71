#include "xpon/system_mgr/services/lc_service.hpp"

namespace xpon::system_mgr {

LcService::LcService(const std::shared_ptr<logger::ILogger>& logger, const std::shared_ptr<ipc::IIpc>& ipc,
                     const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, const std::shared_ptr<board::IBoard>& board)
    : FamilyService(logger, ipc, cfgdb, board) {
  connect_election_manager("Unable to connect Election Manager IPC client [LcService]");
  create_functions(lineups::kLc, DeviceType::LC);
  logger_->progress("LcService create successfully");
}

LcService::~LcService() {
  logger_->progress("LcService destroy successfully");
}

}  // namespace xpon::system_mgr
