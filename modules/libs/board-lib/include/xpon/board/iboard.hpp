#pragma once

#include "xpon/board/driver_abi.h"
#include "xpon/core/result.hpp"

#include <cstdint>
#include <vector>

namespace xpon::board {

/// Typed access to the board's hardware; every failure of the driver comes back as an error result.
class IBoard {
 public:
  virtual ~IBoard() = default;

  // The order of the operations below is part of the interface; add new ones at the end.

  /// FPGA configuration version.
  virtual core::Result<std::uint8_t> get_fpga_config_version() = 0;
  /// CPLD configuration version, as read when the board object was made.
  virtual core::Result<std::uint8_t> get_cpld_config_version() = 0;
  /// Number of fans of the board, as read when the board object was made.
  virtual core::Result<std::uint8_t> get_fan_count() = 0;
  /// Number of power supplies of the board, as read when the board object was made.
  virtual core::Result<std::uint8_t> get_ps_count() = 0;
  /// Number of temperature sensors of the board, as read when the board object was made.
  virtual core::Result<std::uint8_t> get_temp_count() = 0;
  /// Number of PON ports (P-ports), as read when the board object was made.
  virtual core::Result<std::uint8_t> get_pon_port_count() = 0;
  /// Number of front ports (F-ports), as read when the board object was made.
  virtual core::Result<std::uint8_t> get_front_port_count() = 0;
  /// Whether the front button is pressed now (non-zero = pressed).
  virtual core::Result<std::uint8_t> f_btn__is_pressed() = 0;
  /// Whether the driver watches the front button (non-zero = yes).
  virtual core::Result<std::uint8_t> f_btn__is_pooling_enabled() = 0;
  /// Whether a long press of the front button resets the board (non-zero = yes).
  virtual core::Result<std::uint8_t> f_btn__is_hard_reset_enabled() = 0;
  /// Sets the speed of the board's own fans (the driver's setting unit).
  virtual core::Result<void> set_fan_speed(std::uint8_t speed) = 0;
  /// Applies one front-panel LED command.
  virtual core::Result<void> cntrl_led_panel(const Brd__led& led) = 0;
  /// Switches one element (red or green) of a P-port's LED on or off.
  virtual core::Result<void> p_port__set_led_state(const Brd__p_port_led& led) = 0;
  /// Reads back one element of a P-port's LED; the port and colour are given, the mode is filled.
  virtual core::Result<void> p_port__get_led_state(Brd__p_port_led& led) = 0;
  /// Switches the transmitter of a P-port's SFP module.
  virtual core::Result<void> cntrl_p_port_sfp_trx(Brd__cntrl_sfp_trx& trx) = 0;
  /// Switches the transmitter of an F-port's SFP module.
  virtual core::Result<void> cntrl_f_port_sfp_trx(Brd__cntrl_sfp_trx& trx) = 0;
  /// Reads back the transmitter switch of a P-port's SFP module; the port is given, the flag is filled.
  virtual core::Result<void> get_p_port_sfp_trx(Brd__cntrl_sfp_trx& trx) = 0;
  /// States of all fans of the board, fan 1 first.
  virtual core::Result<std::vector<Brd__fan_info>> get_fan_info() = 0;
  /// States of all power supplies of the board, supply 1 first.
  virtual core::Result<std::vector<Brd__ps_info>> get_ps_info() = 0;
  /// Fills one reading per record of `temps` (sized by the caller), in the board's sensor order.
  virtual core::Result<void> get_temp_info(std::vector<Brd__temp_info>& temps) = 0;
  /// Presence and state of an F-port's SFP module; the port is given in the record.
  virtual core::Result<void> get_f_port_sfp_state(Brd__sfp_state& state) = 0;
  /// Presence and state of a P-port's SFP module; the port is given in the record.
  virtual core::Result<void> get_p_port_sfp_state(Brd__sfp_state& state) = 0;
  /// Identification data of an F-port's SFP module; the port is given in the record.
  virtual core::Result<void> get_f_port_sfp_data(Brd__sfp_data& data) = 0;
  /// Identification data of a P-port's SFP module; the port is given in the record.
  virtual core::Result<void> get_p_port_sfp_data(Brd__sfp_data& data) = 0;
  /// Digital diagnostics of an F-port's SFP module; the port is given in the record.
  virtual core::Result<void> get_f_port_sfp_eddi_data(Brd__sfp_eddi_data& data) = 0;
  /// Digital diagnostics of a P-port's SFP module; the port is given in the record.
  virtual core::Result<void> get_p_port_sfp_eddi_data(Brd__sfp_eddi_data& data) = 0;
  /// Raw received power and calibration coefficients of a P-port's SFP module.
  virtual core::Result<void> get_p_port_sfp_rx_power(Brd__sfp_rx_power& reading) = 0;
  /// Sets the speed of the crate's fan modules (the driver's setting unit).
  virtual core::Result<void> set_fan_module_speed(std::uint8_t speed) = 0;
  /// Factory data of the crate's fan module.
  virtual core::Result<Wake__fan_module__factory> get_fan_module_factory() = 0;
  /// State of the crate's fan module.
  virtual core::Result<Wake__fan_module__data> get_fan_module_state() = 0;
  /// State of the crate's power module.
  virtual core::Result<Wake__pwr_module> get_pwr_module_state() = 0;
  /// Lets the driver watch the front button.
  virtual core::Result<void> f_btn__enable() = 0;
  /// Stops the driver watching the front button.
  virtual core::Result<void> f_btn__disable() = 0;
  /// Lets a long press of the front button reset the board.
  virtual core::Result<void> f_btn__enable_hard_reset() = 0;
  /// Stops a long press of the front button resetting the board.
  virtual core::Result<void> f_btn__disable_hard_reset() = 0;

 protected:
  IBoard() = default;
  IBoard(const IBoard&) = default;
  IBoard& operator=(const IBoard&) = default;
};

}  // namespace xpon::board
