#pragma once

#include <spdlog/common.h>

namespace xpon::logger {

/// The back-end level of a numeric level: 0 debug, 1 and 2 info, 3 warn, 4 error, 5 critical;
/// values below 0 count as 0 and values above 5 as 5.
spdlog::level::level_enum backend_level(int level) noexcept;

/// The syslog priority (as the journal's PRIORITY field carries it) of a back-end level.
int journal_priority(spdlog::level::level_enum level) noexcept;

}  // namespace xpon::logger
