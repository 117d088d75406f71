#pragma once

#include "xpon/board/iboard.hpp"
#include "xpon/ipc/ipc.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/system_mgr/functions/base.hpp"

#include <memory>
#include <string_view>
#include <vector>

namespace xpon::system_mgr {

/// Sets the LEDs of the board's front panel for the other daemons: the LED command record of a
/// request goes to the board driver as it stands. Never polls and reads no configuration.
class LedPanelCntrl : public SysFunction {
 public:
  /// The function's name, as logged and as it appears in messages.
  static constexpr std::string_view kName = "LedPanelCntrl";

  LedPanelCntrl(const std::shared_ptr<ILogger>& logger, const std::shared_ptr<IIpc>& ipc,
                const std::shared_ptr<board::IBoard>& board);
  ~LedPanelCntrl() override;
  LedPanelCntrl(const LedPanelCntrl&) = delete;
  LedPanelCntrl& operator=(const LedPanelCntrl&) = delete;
  LedPanelCntrl(LedPanelCntrl&&) = delete;
  LedPanelCntrl& operator=(LedPanelCntrl&&) = delete;

 private:
  Result<void> cntrl_led_panel(const ipc::Request& request);

  // The function's own copies of the shared objects; the base keeps its own as well.
  std::shared_ptr<ILogger> logger_;
  std::shared_ptr<IIpc> ipc_;
  std::shared_ptr<board::IBoard> board_;
};

}  // namespace xpon::system_mgr
