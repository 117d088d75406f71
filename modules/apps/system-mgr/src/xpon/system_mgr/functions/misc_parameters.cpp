#include "xpon/system_mgr/functions/misc_parameters.hpp"

#include "xpon/core/guard.hpp"

#include <fmt/format.h>

#include <chrono>
#include <cstring>
#include <initializer_list>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace xpon::system_mgr {

namespace {

using core::Error;
using core::ErrorPayload;

// The P-port LED selector of the driver: the red element, then the green one.
constexpr std::uint32_t kRedLed = BRD_API__LED_COLOR_RED;
constexpr std::uint32_t kGreenLed = BRD_API__LED_COLOR_GREEN;

}  // namespace

MiscParameters::MiscParameters(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                               const std::shared_ptr<board::IBoard>& board)
    // The period is never used: the function has no polling thread.
    : SysFunction(logger, ipc, kName, std::chrono::milliseconds(0)), logger_(logger), ipc_(ipc), board_(board) {
  std::memset(&device_factory_, 0, sizeof device_factory_);
  std::memset(&crate_factory_, 0, sizeof crate_factory_);
  auto fpga = read_version(&board::IBoard::get_fpga_config_version);
  if (!fpga) {
    // The trailing blank is part of the system's text.
    throw std::runtime_error(
        fmt::format("Get FPGA Config version for {} failed ({}) ", kName, fpga.error().to_string()));
  }
  fpga_version_ = fpga.value();
  auto cpld = read_version(&board::IBoard::get_cpld_config_version);
  if (!cpld) {
    throw std::runtime_error(
        fmt::format("Get CPLD Config version for {} failed ({}) ", kName, cpld.error().to_string()));
  }
  cpld_version_ = cpld.value();
  using board::IBoard;
  declare_routes(
      {{IPC_SYSTEM_MGR__GET_DEVICE_FACTORY,
        [this](const ipc::Request& req) { return get_factory(req, device_factory_); }},
       {IPC_SYSTEM_MGR__GET_CRATE_FACTORY, [this](const ipc::Request& req) { return get_crate_factory(req); }},
       // The versions read at construction: the hardware is not asked again.
       {IPC_SYSTEM_MGR__GET_FPGA_VERSION, [this](const ipc::Request& req) { return answer(req, {fpga_version_}); }},
       {IPC_SYSTEM_MGR__GET_CPLD_VERSION, [this](const ipc::Request& req) { return answer(req, {cpld_version_}); }},
       {IPC_SYSTEM_MGR__ENABLE_F_BUTTON,
        [this](const ipc::Request& req) { return f_btn_call(req, &IBoard::f_btn__enable, "f_btn__enable"); }},
       {IPC_SYSTEM_MGR__ENABLE_F_BUTTON_HARD_RESET,
        [this](const ipc::Request& req) {
          return f_btn_call(req, &IBoard::f_btn__enable_hard_reset, "f_btn__enable_hard_reset");
        }},
       {IPC_SYSTEM_MGR__DISABLE_F_BUTTON,
        [this](const ipc::Request& req) { return f_btn_call(req, &IBoard::f_btn__disable, "f_btn__disable"); }},
       {IPC_SYSTEM_MGR__DISABLE_F_BUTTON_HARD_RESET,
        [this](const ipc::Request& req) {
          return f_btn_call(req, &IBoard::f_btn__disable_hard_reset, "f_btn__disable_hard_reset");
        }},
       // The operation is named "pooling", as the board interface names it.
       {IPC_SYSTEM_MGR__IS_F_BUTTON_ENABLED,
        [this](const ipc::Request& req) {
          return f_btn_call(req, &IBoard::f_btn__is_pooling_enabled, "f_btn__is_pooling_enabled");
        }},
       {IPC_SYSTEM_MGR__IS_F_BUTTON_HARD_RESET_ENABLED,
        [this](const ipc::Request& req) {
          return f_btn_call(req, &IBoard::f_btn__is_hard_reset_enabled, "f_btn__is_hard_reset_enabled");
        }},
       {IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED,
        [this](const ipc::Request& req) { return f_btn_call(req, &IBoard::f_btn__is_pressed, "f_btn__is_pressed"); }},
       {IPC_SYSTEM_MGR__P_PORT_R_LED_ON_G_LED_OFF,
        [this](const ipc::Request& req) {
          return p_port_led_handlers(req, BRD_API__LED_MODE_ON, BRD_API__LED_MODE_OFF);
        }},
       {IPC_SYSTEM_MGR__P_PORT_G_LED_ON_R_LED_OFF,
        [this](const ipc::Request& req) {
          return p_port_led_handlers(req, BRD_API__LED_MODE_OFF, BRD_API__LED_MODE_ON);
        }},
       {IPC_SYSTEM_MGR__P_PORT_LED_OFF, [this](const ipc::Request& req) {
          return p_port_led_handlers(req, BRD_API__LED_MODE_OFF, BRD_API__LED_MODE_OFF);
        }}});
  logger_->progress("{} create successfully", kName);
}

MiscParameters::~MiscParameters() {
  logger_->progress("{} destroy successfully", kName);
}

Result<std::uint8_t> MiscParameters::read_version(Result<std::uint8_t> (board::IBoard::*read)()) {
  if (!board_) {
    return ErrorPayload(Error::InvalidInputArg, "no board");
  }
  return core::guarded_call(*logger_, [this, read] { return ((*board_).*read)(); });
}

Result<void> MiscParameters::answer(const ipc::Request& request, ipc::Payload payload) {
  // A request without reply information makes send_answer throw; the guard turns that into
  // Error::Exception.
  auto sent = core::guarded_call(*logger_, [&] { return send_answer(request, std::move(payload)); });
  if (!sent) {
    return core::propagate(*logger_, std::move(sent));
  }
  return core::success();
}

Result<void> MiscParameters::get_factory(const ipc::Request& request, const System_mgr__factory& record) {
  ipc::Payload payload(sizeof record);
  std::memcpy(payload.data(), &record, sizeof record);
  return answer(request, std::move(payload));
}

Result<void> MiscParameters::get_crate_factory(const ipc::Request& request) {
  const std::uint32_t family = device_factory_.family;
  if (family != SYSTEM_MGR_FAMILY_FC) {
    logger_->error("Crate Factory available only FC device family. Actual device family id is {}", family);
    return send_error_response(request);
  }
  return get_factory(request, crate_factory_);
}

template <typename Value>
Result<void> MiscParameters::f_btn_call(const ipc::Request& request, Result<Value> (board::IBoard::*call)(),
                                        std::string_view operation) {
  auto done = core::guarded_call(*logger_, [this, call] { return ((*board_).*call)(); });
  if (!done) {
    logger_->error("{}() call failed ({})", operation, done.error().to_string());
    return send_error_response(request);
  }
  // A command answers nothing, a query the byte the board gave.
  if constexpr (std::is_void_v<Value>) {
    return answer(request, {});
  } else {
    return answer(request, {done.value()});
  }
}

Result<void> MiscParameters::p_port_led_handlers(const ipc::Request& request, Brd_api__led_mode red,
                                                 Brd_api__led_mode green) {
  std::uint32_t port = 0;
  if (request.payload.size() < sizeof port) {
    // Refused before the board is asked anything.
    return send_error_response(request);
  }
  // The port number is the first four bytes; anything after them is ignored.
  std::memcpy(&port, request.payload.data(), sizeof port);
  for (const Brd__p_port_led led : {Brd__p_port_led{port, static_cast<std::uint32_t>(red), kRedLed},
                                    Brd__p_port_led{port, static_cast<std::uint32_t>(green), kGreenLed}}) {
    auto set = core::guarded_call(*logger_, [this, &led] { return board_->p_port__set_led_state(led); });
    if (!set) {
      // A failed red call leaves the green element alone.
      logger_->error("p_port__set_led_state() call failed ({})", set.error().to_string());
      return send_error_response(request);
    }
  }
  return answer(request, {});
}

}  // namespace xpon::system_mgr
