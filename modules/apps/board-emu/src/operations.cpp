#include "xpon/board_emu/operations.hpp"

#include "xpon/board/driver_abi.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <type_traits>

namespace xpon::board_emu {

namespace {

// The kernel hands over the argument as plain bytes without any alignment promise, so records
// are copied in and out rather than used in place.
template <typename T>
T load(const void* argument) {
  static_assert(std::is_trivially_copyable_v<T>);
  T record;
  std::memcpy(&record, argument, sizeof record);
  return record;
}

template <typename T>
void store(void* argument, const T& record) {
  static_assert(std::is_trivially_copyable_v<T>);
  std::memcpy(argument, &record, sizeof record);
}

int answer_byte(void* argument, std::uint8_t value) {
  store(argument, value);
  return 0;
}

// Copies a text into a fixed driver field; the model's limits keep it inside.
template <std::size_t N>
void copy_text(char (&field)[N], const std::string& text) {
  std::memset(field, 0, N);
  std::memcpy(field, text.data(), std::min(text.size(), N));
}

// Settings commands take 1 (enable) or 0 (disable); anything else is a caller's mistake.
int read_switch(const void* argument, bool& setting) {
  const auto value = load<std::uint8_t>(argument);
  if (value > 1) {
    return EINVAL;
  }
  setting = value == 1;
  return 0;
}

// A port number outside the board's cages is refused; a cage without a module cannot be read.
SfpPort* find_port(std::vector<SfpPort>& ports, std::uint32_t number, int& error) {
  if (number >= ports.size()) {
    error = EINVAL;
    return nullptr;
  }
  SfpPort& port = ports[number];
  if (!port.present) {
    error = ENODEV;
    return nullptr;
  }
  error = 0;
  return &port;
}

int get_sfp_state(std::vector<SfpPort>& ports, void* argument) {
  auto record = load<Brd__sfp_state>(argument);
  if (record.port >= ports.size()) {
    return EINVAL;
  }
  const SfpPort& port = ports[record.port];
  record.present = port.present ? 1 : 0;
  record.tx_fault = port.present && port.tx_fault ? 1 : 0;
  record.state = port.present ? port.state : 0;
  record.rx_los = !port.present || port.rx_los ? 1 : 0;
  store(argument, record);
  return 0;
}

int get_sfp_data(std::vector<SfpPort>& ports, void* argument) {
  auto record = load<Brd__sfp_data>(argument);
  int error = 0;
  const SfpPort* port = find_port(ports, record.port, error);
  if (port == nullptr) {
    return error;
  }
  static_assert(sizeof record.data == sizeof port->identification);
  std::memcpy(record.data, port->identification.data(), sizeof record.data);
  store(argument, record);
  return 0;
}

int get_sfp_eddi(std::vector<SfpPort>& ports, void* argument) {
  auto record = load<Brd__sfp_eddi_data>(argument);
  int error = 0;
  const SfpPort* port = find_port(ports, record.port, error);
  if (port == nullptr) {
    return error;
  }
  static_assert(sizeof record.data == sizeof port->diagnostics);
  std::memcpy(record.data, port->diagnostics.data(), sizeof record.data);
  store(argument, record);
  return 0;
}

int cntrl_sfp_trx(std::vector<SfpPort>& ports, const void* argument) {
  const auto record = load<Brd__cntrl_sfp_trx>(argument);
  int error = 0;
  SfpPort* port = find_port(ports, record.port, error);
  if (port == nullptr) {
    return error;
  }
  if (record.enable > 1) {
    return EINVAL;
  }
  port->trx_enabled = record.enable == 1;
  return 0;
}

// List commands: the caller asks for up to the array size and gets what the board has.
template <typename List, std::size_t Capacity, typename Fill>
int answer_list(void* argument, std::size_t available, Fill&& fill) {
  auto list = load<List>(argument);
  if (list.count > Capacity) {
    return EINVAL;
  }
  const auto filled = std::min<std::size_t>(list.count, available);
  std::memset(list.info, 0, sizeof list.info);
  for (std::size_t i = 0; i < filled; ++i) {
    fill(list.info[i], i);
  }
  list.count = static_cast<std::uint32_t>(filled);
  store(argument, list);
  return 0;
}

int get_temp_info(BoardModel& model, void* argument) {
  return answer_list<Brd__temp_list, BRD_MAX_TEMP_SENSORS>(argument, model.sensors.size(),
                                                           [&](Brd__temp_info& info, std::size_t i) {
                                                             info.id = model.sensors[i].id;
                                                             info.temperature = model.sensors[i].temperature;
                                                           });
}

int get_fan_info(BoardModel& model, void* argument) {
  return answer_list<Brd__fan_list, BRD_MAX_FANS>(argument, model.fans.size(), [&](Brd__fan_info& info, std::size_t i) {
    info.fault = model.fans[i].fault ? 1 : 0;
    info.present = model.fans[i].present ? 1 : 0;
    info.speed = model.fans[i].speed;
  });
}

int get_ps_info(BoardModel& model, void* argument) {
  return answer_list<Brd__ps_list, BRD_MAX_POWER_SUPPLIES>(argument, model.power_supplies.size(),
                                                           [&](Brd__ps_info& info, std::size_t i) {
                                                             const PowerSupply& supply = model.power_supplies[i];
                                                             info.id = static_cast<std::uint8_t>(i);
                                                             info.is_present = supply.present ? 1 : 0;
                                                             info.is_power_good = supply.power_good ? 1 : 0;
                                                             info.has_info = supply.has_info ? 1 : 0;
                                                             info.alert = supply.alert;
                                                             copy_text(info.model, supply.model);
                                                             copy_text(info.sn, supply.serial);
                                                             copy_text(info.ver, supply.version);
                                                             copy_text(info.rev, supply.revision);
                                                             copy_text(info.date, supply.date);
                                                           });
}

int get_fan_module_state(BoardModel& model, void* argument) {
  if (!model.fan_module) {
    return ENODEV;
  }
  const FanModule& module = *model.fan_module;
  Wake__fan_module__data record{};
  record.present = module.present ? 1 : 0;
  record.fault = module.fault ? 1 : 0;
  std::memcpy(record.speed, module.fan_speeds.data(), module.fan_speeds.size());
  record.count = static_cast<std::uint8_t>(module.fan_speeds.size());
  record.speed_setting = module.speed_setting;
  store(argument, record);
  return 0;
}

int get_fan_module_factory(BoardModel& model, void* argument) {
  if (!model.fan_module) {
    return ENODEV;
  }
  const FanModuleFactory& factory = model.fan_module->factory;
  Wake__fan_module__factory record{};
  copy_text(record.product_name, factory.product_name);
  copy_text(record.serial_number, factory.serial_number);
  copy_text(record.hw_revision, factory.hw_revision);
  copy_text(record.mfg_date, factory.mfg_date);
  store(argument, record);
  return 0;
}

int get_pwr_module_state(BoardModel& model, void* argument) {
  if (!model.power_module) {
    return ENODEV;
  }
  const PowerModule& module = *model.power_module;
  Wake__pwr_module record{};
  record.present = module.present ? 1 : 0;
  record.power_good = module.power_good ? 1 : 0;
  record.fault = module.fault ? 1 : 0;
  record.fan_fault = module.fan_fault ? 1 : 0;
  record.input_voltage = module.input_voltage;
  record.output_voltage = module.output_voltage;
  record.output_current = module.output_current;
  record.output_power = module.output_power;
  record.temperature = module.temperature;
  store(argument, record);
  return 0;
}

int cntrl_led_panel(BoardModel& model, void* argument) {
  const auto record = load<Brd__led>(argument);
  if (record.led >= model.led_panel.size() || record.mode > BRD_API__LED_MODE_BLINK ||
      record.color > BRD_API__LED_COLOR_RED) {
    return EINVAL;
  }
  model.led_panel[record.led].mode = static_cast<LedMode>(record.mode);
  model.led_panel[record.led].color = static_cast<LedColor>(record.color);
  return 0;
}

// A P-port LED has a red and a green element; yellow does not exist there.
LedMode* p_port_led_element(BoardModel& model, std::uint32_t port, std::uint32_t color) {
  if (port >= model.pon_ports.size()) {
    return nullptr;
  }
  if (color == BRD_API__LED_COLOR_RED) {
    return &model.pon_ports[port].led.red;
  }
  if (color == BRD_API__LED_COLOR_GREEN) {
    return &model.pon_ports[port].led.green;
  }
  return nullptr;
}

int p_port_set_led_state(BoardModel& model, void* argument) {
  const auto record = load<Brd__p_port_led>(argument);
  LedMode* element = p_port_led_element(model, record.port, record.color);
  if (element == nullptr || record.mode > BRD_API__LED_MODE_BLINK) {
    return EINVAL;
  }
  *element = static_cast<LedMode>(record.mode);
  return 0;
}

int p_port_get_led_state(BoardModel& model, void* argument) {
  auto record = load<Brd__p_port_led>(argument);
  const LedMode* element = p_port_led_element(model, record.port, record.color);
  if (element == nullptr) {
    return EINVAL;
  }
  record.mode = static_cast<std::uint32_t>(*element);
  store(argument, record);
  return 0;
}

int get_p_port_sfp_trx(BoardModel& model, void* argument) {
  auto record = load<Brd__cntrl_sfp_trx>(argument);
  int error = 0;
  const SfpPort* port = find_port(model.pon_ports, record.port, error);
  if (port == nullptr) {
    return error;
  }
  record.enable = port->trx_enabled ? 1 : 0;
  std::memset(record.reserved, 0, sizeof record.reserved);
  store(argument, record);
  return 0;
}

int get_p_port_sfp_rx_power(BoardModel& model, void* argument) {
  auto record = load<Brd__sfp_rx_power>(argument);
  int error = 0;
  const SfpPort* port = find_port(model.pon_ports, record.port, error);
  if (port == nullptr) {
    return error;
  }
  record.rx_power = port->rx_power.raw;
  record.reserved = 0;
  static_assert(sizeof record.coefficient == sizeof port->rx_power.coefficients);
  std::memcpy(record.coefficient, port->rx_power.coefficients.data(), sizeof record.coefficient);
  store(argument, record);
  return 0;
}

using Answer = int (*)(BoardModel& model, void* argument);

// The answer to each command of the driver's list, or nullptr for a command the emulator does not
// answer (the table below refuses to compile then).
constexpr Answer answer_of(unsigned long request) {
  switch (request) {
// The inventory commands answer their byte of the model's inventory, named as the driver's inventory list names it.
#define XPON_EMU_INVENTORY_ANSWER(command, value) \
  case command:                                   \
    return [](BoardModel& m, void* a) { return answer_byte(a, m.inventory.value); };
    BRD_DRIVER_INVENTORY(XPON_EMU_INVENTORY_ANSWER)
#undef XPON_EMU_INVENTORY_ANSWER
    case BOARD_GET_FPGA_VERSION:
      return [](BoardModel& m, void* a) { return answer_byte(a, m.fpga_version); };
    case BOARD_F_BTN_IS_PRESSED:
      return [](BoardModel& m, void* a) { return answer_byte(a, m.front_button.pressed ? 1 : 0); };
    case BOARD_F_BTN_IS_POLLING_ENABLED:
      return [](BoardModel& m, void* a) { return answer_byte(a, m.front_button.polling_enabled ? 1 : 0); };
    case BOARD_F_BTN_IS_HARD_RESET_ENABLED:
      return [](BoardModel& m, void* a) { return answer_byte(a, m.front_button.hard_reset_enabled ? 1 : 0); };
    case BOARD_F_BTN_SET_POLLING:
      return [](BoardModel& m, void* a) { return read_switch(a, m.front_button.polling_enabled); };
    case BOARD_F_BTN_SET_HARD_RESET:
      return [](BoardModel& m, void* a) { return read_switch(a, m.front_button.hard_reset_enabled); };
    case BOARD_SET_FAN_SPEED:
      return [](BoardModel& m, void* a) {
        m.fan_speed_setting = load<std::uint8_t>(a);
        return 0;
      };
    case BOARD_GET_FAN_INFO:
      return get_fan_info;
    case BOARD_GET_PS_INFO:
      return get_ps_info;
    case BOARD_GET_TEMP_INFO:
      return get_temp_info;
    case BOARD_SET_FAN_MODULE_SPEED:
      return [](BoardModel& m, void* a) {
        if (!m.fan_module) {
          return ENODEV;
        }
        m.fan_module->speed_setting = load<std::uint8_t>(a);
        return 0;
      };
    case BOARD_GET_FAN_MODULE_FACTORY:
      return get_fan_module_factory;
    case BOARD_GET_FAN_MODULE_STATE:
      return get_fan_module_state;
    case BOARD_GET_PWR_MODULE_STATE:
      return get_pwr_module_state;
    case BOARD_CNTRL_LED_PANEL:
      return cntrl_led_panel;
    case BOARD_P_PORT_SET_LED_STATE:
      return p_port_set_led_state;
    case BOARD_P_PORT_GET_LED_STATE:
      return p_port_get_led_state;
    case BOARD_CNTRL_P_PORT_SFP_TRX:
      return [](BoardModel& m, void* a) { return cntrl_sfp_trx(m.pon_ports, a); };
    case BOARD_CNTRL_F_PORT_SFP_TRX:
      return [](BoardModel& m, void* a) { return cntrl_sfp_trx(m.front_ports, a); };
    case BOARD_GET_P_PORT_SFP_TRX:
      return get_p_port_sfp_trx;
    case BOARD_GET_F_PORT_SFP_STATE:
      return [](BoardModel& m, void* a) { return get_sfp_state(m.front_ports, a); };
    case BOARD_GET_P_PORT_SFP_STATE:
      return [](BoardModel& m, void* a) { return get_sfp_state(m.pon_ports, a); };
    case BOARD_GET_F_PORT_SFP_DATA:
      return [](BoardModel& m, void* a) { return get_sfp_data(m.front_ports, a); };
    case BOARD_GET_P_PORT_SFP_DATA:
      return [](BoardModel& m, void* a) { return get_sfp_data(m.pon_ports, a); };
    case BOARD_GET_F_PORT_SFP_EDDI_DATA:
      return [](BoardModel& m, void* a) { return get_sfp_eddi(m.front_ports, a); };
    case BOARD_GET_P_PORT_SFP_EDDI_DATA:
      return [](BoardModel& m, void* a) { return get_sfp_eddi(m.pon_ports, a); };
    case BOARD_GET_P_PORT_SFP_RX_POWER:
      return get_p_port_sfp_rx_power;
    default:
      return nullptr;
  }
}

// The operation table, generated from the driver's command list.
#define XPON_EMU_OPERATION(command, record) Operation{command, #command, _IOC_SIZE(command), answer_of(command)},
constexpr std::array kOperations = {BRD_DRIVER_COMMANDS(XPON_EMU_OPERATION)};
#undef XPON_EMU_OPERATION

static_assert(std::none_of(kOperations.begin(), kOperations.end(),
                           [](const Operation& operation) { return operation.answer == nullptr; }),
              "every command of the driver's list has its answer in answer_of");

}  // namespace

std::span<const Operation> operations() {
  return kOperations;
}

const Operation* find_operation(unsigned int request) {
  const auto found = std::find_if(kOperations.begin(), kOperations.end(),
                                  [&](const Operation& operation) { return operation.request == request; });
  return found == kOperations.end() ? nullptr : &*found;
}

bool is_operation_name(std::string_view name) {
  return std::any_of(kOperations.begin(), kOperations.end(),
                     [&](const Operation& operation) { return operation.name == name; });
}

}  // namespace xpon::board_emu
