// A crate of four boards on one machine: FC 21, FC 22, LC 5 and LT 7, each with its own
// XPON_ROOT, bus, board emulator, Election Manager stand-in and daemon, the buses linked by the
// crate transport over loopback TCP with CURVE. The crate's fan control end to end: an LC board
// asks for the maximum rate, the master FC drives the fan module it reads in its own emulator.

#include "system_test.hpp"
#include "xpon/ipc/wire.hpp"
#include "xpon/test/free_port.hpp"
#include "xpon/test/wait.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <zmq.hpp>
#include <zmq_addon.hpp>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace xpon::system_mgr::test {
namespace {

using namespace std::chrono_literals;
using xpon::test::wait_until;

// The master FC takes the fan module to the maximum within one of its polls (20 s), and the
// boards of a crate share two cores with everything else here.
constexpr auto kPollBound = 30s;
constexpr auto kEventBound = 15s;
constexpr std::array<std::uint16_t, 2> kFcSlots{21, 22};

const std::string kMaxRateHandled = "Handle IPC event [IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE] | Slot ID 5";
const std::string kMinRateHandled = "Handle IPC event [IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE] | Slot ID 5";
// A poll of the temperatures logs its first sensor's line.
const std::string kPolled = "Sensor id 0 temperature";
const std::string kOnlyFc = "IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE event handled only FC device family";

enum class Family : std::uint8_t { Lt = 0, Lc = 1, Fc = 2 };

struct BoardKind {
  std::uint16_t slot;
  Family family;
};

/// One board of the crate: its rig and what the crate adds to it.
struct CrateBoard {
  BoardKind kind;
  std::unique_ptr<DaemonRig> rig = std::make_unique<DaemonRig>();
  int port = xpon::test::free_tcp_port();
  std::optional<xpon::test::Process> election;

  [[nodiscard]] std::string config_path() const { return rig->path("/etc/xpon/crate.toml"); }
  [[nodiscard]] std::string key_directory() const { return rig->path("/etc/xpon/crate-keys"); }
  [[nodiscard]] std::string address() const { return fmt::format("tcp://127.0.0.1:{}", port); }
  [[nodiscard]] std::string slot_entry() const { return fmt::format("XPON_SLOT={}", kind.slot); }
};

class CrateSystemTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (HasFailure()) {
      for (const auto& board : boards_) {
        std::cerr << "---- slot " << board->kind.slot << " daemon:\n"
                  << tail(board->rig->daemon_log()) << "---- slot " << board->kind.slot << " bus, emulator:\n"
                  << tail(board->rig->helper_logs());
      }
    }
  }

  static std::string tail(const std::string& text) {
    constexpr std::size_t kKeep = 3000;
    return text.size() <= kKeep ? text : text.substr(text.size() - kKeep);
  }

  /// Starts the crate with `master` as the Election Manager's master slot and waits until every
  /// daemon is ready and settled, and the FC daemons have heard of the master. Ends the test (skipped, or failed under
  /// CI) without FUSE.
  void start_crate(std::uint16_t master) {
    for (const BoardKind& kind :
         {BoardKind{21, Family::Fc}, BoardKind{22, Family::Fc}, BoardKind{5, Family::Lc}, BoardKind{7, Family::Lt}}) {
      auto board = std::make_unique<CrateBoard>();
      board->kind = kind;
      boards_.push_back(std::move(board));
    }
    write_master(master);
    for (auto& board : boards_) {
      std::filesystem::create_directories(board->key_directory());
      const auto keys = xpon::test::run_program({XPON_IPC_BUS_PROGRAM, "--generate-keys", board->key_directory()});
      ASSERT_TRUE(keys.end && keys.end->exited_with(0)) << keys.errors;
    }
    for (auto& board : boards_) {
      write_crate_config(*board);
      ASSERT_NO_FATAL_FAILURE(start_board(*board));
      if (IsSkipped()) {
        return;
      }
    }
    for (auto& board : boards_) {
      ASSERT_TRUE(board->rig->wait_for_notification(kReadyText, 1, 20s))
          << "slot " << board->kind.slot << ": " << board->rig->daemon_log();
    }
    for (auto& board : boards_) {
      ASSERT_TRUE(board->rig->wait_until_settled(1, 20s)) << "slot " << board->kind.slot;
    }
    // The Election Manager's announcement reaches each FC daemon after its start (the bus keeps
    // it for them), and each asks again.
    for (const std::uint16_t slot : kFcSlots) {
      ASSERT_TRUE(board(slot).rig->wait_for_log(mastership(master), kEventBound)) << "slot " << slot;
    }
  }

  static std::string mastership(std::uint16_t slot) {
    return fmt::format("Deliver mastership change: master slot {}", slot);
  }

  /// Waits for the next poll of the temperatures on that board.
  void wait_for_next_poll(std::uint16_t slot) {
    const std::size_t polls = count_in_log(board(slot), kPolled);
    ASSERT_TRUE(wait_until([&] { return count_in_log(board(slot), kPolled) > polls; }, kPollBound))
        << "slot " << slot << ": " << board(slot).rig->daemon_log();
  }

  CrateBoard& board(std::uint16_t slot) {
    for (auto& board : boards_) {
      if (board->kind.slot == slot) {
        return *board;
      }
    }
    throw std::out_of_range(fmt::format("no board in slot {}", slot));
  }

  /// The crate's fan module as the emulator of that board has it.
  std::optional<unsigned> module_setting(std::uint16_t slot) {
    const std::string state = xpon::test::read_text_file(board(slot).rig->path("/dev/board-state.json"));
    std::smatch match;
    if (std::regex_search(state, match, std::regex(R"("speed_setting"\s*:\s*(\d+))"))) {
      return static_cast<unsigned>(std::stoul(match[1].str()));
    }
    return std::nullopt;
  }

  bool module_reaches(std::uint16_t slot, unsigned setting, std::chrono::milliseconds bound) {
    return wait_until([&] { return module_setting(slot) == setting; }, bound, 100ms);
  }

  /// Writes an emulator patch (the JSON of a change of the board's state).
  void patch(std::uint16_t slot, const std::string& json) {
    std::ofstream control(board(slot).rig->path("/dev/board-control"));
    control << json;
    control.close();
    ASSERT_TRUE(control.good()) << "patch of slot " << slot;
  }

  /// Heats (or cools) every sensor of the LC, and restarts its daemon in place so that it polls
  /// at once. The fan step runs per sensor (as designed), so a board with one hot sensor among
  /// cool ones would ask for the minimum and then the maximum again at every poll; all of them
  /// hot or all cool, it asks once. The event flag of the daemon lives across the restart, as
  /// designed, so the restart sends no event by itself.
  void set_lc_temperature(int celsius, std::size_t cycle) {
    std::string sensors;
    for (int id = 0; id < 5; ++id) {
      sensors += fmt::format(R"({}"{}": {{"temperature": {}}})", id == 0 ? "" : ", ", id, celsius);
    }
    ASSERT_NO_FATAL_FAILURE(patch(5, fmt::format(R"({{"sensors": {{{}}}}})", sensors)));
    ASSERT_NO_FATAL_FAILURE(restart(board(5), cycle));
  }

  /// A SIGHUP restart of a settled daemon; `cycle` is the start it brings (2 for the first).
  static void restart(CrateBoard& board, std::size_t cycle) {
    ASSERT_TRUE(board.rig->wait_until_settled(cycle - 1, 20s)) << "slot " << board.kind.slot;
    ASSERT_TRUE(board.rig->daemon().signal(SIGHUP));
    ASSERT_TRUE(board.rig->wait_for_notification(kReadyText, cycle, 20s))
        << "slot " << board.kind.slot << ": " << board.rig->daemon_log();
  }

  /// The Election Manager's master, as every stand-in of the crate follows it.
  void write_master(std::uint16_t slot) const {
    const std::string staged = shared_.file("master-slot.new");
    {
      std::ofstream out(staged);
      out << slot << "\n";
    }
    std::filesystem::rename(staged, shared_.file("master-slot"));
  }

  static std::size_t count_in_log(const CrateBoard& board, const std::string& text) {
    return occurrences(board.rig->daemon_log(), text);
  }

  std::vector<std::unique_ptr<CrateBoard>> boards_;
  xpon::test::TempDir shared_{"xpon-crate-test"};

 private:
  void write_crate_config(CrateBoard& board) {
    std::string peers;
    for (const auto& other : boards_) {
      if (other.get() != &board) {
        peers += fmt::format("  {{address = \"{}\", public_key = \"{}/board.pub\"}},\n", other->address(),
                             other->key_directory());
      }
    }
    std::ofstream out(board.config_path());
    out << fmt::format(
        "enabled = true\nslot = {}\nlisten = \"{}\"\npeers = [\n{}]\n\n[curve]\npublic_key = \"{}/board.pub\"\n"
        "secret_key = \"{}/board.key\"\n",
        board.kind.slot, board.address(), peers, board.key_directory(), board.key_directory());
  }

  void start_board(CrateBoard& board) {
    DaemonRig& rig = *board.rig;
    std::string error = rig.start_bus({"--crate-config", board.config_path()});
    ASSERT_TRUE(error.empty()) << error;
    std::string skip;
    const char* scenario = board.kind.family == Family::Fc   ? "board-fc.json"
                           : board.kind.family == Family::Lc ? "board-lc.json"
                                                             : "board-lt.json";
    error = rig.start_emulator(scenario, skip);
    ASSERT_TRUE(error.empty()) << error;
    if (!skip.empty()) {
      XPON_SKIP_OR_FAIL_IN_CI(skip);
      return;
    }
    const char* product = board.kind.family == Family::Fc   ? kFcProduct
                          : board.kind.family == Family::Lc ? kLcProduct
                                                            : kLtProduct;
    error = rig.make_factory_image(product);
    ASSERT_TRUE(error.empty()) << error;
    if (board.kind.family == Family::Fc) {
      error = rig.make_crate_factory_image("QD7R-CRATE-14");
      ASSERT_TRUE(error.empty()) << error;
    }
    rig.write_log_config(kDebugToStderr);
    // Automatic fan control, with the board's family for it.
    const ProgramRun set =
        rig.run_cfg({"set", "FAN", "mode=0", fmt::format("family={}", static_cast<int>(board.kind.family))});
    ASSERT_TRUE(set.end && set.end->exited_with(0)) << set.errors;
    board.election.emplace(
        std::vector<std::string>{XPON_ELECTION_STUB_PROGRAM, "--master-file", shared_.file("master-slot")},
        std::vector<std::string>{std::string("XPON_ROOT=") + rig.root(), board.slot_entry()}, rig.path("/election.out"),
        rig.path("/election.log"));
    ASSERT_TRUE(wait_until(
        [&] {
          return xpon::test::read_text_file(rig.path("/election.log")).find("serving 14500:14504") != std::string::npos;
        },
        kStepTimeout))
        << xpon::test::read_text_file(rig.path("/election.log"));
    rig.start_daemon({board.slot_entry()});
  }
};

TEST_F(CrateSystemTest, AHotLineCardTakesTheMastersFanModuleTo159AndBackTo102) {
  ASSERT_NO_FATAL_FAILURE(start_crate(21));
  if (IsSkipped()) {
    return;
  }
  // An FC daemon takes itself for slot 21 whatever its slot (as designed), so with the master at
  // 21 the board in slot 22 acts as master as well and drives the fan module it sees.
  EXPECT_EQ(module_setting(21), 102U);
  EXPECT_EQ(module_setting(22), 102U);

  ASSERT_NO_FATAL_FAILURE(set_lc_temperature(72, 2));
  ASSERT_TRUE(board(21).rig->wait_for_log(kMaxRateHandled, kEventBound)) << board(5).rig->daemon_log();
  EXPECT_TRUE(module_reaches(21, 159, kEventBound));
  EXPECT_TRUE(board(22).rig->wait_for_log(kMaxRateHandled, kEventBound));
  EXPECT_TRUE(module_reaches(22, 159, kEventBound));
  // The LT board got the request too, and says it is not for it.
  EXPECT_TRUE(board(7).rig->wait_for_log(kOnlyFc, kEventBound));

  ASSERT_NO_FATAL_FAILURE(set_lc_temperature(45, 3));
  ASSERT_TRUE(board(21).rig->wait_for_log(kMinRateHandled, kEventBound));
  // The fans are lowered only by the master's next poll.
  EXPECT_TRUE(module_reaches(21, 102, kPollBound));
  EXPECT_TRUE(module_reaches(22, 102, kPollBound));

  // Each request reached each board once.
  for (const std::uint16_t slot : kFcSlots) {
    EXPECT_EQ(count_in_log(board(slot), kMaxRateHandled), 1U) << "slot " << slot;
    EXPECT_EQ(count_in_log(board(slot), kMinRateHandled), 1U) << "slot " << slot;
  }
  EXPECT_EQ(count_in_log(board(7), kOnlyFc), 1U);
}

TEST_F(CrateSystemTest, NoFcBoardTouchesTheModuleUntilItIsMasterThenItsNextPollRaisesIt) {
  // Slot 22 is master at start: neither FC daemon is master, since both compare the master with
  // slot 21 (as designed).
  ASSERT_NO_FATAL_FAILURE(start_crate(22));
  if (IsSkipped()) {
    return;
  }
  // A marker in each FC's emulator: a board that is not master never sets the module.
  for (const std::uint16_t slot : kFcSlots) {
    ASSERT_NO_FATAL_FAILURE(patch(slot, R"({"fan_module": {"speed_setting": 120}})"));
    ASSERT_TRUE(module_reaches(slot, 120, kStepTimeout));
  }
  ASSERT_NO_FATAL_FAILURE(set_lc_temperature(72, 2));
  ASSERT_TRUE(board(21).rig->wait_for_log(kMaxRateHandled, kEventBound));
  ASSERT_TRUE(board(22).rig->wait_for_log(kMaxRateHandled, kEventBound));
  // Past a poll of both FC daemons with slot 5 in their tables.
  for (const std::uint16_t slot : kFcSlots) {
    ASSERT_NO_FATAL_FAILURE(wait_for_next_poll(slot));
  }
  EXPECT_EQ(module_setting(21), 120U);
  EXPECT_EQ(module_setting(22), 120U);

  // Slot 21 becomes master while slot 5 still asks: each FC daemon raises the module at its next poll.
  write_master(21);
  ASSERT_TRUE(board(21).rig->wait_for_log(mastership(21), kEventBound));
  EXPECT_TRUE(module_reaches(21, 159, kPollBound));
  EXPECT_TRUE(module_reaches(22, 159, kPollBound));
  EXPECT_EQ(count_in_log(board(21), kMaxRateHandled), 1U);
}

TEST_F(CrateSystemTest, TheMastersDaemonRestartedWhileASlotIsAtMaximumKeepsTheModuleAt159) {
  ASSERT_NO_FATAL_FAILURE(start_crate(21));
  if (IsSkipped()) {
    return;
  }
  ASSERT_NO_FATAL_FAILURE(set_lc_temperature(72, 2));
  ASSERT_TRUE(module_reaches(21, 159, kEventBound)) << board(21).rig->daemon_log();
  CrateBoard& master = board(21);

  // SIGHUP: the functions are made again, with an empty slot table; the bus hands the new
  // subscriptions the crate's last states, so the table and the mastership come back.
  ASSERT_NO_FATAL_FAILURE(restart(master, 2));
  EXPECT_TRUE(wait_until([&] { return count_in_log(master, kMaxRateHandled) == 2; }, kEventBound))
      << master.rig->daemon_log();
  EXPECT_TRUE(wait_until([&] { return count_in_log(master, mastership(21)) >= 2; }, kEventBound));
  EXPECT_EQ(module_setting(21), 159U);

  // Killed and started again: a new process, the same.
  ASSERT_TRUE(master.rig->wait_until_settled(2, 20s));
  const auto end = master.rig->daemon().stop(SIGKILL, 10s);
  ASSERT_TRUE(end.signaled && end.value == SIGKILL) << end.describe();
  master.rig->start_daemon({master.slot_entry()});
  ASSERT_TRUE(master.rig->wait_for_notification(kReadyText, 3, 20s)) << master.rig->daemon_log();
  EXPECT_TRUE(master.rig->wait_for_log(kMaxRateHandled, kEventBound)) << master.rig->daemon_log();
  EXPECT_TRUE(master.rig->wait_for_log(mastership(21), kEventBound));
  EXPECT_EQ(module_setting(21), 159U);

  // The restarted master knows slot 5 still asks: when it stops asking, the master's next poll
  // after that lowers the module. (Had the table been lost, the module would stay at 159.)
  // Its first poll ran before the mastership came back; the second one, as master, takes the
  // module to the maximum again (the setting it already has).
  ASSERT_TRUE(wait_until([&] { return count_in_log(master, kPolled) >= 2; }, kPollBound)) << master.rig->daemon_log();
  ASSERT_NO_FATAL_FAILURE(set_lc_temperature(45, 3));
  ASSERT_TRUE(master.rig->wait_for_log(kMinRateHandled, kEventBound));
  EXPECT_TRUE(module_reaches(21, 102, kPollBound)) << master.rig->daemon_log();
}

TEST_F(CrateSystemTest, AnLcBoardWhoseBusRestartedStillReachesTheMaster) {
  ASSERT_NO_FATAL_FAILURE(start_crate(21));
  if (IsSkipped()) {
    return;
  }
  CrateBoard& lc = board(5);
  const std::string joined = fmt::format("crate: joined peer {}", lc.address());
  auto master_joined = [&] { return occurrences(board(21).rig->helper_logs(), joined); };
  ASSERT_TRUE(wait_until([&] { return master_joined() == 1; }, kEventBound)) << board(21).rig->helper_logs();
  const auto end = lc.rig->bus().stop(SIGTERM, 10s);
  ASSERT_TRUE(end.exited_with(0)) << end.describe() << lc.rig->helper_logs();
  const std::string error = lc.rig->start_bus({"--crate-config", lc.config_path()});
  ASSERT_TRUE(error.empty()) << error;
  // The master's bus saw the LC's bus go and ZeroMQ reconnected it, with no restart of its own.
  const std::string peer = fmt::format("crate: peer {} went away; reconnecting", lc.address());
  EXPECT_TRUE(wait_until([&] { return board(21).rig->helper_logs().find(peer) != std::string::npos; }, kEventBound))
      << board(21).rig->helper_logs();
  ASSERT_TRUE(wait_until([&] { return master_joined() == 2; }, kEventBound)) << board(21).rig->helper_logs();

  // The LC's daemon reconnects to its new bus by itself; its next request reaches the master.
  ASSERT_NO_FATAL_FAILURE(set_lc_temperature(72, 2));
  EXPECT_TRUE(board(21).rig->wait_for_log(kMaxRateHandled, kEventBound)) << lc.rig->daemon_log();
  EXPECT_TRUE(module_reaches(21, 159, kEventBound));
}

TEST_F(CrateSystemTest, AProcessWithoutTheCratesKeysCannotInjectARequest) {
  ASSERT_NO_FATAL_FAILURE(start_crate(21));
  if (IsSkipped()) {
    return;
  }
  // The LT board's bus goes, and an intruder with CURVE keys of its own takes its crate address.
  // The master's bus connects to it again and must take nothing.
  CrateBoard& lt = board(7);
  const auto end = lt.rig->bus().stop(SIGTERM, 10s);
  ASSERT_TRUE(end.exited_with(0)) << end.describe();
  zmq::context_t context;
  zmq::socket_t intruder(context, zmq::socket_type::xpub);
  intruder.set(zmq::sockopt::linger, 0);
  std::array<char, 41> public_key{};
  std::array<char, 41> secret_key{};
  ASSERT_EQ(zmq_curve_keypair(public_key.data(), secret_key.data()), 0);
  intruder.set(zmq::sockopt::curve_server, true);
  intruder.set(zmq::sockopt::curve_secretkey, std::string(secret_key.data()));
  intruder.bind(lt.address());
  // 15537 in slot 7's name, as the wire format has it.
  const auto topic_frame = ipc::wire::encode_topic(ipc::Key{15500, 15537});
  ipc::Event event;
  event.group = 15500;
  event.id = 15537;
  const auto header = ipc::wire::encode_header(ipc::wire::event_header(0x00190007, event));
  const auto deadline = std::chrono::steady_clock::now() + 3s;
  while (std::chrono::steady_clock::now() < deadline) {
    intruder.send(zmq::buffer(topic_frame), zmq::send_flags::sndmore);
    intruder.send(zmq::buffer(header), zmq::send_flags::sndmore);
    intruder.send(zmq::message_t(), zmq::send_flags::none);
    std::this_thread::sleep_for(50ms);
  }
  const std::string refused = fmt::format("crate: handshake with peer {} failed (wrong key?)", lt.address());
  EXPECT_TRUE(wait_until([&] { return board(21).rig->helper_logs().find(refused) != std::string::npos; }, kEventBound))
      << board(21).rig->helper_logs();
  EXPECT_EQ(board(21).rig->daemon_log().find("Handle IPC event [IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE]"),
            std::string::npos);
  EXPECT_EQ(module_setting(21), 102U);

  // An intruder that subscribes at the master's own crate address is refused too, so it cannot
  // read the crate's requests; the LC's real one still gets through to the master.
  zmq::socket_t listener(context, zmq::socket_type::sub);
  listener.set(zmq::sockopt::linger, 0);
  listener.set(zmq::sockopt::curve_serverkey,
               xpon::test::read_text_file(board(21).key_directory() + "/board.pub").substr(0, 40));
  listener.set(zmq::sockopt::curve_publickey, std::string(public_key.data()));
  listener.set(zmq::sockopt::curve_secretkey, std::string(secret_key.data()));
  listener.set(zmq::sockopt::subscribe, "");
  listener.connect(board(21).address());
  ASSERT_NO_FATAL_FAILURE(set_lc_temperature(72, 2));
  ASSERT_TRUE(board(21).rig->wait_for_log(kMaxRateHandled, kEventBound));
  zmq::message_t stolen;
  EXPECT_FALSE(listener.recv(stolen, zmq::recv_flags::dontwait).has_value());
  EXPECT_TRUE(wait_until(
      [&] {
        return board(21).rig->helper_logs().find(
                   fmt::format("its key {} is not one of the peers'", public_key.data())) != std::string::npos;
      },
      kEventBound))
      << board(21).rig->helper_logs();
  EXPECT_TRUE(module_reaches(21, 159, kEventBound));
}

}  // namespace
}  // namespace xpon::system_mgr::test
