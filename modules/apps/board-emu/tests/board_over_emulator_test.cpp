// The real board library over the real emulator: Board and PosixWrapper open
// $XPON_ROOT/dev/board as the daemon does, and every operation goes through FUSE.

#include "emulator_process.hpp"
#include "xpon/test/ci_skip.hpp"

#include "xpon/board/board.hpp"
#include "xpon/board/posix_wrapper.hpp"
#include "xpon/test/recording_logger.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <cstring>
#include <string>

namespace xpon::board_emu::test {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kScenario = R"({
  "inventory": {"cpld_version": 7, "fan_count": 3, "ps_count": 2, "temp_count": 2, "pon_port_count": 2,
                "front_port_count": 1},
  "versions": {"fpga": 21},
  "sensors": [{"id": 0, "temperature": 45}, {"id": 3, "temperature": -7}],
  "fans": [{"speed": 100}, {"present": false, "speed": 0}, {"fault": true, "speed": 513}],
  "power_supplies": [{"model": "PSU-150W-AC", "serial": "PS2301000123", "version": "1.2", "revision": "B",
                      "date": "2023-01-17"},
                     {"present": false, "power_good": false}],
  "fan_module": {"fan_speeds": [95, 96, 94], "speed_setting": 102,
                 "factory": {"product_name": "FAN-MODULE-6", "serial_number": "FM2208000042", "hw_revision": "A1",
                             "mfg_date": "220815"}},
  "power_module": {"input_voltage": 2300, "output_voltage": 1200, "output_current": 1250, "output_power": 150,
                   "temperature": 38},
  "pon_ports": [{"present": true, "state": 5, "identification": "03 04 07",
                 "diagnostics": [0, 0, 10240, 256, 0, 33000, 256, 0, 3000, 256, 0, 10000, 256, 0, 0, 0],
                 "rx_power": {"raw": 2000, "coefficients": [1.5, 0.1, 0, 0, 2]}},
                {"present": false}],
  "front_ports": [{"present": true, "state": 2, "identification": "aa bb", "diagnostics": [9, 8, 7]}],
  "front_button": {"pressed": true, "polling_enabled": false, "hard_reset_enabled": false}
})";

class BoardOverEmulator : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string skip;
    std::string failure;
    emulator_ = EmulatorProcess::start(kScenario, skip, failure);
    XPON_SKIP_OR_FAIL_IN_CI(skip);
    ASSERT_TRUE(emulator_) << failure;
    // PosixWrapper finds the device through the sandbox root, exactly as the daemon does.
    ASSERT_EQ(::setenv("XPON_ROOT", emulator_->root().c_str(), 1), 0);
    board_ = std::make_unique<board::Board>(logger_, std::make_unique<board::PosixWrapper>(logger_));
  }

  void TearDown() override {
    board_.reset();
    ::unsetenv("XPON_ROOT");
  }

  Json state() { return Json::parse(read_file(emulator_->dev_file("board-state.json"))); }

  void patch(const std::string& text) {
    ASSERT_EQ(write_file(emulator_->dev_file("board-control"), text), 0) << emulator_->log();
  }

  std::shared_ptr<xpon::test::RecordingLogger> logger_ = std::make_shared<xpon::test::RecordingLogger>();
  std::unique_ptr<EmulatorProcess> emulator_;
  std::unique_ptr<board::Board> board_;
};

TEST_F(BoardOverEmulator, BoardReadsTheInventory) {
  EXPECT_TRUE(logger_->contains("Board create successfully", logger::kProgress));
  EXPECT_EQ(board_->get_cpld_config_version().value(), 7);
  EXPECT_EQ(board_->get_fan_count().value(), 3);
  EXPECT_EQ(board_->get_ps_count().value(), 2);
  EXPECT_EQ(board_->get_temp_count().value(), 2);
  EXPECT_EQ(board_->get_pon_port_count().value(), 2);
  EXPECT_EQ(board_->get_front_port_count().value(), 1);
}

TEST_F(BoardOverEmulator, FpgaVersion) {
  EXPECT_EQ(board_->get_fpga_config_version().value(), 21);
}

TEST_F(BoardOverEmulator, FrontButtonRoundTrip) {
  EXPECT_EQ(board_->f_btn__is_pressed().value(), 1);
  EXPECT_EQ(board_->f_btn__is_pooling_enabled().value(), 0);
  ASSERT_TRUE(board_->f_btn__enable());
  EXPECT_EQ(board_->f_btn__is_pooling_enabled().value(), 1);
  ASSERT_TRUE(board_->f_btn__enable_hard_reset());
  EXPECT_EQ(board_->f_btn__is_hard_reset_enabled().value(), 1);
  EXPECT_EQ(state()["front_button"],
            Json::parse(R"({"pressed": true, "polling_enabled": true, "hard_reset_enabled": true})"));
  ASSERT_TRUE(board_->f_btn__disable());
  ASSERT_TRUE(board_->f_btn__disable_hard_reset());
  EXPECT_EQ(board_->f_btn__is_pooling_enabled().value(), 0);
  EXPECT_EQ(board_->f_btn__is_hard_reset_enabled().value(), 0);
  EXPECT_EQ(state()["front_button"]["polling_enabled"], false);
  patch(R"({"front_button": {"pressed": false}})");
  EXPECT_EQ(board_->f_btn__is_pressed().value(), 0);
}

TEST_F(BoardOverEmulator, FanSpeedSettingShowsInTheState) {
  ASSERT_TRUE(board_->set_fan_speed(159));
  EXPECT_EQ(state()["fan_speed_setting"], 159);
  ASSERT_TRUE(board_->set_fan_speed(102));
  EXPECT_EQ(state()["fan_speed_setting"], 102);
}

TEST_F(BoardOverEmulator, FanInfo) {
  auto fans = board_->get_fan_info();
  ASSERT_TRUE(fans);
  ASSERT_EQ(fans.value().size(), 3U);
  EXPECT_EQ(fans.value()[0].present, 1);
  EXPECT_EQ(fans.value()[0].speed, 100);
  EXPECT_EQ(fans.value()[1].present, 0);
  EXPECT_EQ(fans.value()[2].fault, 1);
  EXPECT_EQ(fans.value()[2].speed, 513);
  patch(R"({"fans": {"0": {"speed": 42}}})");
  EXPECT_EQ(board_->get_fan_info().value()[0].speed, 42);
}

TEST_F(BoardOverEmulator, PowerSupplyInfo) {
  auto supplies = board_->get_ps_info();
  ASSERT_TRUE(supplies);
  ASSERT_EQ(supplies.value().size(), 2U);
  EXPECT_EQ(supplies.value()[0].is_present, 1);
  EXPECT_EQ(supplies.value()[0].is_power_good, 1);
  EXPECT_EQ(supplies.value()[0].has_info, 1);
  EXPECT_STREQ(supplies.value()[0].model, "PSU-150W-AC");
  EXPECT_STREQ(supplies.value()[0].sn, "PS2301000123");
  EXPECT_STREQ(supplies.value()[0].date, "2023-01-17");
  EXPECT_EQ(supplies.value()[1].is_present, 0);
}

TEST_F(BoardOverEmulator, TemperatureInfo) {
  std::vector<Brd__temp_info> temps(2);
  ASSERT_TRUE(board_->get_temp_info(temps));
  EXPECT_EQ(temps[0].id, 0);
  EXPECT_EQ(temps[0].temperature, 45);
  EXPECT_EQ(temps[1].id, 3);
  EXPECT_EQ(temps[1].temperature, -7);
  patch(R"({"sensors": {"1": {"temperature": 66}}})");
  ASSERT_TRUE(board_->get_temp_info(temps));
  EXPECT_EQ(temps[1].temperature, 66);
}

TEST_F(BoardOverEmulator, LedPanelCommandShowsInTheState) {
  ASSERT_TRUE(
      board_->cntrl_led_panel(Brd__led{BRD_API__PANEL_LED_ALARM, BRD_API__LED_MODE_ON, BRD_API__LED_COLOR_RED}));
  EXPECT_EQ(state()["led_panel"]["alarm"], Json::parse(R"({"mode": "on", "color": "red"})"));
  EXPECT_FALSE(board_->cntrl_led_panel(Brd__led{9, BRD_API__LED_MODE_ON, BRD_API__LED_COLOR_RED}));
}

TEST_F(BoardOverEmulator, PortLedRoundTrip) {
  ASSERT_TRUE(board_->p_port__set_led_state(Brd__p_port_led{0, BRD_API__LED_MODE_ON, BRD_API__LED_COLOR_RED}));
  ASSERT_TRUE(board_->p_port__set_led_state(Brd__p_port_led{0, BRD_API__LED_MODE_OFF, BRD_API__LED_COLOR_GREEN}));
  Brd__p_port_led red{0, 0, BRD_API__LED_COLOR_RED};
  ASSERT_TRUE(board_->p_port__get_led_state(red));
  EXPECT_EQ(red.mode, 1U);
  EXPECT_EQ(state()["pon_ports"][0]["led"], Json::parse(R"({"red": "on", "green": "off"})"));
}

TEST_F(BoardOverEmulator, TransmitterRoundTrip) {
  Brd__cntrl_sfp_trx off{};
  off.port = 0;
  off.enable = 0;
  ASSERT_TRUE(board_->cntrl_p_port_sfp_trx(off));
  Brd__cntrl_sfp_trx query{};
  ASSERT_TRUE(board_->get_p_port_sfp_trx(query));
  EXPECT_EQ(query.enable, 0);
  EXPECT_EQ(state()["pon_ports"][0]["trx_enabled"], false);
  ASSERT_TRUE(board_->cntrl_f_port_sfp_trx(off));
  EXPECT_EQ(state()["front_ports"][0]["trx_enabled"], false);
  Brd__cntrl_sfp_trx empty{};
  empty.port = 1;
  empty.enable = 1;
  EXPECT_FALSE(board_->cntrl_p_port_sfp_trx(empty));
}

TEST_F(BoardOverEmulator, SfpStateDataAndDiagnostics) {
  Brd__sfp_state state_record{};
  ASSERT_TRUE(board_->get_p_port_sfp_state(state_record));
  EXPECT_EQ(state_record.present, 1);
  EXPECT_EQ(state_record.state, 5);
  Brd__sfp_state empty{};
  empty.port = 1;
  ASSERT_TRUE(board_->get_p_port_sfp_state(empty));
  EXPECT_EQ(empty.present, 0);
  Brd__sfp_state front{};
  ASSERT_TRUE(board_->get_f_port_sfp_state(front));
  EXPECT_EQ(front.state, 2);

  Brd__sfp_data data{};
  ASSERT_TRUE(board_->get_p_port_sfp_data(data));
  EXPECT_EQ(data.data[0], 0x03);
  EXPECT_EQ(data.data[2], 0x07);
  Brd__sfp_data front_data{};
  ASSERT_TRUE(board_->get_f_port_sfp_data(front_data));
  EXPECT_EQ(front_data.data[0], 0xAA);

  Brd__sfp_eddi_data eddi{};
  ASSERT_TRUE(board_->get_p_port_sfp_eddi_data(eddi));
  EXPECT_EQ(eddi.data[BRD_SFP_EDDI_TEMPERATURE], 10240);
  EXPECT_EQ(eddi.data[BRD_SFP_EDDI_TX_POWER], 10000);
  Brd__sfp_eddi_data front_eddi{};
  ASSERT_TRUE(board_->get_f_port_sfp_eddi_data(front_eddi));
  EXPECT_EQ(front_eddi.data[2], 7);

  patch(R"({"pon_ports": {"1": {"present": true, "state": 3}}})");
  ASSERT_TRUE(board_->get_p_port_sfp_state(empty));
  EXPECT_EQ(empty.present, 1);
  EXPECT_EQ(empty.state, 3);
}

TEST_F(BoardOverEmulator, RxPower) {
  Brd__sfp_rx_power reading{};
  ASSERT_TRUE(board_->get_p_port_sfp_rx_power(reading));
  EXPECT_EQ(reading.rx_power, 2000);
  EXPECT_EQ(reading.coefficient[0], 1.5F);
  EXPECT_EQ(reading.coefficient[4], 2.0F);
}

TEST_F(BoardOverEmulator, FanModule) {
  auto module = board_->get_fan_module_state();
  ASSERT_TRUE(module);
  EXPECT_EQ(module.value().count, 3);
  EXPECT_EQ(module.value().speed[1], 96);
  auto factory = board_->get_fan_module_factory();
  ASSERT_TRUE(factory);
  EXPECT_EQ(std::string(factory.value().serial_number, 12), "FM2208000042");
  ASSERT_TRUE(board_->set_fan_module_speed(159));
  EXPECT_EQ(state()["fan_module"]["speed_setting"], 159);
  EXPECT_EQ(board_->get_fan_module_state().value().speed_setting, 159);
}

TEST_F(BoardOverEmulator, PowerModule) {
  auto module = board_->get_pwr_module_state();
  ASSERT_TRUE(module);
  EXPECT_EQ(module.value().present, 1);
  EXPECT_EQ(module.value().input_voltage, 2300);
  EXPECT_EQ(module.value().temperature, 38);
}

TEST_F(BoardOverEmulator, InjectedEioIsAnErrorResultUntilTheFaultEnds) {
  patch(R"({"faults": {"BOARD_GET_FAN_INFO": {"errno": "EIO", "count": 2}}})");
  for (int call = 0; call < 2; ++call) {
    auto fans = board_->get_fan_info();
    ASSERT_FALSE(fans) << "call " << call;
    EXPECT_EQ(fans.error().error, core::Error::ErrorCApi);
    ASSERT_TRUE(fans.error().info && fans.error().info->message);
    EXPECT_EQ(*fans.error().info->message, "BOARD_GET_FAN_INFO: ioctl returned -1, errno=5 (Input/output error)");
  }
  auto recovered = board_->get_fan_info();
  ASSERT_TRUE(recovered);
  EXPECT_EQ(recovered.value().size(), 3U);
  EXPECT_TRUE(state()["faults"].empty());
  EXPECT_NE(emulator_->log().find("BOARD_GET_FAN_INFO: injected EIO"), std::string::npos);
}

TEST_F(BoardOverEmulator, FaultWithoutCountLastsUntilCleared) {
  patch(R"({"faults": {"BOARD_GET_PWR_MODULE_STATE": {"errno": "ENODEV"}}})");
  EXPECT_FALSE(board_->get_pwr_module_state());
  EXPECT_FALSE(board_->get_pwr_module_state());
  patch(R"({"faults": {"BOARD_GET_PWR_MODULE_STATE": null}})");
  EXPECT_TRUE(board_->get_pwr_module_state());
}

TEST(BoardOverEmulatorStart, InventoryFaultMakesTheBoardConstructorThrow) {
  std::string skip;
  std::string failure;
  auto emulator = EmulatorProcess::start(R"({"faults": {"BOARD_GET_PS_COUNT": {"errno": "EIO"}}})", skip, failure);
  XPON_SKIP_OR_FAIL_IN_CI(skip);
  ASSERT_TRUE(emulator) << failure;
  ASSERT_EQ(::setenv("XPON_ROOT", emulator->root().c_str(), 1), 0);
  auto logger = std::make_shared<xpon::test::RecordingLogger>();
  try {
    board::Board board(logger, std::make_unique<board::PosixWrapper>(logger));
    ADD_FAILURE() << "the board was made although BOARD_GET_PS_COUNT fails";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(),
                 "IOCTL(BOARD_GET_PS_COUNT) call failed (Error: ErrorCApi. Message: BOARD_GET_PS_COUNT: ioctl "
                 "returned -1, errno=5 (Input/output error).) ");
  }
  ::unsetenv("XPON_ROOT");
}

TEST(C_Client, ReadsTheInventoryAndSeesAPatch) {
  std::string skip;
  std::string failure;
  auto emulator = EmulatorProcess::start(R"({
    "inventory": {"cpld_version": 7, "fan_count": 4, "ps_count": 2, "temp_count": 5, "pon_port_count": 16,
                  "front_port_count": 8}})",
                                         skip, failure);
  XPON_SKIP_OR_FAIL_IN_CI(skip);
  ASSERT_TRUE(emulator) << failure;
  const auto run = run_program({XPON_INVENTORY_PROBE_PROGRAM, emulator->dev_dir()});
  EXPECT_EQ(run.exit_status, 0) << run.errors;
  EXPECT_EQ(run.output,
            "cpld_version=7\nfan_count=4\nps_count=2\ntemp_count=5\npon_port_count=16\nfront_port_count=8\n"
            "fan_count after patch=5\n");
  EXPECT_EQ(run.errors, "");
}

}  // namespace
}  // namespace xpon::board_emu::test
