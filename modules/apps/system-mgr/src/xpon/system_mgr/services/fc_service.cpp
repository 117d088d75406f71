#include "xpon/system_mgr/services/fc_service.hpp"

namespace xpon::system_mgr {

FcService::FcService(const std::shared_ptr<logger::ILogger>& logger, const std::shared_ptr<ipc::IIpc>& ipc,
                     const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, const std::shared_ptr<board::IBoard>& board)
    : FamilyService(logger, ipc, cfgdb, board) {
  connect_election_manager("Unable to connect Election Manager IPC client [FcService]");
  create_functions(lineups::kFc, DeviceType::FC);
  logger_->progress("FcService create successfully");
}

FcService::~FcService() {
  logger_->progress("FcService destroy successfully");
}

}  // namespace xpon::system_mgr
