#pragma once

#include "xpon/board/iboard.hpp"
#include "xpon/ipc/ipc.hpp"
#include "xpon/logger/ilogger.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/system_mgr/factory.hpp"
#include "xpon/system_mgr/functions/misc_parameters.hpp"

#include <memory>

namespace xpon::system_mgr {

/// The device's factory answer: the family id, then the board's factory data read from its
/// image. An image that cannot be read or is not valid leaves the data all zero (the family id
/// stays) and is logged at level 4.
System_mgr__factory read_device_factory(logger::ILogger& logger, DeviceType family);

/// The crate's factory answer of an FC board: the family id of FC, then the crate's factory data
/// read from the crate image. An image that cannot be read or is not valid gives the all-zero
/// record, logged at level 3: the board works without its crate's data.
System_mgr__factory read_crate_factory(logger::ILogger& logger);

/// MiscParameters for a board of `family`, with its factory answers filled from the images:
/// the device's always, the crate's on FC boards only.
std::shared_ptr<MiscParameters> make_misc_parameters(const std::shared_ptr<logger::ILogger>& logger,
                                                     const std::shared_ptr<ipc::IIpc>& ipc,
                                                     const std::shared_ptr<board::IBoard>& board, DeviceType family);

}  // namespace xpon::system_mgr
