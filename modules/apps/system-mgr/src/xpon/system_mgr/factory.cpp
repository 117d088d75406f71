#include "xpon/system_mgr/factory.hpp"

#include "xpon/logger/logger.hpp"

#include <fmt/format.h>

#include <cstring>
#include <stdexcept>
#include <string>

namespace xpon::system_mgr {

Factory::Factory(const std::shared_ptr<logger::ILogger>& logger, const std::string_view& name)
    : logger_(logger), record_{} {
  std::memset(&record_, 0, sizeof(record_));
  bool valid = false;
  const int returned = get_factory(logger::Logger::get_raw_zlog_category(name), &record_, &valid);
  if (returned != 0) {
    throw std::runtime_error(fmt::format("get_factory call failed (error: {})", returned));
  }
  if (!valid) {
    throw std::runtime_error("Valid Factory does not exist");
  }
  // The record is zeroed and the library NUL-terminates the name, but a full-length name
  // must not run past the field either.
  record_.device_name[sizeof(record_.device_name) - 1] = '\0';
  device_type_ = classify(record_.device_name);
  logger_->progress("Factory create successfully");
}

Factory::~Factory() {
  logger_->progress("Factory destroy successfully");
}

DeviceType Factory::classify(const char* device_name) {
  const std::string_view name(device_name);
  if (name.find("Korvan-") != std::string_view::npos || name.find("Tesmik-") != std::string_view::npos) {
    return DeviceType::LT;
  }
  if (name.find("QD7R-FC") != std::string_view::npos) {
    return DeviceType::FC;
  }
  if (name.find("QD7R-LC") != std::string_view::npos) {
    return DeviceType::LC;
  }
  throw std::runtime_error(fmt::format("Unknown device type ({})", name));
}

}  // namespace xpon::system_mgr
