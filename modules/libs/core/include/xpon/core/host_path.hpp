#pragma once

#include <string>
#include <string_view>

namespace xpon::core {

/// Name of the environment variable that places every fixed host path under a sandbox root.
inline constexpr std::string_view kRootVariable = "XPON_ROOT";

/// Resolves a fixed system path ("/dev/board") to the file to open: under $XPON_ROOT when
/// that variable is set and not empty, the path itself otherwise. /proc paths are never moved.
std::string host_path(std::string_view logical_path);

/// The same resolution against an explicit root (empty root: the path itself).
std::string host_path(std::string_view logical_path, std::string_view root);

}  // namespace xpon::core
