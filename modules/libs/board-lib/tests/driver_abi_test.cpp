#include "xpon/board/driver_abi.h"

#include "driver_abi_c_check.h"
#include "xpon/test/published_driver_commands.hpp"

#include <gtest/gtest.h>

#include <cstddef>
#include <set>
#include <string>
#include <vector>

namespace {

using xpon::test::kPublishedDriverCommands;

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
  ASSERT_EQ(kPublishedDriverCommands.size(), commands().size());
  for (std::size_t index = 0; index < kPublishedDriverCommands.size(); ++index) {
    EXPECT_EQ(commands()[index].name, kPublishedDriverCommands[index].name);
    EXPECT_EQ(commands()[index].request, kPublishedDriverCommands[index].request) << commands()[index].name;
  }
}

struct ListedCommand {
  std::string name;
  unsigned long request;
  std::size_t record_size;
};

std::vector<ListedCommand> listed_commands() {
#define XPON_LISTED_COMMAND(command, record) ListedCommand{#command, command, sizeof(record)},
  return {BRD_DRIVER_COMMANDS(XPON_LISTED_COMMAND)};
#undef XPON_LISTED_COMMAND
}

// The list the library, the emulator and the test doubles are generated from holds every command
// once, in the header's order, with its published name and code and the record size written out above.
TEST(DriverAbiTest, TheCommandListIsEveryCommandWithItsNameCodeAndRecord) {
  const std::vector<ListedCommand> listed = listed_commands();
  ASSERT_EQ(listed.size(), kPublishedDriverCommands.size());
  ASSERT_EQ(listed.size(), commands().size());
  for (std::size_t index = 0; index < listed.size(); ++index) {
    SCOPED_TRACE(commands()[index].name);
    EXPECT_EQ(listed[index].name, kPublishedDriverCommands[index].name);
    EXPECT_EQ(listed[index].request, kPublishedDriverCommands[index].request);
    EXPECT_EQ(listed[index].record_size, commands()[index].size);
  }
}

TEST(DriverAbiTest, TheInventoryListIsTheSixCountCommandsInTheOrderTheyAreRead) {
  struct Item {
    std::string command;
    unsigned long request;
    std::string value;
  };
  std::vector<Item> listed;
#define XPON_LISTED_ITEM(command, value) listed.push_back(Item{#command, command, #value});
  BRD_DRIVER_INVENTORY(XPON_LISTED_ITEM)
#undef XPON_LISTED_ITEM
  const std::vector<Item> expected{
      {"BOARD_GET_CPLD_VERSION", 0x80014C21UL, "cpld_version"},
      {"BOARD_GET_FAN_COUNT", 0x80014C22UL, "fan_count"},
      {"BOARD_GET_PS_COUNT", 0x80014C23UL, "ps_count"},
      {"BOARD_GET_TEMP_COUNT", 0x80014C24UL, "temp_count"},
      {"BOARD_GET_PON_PORT_COUNT", 0x80014C25UL, "pon_port_count"},
      {"BOARD_GET_FRONT_PORT_COUNT", 0x80014C26UL, "front_port_count"},
  };
  ASSERT_EQ(listed.size(), expected.size());
  for (std::size_t index = 0; index < expected.size(); ++index) {
    EXPECT_EQ(listed[index].command, expected[index].command);
    EXPECT_EQ(listed[index].request, expected[index].request) << expected[index].command;
    EXPECT_EQ(listed[index].value, expected[index].value) << expected[index].command;
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
    EXPECT_EQ(std::string(brd_c_request_name(index)), commands()[index].name);
    EXPECT_EQ(brd_c_request_record_size(index), commands()[index].size) << commands()[index].name;
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
