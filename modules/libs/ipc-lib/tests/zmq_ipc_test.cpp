#include "xpon/ipc/zmq_ipc.hpp"
#include "xpon/ipc/paths.hpp"
#include "xpon/ipc/wire.hpp"
#include "xpon/test/inheritable_descriptors.hpp"
#include "xpon/test/ipc_env.hpp"
#include "xpon/test/recording_logger.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zmq.hpp>
#include <zmq_addon.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace xpon::ipc {
namespace {

using std::chrono::milliseconds;
using test::wait_until;

constexpr Address kServer = 0x0015FFFE;
constexpr Address kClient = 0x0019FFFE;
constexpr Key kQuery{14500, 14504};
/// How long a request that must be answered may take: room for a ThreadSanitizer build on a busy
/// two-core machine, where a 64 KiB round trip was seen to take 6 s. The waits that test a time-out
/// keep their own short values.
constexpr std::chrono::milliseconds kAnswerWait{10000};

class ZmqIpcTest : public ::testing::Test {
 protected:
  std::shared_ptr<ZmqIpc> endpoint(Address address, unsigned threads = 2) {
    ZmqIpcOptions options;
    options.logger = log;
    options.delivery_threads = threads;
    return make_zmq_endpoint(address, "test", options);
  }

  /// Subscribes a handler that answers every request with its own payload and result 1.
  static void serve_echo(ZmqIpc& server, Key key) { ASSERT_TRUE(test::serve_echo(server, key).has_value()); }

  /// Like serve_echo, and keeps a copy of the last request served (see last_served()).
  void serve_echo_keeping_requests(ZmqIpc& server, Key key) {
    ASSERT_TRUE(server
                    .subscribe_request(key,
                                       [this, &server](const Request& request) -> Result<void> {
                                         {
                                           std::lock_guard lock(served_mutex_);
                                           served_ = request;
                                         }
                                         return server.send_response(request.reply_to.value().address,
                                                                     test::echo_response(request));
                                       })
                    .has_value());
  }

  std::optional<Request> last_served() {
    std::lock_guard lock(served_mutex_);
    return served_;
  }

  test::TempRoot root;
  std::shared_ptr<xpon::test::RecordingLogger> log = std::make_shared<xpon::test::RecordingLogger>();

 private:
  std::mutex served_mutex_;
  std::optional<Request> served_;
};

TEST_F(ZmqIpcTest, InboxSocketAndLockFileAreNamedByTheAddress) {
  auto server = endpoint(kServer);
  EXPECT_EQ(ipc_directory(), root.path() + "/run/xpon/ipc");
  EXPECT_TRUE(std::filesystem::exists(root.path() + "/run/xpon/ipc/0015fffe"));
  EXPECT_TRUE(std::filesystem::exists(root.path() + "/run/xpon/ipc/0015fffe.lock"));
  EXPECT_EQ(server->address(), kServer);
}

TEST_F(ZmqIpcTest, RequestIsAnsweredWithPayloadResultAndItsTag) {
  auto server = endpoint(kServer);
  auto client = endpoint(kClient);
  std::optional<Request> seen;
  std::mutex seen_mutex;
  ASSERT_TRUE(server
                  ->subscribe_request(kQuery,
                                      [&](const Request& request) -> Result<void> {
                                        {
                                          std::lock_guard lock(seen_mutex);
                                          seen = request;
                                        }
                                        Response response;
                                        response.payload = {0x15, 0x00};
                                        response.reply_tag = request.reply_to.value().tag;
                                        response.result = 1;
                                        return server->send_response(request.reply_to.value().address, response);
                                      })
                  .has_value());
  ASSERT_TRUE(client->connect(kServer).has_value());
  Request request;
  request.group = kQuery.group;
  request.id = kQuery.id;
  request.payload = {1, 2, 3};
  const auto answer = client->request(kServer, request, kAnswerWait);
  ASSERT_TRUE(answer.has_value()) << answer.error().to_string();
  EXPECT_EQ(answer.value().payload, (Payload{0x15, 0x00}));
  EXPECT_EQ(answer.value().result, 1U);
  EXPECT_EQ(answer.value().address, 0x0000FFFEU);
  std::lock_guard lock(seen_mutex);
  ASSERT_TRUE(seen.has_value());
  EXPECT_EQ(seen->payload, (Payload{1, 2, 3}));
  EXPECT_EQ(seen->group, 14500);
  EXPECT_EQ(seen->id, 14504);
  ASSERT_TRUE(seen->reply_to.has_value());
  EXPECT_EQ(seen->reply_to->address, kClient);
  EXPECT_EQ(seen->reply_to->tag, answer.value().reply_tag);
  EXPECT_EQ(seen->address, 0x0000FFFEU);  // the default address word, not the destination
}

TEST_F(ZmqIpcTest, RequestArrivesWithItsAddressWordWhateverItsDestination) {
  auto server = endpoint(kServer);
  auto client = endpoint(kClient);
  serve_echo_keeping_requests(*server, kQuery);
  Request request;
  request.group = kQuery.group;
  request.id = kQuery.id;
  request.address = 0x0A0B0C0D;
  const auto answer = client->request(kServer, request, kAnswerWait);
  ASSERT_TRUE(answer.has_value()) << answer.error().to_string();
  const auto served = last_served();
  ASSERT_TRUE(served.has_value());
  EXPECT_EQ(served->address, 0x0A0B0C0DU);
  EXPECT_EQ(served->reply_to.value().address, kClient);

  // On the wire: the word sits at offset 8 of the header that reaches the destination's inbox.
  constexpr Address kRawServer = 0x0077FFFE;
  zmq::context_t context;
  zmq::socket_t raw_inbox(context, zmq::socket_type::router);
  raw_inbox.set(zmq::sockopt::linger, 0);
  raw_inbox.set(zmq::sockopt::rcvtimeo, 5000);
  raw_inbox.bind(inbox_endpoint(kRawServer));
  const auto unanswered = client->request(kRawServer, request, milliseconds(100));
  EXPECT_FALSE(unanswered.has_value());
  std::vector<zmq::message_t> frames;
  ASSERT_TRUE(zmq::recv_multipart(raw_inbox, std::back_inserter(frames)));
  ASSERT_EQ(frames.size(), 3U);  // identity, header, payload
  ASSERT_EQ(frames[1].size(), wire::kHeaderSize);
  const auto* header = frames[1].data<std::uint8_t>();
  EXPECT_EQ(std::vector<std::uint8_t>(header + 8, header + 12), (std::vector<std::uint8_t>{0x0D, 0x0C, 0x0B, 0x0A}));
  EXPECT_EQ(std::vector<std::uint8_t>(header + 4, header + 8), (std::vector<std::uint8_t>{0xFE, 0xFF, 0x19, 0x00}));
}

TEST_F(ZmqIpcTest, EightThreadsOfAThousandRequestsAreAllMatchedByTag) {
  auto server = endpoint(kServer);
  auto client = endpoint(kClient);
  serve_echo(*server, kQuery);
  constexpr int kThreads = 8;
  constexpr int kPerThread = 1000;
  std::atomic<int> matched{0};
  std::atomic<int> failed{0};
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        Request request;
        request.group = kQuery.group;
        request.id = kQuery.id;
        request.payload = {static_cast<std::uint8_t>(t), static_cast<std::uint8_t>(i & 0xFF),
                           static_cast<std::uint8_t>(i >> 8)};
        const auto answer = client->request(kServer, request, kAnswerWait);
        if (answer.has_value() && answer.value().payload == request.payload && answer.value().result == 1) {
          ++matched;
        } else {
          ++failed;
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(matched.load(), kThreads * kPerThread);
  EXPECT_EQ(failed.load(), 0);
  EXPECT_EQ(client->stats().late_responses, 0U);
  EXPECT_EQ(server->stats().requests_received, static_cast<std::uint64_t>(kThreads * kPerThread));
}

TEST_F(ZmqIpcTest, IdleDeliveryThreadRunsTheRequestItReadsAndTheCallerReadsItsAnswer) {
  auto server = endpoint(kServer, 1);
  auto client = endpoint(kClient);
  serve_echo(*server, kQuery);
  constexpr int kRequests = 100;
  for (int i = 0; i < kRequests; ++i) {
    Request request;
    request.group = kQuery.group;
    request.id = kQuery.id;
    request.payload = {static_cast<std::uint8_t>(i)};
    const auto answer = client->request(kServer, request, milliseconds(5000));
    ASSERT_TRUE(answer.has_value()) << answer.error().to_string();
    ASSERT_EQ(answer.value().payload, request.payload);
  }
  // Whoever reads them, every request is handled once and every answer reaches its caller.
  const IpcStats served = server->stats();
  EXPECT_EQ(served.requests_received, static_cast<std::uint64_t>(kRequests));
  EXPECT_GT(served.requests_read_by_delivery_threads, 0U);
  EXPECT_LE(served.requests_read_by_delivery_threads, served.requests_received);
  EXPECT_EQ(served.responses_read_by_callers, 0U);
  const IpcStats asked = client->stats();
  EXPECT_GT(asked.responses_read_by_callers, 0U);
  EXPECT_LE(asked.responses_read_by_callers, static_cast<std::uint64_t>(kRequests));
  // An endpoint that serves no request leaves its inbox to the I/O thread and to its callers.
  EXPECT_EQ(asked.requests_read_by_delivery_threads, 0U);
  EXPECT_EQ(asked.late_responses, 0U);
}

TEST_F(ZmqIpcTest, HandlerOfTheOnlyDeliveryThreadMayAskAnotherEndpoint) {
  constexpr Address kBackend = 0x0033FFFE;
  auto backend = endpoint(kBackend);
  auto server = endpoint(kServer, 1);
  auto client = endpoint(kClient);
  serve_echo(*backend, kQuery);
  ZmqIpc* raw_server = server.get();
  // The handler asks the backend, on the thread that may have read its own request from the
  // inbox, and answers with what the backend sent back, one byte added.
  ASSERT_TRUE(server
                  ->subscribe_request(kQuery,
                                      [raw_server](const Request& request) -> Result<void> {
                                        Request onward;
                                        onward.group = kQuery.group;
                                        onward.id = kQuery.id;
                                        onward.payload = request.payload;
                                        auto backend_answer = raw_server->request(kBackend, onward, milliseconds(5000));
                                        if (!backend_answer) {
                                          return backend_answer.error();
                                        }
                                        Response response;
                                        response.payload = backend_answer.value().payload;
                                        response.payload.push_back(0xEE);
                                        response.reply_tag = request.reply_to.value().tag;
                                        response.result = 1;
                                        return raw_server->send_response(request.reply_to.value().address, response);
                                      })
                  .has_value());
  for (int i = 0; i < 50; ++i) {
    Request request;
    request.group = kQuery.group;
    request.id = kQuery.id;
    request.payload = {static_cast<std::uint8_t>(i), 0x01};
    const auto answer = client->request(kServer, request, milliseconds(5000));
    ASSERT_TRUE(answer.has_value()) << answer.error().to_string();
    EXPECT_EQ(answer.value().payload, (Payload{static_cast<std::uint8_t>(i), 0x01, 0xEE}));
  }
  EXPECT_EQ(server->stats().handler_failures, 0U);
  EXPECT_EQ(server->stats().late_responses, 0U);
  EXPECT_EQ(backend->stats().requests_received, 50U);
}

TEST_F(ZmqIpcTest, RequestWithoutAnswerTimesOut) {
  auto server = endpoint(kServer);
  auto client = endpoint(kClient);
  ASSERT_TRUE(
      server->subscribe_request(kQuery, [](const Request&) -> Result<void> { return core::success(); }).has_value());
  Request request;
  request.group = kQuery.group;
  request.id = kQuery.id;
  const auto start = std::chrono::steady_clock::now();
  const auto answer = client->request(kServer, request, milliseconds(150));
  const auto elapsed = std::chrono::steady_clock::now() - start;
  ASSERT_FALSE(answer.has_value());
  EXPECT_EQ(answer.error().error, core::Error::InvalidState);
  EXPECT_EQ(answer.error().to_string(),
            "Error: InvalidState. Message: No response from 0x0015fffe to request 14500:14504 within 150 ms.");
  EXPECT_GE(elapsed, milliseconds(150));
  EXPECT_LT(elapsed, milliseconds(1500));
}

TEST_F(ZmqIpcTest, LateAnswerIsDroppedAndCounted) {
  auto server = endpoint(kServer);
  auto client = endpoint(kClient);
  ASSERT_TRUE(server
                  ->subscribe_request(kQuery,
                                      [&](const Request& request) -> Result<void> {
                                        // The first request is answered only after its sender gave up.
                                        if (request.payload == Payload{1}) {
                                          std::this_thread::sleep_for(milliseconds(300));
                                        }
                                        return server->send_response(request.reply_to.value().address,
                                                                     test::echo_response(request));
                                      })
                  .has_value());
  Request slow;
  slow.group = kQuery.group;
  slow.id = kQuery.id;
  slow.payload = {1};
  const auto first = client->request(kServer, slow, milliseconds(100));
  ASSERT_FALSE(first.has_value());
  EXPECT_EQ(first.error().error, core::Error::InvalidState);
  EXPECT_TRUE(wait_until([&] { return client->stats().late_responses == 1; }));

  Request quick = slow;
  quick.payload = {2};
  const auto second = client->request(kServer, quick, kAnswerWait);
  ASSERT_TRUE(second.has_value());
  EXPECT_EQ(second.value().payload, Payload{2});
  EXPECT_EQ(client->stats().late_responses, 1U);
}

TEST_F(ZmqIpcTest, ThrowingHandlerIsLoggedAndTheEndpointKeepsServing) {
  auto server = endpoint(kServer, 1);
  auto client = endpoint(kClient);
  ASSERT_TRUE(server
                  ->subscribe_request(Key{15500, 1},
                                      [](const Request&) -> Result<void> {
                                        const std::optional<int> nothing;
                                        static_cast<void>(nothing.value());  // throws std::bad_optional_access
                                        return core::success();
                                      })
                  .has_value());
  ASSERT_TRUE(server
                  ->subscribe_request(Key{15500, 2},
                                      [](const Request&) -> Result<void> {
                                        return core::ErrorPayload(core::Error::CommonError, "refused");
                                      })
                  .has_value());
  serve_echo(*server, kQuery);
  Request throwing;
  throwing.group = 15500;
  throwing.id = 1;
  EXPECT_FALSE(client->request(kServer, throwing, milliseconds(200)).has_value());
  Request failing = throwing;
  failing.id = 2;
  EXPECT_FALSE(client->request(kServer, failing, milliseconds(200)).has_value());
  Request echo;
  echo.group = kQuery.group;
  echo.id = kQuery.id;
  echo.payload = {7};
  const auto answer = client->request(kServer, echo, kAnswerWait);
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(answer.value().payload, Payload{7});
  EXPECT_EQ(server->stats().handler_failures, 2U);
  EXPECT_TRUE(log->contains("An std::exception was thrown: bad optional access "));
  EXPECT_TRUE(log->contains("IPC endpoint test: the handler of request 15500:1 failed: Error: Exception", 4));
  EXPECT_TRUE(log->contains(
      "IPC endpoint test: the handler of request 15500:2 failed: Error: CommonError. Message: refused.", 4));
}

class RawPeer {
 public:
  explicit RawPeer(Address to) : socket_(context_, zmq::socket_type::dealer) {
    socket_.set(zmq::sockopt::linger, 0);
    socket_.connect(inbox_endpoint(to));
  }
  void send(const std::vector<std::vector<std::uint8_t>>& frames) {
    for (std::size_t i = 0; i < frames.size(); ++i) {
      socket_.send(zmq::buffer(frames[i]), i + 1 < frames.size() ? zmq::send_flags::sndmore : zmq::send_flags::none);
    }
  }

 private:
  zmq::context_t context_;
  zmq::socket_t socket_;
};

std::vector<std::uint8_t> header_bytes(const wire::Header& header) {
  const auto bytes = wire::encode_header(header);
  return {bytes.begin(), bytes.end()};
}

TEST_F(ZmqIpcTest, GarbageFromARawSocketIsDroppedAndCounted) {
  auto server = endpoint(kServer);
  serve_echo(*server, kQuery);
  wire::Header good;
  good.kind = wire::Kind::Request;
  good.group = kQuery.group;
  good.id = kQuery.id;
  {
    RawPeer raw(kServer);
    auto short_header = header_bytes(good);
    short_header.resize(23);
    auto long_header = header_bytes(good);
    long_header.push_back(0);
    auto version_two = header_bytes(good);
    version_two[0] = 2;
    auto kind_nine = header_bytes(good);
    kind_nine[1] = 9;
    auto event_kind = header_bytes(good);
    event_kind[1] = 3;
    raw.send({short_header, {}});
    raw.send({long_header, {}});
    raw.send({version_two, {}});
    raw.send({kind_nine, {}});
    raw.send({event_kind, {}});
    raw.send({header_bytes(good), std::vector<std::uint8_t>(wire::kMaxPayload + 1, 0x55)});
    raw.send({header_bytes(good)});
    raw.send({header_bytes(good), {}, {}});
    raw.send({{}});
    ASSERT_TRUE(wait_until([&] { return server->stats().dropped_input() == 9; }));
  }
  const IpcStats stats = server->stats();
  EXPECT_EQ(stats.short_headers, 1U);
  EXPECT_EQ(stats.long_headers, 1U);
  EXPECT_EQ(stats.bad_versions, 1U);
  EXPECT_EQ(stats.bad_kinds, 2U);
  EXPECT_EQ(stats.oversized, 1U);
  EXPECT_EQ(stats.malformed, 3U);  // header alone, four frames, one empty frame
  EXPECT_EQ(stats.requests_received, 0U);
  EXPECT_TRUE(log->contains("IPC endpoint test: dropped a message (short header)", 3));

  // A payload of exactly 64 KiB is still accepted, and the endpoint answers as before.
  auto client = endpoint(kClient);
  Request request;
  request.group = kQuery.group;
  request.id = kQuery.id;
  request.payload.assign(wire::kMaxPayload, 0x5A);
  const auto answer = client->request(kServer, request, kAnswerWait);
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(answer.value().payload.size(), wire::kMaxPayload);
}

TEST_F(ZmqIpcTest, DropReportsAreRateLimited) {
  auto server = endpoint(kServer);
  {
    RawPeer raw(kServer);
    for (int i = 0; i < 20; ++i) {
      raw.send({{0x01, 0x01}, {}});
    }
    ASSERT_TRUE(wait_until([&] { return server->stats().short_headers == 20; }));
  }
  int reports = 0;
  for (const auto& text : log->texts()) {
    reports += text.starts_with("IPC endpoint test: dropped a message (short header)") ? 1 : 0;
  }
  // Twenty drops well within one second: one line, the rest only counted.
  EXPECT_EQ(reports, 1);
}

TEST_F(ZmqIpcTest, SecondOwnerOfAnAddressIsRefused) {
  auto first = endpoint(kServer);
  try {
    endpoint(kServer);
    FAIL() << "a second endpoint took the address";
  } catch (const AddressInUse& error) {
    EXPECT_STREQ(error.what(), "IPC endpoint test: address 0x0015fffe is already owned by another endpoint");
  }
  first.reset();
  EXPECT_NO_THROW(endpoint(kServer));
}

TEST_F(ZmqIpcTest, NoDescriptorOfTheEndpointsIsInheritedByAStartedProgram) {
  const auto before = test::inheritable_descriptors();
  auto server = endpoint(kServer);
  auto client = endpoint(kClient);
  serve_echo(*server, kQuery);
  // A round trip opens the outgoing links of both sides as well.
  const auto answer = client->request(kServer, Request{{}, kQuery.group, kQuery.id, {}}, milliseconds(2000));
  ASSERT_TRUE(answer.has_value()) << answer.error().to_string();
  EXPECT_EQ(test::added_descriptors(before, test::inheritable_descriptors()), std::set<std::string>{});
}

TEST_F(ZmqIpcTest, TheLockFileIsHeldOnceAndClosedWithTheEndpoint) {
  const std::string lock_file = root.path() + "/run/xpon/ipc/0015fffe.lock";
  auto first = endpoint(kServer);
  EXPECT_EQ(test::descriptors_open_on(lock_file), 1U);
  // A refused second owner closes the descriptor it opened on the lock file.
  EXPECT_THROW(endpoint(kServer), AddressInUse);
  EXPECT_EQ(test::descriptors_open_on(lock_file), 1U);
  first.reset();
  EXPECT_EQ(test::descriptors_open_on(lock_file), 0U);
}

TEST_F(ZmqIpcTest, EndpointInARangeTakesTheFirstFreeAddress) {
  auto taken = make_zmq_endpoint(make_address(0xFE00), "test");
  auto next = make_zmq_endpoint_in_range(0xFE00, 0xFE01, "test");
  EXPECT_EQ(next->address(), 0xFE01FFFEU);
  try {
    (void)make_zmq_endpoint_in_range(0xFE00, 0xFE01, "test");
    FAIL() << "an endpoint was made although every address of the range is taken";
  } catch (const AddressInUse&) {
    FAIL() << "a full range must be reported as such, not as one address in use";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "IPC endpoint test: every address from 0xfe00fffe to 0xfe01fffe is in use");
  }
}

TEST_F(ZmqIpcTest, LeftoversOfACrashedOwnerDoNotBlockTheAddress) {
  // A process killed hard leaves its socket file and lock file behind, but no lock.
  ensure_ipc_directory();
  std::ofstream(ipc_directory() + "/0015fffe") << "stale";
  std::ofstream(ipc_directory() + "/0015fffe.lock") << "";
  auto server = endpoint(kServer);
  serve_echo(*server, kQuery);
  auto client = endpoint(kClient);
  Request request;
  request.group = kQuery.group;
  request.id = kQuery.id;
  request.payload = {3};
  const auto answer = client->request(kServer, request, kAnswerWait);
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(answer.value().payload, Payload{3});
}

TEST_F(ZmqIpcTest, ClosingEndsAHandlerWaitingForItsOwnRequest) {
  auto server = endpoint(kServer);
  auto client = endpoint(kClient);
  std::atomic<bool> inside{false};
  std::atomic<bool> gave_up{false};
  ZmqIpc* raw_server = server.get();
  ASSERT_TRUE(server
                  ->subscribe_request(kQuery,
                                      [&, raw_server](const Request&) -> Result<void> {
                                        inside = true;
                                        Request onward;
                                        onward.group = 1;
                                        onward.id = 2;
                                        const auto answer =
                                            raw_server->request(0x0077FFFE, onward, milliseconds(10000));
                                        gave_up = !answer.has_value();
                                        return core::success();
                                      })
                  .has_value());
  Request request;
  request.group = kQuery.group;
  request.id = kQuery.id;
  (void)client->request(kServer, request, milliseconds(10));
  ASSERT_TRUE(wait_until([&] { return inside.load(); }));
  const auto start = std::chrono::steady_clock::now();
  server.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(1000));
  EXPECT_TRUE(gave_up.load());
}

TEST_F(ZmqIpcTest, SubscribingTwiceAndUnsubscribingNothingAreErrors) {
  auto server = endpoint(kServer);
  const auto handler = [](const Request&) -> Result<void> { return core::success(); };
  ASSERT_TRUE(server->subscribe_request(kQuery, handler).has_value());
  const auto again = server->subscribe_request(kQuery, handler);
  ASSERT_FALSE(again.has_value());
  EXPECT_EQ(again.error().error, core::Error::Already);
  ASSERT_TRUE(server->unsubscribe_request(kQuery).has_value());
  const auto none = server->unsubscribe_request(kQuery);
  ASSERT_FALSE(none.has_value());
  EXPECT_EQ(none.error().error, core::Error::Empty);
  const auto no_event = server->unsubscribe_event(Key{9000, 9005});
  ASSERT_FALSE(no_event.has_value());
  EXPECT_EQ(no_event.error().error, core::Error::Empty);
}

TEST_F(ZmqIpcTest, UnsubscribeWaitsForTheRunningHandler) {
  auto server = endpoint(kServer);
  auto client = endpoint(kClient);
  std::atomic<bool> inside{false};
  std::atomic<bool> finished{false};
  ASSERT_TRUE(server
                  ->subscribe_request(kQuery,
                                      [&](const Request&) -> Result<void> {
                                        inside = true;
                                        std::this_thread::sleep_for(milliseconds(200));
                                        finished = true;
                                        return core::success();
                                      })
                  .has_value());
  Request request;
  request.group = kQuery.group;
  request.id = kQuery.id;
  std::thread asking([&] { (void)client->request(kServer, request, milliseconds(50)); });
  ASSERT_TRUE(wait_until([&] { return inside.load(); }));
  ASSERT_TRUE(server->unsubscribe_request(kQuery).has_value());
  EXPECT_TRUE(finished.load());
  asking.join();
}

TEST_F(ZmqIpcTest, OversizedOutgoingPayloadIsRefused) {
  auto client = endpoint(kClient);
  Request request;
  request.payload.assign(wire::kMaxPayload + 1, 0);
  const auto answer = client->request(kServer, request, milliseconds(100));
  ASSERT_FALSE(answer.has_value());
  EXPECT_EQ(answer.error().error, core::Error::InvalidInputArg);
  Event event;
  event.payload.assign(wire::kMaxPayload + 1, 0);
  EXPECT_EQ(client->send_event(event).error().error, core::Error::InvalidInputArg);
}

TEST_F(ZmqIpcTest, EventSourceTakesTheSlotFromTheEnvironment) {
  ::setenv("XPON_SLOT", "5", 1);
  EXPECT_EQ(event_source_for(0x0019FFFE), 0x00190005U);
  EXPECT_EQ(event_source_for(0x00190003), 0x00190003U);  // an explicit slot is kept
  ::setenv("XPON_SLOT", "banana", 1);
  EXPECT_EQ(event_source_for(0x0019FFFE), 0x0019FFFEU);
  ::setenv("XPON_SLOT", "70000", 1);
  EXPECT_EQ(event_source_for(0x0019FFFE), 0x0019FFFEU);
  ::unsetenv("XPON_SLOT");
  EXPECT_EQ(event_source_for(0x0019FFFE), 0x0019FFFEU);
}

TEST_F(ZmqIpcTest, FullSendQueueToAnAbsentPeerIsAnOverflowError) {
  ZmqIpcOptions options;
  options.logger = log;
  options.send_high_water_mark = 5;
  auto client = make_zmq_endpoint(kClient, "test", options);
  Response response;
  std::optional<core::ErrorPayload> refused;
  int accepted = 0;
  for (int i = 0; i < 100 && !refused; ++i) {
    auto sent = client->send_response(0x0015FFFE, response);
    if (sent) {
      ++accepted;
    } else {
      refused = sent.error();
    }
  }
  ASSERT_TRUE(refused.has_value());
  EXPECT_GE(accepted, 5);
  EXPECT_EQ(refused->error, core::Error::Overflow);
  EXPECT_EQ(refused->to_string(),
            "Error: Overflow. Message: The send queue to 0x0015fffe is full; the message was not sent.");
}

}  // namespace
}  // namespace xpon::ipc
