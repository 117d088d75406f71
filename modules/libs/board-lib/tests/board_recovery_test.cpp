// The board device going away and coming back: which failures make the board object reopen it,
// how often it tries, what it logs, and the calls after the device is back.
#include "xpon/board/board.hpp"

#include "xpon/test/fake_driver.hpp"
#include "xpon/test/recording_logger.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace xpon::board {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;

constexpr auto kInterval = 250ms;

class BoardRecoveryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto owned = std::make_unique<test::FakeDriver>();
    driver = owned->state();
    driver->inventory(0x31, 3, 2, 5, 16, 8);
    driver->reply(BOARD_GET_FPGA_VERSION, std::uint8_t{0x17});
    BoardOptions options;
    options.reopen_interval = kInterval;
    options.now = [this] { return now; };
    board = std::make_unique<Board>(logger, std::move(owned), options);
    driver->calls.clear();
    logger->clear();
  }

  // The lines about the device itself, each with its level, in order.
  std::vector<std::string> outage_lines() const {
    std::vector<std::string> texts;
    for (const auto& line : logger->lines()) {
      if (line.text.starts_with("Board device")) {
        texts.push_back(std::to_string(line.level) + " " + line.text);
      }
    }
    return texts;
  }

  std::shared_ptr<xpon::test::RecordingLogger> logger = std::make_shared<xpon::test::RecordingLogger>();
  std::shared_ptr<test::FakeDriverState> driver;
  std::unique_ptr<Board> board;
  std::chrono::steady_clock::time_point now{1h};
};

struct LostCase {
  const char* name;
  int error_number;
  const char* text;
};

class BoardLostDeviceTest : public BoardRecoveryTest, public ::testing::WithParamInterface<LostCase> {};

TEST_P(BoardLostDeviceTest, FailureTriesOneReopenAndAnswersWhenTheDeviceIsBack) {
  driver->take_away(GetParam().error_number);
  driver->bring_back();

  const auto version = board->get_fpga_config_version();

  ASSERT_TRUE(version.has_value()) << version.error().to_string();
  EXPECT_EQ(version.value(), 0x17);
  EXPECT_EQ(driver->reopens, 1);
  EXPECT_THAT(driver->requests(), ElementsAre(BOARD_GET_FPGA_VERSION, BOARD_GET_FPGA_VERSION));
  EXPECT_THAT(outage_lines(),
              ElementsAre(std::string("4 Board device /dev/board lost (") + GetParam().text + "); reopening it",
                          "1 Board device /dev/board reopened"));
}

TEST_P(BoardLostDeviceTest, FailureWhileTheDeviceIsAwayReportsTheCallsOwnErrno) {
  driver->take_away(GetParam().error_number);

  const auto version = board->get_fpga_config_version();

  ASSERT_TRUE(version.has_error());
  EXPECT_EQ(version.error().to_string(),
            "Error: ErrorCApi. Message: BOARD_GET_FPGA_VERSION: ioctl returned -1, errno=" +
                std::to_string(GetParam().error_number) + " (" + GetParam().text + ").");
  EXPECT_EQ(driver->reopens, 1);
  EXPECT_THAT(driver->requests(), ElementsAre(BOARD_GET_FPGA_VERSION)) << "no second call without a descriptor";
}

INSTANTIATE_TEST_SUITE_P(EachErrno, BoardLostDeviceTest,
                         ::testing::Values(LostCase{"ENODEV", ENODEV, "No such device"},
                                           LostCase{"ENXIO", ENXIO, "No such device or address"},
                                           LostCase{"ENOTCONN", ENOTCONN, "Transport endpoint is not connected"},
                                           LostCase{"EBADF", EBADF, "Bad file descriptor"}),
                         [](const ::testing::TestParamInfo<LostCase>& lost) { return std::string(lost.param.name); });

TEST_F(BoardRecoveryTest, OtherFailuresDoNotReopen) {
  for (const int error_number : {EIO, ENOTTY, EAGAIN, EINVAL, ETIMEDOUT}) {
    driver->fail(BOARD_GET_FPGA_VERSION, error_number);
    EXPECT_TRUE(board->get_fpga_config_version().has_error()) << error_number;
  }
  EXPECT_EQ(driver->reopens, 0);
  EXPECT_TRUE(outage_lines().empty());
}

TEST_F(BoardRecoveryTest, ReopensAreAtLeastTheIntervalApartAndOnePerCall) {
  driver->take_away(ENOTCONN);
  (void)board->get_fpga_config_version();
  now += kInterval - 1ms;
  (void)board->get_fpga_config_version();
  (void)board->get_fpga_config_version();
  EXPECT_EQ(driver->reopens, 1) << "within the interval no call reopens";

  now += 1ms;
  (void)board->get_fpga_config_version();
  EXPECT_EQ(driver->reopens, 2);
  now += 10 * kInterval;
  (void)board->get_fpga_config_version();
  EXPECT_EQ(driver->reopens, 3) << "one reopen per call, however long the device was away";
}

TEST_F(BoardRecoveryTest, AnOutageIsLoggedOnceAndItsEndOnce) {
  driver->take_away(ENOTCONN);
  for (int call = 0; call < 5; ++call) {
    (void)board->get_fpga_config_version();
    now += kInterval;
  }
  EXPECT_EQ(driver->reopens, 5);
  EXPECT_THAT(outage_lines(),
              ElementsAre("4 Board device /dev/board lost (Transport endpoint is not connected); reopening it"));

  driver->bring_back();
  EXPECT_TRUE(board->get_fpga_config_version().has_value());
  EXPECT_TRUE(board->get_fpga_config_version().has_value());
  EXPECT_THAT(outage_lines(),
              ElementsAre("4 Board device /dev/board lost (Transport endpoint is not connected); reopening it",
                          "1 Board device /dev/board reopened"));
}

TEST_F(BoardRecoveryTest, ASecondOutageIsLoggedAgain) {
  driver->take_away(ENODEV);
  driver->bring_back();
  ASSERT_TRUE(board->get_fpga_config_version().has_value());
  now += kInterval;
  driver->take_away(ENOTCONN);
  driver->bring_back();
  ASSERT_TRUE(board->get_fpga_config_version().has_value());
  EXPECT_THAT(
      outage_lines(),
      ElementsAre("4 Board device /dev/board lost (No such device); reopening it", "1 Board device /dev/board reopened",
                  "4 Board device /dev/board lost (Transport endpoint is not connected); reopening it",
                  "1 Board device /dev/board reopened"));
}

TEST_F(BoardRecoveryTest, CallsAfterTheReturnGoStraightToTheDriver) {
  driver->take_away(ENOTCONN);
  (void)board->get_fpga_config_version();
  driver->bring_back();
  now += kInterval;
  ASSERT_TRUE(board->get_fpga_config_version().has_value());
  driver->calls.clear();

  driver->reply(BOARD_F_BTN_IS_PRESSED, std::uint8_t{1});
  EXPECT_EQ(board->f_btn__is_pressed().value(), 1);
  EXPECT_EQ(board->get_fpga_config_version().value(), 0x17);
  EXPECT_EQ(driver->reopens, 2);
  EXPECT_THAT(driver->requests(), ElementsAre(BOARD_F_BTN_IS_PRESSED, BOARD_GET_FPGA_VERSION));
}

TEST_F(BoardRecoveryTest, TheDeviceBackWithinTheIntervalWaitsForItsEnd) {
  driver->take_away(ENOTCONN);
  (void)board->get_fpga_config_version();
  driver->bring_back();
  now += kInterval / 2;
  EXPECT_TRUE(board->get_fpga_config_version().has_error()) << "the old descriptor until the next reopen";
  now += kInterval / 2;
  EXPECT_TRUE(board->get_fpga_config_version().has_value());
  EXPECT_EQ(driver->reopens, 2);
}

TEST_F(BoardRecoveryTest, AWriteIsIssuedAgainOnlyAfterAReopen) {
  driver->take_away(ENOTCONN);
  driver->bring_back();
  ASSERT_TRUE(board->set_fan_speed(0x80).has_value());
  ASSERT_EQ(driver->calls.size(), 2U);
  EXPECT_EQ(driver->calls[1].argument, std::vector<std::uint8_t>{0x80});
  EXPECT_EQ(driver->reopens, 1);
}

TEST(BoardRecoveryConstructionTest, ADeviceLostDuringTheInventoryReadIsNotReopened) {
  auto logger = std::make_shared<xpon::test::RecordingLogger>();
  auto owned = std::make_unique<test::FakeDriver>();
  const auto driver = owned->state();
  driver->take_away(ENODEV);
  driver->bring_back();
  EXPECT_THROW(Board(logger, std::move(owned)), std::runtime_error);
  EXPECT_EQ(driver->reopens, 0);
  EXPECT_THAT(driver->requests(), ElementsAre(BOARD_GET_CPLD_VERSION));
}

TEST(BoardDeviceLostTest, OnlyTheErrnosOfAVanishedDeviceCount) {
  for (const int error_number : {ENODEV, ENXIO, ENOTCONN, EBADF}) {
    EXPECT_TRUE(device_lost(error_number)) << error_number;
  }
  for (const int error_number : {0, EIO, ENOENT, ENOTTY, EAGAIN, EINTR, EFAULT, EINVAL}) {
    EXPECT_FALSE(device_lost(error_number)) << error_number;
  }
}

}  // namespace
}  // namespace xpon::board
