#include "event_log.hpp"
#include "xpon/ipc/paths.hpp"
#include "xpon/ipc/wire.hpp"
#include "xpon/ipc/zmq_ipc.hpp"
#include "xpon/test/inheritable_descriptors.hpp"
#include "xpon/test/ipc_env.hpp"
#include "xpon/test/recording_logger.hpp"

#include <gtest/gtest.h>
#include <zmq.hpp>
#include <zmq_addon.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace xpon::ipc {
namespace {

using std::chrono::milliseconds;
using test::wait_until;

class BusEventsTest : public ::testing::Test {
 protected:
  void SetUp() override { start_bus(); }

  // A generous settle time: subscribers of a restarted bus must be back before it takes events, even
  // on a slow, busy test machine.
  void start_bus() {
    bus = std::make_unique<test::Process>(std::vector<std::string>{XPON_IPC_BUS_PATH, "--settle-ms", "1000"});
  }

  std::shared_ptr<ZmqIpc> endpoint(Address address, unsigned delivery_threads = ZmqIpcOptions{}.delivery_threads) {
    ZmqIpcOptions options;
    options.logger = log;
    options.delivery_threads = delivery_threads;
    return make_zmq_endpoint(address, "test", options);
  }

  /// The echo server of the tests with one delivery thread, and the key it answers.
  static constexpr Address kServer = 0x0015FFFE;
  static constexpr Key kQuery{14500, 14504};

  /// Answers `key` on `server` with the request's payload.
  static void serve_echo(const std::shared_ptr<ZmqIpc>& server, Key key) {
    ZmqIpc* raw_server = server.get();
    ASSERT_TRUE(server
                    ->subscribe_request(key,
                                        [raw_server](const Request& request) -> Result<void> {
                                          return raw_server->send_response(request.reply_to.value().address,
                                                                           test::echo_response(request));
                                        })
                    .has_value());
  }

  /// Publishes a probe until the subscriber sees one, so that its subscription is known to have
  /// reached the bus; then forgets the probes.
  static bool wait_for_subscription(ZmqIpc& publisher, EventLog& events, Key key) {
    const std::size_t before = events.probes();
    const bool arrived = wait_until([&] {
      EXPECT_TRUE(publisher.send_event(make_event(key, kProbePayload)).has_value());
      return events.probes() > before;
    });
    std::this_thread::sleep_for(milliseconds(50));
    events.clear();
    return arrived;
  }

  test::TempRoot root;
  std::shared_ptr<xpon::test::RecordingLogger> log = std::make_shared<xpon::test::RecordingLogger>();
  std::unique_ptr<test::Process> bus;
};

TEST_F(BusEventsTest, EventsAreFilteredByGroupAndByGroupAndId) {
  auto publisher = endpoint(0x0042FFFE);
  auto subscriber = endpoint(0x0019FFFE);
  EventLog whole_group;
  EventLog one_id;
  ASSERT_TRUE(subscriber->subscribe_event(Key{9000, kAnyId}, whole_group.handler()).has_value());
  ASSERT_TRUE(subscriber->subscribe_event(Key{15500, 15537}, one_id.handler()).has_value());
  ASSERT_TRUE(wait_for_subscription(*publisher, whole_group, Key{9000, 1}));
  ASSERT_TRUE(wait_for_subscription(*publisher, one_id, Key{15500, 15537}));

  ASSERT_TRUE(publisher->send_event(make_event(Key{9000, 9005}, {1, 2, 3})).has_value());
  ASSERT_TRUE(publisher->send_event(make_event(Key{9001, 9005})).has_value());
  ASSERT_TRUE(publisher->send_event(make_event(Key{15500, 15538})).has_value());
  ASSERT_TRUE(publisher->send_event(make_event(Key{15500, 15537}, {4})).has_value());
  ASSERT_TRUE(publisher->send_event(make_event(Key{9000, 7})).has_value());
  ASSERT_TRUE(wait_until([&] { return whole_group.events().size() >= 2 && !one_id.events().empty(); }));
  std::this_thread::sleep_for(milliseconds(200));  // anything wrongly forwarded would show up by now

  const auto group_events = whole_group.events();
  ASSERT_EQ(group_events.size(), 2U);
  for (const auto& event : group_events) {
    EXPECT_EQ(event.group, 9000);
    EXPECT_TRUE(event.id == 9005 || event.id == 7);
    EXPECT_EQ(event.source, 0x0042FFFEU);
    EXPECT_EQ(event.address, 0x0000FFFEU);
  }
  const auto id_events = one_id.events();
  ASSERT_EQ(id_events.size(), 1U);
  EXPECT_EQ(id_events[0].payload, Payload{4});
  EXPECT_EQ(subscriber->stats().dropped_input(), 0U);
}

TEST_F(BusEventsTest, EventSentRightAfterCreationReachesAConnectedSubscriber) {
  auto subscriber = endpoint(0x0019FFFE);
  EventLog alarms;
  ASSERT_TRUE(subscriber->subscribe_event(Key{9000, 9005}, alarms.handler()).has_value());
  {
    auto prober = endpoint(0x0043FFFE);
    ASSERT_TRUE(wait_for_subscription(*prober, alarms, Key{9000, 9005}));
  }
  auto fresh = endpoint(0x0042FFFE);
  ASSERT_TRUE(fresh->send_event(make_event(Key{9000, 9005}, Payload(305, 0x41))).has_value());
  ASSERT_TRUE(wait_until([&] { return alarms.events().size() == 1; }));
  const auto events = alarms.events();
  EXPECT_EQ(events[0].payload, Payload(305, 0x41));
  EXPECT_EQ(events[0].source, 0x0042FFFEU);
}

TEST_F(BusEventsTest, EventsQueuedWhileTheBusIsDownFlowWhenItReturns) {
  auto publisher = endpoint(0x0042FFFE);
  auto subscriber = endpoint(0x0019FFFE);
  EventLog events;
  ASSERT_TRUE(subscriber->subscribe_event(Key{15500, kAnyId}, events.handler()).has_value());
  ASSERT_TRUE(wait_for_subscription(*publisher, events, Key{15500, 1}));

  bus->stop(SIGKILL, std::chrono::seconds(10));
  for (std::uint8_t i = 0; i < 5; ++i) {
    ASSERT_TRUE(publisher->send_event(make_event(Key{15500, 15539}, {i})).has_value());
  }
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_TRUE(events.events().empty());
  start_bus();
  ASSERT_TRUE(wait_until([&] { return events.count(Key{15500, 15539}) == 5; }));

  // And events sent after the restart flow as before.
  ASSERT_TRUE(publisher->send_event(make_event(Key{15500, 15540})).has_value());
  EXPECT_TRUE(wait_until([&] { return events.count(Key{15500, 15540}) == 1; }));
}

TEST_F(BusEventsTest, EventsAreHandledOneAtATimeInTheOrderSent) {
  auto publisher = endpoint(0x0042FFFE);
  auto subscriber = endpoint(0x0019FFFE);  // two delivery threads
  EventLog probe;
  ASSERT_TRUE(subscriber->subscribe_event(Key{15500, 1}, probe.handler()).has_value());
  ASSERT_TRUE(wait_for_subscription(*publisher, probe, Key{15500, 1}));
  std::mutex mutex;
  std::vector<int> order;
  std::atomic<int> running{0};
  std::atomic<int> overlapped{0};
  const auto handler = [&](const Event& event) -> Result<void> {
    if (running.fetch_add(1) != 0) {
      ++overlapped;
    }
    const int sequence = event.payload.at(0) | (event.payload.at(1) << 8);
    if (sequence % 7 == 0) {
      std::this_thread::sleep_for(milliseconds(1));  // a slow handler must not be overtaken
    }
    {
      std::lock_guard lock(mutex);
      order.push_back(sequence);
    }
    running.fetch_sub(1);
    return core::success();
  };
  // The maximum and minimum fan-rate events of one sender: different ids, one order.
  ASSERT_TRUE(subscriber->subscribe_event(Key{15500, 15537}, handler).has_value());
  ASSERT_TRUE(subscriber->subscribe_event(Key{15500, 15538}, handler).has_value());
  std::this_thread::sleep_for(milliseconds(200));  // the two subscriptions travel like the probe's
  constexpr int kEvents = 300;
  for (int i = 0; i < kEvents; ++i) {
    const Key key{15500, static_cast<std::uint16_t>(i % 2 == 0 ? 15537 : 15538)};
    ASSERT_TRUE(
        publisher->send_event(make_event(key, {static_cast<std::uint8_t>(i & 0xFF), static_cast<std::uint8_t>(i >> 8)}))
            .has_value());
  }
  ASSERT_TRUE(wait_until([&] {
    std::lock_guard lock(mutex);
    return order.size() == kEvents;
  }));
  std::vector<int> expected(kEvents);
  for (int i = 0; i < kEvents; ++i) {
    expected[static_cast<std::size_t>(i)] = i;
  }
  std::lock_guard lock(mutex);
  EXPECT_EQ(order, expected);
  EXPECT_EQ(overlapped.load(), 0);
}

TEST_F(BusEventsTest, EventsReachTheOnlyDeliveryThreadWhileItReadsTheInbox) {
  auto publisher = endpoint(0x0042FFFE);
  auto client = endpoint(0x0019FFFE);
  auto server = endpoint(kServer, 1);
  ASSERT_NO_FATAL_FAILURE(serve_echo(server, kQuery));
  EventLog events;
  const Key key{15500, 15537};
  ASSERT_TRUE(server->subscribe_event(key, events.handler()).has_value());
  ASSERT_TRUE(wait_for_subscription(*publisher, events, key));
  Request request;
  request.group = kQuery.group;
  request.id = kQuery.id;
  // Once its thread is idle after a request, the server reads its inbox on that thread; the
  // requests go on until one of them was read that way.
  ASSERT_TRUE(wait_until([&] {
    EXPECT_TRUE(client->request(kServer, request, milliseconds(2000)).has_value());
    return server->stats().requests_read_by_delivery_threads > 0;
  }));
  // Now the only delivery thread waits on the inbox, not on the queue: events must still wake it.
  for (std::uint8_t i = 0; i < 20; ++i) {
    ASSERT_TRUE(publisher->send_event(make_event(key, {i})).has_value());
    ASSERT_TRUE(wait_until([&] { return events.count(key) == static_cast<std::size_t>(i) + 1; }))
        << "event " << int{i} << " was not handled";
    request.payload = {i};
    const auto answer = client->request(kServer, request, milliseconds(2000));
    ASSERT_TRUE(answer.has_value()) << answer.error().to_string();
    EXPECT_EQ(answer.value().payload, Payload{i});
  }
}

TEST_F(BusEventsTest, RequestsReachTheOnlyDeliveryThreadWhileItReadsTheSubscriber) {
  auto publisher = endpoint(0x0042FFFE);
  auto client = endpoint(0x0019FFFE);
  auto server = endpoint(kServer, 1);
  EventLog events;
  const Key key{15500, 15537};
  ASSERT_TRUE(server->subscribe_event(key, events.handler()).has_value());
  ASSERT_TRUE(wait_for_subscription(*publisher, events, key));
  // Idle after the probes, with events subscribed and no request handler, the only delivery thread
  // waits on the subscriber, not on the queue: a request (read by the I/O thread) must wake it.
  ASSERT_NO_FATAL_FAILURE(serve_echo(server, kQuery));
  Request request;
  request.group = kQuery.group;
  request.id = kQuery.id;
  for (std::uint8_t i = 0; i < 20; ++i) {
    request.payload = {i};
    const auto answer = client->request(kServer, request, milliseconds(2000));
    ASSERT_TRUE(answer.has_value()) << "request " << int{i} << ": " << answer.error().to_string();
    EXPECT_EQ(answer.value().payload, Payload{i});
    ASSERT_TRUE(publisher->send_event(make_event(key, {i})).has_value());
    ASSERT_TRUE(wait_until([&] { return events.count(key) == static_cast<std::size_t>(i) + 1; }))
        << "event " << int{i} << " was not handled";
  }
}

TEST_F(BusEventsTest, UnsubscribedEventsStopArriving) {
  auto publisher = endpoint(0x0042FFFE);
  auto subscriber = endpoint(0x0019FFFE);
  EventLog events;
  EventLog other;
  ASSERT_TRUE(subscriber->subscribe_event(Key{15500, 15541}, events.handler()).has_value());
  ASSERT_TRUE(subscriber->subscribe_event(Key{15500, 15542}, other.handler()).has_value());
  ASSERT_TRUE(wait_for_subscription(*publisher, events, Key{15500, 15541}));
  ASSERT_TRUE(wait_for_subscription(*publisher, other, Key{15500, 15542}));
  ASSERT_TRUE(subscriber->unsubscribe_event(Key{15500, 15541}).has_value());
  std::this_thread::sleep_for(milliseconds(100));
  ASSERT_TRUE(publisher->send_event(make_event(Key{15500, 15541})).has_value());
  ASSERT_TRUE(publisher->send_event(make_event(Key{15500, 15542})).has_value());
  ASSERT_TRUE(wait_until([&] { return other.events().size() == 1; }));
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_TRUE(events.events().empty());
}

TEST_F(BusEventsTest, MalformedEventsFromARawPublisherAreDroppedAndCounted) {
  auto subscriber = endpoint(0x0019FFFE);
  EventLog events;
  ASSERT_TRUE(subscriber->subscribe_event(Key{9000, kAnyId}, events.handler()).has_value());
  {
    auto prober = endpoint(0x0043FFFE);
    ASSERT_TRUE(wait_for_subscription(*prober, events, Key{9000, 1}));
  }
  zmq::context_t context;
  zmq::socket_t raw(context, zmq::socket_type::push);
  raw.set(zmq::sockopt::linger, 1000);
  raw.connect(bus_in_endpoint());
  const auto send = [&](const std::vector<std::vector<std::uint8_t>>& frames) {
    for (std::size_t i = 0; i < frames.size(); ++i) {
      raw.send(zmq::buffer(frames[i]), i + 1 < frames.size() ? zmq::send_flags::sndmore : zmq::send_flags::none);
    }
  };
  wire::Header header;
  header.kind = wire::Kind::Event;
  header.group = 9000;
  header.id = 9005;
  const auto good = wire::encode_header(header);
  std::vector<std::uint8_t> header_bytes(good.begin(), good.end());
  std::vector<std::uint8_t> topic{0x23, 0x28, 0x23, 0x2D};
  auto wrong_topic = topic;
  wrong_topic[3] = 0x2E;
  auto version_nine = header_bytes;
  version_nine[0] = 9;
  auto request_kind = header_bytes;
  request_kind[1] = 1;
  send({topic, version_nine, {}});
  send({topic, request_kind, {}});
  send({wrong_topic, header_bytes, {}});
  send({topic, std::vector<std::uint8_t>(header_bytes.begin(), header_bytes.begin() + 10), {}});
  send({topic, header_bytes, std::vector<std::uint8_t>(wire::kMaxPayload + 1, 0)});
  send({topic, header_bytes, {0x99}});
  ASSERT_TRUE(wait_until([&] { return events.events().size() == 1 && subscriber->stats().dropped_input() == 5; }));
  const IpcStats stats = subscriber->stats();
  EXPECT_EQ(stats.bad_versions, 1U);
  EXPECT_EQ(stats.bad_kinds, 1U);
  EXPECT_EQ(stats.malformed, 1U);
  EXPECT_EQ(stats.short_headers, 1U);
  EXPECT_EQ(stats.oversized, 1U);
  EXPECT_EQ(events.events()[0].payload, Payload{0x99});
}

TEST_F(BusEventsTest, BusStopsCleanlyOnSigterm) {
  // Its signals are taken over before it binds; earlier, SIGTERM simply ends it by default.
  ASSERT_TRUE(wait_until([&] { return std::filesystem::exists(ipc_directory() + "/bus.sub"); }));
  const auto start = std::chrono::steady_clock::now();
  const int status = bus->stop(SIGTERM, std::chrono::seconds(10)).wait_status;
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(1000));
}

TEST_F(BusEventsTest, TheBusOpensNothingAProgramItStartedWouldInherit) {
  // Both sockets bound: the lock file, the signalfd and ZeroMQ's descriptors are all open.
  ASSERT_TRUE(wait_until([&] {
    return std::filesystem::exists(ipc_directory() + "/bus.sub") &&
           std::filesystem::exists(ipc_directory() + "/bus.in");
  }));
  // What it inherited from this process it may hold as it is; nothing of its own may be inheritable.
  EXPECT_EQ(test::added_descriptors(test::inheritable_descriptors(), test::inheritable_descriptors(bus->pid())),
            std::set<std::string>{});
  EXPECT_TRUE(bus->running());
}

TEST_F(BusEventsTest, SecondBusIsRefused) {
  // The first bus holds its lock as soon as it runs; give it the moment to start.
  ASSERT_TRUE(wait_until([&] { return std::filesystem::exists(ipc_directory() + "/bus.sub"); }));
  test::Process second({XPON_IPC_BUS_PATH});
  const int status = second.wait().wait_status;
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
}

}  // namespace
}  // namespace xpon::ipc
