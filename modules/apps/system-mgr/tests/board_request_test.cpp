// What the functions whose request reads one thing of the board and answers it have in common,
// checked for each of them: their life, and for the request: the payload is ignored, a failed read gets the empty
// error response without a log line, a request without reply information throws after the read (or becomes an
// exception error on a failed read). The base's contract (subscriptions, failed sends, unknown ids) is checked for
// every function in function_contract_test.cpp.

#include "function_test.hpp"
#include "xpon/system_mgr/functions/ps_monitoring.hpp"
#include "xpon/system_mgr/functions/pwr_module_monitoring.hpp"
#include "xpon/test/fake_board.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace xpon::system_mgr {
namespace {

using namespace std::chrono_literals;
using core::Error;
using test::BoardOp;

/// What a function under test is made of.
struct FunctionParts {
  std::shared_ptr<test::RecordingLogger> logger;
  std::shared_ptr<test::RecordingIpc> ipc;
  std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb;
  std::shared_ptr<test::FakeBoard> board;
  std::shared_ptr<test::FakeHost> host;
  std::chrono::milliseconds period;
};

/// One request of a function that reads the board and answers what it read.
struct BoardRequest {
  const char* function;
  std::chrono::milliseconds period;
  std::uint16_t id;
  const char* identifier;
  BoardOp op;
  /// Gives the board something to read; the answer's payload is then `answer`.
  void (*make_readable)(test::FakeBoard& board);
  ipc::Payload answer;
  /// Whether a failed read without reply information throws (an error answer of its own) or
  /// ends as Error::Exception (an error answer through send_error_response).
  bool failed_read_without_reply_throws;
  std::unique_ptr<SysFunction> (*make)(const FunctionParts& parts);
};

void PrintTo(const BoardRequest& request, std::ostream* out) {
  *out << request.function << " " << request.identifier;
}

class BoardRequestTest : public FunctionTest, public testing::WithParamInterface<BoardRequest> {
 protected:
  std::unique_ptr<SysFunction> make() { return GetParam().make({logger, ipc, cfgdb, board, host, GetParam().period}); }

  // The function, subscribed, with the log of its creation forgotten.
  std::unique_ptr<SysFunction> subscribed() {
    auto function = make();
    EXPECT_TRUE(function->ipc_subscribe());
    logger->clear();
    return function;
  }

  [[nodiscard]] ipc::Request request(ipc::Payload payload = {}) const {
    return request_to(GetParam().id, std::move(payload));
  }

  [[nodiscard]] std::string handled_line() const {
    return std::string("Handle IPC request [") + GetParam().identifier + "]";
  }

  std::shared_ptr<test::FakeBoard> board = std::make_shared<test::FakeBoard>();
};

// One supply, present and good, whose record's copied bytes are all set.
void readable_supplies(test::FakeBoard& board) {
  Brd__ps_info info;
  std::memset(&info, 0, sizeof info);
  info.id = 9;
  info.is_present = 1;
  info.is_power_good = 1;
  info.has_info = 1;
  info.alert = 2;
  std::memcpy(info.model, "ABCDEFGH", 8);
  board.answer(BoardOp::get_ps_info, std::vector<Brd__ps_info>{info});
}

ipc::Payload supplies_answer() {
  ipc::Payload payload(72, 0);
  const ipc::Payload head = {9, 1, 1, 1, 2, 'A', 'B', 'C'};
  std::copy(head.begin(), head.end(), payload.begin());
  return payload;
}

void readable_power_module(test::FakeBoard& board) {
  Wake__pwr_module state;
  std::memset(&state, 0, sizeof state);
  state.present = 1;
  state.output_power = 0x0102;
  state.reserved[5] = 0xAB;
  board.answer(BoardOp::get_pwr_module_state, state);
}

ipc::Payload power_module_answer() {
  ipc::Payload payload(20, 0);
  payload[0] = 1;
  payload[10] = 0x02;
  payload[11] = 0x01;
  payload[19] = 0xAB;
  return payload;
}

const BoardRequest kRequests[] = {
    {"PsMonitoring", 1000ms, IPC_SYSTEM_MGR__GET_PS_STATES, "IPC_SYSTEM_MGR__GET_PS_STATES", BoardOp::get_ps_info,
     readable_supplies, supplies_answer(), true,
     [](const FunctionParts& parts) -> std::unique_ptr<SysFunction> {
       return std::make_unique<PsMonitoring>(parts.logger, parts.ipc, parts.board, parts.period, parts.host);
     }},
    {"PwrModuleMonitoring", 30000ms, IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE, "IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE",
     BoardOp::get_pwr_module_state, readable_power_module, power_module_answer(), false,
     [](const FunctionParts& parts) -> std::unique_ptr<SysFunction> {
       return std::make_unique<PwrModuleMonitoring>(parts.logger, parts.ipc, parts.cfgdb, parts.board, parts.period);
     }},
};

TEST_P(BoardRequestTest, LogsItsLifeWithItsNameAndKeepsItsPeriod) {
  auto function = make();
  EXPECT_EQ(function->name(), GetParam().function);
  EXPECT_EQ(function->period(), GetParam().period);
  function.reset();
  const std::string name(GetParam().function);
  EXPECT_EQ(logger->texts(),
            (std::vector<std::string>{"SysFunction create successfully", name + " create successfully",
                                      name + " destroy successfully", "SysFunction destroy successfully"}));
  EXPECT_TRUE(board->calls().empty());
}

TEST_P(BoardRequestTest, AFailingUnsubscriptionIsLoggedAndReturned) {
  auto function = make();
  logger->clear();
  const auto result = function->ipc_unsubscribe();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Empty);
  // The error's own line, then the same text where the function returns it.
  EXPECT_EQ(logger->texts(), std::vector<std::string>(2, "Error: Empty. Message: request key not subscribed."));
  EXPECT_TRUE(logger->contains("Error: Empty. Message: request key not subscribed.", 4));
}

TEST_P(BoardRequestTest, AnswersWhatTheBoardGaveLoggingTheRequest) {
  GetParam().make_readable(*board);
  auto function = subscribed();
  ASSERT_TRUE(ipc->inject_request(request()));
  const auto response = only_response(kRequestSender, kRequestTag);
  EXPECT_EQ(response.result, 1U);
  EXPECT_EQ(response.payload, GetParam().answer);
  EXPECT_EQ(board->ops(), (std::vector<BoardOp>{GetParam().op}));
  ASSERT_EQ(logger->lines().size(), 1U);
  EXPECT_EQ(logger->lines()[0].text, handled_line());
  EXPECT_EQ(logger->lines()[0].level, 0);
}

TEST_P(BoardRequestTest, ThePayloadIsIgnoredWhateverItsLength) {
  GetParam().make_readable(*board);
  auto function = subscribed();
  for (const std::size_t length : {std::size_t{0}, std::size_t{1}, std::size_t{65536}}) {
    ipc->clear_sent();
    ASSERT_TRUE(ipc->inject_request(request(ipc::Payload(length, 0xEE)))) << length;
    const auto response = only_response(kRequestSender, kRequestTag);
    EXPECT_EQ(response.result, 1U) << length;
    EXPECT_EQ(response.payload, GetParam().answer) << length;
  }
}

TEST_P(BoardRequestTest, AFailedReadGetsTheErrorResponseAndNoLogLine) {
  board->fail(GetParam().op, Error::ErrorCApi, "the driver failed");
  auto function = subscribed();
  const auto result = ipc->inject_request(request());
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  const auto response = only_response(kRequestSender, kRequestTag);
  EXPECT_EQ(response.result, 0U);
  EXPECT_TRUE(response.payload.empty());
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{handled_line()}));
}

TEST_P(BoardRequestTest, AThrowingReadIsLoggedAndGetsTheErrorResponse) {
  board->throw_exception(GetParam().op, "driver gone");
  auto function = subscribed();
  const auto result = ipc->inject_request(request());
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  EXPECT_TRUE(logger->contains("An std::exception was thrown: driver gone ", 4));
  EXPECT_EQ(only_response(kRequestSender, kRequestTag).result, 0U);
}

TEST_P(BoardRequestTest, AFailedReadWhoseErrorResponseFailsReturnsTheSendError) {
  board->fail(GetParam().op, Error::ErrorCApi);
  auto function = subscribed();
  ipc->fail_next_send(Error::InvalidState);
  const auto result = ipc->inject_request(request());
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_P(BoardRequestTest, WithoutReplyInformationTheHandlerThrowsAfterTheRead) {
  GetParam().make_readable(*board);
  auto function = subscribed();
  auto without_reply = request();
  without_reply.reply_to.reset();
  EXPECT_THROW(static_cast<void>(ipc->inject_request(without_reply)), std::bad_optional_access);
  EXPECT_EQ(board->count(GetParam().op), 1U);
  EXPECT_TRUE(ipc->responses().empty());
}

TEST_P(BoardRequestTest, WithoutReplyInformationAFailedReadThrowsOrIsAnExceptionError) {
  board->fail(GetParam().op, Error::ErrorCApi);
  auto function = subscribed();
  auto without_reply = request();
  without_reply.reply_to.reset();
  if (GetParam().failed_read_without_reply_throws) {
    EXPECT_THROW(static_cast<void>(ipc->inject_request(without_reply)), std::bad_optional_access);
  } else {
    const auto result = ipc->inject_request(without_reply);
    ASSERT_TRUE(result.has_error());
    EXPECT_EQ(result.error().error, Error::Exception);
  }
  EXPECT_EQ(board->count(GetParam().op), 1U);
  EXPECT_TRUE(ipc->responses().empty());
}

INSTANTIATE_TEST_SUITE_P(PowerFunctions, BoardRequestTest, testing::ValuesIn(kRequests),
                         [](const testing::TestParamInfo<BoardRequest>& request) {
                           return std::string(request.param.function);
                         });

}  // namespace
}  // namespace xpon::system_mgr
