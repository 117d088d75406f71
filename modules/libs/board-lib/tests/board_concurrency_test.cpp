#include "xpon/board/board.hpp"

#include "xpon/test/fake_driver.hpp"
#include "xpon/test/recording_logger.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace xpon::board {
namespace {

// A driver that notices when two calls are inside it at once.
class OverlapDetectingDriver : public test::FakeDriver {
 public:
  int ioctl(unsigned long request, void* argument) override {
    const int inside_now = ++inside_;
    if (inside_now > most_inside_) {
      most_inside_ = inside_now;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(50));
    const int returned = FakeDriver::ioctl(request, argument);
    --inside_;
    return returned;
  }

  std::atomic<int> inside_{0};
  std::atomic<int> most_inside_{0};
};

TEST(BoardConcurrencyTest, DriverCallsFromManyThreadsNeverOverlap) {
  auto logger = std::make_shared<xpon::test::RecordingLogger>();
  auto owned = std::make_unique<OverlapDetectingDriver>();
  auto* driver = owned.get();
  driver->state()->inventory(1, 2, 2, 3, 16, 8);
  auto journal = driver->state();
  auto board = std::make_shared<Board>(logger, std::move(owned));

  constexpr int kThreads = 4;
  constexpr int kRounds = 50;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int round = 0; round < kRounds; ++round) {
        bool ok = false;
        switch (thread % 4) {
          case 0: {
            std::vector<Brd__temp_info> temps(3);
            ok = static_cast<bool>(board->get_temp_info(temps));
            break;
          }
          case 1:
            ok = static_cast<bool>(board->get_fan_info());
            break;
          case 2: {
            Brd__sfp_state state{};
            state.port = static_cast<std::uint32_t>(round % 16);
            ok = static_cast<bool>(board->get_p_port_sfp_state(state));
            break;
          }
          default:
            ok = static_cast<bool>(board->set_fan_speed(static_cast<std::uint8_t>(round)));
            break;
        }
        if (!ok) {
          ++failures;
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }

  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(driver->most_inside_.load(), 1);
  EXPECT_EQ(journal->calls.size(), 6U + kThreads * kRounds);
}

}  // namespace
}  // namespace xpon::board
