// Hostile requests through the real IPC path: every request id of the daemon's interface with
// payloads of every interesting length, random bytes, without reply information, unknown ids and
// frames that break the wire format, sent ten times over to one daemon of each family. Afterwards the
// daemon still answers every request it serves as it should, still publishes, and its descriptors
// and memory stayed within a bound.

#include "reliability_test.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace xpon::system_mgr::test {
namespace {

// Storms sent to each daemon: some 500 requests and 4.8 MiB each.
constexpr int kStorms = 10;
// Growth allowed over the storms after the first, once the first has warmed the daemon up: a
// steady daemon keeps no descriptor per request, and its memory levels off (fifty storms end
// 2.3 MiB above the first; on a loaded machine more messages wait at once and ten storms have
// ended 4.4 MiB above). A daemon that kept the payloads it delivers to the handlers, some
// 25 MiB over the later storms, would break the memory bound.
constexpr std::size_t kDescriptorGrowthLaterStorms = 0;
constexpr std::size_t kRssGrowthLaterStormsKib = std::size_t{8} * 1024;
// Growth allowed from the idle daemon to the end of the first storm (the peers' connections,
// allocator arenas of the delivery threads, 64 KiB messages).
constexpr std::size_t kDescriptorGrowthFirstStorm = 8;
constexpr std::size_t kRssGrowthFirstStormKib = std::size_t{32} * 1024;

constexpr std::size_t kMiB = std::size_t{1024} * 1024;

// Keys the daemon does not serve on any board: ids outside its range, an event id, other groups.
const std::vector<std::pair<std::uint16_t, std::uint16_t>> kUnknownKeys{
    {IPC_SYSTEM_MGR, 0},
    {IPC_SYSTEM_MGR, 15500},
    {IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE},
    {IPC_SYSTEM_MGR, 15543},
    {IPC_SYSTEM_MGR, 0xFFFF},
    {IPC_EVENT_ALARM_GROUP, IPC_EVENT_ALARM_ID},
    {0, 0},
    {IPC_SYSTEM_MGR + 1, IPC_SYSTEM_MGR__GET_FPGA_VERSION},
};

// One request of the storm and what must come back.
struct Sent {
  std::string what;
  std::optional<ExpectedAnswer> exact;  // the answer, when the payload decides it
  bool answered = false;                // an answer must come (result 0 or 1)
};

class RequestFuzz : public ReliabilityTest, public ::testing::WithParamInterface<Board> {
 protected:
  // One storm: every request id and the unknown keys with every payload, then the broken frames.
  // Checks every answer (and that nothing else came back) against `sent`.
  void storm(RawPeer& peer, std::mt19937& random) {
    std::map<std::uint16_t, Sent> sent;
    std::uint16_t tag = 1;
    const auto random_bytes = [&random](std::size_t size) {
      ipc::Payload bytes(size);
      for (auto& byte : bytes) {
        byte = static_cast<std::uint8_t>(random());
      }
      return bytes;
    };
    const Json state = board_state();

    for (const auto& entry : request_table()) {
      const bool served = serves(entry, board_);
      const std::size_t exact = argument_size(entry.argument);
      const ipc::Payload argument = well_formed_argument(entry.argument);
      std::vector<std::size_t> lengths{0, 1, exact, exact + 1, 4096, 65536};
      if (exact > 1) {
        lengths.push_back(exact - 1);
      }
      for (const std::size_t length : lengths) {
        // The well-formed argument cut to the length, or followed by random bytes.
        ipc::Payload payload = random_bytes(length);
        std::copy_n(argument.begin(), std::min(length, argument.size()), payload.begin());
        Sent expectation{std::string(entry.name) + " with " + std::to_string(length) + " bytes", std::nullopt, served};
        if (served) {
          expectation.exact = length < exact ? ExpectedAnswer{0, 0} : expected_answer(entry, board_, state);
        }
        peer.send(peer.request_header(IPC_SYSTEM_MGR, entry.id, tag, true), payload);
        sent.emplace(tag++, expectation);
      }
      for (int round = 0; round < 3; ++round) {
        const auto length = static_cast<std::size_t>(random() % 300);
        peer.send(peer.request_header(IPC_SYSTEM_MGR, entry.id, tag, true), random_bytes(length));
        sent.emplace(tag++,
                     Sent{std::string(entry.name) + " with " + std::to_string(length) + " random bytes", {}, served});
      }
      // Without reply information nothing may come back, whatever the handler makes of it.
      peer.send(peer.request_header(IPC_SYSTEM_MGR, entry.id, tag, false), argument);
      sent.emplace(tag++, Sent{std::string(entry.name) + " without reply information", {}, false});
      peer.send(peer.request_header(IPC_SYSTEM_MGR, entry.id, tag, false), random_bytes(4096));
      sent.emplace(tag++, Sent{std::string(entry.name) + " with 4096 random bytes, no reply information", {}, false});
    }

    for (const auto& [group, id] : kUnknownKeys) {
      for (const std::size_t length : {0U, 4U, 4096U}) {
        peer.send(peer.request_header(group, id, tag, true), random_bytes(length));
        sent.emplace(tag++, Sent{"unknown key " + std::to_string(group) + ":" + std::to_string(id), {}, false});
      }
    }

    // Broken frames, each around a request the daemon would answer if it took it.
    const auto frame_of = [](const ipc::wire::Header& header) {
      const auto bytes = ipc::wire::encode_header(header);
      return std::vector<std::uint8_t>(bytes.begin(), bytes.end());
    };
    const auto broken = [&](const std::string& what, const std::vector<std::vector<std::uint8_t>>& frames) {
      peer.send_frames(frames);
      sent.emplace(tag++, Sent{what, {}, false});
    };
    const auto valid = [&] {
      return frame_of(peer.request_header(IPC_SYSTEM_MGR, IPC_SYSTEM_MGR__GET_FPGA_VERSION, tag, true));
    };
    {
      auto header = valid();
      header.pop_back();
      broken("a 23-byte header", {header, {}});
      broken("an empty header frame", {{}, {}});
      header = valid();
      header.push_back(0);
      broken("a 25-byte header", {header, {}});
      for (const std::uint8_t version : std::initializer_list<std::uint8_t>{0, 2, 0xFF}) {
        header = valid();
        header[0] = version;
        broken("version " + std::to_string(version), {header, {}});
      }
      for (const std::uint8_t kind : std::initializer_list<std::uint8_t>{0, 4, 0xFF}) {
        header = valid();
        header[1] = kind;
        broken("kind " + std::to_string(kind), {header, {}});
      }
      header = valid();
      header[1] = static_cast<std::uint8_t>(ipc::wire::Kind::Response);
      broken("a response nobody waits for", {header, {}});
      header = valid();
      header[1] = static_cast<std::uint8_t>(ipc::wire::Kind::Event);
      broken("an event sent to the inbox", {header, {}});
      broken("the header frame alone", {valid()});
      broken("three frames", {valid(), {}, {1, 2, 3}});
      broken("four frames", {valid(), {}, {}, {}});
      broken("a payload above 64 KiB", {valid(), random_bytes(65537)});
      broken("a payload of 1 MiB", {valid(), random_bytes(kMiB)});
      // Above the inbox's receive limit the connection itself is dropped; it comes back by itself.
      broken("a payload above 1 MiB", {valid(), random_bytes(kMiB + 1)});
    }

    const auto awaited = static_cast<std::size_t>(
        std::count_if(sent.begin(), sent.end(), [](const auto& entry) { return entry.second.answered; }));
    std::multimap<std::uint16_t, ipc::Response> answers;
    peer.collect(answers, std::chrono::seconds(20), [&] { return answers.size() >= awaited; });
    // Whatever should not be answered has had the same time, and a little more, to show up.
    peer.collect(answers, std::chrono::milliseconds(300), [] { return false; });

    for (const auto& [sent_tag, expectation] : sent) {
      const auto count = answers.count(sent_tag);
      if (!expectation.answered) {
        EXPECT_EQ(count, 0U) << "answered: " << expectation.what;
        continue;
      }
      ASSERT_EQ(count, 1U) << "answers to " << expectation.what << "\n" << rig_.daemon_log();
      const ipc::Response& answer = answers.find(sent_tag)->second;
      EXPECT_EQ(answer.address, SYSTEM_MGR_REPLY_ADDRESS_WORD) << expectation.what;
      if (expectation.exact) {
        EXPECT_EQ(answer.result, expectation.exact->result) << expectation.what;
        EXPECT_EQ(answer.payload.size(), expectation.exact->size) << expectation.what;
      } else {
        EXPECT_TRUE(answer.result == 0 || answer.result == 1) << expectation.what << ": result " << answer.result;
        if (answer.result == 0) {
          EXPECT_TRUE(answer.payload.empty()) << expectation.what;
        }
      }
    }
    EXPECT_EQ(peer.strays(), 0U);
    ASSERT_TRUE(rig_.daemon().running()) << rig_.daemon_log();
  }
};

TEST_P(RequestFuzz, EveryRequestSurvivesHostileInputAndIsAnsweredAsDesignedAfterwards) {
  XPON_START_RELIABILITY(GetParam());
  BusSubscriber subscriber(ipc_directory());
  subscriber.subscribe(IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED);
  ASSERT_TRUE(subscriber.wait_subscribed(kStepTimeout));
  RawPeer peer(ipc_directory(), ipc::make_address(0x0061));
  std::mt19937 random(20261125);

  ASSERT_NO_FATAL_FAILURE(wait_for_sfp_modules());
  ASSERT_NO_FATAL_FAILURE(expect_every_request_answered("before the storm"));
  const pid_t pid = rig_.daemon().pid();
  const ProcessUsage idle = usage_of(pid);

  ASSERT_NO_FATAL_FAILURE(storm(peer, random));
  const ProcessUsage first = usage_of(pid);
  for (int round = 1; round < kStorms; ++round) {
    ASSERT_NO_FATAL_FAILURE(storm(peer, random));
  }
  const ProcessUsage last = usage_of(pid);
  ::testing::Test::RecordProperty("descriptors", std::to_string(idle.descriptors) + " idle, " +
                                                     std::to_string(first.descriptors) + " after the first storm, " +
                                                     std::to_string(last.descriptors) + " after the last");
  ::testing::Test::RecordProperty("rss_kib", std::to_string(idle.rss_kib) + " idle, " + std::to_string(first.rss_kib) +
                                                 " after the first storm, " + std::to_string(last.rss_kib) +
                                                 " after the last");
  EXPECT_LE(first.descriptors, idle.descriptors + kDescriptorGrowthFirstStorm);
  EXPECT_LE(last.descriptors, first.descriptors + kDescriptorGrowthLaterStorms);
  EXPECT_LE(first.rss_kib, idle.rss_kib + kRssGrowthFirstStormKib);
  EXPECT_LE(last.rss_kib, first.rss_kib + kRssGrowthLaterStormsKib);

  // Every drop was counted and reported, once per reason at least.
  for (const char* reason : {"short header", "long header", "unknown version", "unknown kind", "wrong number of frames",
                             "payload above 64 KiB", "event sent to an inbox", "response without a waiting request"}) {
    EXPECT_TRUE(rig_.wait_for_log(std::string(": dropped a message (") + reason, kStepTimeout)) << reason;
  }

  ASSERT_NO_FATAL_FAILURE(expect_every_request_answered("after the storm"));

  // Events still flow: a module pulled from F-port 0 is reported within two SFP periods.
  ASSERT_NO_FATAL_FAILURE(patch(R"({"front_ports": {"0": {"present": false}}})"));
  const auto removed = subscriber.next_event_with_key(IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED,
                                                      std::chrono::seconds(3));
  ASSERT_TRUE(removed.has_value()) << rig_.daemon_log();
  EXPECT_EQ(removed->payload, (ipc::Payload{0, 0, 0, 0}));

  // And alarms: a restart polls every function at once, and each of its alarms reaches the bus.
  ASSERT_NO_FATAL_FAILURE(settle(1));
  ASSERT_TRUE(rig_.daemon().signal(SIGHUP));
  ASSERT_TRUE(rig_.wait_for_notification(kReadyText, 2, kStepTimeout)) << rig_.daemon_log();
  const auto alarm = subscriber.next_alarm_of(SYSTEM_MGR_ALARM_LOAD_AVERAGE, kStepTimeout);
  ASSERT_TRUE(alarm.has_value()) << rig_.daemon_log();
  EXPECT_EQ(u32_at(alarm->header, 4), kDaemonAddress);
}

INSTANTIATE_TEST_SUITE_P(Boards, RequestFuzz, ::testing::Values(kLtBoard, kLcBoard, kFcBoard));

}  // namespace
}  // namespace xpon::system_mgr::test
