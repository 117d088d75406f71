#pragma once

#include "xpon/board/iboard.hpp"
#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/core/result.hpp"
#include "xpon/ipc/ipc.hpp"
#include "xpon/logger/ilogger.hpp"
#include "xpon/service/service.hpp"
#include "xpon/system_mgr/factory.hpp"

#include <memory>

namespace xpon::system_mgr {

/// Makes the service of the board's device family: LtService, LcService or FcService. A
/// constructor that throws gives Error::Exception naming the service; a family outside the three
/// gives Error::CommonError "Unknown device type".
core::Result<std::unique_ptr<service::IService>> create_service(const std::shared_ptr<logger::ILogger>& logger,
                                                                const std::shared_ptr<ipc::IIpc>& ipc,
                                                                const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb,
                                                                const std::shared_ptr<IFactory>& factory,
                                                                const std::shared_ptr<board::IBoard>& board);

}  // namespace xpon::system_mgr
