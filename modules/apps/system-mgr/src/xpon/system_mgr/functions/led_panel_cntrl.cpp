#include "xpon/system_mgr/functions/led_panel_cntrl.hpp"

#include "xpon/core/guard.hpp"

#include <chrono>
#include <cstring>

namespace xpon::system_mgr {

LedPanelCntrl::LedPanelCntrl(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                             const std::shared_ptr<board::IBoard>& board)
    // The period is never used: the function has no polling thread.
    : SysFunction(logger, ipc, kName, std::chrono::milliseconds(0)), logger_(logger), ipc_(ipc), board_(board) {
  declare_routes({{IPC_SYSTEM_MGR__CNTRL_LED_PANEL, [this](const ipc::Request& req) { return cntrl_led_panel(req); }}});
  logger_->progress("{} create successfully", kName);
}

LedPanelCntrl::~LedPanelCntrl() {
  logger_->progress("{} destroy successfully", kName);
}

Result<void> LedPanelCntrl::cntrl_led_panel(const ipc::Request& request) {
  Brd__led led;
  if (request.payload.size() < sizeof led) {
    // Refused before the board is asked anything. The reply information is read unguarded, as
    // on every path of this request: without it the handler leaves by std::bad_optional_access.
    static_cast<void>(request.reply_to.value());
    return send_error_response(request);
  }
  // The record goes to the driver as it stands; bytes after it are ignored.
  std::memcpy(&led, request.payload.data(), sizeof led);
  auto applied = core::guarded_call(*logger_, [this, &led] { return board_->cntrl_led_panel(led); });
  if (!applied) {
    // Deliberately dropped without a log line: the requester gets the error response.
    static_cast<void>(request.reply_to.value());
    return send_error_response(request);
  }
  // A request without reply information throws out of the handler here, after the board call.
  return answer_request(request, {});
}

}  // namespace xpon::system_mgr
