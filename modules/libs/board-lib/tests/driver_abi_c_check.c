/* Compiled as C11: the driver interface must stay usable from C (the driver and C tools include it). */
#include "driver_abi_c_check.h"

#include <stddef.h>

#include "xpon/board/driver_abi.h"

static const unsigned long kRequests[] = {
    BOARD_GET_CPLD_VERSION,
    BOARD_GET_FAN_COUNT,
    BOARD_GET_PS_COUNT,
    BOARD_GET_TEMP_COUNT,
    BOARD_GET_PON_PORT_COUNT,
    BOARD_GET_FRONT_PORT_COUNT,
    BOARD_GET_FPGA_VERSION,
    BOARD_F_BTN_IS_PRESSED,
    BOARD_F_BTN_IS_POLLING_ENABLED,
    BOARD_F_BTN_IS_HARD_RESET_ENABLED,
    BOARD_F_BTN_SET_POLLING,
    BOARD_F_BTN_SET_HARD_RESET,
    BOARD_SET_FAN_SPEED,
    BOARD_GET_FAN_INFO,
    BOARD_GET_PS_INFO,
    BOARD_GET_TEMP_INFO,
    BOARD_SET_FAN_MODULE_SPEED,
    BOARD_GET_FAN_MODULE_FACTORY,
    BOARD_GET_FAN_MODULE_STATE,
    BOARD_GET_PWR_MODULE_STATE,
    BOARD_CNTRL_LED_PANEL,
    BOARD_P_PORT_SET_LED_STATE,
    BOARD_P_PORT_GET_LED_STATE,
    BOARD_CNTRL_P_PORT_SFP_TRX,
    BOARD_CNTRL_F_PORT_SFP_TRX,
    BOARD_GET_P_PORT_SFP_TRX,
    BOARD_GET_F_PORT_SFP_STATE,
    BOARD_GET_P_PORT_SFP_STATE,
    BOARD_GET_F_PORT_SFP_DATA,
    BOARD_GET_P_PORT_SFP_DATA,
    BOARD_GET_F_PORT_SFP_EDDI_DATA,
    BOARD_GET_P_PORT_SFP_EDDI_DATA,
    BOARD_GET_P_PORT_SFP_RX_POWER,
};

size_t brd_c_request_count(void) {
  return sizeof kRequests / sizeof kRequests[0];
}

unsigned long brd_c_request(size_t index) {
  return kRequests[index];
}

size_t brd_c_record_size(const char* name) {
  const struct {
    const char* name;
    size_t size;
  } sizes[] = {
      {"Brd__temp_info", sizeof(Brd__temp_info)},
      {"Brd__temp_list", sizeof(Brd__temp_list)},
      {"Brd__fan_info", sizeof(Brd__fan_info)},
      {"Brd__fan_list", sizeof(Brd__fan_list)},
      {"Brd__ps_info", sizeof(Brd__ps_info)},
      {"Brd__ps_list", sizeof(Brd__ps_list)},
      {"Brd__led", sizeof(Brd__led)},
      {"Brd__p_port_led", sizeof(Brd__p_port_led)},
      {"Brd__sfp_state", sizeof(Brd__sfp_state)},
      {"Brd__sfp_data", sizeof(Brd__sfp_data)},
      {"Brd__sfp_eddi_data", sizeof(Brd__sfp_eddi_data)},
      {"Brd__cntrl_sfp_trx", sizeof(Brd__cntrl_sfp_trx)},
      {"Brd__sfp_rx_power", sizeof(Brd__sfp_rx_power)},
      {"Wake__fan_module__data", sizeof(Wake__fan_module__data)},
      {"Wake__fan_module__factory", sizeof(Wake__fan_module__factory)},
      {"Wake__pwr_module", sizeof(Wake__pwr_module)},
  };
  for (size_t index = 0; index < sizeof sizes / sizeof sizes[0]; ++index) {
    const char* left = sizes[index].name;
    const char* right = name;
    while (*left != '\0' && *left == *right) {
      ++left;
      ++right;
    }
    if (*left == *right) {
      return sizes[index].size;
    }
  }
  return 0;
}

size_t brd_c_offset_of_ps_date(void) {
  return offsetof(Brd__ps_info, date);
}

size_t brd_c_offset_of_fan_module_count(void) {
  return offsetof(Wake__fan_module__data, count);
}
