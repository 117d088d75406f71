// Requests that never touch the board are answered while board calls stall: the board
// serialises its driver calls, and the requests held up behind it must not hold up the rest.

#include "system_test.hpp"
#include "xpon/test/wait.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <string>
#include <vector>

namespace xpon::system_mgr::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// system-mgr-ctl's default time-out, as an ordinary client waits.
constexpr auto kClientTimeout = 1000ms;

class BoardStallTest : public SystemMgrTest {
 protected:
  ipc::Request request_of(std::uint16_t id) {
    ipc::Request request;
    request.group = IPC_SYSTEM_MGR;
    request.id = id;
    return request;
  }

  std::size_t handled(const std::string& identifier) const {
    return occurrences(rig_.daemon_log(), "Handle IPC request [" + identifier + "]");
  }
};

TEST_F(BoardStallTest, RamDataIsAnsweredWithinAHundredMillisecondsWhileTwoTemperatureReadsStall) {
  XPON_START_BOARD("board-lt.json", kLtProduct);
  ASSERT_NO_FATAL_FAILURE(start_daemon_and_wait_ready());
  // Every function has subscribed and made its first poll; the next temperature poll is 20 s away.
  ASSERT_NO_FATAL_FAILURE(settle(1));
  ASSERT_NO_FATAL_FAILURE(patch_emulator(R"({"faults": {"BOARD_GET_TEMP_INFO": {"delay_ms": 1500, "count": 2}}})"));

  // Two clients read the temperatures: the board serves one read after the other, so the second
  // answer comes 3 s on, past an ordinary client's time-out. The first gives up at that time-out;
  // the second waits long enough to get its late answer.
  auto impatient = sandbox_endpoint(ipc::make_address(0x0043), "stall-test-impatient");
  auto patient = sandbox_endpoint(ipc::make_address(0x0044), "stall-test-patient");
  auto first = std::async(std::launch::async, [&] {
    return impatient->request(kDaemonAddress, request_of(IPC_SYSTEM_MGR__GET_TEMP), kClientTimeout);
  });
  auto second = std::async(std::launch::async, [&] {
    return patient->request(kDaemonAddress, request_of(IPC_SYSTEM_MGR__GET_TEMP), kStepTimeout);
  });
  ASSERT_TRUE(xpon::test::wait_until([&] { return handled("IPC_SYSTEM_MGR__GET_TEMP") == 2; }, kStepTimeout))
      << rig_.daemon_log();

  auto asker = sandbox_endpoint(ipc::make_address(0x0042), "stall-test-ram");
  const auto stall_started = Clock::now();
  std::vector<Clock::duration> latencies;
  std::size_t answered = 0;
  for (int i = 0; i < 100; ++i) {
    const auto sent = Clock::now();
    const auto answer = asker->request(kDaemonAddress, request_of(IPC_SYSTEM_MGR__GET_RAM_DATA), kClientTimeout);
    latencies.push_back(Clock::now() - sent);
    if (answer.has_value() && answer.value().result == 1 && !answer.value().payload.empty()) {
      ++answered;
    }
  }
  const auto asked_for = Clock::now() - stall_started;
  std::sort(latencies.begin(), latencies.end());
  const auto p99 = std::chrono::duration_cast<std::chrono::milliseconds>(latencies[98]);
  EXPECT_EQ(answered, 100U);
  EXPECT_LT(p99, 100ms) << "p99 " << p99.count() << " ms, slowest "
                        << std::chrono::duration_cast<std::chrono::milliseconds>(latencies.back()).count() << " ms";

  const auto late = first.get();
  EXPECT_TRUE(late.has_error()) << "the first read outlasted its client's time-out";
  const auto waited = second.get();
  ASSERT_TRUE(waited.has_value()) << waited.error().to_string() << rig_.daemon_log();
  EXPECT_EQ(waited.value().result, 1U);
  EXPECT_EQ(waited.value().payload.size(), 40U) << "five sensors of eight bytes";
  // The RAM requests were asked while the board was held up, not after it.
  EXPECT_LT(asked_for, 1500ms);
  // The supply polls (every second) waited behind the two reads, and the daemon says so.
  EXPECT_TRUE(rig_.wait_for_log("System function PsMonitoring fell behind its polling: a poll started ", kStepTimeout))
      << rig_.daemon_log();
  EXPECT_TRUE(rig_.daemon().running());
}

}  // namespace
}  // namespace xpon::system_mgr::test
