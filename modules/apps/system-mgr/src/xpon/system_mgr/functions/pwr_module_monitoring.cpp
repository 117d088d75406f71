#include "xpon/system_mgr/functions/pwr_module_monitoring.hpp"

#include "xpon/core/guard.hpp"

#include <fmt/format.h>

#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace xpon::system_mgr {

namespace {

// The answer is the driver's record as it stands; clients read it with the api.h layout.
static_assert(sizeof(System_mgr__pwr_module_state) == sizeof(Wake__pwr_module));
static_assert(offsetof(System_mgr__pwr_module_state, temperature) == offsetof(Wake__pwr_module, temperature));
static_assert(offsetof(System_mgr__pwr_module_state, reserved) == offsetof(Wake__pwr_module, reserved));

}  // namespace

PwrModuleMonitoring::PwrModuleMonitoring(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                                         const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb,
                                         const std::shared_ptr<board::IBoard>& board, std::chrono::milliseconds period)
    : SysFunction(logger, ipc, kName, period), logger_(logger), ipc_(ipc), cfgdb_(cfgdb), board_(board) {
  auto updated = core::guarded_call(*logger_, [this] { return cfg_update(); });
  if (!updated) {
    // The trailing blank is part of the system's text.
    throw std::runtime_error(fmt::format("Config update for {} failed ({}) ", kName, updated.error().to_string()));
  }
  declare_routes(
      {{IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE, [this](const ipc::Request& req) { return get_pwr_module_state(req); }}});
  logger_->progress("{} create successfully", kName);
}

PwrModuleMonitoring::~PwrModuleMonitoring() {
  logger_->progress("{} destroy successfully", kName);
}

Result<void> PwrModuleMonitoring::cfg_update() {
  // The place of the power module alarm's configuration: there is nothing to read yet.
  return core::success();
}

Result<void> PwrModuleMonitoring::config_change(const ServiceCtx& /*ctx*/, const std::vector<Config_change>& changes) {
  return apply_config_changes(changes, {{kConfigSection, [this] { return cfg_update(); }}});
}

Result<void> PwrModuleMonitoring::master_change(const ServiceCtx& /*ctx*/) {
  return core::success();
}

Result<void> PwrModuleMonitoring::polling() {
  // Empty on purpose, and a success rather than Error::NotImplemented: the polling thread is
  // started and wakes every period for this poll that does nothing.
  return core::success();
}

Result<void> PwrModuleMonitoring::get_pwr_module_state(const ipc::Request& request) {
  // The request's payload is ignored: the request carries no argument.
  auto state = core::guarded_call(*logger_, [this] { return board_->get_pwr_module_state(); });
  if (!state) {
    // The board's error is dropped without a log line; the requester gets the error response.
    return send_error_response(request);
  }
  ipc::Payload payload(sizeof(Wake__pwr_module));
  std::memcpy(payload.data(), &state.value(), sizeof(Wake__pwr_module));
  // Without reply information this throws std::bad_optional_access out of the handler, after
  // the board was read, as designed: the IPC library's dispatcher deals with it.
  return answer_request(request, std::move(payload));
}

}  // namespace xpon::system_mgr
