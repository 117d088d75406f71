#include "xpon/system_mgr/factory.hpp"

#include "xpon/logger/logger.hpp"
#include "xpon/system_mgr/services/fc_service.hpp"
#include "xpon/system_mgr/services/lc_service.hpp"
#include "xpon/system_mgr/services/lt_service.hpp"

#include <fmt/format.h>

#include <cstring>
#include <exception>
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

namespace {

template <typename Service>
core::Result<std::unique_ptr<service::IService>> make_service(std::string_view service_name,
                                                              const std::shared_ptr<logger::ILogger>& logger,
                                                              const std::shared_ptr<ipc::IIpc>& ipc,
                                                              const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb,
                                                              const std::shared_ptr<board::IBoard>& board) {
  try {
    return std::unique_ptr<service::IService>(std::make_unique<Service>(logger, ipc, cfgdb, board));
  } catch (const std::exception& exception) {
    return core::ErrorPayload(core::Error::Exception,
                              fmt::format("Exception on create {}: {}.", service_name, exception.what()));
  } catch (...) {
    return core::ErrorPayload(core::Error::Exception, fmt::format("Unknown exception on create {}", service_name));
  }
}

}  // namespace

core::Result<std::unique_ptr<service::IService>> create_service(const std::shared_ptr<logger::ILogger>& logger,
                                                                const std::shared_ptr<ipc::IIpc>& ipc,
                                                                const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb,
                                                                const std::shared_ptr<IFactory>& factory,
                                                                const std::shared_ptr<board::IBoard>& board) {
  switch (factory->device_type()) {
    case DeviceType::LC:
      return make_service<LcService>("LcService", logger, ipc, cfgdb, board);
    case DeviceType::FC:
      return make_service<FcService>("FcService", logger, ipc, cfgdb, board);
    case DeviceType::LT:
      return make_service<LtService>("LtService", logger, ipc, cfgdb, board);
  }
  return core::ErrorPayload(core::Error::CommonError, "Unknown device type");
}

}  // namespace xpon::system_mgr
