// The watcher against a stand-in bus: this test binds the subscriber side of the bus itself
// and publishes hand-made frames, well-formed and not.

#include "xpon/tool/bus_watch.hpp"
#include "xpon/ipc/paths.hpp"
#include "xpon/ipc/wire.hpp"
#include "xpon/test/sandbox.hpp"
#include "xpon/tool/console.hpp"

#include <gtest/gtest.h>
#include <zmq.hpp>

#include <chrono>
#include <cstdlib>
#include <future>
#include <string>
#include <vector>

namespace xpon::tool {
namespace {

using std::chrono::milliseconds;
namespace wire = ipc::wire;

class BusWatch : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("XPON_ROOT", sandbox_.root().c_str(), 1);
    bus_.set(zmq::sockopt::linger, 0);
    // Every subscription comes through, also one that repeats an earlier watch's.
    bus_.set(zmq::sockopt::xpub_verbose, 1);
    bus_.set(zmq::sockopt::rcvtimeo, 5000);
    bus_.bind(ipc::bus_sub_endpoint());
  }

  void TearDown() override { ::unsetenv("XPON_ROOT"); }

  /// Starts a watch in the background, waits until it has subscribed and returns its end.
  std::future<WatchResult> start(const WatchOptions& options, std::size_t subscriptions = 1) {
    auto result = std::async(std::launch::async, [this, options] {
      return watch_bus(
          options, [this](const ipc::Event& event) { events_.push_back(event); },
          [this](const std::string& what) { malformed_.push_back(what); });
    });
    // Unsubscriptions of an earlier watch that has ended (first byte 0) are skipped.
    std::size_t subscribed = 0;
    while (subscribed < subscriptions) {
      zmq::message_t message;
      if (!bus_.recv(message)) {
        ADD_FAILURE() << "the watch did not subscribe";
        break;
      }
      if (!message.empty() && message.data<std::uint8_t>()[0] == 1) {
        ++subscribed;
      }
    }
    return result;
  }

  static ipc::Event event(std::uint16_t group, std::uint16_t id, ipc::Payload payload) {
    ipc::Event event;
    event.group = group;
    event.id = id;
    event.payload = std::move(payload);
    event.source = 0x00190005;
    return event;
  }

  /// Publishes an event as a well-behaved publisher does: topic, header, payload.
  void publish(const ipc::Event& event) {
    const auto topic = wire::encode_topic(ipc::Key{event.group, event.id});
    const auto header = wire::encode_header(wire::event_header(event.source, event));
    send({topic.begin(), topic.end()}, {header.begin(), header.end()}, event.payload);
  }

  void send(const std::vector<std::uint8_t>& topic, const std::vector<std::uint8_t>& header,
            const std::vector<std::uint8_t>& payload) {
    bus_.send(zmq::buffer(topic), zmq::send_flags::sndmore);
    bus_.send(zmq::buffer(header), zmq::send_flags::sndmore);
    bus_.send(zmq::buffer(payload));
  }

  test::Sandbox sandbox_;
  zmq::context_t context_{1};
  zmq::socket_t bus_{context_, zmq::socket_type::xpub};
  std::vector<ipc::Event> events_;
  std::vector<std::string> malformed_;
};

TEST_F(BusWatch, HandsOverEventsUntilTheCount) {
  WatchOptions options;
  options.count = 2;
  options.timeout = milliseconds(10000);
  auto watch = start(options);
  publish(event(15500, 15537, {0x01, 0x02}));
  publish(event(14500, 14504, {}));
  const auto result = watch.get();
  EXPECT_EQ(result.end, WatchEnd::Counted);
  EXPECT_EQ(result.seen, 2U);
  ASSERT_EQ(events_.size(), 2U);
  EXPECT_EQ(events_[0].group, 15500);
  EXPECT_EQ(events_[0].id, 15537);
  EXPECT_EQ(events_[0].source, 0x00190005U);
  EXPECT_EQ(events_[0].payload, (ipc::Payload{0x01, 0x02}));
  EXPECT_EQ(events_[1].group, 14500);
  EXPECT_TRUE(malformed_.empty());
}

TEST_F(BusWatch, SaysWhatIsWrongWithAMalformedMessageAndGoesOn) {
  WatchOptions options;
  options.count = 1;
  options.timeout = milliseconds(10000);
  auto watch = start(options);
  const auto topic = wire::encode_topic(ipc::Key{15500, 15537});
  send({topic.begin(), topic.end()}, {0x01, 0x03}, {});
  bus_.send(zmq::buffer(std::vector<std::uint8_t>(topic.begin(), topic.end())), zmq::send_flags::sndmore);
  bus_.send(zmq::str_buffer("x"));
  ipc::Event request_kind = event(15500, 15537, {});
  auto header = wire::event_header(request_kind.source, request_kind);
  header.kind = wire::Kind::Request;
  const auto bytes = wire::encode_header(header);
  send({topic.begin(), topic.end()}, {bytes.begin(), bytes.end()}, {});
  publish(event(15500, 15537, {0xAA}));
  const auto result = watch.get();
  EXPECT_EQ(result.end, WatchEnd::Counted);
  EXPECT_EQ(result.seen, 1U);
  EXPECT_EQ(malformed_, (std::vector<std::string>{"3 frames, short header", "2 frames", "3 frames"}));
  ASSERT_EQ(events_.size(), 1U);
  EXPECT_EQ(events_[0].payload, (ipc::Payload{0xAA}));
}

TEST_F(BusWatch, StrictAlsoRefusesABadTopicAndAnOversizedPayload) {
  const ipc::Event good = event(15500, 15537, {});
  const auto header = wire::encode_header(wire::event_header(good.source, good));
  const auto topic = wire::encode_topic(ipc::Key{15500, 15537});
  const std::vector<std::uint8_t> large(wire::kMaxPayload + 1, 0x5A);
  for (const bool strict : {false, true}) {
    events_.clear();
    malformed_.clear();
    WatchOptions options;
    options.strict = strict;
    options.count = strict ? 1 : 3;
    options.timeout = milliseconds(10000);
    auto watch = start(options);
    send({0x3C, 0x8C, 0x3C, 0xB1, 0x00}, {header.begin(), header.end()}, {});
    send({topic.begin(), topic.end()}, {header.begin(), header.end()}, large);
    publish(good);
    EXPECT_EQ(watch.get().seen, options.count);
    if (strict) {
      EXPECT_EQ(malformed_, (std::vector<std::string>{"3 frames", "3 frames"}));
      ASSERT_EQ(events_.size(), 1U);
      EXPECT_TRUE(events_[0].payload.empty());
    } else {
      EXPECT_TRUE(malformed_.empty());
      ASSERT_EQ(events_.size(), 3U);
      EXPECT_EQ(events_[1].payload.size(), large.size());
    }
  }
}

TEST_F(BusWatch, SubscribesToTheKeysGiven) {
  WatchOptions options;
  options.keys = {ipc::Key{15500, ipc::kAnyId}, ipc::Key{14500, 14504}};
  options.count = 2;
  options.timeout = milliseconds(10000);
  auto watch = start(options, 2);
  publish(event(14500, 14505, {0x01}));
  publish(event(9000, 1, {0x02}));
  publish(event(15500, 15501, {0x03}));
  publish(event(14500, 14504, {0x04}));
  const auto result = watch.get();
  EXPECT_EQ(result.end, WatchEnd::Counted);
  ASSERT_EQ(events_.size(), 2U);
  EXPECT_EQ(events_[0].payload, (ipc::Payload{0x03}));
  EXPECT_EQ(events_[1].payload, (ipc::Payload{0x04}));
}

TEST_F(BusWatch, TimesOutWithWhatItHasSeen) {
  WatchOptions options;
  options.count = 3;
  options.timeout = milliseconds(300);
  auto watch = start(options);
  publish(event(15500, 15537, {}));
  const auto begin = std::chrono::steady_clock::now();
  const auto result = watch.get();
  EXPECT_EQ(result.end, WatchEnd::TimedOut);
  EXPECT_EQ(result.seen, 1U);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, milliseconds(5000));
}

}  // namespace
}  // namespace xpon::tool
