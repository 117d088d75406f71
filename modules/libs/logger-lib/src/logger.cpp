#include "xpon/logger/logger.hpp"

#include "registry.hpp"

#include <spdlog/common.h>

namespace xpon::logger {

namespace {

spdlog::source_loc backend_location(const std::source_location& location) {
  return {location.file_name(), static_cast<int>(location.line()), location.function_name()};
}

}  // namespace

Logger::Logger(std::string_view category) : category_(detail::category(category)) {}

void Logger::log(int level, std::string_view text, const std::source_location& location) {
  detail::write(*category_, level, text, backend_location(location));
}

std::string_view Logger::category() const noexcept {
  return category_->name;
}

zlog_category_t* Logger::get_raw_zlog_category(std::string_view name) {
  return detail::category(name);
}

}  // namespace xpon::logger

extern "C" void xpon_raw_log(zlog_category_t* category, int level, const char* file, int line, const char* function,
                             const char* text) {
  if (category == nullptr || text == nullptr) {
    return;
  }
  // A C caller may not know its position; spdlog treats a null file name as "no location".
  const spdlog::source_loc where{file, file != nullptr ? line : 0, function != nullptr ? function : ""};
  xpon::logger::detail::write(*category, level, text, where);
}
