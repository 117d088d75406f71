#pragma once

#include "xpon/core/result.hpp"
#include "xpon/ipc/ipc.hpp"

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace xpon::cfg_tool {

/// Exit statuses of xpon-cfg.
enum ExitStatus : int {
  kDone = 0,     ///< the command did what was asked
  kFailed = 1,   ///< the database could not be read or written, or a committed change was not announced
  kRefused = 2,  ///< bad usage or a value that does not pass the checks; nothing was written
};

/// Makes the IPC endpoint the change event is published through; called only after a change
/// has been committed, so commands that change nothing never touch the bus.
using EndpointFactory = std::function<core::Result<std::shared_ptr<ipc::IIpc>>()>;

/// Runs one xpon-cfg command line (arguments without the program name) against the
/// configuration database at the host path; writes results to `out`, messages to `err`.
int run(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err,
        const EndpointFactory& make_endpoint);

}  // namespace xpon::cfg_tool
