#pragma once

#include "xpon/system_mgr/services/family_service.hpp"

namespace xpon::system_mgr {

/// The service of LT boards: the LT family's system functions.
class LtService : public FamilyService<service::ServiceBaseKorvan> {
 public:
  /// Creates the family's functions in order; throws what a function constructor throws.
  LtService(const std::shared_ptr<logger::ILogger>& logger, const std::shared_ptr<ipc::IIpc>& ipc,
            const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, const std::shared_ptr<board::IBoard>& board);
  ~LtService() override;
  LtService(const LtService&) = delete;
  LtService& operator=(const LtService&) = delete;

  /// LT boards deliberately keep mastership changes from their functions: this is the
  /// family base's operation, which returns success and passes nothing on.
  core::Result<void> master_change(const service::ServiceCtx& ctx) override;
};

}  // namespace xpon::system_mgr
