#include "xpon/system_mgr/functions/misc_parameters.hpp"

#include "function_test.hpp"
#include "xpon/test/fake_board.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

// Compared as the driver reads the record; found by lookup in the record's own (global) namespace.
static bool operator==(const Brd__p_port_led& left, const Brd__p_port_led& right) {
  return left.port == right.port && left.mode == right.mode && left.color == right.color;
}

namespace xpon::system_mgr {
namespace {

using core::Error;
using test::BoardOp;

constexpr ipc::Address kSender = 0x0021FFFE;
constexpr std::uint16_t kTag = 0x1234;
constexpr std::uint8_t kFpga = 0x15;
constexpr std::uint8_t kCpld = 0x07;

// A device factory answer as the service would fill it.
System_mgr__factory factory_record(std::uint32_t family, const char* name) {
  System_mgr__factory record;
  std::memset(&record, 0, sizeof record);
  record.family = family;
  Factory__data data;
  std::memset(&data, 0, sizeof data);
  std::strncpy(data.device_name, name, sizeof data.device_name - 1);
  data.base_mac[0] = 0xA8;
  data.base_mac[5] = 0x03;
  data.mac_count = 16;
  data.fields_present = FACTORY__FIELD_BIT(0x21) | FACTORY__FIELD_BIT(0x24) | FACTORY__FIELD_BIT(0x2A);
  record.data = data;
  return record;
}

ipc::Payload bytes_of(const System_mgr__factory& record) {
  ipc::Payload bytes(sizeof record);
  std::memcpy(bytes.data(), &record, sizeof record);
  return bytes;
}

Brd__p_port_led port_led(std::uint32_t port, std::uint32_t mode, std::uint32_t color) {
  return Brd__p_port_led{port, mode, color};
}

class MiscParametersTest : public FunctionTest {
 protected:
  MiscParametersTest() {
    board->answer(BoardOp::get_fpga_config_version, kFpga);
    board->answer(BoardOp::get_cpld_config_version, kCpld);
  }

  std::unique_ptr<MiscParameters> make() {
    auto function = std::make_unique<MiscParameters>(logger, ipc, board);
    board->clear_calls();
    logger->clear();
    return function;
  }

  static ipc::Request request(std::uint16_t id, ipc::Payload payload = {}) {
    ipc::Request request;
    request.payload = std::move(payload);
    request.group = IPC_SYSTEM_MGR;
    request.id = id;
    request.reply_to = ipc::ReplyTo{kSender, kTag};
    return request;
  }

  ipc::Response only_response() const { return FunctionTest::only_response(kSender, kTag); }

  [[nodiscard]] std::vector<Brd__p_port_led> led_calls() const {
    return board->arguments<Brd__p_port_led>(BoardOp::p_port__set_led_state);
  }

  // A refused request: the empty error response, Error::CommonError, the board untouched.
  void expect_refused(MiscParameters& function, std::uint16_t id, ipc::Payload payload) {
    const auto result = function.handle_request(request(id, std::move(payload)));
    ASSERT_TRUE(result.has_error());
    EXPECT_EQ(result.error().error, Error::CommonError);
    EXPECT_TRUE(board->calls().empty());
    const auto response = only_response();
    EXPECT_EQ(response.result, 0U);
    EXPECT_TRUE(response.payload.empty());
  }

  std::shared_ptr<test::FakeBoard> board = std::make_shared<test::FakeBoard>();
};

// --- Construction ----------------------------------------------------------------------------

TEST_F(MiscParametersTest, ReadsTheFpgaThenTheCpldVersionOnceAndLogsItsLife) {
  {
    const MiscParameters function(logger, ipc, board);
    EXPECT_EQ(function.name(), "MiscParameters");
    EXPECT_EQ(board->ops(), (std::vector<BoardOp>{BoardOp::get_fpga_config_version, BoardOp::get_cpld_config_version}));
    EXPECT_EQ(function.fpga_version(), kFpga);
    EXPECT_EQ(function.cpld_version(), kCpld);
    EXPECT_TRUE(logger->contains("MiscParameters create successfully", 0));
  }
  EXPECT_TRUE(logger->contains("MiscParameters destroy successfully", 0));
}

TEST_F(MiscParametersTest, FactoryRecordsAreZeroUntilTheServiceFillsThem) {
  const MiscParameters function(logger, ipc, board);
  EXPECT_EQ(bytes_of(function.device_factory()), ipc::Payload(280, 0));
  EXPECT_EQ(bytes_of(function.crate_factory()), ipc::Payload(280, 0));
}

TEST_F(MiscParametersTest, FailedFpgaReadStopsConstructionBeforeTheCpldRead) {
  board->fail(BoardOp::get_fpga_config_version, Error::ErrorCApi, "BOARD_GET_FPGA_VERSION: ioctl failed");
  try {
    const MiscParameters function(logger, ipc, board);
    FAIL() << "constructed";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(
        error.what(),
        "Get FPGA Config version for MiscParameters failed (Error: ErrorCApi. Message: BOARD_GET_FPGA_VERSION: "
        "ioctl failed.) ");
  }
  EXPECT_EQ(board->ops(), (std::vector<BoardOp>{BoardOp::get_fpga_config_version}));
  EXPECT_FALSE(logger->contains("MiscParameters create successfully"));
}

TEST_F(MiscParametersTest, FailedCpldReadStopsConstruction) {
  board->fail(BoardOp::get_cpld_config_version, Error::ErrorCApi, "BOARD_GET_CPLD_VERSION: ioctl failed");
  try {
    const MiscParameters function(logger, ipc, board);
    FAIL() << "constructed";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(
        error.what(),
        "Get CPLD Config version for MiscParameters failed (Error: ErrorCApi. Message: BOARD_GET_CPLD_VERSION: "
        "ioctl failed.) ");
  }
  EXPECT_EQ(board->ops(), (std::vector<BoardOp>{BoardOp::get_fpga_config_version, BoardOp::get_cpld_config_version}));
}

TEST_F(MiscParametersTest, ThrowingVersionReadIsCaughtAndStopsConstruction) {
  board->throw_exception(BoardOp::get_fpga_config_version, "driver gone");
  EXPECT_THROW(MiscParameters(logger, ipc, board), std::runtime_error);
  EXPECT_TRUE(logger->contains("An std::exception was thrown: driver gone ", 4));
  EXPECT_EQ(board->count(BoardOp::get_cpld_config_version), 0U);
}

TEST_F(MiscParametersTest, MissingBoardStopsConstruction) {
  try {
    const MiscParameters function(logger, ipc, nullptr);
    FAIL() << "constructed";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(),
                 "Get FPGA Config version for MiscParameters failed (Error: InvalidInputArg. Message: no board.) ");
  }
}

// --- Running and subscriptions -------------------------------------------------------------

TEST_F(MiscParametersTest, RunsWithoutAThread) {
  auto function = make();
  ASSERT_TRUE(function->run());
  EXPECT_FALSE(function->is_running());
  EXPECT_TRUE(logger->contains("Polling not required for System function: MiscParameters", 0));
  ASSERT_TRUE(function->stop());
  EXPECT_TRUE(board->calls().empty());
}

TEST_F(MiscParametersTest, SubscribesTheFourteenRequestsInOrderAndUnsubscribesThemAlike) {
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  std::vector<ipc::Key> expected;
  for (std::uint16_t id = 15504; id <= 15514; ++id) {
    expected.push_back(ipc::Key{15500, id});
  }
  for (std::uint16_t id = 15534; id <= 15536; ++id) {
    expected.push_back(ipc::Key{15500, id});
  }
  EXPECT_EQ(ipc->request_subscriptions(), expected);
  EXPECT_EQ(ipc->subscribe_calls(), 14U);
  ASSERT_TRUE(function->ipc_unsubscribe());
  EXPECT_TRUE(ipc->request_subscriptions().empty());
  EXPECT_EQ(ipc->unsubscribe_calls(), 14U);
}

TEST_F(MiscParametersTest, ConfigurationAndMastershipChangesAreIgnored) {
  auto function = make();
  EXPECT_TRUE(function->config_change({}, {{80, 1, 0}}));
  EXPECT_TRUE(function->master_change({}));
  EXPECT_TRUE(board->calls().empty());
}

// --- Factory data ----------------------------------------------------------------------------

TEST_F(MiscParametersTest, DeviceFactoryAnswersTheWhole280ByteRecord) {
  auto function = make();
  const auto record = factory_record(SYSTEM_MGR_FAMILY_LC, "QD7R-LC-8");
  function->set_device_factory(record);
  ASSERT_TRUE(function->handle_request(request(IPC_SYSTEM_MGR__GET_DEVICE_FACTORY)));
  const auto response = only_response();
  EXPECT_EQ(response.result, 1U);
  ASSERT_EQ(response.payload.size(), 280U);
  EXPECT_EQ(response.payload, bytes_of(record));
  EXPECT_EQ(response.payload[0], 1);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(response.payload.data() + 4)), "QD7R-LC-8");
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Handle IPC request [IPC_SYSTEM_MGR__GET_DEVICE_FACTORY]"}));
}

TEST_F(MiscParametersTest, CrateFactoryOnFcAnswersTheCrateRecord) {
  auto function = make();
  function->set_device_factory(factory_record(SYSTEM_MGR_FAMILY_FC, "QD7R-FC"));
  const auto crate = factory_record(SYSTEM_MGR_FAMILY_FC, "QD7R-CRATE-14");
  function->set_crate_factory(crate);
  ASSERT_TRUE(function->handle_request(request(IPC_SYSTEM_MGR__GET_CRATE_FACTORY)));
  const auto response = only_response();
  EXPECT_EQ(response.result, 1U);
  EXPECT_EQ(response.payload, bytes_of(crate));
}

TEST_F(MiscParametersTest, CrateFactoryOnFcWithoutCrateDataAnswersTheZeroRecord) {
  auto function = make();
  function->set_device_factory(factory_record(SYSTEM_MGR_FAMILY_FC, "QD7R-FC"));
  ASSERT_TRUE(function->handle_request(request(IPC_SYSTEM_MGR__GET_CRATE_FACTORY)));
  const auto response = only_response();
  EXPECT_EQ(response.result, 1U);
  EXPECT_EQ(response.payload, ipc::Payload(280, 0));
}

TEST_F(MiscParametersTest, CrateFactoryOnLcLogsTheFamilyIdAndAnswersAnError) {
  auto function = make();
  function->set_device_factory(factory_record(SYSTEM_MGR_FAMILY_LC, "QD7R-LC-8"));
  function->set_crate_factory(factory_record(SYSTEM_MGR_FAMILY_FC, "QD7R-CRATE-14"));
  const auto result = function->handle_request(request(IPC_SYSTEM_MGR__GET_CRATE_FACTORY));
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  const auto response = only_response();
  EXPECT_EQ(response.result, 0U);
  EXPECT_TRUE(response.payload.empty());
  EXPECT_TRUE(logger->contains("Crate Factory available only FC device family. Actual device family id is 1", 4));
}

TEST_F(MiscParametersTest, CrateFactoryOnLtLogsTheFamilyIdAndAnswersAnError) {
  auto function = make();
  function->set_device_factory(factory_record(SYSTEM_MGR_FAMILY_LT, "Korvan-16GP"));
  const auto result = function->handle_request(request(IPC_SYSTEM_MGR__GET_CRATE_FACTORY));
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(only_response().result, 0U);
  EXPECT_EQ(logger->texts(),
            (std::vector<std::string>{"Handle IPC request [IPC_SYSTEM_MGR__GET_CRATE_FACTORY]",
                                      "Crate Factory available only FC device family. Actual device family id is 0"}));
}

// --- Versions --------------------------------------------------------------------------------

TEST_F(MiscParametersTest, FpgaVersionAnswersExactlyOneByteReadAtConstruction) {
  auto function = make();
  ASSERT_TRUE(function->handle_request(request(IPC_SYSTEM_MGR__GET_FPGA_VERSION)));
  const auto response = only_response();
  EXPECT_EQ(response.result, 1U);
  EXPECT_EQ(response.payload, ipc::Payload{kFpga});
  // The hardware is not read again.
  EXPECT_TRUE(board->calls().empty());
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Handle IPC request [IPC_SYSTEM_MGR__GET_FPGA_VERSION]"}));
}

TEST_F(MiscParametersTest, CpldVersionAnswersExactlyOneByteReadAtConstruction) {
  auto function = make();
  board->answer(BoardOp::get_cpld_config_version, std::uint8_t{0x99});
  ASSERT_TRUE(function->handle_request(request(IPC_SYSTEM_MGR__GET_CPLD_VERSION)));
  EXPECT_EQ(only_response().payload, ipc::Payload{kCpld});
  EXPECT_TRUE(board->calls().empty());
}

TEST_F(MiscParametersTest, VersionRequestWithoutReplyInformationIsAnException) {
  auto function = make();
  auto fpga = request(IPC_SYSTEM_MGR__GET_FPGA_VERSION);
  fpga.reply_to.reset();
  const auto result = function->handle_request(fpga);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Exception);
  EXPECT_TRUE(ipc->responses().empty());
  EXPECT_TRUE(logger->contains("An std::exception was thrown: bad optional access ", 4));
}

TEST_F(MiscParametersTest, FailedSendOfTheAnswerIsReturned) {
  auto function = make();
  ipc->fail_next_send(Error::InvalidState);
  const auto result = function->handle_request(request(IPC_SYSTEM_MGR__GET_CPLD_VERSION));
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
  EXPECT_TRUE(ipc->responses().empty());
}

// --- Front button ----------------------------------------------------------------------------

struct ButtonCase {
  std::uint16_t id;
  const char* identifier;
  BoardOp op;
  const char* failure;  // the level-4 text when the board call fails
  bool query;
};

void PrintTo(const ButtonCase& button, std::ostream* out) {
  *out << button.identifier;
}

class FrontButtonTest : public MiscParametersTest, public ::testing::WithParamInterface<ButtonCase> {};

TEST_P(FrontButtonTest, CallsItsBoardOperationAndAnswers) {
  const ButtonCase& button = GetParam();
  auto function = make();
  if (button.query) {
    board->answer(button.op, std::uint8_t{1});
  }
  ASSERT_TRUE(function->handle_request(request(button.id)));
  EXPECT_EQ(board->ops(), (std::vector<BoardOp>{button.op}));
  const auto response = only_response();
  EXPECT_EQ(response.result, 1U);
  EXPECT_EQ(response.payload, button.query ? ipc::Payload{1} : ipc::Payload{});
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{std::string("Handle IPC request [") + button.identifier + "]"}));
}

TEST_P(FrontButtonTest, BoardFailureIsLoggedAndAnsweredWithTheErrorResponse) {
  const ButtonCase& button = GetParam();
  auto function = make();
  board->fail(button.op, Error::ErrorCApi, "ioctl failed");
  const auto result = function->handle_request(request(button.id));
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  const auto response = only_response();
  EXPECT_EQ(response.result, 0U);
  EXPECT_TRUE(response.payload.empty());
  EXPECT_EQ(logger->texts(),
            (std::vector<std::string>{std::string("Handle IPC request [") + button.identifier + "]",
                                      std::string(button.failure) + " (Error: ErrorCApi. Message: ioctl failed.)"}));
  EXPECT_EQ(logger->lines()[1].level, 4);
}

TEST_P(FrontButtonTest, ThrowingBoardIsLoggedAsAnException) {
  const ButtonCase& button = GetParam();
  auto function = make();
  board->throw_exception(button.op, "driver gone");
  const auto result = function->handle_request(request(button.id));
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(only_response().result, 0U);
  EXPECT_TRUE(logger->contains("An std::exception was thrown: driver gone ", 4));
}

TEST_P(FrontButtonTest, RequestWithoutReplyInformationReachesTheBoardThenIsAnException) {
  const ButtonCase& button = GetParam();
  auto function = make();
  auto without_reply = request(button.id);
  without_reply.reply_to.reset();
  const auto result = function->handle_request(without_reply);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Exception);
  EXPECT_EQ(board->ops(), (std::vector<BoardOp>{button.op}));
  EXPECT_TRUE(ipc->responses().empty());
}

const std::array kCommands = {
    ButtonCase{IPC_SYSTEM_MGR__ENABLE_F_BUTTON, "IPC_SYSTEM_MGR__ENABLE_F_BUTTON", BoardOp::f_btn__enable,
               "f_btn__enable() call failed", false},
    ButtonCase{IPC_SYSTEM_MGR__ENABLE_F_BUTTON_HARD_RESET, "IPC_SYSTEM_MGR__ENABLE_F_BUTTON_HARD_RESET",
               BoardOp::f_btn__enable_hard_reset, "f_btn__enable_hard_reset() call failed", false},
    ButtonCase{IPC_SYSTEM_MGR__DISABLE_F_BUTTON, "IPC_SYSTEM_MGR__DISABLE_F_BUTTON", BoardOp::f_btn__disable,
               "f_btn__disable() call failed", false},
    ButtonCase{IPC_SYSTEM_MGR__DISABLE_F_BUTTON_HARD_RESET, "IPC_SYSTEM_MGR__DISABLE_F_BUTTON_HARD_RESET",
               BoardOp::f_btn__disable_hard_reset, "f_btn__disable_hard_reset() call failed", false},
};
// "pooling" is the board operation's name; kept.
const std::array kQueries = {
    ButtonCase{IPC_SYSTEM_MGR__IS_F_BUTTON_ENABLED, "IPC_SYSTEM_MGR__IS_F_BUTTON_ENABLED",
               BoardOp::f_btn__is_pooling_enabled, "f_btn__is_pooling_enabled() call failed", true},
    ButtonCase{IPC_SYSTEM_MGR__IS_F_BUTTON_HARD_RESET_ENABLED, "IPC_SYSTEM_MGR__IS_F_BUTTON_HARD_RESET_ENABLED",
               BoardOp::f_btn__is_hard_reset_enabled, "f_btn__is_hard_reset_enabled() call failed", true},
    ButtonCase{IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED, "IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED", BoardOp::f_btn__is_pressed,
               "f_btn__is_pressed() call failed", true}};

INSTANTIATE_TEST_SUITE_P(Commands, FrontButtonTest, ::testing::ValuesIn(kCommands));
INSTANTIATE_TEST_SUITE_P(Queries, FrontButtonTest, ::testing::ValuesIn(kQueries));

class FrontButtonQueryTest : public MiscParametersTest, public ::testing::WithParamInterface<ButtonCase> {};

TEST_P(FrontButtonQueryTest, AnswersTheByteAsTheBoardGivesIt) {
  const ButtonCase& query = GetParam();
  auto function = make();
  board->answer(query.op, std::uint8_t{0});
  ASSERT_TRUE(function->handle_request(request(query.id)));
  EXPECT_EQ(only_response().payload, ipc::Payload{0});
}

INSTANTIATE_TEST_SUITE_P(Queries, FrontButtonQueryTest, ::testing::ValuesIn(kQueries));

// --- P-port LEDs -----------------------------------------------------------------------------

TEST_F(MiscParametersTest, RedOnGreenOffSetsRedThenGreen) {
  auto function = make();
  ASSERT_TRUE(function->handle_request(request(IPC_SYSTEM_MGR__P_PORT_R_LED_ON_G_LED_OFF, {3, 0, 0, 0})));
  EXPECT_EQ(led_calls(), (std::vector<Brd__p_port_led>{port_led(3, 1, 2), port_led(3, 0, 0)}));
  const auto response = only_response();
  EXPECT_EQ(response.result, 1U);
  EXPECT_TRUE(response.payload.empty());
  EXPECT_EQ(logger->texts(),
            (std::vector<std::string>{"Handle IPC request [IPC_SYSTEM_MGR__P_PORT_R_LED_ON_G_LED_OFF]"}));
}

TEST_F(MiscParametersTest, GreenOnRedOffSetsRedOffThenGreenOn) {
  auto function = make();
  ASSERT_TRUE(function->handle_request(request(IPC_SYSTEM_MGR__P_PORT_G_LED_ON_R_LED_OFF, {0x10, 0, 0, 0})));
  EXPECT_EQ(led_calls(), (std::vector<Brd__p_port_led>{port_led(16, 0, 2), port_led(16, 1, 0)}));
  EXPECT_EQ(only_response().result, 1U);
}

TEST_F(MiscParametersTest, LedOffSwitchesBothElementsOff) {
  auto function = make();
  ASSERT_TRUE(function->handle_request(request(IPC_SYSTEM_MGR__P_PORT_LED_OFF, {1, 0, 0, 0})));
  EXPECT_EQ(led_calls(), (std::vector<Brd__p_port_led>{port_led(1, 0, 2), port_led(1, 0, 0)}));
  EXPECT_EQ(only_response().result, 1U);
}

TEST_F(MiscParametersTest, LedRequestWithAThreeBytePayloadIsRefusedWithoutTouchingTheBoard) {
  auto function = make();
  expect_refused(*function, IPC_SYSTEM_MGR__P_PORT_R_LED_ON_G_LED_OFF, {1, 0, 0});
}

TEST_F(MiscParametersTest, LedRequestWithAnEmptyPayloadIsRefusedWithoutTouchingTheBoard) {
  auto function = make();
  expect_refused(*function, IPC_SYSTEM_MGR__P_PORT_LED_OFF, {});
}

TEST_F(MiscParametersTest, LedRequestUsesTheFirstFourBytesOfALongerPayload) {
  auto function = make();
  ipc::Payload payload(4096, 0xAB);
  payload[0] = 2;
  payload[1] = 0;
  payload[2] = 0;
  payload[3] = 0;
  ASSERT_TRUE(function->handle_request(request(IPC_SYSTEM_MGR__P_PORT_G_LED_ON_R_LED_OFF, payload)));
  EXPECT_EQ(led_calls(), (std::vector<Brd__p_port_led>{port_led(2, 0, 2), port_led(2, 1, 0)}));
}

TEST_F(MiscParametersTest, LedRequestWithATwelveBytePayloadUsesItsFirstFourBytes) {
  auto function = make();
  ASSERT_TRUE(function->handle_request(
      request(IPC_SYSTEM_MGR__P_PORT_R_LED_ON_G_LED_OFF, {5, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0})));
  EXPECT_EQ(led_calls(), (std::vector<Brd__p_port_led>{port_led(5, 1, 2), port_led(5, 0, 0)}));
  EXPECT_EQ(only_response().result, 1U);
}

TEST_F(MiscParametersTest, LedRequestPortIsLittleEndianAndPassedUnchecked) {
  // The driver judges the port: an unknown one still goes to the board.
  auto function = make();
  ASSERT_TRUE(function->handle_request(
      request(IPC_SYSTEM_MGR__P_PORT_R_LED_ON_G_LED_OFF, {0x04, 0x03, 0x02, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0})));
  EXPECT_EQ(led_calls(), (std::vector<Brd__p_port_led>{port_led(0x01020304, 1, 2), port_led(0x01020304, 0, 0)}));
}

TEST_F(MiscParametersTest, FailedRedCallSkipsTheGreenCall) {
  auto function = make();
  board->fail(BoardOp::p_port__set_led_state, Error::ErrorCApi, "EINVAL", test::FakeBoard::Times::once);
  const auto result = function->handle_request(request(IPC_SYSTEM_MGR__P_PORT_R_LED_ON_G_LED_OFF, {9, 0, 0, 0}));
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  EXPECT_EQ(led_calls(), (std::vector<Brd__p_port_led>{port_led(9, 1, 2)}));
  EXPECT_EQ(only_response().result, 0U);
  EXPECT_TRUE(logger->contains("p_port__set_led_state() call failed (Error: ErrorCApi. Message: EINVAL.)", 4));
}

// A board whose green P-port LED elements fail, to see the second call's failure.
class GreenFailingBoard : public test::FakeBoard {
 public:
  core::Result<void> p_port__set_led_state(const Brd__p_port_led& led) override {
    auto result = FakeBoard::p_port__set_led_state(led);
    if (led.color == BRD_API__LED_COLOR_GREEN) {
      return core::ErrorPayload(Error::ErrorCApi, "EIO");
    }
    return result;
  }
};

TEST_F(MiscParametersTest, FailedGreenCallIsLoggedAndAnsweredWithTheErrorResponse) {
  auto green_failing = std::make_shared<GreenFailingBoard>();
  MiscParameters function(logger, ipc, green_failing);
  logger->clear();
  const auto result = function.handle_request(request(IPC_SYSTEM_MGR__P_PORT_LED_OFF, {4, 0, 0, 0}));
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  EXPECT_EQ(green_failing->arguments<Brd__p_port_led>(BoardOp::p_port__set_led_state),
            (std::vector<Brd__p_port_led>{port_led(4, 0, 2), port_led(4, 0, 0)}));
  EXPECT_EQ(only_response().result, 0U);
  EXPECT_EQ(logger->texts(),
            (std::vector<std::string>{"Handle IPC request [IPC_SYSTEM_MGR__P_PORT_LED_OFF]",
                                      "p_port__set_led_state() call failed (Error: ErrorCApi. Message: EIO.)"}));
}

TEST_F(MiscParametersTest, LedRequestWithoutReplyInformationSetsTheLedThenIsAnException) {
  auto function = make();
  auto without_reply = request(IPC_SYSTEM_MGR__P_PORT_LED_OFF, {0, 0, 0, 0});
  without_reply.reply_to.reset();
  const auto result = function->handle_request(without_reply);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Exception);
  EXPECT_EQ(led_calls().size(), 2U);
  EXPECT_TRUE(ipc->responses().empty());
}

// --- Payloads and unknown ids ----------------------------------------------------------------

class IgnoredPayloadTest : public MiscParametersTest,
                           public ::testing::WithParamInterface<std::tuple<std::uint16_t, std::size_t>> {};

TEST_P(IgnoredPayloadTest, RequestWithoutArgumentIgnoresItsPayload) {
  const auto [id, size] = GetParam();
  auto function = make();
  function->set_device_factory(factory_record(SYSTEM_MGR_FAMILY_FC, "QD7R-FC"));
  ASSERT_TRUE(function->handle_request(request(id)));
  const auto expected = ipc->responses().back().response;
  ipc::Payload payload(size);
  for (std::size_t i = 0; i < size; ++i) {
    payload[i] = static_cast<std::uint8_t>((i * 37U + 11U) & 0xFFU);
  }
  ASSERT_TRUE(function->handle_request(request(id, payload)));
  const auto second = ipc->responses().back().response;
  EXPECT_EQ(second.result, 1U);
  EXPECT_EQ(second.payload, expected.payload);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, IgnoredPayloadTest,
    ::testing::Combine(::testing::Values(IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, IPC_SYSTEM_MGR__GET_CRATE_FACTORY,
                                         IPC_SYSTEM_MGR__GET_FPGA_VERSION, IPC_SYSTEM_MGR__GET_CPLD_VERSION,
                                         IPC_SYSTEM_MGR__ENABLE_F_BUTTON, IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED),
                       ::testing::Values(std::size_t{3}, std::size_t{4}, std::size_t{11}, std::size_t{12},
                                         std::size_t{4096})));

TEST_F(MiscParametersTest, LedPanelIdIsNotHandledHere) {
  auto function = make();
  const auto result = function->handle_request(request(IPC_SYSTEM_MGR__CNTRL_LED_PANEL, ipc::Payload(12, 0)));
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().info->message, "Unexpected IPC request: 15500|15503");
  EXPECT_TRUE(board->calls().empty());
}

}  // namespace
}  // namespace xpon::system_mgr
