#include "xpon/test/fake_board.hpp"

#include <algorithm>
#include <array>
#include <utility>

namespace xpon::test {

namespace {

// Generated from the board interface's operation list, as the enum is.
#define XPON_TEST_BOARD_OP_NAME(operation, command, data) std::string_view(#operation),
constexpr std::array kNames{XPON_BOARD_OPERATIONS(XPON_TEST_BOARD_OP_NAME)};
#undef XPON_TEST_BOARD_OP_NAME

// The type of the data each operation answers with, void for the operations that only act;
// generated from the same list.
#define XPON_TEST_BOARD_OP_DATA(operation, command, data) &typeid(data),
constexpr std::array kDataTypes{XPON_BOARD_OPERATIONS(XPON_TEST_BOARD_OP_DATA)};
#undef XPON_TEST_BOARD_OP_DATA

const std::type_info& data_type_of(BoardOp op) {
  const auto index = static_cast<std::size_t>(op);
  return index < kDataTypes.size() ? *kDataTypes[index] : typeid(void);
}

}  // namespace

std::string_view board_op_name(BoardOp op) {
  const auto index = static_cast<std::size_t>(op);
  return index < kNames.size() ? kNames[index] : std::string_view("(unknown board operation)");
}

void FakeBoard::check_data_type(BoardOp op, const std::type_info& type) {
  const std::type_info& expected = data_type_of(op);
  if (expected == typeid(void)) {
    throw std::invalid_argument("FakeBoard: " + std::string(board_op_name(op)) + " answers with no data");
  }
  if (expected != type) {
    throw std::invalid_argument("FakeBoard: " + std::string(board_op_name(op)) + " answers with another type of data");
  }
}

void FakeBoard::tell(BoardOp op, Outcome outcome, Times times) {
  const std::lock_guard lock(mutex_);
  Told& told = told_[op];
  if (times == Times::once) {
    told.once.push_back(std::move(outcome));
  } else {
    told.always = std::move(outcome);
  }
}

void FakeBoard::fail(BoardOp op, core::Error code, const std::string& message, Times times) {
  tell(op, Outcome{Outcome::Kind::fail, code, message}, times);
}

void FakeBoard::throw_exception(BoardOp op, const std::string& text, Times times) {
  tell(op, Outcome{Outcome::Kind::throw_std, core::Error::NoError, text}, times);
}

void FakeBoard::throw_non_std(BoardOp op, const std::string& text, Times times) {
  tell(op, Outcome{Outcome::Kind::throw_non_std, core::Error::NoError, text}, times);
}

void FakeBoard::succeed(BoardOp op) {
  const std::lock_guard lock(mutex_);
  told_.erase(op);
}

std::vector<BoardCall> FakeBoard::calls() const {
  const std::lock_guard lock(mutex_);
  return calls_;
}

std::vector<BoardOp> FakeBoard::ops() const {
  std::vector<BoardOp> result;
  for (const auto& call : calls()) {
    result.push_back(call.op);
  }
  return result;
}

std::size_t FakeBoard::count(BoardOp op) const {
  const std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(
      std::count_if(calls_.begin(), calls_.end(), [op](const BoardCall& call) { return call.op == op; }));
}

void FakeBoard::clear_calls() {
  const std::lock_guard lock(mutex_);
  calls_.clear();
}

std::optional<FakeBoard::Outcome> FakeBoard::record(BoardOp op, BoardArgument argument, std::any* data,
                                                    std::optional<std::uint32_t> port) {
  const std::lock_guard lock(mutex_);
  calls_.push_back(BoardCall{op, std::move(argument)});
  if (data != nullptr) {
    const auto for_port = port ? port_answers_.find({op, *port}) : port_answers_.end();
    if (for_port != port_answers_.end()) {
      *data = for_port->second;
    } else if (const auto answer = answers_.find(op); answer != answers_.end()) {
      *data = answer->second;
    }
  }
  const auto told = told_.find(op);
  if (told == told_.end()) {
    return std::nullopt;
  }
  if (!told->second.once.empty()) {
    Outcome next = std::move(told->second.once.front());
    told->second.once.pop_front();
    return next;
  }
  return told->second.always;
}

std::optional<core::ErrorPayload> FakeBoard::act(const std::optional<Outcome>& outcome) {
  if (!outcome) {
    return std::nullopt;
  }
  switch (outcome->kind) {
    case Outcome::Kind::throw_std:
      throw std::runtime_error(outcome->text);
    case Outcome::Kind::throw_non_std:
      throw NonStdBoardFault{outcome->text};
    case Outcome::Kind::fail:
      break;
  }
  if (outcome->text.empty()) {
    return core::ErrorPayload(outcome->code);
  }
  return core::ErrorPayload(outcome->code, outcome->text);
}

template <typename T>
core::Result<T> FakeBoard::read(BoardOp op) {
  std::any data;
  if (auto error = act(record(op, std::monostate{}, &data))) {
    return std::move(*error);
  }
  return data.has_value() ? std::any_cast<T>(data) : T{};
}

template <typename T>
core::Result<void> FakeBoard::fill(BoardOp op, T& record_in_out) {
  std::any data;
  std::optional<std::uint32_t> port;
  if constexpr (requires { record_in_out.port; }) {
    const std::uint32_t named = record_in_out.port;  // a copy: the field is packed
    port = named;
  }
  if (auto error = act(record(op, record_in_out, &data, port))) {
    return std::move(*error);
  }
  if (data.has_value()) {
    record_in_out = std::any_cast<T>(data);
  }
  return core::success();
}

core::Result<void> FakeBoard::command(BoardOp op, BoardArgument argument) {
  if (auto error = act(record(op, std::move(argument), nullptr))) {
    return std::move(*error);
  }
  return core::success();
}

core::Result<std::uint8_t> FakeBoard::get_fpga_config_version() {
  return read<std::uint8_t>(BoardOp::get_fpga_config_version);
}
core::Result<std::uint8_t> FakeBoard::get_cpld_config_version() {
  return read<std::uint8_t>(BoardOp::get_cpld_config_version);
}
core::Result<std::uint8_t> FakeBoard::get_fan_count() {
  return read<std::uint8_t>(BoardOp::get_fan_count);
}
core::Result<std::uint8_t> FakeBoard::get_ps_count() {
  return read<std::uint8_t>(BoardOp::get_ps_count);
}
core::Result<std::uint8_t> FakeBoard::get_temp_count() {
  return read<std::uint8_t>(BoardOp::get_temp_count);
}
core::Result<std::uint8_t> FakeBoard::get_pon_port_count() {
  return read<std::uint8_t>(BoardOp::get_pon_port_count);
}
core::Result<std::uint8_t> FakeBoard::get_front_port_count() {
  return read<std::uint8_t>(BoardOp::get_front_port_count);
}
core::Result<std::uint8_t> FakeBoard::f_btn__is_pressed() {
  return read<std::uint8_t>(BoardOp::f_btn__is_pressed);
}
core::Result<std::uint8_t> FakeBoard::f_btn__is_pooling_enabled() {
  return read<std::uint8_t>(BoardOp::f_btn__is_pooling_enabled);
}
core::Result<std::uint8_t> FakeBoard::f_btn__is_hard_reset_enabled() {
  return read<std::uint8_t>(BoardOp::f_btn__is_hard_reset_enabled);
}
core::Result<void> FakeBoard::set_fan_speed(std::uint8_t speed) {
  return command(BoardOp::set_fan_speed, speed);
}
core::Result<void> FakeBoard::cntrl_led_panel(const Brd__led& led) {
  return command(BoardOp::cntrl_led_panel, led);
}
core::Result<void> FakeBoard::p_port__set_led_state(const Brd__p_port_led& led) {
  return command(BoardOp::p_port__set_led_state, led);
}
core::Result<void> FakeBoard::p_port__get_led_state(Brd__p_port_led& led) {
  return fill(BoardOp::p_port__get_led_state, led);
}
core::Result<void> FakeBoard::cntrl_p_port_sfp_trx(Brd__cntrl_sfp_trx& trx) {
  return command(BoardOp::cntrl_p_port_sfp_trx, trx);
}
core::Result<void> FakeBoard::cntrl_f_port_sfp_trx(Brd__cntrl_sfp_trx& trx) {
  return command(BoardOp::cntrl_f_port_sfp_trx, trx);
}
core::Result<void> FakeBoard::get_p_port_sfp_trx(Brd__cntrl_sfp_trx& trx) {
  return fill(BoardOp::get_p_port_sfp_trx, trx);
}
core::Result<std::vector<Brd__fan_info>> FakeBoard::get_fan_info() {
  return read<std::vector<Brd__fan_info>>(BoardOp::get_fan_info);
}
core::Result<std::vector<Brd__ps_info>> FakeBoard::get_ps_info() {
  return read<std::vector<Brd__ps_info>>(BoardOp::get_ps_info);
}
core::Result<void> FakeBoard::get_temp_info(std::vector<Brd__temp_info>& temps) {
  // The caller sizes the list: only as many readings as it has room for are copied, like the driver does.
  std::vector<Brd__temp_info> readings = temps;
  auto filled = fill(BoardOp::get_temp_info, readings);
  if (filled.has_value()) {
    std::copy_n(readings.begin(), std::min(readings.size(), temps.size()), temps.begin());
  }
  return filled;
}
core::Result<void> FakeBoard::get_f_port_sfp_state(Brd__sfp_state& state) {
  return fill(BoardOp::get_f_port_sfp_state, state);
}
core::Result<void> FakeBoard::get_p_port_sfp_state(Brd__sfp_state& state) {
  return fill(BoardOp::get_p_port_sfp_state, state);
}
core::Result<void> FakeBoard::get_f_port_sfp_data(Brd__sfp_data& data) {
  return fill(BoardOp::get_f_port_sfp_data, data);
}
core::Result<void> FakeBoard::get_p_port_sfp_data(Brd__sfp_data& data) {
  return fill(BoardOp::get_p_port_sfp_data, data);
}
core::Result<void> FakeBoard::get_f_port_sfp_eddi_data(Brd__sfp_eddi_data& data) {
  return fill(BoardOp::get_f_port_sfp_eddi_data, data);
}
core::Result<void> FakeBoard::get_p_port_sfp_eddi_data(Brd__sfp_eddi_data& data) {
  return fill(BoardOp::get_p_port_sfp_eddi_data, data);
}
core::Result<void> FakeBoard::get_p_port_sfp_rx_power(Brd__sfp_rx_power& reading) {
  return fill(BoardOp::get_p_port_sfp_rx_power, reading);
}
core::Result<void> FakeBoard::set_fan_module_speed(std::uint8_t speed) {
  return command(BoardOp::set_fan_module_speed, speed);
}
core::Result<Wake__fan_module__factory> FakeBoard::get_fan_module_factory() {
  return read<Wake__fan_module__factory>(BoardOp::get_fan_module_factory);
}
core::Result<Wake__fan_module__data> FakeBoard::get_fan_module_state() {
  return read<Wake__fan_module__data>(BoardOp::get_fan_module_state);
}
core::Result<Wake__pwr_module> FakeBoard::get_pwr_module_state() {
  return read<Wake__pwr_module>(BoardOp::get_pwr_module_state);
}
core::Result<void> FakeBoard::f_btn__enable() {
  return command(BoardOp::f_btn__enable, std::monostate{});
}
core::Result<void> FakeBoard::f_btn__disable() {
  return command(BoardOp::f_btn__disable, std::monostate{});
}
core::Result<void> FakeBoard::f_btn__enable_hard_reset() {
  return command(BoardOp::f_btn__enable_hard_reset, std::monostate{});
}
core::Result<void> FakeBoard::f_btn__disable_hard_reset() {
  return command(BoardOp::f_btn__disable_hard_reset, std::monostate{});
}

}  // namespace xpon::test
