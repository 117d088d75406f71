// The crate transport between real xpon-ipc-bus processes, one per simulated board, each with
// its own XPON_ROOT, linked over loopback TCP.

#include "event_log.hpp"
#include "xpon/ipc/wire.hpp"
#include "xpon/ipc/zmq_ipc.hpp"
#include "xpon/test/free_port.hpp"
#include "xpon/test/ipc_env.hpp"
#include "xpon/test/recording_logger.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <zmq.hpp>
#include <zmq_addon.hpp>

#include <chrono>
#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace xpon::ipc {
namespace {

using std::chrono::milliseconds;
using test::wait_until;

constexpr Key kMaxRate{15500, 15537};
constexpr Key kMinRate{15500, 15538};
constexpr Key kSfpInserted{15500, 15539};  // not crate-wide

/// A generated key pair: the paths of its files and the public key.
struct KeyPair {
  std::string public_path;
  std::string secret_path;
  std::string public_key;
  std::string secret_key;
};

KeyPair generate_keys(const std::string& directory) {
  const auto run = test::run_program({XPON_IPC_BUS_PATH, "--generate-keys", directory});
  EXPECT_TRUE(run.end && run.end->exited_with(0)) << run.errors;
  EXPECT_EQ(run.output, fmt::format("wrote {0}/board.pub and {0}/board.key\n", directory));
  auto trim = [](const std::string& text) { return text.substr(0, text.find('\n')); };
  return {directory + "/board.pub", directory + "/board.key", trim(test::read_text_file(directory + "/board.pub")),
          trim(test::read_text_file(directory + "/board.key"))};
}

/// One board: its run directory, its crate settings and its bus process.
class Board {
 public:
  Board(std::uint16_t slot, int port) : slot_(slot), port_(port) {}

  /// Writes the configuration; peers are (port, public key file) pairs.
  void configure(const std::vector<std::pair<int, std::string>>& peers, const std::optional<KeyPair>& keys = {}) {
    std::string text =
        fmt::format("enabled = true\nslot = {}\nlisten = \"{}\"\npeers = [\n", slot_, test::loopback_tcp(port_));
    for (const auto& [port, key] : peers) {
      text += key.empty()
                  ? fmt::format("  \"{}\",\n", test::loopback_tcp(port))
                  : fmt::format("  {{address = \"{}\", public_key = \"{}\"}},\n", test::loopback_tcp(port), key);
    }
    text += "]\n";
    if (keys) {
      text += fmt::format("[curve]\npublic_key = \"{}\"\nsecret_key = \"{}\"\n", keys->public_path, keys->secret_path);
    }
    config_ = dir_.write("crate.toml", text);
  }

  void start() {
    bus_ = std::make_unique<test::Process>(
        std::vector<std::string>{XPON_IPC_BUS_PATH, "--settle-ms", "1000", "--crate-config", config_},
        std::vector<std::string>{"XPON_ROOT=" + dir_.path(), "XPON_SLOT"}, std::string{}, log_path());
  }

  test::ProcessEnd stop(int signal = SIGTERM) { return bus_->stop(signal, std::chrono::seconds(10)); }

  /// An endpoint of this board (made with this board's run directory).
  std::shared_ptr<ZmqIpc> endpoint(Address address) {
    const test::ScopedEnv root("XPON_ROOT", dir_.path());
    const test::ScopedEnv slot("XPON_SLOT", std::nullopt);
    ZmqIpcOptions options;
    options.logger = std::make_shared<test::RecordingLogger>();
    return make_zmq_endpoint(address, "crate-test", options);
  }

  [[nodiscard]] std::string log_path() const { return dir_.file("bus.log"); }
  [[nodiscard]] std::string log() const { return test::read_text_file(log_path()); }
  [[nodiscard]] bool log_has(const std::string& text) const { return log().find(text) != std::string::npos; }
  [[nodiscard]] int port() const { return port_; }
  [[nodiscard]] const test::TempDir& dir() const { return dir_; }

 private:
  std::uint16_t slot_;
  int port_;
  test::TempDir dir_{"xpon-crate"};
  std::string config_;
  std::unique_ptr<test::Process> bus_;
};

/// Publishes probes of `key` on `publisher` until every log has seen one; then forgets them.
bool wait_for_route(ZmqIpc& publisher, Key key, const std::vector<EventLog*>& logs) {
  std::vector<std::size_t> before;
  before.reserve(logs.size());
  for (const auto* log : logs) {
    before.push_back(log->probes());
  }
  const bool arrived = wait_until(
      [&] {
        EXPECT_TRUE(publisher.send_event(make_event(key, kProbePayload)).has_value());
        for (std::size_t i = 0; i < logs.size(); ++i) {
          if (logs[i]->probes() <= before[i]) {
            return false;
          }
        }
        return true;
      },
      std::chrono::seconds(20), milliseconds(50));
  std::this_thread::sleep_for(milliseconds(300));
  for (auto* log : logs) {
    log->clear();
  }
  return arrived;
}

class CrateTest : public ::testing::Test {
 protected:
  std::vector<std::unique_ptr<Board>> make_boards(std::size_t count) {
    std::vector<std::unique_ptr<Board>> boards;
    for (std::size_t i = 0; i < count; ++i) {
      boards.push_back(std::make_unique<Board>(static_cast<std::uint16_t>(i + 1), test::free_tcp_port()));
    }
    return boards;
  }

  /// Every board a peer of every other, without keys.
  static void configure_mesh(std::vector<std::unique_ptr<Board>>& boards) {
    for (auto& board : boards) {
      std::vector<std::pair<int, std::string>> peers;
      for (const auto& other : boards) {
        if (other != board) {
          peers.emplace_back(other->port(), std::string{});
        }
      }
      board->configure(peers);
    }
  }
};

TEST_F(CrateTest, ACrateWideEventReachesEveryOtherBoardExactlyOnce) {
  auto boards = make_boards(3);
  configure_mesh(boards);
  for (auto& board : boards) {
    board->start();
  }
  auto publisher = boards[0]->endpoint(0x0042FFFE);  // slot "this board": the crate sees slot 1
  auto on_a = boards[0]->endpoint(0x0019FFFE);
  auto on_b = boards[1]->endpoint(0x0019FFFE);
  auto on_c = boards[2]->endpoint(0x0019FFFE);
  EventLog a_rate, b_rate, c_rate, a_sfp, b_sfp, c_sfp;
  ASSERT_TRUE(on_a->subscribe_event(kMaxRate, a_rate.handler()).has_value());
  ASSERT_TRUE(on_b->subscribe_event(kMaxRate, b_rate.handler()).has_value());
  ASSERT_TRUE(on_c->subscribe_event(kMaxRate, c_rate.handler()).has_value());
  ASSERT_TRUE(on_a->subscribe_event(kSfpInserted, a_sfp.handler()).has_value());
  ASSERT_TRUE(on_b->subscribe_event(kSfpInserted, b_sfp.handler()).has_value());
  ASSERT_TRUE(on_c->subscribe_event(kSfpInserted, c_sfp.handler()).has_value());
  ASSERT_TRUE(wait_for_route(*publisher, kMaxRate, {&a_rate, &b_rate, &c_rate}));
  ASSERT_TRUE(wait_for_route(*publisher, kSfpInserted, {&a_sfp}));

  ASSERT_TRUE(publisher->send_event(make_event(kMaxRate, {7})).has_value());
  ASSERT_TRUE(publisher->send_event(make_event(kSfpInserted, {8})).has_value());
  ASSERT_TRUE(wait_until([&] { return b_rate.count(kMaxRate) == 1 && c_rate.count(kMaxRate) == 1; }));
  ASSERT_TRUE(wait_until([&] { return a_sfp.count(kSfpInserted) == 1; }));
  std::this_thread::sleep_for(milliseconds(500));  // a copy going round the crate would show up by now

  for (auto* log : {&a_rate, &b_rate, &c_rate}) {
    const auto events = log->events();
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].payload, Payload{7});
    EXPECT_EQ(events[0].address, 0x0000FFFEU);
  }
  // Where it was published the source is as the endpoint sent it; elsewhere it names slot 1.
  EXPECT_EQ(a_rate.events()[0].source, 0x0042FFFEU);
  EXPECT_EQ(b_rate.events()[0].source, 0x00420001U);
  EXPECT_EQ(c_rate.events()[0].source, 0x00420001U);
  EXPECT_TRUE(b_sfp.events().empty());
  EXPECT_TRUE(c_sfp.events().empty());
  EXPECT_EQ(b_sfp.probes(), 0U);
  EXPECT_EQ(c_sfp.probes(), 0U);

  // The other way round as well, from C, with the sender's own slot.
  auto from_c = boards[2]->endpoint(0x00190003);
  EventLog a_min, b_min;
  ASSERT_TRUE(on_a->subscribe_event(kMinRate, a_min.handler()).has_value());
  ASSERT_TRUE(on_b->subscribe_event(kMinRate, b_min.handler()).has_value());
  ASSERT_TRUE(wait_for_route(*from_c, kMinRate, {&a_min, &b_min}));
  ASSERT_TRUE(from_c->send_event(make_event(kMinRate, {9})).has_value());
  ASSERT_TRUE(wait_until([&] { return a_min.count(kMinRate) == 1 && b_min.count(kMinRate) == 1; }));
  std::this_thread::sleep_for(milliseconds(300));
  EXPECT_EQ(a_min.events().size(), 1U);
  EXPECT_EQ(b_min.events().size(), 1U);
  EXPECT_EQ(a_min.events()[0].source, 0x00190003U);
}

TEST_F(CrateTest, ABoardStartedAfterTheEventGetsIt) {
  auto boards = make_boards(3);
  configure_mesh(boards);
  boards[0]->start();
  boards[1]->start();
  auto publisher = boards[0]->endpoint(0x00190001);
  auto on_b = boards[1]->endpoint(0x0019FFFE);
  EventLog b_rate;
  ASSERT_TRUE(on_b->subscribe_event(kMaxRate, b_rate.handler()).has_value());
  ASSERT_TRUE(wait_for_route(*publisher, kMaxRate, {&b_rate}));
  ASSERT_TRUE(publisher->send_event(make_event(kMaxRate, {1})).has_value());
  ASSERT_TRUE(publisher->send_event(make_event(kMaxRate, {2})).has_value());  // the newest is kept
  ASSERT_TRUE(wait_until([&] { return b_rate.count(kMaxRate) == 2; }));

  // C's subscriber is there before its bus, which gives it a second before reaching the crate.
  auto on_c = boards[2]->endpoint(0x0019FFFE);
  EventLog c_rate;
  ASSERT_TRUE(on_c->subscribe_event(kMaxRate, c_rate.handler()).has_value());
  boards[2]->start();
  ASSERT_TRUE(wait_until([&] { return c_rate.count(kMaxRate) == 1; }, std::chrono::seconds(20)));
  std::this_thread::sleep_for(milliseconds(500));
  const auto events = c_rate.events();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].payload, Payload{2});
  EXPECT_EQ(events[0].source, 0x00190001U);
  // Handing it to C did not send it to B again.
  EXPECT_EQ(b_rate.count(kMaxRate), 2U);
  EXPECT_TRUE(boards[2]->log_has(fmt::format("crate: joined peer {}", test::loopback_tcp(boards[0]->port()))));
}

TEST_F(CrateTest, AnEndpointThatSubscribesLateGetsTheLastStateOfEverySlot) {
  // As the master's daemon restarting: it must learn which slots still want the maximum rate.
  auto boards = make_boards(3);
  configure_mesh(boards);
  for (auto& board : boards) {
    board->start();
  }
  auto from_a = boards[0]->endpoint(0x00190001);
  auto from_b = boards[1]->endpoint(0x00190002);
  auto on_c = boards[2]->endpoint(0x0019FFFE);
  EventLog c_max, c_min;
  ASSERT_TRUE(on_c->subscribe_event(kMaxRate, c_max.handler()).has_value());
  ASSERT_TRUE(on_c->subscribe_event(kMinRate, c_min.handler()).has_value());
  ASSERT_TRUE(wait_for_route(*from_a, kMaxRate, {&c_max}));
  ASSERT_TRUE(wait_for_route(*from_b, kMaxRate, {&c_max}));
  ASSERT_TRUE(wait_for_route(*from_b, kMinRate, {&c_min}));

  // Slot 1 is hot; slot 2 was hot and has cooled down; a local endpoint of C asked for the
  // maximum too (its source names "this board").
  auto local_on_c = boards[2]->endpoint(0x0042FFFE);
  // One at a time: the bus hands them again in the order they reached it.
  ASSERT_TRUE(from_a->send_event(make_event(kMaxRate, {1})).has_value());
  ASSERT_TRUE(wait_until([&] { return c_max.count(kMaxRate) == 1; }));
  ASSERT_TRUE(from_b->send_event(make_event(kMaxRate, {2})).has_value());
  ASSERT_TRUE(wait_until([&] { return c_max.count(kMaxRate) == 2; }));
  ASSERT_TRUE(from_b->send_event(make_event(kMinRate, {3})).has_value());
  ASSERT_TRUE(wait_until([&] { return c_min.count(kMinRate) == 1; }));
  ASSERT_TRUE(local_on_c->send_event(make_event(kMaxRate, {4})).has_value());
  ASSERT_TRUE(wait_until([&] { return c_max.count(kMaxRate) == 3; }));

  // A new endpoint on C subscribes to both keys and is handed the newest state of each slot once.
  auto late = boards[2]->endpoint(0x0043FFFE);
  EventLog late_max, late_min;
  ASSERT_TRUE(late->subscribe_event(kMaxRate, late_max.handler()).has_value());
  ASSERT_TRUE(late->subscribe_event(kMinRate, late_min.handler()).has_value());
  ASSERT_TRUE(wait_until([&] { return late_max.count(kMaxRate) == 2 && late_min.count(kMinRate) == 1; }))
      << boards[2]->log();
  std::this_thread::sleep_for(milliseconds(500));
  const auto max_events = late_max.events();
  ASSERT_EQ(max_events.size(), 2U);
  EXPECT_EQ(max_events[0].source, 0x00190001U);
  EXPECT_EQ(max_events[0].payload, Payload{1});
  EXPECT_EQ(max_events[1].source, 0x0042FFFEU);
  EXPECT_EQ(max_events[1].payload, Payload{4});
  const auto min_events = late_min.events();
  ASSERT_EQ(min_events.size(), 1U);
  EXPECT_EQ(min_events[0].source, 0x00190002U);
  EXPECT_EQ(min_events[0].payload, Payload{3});
  // The endpoint subscribed before sees those states once more, and nothing else.
  EXPECT_EQ(c_max.count(kMaxRate), 5U);
  EXPECT_EQ(c_min.count(kMinRate), 2U);
  boards[2]->stop();
  EXPECT_TRUE(boards[2]->log_has(" handed to joining peers, 3 published again for joining endpoints, "))
      << boards[2]->log();
}

TEST_F(CrateTest, ARestartedPeerIsReconnected) {
  auto boards = make_boards(2);
  configure_mesh(boards);
  boards[0]->start();
  boards[1]->start();
  auto on_a = boards[0]->endpoint(0x0019FFFE);
  auto on_b = boards[1]->endpoint(0x0019FFFE);
  auto from_a = boards[0]->endpoint(0x00420001);
  auto from_b = boards[1]->endpoint(0x00420002);
  EventLog a_rate, b_rate;
  ASSERT_TRUE(on_a->subscribe_event(kMinRate, a_rate.handler()).has_value());
  ASSERT_TRUE(on_b->subscribe_event(kMaxRate, b_rate.handler()).has_value());
  ASSERT_TRUE(wait_for_route(*from_a, kMaxRate, {&b_rate}));
  ASSERT_TRUE(wait_for_route(*from_b, kMinRate, {&a_rate}));

  const auto end = boards[1]->stop(SIGKILL);
  EXPECT_TRUE(end.signaled);
  ASSERT_TRUE(wait_until(
      [&] {
        return boards[0]->log_has(
            fmt::format("crate: peer {} went away; reconnecting", test::loopback_tcp(boards[1]->port())));
      },
      std::chrono::seconds(10)));
  boards[1]->start();
  // B's subscriber reconnects to its new bus, which reconnects to A; A's SUB is back at B.
  ASSERT_TRUE(wait_for_route(*from_a, kMaxRate, {&b_rate}));
  ASSERT_TRUE(wait_for_route(*from_b, kMinRate, {&a_rate}));
  ASSERT_TRUE(from_a->send_event(make_event(kMaxRate, {3})).has_value());
  ASSERT_TRUE(from_b->send_event(make_event(kMinRate, {4})).has_value());
  EXPECT_TRUE(wait_until([&] { return b_rate.count(kMaxRate) == 1 && a_rate.count(kMinRate) == 1; }));
  EXPECT_EQ(b_rate.events().at(0).payload, Payload{3});
  EXPECT_EQ(a_rate.events().at(0).payload, Payload{4});
  EXPECT_TRUE(boards[1]->log_has(fmt::format("crate: joined peer {}", test::loopback_tcp(boards[0]->port()))));
  EXPECT_TRUE(boards[0]->log_has("crate: connection from 127.0.0.1:"));
}

TEST_F(CrateTest, WithCurveOnlyThePeersKeysGetIn) {
  auto boards = make_boards(3);  // the third port is a peer of A that no board serves
  test::TempDir keys("xpon-crate-keys");
  const KeyPair a_keys = generate_keys(keys.file("a"));
  const KeyPair b_keys = generate_keys(keys.file("b"));
  const KeyPair c_keys = generate_keys(keys.file("c"));
  const KeyPair intruder = generate_keys(keys.file("intruder"));
  const int absent_port = boards[2]->port();
  boards[0]->configure({{boards[1]->port(), b_keys.public_path}, {absent_port, c_keys.public_path}}, a_keys);
  boards[1]->configure({{boards[0]->port(), a_keys.public_path}}, b_keys);
  boards[0]->start();
  boards[1]->start();
  auto from_a = boards[0]->endpoint(0x00190001);
  auto on_a = boards[0]->endpoint(0x0019FFFE);
  auto on_b = boards[1]->endpoint(0x0019FFFE);
  EventLog a_rate, b_rate;
  ASSERT_TRUE(on_a->subscribe_event(kMaxRate, a_rate.handler()).has_value());
  ASSERT_TRUE(on_b->subscribe_event(kMaxRate, b_rate.handler()).has_value());
  ASSERT_TRUE(wait_for_route(*from_a, kMaxRate, {&b_rate}));

  // Reading: a subscriber without keys, and one with a key of its own that A does not list.
  zmq::context_t context;
  zmq::socket_t plain(context, zmq::socket_type::sub);
  zmq::socket_t keyed(context, zmq::socket_type::sub);
  for (auto* socket : {&plain, &keyed}) {
    socket->set(zmq::sockopt::linger, 0);
    socket->set(zmq::sockopt::subscribe, "");
  }
  keyed.set(zmq::sockopt::curve_serverkey, a_keys.public_key);
  keyed.set(zmq::sockopt::curve_publickey, intruder.public_key);
  keyed.set(zmq::sockopt::curve_secretkey, intruder.secret_key);
  plain.connect(test::loopback_tcp(boards[0]->port()));
  keyed.connect(test::loopback_tcp(boards[0]->port()));
  // Injecting: a publisher without keys where A expects its absent peer, sending a crate-wide event.
  zmq::socket_t injector(context, zmq::socket_type::pub);
  injector.set(zmq::sockopt::linger, 0);
  injector.bind(test::loopback_tcp(absent_port));
  const auto header_bytes = wire::encode_header(wire::event_header(0x00190003, make_event(kMaxRate)));
  const auto topic = wire::encode_topic(kMaxRate);
  const std::vector<std::uint8_t> injected_payload{0x66};

  ASSERT_TRUE(wait_until(
      [&] { return boards[0]->log_has(fmt::format("its key {} is not one of the peers'", intruder.public_key)); },
      std::chrono::seconds(10)));
  for (std::uint8_t i = 0; i < 20; ++i) {
    ASSERT_TRUE(from_a->send_event(make_event(kMaxRate, {i})).has_value());
    injector.send(zmq::buffer(topic), zmq::send_flags::sndmore);
    injector.send(zmq::buffer(header_bytes), zmq::send_flags::sndmore);
    injector.send(zmq::buffer(injected_payload), zmq::send_flags::none);
    std::this_thread::sleep_for(milliseconds(50));
  }
  ASSERT_TRUE(wait_until([&] { return b_rate.count(kMaxRate) == 20; }));
  std::this_thread::sleep_for(milliseconds(500));
  zmq::message_t message;
  EXPECT_FALSE(plain.recv(message, zmq::recv_flags::dontwait).has_value());
  EXPECT_FALSE(keyed.recv(message, zmq::recv_flags::dontwait).has_value());
  EXPECT_EQ(a_rate.count(kMaxRate), 20U);  // A's own events only, nothing from the injector
  for (const auto& event : a_rate.events()) {
    EXPECT_NE(event.payload, injected_payload);
  }
  EXPECT_TRUE(boards[0]->log_has(
      fmt::format("crate: handshake with peer {} failed (wrong key?)", test::loopback_tcp(absent_port))));
  EXPECT_TRUE(boards[1]->log_has(fmt::format("crate: joined peer {}", test::loopback_tcp(boards[0]->port()))));
}

TEST(CrateSettings, TheBusRefusesAnOpenAddressWithoutKeys) {
  test::TempRoot root;
  test::TempDir dir;
  const std::string config =
      dir.write("crate.toml", "enabled = true\nslot = 4\nlisten = \"tcp://10.20.30.40:15600\"\n");
  const auto run = test::run_program({XPON_IPC_BUS_PATH, "--crate-config", config});
  ASSERT_TRUE(run.end.has_value());
  EXPECT_TRUE(run.end->exited_with(2)) << run.end->describe();
  EXPECT_EQ(run.errors,
            "xpon-ipc-bus: crate: refusing to listen on tcp://10.20.30.40:15600 without CURVE keys: any host of that "
            "network could read the crate's events and inject its own; name the board's keys in [curve] or set "
            "insecure = true\n");
}

TEST(CrateSettings, TheBusNamesABadValueAndStops) {
  test::TempRoot root;
  test::TempDir dir;
  const std::string config = dir.write("crate.toml", "enabled = true\nslot = 70000\n");
  const auto run = test::run_program({XPON_IPC_BUS_PATH, "--crate-config", config});
  ASSERT_TRUE(run.end.has_value());
  EXPECT_TRUE(run.end->exited_with(2)) << run.end->describe();
  EXPECT_EQ(run.errors,
            fmt::format("xpon-ipc-bus: crate configuration {}: slot must be a number from 0 to 65533\n", config));
}

}  // namespace
}  // namespace xpon::ipc
