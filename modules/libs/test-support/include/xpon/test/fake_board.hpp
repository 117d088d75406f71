#pragma once

#include "xpon/board/iboard.hpp"

#include <any>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <typeinfo>
#include <utility>
#include <variant>
#include <vector>

namespace xpon::test {

/// The operations of board::IBoard, in the interface's order (generated from its operation list).
enum class BoardOp {
#define XPON_TEST_BOARD_OP(operation, command, data) operation,
  XPON_BOARD_OPERATIONS(XPON_TEST_BOARD_OP)
#undef XPON_TEST_BOARD_OP
};

/// The name of an operation, as the method of board::IBoard is called ("get_fan_info").
std::string_view board_op_name(BoardOp op);

/// What an operation was called with: nothing, a byte (a speed), or the caller's record as it came in.
using BoardArgument =
    std::variant<std::monostate, std::uint8_t, Brd__led, Brd__p_port_led, Brd__cntrl_sfp_trx,
                 std::vector<Brd__temp_info>, Brd__sfp_state, Brd__sfp_data, Brd__sfp_eddi_data, Brd__sfp_rx_power>;

/// One call the fake board received.
struct BoardCall {
  BoardOp op;
  BoardArgument argument;
};

/// What the fake throws when told to throw something that is not a std::exception.
struct NonStdBoardFault {
  std::string text;
};

/// A board::IBoard in memory for tests: records every call with its argument, answers the read
/// operations with data set by the test (zeros and empty lists otherwise), and can be told per
/// operation to fail with an error or to throw. Safe to call from any thread.
class FakeBoard : public board::IBoard {
 public:
  /// How often a told outcome applies: to the next call only, or to every call from now on.
  enum class Times { once, always };

  /// Makes `op` return an error with this code (and message, when not empty). Outcomes told `once`
  /// apply first, in the order they were told; an `always` outcome replaces the previous one.
  void fail(BoardOp op, core::Error code, const std::string& message = {}, Times times = Times::always);

  /// Makes `op` throw std::runtime_error with this text.
  void throw_exception(BoardOp op, const std::string& text, Times times = Times::always);

  /// Makes `op` throw a NonStdBoardFault, which no handler of std::exception catches.
  void throw_non_std(BoardOp op, const std::string& text = "non-std fault", Times times = Times::always);

  /// Forgets every outcome told for `op`: it answers normally again.
  void succeed(BoardOp op);

  /// Sets what a read operation answers from now on: the returned value, or the record copied into
  /// the caller's (for get_temp_info, one reading per record the caller sized). T must be the
  /// operation's own type; throws std::invalid_argument when it is not.
  template <typename T>
  void answer(BoardOp op, const T& data) {
    check_data_type(op, typeid(T));
    const std::lock_guard lock(mutex_);
    answers_[op] = data;
  }

  /// Sets what a read operation that names its port in the record (the SFP state, data and
  /// diagnostics) answers for that port from now on; it takes precedence over `answer`, and the
  /// other ports keep answering as before. T must be the operation's own type.
  template <typename T>
  void answer_port(BoardOp op, std::uint32_t port, const T& data) {
    check_data_type(op, typeid(T));
    const std::lock_guard lock(mutex_);
    port_answers_[{op, port}] = data;
  }

  /// Forgets the answer set for one port with answer_port.
  void forget_port(BoardOp op, std::uint32_t port) {
    const std::lock_guard lock(mutex_);
    port_answers_.erase({op, port});
  }

  /// Every call so far, in the order they came.
  [[nodiscard]] std::vector<BoardCall> calls() const;

  /// The operations called so far, in order.
  [[nodiscard]] std::vector<BoardOp> ops() const;

  /// How many times `op` was called.
  [[nodiscard]] std::size_t count(BoardOp op) const;

  /// The arguments `op` was called with, in order (T is the operation's argument type).
  template <typename T>
  [[nodiscard]] std::vector<T> arguments(BoardOp op) const {
    std::vector<T> result;
    for (const auto& call : calls()) {
      if (call.op == op) {
        result.push_back(std::get<T>(call.argument));
      }
    }
    return result;
  }

  /// Forgets the calls recorded so far (outcomes and data stay).
  void clear_calls();

  core::Result<std::uint8_t> get_fpga_config_version() override;
  core::Result<std::uint8_t> get_cpld_config_version() override;
  core::Result<std::uint8_t> get_fan_count() override;
  core::Result<std::uint8_t> get_ps_count() override;
  core::Result<std::uint8_t> get_temp_count() override;
  core::Result<std::uint8_t> get_pon_port_count() override;
  core::Result<std::uint8_t> get_front_port_count() override;
  core::Result<std::uint8_t> f_btn__is_pressed() override;
  core::Result<std::uint8_t> f_btn__is_pooling_enabled() override;
  core::Result<std::uint8_t> f_btn__is_hard_reset_enabled() override;
  core::Result<void> set_fan_speed(std::uint8_t speed) override;
  core::Result<void> cntrl_led_panel(const Brd__led& led) override;
  core::Result<void> p_port__set_led_state(const Brd__p_port_led& led) override;
  core::Result<void> p_port__get_led_state(Brd__p_port_led& led) override;
  core::Result<void> cntrl_p_port_sfp_trx(Brd__cntrl_sfp_trx& trx) override;
  core::Result<void> cntrl_f_port_sfp_trx(Brd__cntrl_sfp_trx& trx) override;
  core::Result<void> get_p_port_sfp_trx(Brd__cntrl_sfp_trx& trx) override;
  core::Result<std::vector<Brd__fan_info>> get_fan_info() override;
  core::Result<std::vector<Brd__ps_info>> get_ps_info() override;
  core::Result<void> get_temp_info(std::vector<Brd__temp_info>& temps) override;
  core::Result<void> get_f_port_sfp_state(Brd__sfp_state& state) override;
  core::Result<void> get_p_port_sfp_state(Brd__sfp_state& state) override;
  core::Result<void> get_f_port_sfp_data(Brd__sfp_data& data) override;
  core::Result<void> get_p_port_sfp_data(Brd__sfp_data& data) override;
  core::Result<void> get_f_port_sfp_eddi_data(Brd__sfp_eddi_data& data) override;
  core::Result<void> get_p_port_sfp_eddi_data(Brd__sfp_eddi_data& data) override;
  core::Result<void> get_p_port_sfp_rx_power(Brd__sfp_rx_power& reading) override;
  core::Result<void> set_fan_module_speed(std::uint8_t speed) override;
  core::Result<Wake__fan_module__factory> get_fan_module_factory() override;
  core::Result<Wake__fan_module__data> get_fan_module_state() override;
  core::Result<Wake__pwr_module> get_pwr_module_state() override;
  core::Result<void> f_btn__enable() override;
  core::Result<void> f_btn__disable() override;
  core::Result<void> f_btn__enable_hard_reset() override;
  core::Result<void> f_btn__disable_hard_reset() override;

 private:
  struct Outcome {
    enum class Kind { fail, throw_std, throw_non_std } kind;
    core::Error code = core::Error::NoError;
    std::string text;
  };

  struct Told {
    std::deque<Outcome> once;
    std::optional<Outcome> always;
  };

  static void check_data_type(BoardOp op, const std::type_info& type);
  void tell(BoardOp op, Outcome outcome, Times times);

  // Records the call and takes the outcome and the data that apply to it, under the mutex.
  // A record that names its port is answered from that port's data first.
  std::optional<Outcome> record(BoardOp op, BoardArgument argument, std::any* data,
                                std::optional<std::uint32_t> port = std::nullopt);

  // Returns the told error or throws the told exception, if any; empty when the call goes on.
  static std::optional<core::ErrorPayload> act(const std::optional<Outcome>& outcome);

  // An operation that returns its data.
  template <typename T>
  core::Result<T> read(BoardOp op);

  // An operation that fills the caller's record with its data.
  template <typename T>
  core::Result<void> fill(BoardOp op, T& record);

  // An operation that only does something.
  core::Result<void> command(BoardOp op, BoardArgument argument);

  mutable std::mutex mutex_;
  std::vector<BoardCall> calls_;
  std::map<BoardOp, Told> told_;
  std::map<BoardOp, std::any> answers_;
  std::map<std::pair<BoardOp, std::uint32_t>, std::any> port_answers_;
};

}  // namespace xpon::test
