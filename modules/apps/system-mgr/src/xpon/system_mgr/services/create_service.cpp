#include "xpon/system_mgr/services/create_service.hpp"

#include "xpon/system_mgr/services/fc_service.hpp"
#include "xpon/system_mgr/services/lc_service.hpp"
#include "xpon/system_mgr/services/lt_service.hpp"

#include <fmt/format.h>

#include <exception>
#include <string_view>

namespace xpon::system_mgr {

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
