#pragma once

#include <iosfwd>

namespace xpon::factory::tool {

/// Exit status of the tool: done (or a valid image shown), an invalid image or a failed file, a usage error.
inline constexpr int kExitOk = 0;
inline constexpr int kExitInvalid = 1;
inline constexpr int kExitUsage = 2;

/// Runs the xpon-factory command line (make, show) and returns the exit status.
int run(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace xpon::factory::tool
