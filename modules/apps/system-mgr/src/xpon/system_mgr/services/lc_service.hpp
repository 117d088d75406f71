#pragma once

#include "xpon/system_mgr/services/family_service.hpp"

namespace xpon::system_mgr {

/// The service of LC boards: the LC family's system functions.
class LcService : public FamilyService<service::ServiceBaseLC> {
 public:
  /// Creates the family's functions in order; throws what a function constructor throws.
  LcService(const std::shared_ptr<logger::ILogger>& logger, const std::shared_ptr<ipc::IIpc>& ipc,
            const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, const std::shared_ptr<board::IBoard>& board);
  ~LcService() override;
  LcService(const LcService&) = delete;
  LcService& operator=(const LcService&) = delete;
};

}  // namespace xpon::system_mgr
