#pragma once

// What the reliability tests share: one board of each family, the daemon started and ready with a
// client endpoint of its own, the table of every request the daemon serves with the answer each
// family gives to a well-formed one, a raw peer that speaks the wire format frame by frame, and the
// daemon's descriptor and memory use.

#include "system_test.hpp"
#include "xpon/board/driver_abi.h"
#include "xpon/ipc/wire.hpp"
#include "xpon/ipc/zmq_ipc.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/test/process.hpp"
#include "xpon/test/temp_dir.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>
#include <zmq.hpp>
#include <zmq_addon.hpp>

namespace xpon::system_mgr::test {

using Json = nlohmann::json;

// A board of one family as the examples describe it, with the number of its polling functions
// (each logs "Start System function: " once it runs).
struct Board {
  const char* scenario;
  const char* product;
  std::uint32_t family;
  std::size_t polling_functions;
};

inline const Board kLtBoard{"board-lt.json", kLtProduct, SYSTEM_MGR_FAMILY_LT, 7};
inline const Board kLcBoard{"board-lc.json", kLcProduct, SYSTEM_MGR_FAMILY_LC, 4};
inline const Board kFcBoard{"board-fc.json", kFcProduct, SYSTEM_MGR_FAMILY_FC, 7};

inline void PrintTo(const Board& board, std::ostream* out) {
  *out << board.scenario;
}

// Family masks of the request table.
inline constexpr unsigned kOnLt = 1U << SYSTEM_MGR_FAMILY_LT;
inline constexpr unsigned kOnLc = 1U << SYSTEM_MGR_FAMILY_LC;
inline constexpr unsigned kOnFc = 1U << SYSTEM_MGR_FAMILY_FC;
inline constexpr unsigned kOnAll = kOnLt | kOnLc | kOnFc;

// What a request needs as its payload.
enum class Argument : std::uint8_t {
  None,      // the payload is ignored
  Port,      // a port number, 4 bytes little-endian; more bytes are ignored
  Speed,     // a fan speed, byte 0; more bytes are ignored
  LedRecord  // the driver's 12-byte LED record; more bytes are ignored
};

inline constexpr std::size_t argument_size(Argument argument) {
  switch (argument) {
    case Argument::Port:
      return 4;
    case Argument::Speed:
      return 1;
    case Argument::LedRecord:
      return 12;
    case Argument::None:
      break;
  }
  return 0;
}

// One request of the daemon's interface and the families whose daemon serves it.
struct RequestEntry {
  std::uint16_t id;
  const char* name;
  unsigned families;
  Argument argument;
};

// Every request id of the daemon's interface, in id order.
inline const std::vector<RequestEntry>& request_table() {
  static const std::vector<RequestEntry> table{
      {IPC_SYSTEM_MGR__GET_RAM_DATA, "GET_RAM_DATA", kOnAll, Argument::None},
      {IPC_SYSTEM_MGR__GET_HDD_DATA, "GET_HDD_DATA", kOnLt | kOnFc, Argument::None},
      {IPC_SYSTEM_MGR__CNTRL_LED_PANEL, "CNTRL_LED_PANEL", kOnAll, Argument::LedRecord},
      {IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, "GET_DEVICE_FACTORY", kOnAll, Argument::None},
      {IPC_SYSTEM_MGR__GET_CRATE_FACTORY, "GET_CRATE_FACTORY", kOnAll, Argument::None},
      {IPC_SYSTEM_MGR__GET_FPGA_VERSION, "GET_FPGA_VERSION", kOnAll, Argument::None},
      {IPC_SYSTEM_MGR__GET_CPLD_VERSION, "GET_CPLD_VERSION", kOnAll, Argument::None},
      {IPC_SYSTEM_MGR__ENABLE_F_BUTTON, "ENABLE_F_BUTTON", kOnAll, Argument::None},
      {IPC_SYSTEM_MGR__ENABLE_F_BUTTON_HARD_RESET, "ENABLE_F_BUTTON_HARD_RESET", kOnAll, Argument::None},
      {IPC_SYSTEM_MGR__DISABLE_F_BUTTON, "DISABLE_F_BUTTON", kOnAll, Argument::None},
      {IPC_SYSTEM_MGR__DISABLE_F_BUTTON_HARD_RESET, "DISABLE_F_BUTTON_HARD_RESET", kOnAll, Argument::None},
      {IPC_SYSTEM_MGR__IS_F_BUTTON_ENABLED, "IS_F_BUTTON_ENABLED", kOnAll, Argument::None},
      {IPC_SYSTEM_MGR__IS_F_BUTTON_HARD_RESET_ENABLED, "IS_F_BUTTON_HARD_RESET_ENABLED", kOnAll, Argument::None},
      {IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED, "IS_F_BUTTON_PRESSED", kOnAll, Argument::None},
      {IPC_SYSTEM_MGR__GET_TEMP, "GET_TEMP", kOnAll, Argument::None},
      {IPC_SYSTEM_MGR__TRIGGER_EVENT_P_PORTS_SFP_MODULE_INJECT, "TRIGGER_EVENT_P_PORTS_SFP_MODULE_INJECT", kOnAll,
       Argument::None},
      {IPC_SYSTEM_MGR__TRIGGER_EVENT_F_PORTS_SFP_MODULE_INJECT, "TRIGGER_EVENT_F_PORTS_SFP_MODULE_INJECT", kOnAll,
       Argument::None},
      {IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA, "GET_P_PORT_EDDI_DATA", kOnAll, Argument::Port},
      {IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA, "GET_F_PORT_EDDI_DATA", kOnAll, Argument::Port},
      {IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER, "GET_P_PORT_RX_POWER", kOnAll, Argument::Port},
      {IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO, "GET_P_PORTS_TOTAL_INFO", kOnAll, Argument::None},
      {IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO, "GET_F_PORTS_TOTAL_INFO", kOnAll, Argument::None},
      {IPC_SYSTEM_MGR__ENABLE_P_PORT_SFP_MODULE_TRX, "ENABLE_P_PORT_SFP_MODULE_TRX", kOnAll, Argument::Port},
      {IPC_SYSTEM_MGR__ENABLE_F_PORT_SFP_MODULE_TRX, "ENABLE_F_PORT_SFP_MODULE_TRX", kOnAll, Argument::Port},
      {IPC_SYSTEM_MGR__DISABLE_P_PORT_SFP_MODULE_TRX, "DISABLE_P_PORT_SFP_MODULE_TRX", kOnAll, Argument::Port},
      {IPC_SYSTEM_MGR__DISABLE_F_PORT_SFP_MODULE_TRX, "DISABLE_F_PORT_SFP_MODULE_TRX", kOnAll, Argument::Port},
      {IPC_SYSTEM_MGR__GET_FAN_STATES, "GET_FAN_STATES", kOnLt, Argument::None},
      {IPC_SYSTEM_MGR__SET_FAN_SPEED, "SET_FAN_SPEED", kOnLt, Argument::Speed},
      {IPC_SYSTEM_MGR__GET_PS_STATES, "GET_PS_STATES", kOnLt, Argument::None},
      {IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE, "GET_FAN_MODULE_STATE", kOnFc, Argument::None},
      {IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY, "GET_FAN_MODULE_FACTORY", kOnFc, Argument::None},
      {IPC_SYSTEM_MGR__SET_FAN_MODULE_SPEED, "SET_FAN_MODULE_SPEED", kOnFc, Argument::Speed},
      {IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE, "GET_PWR_MODULE_STATE", kOnFc, Argument::None},
      {IPC_SYSTEM_MGR__P_PORT_R_LED_ON_G_LED_OFF, "P_PORT_R_LED_ON_G_LED_OFF", kOnAll, Argument::Port},
      {IPC_SYSTEM_MGR__P_PORT_G_LED_ON_R_LED_OFF, "P_PORT_G_LED_ON_R_LED_OFF", kOnAll, Argument::Port},
      {IPC_SYSTEM_MGR__P_PORT_LED_OFF, "P_PORT_LED_OFF", kOnAll, Argument::Port},
  };
  return table;
}

// The table's entry of one request id; throws std::out_of_range for an id it does not hold.
inline const RequestEntry& entry_of(std::uint16_t id) {
  for (const auto& entry : request_table()) {
    if (entry.id == id) {
      return entry;
    }
  }
  throw std::out_of_range("no request " + std::to_string(id));
}

inline bool serves(const RequestEntry& entry, const Board& board) {
  return (entry.families & (1U << board.family)) != 0;
}

// The port every well-formed port request names: port 0 of its group, which holds a module on
// every example board that has the group at all.
inline constexpr std::uint32_t kRequestedPort = 0;

// The well-formed argument of a request: port 0, fan speed 102 (the examples' setting), the alarm
// LED blinking red.
inline ipc::Payload well_formed_argument(Argument argument) {
  switch (argument) {
    case Argument::Port:
      return {kRequestedPort, 0, 0, 0};
    case Argument::Speed:
      return {102};
    case Argument::LedRecord:
      return {BRD_API__PANEL_LED_ALARM, 0, 0, 0, BRD_API__LED_MODE_BLINK, 0, 0, 0, BRD_API__LED_COLOR_RED, 0, 0, 0};
    case Argument::None:
      break;
  }
  return {};
}

// The answer a request gets: result word and payload size.
struct ExpectedAnswer {
  std::uint32_t result;
  std::size_t size;
};

inline std::size_t present_modules(const Json& state, const char* group) {
  std::size_t count = 0;
  if (state.contains(group)) {
    for (const auto& port : state[group]) {
      count += port.value("present", false) ? 1 : 0;
    }
  }
  return count;
}

// What the daemon of `board` answers to a well-formed request (see docs/system-mgr.md), given the
// emulator's model as it stands; an error answer is always empty.
inline ExpectedAnswer expected_answer(const RequestEntry& entry, const Board& board, const Json& state) {
  const bool fc = board.family == SYSTEM_MGR_FAMILY_FC;
  // FC boards have no PON ports: every request about P-port 0 finds no module there.
  const ExpectedAnswer p_port_of_fc{0, 0};
  switch (entry.id) {
    case IPC_SYSTEM_MGR__GET_RAM_DATA:
    case IPC_SYSTEM_MGR__GET_HDD_DATA:
      return {1, 8};
    case IPC_SYSTEM_MGR__GET_DEVICE_FACTORY:
      return {1, sizeof(System_mgr__factory)};
    case IPC_SYSTEM_MGR__GET_CRATE_FACTORY:
      return fc ? ExpectedAnswer{1, sizeof(System_mgr__factory)} : ExpectedAnswer{0, 0};
    case IPC_SYSTEM_MGR__GET_FPGA_VERSION:
    case IPC_SYSTEM_MGR__GET_CPLD_VERSION:
    case IPC_SYSTEM_MGR__IS_F_BUTTON_ENABLED:
    case IPC_SYSTEM_MGR__IS_F_BUTTON_HARD_RESET_ENABLED:
    case IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED:
      return {1, 1};
    case IPC_SYSTEM_MGR__GET_TEMP:
      return {1, 8 * state["inventory"]["temp_count"].get<std::size_t>()};
    case IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA:
      return fc ? p_port_of_fc : ExpectedAnswer{1, sizeof(System_mgr__sfp_eddi_data)};
    case IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA:
      return {1, sizeof(System_mgr__sfp_eddi_data)};
    case IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER:
      return fc ? p_port_of_fc : ExpectedAnswer{1, sizeof(double)};
    case IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO:
      return {1, sizeof(SfpModuleRecord) * present_modules(state, "pon_ports")};
    case IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO:
      return {1, sizeof(SfpModuleRecord) * present_modules(state, "front_ports")};
    case IPC_SYSTEM_MGR__ENABLE_P_PORT_SFP_MODULE_TRX:
    case IPC_SYSTEM_MGR__DISABLE_P_PORT_SFP_MODULE_TRX:
    case IPC_SYSTEM_MGR__P_PORT_R_LED_ON_G_LED_OFF:
    case IPC_SYSTEM_MGR__P_PORT_G_LED_ON_R_LED_OFF:
    case IPC_SYSTEM_MGR__P_PORT_LED_OFF:
      return fc ? p_port_of_fc : ExpectedAnswer{1, 0};
    case IPC_SYSTEM_MGR__GET_FAN_STATES:
      return {1, 4 * state["inventory"]["fan_count"].get<std::size_t>()};
    case IPC_SYSTEM_MGR__GET_PS_STATES:
      return {1, sizeof(System_mgr__ps_state) * state["inventory"]["ps_count"].get<std::size_t>()};
    case IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE:
      return {1, 50};
    case IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY:
      return {1, 42};
    case IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE:
      return {1, sizeof(System_mgr__pwr_module_state)};
    default:
      // The LED panel, the front-button settings, the SFP injections, F-port TRX and fan speeds.
      return {1, 0};
  }
}

// The daemon's use of the system's resources.
struct ProcessUsage {
  std::size_t descriptors = 0;
  std::size_t rss_kib = 0;
};

inline ProcessUsage usage_of(pid_t pid) {
  ProcessUsage usage;
  std::error_code error;
  for (auto entry = std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error);
       !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    ++usage.descriptors;
  }
  std::istringstream status(xpon::test::read_text_file("/proc/" + std::to_string(pid) + "/status"));
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) {
      usage.rss_kib = std::stoul(line.substr(6));
    }
  }
  return usage;
}

// A peer of the daemon that writes the wire format by hand: a DEALER into the daemon's inbox for
// requests (well-formed or not) and a ROUTER bound at its own address, where the daemon's answers
// arrive. It is no endpoint of the IPC library, so nothing it sends is checked on the way out.
class RawPeer {
 public:
  RawPeer(const std::string& ipc_directory, ipc::Address own_address)
      : own_address_(own_address),
        inbox_(context_, zmq::socket_type::router),
        out_(context_, zmq::socket_type::dealer) {
    for (zmq::socket_t* socket : {&inbox_, &out_}) {
      socket->set(zmq::sockopt::linger, 0);
      socket->set(zmq::sockopt::sndhwm, 0);
      socket->set(zmq::sockopt::rcvhwm, 0);
    }
    inbox_.bind("ipc://" + ipc_directory + "/" + hex_address(own_address));
    out_.connect("ipc://" + ipc_directory + "/" + hex_address(kDaemonAddress));
  }

  [[nodiscard]] ipc::Address address() const { return own_address_; }

  // The header of a request from this peer, with or without reply information.
  [[nodiscard]] ipc::wire::Header request_header(std::uint16_t group, std::uint16_t id, std::uint16_t tag,
                                                 bool reply_wanted) const {
    ipc::wire::Header header;
    header.kind = ipc::wire::Kind::Request;
    header.flags = reply_wanted ? ipc::wire::kFlagReplyWanted : 0;
    header.source = own_address_;
    header.address = SYSTEM_MGR_REPLY_ADDRESS_WORD;
    header.group = group;
    header.id = id;
    header.reply_tag = tag;
    return header;
  }

  // Sends the frames as they are.
  void send_frames(const std::vector<std::vector<std::uint8_t>>& frames) {
    for (std::size_t i = 0; i < frames.size(); ++i) {
      const auto flags = i + 1 < frames.size() ? zmq::send_flags::sndmore : zmq::send_flags::none;
      out_.send(zmq::buffer(frames[i]), flags);
    }
  }

  // Sends a two-frame request with this header and payload.
  void send(const ipc::wire::Header& header, const ipc::Payload& payload) {
    const auto bytes = ipc::wire::encode_header(header);
    send_frames({std::vector<std::uint8_t>(bytes.begin(), bytes.end()), payload});
  }

  // Collects answers until `wanted` holds or the time-out; answers by reply tag, in arrival order.
  // Anything else that arrives is counted in `strays`.
  template <typename Wanted>
  void collect(std::multimap<std::uint16_t, ipc::Response>& answers, std::chrono::milliseconds timeout, Wanted wanted) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!wanted()) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        return;
      }
      std::array<zmq::pollitem_t, 1> items{{{inbox_.handle(), 0, ZMQ_POLLIN, 0}}};
      if (zmq::poll(items.data(), items.size(), left) <= 0) {
        continue;
      }
      std::vector<zmq::message_t> frames;
      while (zmq::recv_multipart(inbox_, std::back_inserter(frames), zmq::recv_flags::dontwait)) {
        take(frames, answers);
        frames.clear();
      }
    }
  }

  // Messages that reached this peer and were not a well-formed response.
  [[nodiscard]] std::size_t strays() const { return strays_; }

 private:
  static std::string hex_address(ipc::Address address) {
    std::array<char, 9> text{};
    std::snprintf(text.data(), text.size(), "%08x", address);
    return text.data();
  }

  void take(const std::vector<zmq::message_t>& frames, std::multimap<std::uint16_t, ipc::Response>& answers) {
    // A ROUTER hands up the sender's identity first.
    if (frames.size() != 3) {
      ++strays_;
      return;
    }
    const auto decoded = ipc::wire::decode_header({frames[1].data<std::uint8_t>(), frames[1].size()});
    if (!decoded.header || decoded.header->kind != ipc::wire::Kind::Response) {
      ++strays_;
      return;
    }
    answers.emplace(decoded.header->reply_tag,
                    ipc::wire::to_response(*decoded.header, {frames[2].data<std::uint8_t>(), frames[2].size()}));
  }

  ipc::Address own_address_;
  zmq::context_t context_;
  zmq::socket_t inbox_;
  zmq::socket_t out_;
  std::size_t strays_ = 0;
};

class ReliabilityTest : public SystemMgrTest {
 protected:
  // The board, the daemon ready with every function running, and a client endpoint of the board's own.
  void start(const Board& board) {
    board_ = board;
    // The example's board without its timeline: the tests run for minutes, and the model changes
    // only when they patch it.
    Json scenario = Json::parse(xpon::test::read_text_file(std::string(XPON_EXAMPLES_DIR) + "/" + board.scenario));
    scenario.erase("timeline");
    const std::string scenario_file = rig_.path("/scenario.json");
    std::ofstream(scenario_file) << scenario.dump(2);
    ASSERT_EQ(rig_.start_bus(), "");
    std::string skip;
    const std::string failure = rig_.start_emulator(scenario_file, skip);
    XPON_SKIP_OR_FAIL_IN_CI(skip);
    ASSERT_EQ(failure, "");
    ASSERT_EQ(rig_.make_factory_image(board.product), "");
    rig_.install_example_log_config();
    if (board.family == SYSTEM_MGR_FAMILY_FC) {
      ASSERT_EQ(rig_.make_crate_factory_image("QD7R-CRATE-14"), "");
    }
    ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
    // READY comes before the functions run: every polling function says when it has started.
    ASSERT_TRUE(xpon::test::wait_until(
        [&] { return occurrences(rig_.daemon_log(), "Start System function: ") >= board.polling_functions; },
        kStepTimeout))
        << rig_.daemon_log();
    root_.emplace("XPON_ROOT", rig_.root());
    client_ = ipc::make_zmq_endpoint(ipc::make_address(0x0043), "reliability-client");
  }

  [[nodiscard]] std::string ipc_directory() const { return rig_.path("/run/xpon/ipc"); }

  // Waits until the SFP function has recorded the board's F-port modules: its first poll may
  // still be under way when the functions have started.
  void wait_for_sfp_modules() {
    const auto f_ports = expected_answer(entry_of(IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO), board_, board_state());
    ASSERT_TRUE(xpon::test::wait_until(
        [&] {
          const auto answer = ask(IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO);
          return answer && answer->payload.size() == f_ports.size;
        },
        kStepTimeout))
        << rig_.daemon_log();
  }

  // The daemon's answer to one request, or nothing after the time-out.
  std::optional<ipc::Response> ask(std::uint16_t id, ipc::Payload payload = {},
                                   std::chrono::milliseconds timeout = kStepTimeout) {
    ipc::Request request;
    request.group = IPC_SYSTEM_MGR;
    request.id = id;
    request.payload = std::move(payload);
    auto answer = client_->request(kDaemonAddress, request, timeout);
    if (!answer) {
      return std::nullopt;
    }
    return std::move(answer).value();
  }

  // Asks each request, well-formed, and checks the answer against the table; `context` names
  // the moment in failure messages.
  void expect_answered(const std::vector<std::uint16_t>& ids, const std::string& context) {
    const Json state = board_state();
    for (const std::uint16_t id : ids) {
      const auto& entry = entry_of(id);
      const auto expected = expected_answer(entry, board_, state);
      const auto answer = ask(id, well_formed_argument(entry.argument));
      ASSERT_TRUE(answer.has_value()) << context << ": no answer to " << entry.name << "\n" << rig_.daemon_log();
      EXPECT_EQ(answer->result, expected.result) << context << ": " << entry.name;
      EXPECT_EQ(answer->payload.size(), expected.size) << context << ": " << entry.name;
      EXPECT_EQ(answer->address, SYSTEM_MGR_REPLY_ADDRESS_WORD) << context << ": " << entry.name;
    }
  }

  // Asks every request the board serves.
  void expect_every_request_answered(const std::string& context) {
    std::vector<std::uint16_t> served;
    for (const auto& entry : request_table()) {
      if (serves(entry, board_)) {
        served.push_back(entry.id);
      }
    }
    expect_answered(served, context);
  }

  // The emulator's model as it stands.
  [[nodiscard]] Json board_state() const {
    return Json::parse(xpon::test::read_text_file(rig_.path("/dev/board-state.json")));
  }

  // Applies a patch to the emulator's model.
  void patch(const std::string& text) const {
    std::ofstream out(rig_.path("/dev/board-control"));
    out << text;
    out.close();
    ASSERT_TRUE(out) << "the patch was refused: " << text << "\n" << rig_.helper_logs();
  }

  static std::size_t occurrences(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
      ++count;
    }
    return count;
  }

  Board board_ = kLtBoard;
  std::optional<xpon::test::ScopedEnv> root_;
  std::shared_ptr<ipc::ZmqIpc> client_;
};

#define XPON_START_RELIABILITY(board)      \
  do {                                     \
    ASSERT_NO_FATAL_FAILURE(start(board)); \
    if (IsSkipped()) {                     \
      return;                              \
    }                                      \
  } while (false)

}  // namespace xpon::system_mgr::test
