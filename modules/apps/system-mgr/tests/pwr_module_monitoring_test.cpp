#include "xpon/system_mgr/functions/pwr_module_monitoring.hpp"

#include "function_test.hpp"
#include "xpon/test/fake_board.hpp"
#include "xpon/test/recording_ipc.hpp"
#include "xpon/test/recording_logger.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace xpon::system_mgr {
namespace {

using namespace std::chrono_literals;
using core::Error;
using test::BoardOp;

constexpr ipc::Address kSender = ipc::make_address(0x0042);
constexpr std::uint16_t kTag = 0x0BAD;

// A power module with every field set to a value of its own, so a misplaced byte shows.
Wake__pwr_module module_state() {
  Wake__pwr_module state;
  std::memset(&state, 0, sizeof state);
  state.present = 1;
  state.power_good = 1;
  state.fault = 0;
  state.fan_fault = 1;
  state.input_voltage = 2300;
  state.output_voltage = 1200;
  state.output_current = 1250;
  state.output_power = 150;
  state.temperature = -12;
  state.reserved[5] = 0x77;
  return state;
}

// The same record written out byte by byte, little-endian.
const ipc::Payload kStateBytes = {0x01, 0x01, 0x00, 0x01, 0xFC, 0x08, 0xB0, 0x04, 0xE2, 0x04,
                                  0x96, 0x00, 0xF4, 0xFF, 0x00, 0x00, 0x00, 0x00, 0x00, 0x77};

class PwrModuleMonitoringTest : public FunctionTest {
 protected:
  std::unique_ptr<PwrModuleMonitoring> make(std::chrono::milliseconds period = 30000ms) {
    return std::make_unique<PwrModuleMonitoring>(logger, ipc, cfgdb, board, period);
  }

  static ipc::Request state_request(ipc::Payload payload = {}) {
    ipc::Request request;
    request.payload = std::move(payload);
    request.group = IPC_SYSTEM_MGR;
    request.id = IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE;
    request.reply_to = ipc::ReplyTo{kSender, kTag};
    return request;
  }

  std::shared_ptr<test::FakeBoard> board = std::make_shared<test::FakeBoard>();
};

// --- Construction and configuration -----------------------------------------------------------

TEST_F(PwrModuleMonitoringTest, LogsItsCreationAndDestructionWithItsName) {
  make().reset();
  EXPECT_EQ(logger->texts(),
            (std::vector<std::string>{"SysFunction create successfully", "PwrModuleMonitoring create successfully",
                                      "PwrModuleMonitoring destroy successfully", "SysFunction destroy successfully"}));
  EXPECT_TRUE(board->calls().empty());
}

TEST_F(PwrModuleMonitoringTest, KeepsItsNameAndPeriod) {
  auto function = make();
  EXPECT_EQ(function->name(), "PwrModuleMonitoring");
  EXPECT_EQ(function->period(), 30000ms);
}

TEST_F(PwrModuleMonitoringTest, NeedsNoReadableConfiguration) {
  // The section is reserved for a future alarm: nothing is read, so not even a database is needed.
  const PwrModuleMonitoring function(logger, ipc, nullptr, board, 30000ms);
  EXPECT_TRUE(logger->contains("PwrModuleMonitoring create successfully", 0));
}

TEST_F(PwrModuleMonitoringTest, AChangeListHoldingItsSectionTwiceLogsTheChangeTwice) {
  auto function = make();
  logger->clear();
  EXPECT_TRUE(function->config_change(ServiceCtx{}, {service::Config_change{123, 1, 0}, {80, 1, 0}, {123, 2, 0}}));
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Change config event [ALARM_SYSTEM_PWR_MODULE]",
                                                       "Change config event [ALARM_SYSTEM_PWR_MODULE]"}));
  EXPECT_TRUE(logger->contains("Change config event [ALARM_SYSTEM_PWR_MODULE]", 0));
}

TEST_F(PwrModuleMonitoringTest, OtherSectionsAndAnEmptyListChangeNothing) {
  auto function = make();
  logger->clear();
  EXPECT_TRUE(function->config_change(ServiceCtx{}, {}));
  EXPECT_TRUE(function->config_change(ServiceCtx{}, {service::Config_change{79, 1, 0}}));
  EXPECT_TRUE(logger->texts().empty());
}

TEST_F(PwrModuleMonitoringTest, MastershipChangesDoNothing) {
  auto function = make();
  logger->clear();
  EXPECT_TRUE(function->master_change(ServiceCtx{}));
  EXPECT_TRUE(logger->texts().empty());
}

// --- Polling ------------------------------------------------------------------------------------

TEST_F(PwrModuleMonitoringTest, ThePollSucceedsWithoutDoingAnything) {
  auto function = make();
  logger->clear();
  EXPECT_TRUE(function->polling());
  EXPECT_TRUE(board->calls().empty());
  EXPECT_TRUE(ipc->events().empty());
  EXPECT_TRUE(logger->texts().empty());
}

TEST_F(PwrModuleMonitoringTest, ThePollingThreadRunsAndNeverSendsAnything) {
  // Exposes the wake-up so that the test can end the thread even when stop's own wake-up
  // falls between two waits (and is lost, as designed).
  class Wakeable : public PwrModuleMonitoring {
   public:
    using PwrModuleMonitoring::PwrModuleMonitoring;
    using SysFunction::wake_polling_thread;
  };
  auto function = std::make_unique<Wakeable>(logger, ipc, cfgdb, board, 10ms);
  ASSERT_TRUE(function->run());
  // The empty poll is not "not implemented": the thread is started all the same.
  EXPECT_TRUE(function->is_running());
  EXPECT_FALSE(logger->contains("Polling not required for System function: PwrModuleMonitoring"));
  EXPECT_TRUE(ipc->has_request_subscription(ipc::Key{IPC_SYSTEM_MGR, IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE}));
  // Several periods go by.
  std::this_thread::sleep_for(60ms);
  EXPECT_TRUE(ipc->events().empty());
  EXPECT_TRUE(ipc->responses().empty());
  EXPECT_TRUE(board->calls().empty());
  EXPECT_TRUE(logger->contains("Start System function: PwrModuleMonitoring", 0));
  auto stopped = std::async(std::launch::async, [&] { return function->stop(); });
  while (stopped.wait_for(5ms) != std::future_status::ready) {
    function->wake_polling_thread();
  }
  EXPECT_TRUE(stopped.get());
  EXPECT_FALSE(function->is_running());
  EXPECT_TRUE(ipc->request_subscriptions().empty());
}

// --- Subscription ---------------------------------------------------------------------------------

TEST_F(PwrModuleMonitoringTest, SubscribesAndUnsubscribesTheStateRequest) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  EXPECT_EQ(ipc->request_subscriptions(),
            (std::vector<ipc::Key>{ipc::Key{IPC_SYSTEM_MGR, IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE}}));
  EXPECT_EQ(IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE, 15533);
  ASSERT_TRUE(function->ipc_unsubscribe());
  EXPECT_TRUE(ipc->request_subscriptions().empty());
}

TEST_F(PwrModuleMonitoringTest, AFailingSubscriptionIsLoggedAndReturned) {
  auto function = make();
  ipc->fail_next_subscribe(Error::InvalidState);
  const auto result = function->run();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
  EXPECT_TRUE(logger->contains("Error: InvalidState. Message: injected failure.", 4));
  EXPECT_FALSE(function->is_running());
}

// --- IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE -------------------------------------------------------

TEST_F(PwrModuleMonitoringTest, TheStateIsTheModulesTwentyBytesAsTheyStand) {
  board->answer(BoardOp::get_pwr_module_state, module_state());
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  logger->clear();
  ASSERT_TRUE(ipc->inject_request(state_request()));
  const auto response = only_response(kSender, kTag);
  EXPECT_EQ(response.result, 1U);
  EXPECT_EQ(response.payload, kStateBytes);
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Handle IPC request [IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE]"}));
  EXPECT_TRUE(logger->contains("Handle IPC request [IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE]", 0));
  EXPECT_EQ(board->ops(), (std::vector<BoardOp>{BoardOp::get_pwr_module_state}));
}

TEST_F(PwrModuleMonitoringTest, TheRequestPayloadIsIgnoredWhateverItsLength) {
  board->answer(BoardOp::get_pwr_module_state, module_state());
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  for (const std::size_t length : {std::size_t{0}, std::size_t{1}, std::size_t{65536}}) {
    ipc->clear_sent();
    ASSERT_TRUE(ipc->inject_request(state_request(ipc::Payload(length, 0xEE)))) << length;
    const auto response = only_response(kSender, kTag);
    EXPECT_EQ(response.result, 1U) << length;
    EXPECT_EQ(response.payload, kStateBytes) << length;
  }
}

TEST_F(PwrModuleMonitoringTest, ABoardFailureIsAnsweredWithTheErrorResponseAndNotLogged) {
  board->fail(BoardOp::get_pwr_module_state, Error::ErrorCApi, "BOARD_GET_PWR_MODULE_STATE failed");
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  logger->clear();
  const auto result = ipc->inject_request(state_request());
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  const auto response = only_response(kSender, kTag);
  EXPECT_EQ(response.result, 0U);
  EXPECT_TRUE(response.payload.empty());
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Handle IPC request [IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE]"}));
}

TEST_F(PwrModuleMonitoringTest, ABoardExceptionIsLoggedAndAnsweredWithTheErrorResponse) {
  board->throw_exception(BoardOp::get_pwr_module_state, "driver gone");
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  const auto result = ipc->inject_request(state_request());
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  EXPECT_TRUE(logger->contains("An std::exception was thrown: driver gone ", 4));
  EXPECT_EQ(only_response(kSender, kTag).result, 0U);
}

TEST_F(PwrModuleMonitoringTest, ABoardFailureWhoseErrorResponseFailsReturnsTheSendError) {
  board->fail(BoardOp::get_pwr_module_state, Error::ErrorCApi);
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  ipc->fail_next_send(Error::InvalidState);
  const auto result = ipc->inject_request(state_request());
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(PwrModuleMonitoringTest, AFailingAnswerIsLoggedAndReturned) {
  board->answer(BoardOp::get_pwr_module_state, module_state());
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  ipc->fail_next_send(Error::InvalidState);
  const auto result = ipc->inject_request(state_request());
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
  EXPECT_TRUE(logger->contains("Error: InvalidState. Message: injected failure.", 4));
}

TEST_F(PwrModuleMonitoringTest, ARequestWithoutReplyInformationThrowsAfterTheBoardRead) {
  board->answer(BoardOp::get_pwr_module_state, module_state());
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  auto request = state_request();
  request.reply_to.reset();
  EXPECT_THROW(static_cast<void>(ipc->inject_request(request)), std::bad_optional_access);
  EXPECT_EQ(board->count(BoardOp::get_pwr_module_state), 1U);
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(PwrModuleMonitoringTest, ARequestWithoutReplyInformationOnABoardFailureIsAnException) {
  board->fail(BoardOp::get_pwr_module_state, Error::ErrorCApi);
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  auto request = state_request();
  request.reply_to.reset();
  const auto result = ipc->inject_request(request);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Exception);
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_F(PwrModuleMonitoringTest, AnUnknownRequestIsNeitherAnsweredNorLogged) {
  auto function = make();
  logger->clear();
  auto request = state_request();
  request.id = IPC_SYSTEM_MGR__GET_PS_STATES;
  const auto result = function->handle_request(request);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  EXPECT_EQ(result.error().to_string(), "Error: CommonError. Message: Unexpected IPC request: 15500|15529.");
  EXPECT_TRUE(logger->texts().empty());
  EXPECT_TRUE(ipc->responses().empty());
  EXPECT_TRUE(board->calls().empty());
}

}  // namespace
}  // namespace xpon::system_mgr
