#pragma once

#include <array>
#include <string_view>

namespace xpon::test {

/// One command of the board driver as drivers and emulators built against earlier copies of its
/// header know it: its name and its exact request code.
struct PublishedDriverCommand {
  std::string_view name;
  unsigned long request;
};

/// Every command of the driver, in the order of its header, written out by hand: the tests compare
/// what is generated from the driver's command list with it, so no name or code can drift.
inline constexpr std::array<PublishedDriverCommand, 33> kPublishedDriverCommands{{
    {"BOARD_GET_CPLD_VERSION", 0x80014C21UL},
    {"BOARD_GET_FAN_COUNT", 0x80014C22UL},
    {"BOARD_GET_PS_COUNT", 0x80014C23UL},
    {"BOARD_GET_TEMP_COUNT", 0x80014C24UL},
    {"BOARD_GET_PON_PORT_COUNT", 0x80014C25UL},
    {"BOARD_GET_FRONT_PORT_COUNT", 0x80014C26UL},
    {"BOARD_GET_FPGA_VERSION", 0x80014C27UL},
    {"BOARD_F_BTN_IS_PRESSED", 0x80014C30UL},
    {"BOARD_F_BTN_IS_POLLING_ENABLED", 0x80014C31UL},
    {"BOARD_F_BTN_IS_HARD_RESET_ENABLED", 0x80014C32UL},
    {"BOARD_F_BTN_SET_POLLING", 0x40014C33UL},
    {"BOARD_F_BTN_SET_HARD_RESET", 0x40014C34UL},
    {"BOARD_SET_FAN_SPEED", 0x40014C40UL},
    {"BOARD_GET_FAN_INFO", 0xC0444C41UL},
    {"BOARD_GET_PS_INFO", 0xC2444C42UL},
    {"BOARD_GET_TEMP_INFO", 0xC0844C43UL},
    {"BOARD_SET_FAN_MODULE_SPEED", 0x40014C48UL},
    {"BOARD_GET_FAN_MODULE_FACTORY", 0x802A4C49UL},
    {"BOARD_GET_FAN_MODULE_STATE", 0x80324C4AUL},
    {"BOARD_GET_PWR_MODULE_STATE", 0x80144C4BUL},
    {"BOARD_CNTRL_LED_PANEL", 0x400C4C50UL},
    {"BOARD_P_PORT_SET_LED_STATE", 0x400C4C51UL},
    {"BOARD_P_PORT_GET_LED_STATE", 0xC00C4C52UL},
    {"BOARD_CNTRL_P_PORT_SFP_TRX", 0x40084C60UL},
    {"BOARD_CNTRL_F_PORT_SFP_TRX", 0x40084C61UL},
    {"BOARD_GET_P_PORT_SFP_TRX", 0xC0084C62UL},
    {"BOARD_GET_F_PORT_SFP_STATE", 0xC0084C63UL},
    {"BOARD_GET_P_PORT_SFP_STATE", 0xC0084C64UL},
    {"BOARD_GET_F_PORT_SFP_DATA", 0xC0404C65UL},
    {"BOARD_GET_P_PORT_SFP_DATA", 0xC0404C66UL},
    {"BOARD_GET_F_PORT_SFP_EDDI_DATA", 0xC0244C67UL},
    {"BOARD_GET_P_PORT_SFP_EDDI_DATA", 0xC0244C68UL},
    {"BOARD_GET_P_PORT_SFP_RX_POWER", 0xC01C4C69UL},
}};

}  // namespace xpon::test
