#include "xpon/system_mgr/functions/led_panel_cntrl.hpp"

#include "function_test.hpp"
#include "xpon/test/fake_board.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace xpon::system_mgr {
namespace {

using core::Error;
using test::BoardOp;

constexpr ipc::Address kSender = 0x0021FFFE;
constexpr std::uint16_t kTag = 0x4321;

class LedPanelCntrlTest : public FunctionTest {
 protected:
  std::unique_ptr<LedPanelCntrl> make() { return std::make_unique<LedPanelCntrl>(logger, ipc, board); }

  static ipc::Request led_request(ipc::Payload payload) {
    ipc::Request request;
    request.payload = std::move(payload);
    request.group = IPC_SYSTEM_MGR;
    request.id = IPC_SYSTEM_MGR__CNTRL_LED_PANEL;
    request.reply_to = ipc::ReplyTo{kSender, kTag};
    return request;
  }

  // The alarm LED set to blink red, as the driver reads the record: led, mode, colour.
  static ipc::Payload alarm_blink_red() { return {2, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0}; }

  // A refused request: the empty error response, Error::CommonError, the board untouched.
  void expect_refused(LedPanelCntrl& function, ipc::Payload payload) {
    const auto result = function.handle_request(led_request(std::move(payload)));
    ASSERT_TRUE(result.has_error());
    EXPECT_EQ(result.error().error, Error::CommonError);
    EXPECT_TRUE(board->calls().empty());
    const auto response = only_response();
    EXPECT_EQ(response.result, 0U);
    EXPECT_TRUE(response.payload.empty());
  }

  [[nodiscard]] std::vector<Brd__led> led_calls() const { return board->arguments<Brd__led>(BoardOp::cntrl_led_panel); }

  ipc::Response only_response() const { return FunctionTest::only_response(kSender, kTag); }

  std::shared_ptr<test::FakeBoard> board = std::make_shared<test::FakeBoard>();
};

bool same_led(const Brd__led& left, const Brd__led& right) {
  return left.led == right.led && left.mode == right.mode && left.color == right.color;
}

TEST_F(LedPanelCntrlTest, LogsItsLifeWithItsName) {
  {
    auto function = make();
    EXPECT_EQ(function->name(), "LedPanelCntrl");
    EXPECT_TRUE(logger->contains("LedPanelCntrl create successfully", 0));
  }
  EXPECT_TRUE(logger->contains("LedPanelCntrl destroy successfully", 0));
  // Making the function asks nothing of the board.
  EXPECT_TRUE(board->calls().empty());
}

TEST_F(LedPanelCntrlTest, RunsWithoutAThreadAndSubscribesItsOneRequest) {
  auto function = make();
  ASSERT_TRUE(function->run());
  EXPECT_FALSE(function->is_running());
  EXPECT_TRUE(logger->contains("Polling not required for System function: LedPanelCntrl", 0));
  EXPECT_EQ(ipc->request_subscriptions(), (std::vector<ipc::Key>{ipc::Key{15500, 15503}}));
  ASSERT_TRUE(function->stop());
  EXPECT_TRUE(ipc->request_subscriptions().empty());
  EXPECT_TRUE(board->calls().empty());
}

TEST_F(LedPanelCntrlTest, ConfigurationAndMastershipChangesAreIgnored) {
  auto function = make();
  EXPECT_TRUE(function->config_change({}, {{80, 1, 0}}));
  EXPECT_TRUE(function->master_change({}));
  EXPECT_TRUE(board->calls().empty());
}

TEST_F(LedPanelCntrlTest, TwelveBytePayloadIsPassedToTheBoardAndAnswered) {
  auto function = make();
  logger->clear();
  ASSERT_TRUE(function->handle_request(led_request(alarm_blink_red())));
  ASSERT_EQ(led_calls().size(), 1U);
  EXPECT_TRUE(same_led(led_calls()[0], Brd__led{2, 2, 2}));
  const auto response = only_response();
  EXPECT_EQ(response.result, 1U);
  EXPECT_TRUE(response.payload.empty());
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Handle IPC request [IPC_SYSTEM_MGR__CNTRL_LED_PANEL]"}));
  EXPECT_EQ(logger->lines()[0].level, 0);
}

TEST_F(LedPanelCntrlTest, SixteenBytePayloadPassesItsFirstTwelveBytes) {
  auto function = make();
  ipc::Payload payload = alarm_blink_red();
  payload.insert(payload.end(), {0xDE, 0xAD, 0xBE, 0xEF});
  ASSERT_TRUE(function->handle_request(led_request(payload)));
  ASSERT_EQ(led_calls().size(), 1U);
  EXPECT_TRUE(same_led(led_calls()[0], Brd__led{2, 2, 2}));
  EXPECT_EQ(only_response().result, 1U);
}

TEST_F(LedPanelCntrlTest, FarTooLongPayloadPassesItsFirstTwelveBytes) {
  auto function = make();
  ipc::Payload payload(4096, 0xAB);
  std::memcpy(payload.data(), alarm_blink_red().data(), 12);
  ASSERT_TRUE(function->handle_request(led_request(payload)));
  ASSERT_EQ(led_calls().size(), 1U);
  EXPECT_TRUE(same_led(led_calls()[0], Brd__led{2, 2, 2}));
}

TEST_F(LedPanelCntrlTest, RecordIsPassedUninterpreted) {
  // An LED, mode and colour the board does not know still go to the driver: it decides.
  auto function = make();
  const ipc::Payload payload{0xFF, 0xFF, 0xFF, 0xFF, 7, 0, 0, 0, 0x10, 0x20, 0x30, 0x40};
  ASSERT_TRUE(function->handle_request(led_request(payload)));
  ASSERT_EQ(led_calls().size(), 1U);
  EXPECT_TRUE(same_led(led_calls()[0], Brd__led{0xFFFFFFFFU, 7, 0x40302010U}));
}

TEST_F(LedPanelCntrlTest, ThreeBytePayloadIsRefusedWithoutCallingTheBoard) {
  auto function = make();
  expect_refused(*function, {1, 2, 3});
}

TEST_F(LedPanelCntrlTest, FourBytePayloadIsRefusedWithoutCallingTheBoard) {
  auto function = make();
  expect_refused(*function, {1, 0, 0, 0});
}

TEST_F(LedPanelCntrlTest, BoardFailureGivesTheErrorResponseWithoutALogLine) {
  auto function = make();
  board->fail(BoardOp::cntrl_led_panel, Error::ErrorCApi, "BOARD_CNTRL_LED_PANEL: ioctl failed");
  logger->clear();
  const auto result = function->handle_request(led_request(alarm_blink_red()));
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  EXPECT_EQ(led_calls().size(), 1U);
  const auto response = only_response();
  EXPECT_EQ(response.result, 0U);
  EXPECT_TRUE(response.payload.empty());
  // The board's error is dropped: only the request itself is logged.
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Handle IPC request [IPC_SYSTEM_MGR__CNTRL_LED_PANEL]"}));
}

TEST_F(LedPanelCntrlTest, ThrowingBoardIsCaughtAndGivesTheErrorResponse) {
  auto function = make();
  board->throw_exception(BoardOp::cntrl_led_panel, "driver gone");
  const auto result = function->handle_request(led_request(alarm_blink_red()));
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  EXPECT_EQ(only_response().result, 0U);
  EXPECT_TRUE(logger->contains("An std::exception was thrown: driver gone ", 4));
}

TEST_F(LedPanelCntrlTest, FailedSendOfTheAnswerIsReturned) {
  auto function = make();
  ipc->fail_next_send(Error::InvalidState);
  const auto result = function->handle_request(led_request(alarm_blink_red()));
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
  EXPECT_TRUE(logger->contains("Error: InvalidState. Message: injected failure.", 4));
  EXPECT_EQ(led_calls().size(), 1U);
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(LedPanelCntrlTest, RequestWithoutReplyInformationThrowsAfterTheBoardCall) {
  auto function = make();
  auto request = led_request(alarm_blink_red());
  request.reply_to.reset();
  EXPECT_THROW(static_cast<void>(function->handle_request(request)), std::bad_optional_access);
  EXPECT_EQ(led_calls().size(), 1U);
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(LedPanelCntrlTest, ShortRequestWithoutReplyInformationThrowsBeforeAnyBoardCall) {
  auto function = make();
  auto request = led_request({1, 2, 3});
  request.reply_to.reset();
  EXPECT_THROW(static_cast<void>(function->handle_request(request)), std::bad_optional_access);
  EXPECT_TRUE(board->calls().empty());
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(LedPanelCntrlTest, FailedBoardCallWithoutReplyInformationThrowsAfterIt) {
  auto function = make();
  board->fail(BoardOp::cntrl_led_panel, Error::ErrorCApi);
  auto request = led_request(alarm_blink_red());
  request.reply_to.reset();
  EXPECT_THROW(static_cast<void>(function->handle_request(request)), std::bad_optional_access);
  EXPECT_EQ(led_calls().size(), 1U);
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(LedPanelCntrlTest, InjectedRequestReachesTheBoardThroughTheSubscription) {
  auto function = make();
  ASSERT_TRUE(function->run());
  ASSERT_TRUE(ipc->inject_request(led_request(alarm_blink_red())));
  EXPECT_EQ(led_calls().size(), 1U);
  EXPECT_EQ(only_response().result, 1U);
  ASSERT_TRUE(function->stop());
}

}  // namespace
}  // namespace xpon::system_mgr
