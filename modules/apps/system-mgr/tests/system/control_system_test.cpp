// The control requests end to end: the real daemon answers the board's identity and drives the
// front panel, the front button and the PON-port LEDs of the board emulator.

#include "system_test.hpp"
#include "xpon/ipc/zmq_ipc.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/test/temp_dir.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <fstream>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace xpon::system_mgr::test {
namespace {

using Json = nlohmann::json;

constexpr const char* kCrateProduct = "QD7R-CRATE-14";

// The LED command's words as a client writes them: LED, mode, colour.
constexpr std::uint32_t kAlarmLed = 2;
constexpr std::uint32_t kFanLed = 4;
constexpr std::uint32_t kOn = 1;
constexpr std::uint32_t kBlink = 2;
constexpr std::uint32_t kRed = 2;

// One board of each family, as the examples describe them.
struct Board {
  const char* scenario;
  const char* product;
  std::uint32_t family;
};

const Board kLt{"board-lt.json", kLtProduct, SYSTEM_MGR_FAMILY_LT};
const Board kLc{"board-lc.json", kLcProduct, SYSTEM_MGR_FAMILY_LC};
const Board kFc{"board-fc.json", kFcProduct, SYSTEM_MGR_FAMILY_FC};

void PrintTo(const Board& board, std::ostream* out) {
  *out << board.scenario;
}

std::string text_at(const ipc::Payload& bytes, std::size_t offset) {
  return {reinterpret_cast<const char*>(bytes.data() + offset)};
}

class ControlSystemTest : public SystemMgrTest {
 protected:
  // The board, the daemon ready, and a client endpoint of the board's own.
  void start(const Board& board, bool with_crate_image = false) {
    ASSERT_NO_FATAL_FAILURE(start_board(board.scenario, board.product));
    if (IsSkipped()) {
      return;
    }
    if (with_crate_image) {
      ASSERT_EQ(rig_.make_crate_factory_image(kCrateProduct), "");
    }
    ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
    // READY comes before the functions run: wait until the last control function has subscribed.
    ASSERT_TRUE(rig_.wait_for_log("Polling not required for System function: MiscParameters", kStepTimeout))
        << rig_.daemon_log();
    // The client finds the bus under the board's root for as long as it talks to it.
    root_.emplace("XPON_ROOT", rig_.root());
    client_ = ipc::make_zmq_endpoint(ipc::make_address(0x0043), "control-client");
  }

  // The daemon's answer to one request; fails the test when there is none.
  ipc::Response ask(std::uint16_t id, ipc::Payload payload = {}) {
    ipc::Request request;
    request.group = IPC_SYSTEM_MGR;
    request.id = id;
    request.payload = std::move(payload);
    const auto answer = client_->request(kDaemonAddress, request, kStepTimeout);
    EXPECT_TRUE(answer.has_value()) << (answer ? "" : answer.error().to_string()) << "\n" << rig_.daemon_log();
    if (!answer) {
      return {};
    }
    EXPECT_EQ(answer.value().address, 0x0000FFFEU);
    return answer.value();
  }

  // The emulator's model as it stands.
  Json board_state() const {
    std::ifstream in(rig_.path("/dev/board-state.json"));
    std::stringstream text;
    text << in.rdbuf();
    return Json::parse(text.str());
  }

  // Applies a patch to the emulator's model.
  void patch(const std::string& text) const {
    std::ofstream out(rig_.path("/dev/board-control"));
    out << text;
    out.close();
    ASSERT_TRUE(out) << "the patch was refused: " << text << "\n" << rig_.helper_logs();
  }

  static ipc::Payload led(std::uint32_t which, std::uint32_t mode, std::uint32_t colour) {
    ipc::Payload payload;
    for (const std::uint32_t word : {which, mode, colour}) {
      for (unsigned shift = 0; shift < 32; shift += 8) {
        payload.push_back(static_cast<std::uint8_t>((word >> shift) & 0xFFU));
      }
    }
    return payload;
  }

  std::optional<xpon::test::ScopedEnv> root_;
  std::shared_ptr<ipc::ZmqIpc> client_;
};

#define XPON_START_CONTROL(...)                  \
  do {                                           \
    ASSERT_NO_FATAL_FAILURE(start(__VA_ARGS__)); \
    if (IsSkipped()) {                           \
      return;                                    \
    }                                            \
  } while (false)

class EveryFamily : public ControlSystemTest, public ::testing::WithParamInterface<Board> {};

TEST_P(EveryFamily, DeviceFactoryBeginsWithTheFamilyIdAndCarriesTheProductName) {
  XPON_START_CONTROL(GetParam());
  const auto answer = ask(IPC_SYSTEM_MGR__GET_DEVICE_FACTORY);
  EXPECT_EQ(answer.result, 1U);
  ASSERT_EQ(answer.payload.size(), 280U);
  EXPECT_EQ(u32_at(answer.payload, 0), GetParam().family);
  EXPECT_EQ(text_at(answer.payload, 4), GetParam().product);
  EXPECT_TRUE(rig_.wait_for_log("Handle IPC request [IPC_SYSTEM_MGR__GET_DEVICE_FACTORY]", kStepTimeout));
}

TEST_P(EveryFamily, VersionsAreTheBoardsAsTheScenarioGivesThem) {
  XPON_START_CONTROL(GetParam());
  const Json state = board_state();
  const auto fpga = ask(IPC_SYSTEM_MGR__GET_FPGA_VERSION);
  EXPECT_EQ(fpga.result, 1U);
  EXPECT_EQ(fpga.payload, ipc::Payload{state["versions"]["fpga"].get<std::uint8_t>()});
  const auto cpld = ask(IPC_SYSTEM_MGR__GET_CPLD_VERSION);
  EXPECT_EQ(cpld.result, 1U);
  EXPECT_EQ(cpld.payload, ipc::Payload{state["inventory"]["cpld_version"].get<std::uint8_t>()});
  EXPECT_NE(fpga.payload, ipc::Payload{0});
}

TEST_P(EveryFamily, BadPayloadsNeverStopTheDaemonNorChangeTheBoard) {
  XPON_START_CONTROL(GetParam());
  // The settings' requests go last so that the state can be compared once at the end.
  const Json before = board_state();
  std::mt19937 random(20261123);
  const std::vector<std::uint16_t> ids{IPC_SYSTEM_MGR__CNTRL_LED_PANEL, IPC_SYSTEM_MGR__P_PORT_R_LED_ON_G_LED_OFF,
                                       IPC_SYSTEM_MGR__P_PORT_G_LED_ON_R_LED_OFF, IPC_SYSTEM_MGR__P_PORT_LED_OFF};
  for (const std::uint16_t id : ids) {
    for (const std::size_t size : {0U, 3U}) {
      ipc::Payload payload(size);
      for (auto& byte : payload) {
        byte = static_cast<std::uint8_t>(random());
      }
      EXPECT_EQ(ask(id, payload).result, 0U) << id << " with " << size << " bytes";
    }
  }
  // Too short for the LED panel, long enough for a port: refused by the LED panel only.
  for (const std::size_t size : {4U, 11U}) {
    EXPECT_EQ(ask(IPC_SYSTEM_MGR__CNTRL_LED_PANEL, ipc::Payload(size, 0xEE)).result, 0U) << size;
  }
  // Random LED records and ports far beyond the board: the driver refuses them all.
  for (int round = 0; round < 8; ++round) {
    ipc::Payload payload(4096);
    for (auto& byte : payload) {
      byte = static_cast<std::uint8_t>(random() | 0x80U);
    }
    EXPECT_EQ(ask(IPC_SYSTEM_MGR__CNTRL_LED_PANEL, payload).result, 0U);
    EXPECT_EQ(ask(IPC_SYSTEM_MGR__P_PORT_LED_OFF, payload).result, 0U);
  }
  EXPECT_EQ(board_state()["led_panel"], before["led_panel"]);
  EXPECT_EQ(board_state()["pon_ports"], before["pon_ports"]);
  // The requests without arguments ignore whatever payload they carry.
  for (const std::uint16_t id : {IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, IPC_SYSTEM_MGR__GET_FPGA_VERSION,
                                 IPC_SYSTEM_MGR__GET_CPLD_VERSION, IPC_SYSTEM_MGR__IS_F_BUTTON_ENABLED,
                                 IPC_SYSTEM_MGR__IS_F_BUTTON_HARD_RESET_ENABLED, IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED}) {
    for (const std::size_t size : {0U, 3U, 4U, 11U, 12U, 4096U}) {
      ipc::Payload payload(size);
      for (auto& byte : payload) {
        byte = static_cast<std::uint8_t>(random());
      }
      EXPECT_EQ(ask(id, payload).result, 1U) << id << " with " << size << " bytes";
    }
  }
  EXPECT_TRUE(rig_.daemon().running());
  EXPECT_EQ(ask(IPC_SYSTEM_MGR__GET_FPGA_VERSION).result, 1U);
}

INSTANTIATE_TEST_SUITE_P(Boards, EveryFamily, ::testing::Values(kLt, kLc, kFc));

TEST_F(ControlSystemTest, CrateFactoryOnFcCarriesTheCrateImagesProductName) {
  XPON_START_CONTROL(kFc, /*with_crate_image=*/true);
  const auto answer = ask(IPC_SYSTEM_MGR__GET_CRATE_FACTORY);
  EXPECT_EQ(answer.result, 1U);
  ASSERT_EQ(answer.payload.size(), 280U);
  EXPECT_EQ(u32_at(answer.payload, 0), static_cast<std::uint32_t>(SYSTEM_MGR_FAMILY_FC));
  EXPECT_EQ(text_at(answer.payload, 4), kCrateProduct);
}

TEST_F(ControlSystemTest, FcWithoutCrateImageStartsSaysSoAndAnswersTheZeroRecord) {
  XPON_START_CONTROL(kFc);
  EXPECT_TRUE(rig_.wait_for_log("Crate factory data unavailable (the image cannot be read, error 2)", kStepTimeout))
      << rig_.daemon_log();
  const auto answer = ask(IPC_SYSTEM_MGR__GET_CRATE_FACTORY);
  EXPECT_EQ(answer.result, 1U);
  EXPECT_EQ(answer.payload, ipc::Payload(280, 0));
}

class WithoutCrate : public ControlSystemTest, public ::testing::WithParamInterface<Board> {};

TEST_P(WithoutCrate, CrateFactoryIsAnErrorAnswerThatNamesTheFamily) {
  // The crate image is there: only the family decides.
  XPON_START_CONTROL(GetParam(), /*with_crate_image=*/true);
  const auto answer = ask(IPC_SYSTEM_MGR__GET_CRATE_FACTORY);
  EXPECT_EQ(answer.result, 0U);
  EXPECT_TRUE(answer.payload.empty());
  EXPECT_TRUE(rig_.wait_for_log(
      "Crate Factory available only FC device family. Actual device family id is " + std::to_string(GetParam().family),
      kStepTimeout))
      << rig_.daemon_log();
}

INSTANTIATE_TEST_SUITE_P(Boards, WithoutCrate, ::testing::Values(kLt, kLc));

TEST_F(ControlSystemTest, LedPanelRequestChangesTheBoardState) {
  XPON_START_CONTROL(kFc);
  EXPECT_EQ(board_state()["led_panel"]["alarm"], Json::parse(R"({"mode": "off", "color": "green"})"));
  const auto answer = ask(IPC_SYSTEM_MGR__CNTRL_LED_PANEL, led(kAlarmLed, kBlink, kRed));
  EXPECT_EQ(answer.result, 1U);
  EXPECT_TRUE(answer.payload.empty());
  EXPECT_EQ(board_state()["led_panel"]["alarm"], Json::parse(R"({"mode": "blink", "color": "red"})"));
}

TEST_F(ControlSystemTest, ElevenByteLedPayloadIsRefusedAndTheBoardIsUnchanged) {
  XPON_START_CONTROL(kLt);
  const Json before = board_state();
  auto payload = led(kFanLed, kOn, kRed);
  payload.pop_back();
  const auto answer = ask(IPC_SYSTEM_MGR__CNTRL_LED_PANEL, payload);
  EXPECT_EQ(answer.result, 0U);
  EXPECT_TRUE(answer.payload.empty());
  EXPECT_EQ(board_state()["led_panel"], before["led_panel"]);
}

TEST_F(ControlSystemTest, LedTheBoardDoesNotKnowIsAnErrorAnswerAndChangesNothing) {
  XPON_START_CONTROL(kLc);
  const Json before = board_state();
  EXPECT_EQ(ask(IPC_SYSTEM_MGR__CNTRL_LED_PANEL, led(5, kOn, kRed)).result, 0U);
  EXPECT_EQ(ask(IPC_SYSTEM_MGR__CNTRL_LED_PANEL, led(kFanLed, 3, kRed)).result, 0U);
  EXPECT_EQ(ask(IPC_SYSTEM_MGR__CNTRL_LED_PANEL, led(kFanLed, kOn, 3)).result, 0U);
  EXPECT_EQ(board_state()["led_panel"], before["led_panel"]);
  EXPECT_TRUE(rig_.daemon().running());
}

TEST_F(ControlSystemTest, FrontButtonCommandsRoundTripThroughTheEmulator) {
  XPON_START_CONTROL(kLt);
  // The example LT board watches its button and does not reset on a long press.
  EXPECT_EQ(ask(IPC_SYSTEM_MGR__IS_F_BUTTON_ENABLED).payload, ipc::Payload{1});
  EXPECT_EQ(ask(IPC_SYSTEM_MGR__DISABLE_F_BUTTON).result, 1U);
  EXPECT_EQ(board_state()["front_button"]["polling_enabled"], false);
  EXPECT_EQ(ask(IPC_SYSTEM_MGR__IS_F_BUTTON_ENABLED).payload, ipc::Payload{0});
  EXPECT_EQ(ask(IPC_SYSTEM_MGR__ENABLE_F_BUTTON).result, 1U);
  EXPECT_EQ(board_state()["front_button"]["polling_enabled"], true);
  EXPECT_EQ(ask(IPC_SYSTEM_MGR__IS_F_BUTTON_ENABLED).payload, ipc::Payload{1});

  EXPECT_EQ(ask(IPC_SYSTEM_MGR__IS_F_BUTTON_HARD_RESET_ENABLED).payload, ipc::Payload{0});
  EXPECT_EQ(ask(IPC_SYSTEM_MGR__ENABLE_F_BUTTON_HARD_RESET).result, 1U);
  EXPECT_EQ(board_state()["front_button"]["hard_reset_enabled"], true);
  EXPECT_EQ(ask(IPC_SYSTEM_MGR__IS_F_BUTTON_HARD_RESET_ENABLED).payload, ipc::Payload{1});
  EXPECT_EQ(ask(IPC_SYSTEM_MGR__DISABLE_F_BUTTON_HARD_RESET).result, 1U);
  EXPECT_EQ(board_state()["front_button"]["hard_reset_enabled"], false);

  EXPECT_EQ(ask(IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED).payload, ipc::Payload{0});
  ASSERT_NO_FATAL_FAILURE(patch(R"({"front_button": {"pressed": true}})"));
  EXPECT_EQ(ask(IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED).payload, ipc::Payload{1});
}

TEST_F(ControlSystemTest, FailingButtonQueryIsAnErrorAnswerAndLogged) {
  XPON_START_CONTROL(kLc);
  ASSERT_NO_FATAL_FAILURE(patch(R"({"faults": {"BOARD_F_BTN_IS_PRESSED": {"errno": "EIO", "count": 1}}})"));
  const auto answer = ask(IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED);
  EXPECT_EQ(answer.result, 0U);
  EXPECT_TRUE(answer.payload.empty());
  EXPECT_TRUE(rig_.wait_for_log("f_btn__is_pressed() call failed (", kStepTimeout)) << rig_.daemon_log();
  // The fault was for one call only.
  EXPECT_EQ(ask(IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED).result, 1U);
}

TEST_F(ControlSystemTest, PonPortLedRequestsSetBothElements) {
  XPON_START_CONTROL(kLc);
  const ipc::Payload port3{3, 0, 0, 0};
  EXPECT_EQ(ask(IPC_SYSTEM_MGR__P_PORT_R_LED_ON_G_LED_OFF, port3).result, 1U);
  EXPECT_EQ(board_state()["pon_ports"][3]["led"], Json::parse(R"({"red": "on", "green": "off"})"));
  EXPECT_EQ(ask(IPC_SYSTEM_MGR__P_PORT_G_LED_ON_R_LED_OFF, port3).result, 1U);
  EXPECT_EQ(board_state()["pon_ports"][3]["led"], Json::parse(R"({"red": "off", "green": "on"})"));
  EXPECT_EQ(ask(IPC_SYSTEM_MGR__P_PORT_LED_OFF, port3).result, 1U);
  EXPECT_EQ(board_state()["pon_ports"][3]["led"], Json::parse(R"({"red": "off", "green": "off"})"));
}

TEST_F(ControlSystemTest, PonPortLedOfAnUnknownPortIsAnErrorAnswer) {
  XPON_START_CONTROL(kLc);
  const auto answer = ask(IPC_SYSTEM_MGR__P_PORT_R_LED_ON_G_LED_OFF, {16, 0, 0, 0});
  EXPECT_EQ(answer.result, 0U);
  EXPECT_TRUE(rig_.wait_for_log("p_port__set_led_state() call failed (", kStepTimeout)) << rig_.daemon_log();
}

}  // namespace
}  // namespace xpon::system_mgr::test
