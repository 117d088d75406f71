#pragma once

#include "xpon/board/driver_abi.h"
#include "xpon/core/result.hpp"

#include <cstdint>
#include <vector>

namespace xpon::board {

/// Every operation of IBoard below, in the interface's order, as X(operation, command, data):
/// `command` is the driver command (from BRD_DRIVER_COMMANDS) the operation issues, or for the
/// inventory operations the one whose answer, read when the board object was made, it returns;
/// `data` is the type of what the operation reads back, void for the operations that only act.
/// The test doubles of the board are generated from this list.
#define XPON_BOARD_OPERATIONS(X)                                                     \
  X(get_fpga_config_version, BOARD_GET_FPGA_VERSION, std::uint8_t)                   \
  X(get_cpld_config_version, BOARD_GET_CPLD_VERSION, std::uint8_t)                   \
  X(get_fan_count, BOARD_GET_FAN_COUNT, std::uint8_t)                                \
  X(get_ps_count, BOARD_GET_PS_COUNT, std::uint8_t)                                  \
  X(get_temp_count, BOARD_GET_TEMP_COUNT, std::uint8_t)                              \
  X(get_pon_port_count, BOARD_GET_PON_PORT_COUNT, std::uint8_t)                      \
  X(get_front_port_count, BOARD_GET_FRONT_PORT_COUNT, std::uint8_t)                  \
  X(f_btn__is_pressed, BOARD_F_BTN_IS_PRESSED, std::uint8_t)                         \
  X(f_btn__is_pooling_enabled, BOARD_F_BTN_IS_POLLING_ENABLED, std::uint8_t)         \
  X(f_btn__is_hard_reset_enabled, BOARD_F_BTN_IS_HARD_RESET_ENABLED, std::uint8_t)   \
  X(set_fan_speed, BOARD_SET_FAN_SPEED, void)                                        \
  X(cntrl_led_panel, BOARD_CNTRL_LED_PANEL, void)                                    \
  X(p_port__set_led_state, BOARD_P_PORT_SET_LED_STATE, void)                         \
  X(p_port__get_led_state, BOARD_P_PORT_GET_LED_STATE, Brd__p_port_led)              \
  X(cntrl_p_port_sfp_trx, BOARD_CNTRL_P_PORT_SFP_TRX, void)                          \
  X(cntrl_f_port_sfp_trx, BOARD_CNTRL_F_PORT_SFP_TRX, void)                          \
  X(get_p_port_sfp_trx, BOARD_GET_P_PORT_SFP_TRX, Brd__cntrl_sfp_trx)                \
  X(get_fan_info, BOARD_GET_FAN_INFO, std::vector<Brd__fan_info>)                    \
  X(get_ps_info, BOARD_GET_PS_INFO, std::vector<Brd__ps_info>)                       \
  X(get_temp_info, BOARD_GET_TEMP_INFO, std::vector<Brd__temp_info>)                 \
  X(get_f_port_sfp_state, BOARD_GET_F_PORT_SFP_STATE, Brd__sfp_state)                \
  X(get_p_port_sfp_state, BOARD_GET_P_PORT_SFP_STATE, Brd__sfp_state)                \
  X(get_f_port_sfp_data, BOARD_GET_F_PORT_SFP_DATA, Brd__sfp_data)                   \
  X(get_p_port_sfp_data, BOARD_GET_P_PORT_SFP_DATA, Brd__sfp_data)                   \
  X(get_f_port_sfp_eddi_data, BOARD_GET_F_PORT_SFP_EDDI_DATA, Brd__sfp_eddi_data)    \
  X(get_p_port_sfp_eddi_data, BOARD_GET_P_PORT_SFP_EDDI_DATA, Brd__sfp_eddi_data)    \
  X(get_p_port_sfp_rx_power, BOARD_GET_P_PORT_SFP_RX_POWER, Brd__sfp_rx_power)       \
  X(set_fan_module_speed, BOARD_SET_FAN_MODULE_SPEED, void)                          \
  X(get_fan_module_factory, BOARD_GET_FAN_MODULE_FACTORY, Wake__fan_module__factory) \
  X(get_fan_module_state, BOARD_GET_FAN_MODULE_STATE, Wake__fan_module__data)        \
  X(get_pwr_module_state, BOARD_GET_PWR_MODULE_STATE, Wake__pwr_module)              \
  X(f_btn__enable, BOARD_F_BTN_SET_POLLING, void)                                    \
  X(f_btn__disable, BOARD_F_BTN_SET_POLLING, void)                                   \
  X(f_btn__enable_hard_reset, BOARD_F_BTN_SET_HARD_RESET, void)                      \
  X(f_btn__disable_hard_reset, BOARD_F_BTN_SET_HARD_RESET, void)

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
