// The emulated board's power: its own supplies (LT boards) and the crate's power module (FC
// boards), as the driver commands answer them, changed by patches and failed by faults.

#include "xpon/board/driver_abi.h"
#include "xpon/board_emu/emulator.hpp"
#include "xpon/board_emu/model.hpp"
#include "xpon/board_emu/scenario.hpp"
#include "xpon/test/recording_logger.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

namespace xpon::board_emu {
namespace {

constexpr const char* kPowerBoard = R"({
  "power_supplies": [{"model": "PSU-150W-AC", "serial": "PS2301000123", "version": "1.2", "revision": "B",
                      "date": "2023-01-17"},
                     {"model": "PSU-150W-AC", "serial": "PS2301000124", "version": "1.2", "revision": "B",
                      "date": "2023-01-17"}],
  "power_module": {"input_voltage": 2300, "output_voltage": 1200, "output_current": 1250, "output_power": 150,
                   "temperature": 38}
})";

class EmulatedPower : public ::testing::Test {
 protected:
  EmulatedPower() : emulator_(scenario(kPowerBoard), logger_) {}

  static Scenario scenario(const std::string& text) {
    auto parsed = parse_scenario(text);
    EXPECT_TRUE(parsed) << error_text(parsed.error());
    return parsed.value();
  }

  // BOARD_GET_PS_INFO for every record the list holds; the errno of a failure, else 0.
  int read_supplies(Brd__ps_list& list) {
    std::memset(&list, 0, sizeof list);
    list.count = BRD_MAX_POWER_SUPPLIES;
    return -emulator_.ioctl(BOARD_GET_PS_INFO, &list);
  }

  int read_module(Wake__pwr_module& module) {
    std::memset(&module, 0xEE, sizeof module);
    return -emulator_.ioctl(BOARD_GET_PWR_MODULE_STATE, &module);
  }

  void patch(const std::string& text) {
    const auto applied = emulator_.apply_patch_text(text);
    ASSERT_TRUE(applied) << error_text(applied.error());
  }

  std::shared_ptr<test::RecordingLogger> logger_ = std::make_shared<test::RecordingLogger>();
  Emulator emulator_;
};

TEST_F(EmulatedPower, APulledSupplyIsReportedNeitherPresentNorPowerGoodAndKeepsItsSlot) {
  patch(R"({"power_supplies": {"1": {"present": false, "power_good": false}}})");
  Brd__ps_list list;
  ASSERT_EQ(read_supplies(list), 0);
  ASSERT_EQ(list.count, 2U);
  EXPECT_EQ(list.info[0].is_present, 1);
  EXPECT_EQ(list.info[0].is_power_good, 1);
  EXPECT_EQ(list.info[1].id, 1);
  EXPECT_EQ(list.info[1].is_present, 0);
  EXPECT_EQ(list.info[1].is_power_good, 0);
  // Only the flags changed: the identification is still the supply's.
  EXPECT_STREQ(list.info[1].sn, "PS2301000124");

  patch(R"({"power_supplies": {"1": {"present": true, "power_good": true}}})");
  ASSERT_EQ(read_supplies(list), 0);
  EXPECT_EQ(list.info[1].is_present, 1);
  EXPECT_EQ(list.info[1].is_power_good, 1);
}

TEST_F(EmulatedPower, ASupplyLosingItsOutputIsPresentWithoutPowerGood) {
  patch(R"({"power_supplies": {"0": {"power_good": false, "alert": 16}}})");
  Brd__ps_list list;
  ASSERT_EQ(read_supplies(list), 0);
  EXPECT_EQ(list.info[0].is_present, 1);
  EXPECT_EQ(list.info[0].is_power_good, 0);
  EXPECT_EQ(list.info[0].alert, 16);
}

TEST_F(EmulatedPower, TextsThatFillTheirFieldsGoOutWithoutTheirNul) {
  const std::string model(31, 'M');
  patch(R"({"power_supplies": {"0": {"model": ")" + model +
        R"(", "serial": "SSSSSSSSSSSSSSSSS", "version": "VVVVVV", "revision": "RR", "date": "DDDDDDDDDDD"}}})");
  Brd__ps_list list;
  ASSERT_EQ(read_supplies(list), 0);
  std::array<std::uint8_t, sizeof(Brd__ps_info)> bytes{};
  std::memcpy(bytes.data(), &list.info[0], bytes.size());
  // Every byte from the model's first to the record's last is a text character: no NUL anywhere.
  EXPECT_EQ(std::string(bytes.begin() + 5, bytes.end()),
            model + std::string(17, 'S') + std::string(6, 'V') + "RR" + std::string(11, 'D'));
}

TEST_F(EmulatedPower, TextsLongerThanTheirFieldsAreRefused) {
  const auto refused =
      emulator_.apply_patch_text(R"({"power_supplies": {"0": {"model": ")" + std::string(32, 'M') + R"("}}})");
  ASSERT_FALSE(refused);
  EXPECT_EQ(error_text(refused.error()),
            "power_supplies[0].model: must be a text of at most 31 characters, not \"" + std::string(32, 'M') + "\"");
  EXPECT_FALSE(emulator_.apply_patch_text(R"({"power_supplies": {"1": {"date": "2023-01-17T1"}}})"));
  EXPECT_FALSE(emulator_.apply_patch_text(R"({"power_supplies": {"1": {"revision": "ABC"}}})"));
}

TEST_F(EmulatedPower, AFaultOnTheSupplyListFailsItsCountOfCallsThenClears) {
  patch(R"({"faults": {"BOARD_GET_PS_INFO": {"errno": "EIO", "count": 2}}})");
  Brd__ps_list list;
  EXPECT_EQ(read_supplies(list), EIO);
  EXPECT_EQ(read_supplies(list), EIO);
  EXPECT_EQ(read_supplies(list), 0);
  EXPECT_EQ(list.count, 2U);
}

TEST_F(EmulatedPower, ThePowerModuleStateIsItsTwentyBytes) {
  Wake__pwr_module module;
  ASSERT_EQ(read_module(module), 0);
  const std::array<std::uint8_t, 20> expected = {0x01, 0x01, 0x00, 0x00, 0xFC, 0x08, 0xB0, 0x04, 0xE2, 0x04,
                                                 0x96, 0x00, 0x26, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
  std::array<std::uint8_t, 20> bytes{};
  std::memcpy(bytes.data(), &module, bytes.size());
  EXPECT_EQ(bytes, expected);
}

TEST_F(EmulatedPower, ThePowerModulesOwnFaultsArePatchedIn) {
  patch(R"({"power_module": {"power_good": false, "fault": true, "fan_fault": true, "temperature": -40}})");
  Wake__pwr_module module;
  ASSERT_EQ(read_module(module), 0);
  EXPECT_EQ(module.present, 1);
  EXPECT_EQ(module.power_good, 0);
  EXPECT_EQ(module.fault, 1);
  EXPECT_EQ(module.fan_fault, 1);
  EXPECT_EQ(module.temperature, -40);
  // The fields the patch left alone keep their values.
  EXPECT_EQ(module.input_voltage, 2300);
}

TEST_F(EmulatedPower, AFaultOnThePowerModuleFailsItUntilRemoved) {
  patch(R"({"faults": {"BOARD_GET_PWR_MODULE_STATE": {"errno": "ETIMEDOUT"}}})");
  Wake__pwr_module module;
  EXPECT_EQ(read_module(module), ETIMEDOUT);
  EXPECT_EQ(read_module(module), ETIMEDOUT);
  patch(R"({"faults": {"BOARD_GET_PWR_MODULE_STATE": null}})");
  EXPECT_EQ(read_module(module), 0);
}

TEST_F(EmulatedPower, ARemovedPowerModuleAnswersNoDevice) {
  patch(R"({"power_module": null})");
  Wake__pwr_module module;
  EXPECT_EQ(read_module(module), ENODEV);
}

}  // namespace
}  // namespace xpon::board_emu
