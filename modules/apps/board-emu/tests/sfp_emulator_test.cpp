// The SFP cages of the emulated board: modules plugged and pulled by patch and by timeline, the
// lines a module drives, and the identities the example boards carry.

#include "xpon/board/driver_abi.h"
#include "xpon/board_emu/emulator.hpp"
#include "xpon/board_emu/scenario.hpp"
#include "xpon/test/recording_logger.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <thread>

namespace xpon::board_emu {
namespace {

constexpr const char* kBoard = R"({
  "pon_ports": [{"present": false}, {"present": false},
                {"present": true, "state": 1, "identification": "03 07 41 42",
                 "diagnostics": [0, 0, 10240, 256, 0, 33000, 256, 0, 3000, 256, 0, 10000, 256, 0, 0, 0]}],
  "front_ports": [{"present": false}]
})";

Scenario scenario_of(const std::string& text) {
  auto scenario = parse_scenario(text);
  EXPECT_TRUE(scenario) << error_text(scenario.error());
  return scenario.value();
}

int state_of(Emulator& emulator, std::uint32_t port, Brd__sfp_state& state) {
  state = Brd__sfp_state{};
  state.port = port;
  return emulator.ioctl(BOARD_GET_P_PORT_SFP_STATE, &state);
}

bool present(Emulator& emulator, std::uint32_t port) {
  Brd__sfp_state state{};
  EXPECT_EQ(state_of(emulator, port, state), 0);
  return state.present != 0;
}

int read_data(Emulator& emulator, std::uint32_t port, Brd__sfp_data& data) {
  data = Brd__sfp_data{};
  data.port = port;
  return emulator.ioctl(BOARD_GET_P_PORT_SFP_DATA, &data);
}

TEST(SfpCages, ModulePluggedPulledAndPluggedAgainByPatch) {
  auto logger = std::make_shared<test::RecordingLogger>();
  Emulator emulator(scenario_of(kBoard), logger);
  EXPECT_FALSE(present(emulator, 0));
  Brd__sfp_data data{};
  EXPECT_EQ(read_data(emulator, 0, data), -ENODEV);

  ASSERT_TRUE(emulator.apply_patch_text(
      R"({"pon_ports": {"0": {"present": true, "state": 3, "identification": "03 07 58 59"}}})"));
  EXPECT_TRUE(present(emulator, 0));
  ASSERT_EQ(read_data(emulator, 0, data), 0);
  EXPECT_EQ(data.data[BRD_SFP_ID_VENDOR_NAME], 'X');
  EXPECT_EQ(data.data[BRD_SFP_ID_VENDOR_NAME + 1], 'Y');

  ASSERT_TRUE(emulator.apply_patch_text(R"({"pon_ports": {"0": {"present": false}}})"));
  EXPECT_FALSE(present(emulator, 0));
  EXPECT_EQ(read_data(emulator, 0, data), -ENODEV);
  Brd__sfp_eddi_data eddi{};
  EXPECT_EQ(emulator.ioctl(BOARD_GET_P_PORT_SFP_EDDI_DATA, &eddi), -ENODEV);

  // Back in: the same module, its identification kept by the model.
  ASSERT_TRUE(emulator.apply_patch_text(R"({"pon_ports": {"0": {"present": true}}})"));
  EXPECT_TRUE(present(emulator, 0));
  ASSERT_EQ(read_data(emulator, 0, data), 0);
  EXPECT_EQ(data.data[BRD_SFP_ID_VENDOR_NAME], 'X');
}

TEST(SfpCages, AllCagesFilledInOnePatch) {
  auto logger = std::make_shared<test::RecordingLogger>();
  Emulator emulator(scenario_of(kBoard), logger);
  ASSERT_TRUE(emulator.apply_patch_text(
      R"({"pon_ports": {"0": {"present": true}, "1": {"present": true}}, "front_ports": {"0": {"present": true}}})"));
  for (std::uint32_t port = 0; port < 3; ++port) {
    EXPECT_TRUE(present(emulator, port)) << port;
  }
  Brd__sfp_state front{};
  ASSERT_EQ(emulator.ioctl(BOARD_GET_F_PORT_SFP_STATE, &front), 0);
  EXPECT_EQ(front.present, 1);
}

TEST(SfpCages, TxFaultAndRxLosFollowThePatch) {
  auto logger = std::make_shared<test::RecordingLogger>();
  Emulator emulator(scenario_of(kBoard), logger);
  ASSERT_TRUE(emulator.apply_patch_text(R"({"pon_ports": {"2": {"tx_fault": true, "rx_los": true, "state": 9}}})"));
  Brd__sfp_state state{};
  ASSERT_EQ(state_of(emulator, 2, state), 0);
  EXPECT_EQ(state.present, 1);
  EXPECT_EQ(state.tx_fault, 1);
  EXPECT_EQ(state.state, 9);
  EXPECT_EQ(state.rx_los, 1);
  ASSERT_TRUE(emulator.apply_patch_text(R"({"pon_ports": {"2": {"tx_fault": false, "rx_los": false}}})"));
  ASSERT_EQ(state_of(emulator, 2, state), 0);
  EXPECT_EQ(state.tx_fault, 0);
  EXPECT_EQ(state.rx_los, 0);
}

TEST(SfpCages, TransmitterSwitchShowsInTheStateDocument) {
  auto logger = std::make_shared<test::RecordingLogger>();
  Emulator emulator(scenario_of(kBoard), logger);
  EXPECT_EQ(Json::parse(emulator.state_document())["pon_ports"][2]["trx_enabled"], true);
  Brd__cntrl_sfp_trx off{};
  off.port = 2;
  ASSERT_EQ(emulator.ioctl(BOARD_CNTRL_P_PORT_SFP_TRX, &off), 0);
  EXPECT_EQ(Json::parse(emulator.state_document())["pon_ports"][2]["trx_enabled"], false);
  Brd__cntrl_sfp_trx on{};
  on.port = 2;
  on.enable = 1;
  ASSERT_EQ(emulator.ioctl(BOARD_CNTRL_P_PORT_SFP_TRX, &on), 0);
  EXPECT_EQ(Json::parse(emulator.state_document())["pon_ports"][2]["trx_enabled"], true);
}

TEST(SfpCages, TimelinePlugsPullsAndPlugsAgain) {
  auto logger = std::make_shared<test::RecordingLogger>();
  Emulator emulator(scenario_of(R"({
    "pon_ports": [{"present": false, "identification": "03 07 5a"}],
    "timeline": [{"at_ms": 20, "patch": {"pon_ports": {"0": {"present": true}}}},
                 {"at_ms": 220, "patch": {"pon_ports": {"0": {"present": false}}}},
                 {"at_ms": 420, "patch": {"pon_ports": {"0": {"present": true}}}}]
  })"),
                    logger);
  EXPECT_FALSE(emulator.snapshot().pon_ports[0].present);
  emulator.start_timeline();
  // Every change of the cage, as a poller that samples it often sees it.
  std::string seen = "0";
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (seen != "0101" && std::chrono::steady_clock::now() < deadline) {
    const char now = emulator.snapshot().pon_ports[0].present ? '1' : '0';
    if (seen.back() != now) {
      seen.push_back(now);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  emulator.stop_timeline();
  EXPECT_EQ(seen, "0101");
  EXPECT_TRUE(present(emulator, 0));
  Brd__sfp_data data{};
  ASSERT_EQ(read_data(emulator, 0, data), 0);
  EXPECT_EQ(data.data[BRD_SFP_ID_VENDOR_NAME], 'Z');
}

// The text field at `offset` of an identification, blanks at its end removed.
std::string text_at(const std::array<std::uint8_t, 60>& id, std::size_t offset, std::size_t length) {
  std::string text(id.begin() + static_cast<std::ptrdiff_t>(offset),
                   id.begin() + static_cast<std::ptrdiff_t>(offset + length));
  return text.substr(0, text.find_last_not_of(' ') + 1);
}

TEST(SfpCages, ExampleModulesCarryRealBaseIdFields) {
  for (const char* name : {"board-lt.json", "board-lc.json", "board-fc.json"}) {
    auto scenario = load_scenario_file((std::filesystem::path(XPON_EXAMPLES_DIR) / name).string());
    ASSERT_TRUE(scenario) << name;
    std::set<std::string> serials;
    const BoardModel& model = scenario.value().model;
    for (const auto* group : {&model.pon_ports, &model.front_ports}) {
      const bool pon = group == &model.pon_ports;
      for (const SfpPort& port : *group) {
        if (!port.present) {
          continue;
        }
        const auto& id = port.identification;
        EXPECT_EQ(id[BRD_SFP_ID_IDENTIFIER], 0x03) << name << ": SFP";
        EXPECT_EQ(id[BRD_SFP_ID_CONNECTOR], 0x07) << name << ": LC connector";
        EXPECT_EQ(text_at(id, BRD_SFP_ID_VENDOR_NAME, 16), "XPON-OPTICS") << name;
        EXPECT_EQ(id[BRD_SFP_ID_VENDOR_OUI], 0x00);
        EXPECT_EQ(id[BRD_SFP_ID_VENDOR_OUI + 1], 0x1F);
        EXPECT_EQ(id[BRD_SFP_ID_VENDOR_OUI + 2], 0x22);
        EXPECT_EQ(text_at(id, BRD_SFP_ID_PART_NUMBER, 16), pon ? "GP-SFP-C++" : "SFP-10G-LR") << name;
        const unsigned wavelength = (id[BRD_SFP_ID_WAVELENGTH] << 8U) | id[BRD_SFP_ID_WAVELENGTH + 1];
        EXPECT_EQ(wavelength, pon ? 1490U : 1310U) << name;
        const std::string serial = text_at(id, BRD_SFP_ID_SERIAL, 16);
        EXPECT_EQ(serial.size(), 12U) << name;
        EXPECT_TRUE(serials.insert(serial).second) << name << ": serial " << serial << " twice";
        EXPECT_EQ(id[59], 0) << name;
      }
    }
    EXPECT_FALSE(serials.empty()) << name;
  }
}

}  // namespace
}  // namespace xpon::board_emu
