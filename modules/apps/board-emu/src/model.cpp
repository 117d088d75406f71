#include "xpon/board_emu/model.hpp"

#include "json_reader.hpp"
#include "xpon/board/driver_abi.h"
#include "xpon/board_emu/operations.hpp"

#include <fmt/format.h>

#include <cctype>
#include <cerrno>
#include <utility>

namespace xpon::board_emu {

using detail::element_path;
using detail::FieldError;
using detail::ObjectReader;

namespace {

// Errors a driver command plausibly fails with; others may be given by number.
constexpr std::array<std::pair<std::string_view, int>, 16> kErrnoNames = {{
    {"EPERM", EPERM},
    {"EINTR", EINTR},
    {"EIO", EIO},
    {"ENXIO", ENXIO},
    {"EAGAIN", EAGAIN},
    {"ENOMEM", ENOMEM},
    {"EACCES", EACCES},
    {"EFAULT", EFAULT},
    {"EBUSY", EBUSY},
    {"ENODEV", ENODEV},
    {"EINVAL", EINVAL},
    {"ENOTTY", ENOTTY},
    {"ERANGE", ERANGE},
    {"ENODATA", ENODATA},
    {"EPROTO", EPROTO},
    {"ETIMEDOUT", ETIMEDOUT},
}};

constexpr std::array<std::string_view, 3> kLedModeNames = {"off", "on", "blink"};
constexpr std::array<std::string_view, 3> kLedColorNames = {"green", "yellow", "red"};

template <std::size_t N>
std::size_t read_name(const Json& value, const std::string& path, const std::array<std::string_view, N>& names) {
  if (value.is_string()) {
    const auto text = value.get<std::string>();
    for (std::size_t i = 0; i < N; ++i) {
      if (names[i] == text) {
        return i;
      }
    }
  }
  throw FieldError(path,
                   fmt::format("must be one of \"{}\", not {}", fmt::join(names, "\", \""), detail::describe(value)));
}

const Json& read_list(const Json& value, const std::string& path, std::size_t max_size) {
  if (!value.is_array()) {
    throw FieldError(path, fmt::format("must be a list, not {}", detail::describe(value)));
  }
  if (value.size() > max_size) {
    throw FieldError(path, fmt::format("holds {} elements, at most {} are possible", value.size(), max_size));
  }
  return value;
}

std::array<std::uint8_t, 60> read_hex_bytes(const Json& value, const std::string& path) {
  const auto refuse = [&]() {
    return FieldError(path, fmt::format("must be at most 60 bytes in hexadecimal (\"03 04 07 ...\"), not {}",
                                        detail::describe(value)));
  };
  if (!value.is_string()) {
    throw refuse();
  }
  std::array<std::uint8_t, 60> bytes{};
  std::size_t count = 0;
  const auto text = value.get<std::string>();
  std::string digits;
  for (const char c : text) {
    if (std::isspace(static_cast<unsigned char>(c)) != 0) {
      continue;
    }
    if (std::isxdigit(static_cast<unsigned char>(c)) == 0) {
      throw refuse();
    }
    digits.push_back(c);
  }
  if (digits.size() % 2 != 0 || digits.size() / 2 > bytes.size()) {
    throw refuse();
  }
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes[count++] = static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

std::string hex_bytes(const std::array<std::uint8_t, 60>& bytes) {
  std::size_t used = bytes.size();
  while (used > 0 && bytes[used - 1] == 0) {
    --used;
  }
  std::string text;
  for (std::size_t i = 0; i < used; ++i) {
    if (i != 0) {
      text += ' ';
    }
    text += fmt::format("{:02x}", bytes[i]);
  }
  return text;
}

Inventory read_inventory(const Json& value, const std::string& path, const BoardModel& model) {
  ObjectReader reader(value, path);
  Inventory inventory;
  // A count left out follows the list the model holds, so small scenarios stay consistent.
  inventory.cpld_version = reader.integer<std::uint8_t>("cpld_version", 0);
  inventory.fan_count = reader.integer<std::uint8_t>("fan_count", static_cast<std::uint8_t>(model.fans.size()));
  inventory.ps_count = reader.integer<std::uint8_t>("ps_count", static_cast<std::uint8_t>(model.power_supplies.size()));
  inventory.temp_count = reader.integer<std::uint8_t>("temp_count", static_cast<std::uint8_t>(model.sensors.size()));
  inventory.pon_port_count =
      reader.integer<std::uint8_t>("pon_port_count", static_cast<std::uint8_t>(model.pon_ports.size()));
  inventory.front_port_count =
      reader.integer<std::uint8_t>("front_port_count", static_cast<std::uint8_t>(model.front_ports.size()));
  reader.finish();
  return inventory;
}

TempSensor read_sensor(const Json& value, const std::string& path, std::size_t index) {
  ObjectReader reader(value, path);
  TempSensor sensor;
  sensor.id = reader.integer<std::int32_t>("id", static_cast<std::int32_t>(index));
  sensor.temperature = reader.integer<std::int8_t>("temperature", 0);
  reader.finish();
  return sensor;
}

Fan read_fan(const Json& value, const std::string& path) {
  ObjectReader reader(value, path);
  Fan fan;
  fan.present = reader.boolean("present", true);
  fan.fault = reader.boolean("fault", false);
  fan.speed = reader.integer<std::uint16_t>("speed", 0);
  reader.finish();
  return fan;
}

PowerSupply read_power_supply(const Json& value, const std::string& path) {
  ObjectReader reader(value, path);
  PowerSupply supply;
  supply.present = reader.boolean("present", true);
  supply.power_good = reader.boolean("power_good", true);
  supply.alert = reader.integer<std::uint8_t>("alert", 0);
  // A text may fill the driver's whole field; it then goes out without its NUL, as a supply
  // that fills the field reports it, and readers must stop at the field's end.
  supply.model = reader.text("model", sizeof(Brd__ps_info::model));
  supply.serial = reader.text("serial", sizeof(Brd__ps_info::sn));
  supply.version = reader.text("version", sizeof(Brd__ps_info::ver));
  supply.revision = reader.text("revision", sizeof(Brd__ps_info::rev));
  supply.date = reader.text("date", sizeof(Brd__ps_info::date));
  const bool any_text = !supply.model.empty() || !supply.serial.empty() || !supply.version.empty() ||
                        !supply.revision.empty() || !supply.date.empty();
  supply.has_info = reader.boolean("has_info", any_text);
  reader.finish();
  return supply;
}

FanModule read_fan_module(const Json& value, const std::string& path) {
  ObjectReader reader(value, path);
  FanModule module;
  module.present = reader.boolean("present", true);
  module.fault = reader.boolean("fault", false);
  if (const Json* speeds = reader.get("fan_speeds")) {
    const auto speeds_path = reader.path_of("fan_speeds");
    read_list(*speeds, speeds_path, kMaxFanModuleFans);
    for (std::size_t i = 0; i < speeds->size(); ++i) {
      module.fan_speeds.push_back(detail::read_int<std::uint8_t>((*speeds)[i], element_path(speeds_path, i)));
    }
  }
  module.speed_setting = reader.integer<std::uint8_t>("speed_setting", 0);
  if (const Json* factory = reader.get("factory")) {
    // Factory texts are NUL-padded fields that need not be terminated, so they may fill the field.
    ObjectReader fields(*factory, reader.path_of("factory"));
    module.factory.product_name = fields.text("product_name", 16);
    module.factory.serial_number = fields.text("serial_number", 16);
    module.factory.hw_revision = fields.text("hw_revision", 4);
    module.factory.mfg_date = fields.text("mfg_date", 6);
    fields.finish();
  }
  reader.finish();
  return module;
}

Thermal read_thermal(const Json& value, const std::string& path) {
  ObjectReader fields(value, path);
  Thermal thermal;
  thermal.enabled = fields.boolean("enabled", thermal.enabled);
  thermal.ambient = fields.integer<std::int8_t>("ambient", thermal.ambient);
  thermal.load = fields.integer<std::uint8_t>("load", thermal.load);
  thermal.cooling = fields.integer<std::uint8_t>("cooling", thermal.cooling);
  if (const Json* step = fields.get("step_ms")) {
    thermal.step_ms = static_cast<std::uint16_t>(detail::read_integer(*step, fields.path_of("step_ms"), 10, 60000));
  }
  if (const Json* rate = fields.get("rate_percent")) {
    thermal.rate_percent =
        static_cast<std::uint8_t>(detail::read_integer(*rate, fields.path_of("rate_percent"), 1, 100));
  }
  fields.finish();
  return thermal;
}

PowerModule read_power_module(const Json& value, const std::string& path) {
  ObjectReader reader(value, path);
  PowerModule module;
  module.present = reader.boolean("present", true);
  module.power_good = reader.boolean("power_good", true);
  module.fault = reader.boolean("fault", false);
  module.fan_fault = reader.boolean("fan_fault", false);
  module.input_voltage = reader.integer<std::uint16_t>("input_voltage", 0);
  module.output_voltage = reader.integer<std::uint16_t>("output_voltage", 0);
  module.output_current = reader.integer<std::uint16_t>("output_current", 0);
  module.output_power = reader.integer<std::uint16_t>("output_power", 0);
  module.temperature = reader.integer<std::int16_t>("temperature", 0);
  reader.finish();
  return module;
}

SfpPort read_port(const Json& value, const std::string& path, bool pon_port) {
  ObjectReader reader(value, path);
  SfpPort port;
  port.present = reader.boolean("present", false);
  port.tx_fault = reader.boolean("tx_fault", false);
  port.rx_los = reader.boolean("rx_los", false);
  port.state = reader.integer<std::uint8_t>("state", 0);
  if (const Json* identification = reader.get("identification")) {
    port.identification = read_hex_bytes(*identification, reader.path_of("identification"));
  }
  if (const Json* words = reader.get("diagnostics")) {
    const auto words_path = reader.path_of("diagnostics");
    read_list(*words, words_path, port.diagnostics.size());
    for (std::size_t i = 0; i < words->size(); ++i) {
      port.diagnostics[i] = detail::read_int<std::uint16_t>((*words)[i], element_path(words_path, i));
    }
  }
  port.trx_enabled = reader.boolean("trx_enabled", true);
  if (pon_port) {
    if (const Json* rx_power = reader.get("rx_power")) {
      ObjectReader fields(*rx_power, reader.path_of("rx_power"));
      port.rx_power.raw = fields.integer<std::uint16_t>("raw", 0);
      if (const Json* coefficients = fields.get("coefficients")) {
        const auto coefficients_path = fields.path_of("coefficients");
        read_list(*coefficients, coefficients_path, port.rx_power.coefficients.size());
        for (std::size_t i = 0; i < coefficients->size(); ++i) {
          port.rx_power.coefficients[i] = detail::read_float((*coefficients)[i], element_path(coefficients_path, i));
        }
      }
      fields.finish();
    }
    if (const Json* led = reader.get("led")) {
      ObjectReader fields(*led, reader.path_of("led"));
      if (const Json* red = fields.get("red")) {
        port.led.red = static_cast<LedMode>(read_name(*red, fields.path_of("red"), kLedModeNames));
      }
      if (const Json* green = fields.get("green")) {
        port.led.green = static_cast<LedMode>(read_name(*green, fields.path_of("green"), kLedModeNames));
      }
      fields.finish();
    }
  }
  reader.finish();
  return port;
}

Fault read_fault(const Json& value, const std::string& path) {
  ObjectReader reader(value, path);
  Fault fault;
  if (const Json* error = reader.get("errno")) {
    const auto error_path = reader.path_of("errno");
    if (error->is_string()) {
      const auto known = errno_from_name(error->get<std::string>());
      if (!known) {
        throw FieldError(error_path, fmt::format("unknown errno name {}", detail::describe(*error)));
      }
      fault.error = *known;
    } else {
      fault.error = static_cast<int>(detail::read_integer(*error, error_path, 1, 4095));
    }
  }
  if (const Json* count = reader.get("count")) {
    fault.remaining =
        static_cast<std::uint32_t>(detail::read_integer(*count, reader.path_of("count"), 1, 0xFFFFFFFFLL));
  }
  fault.delay_ms = static_cast<std::uint32_t>(reader.integer<std::uint32_t>("delay_ms", 0));
  constexpr std::uint32_t kLongestDelayMs = 600000;
  if (fault.delay_ms > kLongestDelayMs) {
    throw FieldError(reader.path_of("delay_ms"),
                     fmt::format("must be an integer from 0 to {}, not {}", kLongestDelayMs, fault.delay_ms));
  }
  reader.finish();
  if (fault.error == 0 && fault.delay_ms == 0) {
    throw FieldError(path, "needs an errno, a delay_ms above 0, or both");
  }
  return fault;
}

template <typename T, typename Read>
std::vector<T> read_elements(const Json* list, const std::string& path, std::size_t max_size, Read&& read) {
  std::vector<T> result;
  if (list == nullptr) {
    return result;
  }
  read_list(*list, path, max_size);
  for (std::size_t i = 0; i < list->size(); ++i) {
    result.push_back(read((*list)[i], element_path(path, i), i));
  }
  return result;
}

BoardModel read_model(const Json& document, const std::string& base_path) {
  ObjectReader reader(document, base_path);
  BoardModel model;
  model.sensors = read_elements<TempSensor>(
      reader.get("sensors"), reader.path_of("sensors"), kMaxSensors,
      [](const Json& v, const std::string& p, std::size_t i) { return read_sensor(v, p, i); });
  model.fans = read_elements<Fan>(reader.get("fans"), reader.path_of("fans"), kMaxFans,
                                  [](const Json& v, const std::string& p, std::size_t) { return read_fan(v, p); });
  model.power_supplies = read_elements<PowerSupply>(
      reader.get("power_supplies"), reader.path_of("power_supplies"), kMaxPowerSupplies,
      [](const Json& v, const std::string& p, std::size_t) { return read_power_supply(v, p); });
  model.pon_ports =
      read_elements<SfpPort>(reader.get("pon_ports"), reader.path_of("pon_ports"), kMaxPorts,
                             [](const Json& v, const std::string& p, std::size_t) { return read_port(v, p, true); });
  model.front_ports =
      read_elements<SfpPort>(reader.get("front_ports"), reader.path_of("front_ports"), kMaxPorts,
                             [](const Json& v, const std::string& p, std::size_t) { return read_port(v, p, false); });
  if (const Json* inventory = reader.get("inventory")) {
    model.inventory = read_inventory(*inventory, reader.path_of("inventory"), model);
  } else {
    model.inventory = read_inventory(Json::object(), reader.path_of("inventory"), model);
  }
  if (const Json* versions = reader.get("versions")) {
    ObjectReader fields(*versions, reader.path_of("versions"));
    model.fpga_version = fields.integer<std::uint8_t>("fpga", 0);
    fields.finish();
  }
  model.fan_speed_setting = reader.integer<std::uint8_t>("fan_speed_setting", 0);
  if (const Json* module = reader.get("fan_module")) {
    model.fan_module = read_fan_module(*module, reader.path_of("fan_module"));
  }
  if (const Json* module = reader.get("power_module")) {
    model.power_module = read_power_module(*module, reader.path_of("power_module"));
  }
  if (const Json* panel = reader.get("led_panel")) {
    ObjectReader leds(*panel, reader.path_of("led_panel"));
    for (std::size_t i = 0; i < kPanelLedNames.size(); ++i) {
      if (const Json* led = leds.get(kPanelLedNames[i])) {
        ObjectReader fields(*led, leds.path_of(kPanelLedNames[i]));
        if (const Json* mode = fields.get("mode")) {
          model.led_panel[i].mode = static_cast<LedMode>(read_name(*mode, fields.path_of("mode"), kLedModeNames));
        }
        if (const Json* color = fields.get("color")) {
          model.led_panel[i].color = static_cast<LedColor>(read_name(*color, fields.path_of("color"), kLedColorNames));
        }
        fields.finish();
      }
    }
    leds.finish();
  }
  if (const Json* button = reader.get("front_button")) {
    ObjectReader fields(*button, reader.path_of("front_button"));
    model.front_button.pressed = fields.boolean("pressed", false);
    model.front_button.polling_enabled = fields.boolean("polling_enabled", false);
    model.front_button.hard_reset_enabled = fields.boolean("hard_reset_enabled", false);
    fields.finish();
  }
  if (const Json* faults = reader.get("faults")) {
    ObjectReader fields(*faults, reader.path_of("faults"));
    for (const auto& [name, value] : faults->items()) {
      const auto fault_path = fields.path_of(name);
      if (!is_operation_name(name)) {
        throw FieldError(fault_path, "no driver command of this name");
      }
      if (const Json* fault = fields.get(name)) {
        model.faults.emplace(name, read_fault(*fault, fault_path));
      }
    }
    fields.finish();
  }
  if (const Json* thermal = reader.get("thermal")) {
    model.thermal = read_thermal(*thermal, reader.path_of("thermal"));
  }
  reader.finish();
  return model;
}

Json port_to_json(const SfpPort& port, bool pon_port) {
  Json json = {
      {"present", port.present},
      {"tx_fault", port.tx_fault},
      {"rx_los", port.rx_los},
      {"state", port.state},
      {"identification", hex_bytes(port.identification)},
      {"diagnostics", port.diagnostics},
      {"trx_enabled", port.trx_enabled},
  };
  if (pon_port) {
    json["rx_power"] = {{"raw", port.rx_power.raw}, {"coefficients", port.rx_power.coefficients}};
    json["led"] = {{"red", kLedModeNames[static_cast<std::size_t>(port.led.red)]},
                   {"green", kLedModeNames[static_cast<std::size_t>(port.led.green)]}};
  }
  return json;
}

void merge_into(Json& target, const Json& patch, const std::string& path);

Json without_nulls(const Json& patch, const std::string& path) {
  Json result = Json::object();
  merge_into(result, patch, path);
  return result;
}

void merge_into(Json& target, const Json& patch, const std::string& path) {
  if (!patch.is_object()) {
    target = patch;
    return;
  }
  if (target.is_array()) {
    for (const auto& [key, value] : patch.items()) {
      const bool is_index = !key.empty() && key.size() <= 9 && key.find_first_not_of("0123456789") == std::string::npos;
      if (!is_index) {
        throw FieldError(detail::member_path(path, key),
                         "a list is patched with a whole list or with element indexes such as \"0\"");
      }
      const auto index = static_cast<std::size_t>(std::stoul(key));
      const auto where = element_path(path, index);
      if (index >= target.size()) {
        throw FieldError(where, fmt::format("no such element, the list has {}", target.size()));
      }
      if (value.is_null()) {
        throw FieldError(where, "a list element cannot be removed; write the whole list instead");
      }
      merge_into(target[index], value, where);
    }
    return;
  }
  if (!target.is_object()) {
    target = without_nulls(patch, path);
    return;
  }
  for (const auto& [key, value] : patch.items()) {
    if (value.is_null()) {
      target.erase(key);
    } else {
      Json& member = target[key];
      merge_into(member, value, detail::member_path(path, key));
    }
  }
}

}  // namespace

std::optional<int> errno_from_name(std::string_view name) {
  for (const auto& [known, value] : kErrnoNames) {
    if (known == name) {
      return value;
    }
  }
  return std::nullopt;
}

std::string errno_name(int error) {
  for (const auto& [known, value] : kErrnoNames) {
    if (value == error) {
      return std::string(known);
    }
  }
  return std::to_string(error);
}

std::string error_text(const core::ErrorPayload& error) {
  if (error.info && error.info->message) {
    return *error.info->message;
  }
  return std::string(core::error_name(error.error));
}

core::Result<Json> parse_json_text(std::string_view text) {
  if (text.size() > kMaxJsonText) {
    return core::ErrorPayload(core::Error::InvalidInputArg,
                              fmt::format("the JSON text is larger than {} bytes", kMaxJsonText));
  }
  // Merging and printing walk a document recursively, so a hostile depth is refused up front.
  struct TooDeep {};
  try {
    // The parser gives the depth of the enclosing container, 0 for the outermost one.
    return Json::parse(text, [](int depth, Json::parse_event_t event, Json& /*parsed*/) {
      const bool opens = event == Json::parse_event_t::object_start || event == Json::parse_event_t::array_start;
      if (opens && depth >= kMaxJsonDepth) {
        throw TooDeep{};
      }
      return true;
    });
  } catch (const TooDeep&) {
    return core::ErrorPayload(core::Error::InvalidInputArg,
                              fmt::format("the JSON text is nested deeper than {} levels", kMaxJsonDepth));
  } catch (const Json::parse_error& error) {
    return core::ErrorPayload(core::Error::InvalidInputArg, fmt::format("not valid JSON: {}", error.what()));
  }
}

core::Result<BoardModel> model_from_json(const Json& document, const std::string& base_path) {
  try {
    return read_model(document, base_path);
  } catch (const FieldError& refused) {
    return core::ErrorPayload(core::Error::InvalidInputArg, refused.what());
  }
}

Json model_to_json(const BoardModel& model) {
  Json json = Json::object();
  const auto& inventory = model.inventory;
  json["inventory"] = {
      {"cpld_version", inventory.cpld_version},
      {"fan_count", inventory.fan_count},
      {"ps_count", inventory.ps_count},
      {"temp_count", inventory.temp_count},
      {"pon_port_count", inventory.pon_port_count},
      {"front_port_count", inventory.front_port_count},
  };
  json["versions"] = {{"fpga", model.fpga_version}};
  json["sensors"] = Json::array();
  for (const auto& sensor : model.sensors) {
    json["sensors"].push_back({{"id", sensor.id}, {"temperature", sensor.temperature}});
  }
  json["fans"] = Json::array();
  for (const auto& fan : model.fans) {
    json["fans"].push_back({{"present", fan.present}, {"fault", fan.fault}, {"speed", fan.speed}});
  }
  json["fan_speed_setting"] = model.fan_speed_setting;
  json["power_supplies"] = Json::array();
  for (const auto& supply : model.power_supplies) {
    json["power_supplies"].push_back({{"present", supply.present},
                                      {"power_good", supply.power_good},
                                      {"has_info", supply.has_info},
                                      {"alert", supply.alert},
                                      {"model", supply.model},
                                      {"serial", supply.serial},
                                      {"version", supply.version},
                                      {"revision", supply.revision},
                                      {"date", supply.date}});
  }
  json["fan_module"] = nullptr;
  if (const auto& module = model.fan_module) {
    json["fan_module"] = {{"present", module->present},
                          {"fault", module->fault},
                          {"fan_speeds", module->fan_speeds},
                          {"speed_setting", module->speed_setting},
                          {"factory",
                           {{"product_name", module->factory.product_name},
                            {"serial_number", module->factory.serial_number},
                            {"hw_revision", module->factory.hw_revision},
                            {"mfg_date", module->factory.mfg_date}}}};
  }
  json["power_module"] = nullptr;
  if (const auto& module = model.power_module) {
    json["power_module"] = {{"present", module->present},
                            {"power_good", module->power_good},
                            {"fault", module->fault},
                            {"fan_fault", module->fan_fault},
                            {"input_voltage", module->input_voltage},
                            {"output_voltage", module->output_voltage},
                            {"output_current", module->output_current},
                            {"output_power", module->output_power},
                            {"temperature", module->temperature}};
  }
  json["pon_ports"] = Json::array();
  for (const auto& port : model.pon_ports) {
    json["pon_ports"].push_back(port_to_json(port, true));
  }
  json["front_ports"] = Json::array();
  for (const auto& port : model.front_ports) {
    json["front_ports"].push_back(port_to_json(port, false));
  }
  json["led_panel"] = Json::object();
  for (std::size_t i = 0; i < kPanelLedNames.size(); ++i) {
    json["led_panel"][std::string(kPanelLedNames[i])] = {
        {"mode", kLedModeNames[static_cast<std::size_t>(model.led_panel[i].mode)]},
        {"color", kLedColorNames[static_cast<std::size_t>(model.led_panel[i].color)]}};
  }
  json["front_button"] = {{"pressed", model.front_button.pressed},
                          {"polling_enabled", model.front_button.polling_enabled},
                          {"hard_reset_enabled", model.front_button.hard_reset_enabled}};
  json["thermal"] = {{"enabled", model.thermal.enabled}, {"ambient", model.thermal.ambient},
                     {"load", model.thermal.load},       {"cooling", model.thermal.cooling},
                     {"step_ms", model.thermal.step_ms}, {"rate_percent", model.thermal.rate_percent}};
  json["faults"] = Json::object();
  for (const auto& [name, fault] : model.faults) {
    Json entry = {{"delay_ms", fault.delay_ms}};
    if (fault.error != 0) {
      // Named when the name is known here, so that the document reads back to the same fault.
      if (auto known = errno_name(fault.error); errno_from_name(known)) {
        entry["errno"] = known;
      } else {
        entry["errno"] = fault.error;
      }
    }
    if (fault.remaining) {
      entry["count"] = *fault.remaining;
    }
    json["faults"][name] = entry;
  }
  return json;
}

core::Result<Json> merge_patch(const Json& document, const Json& patch, const std::string& base_path) {
  try {
    if (!patch.is_object()) {
      throw FieldError(base_path, fmt::format("a patch must be a JSON object, not {}", detail::describe(patch)));
    }
    Json merged = document;
    merge_into(merged, patch, base_path);
    return merged;
  } catch (const FieldError& refused) {
    return core::ErrorPayload(core::Error::InvalidInputArg, refused.what());
  }
}

bool thermal_step(BoardModel& model) {
  const Thermal& thermal = model.thermal;
  if (!thermal.enabled) {
    return false;
  }
  const int setting = model.fan_module ? model.fan_module->speed_setting : model.fan_speed_setting;
  const int target = thermal.ambient + thermal.load - thermal.cooling * setting / 255;
  bool changed = false;
  for (auto& sensor : model.sensors) {
    // NOLINTNEXTLINE(bugprone-signed-char-misuse): a temperature is a signed byte
    const int now = sensor.temperature;
    const int distance = target - now;
    if (distance == 0) {
      continue;
    }
    int move = distance * thermal.rate_percent / 100;
    if (move == 0) {
      move = distance > 0 ? 1 : -1;
    }
    sensor.temperature = static_cast<std::int8_t>(std::clamp(now + move, -128, 127));
    changed = true;
  }
  return changed;
}

core::Result<BoardModel> apply_patch(const BoardModel& model, const Json& patch, const std::string& base_path) {
  auto merged = merge_patch(model_to_json(model), patch, base_path);
  if (!merged) {
    return merged.error();
  }
  return model_from_json(merged.value(), base_path);
}

}  // namespace xpon::board_emu
