// Closing an endpoint is bounded by its LINGER, not by its peers. This is a wall-clock bound, so it
// lives in its own test program that the TSan run leaves out: under TSan's slowdown on a busy
// machine, thread start-up and joins alone can take longer than the bound. The same paths are
// race-checked by every other endpoint test, each of which closes its endpoints.

#include "xpon/ipc/zmq_ipc.hpp"
#include "xpon/test/ipc_env.hpp"
#include "xpon/test/recording_logger.hpp"

#include <gtest/gtest.h>

#include <chrono>

namespace xpon::ipc {
namespace {

using std::chrono::milliseconds;

TEST(ZmqIpcShutdown, AbsentPeerTimesOutAndClosingStaysUnderOneHundredMilliseconds) {
  test::TempRoot root;
  ZmqIpcOptions options;
  options.logger = std::make_shared<xpon::test::RecordingLogger>();
  auto client = make_zmq_endpoint(0x0019FFFE, "test", options);
  ASSERT_TRUE(client->connect(0x0015FFFE).has_value());
  Request request;
  request.group = 14500;
  request.id = 14504;
  const auto answer = client->request(0x0015FFFE, request, milliseconds(100));
  ASSERT_FALSE(answer.has_value());
  EXPECT_EQ(answer.error().error, core::Error::InvalidState);
  Response response;
  response.payload.assign(100, 0xAB);
  for (Address absent = 0x00300001; absent < 0x00300011; ++absent) {
    EXPECT_TRUE(client->send_response(absent, response).has_value());  // nobody there: queued
  }
  Event event;
  event.group = 9000;
  event.id = 9005;
  for (int i = 0; i < 100; ++i) {
    EXPECT_TRUE(client->send_event(event).has_value());  // no bus: queued
  }
  const auto start = std::chrono::steady_clock::now();
  client.reset();
  const auto took = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
  EXPECT_LT(took, milliseconds(100)) << "closing took " << took.count() << " ms";
}

}  // namespace
}  // namespace xpon::ipc
