#include "xpon/board/driver_abi.h"

#include "driver_abi_c_check.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <set>
#include <string>
#include <vector>

namespace {

struct Command {
  const char* name;
  unsigned long request;
  unsigned direction;
  std::size_t size;
};

// Every command in the order of the header, with the direction and size a driver must honour.
const std::vector<Command>& commands() {
  static const std::vector<Command> all{
      {"BOARD_GET_CPLD_VERSION", BOARD_GET_CPLD_VERSION, _IOC_READ, 1},
      {"BOARD_GET_FAN_COUNT", BOARD_GET_FAN_COUNT, _IOC_READ, 1},
      {"BOARD_GET_PS_COUNT", BOARD_GET_PS_COUNT, _IOC_READ, 1},
      {"BOARD_GET_TEMP_COUNT", BOARD_GET_TEMP_COUNT, _IOC_READ, 1},
      {"BOARD_GET_PON_PORT_COUNT", BOARD_GET_PON_PORT_COUNT, _IOC_READ, 1},
      {"BOARD_GET_FRONT_PORT_COUNT", BOARD_GET_FRONT_PORT_COUNT, _IOC_READ, 1},
      {"BOARD_GET_FPGA_VERSION", BOARD_GET_FPGA_VERSION, _IOC_READ, 1},
      {"BOARD_F_BTN_IS_PRESSED", BOARD_F_BTN_IS_PRESSED, _IOC_READ, 1},
      {"BOARD_F_BTN_IS_POLLING_ENABLED", BOARD_F_BTN_IS_POLLING_ENABLED, _IOC_READ, 1},
      {"BOARD_F_BTN_IS_HARD_RESET_ENABLED", BOARD_F_BTN_IS_HARD_RESET_ENABLED, _IOC_READ, 1},
      {"BOARD_F_BTN_SET_POLLING", BOARD_F_BTN_SET_POLLING, _IOC_WRITE, 1},
      {"BOARD_F_BTN_SET_HARD_RESET", BOARD_F_BTN_SET_HARD_RESET, _IOC_WRITE, 1},
      {"BOARD_SET_FAN_SPEED", BOARD_SET_FAN_SPEED, _IOC_WRITE, 1},
      {"BOARD_GET_FAN_INFO", BOARD_GET_FAN_INFO, _IOC_READ | _IOC_WRITE, 68},
      {"BOARD_GET_PS_INFO", BOARD_GET_PS_INFO, _IOC_READ | _IOC_WRITE, 580},
      {"BOARD_GET_TEMP_INFO", BOARD_GET_TEMP_INFO, _IOC_READ | _IOC_WRITE, 132},
      {"BOARD_SET_FAN_MODULE_SPEED", BOARD_SET_FAN_MODULE_SPEED, _IOC_WRITE, 1},
      {"BOARD_GET_FAN_MODULE_FACTORY", BOARD_GET_FAN_MODULE_FACTORY, _IOC_READ, 42},
      {"BOARD_GET_FAN_MODULE_STATE", BOARD_GET_FAN_MODULE_STATE, _IOC_READ, 50},
      {"BOARD_GET_PWR_MODULE_STATE", BOARD_GET_PWR_MODULE_STATE, _IOC_READ, 20},
      {"BOARD_CNTRL_LED_PANEL", BOARD_CNTRL_LED_PANEL, _IOC_WRITE, 12},
      {"BOARD_P_PORT_SET_LED_STATE", BOARD_P_PORT_SET_LED_STATE, _IOC_WRITE, 12},
      {"BOARD_P_PORT_GET_LED_STATE", BOARD_P_PORT_GET_LED_STATE, _IOC_READ | _IOC_WRITE, 12},
      {"BOARD_CNTRL_P_PORT_SFP_TRX", BOARD_CNTRL_P_PORT_SFP_TRX, _IOC_WRITE, 8},
      {"BOARD_CNTRL_F_PORT_SFP_TRX", BOARD_CNTRL_F_PORT_SFP_TRX, _IOC_WRITE, 8},
      {"BOARD_GET_P_PORT_SFP_TRX", BOARD_GET_P_PORT_SFP_TRX, _IOC_READ | _IOC_WRITE, 8},
      {"BOARD_GET_F_PORT_SFP_STATE", BOARD_GET_F_PORT_SFP_STATE, _IOC_READ | _IOC_WRITE, 8},
      {"BOARD_GET_P_PORT_SFP_STATE", BOARD_GET_P_PORT_SFP_STATE, _IOC_READ | _IOC_WRITE, 8},
      {"BOARD_GET_F_PORT_SFP_DATA", BOARD_GET_F_PORT_SFP_DATA, _IOC_READ | _IOC_WRITE, 64},
      {"BOARD_GET_P_PORT_SFP_DATA", BOARD_GET_P_PORT_SFP_DATA, _IOC_READ | _IOC_WRITE, 64},
      {"BOARD_GET_F_PORT_SFP_EDDI_DATA", BOARD_GET_F_PORT_SFP_EDDI_DATA, _IOC_READ | _IOC_WRITE, 36},
      {"BOARD_GET_P_PORT_SFP_EDDI_DATA", BOARD_GET_P_PORT_SFP_EDDI_DATA, _IOC_READ | _IOC_WRITE, 36},
      {"BOARD_GET_P_PORT_SFP_RX_POWER", BOARD_GET_P_PORT_SFP_RX_POWER, _IOC_READ | _IOC_WRITE, 28},
  };
  return all;
}

TEST(DriverAbiTest, InventoryCommandsHaveTheDriversFixedCodes) {
  EXPECT_EQ(BOARD_GET_CPLD_VERSION, 0x80014C21UL);
  EXPECT_EQ(BOARD_GET_FAN_COUNT, 0x80014C22UL);
  EXPECT_EQ(BOARD_GET_PS_COUNT, 0x80014C23UL);
  EXPECT_EQ(BOARD_GET_TEMP_COUNT, 0x80014C24UL);
  EXPECT_EQ(BOARD_GET_PON_PORT_COUNT, 0x80014C25UL);
  EXPECT_EQ(BOARD_GET_FRONT_PORT_COUNT, 0x80014C26UL);
}

// Drivers and emulators built against earlier copies of the header depend on these exact values.
TEST(DriverAbiTest, EveryCommandKeepsItsPublishedCode) {
  const std::vector<unsigned long> published{
      0x80014C21, 0x80014C22, 0x80014C23, 0x80014C24, 0x80014C25, 0x80014C26, 0x80014C27, 0x80014C30, 0x80014C31,
      0x80014C32, 0x40014C33, 0x40014C34, 0x40014C40, 0xC0444C41, 0xC2444C42, 0xC0844C43, 0x40014C48, 0x802A4C49,
      0x80324C4A, 0x80144C4B, 0x400C4C50, 0x400C4C51, 0xC00C4C52, 0x40084C60, 0x40084C61, 0xC0084C62, 0xC0084C63,
      0xC0084C64, 0xC0404C65, 0xC0404C66, 0xC0244C67, 0xC0244C68, 0xC01C4C69,
  };
  ASSERT_EQ(published.size(), commands().size());
  for (std::size_t index = 0; index < published.size(); ++index) {
    EXPECT_EQ(commands()[index].request, published[index]) << commands()[index].name;
  }
}

TEST(DriverAbiTest, EveryCommandHasTypeLAndItsDirectionAndSize) {
  for (const auto& command : commands()) {
    SCOPED_TRACE(command.name);
    EXPECT_EQ(_IOC_TYPE(command.request), static_cast<unsigned>('L'));
    EXPECT_EQ(_IOC_DIR(command.request), command.direction);
    EXPECT_EQ(_IOC_SIZE(command.request), command.size);
  }
}

TEST(DriverAbiTest, EveryCommandHasItsOwnNumber) {
  std::set<unsigned> numbers;
  for (const auto& command : commands()) {
    EXPECT_TRUE(numbers.insert(_IOC_NR(command.request)).second) << command.name << " reuses a number";
  }
  EXPECT_EQ(numbers.size(), commands().size());
}

TEST(DriverAbiTest, RecordSizesAreTheDriversOwn) {
  EXPECT_EQ(sizeof(Brd__temp_info), 8U);
  EXPECT_EQ(sizeof(Brd__fan_info), 4U);
  EXPECT_EQ(sizeof(Brd__ps_info), 72U);
  EXPECT_EQ(sizeof(Brd__led), 12U);
  EXPECT_EQ(sizeof(Brd__p_port_led), 12U);
  EXPECT_EQ(sizeof(Brd__sfp_state), 8U);
  EXPECT_EQ(sizeof(Brd__sfp_data), 64U);
  EXPECT_EQ(sizeof(Brd__sfp_eddi_data), 36U);
  EXPECT_EQ(sizeof(Brd__cntrl_sfp_trx), 8U);
  EXPECT_EQ(sizeof(Brd__sfp_rx_power), 28U);
  EXPECT_EQ(sizeof(Wake__fan_module__data), 50U);
  EXPECT_EQ(sizeof(Wake__fan_module__factory), 42U);
  EXPECT_EQ(sizeof(Wake__pwr_module), 20U);
}

TEST(DriverAbiTest, FieldsReadByTheDaemonSitWhereItReadsThem) {
  EXPECT_EQ(offsetof(Brd__temp_info, id), 0U);
  EXPECT_EQ(offsetof(Brd__temp_info, temperature), 4U);
  EXPECT_EQ(offsetof(Brd__fan_info, fault), 0U);
  EXPECT_EQ(offsetof(Brd__fan_info, present), 1U);
  EXPECT_EQ(offsetof(Brd__fan_info, speed), 2U);
  EXPECT_EQ(offsetof(Brd__ps_info, is_present), 1U);
  EXPECT_EQ(offsetof(Brd__ps_info, is_power_good), 2U);
  EXPECT_EQ(offsetof(Brd__ps_info, has_info), 3U);
  EXPECT_EQ(offsetof(Brd__ps_info, model), 5U);
  EXPECT_EQ(offsetof(Brd__ps_info, sn), 36U);
  EXPECT_EQ(offsetof(Brd__ps_info, ver), 53U);
  EXPECT_EQ(offsetof(Brd__ps_info, rev), 59U);
  EXPECT_EQ(offsetof(Brd__ps_info, date), 61U);
  EXPECT_EQ(offsetof(Brd__sfp_state, port), 0U);
  EXPECT_EQ(offsetof(Brd__sfp_state, present), 4U);
  EXPECT_EQ(offsetof(Brd__sfp_state, state), 6U);
  EXPECT_EQ(offsetof(Brd__sfp_data, data), 4U);
  EXPECT_EQ(offsetof(Brd__sfp_eddi_data, data), 4U);
  EXPECT_EQ(offsetof(Brd__cntrl_sfp_trx, enable), 4U);
  EXPECT_EQ(offsetof(Brd__sfp_rx_power, rx_power), 4U);
  EXPECT_EQ(offsetof(Brd__sfp_rx_power, coefficient), 8U);
  EXPECT_EQ(offsetof(Wake__fan_module__data, speed), 2U);
  EXPECT_EQ(offsetof(Wake__fan_module__data, count), 30U);
  EXPECT_EQ(offsetof(Brd__p_port_led, port), 0U);
  EXPECT_EQ(offsetof(Brd__p_port_led, mode), 4U);
  EXPECT_EQ(offsetof(Brd__p_port_led, color), 8U);
  EXPECT_EQ(offsetof(Brd__temp_list, info), 4U);
  EXPECT_EQ(offsetof(Brd__fan_list, info), 4U);
  EXPECT_EQ(offsetof(Brd__ps_list, info), 4U);
}

TEST(DriverAbiTest, DiagnosticsWordsAreTheTriplesTheDaemonConverts) {
  EXPECT_EQ(BRD_SFP_EDDI_TEMPERATURE, 2);
  EXPECT_EQ(BRD_SFP_EDDI_VOLTAGE, 5);
  EXPECT_EQ(BRD_SFP_EDDI_BIAS, 8);
  EXPECT_EQ(BRD_SFP_EDDI_TX_POWER, 11);
}

TEST(DriverAbiTest, PPortLedValuesAreTheOnesTheDaemonSends) {
  EXPECT_EQ(BRD_API__LED_MODE_ON, 1);
  EXPECT_EQ(BRD_API__LED_MODE_OFF, 0);
  EXPECT_EQ(BRD_API__LED_COLOR_RED, 2);
  EXPECT_EQ(BRD_API__LED_COLOR_GREEN, 0);
}

TEST(DriverAbiTest, CSeesTheSameCommandsAsCpp) {
  ASSERT_EQ(brd_c_request_count(), commands().size());
  for (std::size_t index = 0; index < commands().size(); ++index) {
    EXPECT_EQ(brd_c_request(index), commands()[index].request) << commands()[index].name;
  }
}

TEST(DriverAbiTest, CSeesTheSameRecordLayoutsAsCpp) {
  EXPECT_EQ(brd_c_record_size("Brd__temp_info"), sizeof(Brd__temp_info));
  EXPECT_EQ(brd_c_record_size("Brd__temp_list"), sizeof(Brd__temp_list));
  EXPECT_EQ(brd_c_record_size("Brd__fan_info"), sizeof(Brd__fan_info));
  EXPECT_EQ(brd_c_record_size("Brd__fan_list"), sizeof(Brd__fan_list));
  EXPECT_EQ(brd_c_record_size("Brd__ps_info"), sizeof(Brd__ps_info));
  EXPECT_EQ(brd_c_record_size("Brd__ps_list"), sizeof(Brd__ps_list));
  EXPECT_EQ(brd_c_record_size("Brd__led"), sizeof(Brd__led));
  EXPECT_EQ(brd_c_record_size("Brd__p_port_led"), sizeof(Brd__p_port_led));
  EXPECT_EQ(brd_c_record_size("Brd__sfp_state"), sizeof(Brd__sfp_state));
  EXPECT_EQ(brd_c_record_size("Brd__sfp_data"), sizeof(Brd__sfp_data));
  EXPECT_EQ(brd_c_record_size("Brd__sfp_eddi_data"), sizeof(Brd__sfp_eddi_data));
  EXPECT_EQ(brd_c_record_size("Brd__cntrl_sfp_trx"), sizeof(Brd__cntrl_sfp_trx));
  EXPECT_EQ(brd_c_record_size("Brd__sfp_rx_power"), sizeof(Brd__sfp_rx_power));
  EXPECT_EQ(brd_c_record_size("Wake__fan_module__data"), sizeof(Wake__fan_module__data));
  EXPECT_EQ(brd_c_record_size("Wake__fan_module__factory"), sizeof(Wake__fan_module__factory));
  EXPECT_EQ(brd_c_record_size("Wake__pwr_module"), sizeof(Wake__pwr_module));
  EXPECT_EQ(brd_c_record_size("Brd__no_such_record"), 0U);
  EXPECT_EQ(brd_c_offset_of_ps_date(), offsetof(Brd__ps_info, date));
  EXPECT_EQ(brd_c_offset_of_fan_module_count(), offsetof(Wake__fan_module__data, count));
}

}  // namespace
