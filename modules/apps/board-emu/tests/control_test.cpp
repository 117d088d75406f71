// The emulator's front panel, PON-port LEDs, front button and versions as system-mgr's control
// functions drive them: every setting visible in the state document at once, every refusal the
// driver gives an EINVAL that changes nothing.

#include "xpon/board/driver_abi.h"
#include "xpon/board_emu/emulator.hpp"
#include "xpon/test/recording_logger.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>

namespace xpon::board_emu {
namespace {

constexpr const char* kBoard = R"({
  "inventory": {"cpld_version": 9},
  "versions": {"fpga": 33},
  "pon_ports": [{}, {}, {}],
  "led_panel": {"power": {"mode": "on", "color": "green"}},
  "front_button": {"polling_enabled": true}
})";

class ControlTest : public ::testing::Test {
 protected:
  ControlTest() : emulator_(scenario(), logger_) {}

  static Scenario scenario() {
    auto parsed = parse_scenario(kBoard);
    EXPECT_TRUE(parsed) << error_text(parsed.error());
    return parsed.value();
  }

  std::uint8_t byte(unsigned int request) {
    std::uint8_t value = 0xEE;
    EXPECT_EQ(emulator_.ioctl(request, &value), 0);
    return value;
  }

  int set_panel(std::uint32_t led, std::uint32_t mode, std::uint32_t color) {
    Brd__led record{led, mode, color};
    return emulator_.ioctl(BOARD_CNTRL_LED_PANEL, &record);
  }

  int set_port(std::uint32_t port, std::uint32_t mode, std::uint32_t color) {
    Brd__p_port_led record{port, mode, color};
    return emulator_.ioctl(BOARD_P_PORT_SET_LED_STATE, &record);
  }

  Json state() { return Json::parse(emulator_.state_document()); }

  std::shared_ptr<test::RecordingLogger> logger_ = std::make_shared<test::RecordingLogger>();
  Emulator emulator_;
};

TEST_F(ControlTest, VersionsAreTheScenarios) {
  EXPECT_EQ(byte(BOARD_GET_FPGA_VERSION), 33);
  EXPECT_EQ(byte(BOARD_GET_CPLD_VERSION), 9);
}

TEST_F(ControlTest, EveryPanelLedTakesEveryModeAndColour) {
  const char* leds[] = {"power", "status", "alarm", "master", "fan"};
  const char* modes[] = {"off", "on", "blink"};
  const char* colours[] = {"green", "yellow", "red"};
  for (std::uint32_t led = 0; led < 5; ++led) {
    for (std::uint32_t mode = 0; mode < 3; ++mode) {
      for (std::uint32_t color = 0; color < 3; ++color) {
        ASSERT_EQ(set_panel(led, mode, color), 0);
        EXPECT_EQ(state()["led_panel"][leds[led]], (Json{{"mode", modes[mode]}, {"color", colours[color]}}));
      }
    }
  }
}

TEST_F(ControlTest, UnknownPanelLedIsRefusedAndChangesNothing) {
  const Json before = state();
  EXPECT_EQ(set_panel(5, BRD_API__LED_MODE_ON, BRD_API__LED_COLOR_RED), -EINVAL);
  EXPECT_EQ(set_panel(0xFFFFFFFFU, BRD_API__LED_MODE_ON, BRD_API__LED_COLOR_RED), -EINVAL);
  EXPECT_EQ(state(), before);
}

TEST_F(ControlTest, UnknownPanelModeIsRefusedAndChangesNothing) {
  const Json before = state();
  EXPECT_EQ(set_panel(BRD_API__PANEL_LED_POWER, 3, BRD_API__LED_COLOR_RED), -EINVAL);
  EXPECT_EQ(state(), before);
}

TEST_F(ControlTest, UnknownPanelColourIsRefusedAndChangesNothing) {
  const Json before = state();
  EXPECT_EQ(set_panel(BRD_API__PANEL_LED_POWER, BRD_API__LED_MODE_OFF, 3), -EINVAL);
  EXPECT_EQ(state(), before);
  EXPECT_EQ(state()["led_panel"]["power"], (Json{{"mode", "on"}, {"color", "green"}}));
}

TEST_F(ControlTest, PortLedElementsShowInTheStateAfterEachCall) {
  ASSERT_EQ(set_port(2, BRD_API__LED_MODE_ON, BRD_API__LED_COLOR_RED), 0);
  EXPECT_EQ(state()["pon_ports"][2]["led"], (Json{{"red", "on"}, {"green", "off"}}));
  ASSERT_EQ(set_port(2, BRD_API__LED_MODE_ON, BRD_API__LED_COLOR_GREEN), 0);
  EXPECT_EQ(state()["pon_ports"][2]["led"], (Json{{"red", "on"}, {"green", "on"}}));
  ASSERT_EQ(set_port(2, BRD_API__LED_MODE_OFF, BRD_API__LED_COLOR_RED), 0);
  EXPECT_EQ(state()["pon_ports"][2]["led"], (Json{{"red", "off"}, {"green", "on"}}));
}

TEST_F(ControlTest, PortLedOfAnUnknownPortOrColourIsRefusedAndChangesNothing) {
  const Json before = state();
  EXPECT_EQ(set_port(3, BRD_API__LED_MODE_ON, BRD_API__LED_COLOR_RED), -EINVAL);
  EXPECT_EQ(set_port(0, BRD_API__LED_MODE_ON, BRD_API__LED_COLOR_YELLOW), -EINVAL);
  EXPECT_EQ(set_port(0, 3, BRD_API__LED_COLOR_RED), -EINVAL);
  EXPECT_EQ(state(), before);
}

TEST_F(ControlTest, ButtonSettingsShowInTheStateAfterEachCall) {
  std::uint8_t off = 0;
  std::uint8_t on = 1;
  ASSERT_EQ(emulator_.ioctl(BOARD_F_BTN_SET_POLLING, &off), 0);
  EXPECT_EQ(state()["front_button"]["polling_enabled"], false);
  EXPECT_EQ(byte(BOARD_F_BTN_IS_POLLING_ENABLED), 0);
  ASSERT_EQ(emulator_.ioctl(BOARD_F_BTN_SET_HARD_RESET, &on), 0);
  EXPECT_EQ(state()["front_button"]["hard_reset_enabled"], true);
  EXPECT_EQ(byte(BOARD_F_BTN_IS_HARD_RESET_ENABLED), 1);
}

TEST_F(ControlTest, ButtonSettingOtherThanZeroOrOneIsRefused) {
  const Json before = state();
  std::uint8_t two = 2;
  EXPECT_EQ(emulator_.ioctl(BOARD_F_BTN_SET_POLLING, &two), -EINVAL);
  EXPECT_EQ(emulator_.ioctl(BOARD_F_BTN_SET_HARD_RESET, &two), -EINVAL);
  EXPECT_EQ(state(), before);
}

TEST_F(ControlTest, PressingTheButtonIsAPatch) {
  EXPECT_EQ(byte(BOARD_F_BTN_IS_PRESSED), 0);
  ASSERT_TRUE(emulator_.apply_patch_text(R"({"front_button": {"pressed": true}})"));
  EXPECT_EQ(byte(BOARD_F_BTN_IS_PRESSED), 1);
  EXPECT_EQ(state()["front_button"]["pressed"], true);
  // The patch leaves the settings alone.
  EXPECT_EQ(state()["front_button"]["polling_enabled"], true);
  ASSERT_TRUE(emulator_.apply_patch_text(R"({"front_button": {"pressed": false}})"));
  EXPECT_EQ(byte(BOARD_F_BTN_IS_PRESSED), 0);
}

}  // namespace
}  // namespace xpon::board_emu
