#include "xpon/system_mgr/services/lt_service.hpp"

namespace xpon::system_mgr {

LtService::LtService(const std::shared_ptr<logger::ILogger>& logger, const std::shared_ptr<ipc::IIpc>& ipc,
                     const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, const std::shared_ptr<board::IBoard>& board)
    : FamilyService(logger, ipc, cfgdb, board) {
  create_functions(lineups::kLt, DeviceType::LT);
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
