#include "xpon/logger/level.hpp"

#include "xpon/logger/ilogger.hpp"

#include <syslog.h>

namespace xpon::logger {

spdlog::level::level_enum backend_level(int level) noexcept {
  switch (level) {
    case kInfo:
    case kNotice:
      return spdlog::level::info;
    case kWarning:
      return spdlog::level::warn;
    case kError:
      return spdlog::level::err;
    case kCritical:
      return spdlog::level::critical;
    default:
      return level <= kProgress ? spdlog::level::debug : spdlog::level::critical;
  }
}

int journal_priority(spdlog::level::level_enum level) noexcept {
  switch (level) {
    case spdlog::level::trace:
    case spdlog::level::debug:
      return LOG_DEBUG;
    case spdlog::level::info:
      return LOG_INFO;
    case spdlog::level::warn:
      return LOG_WARNING;
    case spdlog::level::err:
      return LOG_ERR;
    case spdlog::level::critical:
      return LOG_CRIT;
    default:
      return LOG_DEBUG;
  }
}

}  // namespace xpon::logger
