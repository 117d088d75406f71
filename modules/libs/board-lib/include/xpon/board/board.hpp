#pragma once

#include "xpon/board/driver_abi.h"
#include "xpon/board/iboard.hpp"
#include "xpon/board/posix_wrapper.hpp"
#include "xpon/core/result.hpp"
#include "xpon/logger/ilogger.hpp"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <source_location>
#include <string>
#include <vector>

namespace xpon::board {

/// How the board object gets the device back after it went away (a driver reload, an emulator restart).
struct BoardOptions {
  /// The shortest time between two attempts to reopen a lost device.
  std::chrono::milliseconds reopen_interval{250};
  /// The clock that interval is measured on.
  std::function<std::chrono::steady_clock::time_point()> now = [] { return std::chrono::steady_clock::now(); };
};

/// Logged once when a call finds the device gone, filled with the system's text of the errno.
inline constexpr const char* kBoardDeviceLostText = "Board device /dev/board lost ({}); reopening it";
/// Logged once when a reopen has brought the device back.
inline constexpr const char* kBoardDeviceBackText = "Board device /dev/board reopened";

/// True for the errno values of a call that reached no driver: the device is gone (ENODEV, ENXIO),
/// its server went away (ENOTCONN) or there is no descriptor (EBADF).
[[nodiscard]] bool device_lost(int error_number) noexcept;

/// The board object over the board driver; shared by every system function and safe to call from any thread.
class Board : public IBoard {
 public:
  /// Takes the wrapper over and reads the six inventory values; throws std::runtime_error when one cannot be read.
  Board(const std::shared_ptr<logger::ILogger>& logger, std::unique_ptr<IPosixWrapper> posix);

  /// As above, with the given reopening of a lost device.
  Board(const std::shared_ptr<logger::ILogger>& logger, std::unique_ptr<IPosixWrapper> posix, BoardOptions options);

  /// Logs the destruction, then lets the wrapper close the device.
  ~Board() override;

  Board(const Board&) = delete;
  Board& operator=(const Board&) = delete;

  core::Result<std::uint8_t> get_fpga_config_version() override;
  core::Result<std::uint8_t> get_cpld_config_version() override;
  core::Result<std::uint8_t> get_fan_count() override;
  core::Result<std::uint8_t> get_ps_count() override;
  core::Result<std::uint8_t> get_temp_count() override;
  core::Result<std::uint8_t> get_pon_port_count() override;
  core::Result<std::uint8_t> get_front_port_count() override;
  core::Result<std::uint8_t> f_btn__is_pressed() override;
  core::Result<std::uint8_t> f_btn__is_pooling_enabled() override;
  core::Result<std::uint8_t> f_btn__is_hard_reset_enabled() override;
  core::Result<void> set_fan_speed(std::uint8_t speed) override;
  core::Result<void> cntrl_led_panel(const Brd__led& led) override;
  core::Result<void> p_port__set_led_state(const Brd__p_port_led& led) override;
  core::Result<void> p_port__get_led_state(Brd__p_port_led& led) override;
  core::Result<void> cntrl_p_port_sfp_trx(Brd__cntrl_sfp_trx& trx) override;
  core::Result<void> cntrl_f_port_sfp_trx(Brd__cntrl_sfp_trx& trx) override;
  core::Result<void> get_p_port_sfp_trx(Brd__cntrl_sfp_trx& trx) override;
  core::Result<std::vector<Brd__fan_info>> get_fan_info() override;
  core::Result<std::vector<Brd__ps_info>> get_ps_info() override;
  core::Result<void> get_temp_info(std::vector<Brd__temp_info>& temps) override;
  core::Result<void> get_f_port_sfp_state(Brd__sfp_state& state) override;
  core::Result<void> get_p_port_sfp_state(Brd__sfp_state& state) override;
  core::Result<void> get_f_port_sfp_data(Brd__sfp_data& data) override;
  core::Result<void> get_p_port_sfp_data(Brd__sfp_data& data) override;
  core::Result<void> get_f_port_sfp_eddi_data(Brd__sfp_eddi_data& data) override;
  core::Result<void> get_p_port_sfp_eddi_data(Brd__sfp_eddi_data& data) override;
  core::Result<void> get_p_port_sfp_rx_power(Brd__sfp_rx_power& reading) override;
  core::Result<void> set_fan_module_speed(std::uint8_t speed) override;
  core::Result<Wake__fan_module__factory> get_fan_module_factory() override;
  core::Result<Wake__fan_module__data> get_fan_module_state() override;
  core::Result<Wake__pwr_module> get_pwr_module_state() override;
  core::Result<void> f_btn__enable() override;
  core::Result<void> f_btn__disable() override;
  core::Result<void> f_btn__enable_hard_reset() override;
  core::Result<void> f_btn__disable_hard_reset() override;

  /// Issues one read command whose argument is one T and returns what the driver filled in.
  template <typename T>
  core::Result<T> do_ioctl(unsigned long request, const std::source_location& where = std::source_location::current()) {
    T value{};
    auto issued = issue(request, &value, sizeof value, where);
    if (issued.has_error()) {
      return issued.error();
    }
    return value;
  }

 private:
  // Every driver call goes through here, under the mutex: the descriptor is shared by all threads.
  core::Result<void> issue(unsigned long request, void* argument, std::size_t size, const std::source_location& where);

  // After a call that reached no driver: at most one reopen, and no sooner than the interval after
  // the last one; true when the device is open again. Called under the mutex.
  bool recover(int error_number);

  // One command on a caller's record, with exceptions of the wrapper turned into Error::Exception.
  template <typename T>
  core::Result<void> exchange(unsigned long request, T& record,
                              const std::source_location& where = std::source_location::current());

  // A one-byte read command, with exceptions of the wrapper turned into Error::Exception.
  core::Result<std::uint8_t> read_byte(unsigned long request,
                                       const std::source_location& where = std::source_location::current());

  // A one-byte write command.
  core::Result<void> write_byte(unsigned long request, std::uint8_t value,
                                const std::source_location& where = std::source_location::current());

  std::shared_ptr<logger::ILogger> logger_;
  std::unique_ptr<IPosixWrapper> posix_;
  std::mutex mutex_;
  std::uint8_t cpld_version_ = 0;
  std::uint8_t fan_count_ = 0;
  std::uint8_t ps_count_ = 0;
  std::uint8_t temp_count_ = 0;
  std::uint8_t pon_port_count_ = 0;
  std::uint8_t front_port_count_ = 0;
  BoardOptions options_;
  // A device lost during start-up is not reopened: a failed inventory read ends the start-up.
  bool inventory_read_ = false;
  // The outage state, under the mutex: whether the loss was logged, and when a reopen was last tried.
  bool device_lost_ = false;
  std::optional<std::chrono::steady_clock::time_point> last_reopen_;
};

/// The name of a board command ("BOARD_GET_FAN_INFO"), or its code in hex when it is not one of ours.
std::string board_command_name(unsigned long request);

}  // namespace xpon::board
