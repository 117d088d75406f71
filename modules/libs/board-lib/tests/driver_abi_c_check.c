/* Compiled as C11: the driver interface must stay usable from C (the driver and C tools include it). */
#include "driver_abi_c_check.h"

#include <stddef.h>

#include "xpon/board/driver_abi.h"

/* The command list as a C translation unit expands it. */
#define BRD_C_REQUEST(command, record) command,
static const unsigned long kRequests[] = {BRD_DRIVER_COMMANDS(BRD_C_REQUEST)};
#undef BRD_C_REQUEST

#define BRD_C_NAME(command, record) #command,
static const char* const kNames[] = {BRD_DRIVER_COMMANDS(BRD_C_NAME)};
#undef BRD_C_NAME

#define BRD_C_SIZE(command, record) sizeof(record),
static const size_t kSizes[] = {BRD_DRIVER_COMMANDS(BRD_C_SIZE)};
#undef BRD_C_SIZE

size_t brd_c_request_count(void) {
  return sizeof kRequests / sizeof kRequests[0];
}

unsigned long brd_c_request(size_t index) {
  return kRequests[index];
}

const char* brd_c_request_name(size_t index) {
  return kNames[index];
}

size_t brd_c_request_record_size(size_t index) {
  return kSizes[index];
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
