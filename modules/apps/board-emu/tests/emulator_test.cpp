#include "xpon/board_emu/emulator.hpp"

#include "xpon/board/driver_abi.h"
#include "xpon/board_emu/operations.hpp"
#include "xpon/test/published_driver_commands.hpp"
#include "xpon/test/recording_logger.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

namespace xpon::board_emu {
namespace {

constexpr const char* kBoard = R"({
  "inventory": {"cpld_version": 7, "fan_count": 3, "ps_count": 2, "temp_count": 2, "pon_port_count": 2,
                "front_port_count": 1},
  "versions": {"fpga": 21},
  "sensors": [{"id": 0, "temperature": 45}, {"id": 3, "temperature": -7}],
  "fans": [{"speed": 100}, {"present": false, "speed": 0}, {"fault": true, "speed": 513}],
  "power_supplies": [{"model": "PSU-150W-AC", "serial": "PS2301000123", "version": "1.2", "revision": "B",
                      "date": "2023-01-17", "alert": 4},
                     {"present": false, "power_good": false}],
  "fan_module": {"fan_speeds": [95, 96, 94], "speed_setting": 102,
                 "factory": {"product_name": "FAN-MODULE-6", "serial_number": "FM2208000042", "hw_revision": "A1",
                             "mfg_date": "220815"}},
  "power_module": {"input_voltage": 2300, "output_voltage": 1200, "output_current": 1250, "output_power": 150,
                   "temperature": -3, "fan_fault": true},
  "pon_ports": [{"present": true, "state": 5, "tx_fault": true, "identification": "03 04 07",
                 "diagnostics": [1, 2, 10240, 256, 0, 33000, 256, 0, 3000, 256, 0, 10000, 256, 0, 15, 16],
                 "rx_power": {"raw": 2000, "coefficients": [1.5, 0.1, 0, 0, 2]}},
                {"present": false}],
  "front_ports": [{"present": true, "state": 2, "rx_los": true, "identification": "aa bb"}],
  "front_button": {"pressed": true, "polling_enabled": false, "hard_reset_enabled": true}
})";

class EmulatorTest : public ::testing::Test {
 protected:
  EmulatorTest() : emulator_(make_scenario(kBoard), logger_) {}

  static Scenario make_scenario(const std::string& text) {
    auto scenario = parse_scenario(text);
    EXPECT_TRUE(scenario) << error_text(scenario.error());
    return scenario.value();
  }

  std::uint8_t byte(unsigned int request) {
    std::uint8_t value = 0xEE;
    EXPECT_EQ(emulator_.ioctl(request, &value), 0);
    return value;
  }

  Json state() { return Json::parse(emulator_.state_document()); }

  std::shared_ptr<test::RecordingLogger> logger_ = std::make_shared<test::RecordingLogger>();
  Emulator emulator_;
};

TEST_F(EmulatorTest, InventoryCommandsAnswerTheSixBytes) {
  EXPECT_EQ(byte(BOARD_GET_CPLD_VERSION), 7);
  EXPECT_EQ(byte(BOARD_GET_FAN_COUNT), 3);
  EXPECT_EQ(byte(BOARD_GET_PS_COUNT), 2);
  EXPECT_EQ(byte(BOARD_GET_TEMP_COUNT), 2);
  EXPECT_EQ(byte(BOARD_GET_PON_PORT_COUNT), 2);
  EXPECT_EQ(byte(BOARD_GET_FRONT_PORT_COUNT), 1);
}

TEST_F(EmulatorTest, InventoryRequestCodesAreTheDriverOnes) {
  EXPECT_EQ(BOARD_GET_CPLD_VERSION, 0x80014C21U);
  EXPECT_EQ(BOARD_GET_FRONT_PORT_COUNT, 0x80014C26U);
  EXPECT_EQ(find_operation(0x80014C22U)->name, "BOARD_GET_FAN_COUNT");
}

TEST_F(EmulatorTest, EveryOperationRecordSizeMatchesItsRequestCode) {
  for (const Operation& operation : operations()) {
    EXPECT_EQ(operation.record_size, _IOC_SIZE(operation.request)) << operation.name;
    EXPECT_EQ(_IOC_TYPE(operation.request), static_cast<unsigned>('L')) << operation.name;
  }
  EXPECT_EQ(operations().size(), 33U);
}

// The table is generated from the driver's command list: the same commands, names and codes, in
// the header's order, as drivers and fault files know them.
TEST_F(EmulatorTest, TheOperationTableIsEveryPublishedCommandInOrder) {
  ASSERT_EQ(operations().size(), test::kPublishedDriverCommands.size());
  for (std::size_t index = 0; index < operations().size(); ++index) {
    const auto& published = test::kPublishedDriverCommands[index];
    EXPECT_EQ(operations()[index].name, published.name);
    EXPECT_EQ(operations()[index].request, published.request) << published.name;
    EXPECT_NE(operations()[index].answer, nullptr) << published.name;
    const Operation* found = find_operation(static_cast<unsigned int>(published.request));
    ASSERT_NE(found, nullptr) << published.name;
    EXPECT_EQ(found->name, published.name);
    EXPECT_TRUE(is_operation_name(published.name));
  }
}

TEST_F(EmulatorTest, FpgaVersion) {
  EXPECT_EQ(byte(BOARD_GET_FPGA_VERSION), 21);
}

TEST_F(EmulatorTest, UnknownRequestIsNotATerminalCommand) {
  std::uint8_t value = 0;
  EXPECT_EQ(emulator_.ioctl(_IOR('L', 0x7F, std::uint8_t), &value), -ENOTTY);
  EXPECT_EQ(emulator_.ioctl(_IOR('L', 0x21, std::uint16_t), &value), -ENOTTY);
}

TEST_F(EmulatorTest, FrontButtonQueriesAndSettings) {
  EXPECT_EQ(byte(BOARD_F_BTN_IS_PRESSED), 1);
  EXPECT_EQ(byte(BOARD_F_BTN_IS_POLLING_ENABLED), 0);
  EXPECT_EQ(byte(BOARD_F_BTN_IS_HARD_RESET_ENABLED), 1);
  std::uint8_t setting = 1;
  EXPECT_EQ(emulator_.ioctl(BOARD_F_BTN_SET_POLLING, &setting), 0);
  setting = 0;
  EXPECT_EQ(emulator_.ioctl(BOARD_F_BTN_SET_HARD_RESET, &setting), 0);
  EXPECT_EQ(byte(BOARD_F_BTN_IS_POLLING_ENABLED), 1);
  EXPECT_EQ(byte(BOARD_F_BTN_IS_HARD_RESET_ENABLED), 0);
  EXPECT_EQ(state()["front_button"]["polling_enabled"], true);
  EXPECT_EQ(state()["front_button"]["hard_reset_enabled"], false);
  setting = 2;
  EXPECT_EQ(emulator_.ioctl(BOARD_F_BTN_SET_POLLING, &setting), -EINVAL);
  EXPECT_EQ(byte(BOARD_F_BTN_IS_POLLING_ENABLED), 1);
}

TEST_F(EmulatorTest, FanSpeedSettingIsKeptAndShown) {
  std::uint8_t speed = 159;
  EXPECT_EQ(emulator_.ioctl(BOARD_SET_FAN_SPEED, &speed), 0);
  EXPECT_EQ(state()["fan_speed_setting"], 159);
}

TEST_F(EmulatorTest, FanListAnswersUpToTheRequestedCount) {
  Brd__fan_list list{};
  list.count = BRD_MAX_FANS;
  ASSERT_EQ(emulator_.ioctl(BOARD_GET_FAN_INFO, &list), 0);
  EXPECT_EQ(list.count, 3U);
  EXPECT_EQ(list.info[0].present, 1);
  EXPECT_EQ(list.info[0].fault, 0);
  EXPECT_EQ(list.info[0].speed, 100);
  EXPECT_EQ(list.info[1].present, 0);
  EXPECT_EQ(list.info[2].fault, 1);
  EXPECT_EQ(list.info[2].speed, 513);
  EXPECT_EQ(list.info[3].speed, 0);

  Brd__fan_list two{};
  two.count = 2;
  ASSERT_EQ(emulator_.ioctl(BOARD_GET_FAN_INFO, &two), 0);
  EXPECT_EQ(two.count, 2U);
  EXPECT_EQ(two.info[2].speed, 0);

  Brd__fan_list too_many{};
  too_many.count = BRD_MAX_FANS + 1;
  EXPECT_EQ(emulator_.ioctl(BOARD_GET_FAN_INFO, &too_many), -EINVAL);
}

TEST_F(EmulatorTest, PowerSupplyListCarriesFlagsAndTexts) {
  Brd__ps_list list{};
  list.count = BRD_MAX_POWER_SUPPLIES;
  ASSERT_EQ(emulator_.ioctl(BOARD_GET_PS_INFO, &list), 0);
  ASSERT_EQ(list.count, 2U);
  EXPECT_EQ(list.info[0].id, 0);
  EXPECT_EQ(list.info[0].is_present, 1);
  EXPECT_EQ(list.info[0].is_power_good, 1);
  EXPECT_EQ(list.info[0].has_info, 1);
  EXPECT_EQ(list.info[0].alert, 4);
  EXPECT_STREQ(list.info[0].model, "PSU-150W-AC");
  EXPECT_STREQ(list.info[0].sn, "PS2301000123");
  EXPECT_STREQ(list.info[0].ver, "1.2");
  EXPECT_STREQ(list.info[0].rev, "B");
  EXPECT_STREQ(list.info[0].date, "2023-01-17");
  EXPECT_EQ(list.info[1].id, 1);
  EXPECT_EQ(list.info[1].is_present, 0);
  EXPECT_EQ(list.info[1].is_power_good, 0);
  EXPECT_EQ(list.info[1].has_info, 0);
}

TEST_F(EmulatorTest, TemperatureListCarriesIdsAndSignedReadings) {
  Brd__temp_list list{};
  list.count = 2;
  ASSERT_EQ(emulator_.ioctl(BOARD_GET_TEMP_INFO, &list), 0);
  ASSERT_EQ(list.count, 2U);
  EXPECT_EQ(list.info[0].id, 0);
  EXPECT_EQ(list.info[0].temperature, 45);
  EXPECT_EQ(list.info[1].id, 3);
  EXPECT_EQ(list.info[1].temperature, -7);
}

TEST_F(EmulatorTest, FanModuleStateFactoryAndSpeed) {
  Wake__fan_module__data data{};
  ASSERT_EQ(emulator_.ioctl(BOARD_GET_FAN_MODULE_STATE, &data), 0);
  EXPECT_EQ(data.present, 1);
  EXPECT_EQ(data.count, 3);
  EXPECT_EQ(data.speed[0], 95);
  EXPECT_EQ(data.speed[2], 94);
  EXPECT_EQ(data.speed[3], 0);
  EXPECT_EQ(data.speed_setting, 102);
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(&data);
  EXPECT_EQ(bytes[2], 95);  // fan 1 at byte 2 and the count at byte 30, as the daemon reads them
  EXPECT_EQ(bytes[30], 3);

  Wake__fan_module__factory factory{};
  ASSERT_EQ(emulator_.ioctl(BOARD_GET_FAN_MODULE_FACTORY, &factory), 0);
  EXPECT_EQ(std::string(factory.product_name, 12), "FAN-MODULE-6");
  EXPECT_EQ(std::string(factory.mfg_date, 6), "220815");

  std::uint8_t speed = 159;
  ASSERT_EQ(emulator_.ioctl(BOARD_SET_FAN_MODULE_SPEED, &speed), 0);
  EXPECT_EQ(state()["fan_module"]["speed_setting"], 159);
}

TEST_F(EmulatorTest, PowerModuleState) {
  Wake__pwr_module module{};
  ASSERT_EQ(emulator_.ioctl(BOARD_GET_PWR_MODULE_STATE, &module), 0);
  EXPECT_EQ(module.present, 1);
  EXPECT_EQ(module.power_good, 1);
  EXPECT_EQ(module.fan_fault, 1);
  EXPECT_EQ(module.input_voltage, 2300);
  EXPECT_EQ(module.output_power, 150);
  EXPECT_EQ(module.temperature, -3);
}

TEST_F(EmulatorTest, BoardWithoutCrateModulesAnswersNoDevice) {
  ASSERT_TRUE(emulator_.apply_patch_text(R"({"fan_module": null, "power_module": null})"));
  Wake__fan_module__data data{};
  EXPECT_EQ(emulator_.ioctl(BOARD_GET_FAN_MODULE_STATE, &data), -ENODEV);
  Wake__fan_module__factory factory{};
  EXPECT_EQ(emulator_.ioctl(BOARD_GET_FAN_MODULE_FACTORY, &factory), -ENODEV);
  std::uint8_t speed = 1;
  EXPECT_EQ(emulator_.ioctl(BOARD_SET_FAN_MODULE_SPEED, &speed), -ENODEV);
  Wake__pwr_module module{};
  EXPECT_EQ(emulator_.ioctl(BOARD_GET_PWR_MODULE_STATE, &module), -ENODEV);
}

TEST_F(EmulatorTest, PanelLedCommandIsKept) {
  Brd__led led{BRD_API__PANEL_LED_ALARM, BRD_API__LED_MODE_BLINK, BRD_API__LED_COLOR_RED};
  ASSERT_EQ(emulator_.ioctl(BOARD_CNTRL_LED_PANEL, &led), 0);
  EXPECT_EQ(state()["led_panel"]["alarm"], Json::parse(R"({"mode": "blink", "color": "red"})"));
  Brd__led bad{5, BRD_API__LED_MODE_ON, BRD_API__LED_COLOR_GREEN};
  EXPECT_EQ(emulator_.ioctl(BOARD_CNTRL_LED_PANEL, &bad), -EINVAL);
  EXPECT_TRUE(logger_->contains("BOARD_CNTRL_LED_PANEL: refused with EINVAL", logger::kProgress));
  Brd__led bad_mode{0, 3, BRD_API__LED_COLOR_GREEN};
  EXPECT_EQ(emulator_.ioctl(BOARD_CNTRL_LED_PANEL, &bad_mode), -EINVAL);
}

TEST_F(EmulatorTest, PortLedElementsAreSetAndReadBack) {
  Brd__p_port_led red{1, BRD_API__LED_MODE_ON, BRD_API__LED_COLOR_RED};
  ASSERT_EQ(emulator_.ioctl(BOARD_P_PORT_SET_LED_STATE, &red), 0);
  Brd__p_port_led query{1, 0, BRD_API__LED_COLOR_RED};
  ASSERT_EQ(emulator_.ioctl(BOARD_P_PORT_GET_LED_STATE, &query), 0);
  EXPECT_EQ(query.mode, 1U);
  query.color = BRD_API__LED_COLOR_GREEN;
  ASSERT_EQ(emulator_.ioctl(BOARD_P_PORT_GET_LED_STATE, &query), 0);
  EXPECT_EQ(query.mode, 0U);
  EXPECT_EQ(state()["pon_ports"][1]["led"]["red"], "on");

  Brd__p_port_led yellow{1, BRD_API__LED_MODE_ON, BRD_API__LED_COLOR_YELLOW};
  EXPECT_EQ(emulator_.ioctl(BOARD_P_PORT_SET_LED_STATE, &yellow), -EINVAL);
  Brd__p_port_led outside{2, BRD_API__LED_MODE_ON, BRD_API__LED_COLOR_RED};
  EXPECT_EQ(emulator_.ioctl(BOARD_P_PORT_SET_LED_STATE, &outside), -EINVAL);
}

TEST_F(EmulatorTest, SfpStateOfPresentEmptyAndMissingPorts) {
  Brd__sfp_state state{};
  state.port = 0;
  ASSERT_EQ(emulator_.ioctl(BOARD_GET_P_PORT_SFP_STATE, &state), 0);
  EXPECT_EQ(state.present, 1);
  EXPECT_EQ(state.tx_fault, 1);
  EXPECT_EQ(state.state, 5);
  EXPECT_EQ(state.rx_los, 0);
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(&state);
  EXPECT_EQ(bytes[4], 1);  // presence at byte 4 and the state byte at byte 6, as the daemon reads them
  EXPECT_EQ(bytes[6], 5);

  Brd__sfp_state empty{};
  empty.port = 1;
  ASSERT_EQ(emulator_.ioctl(BOARD_GET_P_PORT_SFP_STATE, &empty), 0);
  EXPECT_EQ(empty.present, 0);

  Brd__sfp_state front{};
  ASSERT_EQ(emulator_.ioctl(BOARD_GET_F_PORT_SFP_STATE, &front), 0);
  EXPECT_EQ(front.present, 1);
  EXPECT_EQ(front.state, 2);
  EXPECT_EQ(front.rx_los, 1);

  Brd__sfp_state outside{};
  outside.port = 2;
  EXPECT_EQ(emulator_.ioctl(BOARD_GET_P_PORT_SFP_STATE, &outside), -EINVAL);
}

TEST_F(EmulatorTest, SfpIdentificationAndDiagnostics) {
  Brd__sfp_data data{};
  data.port = 0;
  ASSERT_EQ(emulator_.ioctl(BOARD_GET_P_PORT_SFP_DATA, &data), 0);
  EXPECT_EQ(data.port, 0U);
  EXPECT_EQ(data.data[0], 0x03);
  EXPECT_EQ(data.data[2], 0x07);
  EXPECT_EQ(data.data[3], 0x00);

  Brd__sfp_data front{};
  ASSERT_EQ(emulator_.ioctl(BOARD_GET_F_PORT_SFP_DATA, &front), 0);
  EXPECT_EQ(front.data[1], 0xBB);

  Brd__sfp_eddi_data eddi{};
  ASSERT_EQ(emulator_.ioctl(BOARD_GET_P_PORT_SFP_EDDI_DATA, &eddi), 0);
  EXPECT_EQ(eddi.data[BRD_SFP_EDDI_TEMPERATURE], 10240);
  EXPECT_EQ(eddi.data[BRD_SFP_EDDI_VOLTAGE], 33000);
  EXPECT_EQ(eddi.data[15], 16);

  Brd__sfp_data empty{};
  empty.port = 1;
  EXPECT_EQ(emulator_.ioctl(BOARD_GET_P_PORT_SFP_DATA, &empty), -ENODEV);
  Brd__sfp_eddi_data empty_eddi{};
  empty_eddi.port = 1;
  EXPECT_EQ(emulator_.ioctl(BOARD_GET_P_PORT_SFP_EDDI_DATA, &empty_eddi), -ENODEV);
  Brd__sfp_eddi_data outside{};
  outside.port = 1;
  EXPECT_EQ(emulator_.ioctl(BOARD_GET_F_PORT_SFP_EDDI_DATA, &outside), -EINVAL);
}

TEST_F(EmulatorTest, TransmitterSwitchIsKeptPerPort) {
  Brd__cntrl_sfp_trx off{};
  off.port = 0;
  off.enable = 0;
  ASSERT_EQ(emulator_.ioctl(BOARD_CNTRL_P_PORT_SFP_TRX, &off), 0);
  Brd__cntrl_sfp_trx query{};
  query.enable = 7;
  ASSERT_EQ(emulator_.ioctl(BOARD_GET_P_PORT_SFP_TRX, &query), 0);
  EXPECT_EQ(query.enable, 0);
  EXPECT_EQ(state()["pon_ports"][0]["trx_enabled"], false);

  ASSERT_EQ(emulator_.ioctl(BOARD_CNTRL_F_PORT_SFP_TRX, &off), 0);
  EXPECT_EQ(state()["front_ports"][0]["trx_enabled"], false);

  Brd__cntrl_sfp_trx empty{};
  empty.port = 1;
  empty.enable = 1;
  EXPECT_EQ(emulator_.ioctl(BOARD_CNTRL_P_PORT_SFP_TRX, &empty), -ENODEV);
  Brd__cntrl_sfp_trx bad{};
  bad.enable = 2;
  EXPECT_EQ(emulator_.ioctl(BOARD_CNTRL_P_PORT_SFP_TRX, &bad), -EINVAL);
}

TEST_F(EmulatorTest, RxPowerReadingOfTheNamedPort) {
  Brd__sfp_rx_power reading{};
  ASSERT_EQ(emulator_.ioctl(BOARD_GET_P_PORT_SFP_RX_POWER, &reading), 0);
  EXPECT_EQ(reading.port, 0U);
  EXPECT_EQ(reading.rx_power, 2000);
  EXPECT_EQ(reading.coefficient[0], 1.5F);
  EXPECT_EQ(reading.coefficient[1], 0.1F);
  EXPECT_EQ(reading.coefficient[4], 2.0F);
  Brd__sfp_rx_power empty{};
  empty.port = 1;
  EXPECT_EQ(emulator_.ioctl(BOARD_GET_P_PORT_SFP_RX_POWER, &empty), -ENODEV);
}

TEST_F(EmulatorTest, CountedFaultFailsThatManyCallsThenGoes) {
  ASSERT_TRUE(emulator_.apply_patch_text(R"({"faults": {"BOARD_GET_FAN_COUNT": {"errno": "EIO", "count": 2}}})"));
  std::uint8_t value = 0;
  EXPECT_EQ(emulator_.ioctl(BOARD_GET_FAN_COUNT, &value), -EIO);
  EXPECT_EQ(state()["faults"]["BOARD_GET_FAN_COUNT"]["count"], 1);
  EXPECT_EQ(byte(BOARD_GET_PS_COUNT), 2);  // other commands are not hit
  EXPECT_EQ(emulator_.ioctl(BOARD_GET_FAN_COUNT, &value), -EIO);
  EXPECT_EQ(byte(BOARD_GET_FAN_COUNT), 3);
  EXPECT_TRUE(state()["faults"].empty());
  EXPECT_TRUE(logger_->contains("BOARD_GET_FAN_COUNT: injected EIO", logger::kInfo));
}

TEST_F(EmulatorTest, UncountedFaultLastsUntilRemoved) {
  ASSERT_TRUE(emulator_.apply_patch_text(R"({"faults": {"BOARD_GET_TEMP_INFO": {"errno": "ETIMEDOUT"}}})"));
  Brd__temp_list list{};
  list.count = 2;
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(emulator_.ioctl(BOARD_GET_TEMP_INFO, &list), -ETIMEDOUT);
  }
  ASSERT_TRUE(emulator_.apply_patch_text(R"({"faults": {"BOARD_GET_TEMP_INFO": null}})"));
  EXPECT_EQ(emulator_.ioctl(BOARD_GET_TEMP_INFO, &list), 0);
  EXPECT_EQ(list.count, 2U);
}

TEST_F(EmulatorTest, DelayOnlyFaultAnswersLate) {
  ASSERT_TRUE(emulator_.apply_patch_text(R"({"faults": {"BOARD_GET_FPGA_VERSION": {"delay_ms": 150, "count": 1}}})"));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(byte(BOARD_GET_FPGA_VERSION), 21);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(150));
  EXPECT_TRUE(logger_->contains("BOARD_GET_FPGA_VERSION: injected delay after 150 ms", logger::kInfo));
}

TEST_F(EmulatorTest, ControlStatusReportsTheLastPatch) {
  EXPECT_EQ(emulator_.control_status(), "none\n");
  EXPECT_TRUE(emulator_.apply_patch_text(R"({"inventory": {"fan_count": 5}})"));
  EXPECT_EQ(emulator_.control_status(), "ok\n");
  EXPECT_FALSE(emulator_.apply_patch_text(R"({"inventory": {"fan_count": 500}})"));
  EXPECT_EQ(emulator_.control_status(), "error: inventory.fan_count: must be an integer from 0 to 255, not 500\n");
  EXPECT_TRUE(logger_->contains(
      "board-control: patch refused: inventory.fan_count: must be an integer from 0 to 255, not 500", logger::kError));
  EXPECT_EQ(byte(BOARD_GET_FAN_COUNT), 5);
}

TEST_F(EmulatorTest, PatchThatIsNotJsonIsRefused) {
  EXPECT_FALSE(emulator_.apply_patch_text("{fan_count: 5}"));
  EXPECT_EQ(emulator_.control_status(),
            "error: not valid JSON: [json.exception.parse_error.101] parse error at line 1, column 4: syntax error "
            "while parsing object key - invalid literal; last read: '{fan'; expected string literal\n");
}

TEST(EmulatorTimeline, StepsApplyInTimeOrderAndStopDropsTheRest) {
  auto scenario = parse_scenario(R"({
    "fans": [{"speed": 1}],
    "timeline": [{"at_ms": 60000, "patch": {"fans": {"0": {"speed": 3}}}},
                 {"at_ms": 20, "patch": {"fans": {"0": {"speed": 2}}}}]
  })");
  ASSERT_TRUE(scenario) << error_text(scenario.error());
  auto logger = std::make_shared<test::RecordingLogger>();
  Emulator emulator(std::move(scenario.value()), logger);
  EXPECT_EQ(emulator.snapshot().fans[0].speed, 1);
  emulator.start_timeline();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (emulator.snapshot().fans[0].speed != 2 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_EQ(emulator.snapshot().fans[0].speed, 2);
  emulator.stop_timeline();
  EXPECT_EQ(emulator.snapshot().fans[0].speed, 2);
  EXPECT_TRUE(logger->contains(R"(timeline at 20 ms: patch applied: {"fans":{"0":{"speed":2}}})", logger::kInfo));
  // A timeline patch is not a board-control write.
  EXPECT_EQ(emulator.control_status(), "none\n");
}

TEST(EmulatorTimeline, StepThatNoLongerFitsIsLoggedAndSkipped) {
  auto scenario = parse_scenario(R"({
    "fans": [{"speed": 1}, {"speed": 1}],
    "timeline": [{"at_ms": 10, "patch": {"fans": {"1": {"speed": 2}}}}]
  })");
  ASSERT_TRUE(scenario);
  auto logger = std::make_shared<test::RecordingLogger>();
  Emulator emulator(std::move(scenario.value()), logger);
  ASSERT_TRUE(emulator.apply_patch_text(R"({"fans": [{"speed": 9}]})"));
  emulator.start_timeline();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  const std::string expected = "timeline at 10 ms: patch refused: fans[1]: no such element, the list has 1";
  while (!logger->contains(expected) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  emulator.stop_timeline();
  EXPECT_TRUE(logger->contains(expected, logger::kError));
  EXPECT_EQ(emulator.snapshot().fans.size(), 1U);
  EXPECT_EQ(emulator.snapshot().fans[0].speed, 9);
}

}  // namespace
}  // namespace xpon::board_emu
