#include "xpon/board/board.hpp"

#include "errno_text.hpp"
#include "xpon/core/guard.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace xpon::board {

namespace {

struct CommandName {
  unsigned long request;
  std::string_view name;
};

// Generated from the driver's command list.
#define XPON_BOARD_COMMAND_NAME(command, record) CommandName{command, #command},
constexpr std::array kCommandNames{BRD_DRIVER_COMMANDS(XPON_BOARD_COMMAND_NAME)};
#undef XPON_BOARD_COMMAND_NAME

// The inventory read at construction, in the order it is read.
struct InventoryItem {
  unsigned long request;
  std::string_view name;
  std::uint8_t Board::*member;
};

// A list command's records, copied out after checking the count the driver wrote back.
template <typename Record, std::size_t Capacity>
core::Result<std::size_t> checked_count(std::uint32_t filled, std::uint32_t requested, unsigned long request,
                                        const std::source_location& where) {
  if (filled > requested || filled > Capacity) {
    return core::ErrorPayload(core::Error::CommonError,
                              fmt::format("{}: the driver reported {} records, {} were requested",
                                          board_command_name(request), filled, requested),
                              where);
  }
  return static_cast<std::size_t>(filled);
}

}  // namespace

std::string board_command_name(unsigned long request) {
  for (const auto& command : kCommandNames) {
    if (command.request == request) {
      return std::string(command.name);
    }
  }
  return fmt::format("0x{:08X}", request);
}

bool device_lost(int error_number) noexcept {
  return error_number == ENODEV || error_number == ENXIO || error_number == ENOTCONN || error_number == EBADF;
}

Board::Board(const std::shared_ptr<logger::ILogger>& logger, std::unique_ptr<IPosixWrapper> posix)
    : Board(logger, std::move(posix), BoardOptions{}) {}

Board::Board(const std::shared_ptr<logger::ILogger>& logger, std::unique_ptr<IPosixWrapper> posix, BoardOptions options)
    : logger_(logger), posix_(std::move(posix)), options_(std::move(options)) {
  if (!logger_ || !posix_) {
    throw std::runtime_error("Board needs a logger and a POSIX wrapper");
  }
  // Generated from the driver's inventory list: each command fills the member named after its value.
#define XPON_BOARD_INVENTORY_ITEM(command, value) InventoryItem{command, #command, &Board::value##_},
  const std::array inventory{BRD_DRIVER_INVENTORY(XPON_BOARD_INVENTORY_ITEM)};
#undef XPON_BOARD_INVENTORY_ITEM
  for (const auto& item : inventory) {
    auto value = core::guarded_call(*logger_, [&] { return do_ioctl<unsigned char>(item.request); });
    if (value.has_error()) {
      // The trailing blank is part of the system's text. The first failure ends start-up.
      throw std::runtime_error(fmt::format("IOCTL({}) call failed ({}) ", item.name, value.error().to_string()));
    }
    this->*item.member = value.value();
  }
  inventory_read_ = true;
  logger_->progress("Board create successfully");
}

Board::~Board() {
  logger_->progress("Board destroy successfully");
}

core::Result<void> Board::issue(unsigned long request, void* argument, std::size_t size,
                                const std::source_location& where) {
  const std::size_t encoded_size = _IOC_SIZE(request);
  if (encoded_size != size) {
    return core::ErrorPayload(core::Error::InvalidInputArg,
                              fmt::format("{}: a record of {} bytes for a command of {} bytes",
                                          board_command_name(request), size, encoded_size),
                              where);
  }
  std::lock_guard lock(mutex_);
  errno = 0;
  int returned = posix_->ioctl(request, argument);
  int error_number = errno;
  if (returned < 0 && inventory_read_ && device_lost(error_number) && recover(error_number)) {
    // The failed call never reached a driver, so issuing it again does not repeat a command.
    errno = 0;
    returned = posix_->ioctl(request, argument);
    error_number = errno;
  }
  if (returned < 0) {
    errno = 0;
    return core::ErrorPayload(core::Error::ErrorCApi,
                              fmt::format("{}: ioctl returned {}, errno={} ({})", board_command_name(request), returned,
                                          error_number, errno_text(error_number)),
                              where);
  }
  return core::success();
}

bool Board::recover(int error_number) {
  if (!device_lost_) {
    device_lost_ = true;
    logger_->error(kBoardDeviceLostText, errno_text(error_number));
  }
  const auto now = options_.now();
  if (last_reopen_ && now - *last_reopen_ < options_.reopen_interval) {
    return false;
  }
  last_reopen_ = now;
  errno = 0;
  if (posix_->reopen() != 0) {
    return false;
  }
  device_lost_ = false;
  logger_->logf(logger::kInfo, kBoardDeviceBackText);
  return true;
}

template <typename T>
core::Result<void> Board::exchange(unsigned long request, T& record, const std::source_location& where) {
  return core::guarded_call(
      *logger_, [&]() { return issue(request, &record, sizeof record, where); }, where);
}

core::Result<std::uint8_t> Board::read_byte(unsigned long request, const std::source_location& where) {
  return core::guarded_call(
      *logger_, [&]() { return do_ioctl<std::uint8_t>(request, where); }, where);
}

core::Result<void> Board::write_byte(unsigned long request, std::uint8_t value, const std::source_location& where) {
  return exchange(request, value, where);
}

core::Result<std::uint8_t> Board::get_fpga_config_version() {
  return read_byte(BOARD_GET_FPGA_VERSION);
}

// The inventory does not change while the board runs, so these answer from what construction read.
core::Result<std::uint8_t> Board::get_cpld_config_version() {
  return cpld_version_;
}

core::Result<std::uint8_t> Board::get_fan_count() {
  return fan_count_;
}

core::Result<std::uint8_t> Board::get_ps_count() {
  return ps_count_;
}

core::Result<std::uint8_t> Board::get_temp_count() {
  return temp_count_;
}

core::Result<std::uint8_t> Board::get_pon_port_count() {
  return pon_port_count_;
}

core::Result<std::uint8_t> Board::get_front_port_count() {
  return front_port_count_;
}

core::Result<std::uint8_t> Board::f_btn__is_pressed() {
  return read_byte(BOARD_F_BTN_IS_PRESSED);
}

core::Result<std::uint8_t> Board::f_btn__is_pooling_enabled() {
  return read_byte(BOARD_F_BTN_IS_POLLING_ENABLED);
}

core::Result<std::uint8_t> Board::f_btn__is_hard_reset_enabled() {
  return read_byte(BOARD_F_BTN_IS_HARD_RESET_ENABLED);
}

core::Result<void> Board::set_fan_speed(std::uint8_t speed) {
  return write_byte(BOARD_SET_FAN_SPEED, speed);
}

core::Result<void> Board::cntrl_led_panel(const Brd__led& led) {
  // The driver only reads an _IOW record; the copy keeps the caller's record const.
  Brd__led command = led;
  return exchange(BOARD_CNTRL_LED_PANEL, command);
}

core::Result<void> Board::p_port__set_led_state(const Brd__p_port_led& led) {
  Brd__p_port_led command = led;
  return exchange(BOARD_P_PORT_SET_LED_STATE, command);
}

core::Result<void> Board::p_port__get_led_state(Brd__p_port_led& led) {
  return exchange(BOARD_P_PORT_GET_LED_STATE, led);
}

core::Result<void> Board::cntrl_p_port_sfp_trx(Brd__cntrl_sfp_trx& trx) {
  return exchange(BOARD_CNTRL_P_PORT_SFP_TRX, trx);
}

core::Result<void> Board::cntrl_f_port_sfp_trx(Brd__cntrl_sfp_trx& trx) {
  return exchange(BOARD_CNTRL_F_PORT_SFP_TRX, trx);
}

core::Result<void> Board::get_p_port_sfp_trx(Brd__cntrl_sfp_trx& trx) {
  return exchange(BOARD_GET_P_PORT_SFP_TRX, trx);
}

core::Result<std::vector<Brd__fan_info>> Board::get_fan_info() {
  Brd__fan_list list{};
  const std::uint32_t requested = std::min<std::uint32_t>(fan_count_, BRD_MAX_FANS);
  list.count = requested;
  auto issued = exchange(BOARD_GET_FAN_INFO, list);
  if (issued.has_error()) {
    return issued.error();
  }
  auto count = checked_count<Brd__fan_info, BRD_MAX_FANS>(list.count, requested, BOARD_GET_FAN_INFO,
                                                          std::source_location::current());
  if (count.has_error()) {
    return count.error();
  }
  return std::vector<Brd__fan_info>(list.info, list.info + count.value());
}

core::Result<std::vector<Brd__ps_info>> Board::get_ps_info() {
  Brd__ps_list list{};
  const std::uint32_t requested = std::min<std::uint32_t>(ps_count_, BRD_MAX_POWER_SUPPLIES);
  list.count = requested;
  auto issued = exchange(BOARD_GET_PS_INFO, list);
  if (issued.has_error()) {
    return issued.error();
  }
  auto count = checked_count<Brd__ps_info, BRD_MAX_POWER_SUPPLIES>(list.count, requested, BOARD_GET_PS_INFO,
                                                                   std::source_location::current());
  if (count.has_error()) {
    return count.error();
  }
  return std::vector<Brd__ps_info>(list.info, list.info + count.value());
}

core::Result<void> Board::get_temp_info(std::vector<Brd__temp_info>& temps) {
  if (temps.size() > BRD_MAX_TEMP_SENSORS) {
    return core::ErrorPayload(
        core::Error::InvalidInputArg,
        fmt::format("BOARD_GET_TEMP_INFO: {} readings asked for, at most {}", temps.size(), BRD_MAX_TEMP_SENSORS));
  }
  Brd__temp_list list{};
  const auto requested = static_cast<std::uint32_t>(temps.size());
  list.count = requested;
  auto issued = exchange(BOARD_GET_TEMP_INFO, list);
  if (issued.has_error()) {
    return issued.error();
  }
  auto count = checked_count<Brd__temp_info, BRD_MAX_TEMP_SENSORS>(list.count, requested, BOARD_GET_TEMP_INFO,
                                                                   std::source_location::current());
  if (count.has_error()) {
    return count.error();
  }
  // The caller sized the vector for every sensor; a short answer would leave readings that were never taken.
  if (count.value() != temps.size()) {
    return core::ErrorPayload(
        core::Error::CommonError,
        fmt::format("BOARD_GET_TEMP_INFO: the driver filled {} of {} readings", count.value(), temps.size()));
  }
  std::copy(list.info, list.info + count.value(), temps.begin());
  return core::success();
}

core::Result<void> Board::get_f_port_sfp_state(Brd__sfp_state& state) {
  return exchange(BOARD_GET_F_PORT_SFP_STATE, state);
}

core::Result<void> Board::get_p_port_sfp_state(Brd__sfp_state& state) {
  return exchange(BOARD_GET_P_PORT_SFP_STATE, state);
}

core::Result<void> Board::get_f_port_sfp_data(Brd__sfp_data& data) {
  return exchange(BOARD_GET_F_PORT_SFP_DATA, data);
}

core::Result<void> Board::get_p_port_sfp_data(Brd__sfp_data& data) {
  return exchange(BOARD_GET_P_PORT_SFP_DATA, data);
}

core::Result<void> Board::get_f_port_sfp_eddi_data(Brd__sfp_eddi_data& data) {
  return exchange(BOARD_GET_F_PORT_SFP_EDDI_DATA, data);
}

core::Result<void> Board::get_p_port_sfp_eddi_data(Brd__sfp_eddi_data& data) {
  return exchange(BOARD_GET_P_PORT_SFP_EDDI_DATA, data);
}

core::Result<void> Board::get_p_port_sfp_rx_power(Brd__sfp_rx_power& reading) {
  return exchange(BOARD_GET_P_PORT_SFP_RX_POWER, reading);
}

core::Result<void> Board::set_fan_module_speed(std::uint8_t speed) {
  return write_byte(BOARD_SET_FAN_MODULE_SPEED, speed);
}

core::Result<Wake__fan_module__factory> Board::get_fan_module_factory() {
  return core::guarded_call(*logger_,
                            [&] { return do_ioctl<Wake__fan_module__factory>(BOARD_GET_FAN_MODULE_FACTORY); });
}

core::Result<Wake__fan_module__data> Board::get_fan_module_state() {
  return core::guarded_call(*logger_, [&] { return do_ioctl<Wake__fan_module__data>(BOARD_GET_FAN_MODULE_STATE); });
}

core::Result<Wake__pwr_module> Board::get_pwr_module_state() {
  return core::guarded_call(*logger_, [&] { return do_ioctl<Wake__pwr_module>(BOARD_GET_PWR_MODULE_STATE); });
}

core::Result<void> Board::f_btn__enable() {
  return write_byte(BOARD_F_BTN_SET_POLLING, 1);
}

core::Result<void> Board::f_btn__disable() {
  return write_byte(BOARD_F_BTN_SET_POLLING, 0);
}

core::Result<void> Board::f_btn__enable_hard_reset() {
  return write_byte(BOARD_F_BTN_SET_HARD_RESET, 1);
}

core::Result<void> Board::f_btn__disable_hard_reset() {
  return write_byte(BOARD_F_BTN_SET_HARD_RESET, 0);
}

}  // namespace xpon::board
