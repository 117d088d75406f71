#include "xpon/board/board.hpp"

#include "xpon/test/fake_driver.hpp"
#include "xpon/test/published_driver_commands.hpp"
#include "xpon/test/recording_logger.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace xpon::board {
namespace {

using core::Error;
using test::bytes_of;
using test::FakeDriver;
using ::testing::ElementsAre;

std::string construction_error(const std::shared_ptr<xpon::test::RecordingLogger>& logger,
                               std::unique_ptr<FakeDriver> driver) {
  try {
    Board board(logger, std::move(driver));
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "(no exception)";
}

// ---------------------------------------------------------------------------
// Construction: the inventory read

class BoardConstructionTest : public ::testing::Test {
 protected:
  std::shared_ptr<xpon::test::RecordingLogger> logger = std::make_shared<xpon::test::RecordingLogger>();
  std::unique_ptr<FakeDriver> owned = std::make_unique<FakeDriver>();
  std::shared_ptr<test::FakeDriverState> driver = owned->state();
};

TEST_F(BoardConstructionTest, ReadsTheSixInventoryValuesInOrder) {
  driver->inventory(0x31, 4, 2, 5, 16, 8);
  Board board(logger, std::move(owned));

  EXPECT_THAT(driver->requests(),
              ElementsAre(0x80014C21UL, 0x80014C22UL, 0x80014C23UL, 0x80014C24UL, 0x80014C25UL, 0x80014C26UL));
  for (const auto& call : driver->calls) {
    EXPECT_EQ(call.argument, std::vector<std::uint8_t>{0}) << "each inventory read passes one zeroed byte";
  }
  EXPECT_EQ(board.get_cpld_config_version().value(), 0x31);
  EXPECT_EQ(board.get_fan_count().value(), 4);
  EXPECT_EQ(board.get_ps_count().value(), 2);
  EXPECT_EQ(board.get_temp_count().value(), 5);
  EXPECT_EQ(board.get_pon_port_count().value(), 16);
  EXPECT_EQ(board.get_front_port_count().value(), 8);
}

TEST_F(BoardConstructionTest, LogsCreationAtProgressLevelAfterTheInventory) {
  driver->inventory(1, 1, 1, 1, 1, 1);
  Board board(logger, std::move(owned));

  ASSERT_EQ(logger->lines().size(), 1U);
  EXPECT_EQ(logger->lines()[0].text, "Board create successfully");
  EXPECT_EQ(logger->lines()[0].level, 0);
}

TEST_F(BoardConstructionTest, InventoryAnswersDoNotTouchTheDriverAgain) {
  driver->inventory(9, 1, 1, 1, 1, 1);
  Board board(logger, std::move(owned));
  driver->calls.clear();

  EXPECT_EQ(board.get_cpld_config_version().value(), 9);
  EXPECT_EQ(board.get_temp_count().value(), 1);
  EXPECT_TRUE(driver->calls.empty());
}

TEST_F(BoardConstructionTest, ZeroValuesAreStoredAsReadAndAreNoError) {
  driver->inventory(0, 0, 0, 0, 0, 0);
  Board board(logger, std::move(owned));

  EXPECT_EQ(board.get_temp_count().value(), 0);
  EXPECT_EQ(board.get_fan_count().value(), 0);
  EXPECT_EQ(board.get_cpld_config_version().value(), 0);
  EXPECT_TRUE(logger->contains("Board create successfully", 0));
}

TEST_F(BoardConstructionTest, ThirdCommandFailingStopsTheReadAndNamesPsCount) {
  driver->inventory(0x31, 4, 2, 5, 16, 8);
  driver->fail(BOARD_GET_PS_COUNT, EIO);

  EXPECT_EQ(construction_error(logger, std::move(owned)),
            "IOCTL(BOARD_GET_PS_COUNT) call failed (Error: ErrorCApi. Message: BOARD_GET_PS_COUNT: ioctl returned -1, "
            "errno=5 (Input/output error).) ");
  EXPECT_THAT(driver->requests(), ElementsAre(BOARD_GET_CPLD_VERSION, BOARD_GET_FAN_COUNT, BOARD_GET_PS_COUNT));
  EXPECT_FALSE(logger->contains("Board create successfully"));
}

struct InventoryFailure {
  unsigned long request;
  const char* message_head;
  std::size_t calls_issued;
};

class BoardInventoryFailureTest : public BoardConstructionTest,
                                  public ::testing::WithParamInterface<InventoryFailure> {};

TEST_P(BoardInventoryFailureTest, ThrowsTheCommandsOwnTextWithATrailingBlank) {
  const auto& failure = GetParam();
  driver->inventory(1, 2, 3, 4, 5, 6);
  driver->fail(failure.request, ENODEV);

  const std::string expected = std::string(failure.message_head) +
                               " call failed (Error: ErrorCApi. Message: " + board_command_name(failure.request) +
                               ": ioctl returned -1, errno=19 (No such device).) ";
  EXPECT_EQ(construction_error(logger, std::move(owned)), expected);
  EXPECT_EQ(driver->calls.size(), failure.calls_issued);
  EXPECT_EQ(driver->calls.back().request, failure.request);
}

INSTANTIATE_TEST_SUITE_P(
    EachInventoryCommand, BoardInventoryFailureTest,
    ::testing::Values(InventoryFailure{BOARD_GET_CPLD_VERSION, "IOCTL(BOARD_GET_CPLD_VERSION)", 1},
                      InventoryFailure{BOARD_GET_FAN_COUNT, "IOCTL(BOARD_GET_FAN_COUNT)", 2},
                      InventoryFailure{BOARD_GET_PS_COUNT, "IOCTL(BOARD_GET_PS_COUNT)", 3},
                      InventoryFailure{BOARD_GET_TEMP_COUNT, "IOCTL(BOARD_GET_TEMP_COUNT)", 4},
                      InventoryFailure{BOARD_GET_PON_PORT_COUNT, "IOCTL(BOARD_GET_PON_PORT_COUNT)", 5},
                      InventoryFailure{BOARD_GET_FRONT_PORT_COUNT, "IOCTL(BOARD_GET_FRONT_PORT_COUNT)", 6}),
    [](const ::testing::TestParamInfo<InventoryFailure>& param) { return board_command_name(param.param.request); });

TEST_F(BoardConstructionTest, StdExceptionFromTheDriverIsLoggedAndBecomesException) {
  driver->inventory(1, 2, 3, 4, 5, 6);
  driver->throws[BOARD_GET_FAN_COUNT] = [] { throw std::runtime_error("driver gone"); };

  EXPECT_EQ(construction_error(logger, std::move(owned)), "IOCTL(BOARD_GET_FAN_COUNT) call failed (Error: Exception) ");
  EXPECT_TRUE(logger->contains("An std::exception was thrown: driver gone ", 4));
}

TEST_F(BoardConstructionTest, OtherExceptionFromTheDriverIsLoggedAndBecomesException) {
  driver->inventory(1, 2, 3, 4, 5, 6);
  driver->throws[BOARD_GET_CPLD_VERSION] = [] { throw 42; };

  EXPECT_EQ(construction_error(logger, std::move(owned)),
            "IOCTL(BOARD_GET_CPLD_VERSION) call failed (Error: Exception) ");
  EXPECT_TRUE(logger->contains("An exception was thrown. ", 4));
  EXPECT_EQ(driver->calls.size(), 1U);
}

TEST_F(BoardConstructionTest, MissingWrapperIsRefused) {
  EXPECT_THROW(Board(logger, nullptr), std::runtime_error);
}

TEST_F(BoardConstructionTest, MissingLoggerIsRefused) {
  driver->inventory(1, 2, 3, 4, 5, 6);
  EXPECT_THROW(Board(nullptr, std::move(owned)), std::runtime_error);
}

// A driver that notes when the board lets go of it.
class ClosingDriver : public FakeDriver {
 public:
  explicit ClosingDriver(std::shared_ptr<xpon::test::RecordingLogger> log) : log_(std::move(log)) {
    state()->inventory(1, 2, 3, 4, 5, 6);
  }
  ~ClosingDriver() override { log_->log(0, "driver released", std::source_location::current()); }

 private:
  std::shared_ptr<xpon::test::RecordingLogger> log_;
};

TEST(BoardDestructionTest, LogsDestructionThenReleasesTheWrapper) {
  auto logger = std::make_shared<xpon::test::RecordingLogger>();
  auto driver = std::make_unique<ClosingDriver>(logger);
  {
    Board board(logger, std::move(driver));
    logger->clear();
  }
  EXPECT_THAT(logger->texts(), ElementsAre("Board destroy successfully", "driver released"));
  EXPECT_EQ(logger->lines()[0].level, 0);
}

// ---------------------------------------------------------------------------
// Operations

class BoardOperationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto owned = std::make_unique<FakeDriver>();
    driver = owned->state();
    driver->inventory(0x31, 3, 2, 5, 16, 8);
    board = std::make_unique<Board>(logger, std::move(owned));
    driver->calls.clear();
    logger->clear();
  }

  // The single call issued since SetUp.
  const test::FakeDriverState::Call& only_call() const {
    EXPECT_EQ(driver->calls.size(), 1U);
    return driver->calls.front();
  }

  std::shared_ptr<xpon::test::RecordingLogger> logger = std::make_shared<xpon::test::RecordingLogger>();
  std::shared_ptr<test::FakeDriverState> driver;
  std::unique_ptr<Board> board;
};

TEST_F(BoardOperationTest, FpgaVersionIsReadFromTheDriverEachTime) {
  driver->reply(BOARD_GET_FPGA_VERSION, std::uint8_t{0x17});
  EXPECT_EQ(board->get_fpga_config_version().value(), 0x17);
  EXPECT_EQ(only_call().request, 0x80014C27UL);
  EXPECT_EQ(only_call().argument, std::vector<std::uint8_t>{0});
}

TEST_F(BoardOperationTest, FrontButtonQueriesUseTheirOwnCommands) {
  driver->reply(BOARD_F_BTN_IS_PRESSED, std::uint8_t{1});
  driver->reply(BOARD_F_BTN_IS_POLLING_ENABLED, std::uint8_t{0});
  driver->reply(BOARD_F_BTN_IS_HARD_RESET_ENABLED, std::uint8_t{1});

  EXPECT_EQ(board->f_btn__is_pressed().value(), 1);
  EXPECT_EQ(board->f_btn__is_pooling_enabled().value(), 0);
  EXPECT_EQ(board->f_btn__is_hard_reset_enabled().value(), 1);
  EXPECT_THAT(driver->requests(),
              ElementsAre(BOARD_F_BTN_IS_PRESSED, BOARD_F_BTN_IS_POLLING_ENABLED, BOARD_F_BTN_IS_HARD_RESET_ENABLED));
}

TEST_F(BoardOperationTest, FrontButtonSettingsPassOneFlagByte) {
  ASSERT_TRUE(board->f_btn__enable());
  ASSERT_TRUE(board->f_btn__disable());
  ASSERT_TRUE(board->f_btn__enable_hard_reset());
  ASSERT_TRUE(board->f_btn__disable_hard_reset());

  ASSERT_EQ(driver->calls.size(), 4U);
  EXPECT_EQ(driver->calls[0].request, BOARD_F_BTN_SET_POLLING);
  EXPECT_EQ(driver->calls[0].argument, std::vector<std::uint8_t>{1});
  EXPECT_EQ(driver->calls[1].request, BOARD_F_BTN_SET_POLLING);
  EXPECT_EQ(driver->calls[1].argument, std::vector<std::uint8_t>{0});
  EXPECT_EQ(driver->calls[2].request, BOARD_F_BTN_SET_HARD_RESET);
  EXPECT_EQ(driver->calls[2].argument, std::vector<std::uint8_t>{1});
  EXPECT_EQ(driver->calls[3].request, BOARD_F_BTN_SET_HARD_RESET);
  EXPECT_EQ(driver->calls[3].argument, std::vector<std::uint8_t>{0});
}

TEST_F(BoardOperationTest, FanSpeedPassesTheSettingUnchanged) {
  ASSERT_TRUE(board->set_fan_speed(159));
  EXPECT_EQ(only_call().request, BOARD_SET_FAN_SPEED);
  EXPECT_EQ(only_call().argument, std::vector<std::uint8_t>{159});
}

TEST_F(BoardOperationTest, FanModuleSpeedPassesTheSettingUnchanged) {
  ASSERT_TRUE(board->set_fan_module_speed(102));
  EXPECT_EQ(only_call().request, BOARD_SET_FAN_MODULE_SPEED);
  EXPECT_EQ(only_call().argument, std::vector<std::uint8_t>{102});
}

TEST_F(BoardOperationTest, LedPanelCommandReachesTheDriverByteForByte) {
  const Brd__led led{BRD_API__PANEL_LED_ALARM, BRD_API__LED_MODE_BLINK, BRD_API__LED_COLOR_RED};
  ASSERT_TRUE(board->cntrl_led_panel(led));
  EXPECT_EQ(only_call().request, BOARD_CNTRL_LED_PANEL);
  EXPECT_EQ(only_call().argument, bytes_of(led));
  EXPECT_EQ(only_call().argument.size(), 12U);
}

TEST_F(BoardOperationTest, PPortLedStateReachesTheDriverByteForByte) {
  const Brd__p_port_led led{7, BRD_API__LED_MODE_ON, BRD_API__LED_COLOR_RED};
  ASSERT_TRUE(board->p_port__set_led_state(led));
  EXPECT_EQ(only_call().request, BOARD_P_PORT_SET_LED_STATE);
  EXPECT_THAT(only_call().argument, ElementsAre(7, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0));
}

TEST_F(BoardOperationTest, PPortLedReadBackFillsTheMode) {
  driver->reply_with<Brd__p_port_led>(BOARD_P_PORT_GET_LED_STATE, [](Brd__p_port_led& led) {
    led.mode = led.port == 3 && led.color == BRD_API__LED_COLOR_GREEN ? BRD_API__LED_MODE_ON : BRD_API__LED_MODE_OFF;
  });
  Brd__p_port_led led{3, BRD_API__LED_MODE_OFF, BRD_API__LED_COLOR_GREEN};
  ASSERT_TRUE(board->p_port__get_led_state(led));
  EXPECT_EQ(led.mode, static_cast<std::uint32_t>(BRD_API__LED_MODE_ON));
  EXPECT_EQ(only_call().request, BOARD_P_PORT_GET_LED_STATE);
}

TEST_F(BoardOperationTest, TransmitterSwitchesUseTheGroupsCommand) {
  Brd__cntrl_sfp_trx p_port{5, 1, {0, 0, 0}};
  Brd__cntrl_sfp_trx f_port{2, 0, {0, 0, 0}};
  ASSERT_TRUE(board->cntrl_p_port_sfp_trx(p_port));
  ASSERT_TRUE(board->cntrl_f_port_sfp_trx(f_port));

  ASSERT_EQ(driver->calls.size(), 2U);
  EXPECT_EQ(driver->calls[0].request, BOARD_CNTRL_P_PORT_SFP_TRX);
  EXPECT_THAT(driver->calls[0].argument, ElementsAre(5, 0, 0, 0, 1, 0, 0, 0));
  EXPECT_EQ(driver->calls[1].request, BOARD_CNTRL_F_PORT_SFP_TRX);
  EXPECT_THAT(driver->calls[1].argument, ElementsAre(2, 0, 0, 0, 0, 0, 0, 0));
}

TEST_F(BoardOperationTest, TransmitterReadBackFillsTheFlag) {
  driver->reply_with<Brd__cntrl_sfp_trx>(BOARD_GET_P_PORT_SFP_TRX,
                                         [](Brd__cntrl_sfp_trx& trx) { trx.enable = trx.port == 4 ? 1 : 0; });
  Brd__cntrl_sfp_trx trx{4, 0, {0, 0, 0}};
  ASSERT_TRUE(board->get_p_port_sfp_trx(trx));
  EXPECT_EQ(trx.enable, 1);
  EXPECT_EQ(only_call().request, BOARD_GET_P_PORT_SFP_TRX);
}

TEST_F(BoardOperationTest, FanInfoAsksForTheInventoryCountAndReturnsTheFilledRecords) {
  driver->reply_with<Brd__fan_list>(BOARD_GET_FAN_INFO, [](Brd__fan_list& list) {
    for (std::uint32_t index = 0; index < list.count; ++index) {
      list.info[index] = Brd__fan_info{0, 1, static_cast<std::uint16_t>(100 + index)};
    }
  });
  auto fans = board->get_fan_info();

  ASSERT_TRUE(fans);
  ASSERT_EQ(fans.value().size(), 3U);
  EXPECT_EQ(fans.value()[0].speed, 100);
  EXPECT_EQ(fans.value()[2].speed, 102);
  EXPECT_EQ(fans.value()[1].present, 1);
  EXPECT_EQ(only_call().request, BOARD_GET_FAN_INFO);
  EXPECT_EQ(only_call().argument.size(), sizeof(Brd__fan_list));
  EXPECT_THAT(std::vector<std::uint8_t>(only_call().argument.begin(), only_call().argument.begin() + 4),
              ElementsAre(3, 0, 0, 0));
}

TEST_F(BoardOperationTest, FanInfoReturnsFewerRecordsWhenTheDriverFillsFewer) {
  driver->reply_with<Brd__fan_list>(BOARD_GET_FAN_INFO, [](Brd__fan_list& list) {
    list.count = 1;
    list.info[0] = Brd__fan_info{1, 0, 7};
  });
  auto fans = board->get_fan_info();

  ASSERT_TRUE(fans);
  ASSERT_EQ(fans.value().size(), 1U);
  EXPECT_EQ(fans.value()[0].fault, 1);
  EXPECT_EQ(fans.value()[0].speed, 7);
}

TEST_F(BoardOperationTest, FanInfoRefusesACountAboveTheRequest) {
  driver->reply_with<Brd__fan_list>(BOARD_GET_FAN_INFO, [](Brd__fan_list& list) { list.count = 4; });
  auto fans = board->get_fan_info();

  ASSERT_FALSE(fans);
  EXPECT_EQ(fans.error().error, Error::CommonError);
  EXPECT_EQ(fans.error().to_string(),
            "Error: CommonError. Message: BOARD_GET_FAN_INFO: the driver reported 4 records, 3 were requested.");
}

TEST(BoardListLimitTest, FanInfoNeverAsksForMoreThanTheRecordHolds) {
  auto logger = std::make_shared<xpon::test::RecordingLogger>();
  auto owned = std::make_unique<FakeDriver>();
  auto driver = owned->state();
  driver->inventory(1, 200, 200, 1, 1, 1);
  Board board(logger, std::move(owned));
  driver->calls.clear();
  driver->reply_with<Brd__fan_list>(BOARD_GET_FAN_INFO, [](Brd__fan_list&) {});
  driver->reply_with<Brd__ps_list>(BOARD_GET_PS_INFO, [](Brd__ps_list&) {});

  auto fans = board.get_fan_info();
  auto supplies = board.get_ps_info();

  ASSERT_TRUE(fans);
  EXPECT_EQ(fans.value().size(), static_cast<std::size_t>(BRD_MAX_FANS));
  ASSERT_TRUE(supplies);
  EXPECT_EQ(supplies.value().size(), static_cast<std::size_t>(BRD_MAX_POWER_SUPPLIES));
  ASSERT_EQ(driver->calls.size(), 2U);
  EXPECT_EQ(driver->calls[0].argument[0], BRD_MAX_FANS);
  EXPECT_EQ(driver->calls[1].argument[0], BRD_MAX_POWER_SUPPLIES);
}

TEST(BoardListLimitTest, NoFansGiveAnEmptyList) {
  auto logger = std::make_shared<xpon::test::RecordingLogger>();
  auto owned = std::make_unique<FakeDriver>();
  auto driver = owned->state();
  driver->inventory(1, 0, 0, 0, 0, 0);
  Board board(logger, std::move(owned));

  auto fans = board.get_fan_info();
  ASSERT_TRUE(fans);
  EXPECT_TRUE(fans.value().empty());
  EXPECT_EQ(driver->calls.back().request, BOARD_GET_FAN_INFO);
}

TEST_F(BoardOperationTest, PsInfoReturnsOneRecordPerSupply) {
  driver->reply_with<Brd__ps_list>(BOARD_GET_PS_INFO, [](Brd__ps_list& list) {
    for (std::uint32_t index = 0; index < list.count; ++index) {
      list.info[index] = Brd__ps_info{};
      list.info[index].id = static_cast<std::uint8_t>(index);
      list.info[index].is_present = 1;
      list.info[index].is_power_good = index == 0 ? 1 : 0;
      std::strcpy(list.info[index].model, "PSU-150W");
    }
  });
  auto supplies = board->get_ps_info();

  ASSERT_TRUE(supplies);
  ASSERT_EQ(supplies.value().size(), 2U);
  EXPECT_EQ(supplies.value()[0].is_power_good, 1);
  EXPECT_EQ(supplies.value()[1].is_power_good, 0);
  EXPECT_STREQ(supplies.value()[1].model, "PSU-150W");
  EXPECT_EQ(only_call().request, BOARD_GET_PS_INFO);
  EXPECT_EQ(only_call().argument[0], 2);
}

TEST_F(BoardOperationTest, PsInfoRefusesACountAboveTheRequest) {
  driver->reply_with<Brd__ps_list>(BOARD_GET_PS_INFO, [](Brd__ps_list& list) { list.count = 9; });
  auto supplies = board->get_ps_info();
  ASSERT_FALSE(supplies);
  EXPECT_EQ(supplies.error().error, Error::CommonError);
}

TEST_F(BoardOperationTest, TempInfoFillsEveryRecordOfTheCallersVector) {
  driver->reply_with<Brd__temp_list>(BOARD_GET_TEMP_INFO, [](Brd__temp_list& list) {
    for (std::uint32_t index = 0; index < list.count; ++index) {
      list.info[index] = Brd__temp_info{static_cast<std::int32_t>(index), static_cast<std::int8_t>(40 + index), {}};
    }
  });
  std::vector<Brd__temp_info> temps(3);
  ASSERT_TRUE(board->get_temp_info(temps));

  EXPECT_EQ(temps[0].id, 0);
  EXPECT_EQ(temps[2].id, 2);
  EXPECT_EQ(temps[2].temperature, 42);
  EXPECT_EQ(only_call().request, BOARD_GET_TEMP_INFO);
  EXPECT_EQ(only_call().argument[0], 3);
}

TEST_F(BoardOperationTest, TempInfoKeepsNegativeReadings) {
  driver->reply_with<Brd__temp_list>(BOARD_GET_TEMP_INFO, [](Brd__temp_list& list) {
    list.info[0] = Brd__temp_info{4, -12, {}};
  });
  std::vector<Brd__temp_info> temps(1);
  ASSERT_TRUE(board->get_temp_info(temps));
  EXPECT_EQ(temps[0].id, 4);
  EXPECT_EQ(temps[0].temperature, -12);
}

TEST_F(BoardOperationTest, TempInfoShortAnswerIsAnError) {
  driver->reply_with<Brd__temp_list>(BOARD_GET_TEMP_INFO, [](Brd__temp_list& list) { list.count = 2; });
  std::vector<Brd__temp_info> temps(3);
  auto filled = board->get_temp_info(temps);

  ASSERT_FALSE(filled);
  EXPECT_EQ(filled.error().to_string(),
            "Error: CommonError. Message: BOARD_GET_TEMP_INFO: the driver filled 2 of 3 readings.");
}

TEST_F(BoardOperationTest, TempInfoForMoreSensorsThanTheRecordHoldsIsRefusedWithoutTheDriver) {
  std::vector<Brd__temp_info> temps(BRD_MAX_TEMP_SENSORS + 1);
  auto filled = board->get_temp_info(temps);

  ASSERT_FALSE(filled);
  EXPECT_EQ(filled.error().error, Error::InvalidInputArg);
  EXPECT_TRUE(driver->calls.empty());
}

TEST_F(BoardOperationTest, TempInfoForNoSensorsAsksForNone) {
  std::vector<Brd__temp_info> temps;
  ASSERT_TRUE(board->get_temp_info(temps));
  EXPECT_EQ(only_call().argument[0], 0);
}

TEST_F(BoardOperationTest, SfpStateReadsUseTheGroupsCommandAndCarryThePort) {
  driver->reply_with<Brd__sfp_state>(BOARD_GET_P_PORT_SFP_STATE, [](Brd__sfp_state& state) {
    state.present = state.port == 6 ? 1 : 0;
    state.state = 0x5A;
  });
  driver->reply_with<Brd__sfp_state>(BOARD_GET_F_PORT_SFP_STATE, [](Brd__sfp_state& state) { state.present = 0; });

  Brd__sfp_state p_port{};
  p_port.port = 6;
  Brd__sfp_state f_port{};
  f_port.port = 1;
  ASSERT_TRUE(board->get_p_port_sfp_state(p_port));
  ASSERT_TRUE(board->get_f_port_sfp_state(f_port));

  EXPECT_EQ(p_port.present, 1);
  EXPECT_EQ(p_port.state, 0x5A);
  EXPECT_EQ(f_port.present, 0);
  ASSERT_EQ(driver->calls.size(), 2U);
  EXPECT_EQ(driver->calls[0].request, BOARD_GET_P_PORT_SFP_STATE);
  EXPECT_THAT(driver->calls[0].argument, ElementsAre(6, 0, 0, 0, 0, 0, 0, 0));
  EXPECT_EQ(driver->calls[1].request, BOARD_GET_F_PORT_SFP_STATE);
  EXPECT_THAT(driver->calls[1].argument, ElementsAre(1, 0, 0, 0, 0, 0, 0, 0));
}

TEST_F(BoardOperationTest, SfpDataReadsUseTheGroupsCommandAndCarryThePort) {
  driver->reply_with<Brd__sfp_data>(BOARD_GET_P_PORT_SFP_DATA,
                                    [](Brd__sfp_data& data) { std::memset(data.data, 0xA0, sizeof data.data); });
  driver->reply_with<Brd__sfp_data>(BOARD_GET_F_PORT_SFP_DATA,
                                    [](Brd__sfp_data& data) { std::memset(data.data, 0x0F, sizeof data.data); });
  Brd__sfp_data p_port{};
  p_port.port = 15;
  Brd__sfp_data f_port{};
  f_port.port = 7;
  ASSERT_TRUE(board->get_p_port_sfp_data(p_port));
  ASSERT_TRUE(board->get_f_port_sfp_data(f_port));

  EXPECT_EQ(p_port.data[59], 0xA0);
  EXPECT_EQ(f_port.data[0], 0x0F);
  EXPECT_EQ(p_port.port, 15U);
  ASSERT_EQ(driver->calls.size(), 2U);
  EXPECT_EQ(driver->calls[0].request, BOARD_GET_P_PORT_SFP_DATA);
  EXPECT_EQ(driver->calls[0].argument[0], 15);
  EXPECT_EQ(driver->calls[1].request, BOARD_GET_F_PORT_SFP_DATA);
  EXPECT_EQ(driver->calls[1].argument[0], 7);
}

TEST_F(BoardOperationTest, SfpDiagnosticsUseTheGroupsCommandAndCarryThePort) {
  driver->reply_with<Brd__sfp_eddi_data>(
      BOARD_GET_P_PORT_SFP_EDDI_DATA, [](Brd__sfp_eddi_data& data) { data.data[BRD_SFP_EDDI_TEMPERATURE] = 0x1900; });
  driver->reply_with<Brd__sfp_eddi_data>(BOARD_GET_F_PORT_SFP_EDDI_DATA,
                                         [](Brd__sfp_eddi_data& data) { data.data[BRD_SFP_EDDI_VOLTAGE] = 33000; });
  Brd__sfp_eddi_data p_port{};
  p_port.port = 2;
  Brd__sfp_eddi_data f_port{};
  f_port.port = 3;
  ASSERT_TRUE(board->get_p_port_sfp_eddi_data(p_port));
  ASSERT_TRUE(board->get_f_port_sfp_eddi_data(f_port));

  EXPECT_EQ(p_port.data[2], 0x1900);
  EXPECT_EQ(f_port.data[5], 33000);
  ASSERT_EQ(driver->calls.size(), 2U);
  EXPECT_EQ(driver->calls[0].request, BOARD_GET_P_PORT_SFP_EDDI_DATA);
  EXPECT_EQ(driver->calls[0].argument[0], 2);
  EXPECT_EQ(driver->calls[1].request, BOARD_GET_F_PORT_SFP_EDDI_DATA);
  EXPECT_EQ(driver->calls[1].argument[0], 3);
}

TEST_F(BoardOperationTest, RxPowerReadingComesBackWithItsCoefficients) {
  driver->reply_with<Brd__sfp_rx_power>(BOARD_GET_P_PORT_SFP_RX_POWER, [](Brd__sfp_rx_power& reading) {
    reading.rx_power = 1200;
    reading.coefficient[0] = 0.5F;
    reading.coefficient[4] = -1.25F;
  });
  Brd__sfp_rx_power reading{};
  ASSERT_TRUE(board->get_p_port_sfp_rx_power(reading));

  EXPECT_EQ(reading.rx_power, 1200);
  EXPECT_FLOAT_EQ(reading.coefficient[0], 0.5F);
  EXPECT_FLOAT_EQ(reading.coefficient[4], -1.25F);
  EXPECT_EQ(only_call().request, BOARD_GET_P_PORT_SFP_RX_POWER);
  EXPECT_EQ(only_call().argument, std::vector<std::uint8_t>(28, 0));
}

TEST_F(BoardOperationTest, FanModuleStateIsReturnedWhole) {
  Wake__fan_module__data state{};
  state.present = 1;
  state.count = 3;
  state.speed[0] = 50;
  state.speed[2] = 52;
  state.reserved[17] = 0xEE;
  driver->reply(BOARD_GET_FAN_MODULE_STATE, state);

  auto read = board->get_fan_module_state();
  ASSERT_TRUE(read);
  EXPECT_EQ(bytes_of(read.value()), bytes_of(state));
  EXPECT_EQ(only_call().request, BOARD_GET_FAN_MODULE_STATE);
  EXPECT_EQ(only_call().argument.size(), 50U);
}

TEST_F(BoardOperationTest, FanModuleFactoryIsReturnedWhole) {
  Wake__fan_module__factory factory{};
  std::memcpy(factory.product_name, "FAN-TRAY-8", 10);
  std::memcpy(factory.mfg_date, "260301", 6);
  driver->reply(BOARD_GET_FAN_MODULE_FACTORY, factory);

  auto read = board->get_fan_module_factory();
  ASSERT_TRUE(read);
  EXPECT_EQ(bytes_of(read.value()), bytes_of(factory));
  EXPECT_EQ(only_call().request, BOARD_GET_FAN_MODULE_FACTORY);
  EXPECT_EQ(only_call().argument.size(), 42U);
}

TEST_F(BoardOperationTest, PowerModuleStateIsReturnedWhole) {
  Wake__pwr_module module{};
  module.present = 1;
  module.power_good = 1;
  module.output_voltage = 1200;
  module.temperature = -5;
  driver->reply(BOARD_GET_PWR_MODULE_STATE, module);

  auto read = board->get_pwr_module_state();
  ASSERT_TRUE(read);
  EXPECT_EQ(bytes_of(read.value()), bytes_of(module));
  EXPECT_EQ(only_call().request, BOARD_GET_PWR_MODULE_STATE);
  EXPECT_EQ(only_call().argument.size(), 20U);
}

TEST_F(BoardOperationTest, DoIoctlRefusesARecordOfTheWrongSizeWithoutTheDriver) {
  auto read = board->do_ioctl<std::uint16_t>(BOARD_GET_FPGA_VERSION);
  ASSERT_FALSE(read);
  EXPECT_EQ(read.error().to_string(),
            "Error: InvalidInputArg. Message: BOARD_GET_FPGA_VERSION: a record of 2 bytes for a command of 1 bytes.");
  EXPECT_TRUE(driver->calls.empty());
}

TEST_F(BoardOperationTest, ExceptionFromTheDriverBecomesAnErrorResult) {
  driver->throws[BOARD_GET_FAN_MODULE_STATE] = [] { throw std::runtime_error("bus hung"); };
  driver->throws[BOARD_SET_FAN_SPEED] = [] { throw 7; };

  auto state = board->get_fan_module_state();
  auto speed = board->set_fan_speed(102);

  ASSERT_FALSE(state);
  EXPECT_EQ(state.error().error, Error::Exception);
  ASSERT_FALSE(speed);
  EXPECT_EQ(speed.error().error, Error::Exception);
  EXPECT_TRUE(logger->contains("An std::exception was thrown: bus hung ", 4));
  EXPECT_TRUE(logger->contains("An exception was thrown. ", 4));
}

TEST_F(BoardOperationTest, DriverFailureLeavesErrnoClear) {
  driver->fail(BOARD_GET_FPGA_VERSION, EAGAIN);
  ASSERT_FALSE(board->get_fpga_config_version());
  EXPECT_EQ(errno, 0);
}

// Every operation that reaches the driver reports a failing ioctl as ErrorCApi naming its command.
struct FailingOperation {
  const char* name;
  unsigned long request;
  std::function<core::Result<void>(Board&)> call;
};

template <typename T>
core::Result<void> as_void(core::Result<T> result) {
  if (result.has_error()) {
    return result.error();
  }
  return core::success();
}

std::vector<FailingOperation> failing_operations() {
  return {
      {"get_fpga_config_version", BOARD_GET_FPGA_VERSION,
       [](Board& b) { return as_void(b.get_fpga_config_version()); }},
      {"f_btn__is_pressed", BOARD_F_BTN_IS_PRESSED, [](Board& b) { return as_void(b.f_btn__is_pressed()); }},
      {"f_btn__is_pooling_enabled", BOARD_F_BTN_IS_POLLING_ENABLED,
       [](Board& b) { return as_void(b.f_btn__is_pooling_enabled()); }},
      {"f_btn__is_hard_reset_enabled", BOARD_F_BTN_IS_HARD_RESET_ENABLED,
       [](Board& b) { return as_void(b.f_btn__is_hard_reset_enabled()); }},
      {"set_fan_speed", BOARD_SET_FAN_SPEED, [](Board& b) { return b.set_fan_speed(1); }},
      {"cntrl_led_panel", BOARD_CNTRL_LED_PANEL, [](Board& b) { return b.cntrl_led_panel(Brd__led{}); }},
      {"p_port__set_led_state", BOARD_P_PORT_SET_LED_STATE,
       [](Board& b) { return b.p_port__set_led_state(Brd__p_port_led{}); }},
      {"p_port__get_led_state", BOARD_P_PORT_GET_LED_STATE,
       [](Board& b) {
         Brd__p_port_led led{};
         return b.p_port__get_led_state(led);
       }},
      {"cntrl_p_port_sfp_trx", BOARD_CNTRL_P_PORT_SFP_TRX,
       [](Board& b) {
         Brd__cntrl_sfp_trx trx{};
         return b.cntrl_p_port_sfp_trx(trx);
       }},
      {"cntrl_f_port_sfp_trx", BOARD_CNTRL_F_PORT_SFP_TRX,
       [](Board& b) {
         Brd__cntrl_sfp_trx trx{};
         return b.cntrl_f_port_sfp_trx(trx);
       }},
      {"get_p_port_sfp_trx", BOARD_GET_P_PORT_SFP_TRX,
       [](Board& b) {
         Brd__cntrl_sfp_trx trx{};
         return b.get_p_port_sfp_trx(trx);
       }},
      {"get_fan_info", BOARD_GET_FAN_INFO, [](Board& b) { return as_void(b.get_fan_info()); }},
      {"get_ps_info", BOARD_GET_PS_INFO, [](Board& b) { return as_void(b.get_ps_info()); }},
      {"get_temp_info", BOARD_GET_TEMP_INFO,
       [](Board& b) {
         std::vector<Brd__temp_info> temps(2);
         return b.get_temp_info(temps);
       }},
      {"get_f_port_sfp_state", BOARD_GET_F_PORT_SFP_STATE,
       [](Board& b) {
         Brd__sfp_state state{};
         return b.get_f_port_sfp_state(state);
       }},
      {"get_p_port_sfp_state", BOARD_GET_P_PORT_SFP_STATE,
       [](Board& b) {
         Brd__sfp_state state{};
         return b.get_p_port_sfp_state(state);
       }},
      {"get_f_port_sfp_data", BOARD_GET_F_PORT_SFP_DATA,
       [](Board& b) {
         Brd__sfp_data data{};
         return b.get_f_port_sfp_data(data);
       }},
      {"get_p_port_sfp_data", BOARD_GET_P_PORT_SFP_DATA,
       [](Board& b) {
         Brd__sfp_data data{};
         return b.get_p_port_sfp_data(data);
       }},
      {"get_f_port_sfp_eddi_data", BOARD_GET_F_PORT_SFP_EDDI_DATA,
       [](Board& b) {
         Brd__sfp_eddi_data data{};
         return b.get_f_port_sfp_eddi_data(data);
       }},
      {"get_p_port_sfp_eddi_data", BOARD_GET_P_PORT_SFP_EDDI_DATA,
       [](Board& b) {
         Brd__sfp_eddi_data data{};
         return b.get_p_port_sfp_eddi_data(data);
       }},
      {"get_p_port_sfp_rx_power", BOARD_GET_P_PORT_SFP_RX_POWER,
       [](Board& b) {
         Brd__sfp_rx_power reading{};
         return b.get_p_port_sfp_rx_power(reading);
       }},
      {"set_fan_module_speed", BOARD_SET_FAN_MODULE_SPEED, [](Board& b) { return b.set_fan_module_speed(1); }},
      {"get_fan_module_factory", BOARD_GET_FAN_MODULE_FACTORY,
       [](Board& b) { return as_void(b.get_fan_module_factory()); }},
      {"get_fan_module_state", BOARD_GET_FAN_MODULE_STATE, [](Board& b) { return as_void(b.get_fan_module_state()); }},
      {"get_pwr_module_state", BOARD_GET_PWR_MODULE_STATE, [](Board& b) { return as_void(b.get_pwr_module_state()); }},
      {"f_btn__enable", BOARD_F_BTN_SET_POLLING, [](Board& b) { return b.f_btn__enable(); }},
      {"f_btn__disable", BOARD_F_BTN_SET_POLLING, [](Board& b) { return b.f_btn__disable(); }},
      {"f_btn__enable_hard_reset", BOARD_F_BTN_SET_HARD_RESET, [](Board& b) { return b.f_btn__enable_hard_reset(); }},
      {"f_btn__disable_hard_reset", BOARD_F_BTN_SET_HARD_RESET, [](Board& b) { return b.f_btn__disable_hard_reset(); }},
  };
}

TEST_F(BoardOperationTest, EveryDriverOperationReportsAFailingIoctlAsErrorCApi) {
  for (const auto& operation : failing_operations()) {
    SCOPED_TRACE(operation.name);
    driver->calls.clear();
    driver->failures.clear();
    driver->fail(operation.request, EIO);

    auto result = operation.call(*board);

    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().error, Error::ErrorCApi);
    EXPECT_EQ(result.error().to_string(), "Error: ErrorCApi. Message: " + board_command_name(operation.request) +
                                              ": ioctl returned -1, errno=5 (Input/output error).");
    ASSERT_EQ(driver->calls.size(), 1U);
    EXPECT_EQ(driver->calls[0].request, operation.request);
  }
  // The board object only reports; logging is left to the callers on the way up.
  EXPECT_TRUE(logger->lines().empty());
}

TEST_F(BoardOperationTest, EveryDriverOperationSucceedsWhenTheDriverDoes) {
  for (const auto& operation : failing_operations()) {
    SCOPED_TRACE(operation.name);
    driver->calls.clear();
    EXPECT_TRUE(operation.call(*board));
    ASSERT_EQ(driver->calls.size(), 1U);
    EXPECT_EQ(driver->calls[0].request, operation.request);
  }
}

// The interface's operation list (the test doubles are generated from it) names the command each
// operation of the board object really issues.
TEST_F(BoardOperationTest, TheOperationListNamesTheCommandEachOperationIssues) {
  std::map<std::string, unsigned long> listed;
#define XPON_LISTED_OPERATION(operation, command, data) listed.emplace(#operation, command);
  XPON_BOARD_OPERATIONS(XPON_LISTED_OPERATION)
#undef XPON_LISTED_OPERATION
  for (const auto& operation : failing_operations()) {
    ASSERT_EQ(listed.count(operation.name), 1U) << operation.name;
    EXPECT_EQ(listed.at(operation.name), operation.request) << operation.name;
  }
  // The inventory operations answer from what construction read with these.
  EXPECT_EQ(listed.at("get_cpld_config_version"), BOARD_GET_CPLD_VERSION);
  EXPECT_EQ(listed.at("get_fan_count"), BOARD_GET_FAN_COUNT);
  EXPECT_EQ(listed.at("get_ps_count"), BOARD_GET_PS_COUNT);
  EXPECT_EQ(listed.at("get_temp_count"), BOARD_GET_TEMP_COUNT);
  EXPECT_EQ(listed.at("get_pon_port_count"), BOARD_GET_PON_PORT_COUNT);
  EXPECT_EQ(listed.at("get_front_port_count"), BOARD_GET_FRONT_PORT_COUNT);
  EXPECT_EQ(listed.size(), failing_operations().size() + 6);
}

// Every command of the driver is reached through some operation of the interface, and no
// operation names anything else.
TEST(BoardOperationListTest, CoversEveryDriverCommandAndNothingElse) {
  std::set<unsigned long> commands;
#define XPON_LISTED_COMMAND(command, record) commands.insert(command);
  BRD_DRIVER_COMMANDS(XPON_LISTED_COMMAND)
#undef XPON_LISTED_COMMAND
  std::set<unsigned long> reached;
#define XPON_REACHED_COMMAND(operation, command, data) reached.insert(command);
  XPON_BOARD_OPERATIONS(XPON_REACHED_COMMAND)
#undef XPON_REACHED_COMMAND
  EXPECT_EQ(reached, commands);
}

TEST(BoardCommandNameTest, NamesOurCommandsAndShowsOthersInHex) {
  EXPECT_EQ(board_command_name(0x80014C21UL), "BOARD_GET_CPLD_VERSION");
  EXPECT_EQ(board_command_name(BOARD_GET_P_PORT_SFP_RX_POWER), "BOARD_GET_P_PORT_SFP_RX_POWER");
  EXPECT_EQ(board_command_name(0x80014C7FUL), "0x80014C7F");
}

// Error texts and logs name every command by its published name, as before the names were generated.
TEST(BoardCommandNameTest, NamesEveryPublishedCodeByItsPublishedName) {
  for (const auto& command : test::kPublishedDriverCommands) {
    EXPECT_EQ(board_command_name(command.request), command.name);
  }
}

}  // namespace
}  // namespace xpon::board
