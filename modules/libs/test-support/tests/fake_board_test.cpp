#include "xpon/test/fake_board.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace xpon::test {
namespace {

using core::Error;

template <typename T>
T record_with(std::uint8_t fill) {
  T record;
  std::memset(&record, fill, sizeof record);
  return record;
}

template <typename T>
bool same_bytes(const T& left, const T& right) {
  return std::memcmp(&left, &right, sizeof left) == 0;
}

TEST(FakeBoardTest, RecordsEveryCallWithItsArgumentInOrder) {
  FakeBoard board;
  auto led = record_with<Brd__led>(0x11);
  auto trx = record_with<Brd__cntrl_sfp_trx>(0x22);
  auto state = record_with<Brd__sfp_state>(0x33);
  std::vector<Brd__temp_info> temps(3, record_with<Brd__temp_info>(0x44));

  ASSERT_TRUE(board.get_fan_count().has_value());
  ASSERT_TRUE(board.set_fan_speed(7).has_value());
  ASSERT_TRUE(board.cntrl_led_panel(led).has_value());
  ASSERT_TRUE(board.cntrl_f_port_sfp_trx(trx).has_value());
  ASSERT_TRUE(board.get_p_port_sfp_state(state).has_value());
  ASSERT_TRUE(board.get_temp_info(temps).has_value());
  ASSERT_TRUE(board.set_fan_speed(9).has_value());
  ASSERT_TRUE(board.f_btn__disable().has_value());

  EXPECT_EQ(board.ops(),
            (std::vector<BoardOp>{BoardOp::get_fan_count, BoardOp::set_fan_speed, BoardOp::cntrl_led_panel,
                                  BoardOp::cntrl_f_port_sfp_trx, BoardOp::get_p_port_sfp_state, BoardOp::get_temp_info,
                                  BoardOp::set_fan_speed, BoardOp::f_btn__disable}));
  const auto calls = board.calls();
  EXPECT_TRUE(std::holds_alternative<std::monostate>(calls[0].argument));
  EXPECT_EQ(board.arguments<std::uint8_t>(BoardOp::set_fan_speed), (std::vector<std::uint8_t>{7, 9}));
  EXPECT_TRUE(same_bytes(std::get<Brd__led>(calls[2].argument), led));
  EXPECT_TRUE(same_bytes(std::get<Brd__cntrl_sfp_trx>(calls[3].argument), trx));
  EXPECT_TRUE(same_bytes(std::get<Brd__sfp_state>(calls[4].argument), state));
  EXPECT_EQ(std::get<std::vector<Brd__temp_info>>(calls[5].argument).size(), 3U);
  EXPECT_EQ(board.count(BoardOp::set_fan_speed), 2U);
  EXPECT_EQ(board.count(BoardOp::get_ps_info), 0U);

  board.clear_calls();
  EXPECT_TRUE(board.calls().empty());
}

TEST(FakeBoardTest, RecordsCallsFromManyThreads) {
  FakeBoard board;
  constexpr int kThreads = 4;
  constexpr int kCalls = 500;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&board, t] {
      for (int i = 0; i < kCalls; ++i) {
        (void)board.set_fan_speed(static_cast<std::uint8_t>(t));
        (void)board.get_fan_info();
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(board.count(BoardOp::set_fan_speed), static_cast<std::size_t>(kThreads * kCalls));
  EXPECT_EQ(board.count(BoardOp::get_fan_info), static_cast<std::size_t>(kThreads * kCalls));
  // Each thread's own calls keep their order in the journal.
  for (int t = 0; t < kThreads; ++t) {
    std::size_t seen = 0;
    for (const auto speed : board.arguments<std::uint8_t>(BoardOp::set_fan_speed)) {
      seen += speed == t ? 1 : 0;
    }
    EXPECT_EQ(seen, static_cast<std::size_t>(kCalls));
  }
}

TEST(FakeBoardTest, AnswersWithZerosAndEmptyListsUntilToldOtherwise) {
  FakeBoard board;
  EXPECT_EQ(board.get_fpga_config_version().value(), 0);
  EXPECT_TRUE(board.get_fan_info().value().empty());
  EXPECT_TRUE(same_bytes(board.get_pwr_module_state().value(), Wake__pwr_module{}));
  auto data = record_with<Brd__sfp_data>(0x5A);
  ASSERT_TRUE(board.get_f_port_sfp_data(data).has_value());
  EXPECT_TRUE(same_bytes(data, record_with<Brd__sfp_data>(0x5A))) << "an unanswered record is left as it came";
}

TEST(FakeBoardTest, AnswersReadOperationsWithTheGivenData) {
  FakeBoard board;
  board.answer<std::uint8_t>(BoardOp::get_ps_count, 2);
  std::vector<Brd__fan_info> fans(2, record_with<Brd__fan_info>(0x01));
  board.answer(BoardOp::get_fan_info, fans);
  const auto factory = record_with<Wake__fan_module__factory>(0x42);
  board.answer(BoardOp::get_fan_module_factory, factory);
  const auto eddi = record_with<Brd__sfp_eddi_data>(0x17);
  board.answer(BoardOp::get_p_port_sfp_eddi_data, eddi);
  board.answer(BoardOp::get_temp_info, std::vector<Brd__temp_info>(4, record_with<Brd__temp_info>(0x09)));

  EXPECT_EQ(board.get_ps_count().value(), 2);
  ASSERT_EQ(board.get_fan_info().value().size(), 2U);
  EXPECT_TRUE(same_bytes(board.get_fan_info().value()[1], fans[1]));
  EXPECT_TRUE(same_bytes(board.get_fan_module_factory().value(), factory));
  Brd__sfp_eddi_data filled{};
  ASSERT_TRUE(board.get_p_port_sfp_eddi_data(filled).has_value());
  EXPECT_TRUE(same_bytes(filled, eddi));
  Brd__sfp_eddi_data other_port{};
  ASSERT_TRUE(board.get_f_port_sfp_eddi_data(other_port).has_value());
  EXPECT_TRUE(same_bytes(other_port, Brd__sfp_eddi_data{})) << "the data belongs to one operation only";

  std::vector<Brd__temp_info> temps(2, record_with<Brd__temp_info>(0xFF));
  ASSERT_TRUE(board.get_temp_info(temps).has_value());
  ASSERT_EQ(temps.size(), 2U) << "the caller's list keeps its size";
  EXPECT_TRUE(same_bytes(temps[1], record_with<Brd__temp_info>(0x09)));
}

TEST(FakeBoardTest, AnswersAPortOfItsOwnBeforeTheOperationsAnswer) {
  FakeBoard board;
  board.answer(BoardOp::get_p_port_sfp_state, Brd__sfp_state{0, 0, 0, 7, 0});
  board.answer_port(BoardOp::get_p_port_sfp_state, 3, Brd__sfp_state{3, 1, 0, 9, 0});
  Brd__sfp_state third{};
  third.port = 3;
  ASSERT_TRUE(board.get_p_port_sfp_state(third).has_value());
  EXPECT_TRUE(same_bytes(third, Brd__sfp_state{3, 1, 0, 9, 0}));
  Brd__sfp_state fourth{};
  fourth.port = 4;
  ASSERT_TRUE(board.get_p_port_sfp_state(fourth).has_value());
  EXPECT_TRUE(same_bytes(fourth, Brd__sfp_state{0, 0, 0, 7, 0})) << "other ports keep the operation's answer";
  Brd__sfp_state front{};
  front.port = 3;
  ASSERT_TRUE(board.get_f_port_sfp_state(front).has_value());
  EXPECT_EQ(front.present, 0) << "the port's answer belongs to one operation only";

  board.forget_port(BoardOp::get_p_port_sfp_state, 3);
  ASSERT_TRUE(board.get_p_port_sfp_state(third).has_value());
  EXPECT_EQ(third.state, 7);
  EXPECT_THROW(board.answer_port(BoardOp::get_p_port_sfp_state, 1, Brd__sfp_data{}), std::invalid_argument);
}

TEST(FakeBoardTest, RefusesDataOfTheWrongTypeOrForACommand) {
  FakeBoard board;
  EXPECT_THROW(board.answer(BoardOp::get_fan_count, 3), std::invalid_argument);
  EXPECT_THROW(board.answer<std::uint8_t>(BoardOp::set_fan_speed, 3), std::invalid_argument);
  EXPECT_THROW(board.answer(BoardOp::get_ps_info, std::vector<Brd__fan_info>{}), std::invalid_argument);
}

TEST(FakeBoardTest, FailsAlwaysWithTheGivenCodeAndMessage) {
  FakeBoard board;
  board.fail(BoardOp::get_fan_info, Error::Exception, "driver gone");
  for (int i = 0; i < 2; ++i) {
    const auto result = board.get_fan_info();
    ASSERT_TRUE(result.has_error());
    EXPECT_EQ(result.error().error, Error::Exception);
    ASSERT_TRUE(result.error().info.has_value());
    EXPECT_EQ(result.error().info->message, "driver gone");
  }
  EXPECT_TRUE(board.get_ps_info().has_value()) << "other operations are not affected";
  board.succeed(BoardOp::get_fan_info);
  EXPECT_TRUE(board.get_fan_info().has_value());
  EXPECT_EQ(board.count(BoardOp::get_fan_info), 3U) << "failed calls are recorded too";
}

TEST(FakeBoardTest, FailsOnceThenAnswersNormally) {
  FakeBoard board;
  board.answer<std::uint8_t>(BoardOp::get_cpld_config_version, 5);
  board.fail(BoardOp::get_cpld_config_version, Error::CommonError, "", FakeBoard::Times::once);
  const auto first = board.get_cpld_config_version();
  ASSERT_TRUE(first.has_error());
  EXPECT_EQ(first.error().error, Error::CommonError);
  EXPECT_FALSE(first.error().info.has_value() && first.error().info->message.has_value());
  EXPECT_EQ(board.get_cpld_config_version().value(), 5);
}

TEST(FakeBoardTest, OnceOutcomesComeFirstThenTheAlwaysOne) {
  FakeBoard board;
  board.fail(BoardOp::set_fan_module_speed, Error::InvalidState, "always");
  board.fail(BoardOp::set_fan_module_speed, Error::InvalidInputArg, "first", FakeBoard::Times::once);
  board.throw_exception(BoardOp::set_fan_module_speed, "second", FakeBoard::Times::once);
  const auto first = board.set_fan_module_speed(1);
  ASSERT_TRUE(first.has_error());
  EXPECT_EQ(first.error().error, Error::InvalidInputArg);
  EXPECT_THROW((void)board.set_fan_module_speed(2), std::runtime_error);
  const auto third = board.set_fan_module_speed(3);
  ASSERT_TRUE(third.has_error());
  EXPECT_EQ(third.error().error, Error::InvalidState);
  EXPECT_EQ(board.arguments<std::uint8_t>(BoardOp::set_fan_module_speed), (std::vector<std::uint8_t>{1, 2, 3}));
}

TEST(FakeBoardTest, ThrowsAStdExceptionWithTheGivenText) {
  FakeBoard board;
  board.throw_exception(BoardOp::get_p_port_sfp_rx_power, "ioctl exploded");
  Brd__sfp_rx_power reading{};
  try {
    (void)board.get_p_port_sfp_rx_power(reading);
    FAIL() << "no exception";
  } catch (const std::exception& error) {
    EXPECT_STREQ(error.what(), "ioctl exploded");
  }
  EXPECT_THROW((void)board.get_p_port_sfp_rx_power(reading), std::exception) << "an always outcome stays";
}

TEST(FakeBoardTest, ThrowsSomethingThatIsNotAStdExceptionOnce) {
  FakeBoard board;
  board.throw_non_std(BoardOp::f_btn__enable, "odd", FakeBoard::Times::once);
  bool caught_as_std = false;
  bool caught_other = false;
  try {
    (void)board.f_btn__enable();
  } catch (const std::exception&) {
    caught_as_std = true;
  } catch (const NonStdBoardFault& fault) {
    caught_other = fault.text == "odd";
  }
  EXPECT_FALSE(caught_as_std);
  EXPECT_TRUE(caught_other);
  EXPECT_TRUE(board.f_btn__enable().has_value());
}

TEST(FakeBoardTest, NamesEveryOperation) {
  EXPECT_EQ(board_op_name(BoardOp::get_fpga_config_version), "get_fpga_config_version");
  EXPECT_EQ(board_op_name(BoardOp::get_p_port_sfp_rx_power), "get_p_port_sfp_rx_power");
  EXPECT_EQ(board_op_name(BoardOp::f_btn__disable_hard_reset), "f_btn__disable_hard_reset");
}

// The enum and the names are generated from the board interface's operation list: every
// operation, in the interface's order, keeps the name tests print.
TEST(FakeBoardTest, NamesTheOperationsInTheInterfacesOrder) {
  const std::vector<std::string> expected{
      "get_fpga_config_version",
      "get_cpld_config_version",
      "get_fan_count",
      "get_ps_count",
      "get_temp_count",
      "get_pon_port_count",
      "get_front_port_count",
      "f_btn__is_pressed",
      "f_btn__is_pooling_enabled",
      "f_btn__is_hard_reset_enabled",
      "set_fan_speed",
      "cntrl_led_panel",
      "p_port__set_led_state",
      "p_port__get_led_state",
      "cntrl_p_port_sfp_trx",
      "cntrl_f_port_sfp_trx",
      "get_p_port_sfp_trx",
      "get_fan_info",
      "get_ps_info",
      "get_temp_info",
      "get_f_port_sfp_state",
      "get_p_port_sfp_state",
      "get_f_port_sfp_data",
      "get_p_port_sfp_data",
      "get_f_port_sfp_eddi_data",
      "get_p_port_sfp_eddi_data",
      "get_p_port_sfp_rx_power",
      "set_fan_module_speed",
      "get_fan_module_factory",
      "get_fan_module_state",
      "get_pwr_module_state",
      "f_btn__enable",
      "f_btn__disable",
      "f_btn__enable_hard_reset",
      "f_btn__disable_hard_reset",
  };
  for (std::size_t index = 0; index < expected.size(); ++index) {
    EXPECT_EQ(board_op_name(static_cast<BoardOp>(index)), expected[index]);
  }
  EXPECT_EQ(board_op_name(static_cast<BoardOp>(expected.size())), "(unknown board operation)");
}

// The data each read operation answers with, generated from the same list.
TEST(FakeBoardTest, TakesEachReadOperationsOwnTypeOfData) {
  FakeBoard board;
  EXPECT_NO_THROW(board.answer<std::uint8_t>(BoardOp::get_front_port_count, 8));
  EXPECT_NO_THROW(board.answer<std::uint8_t>(BoardOp::f_btn__is_hard_reset_enabled, 1));
  EXPECT_NO_THROW(board.answer(BoardOp::p_port__get_led_state, Brd__p_port_led{}));
  EXPECT_NO_THROW(board.answer(BoardOp::get_p_port_sfp_trx, Brd__cntrl_sfp_trx{}));
  EXPECT_NO_THROW(board.answer(BoardOp::get_fan_info, std::vector<Brd__fan_info>{}));
  EXPECT_NO_THROW(board.answer(BoardOp::get_ps_info, std::vector<Brd__ps_info>{}));
  EXPECT_NO_THROW(board.answer(BoardOp::get_temp_info, std::vector<Brd__temp_info>{}));
  EXPECT_NO_THROW(board.answer(BoardOp::get_f_port_sfp_state, Brd__sfp_state{}));
  EXPECT_NO_THROW(board.answer(BoardOp::get_p_port_sfp_data, Brd__sfp_data{}));
  EXPECT_NO_THROW(board.answer(BoardOp::get_f_port_sfp_eddi_data, Brd__sfp_eddi_data{}));
  EXPECT_NO_THROW(board.answer(BoardOp::get_p_port_sfp_rx_power, Brd__sfp_rx_power{}));
  EXPECT_NO_THROW(board.answer(BoardOp::get_fan_module_factory, Wake__fan_module__factory{}));
  EXPECT_NO_THROW(board.answer(BoardOp::get_fan_module_state, Wake__fan_module__data{}));
  EXPECT_NO_THROW(board.answer(BoardOp::get_pwr_module_state, Wake__pwr_module{}));
  // The operations that only act take no data at all.
  for (const BoardOp op :
       {BoardOp::set_fan_speed, BoardOp::cntrl_led_panel, BoardOp::p_port__set_led_state, BoardOp::cntrl_p_port_sfp_trx,
        BoardOp::cntrl_f_port_sfp_trx, BoardOp::set_fan_module_speed, BoardOp::f_btn__enable, BoardOp::f_btn__disable,
        BoardOp::f_btn__enable_hard_reset, BoardOp::f_btn__disable_hard_reset}) {
    EXPECT_THROW(board.answer<std::uint8_t>(op, 1), std::invalid_argument) << board_op_name(op);
  }
}

}  // namespace
}  // namespace xpon::test
