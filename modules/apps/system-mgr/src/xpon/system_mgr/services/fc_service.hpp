#pragma once

#include "xpon/system_mgr/services/family_service.hpp"

namespace xpon::system_mgr {

/// The service of FC boards: the FC family's system functions.
class FcService : public FamilyService<service::ServiceBaseFC> {
 public:
  /// Creates the family's functions in order; throws what a function constructor throws.
  FcService(const std::shared_ptr<logger::ILogger>& logger, const std::shared_ptr<ipc::IIpc>& ipc,
            const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, const std::shared_ptr<board::IBoard>& board);
  ~FcService() override;
  FcService(const FcService&) = delete;
  FcService& operator=(const FcService&) = delete;
};

}  // namespace xpon::system_mgr
