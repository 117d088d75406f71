#include "xpon/service/service.hpp"

namespace xpon::service {

Result<void> ServiceBase::run(const ServiceCtx& /*ctx*/) {
  if (running_) {
    return core::ErrorPayload(core::Error::Already, "service is already running");
  }
  running_ = true;
  return core::success();
}

Result<void> ServiceBase::stop(const ServiceCtx& /*ctx*/) {
  running_ = false;
  return core::success();
}

Result<void> ServiceBase::config_change(const ServiceCtx& /*ctx*/, const std::vector<Config_change>& /*changes*/) {
  return core::success();
}

Result<void> ServiceBase::master_change(const ServiceCtx& /*ctx*/) {
  return core::success();
}

Result<void> ServiceBase::health_check(const ServiceCtx& /*ctx*/) {
  return core::success();
}

Result<void> ServiceBaseKorvan::master_change(const ServiceCtx& /*ctx*/) {
  return core::success();
}

}  // namespace xpon::service
