// The endpoint's outgoing links: a bounded cache (least recently used evicted, idle ones
// expired) and the refusal of new destinations near the process's descriptor limit.
#include "descriptors.hpp"
#include "xpon/ipc/paths.hpp"
#include "xpon/ipc/wire.hpp"
#include "xpon/ipc/zmq_ipc.hpp"
#include "xpon/test/ipc_env.hpp"
#include "xpon/test/recording_logger.hpp"

#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <zmq.hpp>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <thread>
#include <vector>

namespace xpon::ipc {
namespace {

using std::chrono::milliseconds;
using test::wait_until;

constexpr Address kServer = 0x0015FFFE;
constexpr Key kQuery{14500, 14504};

/// The n-th address of a series no endpoint owns: 0x3000FFFE, 0x3001FFFE, ...
constexpr Address absent(unsigned n) {
  return make_address(static_cast<std::uint16_t>(0x3000U + n));
}

Response answer_with_tag(std::uint16_t tag) {
  Response response;
  response.payload = {0x15};
  response.reply_tag = tag;
  response.result = 1;
  return response;
}

class OutletLimitsTest : public ::testing::Test {
 protected:
  std::shared_ptr<ZmqIpc> endpoint(Address address, std::size_t cache_size,
                                   milliseconds idle_expiry = std::chrono::seconds(60)) {
    ZmqIpcOptions options;
    options.logger = log;
    options.outlet_cache_size = cache_size;
    options.outlet_idle_expiry = idle_expiry;
    return make_zmq_endpoint(address, "test", options);
  }

  static Result<Response> ask(ZmqIpc& client, Address server, std::uint8_t marker) {
    Request request;
    request.group = kQuery.group;
    request.id = kQuery.id;
    request.payload = {marker};
    return client.request(server, request, milliseconds(5000));
  }

  test::TempRoot root;
  std::shared_ptr<xpon::test::RecordingLogger> log = std::make_shared<xpon::test::RecordingLogger>();
};

TEST_F(OutletLimitsTest, TheLeastRecentlyUsedLinkIsClosedForANewDestination) {
  auto server = endpoint(kServer, 2);
  // A, B, A again, then C: B is the least recently used (the oldest opened would be A).
  for (const Address destination : {absent(0), absent(1), absent(0), absent(2)}) {
    ASSERT_TRUE(server->send_response(destination, answer_with_tag(1)).has_value());
  }
  EXPECT_EQ(server->stats().outlets_evicted, 1U);
  EXPECT_EQ(server->stats().open_outlets, 2U);
  // A is still open: no eviction. B was closed: it is opened again, in place of C.
  ASSERT_TRUE(server->send_response(absent(0), answer_with_tag(2)).has_value());
  EXPECT_EQ(server->stats().outlets_evicted, 1U);
  ASSERT_TRUE(server->send_response(absent(1), answer_with_tag(3)).has_value());
  EXPECT_EQ(server->stats().outlets_evicted, 2U);
  EXPECT_EQ(server->stats().open_outlets, 2U);
  EXPECT_EQ(server->stats().descriptor_refusals, 0U);
}

TEST_F(OutletLimitsTest, LinksUnusedForTheIdleExpiryAreClosedByThemselves) {
  auto server = endpoint(kServer, 8, milliseconds(300));
  ASSERT_TRUE(server->send_response(absent(0), answer_with_tag(1)).has_value());
  ASSERT_TRUE(server->send_response(absent(1), answer_with_tag(1)).has_value());
  // A stays in use (every 20 ms) while B is left alone past its expiry.
  const auto until = std::chrono::steady_clock::now() + milliseconds(900);
  while (std::chrono::steady_clock::now() < until && server->stats().outlets_expired == 0) {
    ASSERT_TRUE(server->send_response(absent(0), answer_with_tag(2)).has_value());
    std::this_thread::sleep_for(milliseconds(20));
  }
  EXPECT_EQ(server->stats().outlets_expired, 1U);
  EXPECT_EQ(server->stats().open_outlets, 1U);
  // Left alone, the last one goes too, with no further call into the endpoint.
  EXPECT_TRUE(wait_until([&] { return server->stats().open_outlets == 0; }, milliseconds(3000)));
  EXPECT_EQ(server->stats().outlets_expired, 2U);
  EXPECT_EQ(server->stats().outlets_evicted, 0U);
}

TEST_F(OutletLimitsTest, AnEvictedDestinationIsConnectedAgainAndStillAnswered) {
  auto server = endpoint(kServer, 1);
  ASSERT_TRUE(test::serve_echo(*server, kQuery).has_value());
  auto first = endpoint(0x0042FFFE, 4);
  auto second = endpoint(0x0043FFFE, 4);
  for (std::uint8_t round = 0; round < 10; ++round) {
    const auto one = ask(*first, kServer, round);
    ASSERT_TRUE(one.has_value()) << one.error().to_string();
    EXPECT_EQ(one.value().payload, Payload{round});
    const auto two = ask(*second, kServer, static_cast<std::uint8_t>(round + 100));
    ASSERT_TRUE(two.has_value()) << two.error().to_string();
    EXPECT_EQ(two.value().payload, Payload{static_cast<std::uint8_t>(round + 100)});
  }
  // Each answer went to the other client than the one before: a link closed and opened each time.
  EXPECT_EQ(server->stats().outlets_evicted, 19U);
  EXPECT_EQ(server->stats().open_outlets, 1U);
}

TEST_F(OutletLimitsTest, DescriptorsStayBoundedWhateverTheNumberOfDestinations) {
  constexpr unsigned kDestinations = 2000;
  const std::size_t before = detail::count_open_descriptors().value();
  std::size_t most = 0;
  std::uint64_t refused = 0;
  std::vector<std::string> first_refusals;
  {
    auto server = endpoint(kServer, 8);
    const std::size_t opened = detail::count_open_descriptors().value();
    for (unsigned n = 0; n < kDestinations; ++n) {
      // A refusal (ZeroMQ's socket limit while evicted links linger) is allowed, growth is not,
      // and a refusal lasts only until ZeroMQ has reaped the evicted links: the same destination
      // is tried again until it is linked. How many tries that takes depends on the machine.
      const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
      auto sent = server->send_response(absent(n), answer_with_tag(1));
      while (!sent && std::chrono::steady_clock::now() < until) {
        ++refused;
        if (first_refusals.size() < 3) {
          first_refusals.push_back(sent.error().to_string());
        }
        std::this_thread::sleep_for(milliseconds(1));
        sent = server->send_response(absent(n), answer_with_tag(1));
      }
      ASSERT_TRUE(sent.has_value()) << "destination " << n << " still refused after 5 s: " << sent.error().to_string();
      if (n % 50 == 0) {
        most = std::max(most, detail::count_open_descriptors().value());
      }
    }
    const auto stats = server->stats();
    // Every destination was linked once, so all but the last eight links were evicted.
    EXPECT_EQ(stats.open_outlets, 8U);
    EXPECT_EQ(stats.outlets_evicted, kDestinations - 8U);
    // Every refusal was counted, and reported to the caller.
    EXPECT_EQ(stats.descriptor_refusals, refused) << ::testing::PrintToString(first_refusals);
    // The endpoint's own descriptors, then at most the links within ZeroMQ's socket limit
    // (3 + 2 x 8 + 32, less the endpoint's three sockets), each a mailbox and a connection attempt.
    EXPECT_LE(most, opened + std::size_t{2} * (2 * 8 + 32));
    // Once the evicted links have lingered out, only the cached ones remain.
    EXPECT_TRUE(wait_until([&] { return detail::count_open_descriptors().value() <= opened + std::size_t{2} * 8; },
                           milliseconds(3000)))
        << detail::count_open_descriptors().value() << " open, " << opened << " with the endpoint alone";
  }
  EXPECT_TRUE(wait_until([&] { return detail::count_open_descriptors().value() <= before; }, milliseconds(3000)));
}

/// In a child process (as a death test): descriptors used up by the process up to the endpoint's
/// reserve; a new destination is refused and logged, a raw client connecting still gets its
/// connection accepted (ZeroMQ aborts when accept() finds no descriptor), its request is refused,
/// and once descriptors are free again a normal client is answered. Exits 0 when all held.
[[noreturn]] void refuse_near_the_limit() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = 256;
  if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
    std::_Exit(10);
  }
  ZmqIpcOptions options;  // the built-in logger: stderr, matched by the death test
  options.outlet_cache_size = 64;
  auto server = make_zmq_endpoint(kServer, "refusing", options);
  if (!test::serve_echo(*server, kQuery)) {
    std::_Exit(11);
  }
  std::vector<int> filler;
  while (detail::process_has_descriptors(detail::kDescriptorsPerOutlet)) {
    filler.push_back(::dup(STDIN_FILENO));
  }
  const auto refused = server->send_response(absent(0), answer_with_tag(1));
  if (refused.has_value() || refused.error().error != core::Error::Overflow ||
      refused.error().info->message !=
          "No link to 0x3000fffe was opened: the process is near its limit of open files") {
    std::_Exit(12);
  }
  {
    // A raw client: its connection takes a descriptor of the server's reserve.
    zmq::context_t context;
    zmq::socket_t dealer(context, zmq::socket_type::dealer);
    dealer.set(zmq::sockopt::linger, 0);
    dealer.connect(inbox_endpoint(kServer));
    Request request;
    request.group = kQuery.group;
    request.id = kQuery.id;
    request.reply_to = ReplyTo{absent(1), 7};
    const auto header = wire::encode_header(wire::request_header(0, request));
    dealer.send(zmq::buffer(header), zmq::send_flags::sndmore);
    dealer.send(zmq::message_t(), zmq::send_flags::none);
    if (!wait_until([&] { return server->stats().descriptor_refusals >= 2; }, milliseconds(5000))) {
      std::_Exit(13);
    }
  }
  if (server->stats().handler_failures != 0 || server->stats().open_outlets != 0) {
    std::_Exit(14);
  }
  for (const int fd : filler) {
    ::close(fd);
  }
  auto client = make_zmq_endpoint(0x0042FFFE, "client", options);
  Request request;
  request.group = kQuery.group;
  request.id = kQuery.id;
  request.payload = {0x2A};
  const auto answer = client->request(kServer, request, milliseconds(5000));
  if (!answer || answer.value().payload != Payload{0x2A}) {
    std::_Exit(15);
  }
  std::_Exit(0);
}

TEST_F(OutletLimitsTest, NearTheDescriptorLimitNewDestinationsAreRefusedAndLoggedWithoutAborting) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(refuse_near_the_limit(), ::testing::ExitedWithCode(0),
              "IPC endpoint refusing: dropped a message \\(no descriptor to spare for a link to a new destination\\)");
}

}  // namespace
}  // namespace xpon::ipc
