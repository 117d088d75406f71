#include "decode.hpp"

#include "decode_control.hpp"
#include "decode_fans.hpp"
#include "decode_power.hpp"
#include "decode_sfp.hpp"
#include "decode_support.hpp"

#include "xpon/cfgdb/change_event.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/tool/console.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <bit>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <span>
#include <utility>

namespace xpon::system_mgr::ctl {

namespace {

using namespace detail;
using tool::UsageError;

struct Named {
  std::uint16_t id;
  std::string_view name;
};

constexpr std::array kRequests{
    Named{IPC_SYSTEM_MGR__GET_RAM_DATA, "IPC_SYSTEM_MGR__GET_RAM_DATA"},
    Named{IPC_SYSTEM_MGR__GET_HDD_DATA, "IPC_SYSTEM_MGR__GET_HDD_DATA"},
    Named{IPC_SYSTEM_MGR__CNTRL_LED_PANEL, "IPC_SYSTEM_MGR__CNTRL_LED_PANEL"},
    Named{IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, "IPC_SYSTEM_MGR__GET_DEVICE_FACTORY"},
    Named{IPC_SYSTEM_MGR__GET_CRATE_FACTORY, "IPC_SYSTEM_MGR__GET_CRATE_FACTORY"},
    Named{IPC_SYSTEM_MGR__GET_FPGA_VERSION, "IPC_SYSTEM_MGR__GET_FPGA_VERSION"},
    Named{IPC_SYSTEM_MGR__GET_CPLD_VERSION, "IPC_SYSTEM_MGR__GET_CPLD_VERSION"},
    Named{IPC_SYSTEM_MGR__ENABLE_F_BUTTON, "IPC_SYSTEM_MGR__ENABLE_F_BUTTON"},
    Named{IPC_SYSTEM_MGR__ENABLE_F_BUTTON_HARD_RESET, "IPC_SYSTEM_MGR__ENABLE_F_BUTTON_HARD_RESET"},
    Named{IPC_SYSTEM_MGR__DISABLE_F_BUTTON, "IPC_SYSTEM_MGR__DISABLE_F_BUTTON"},
    Named{IPC_SYSTEM_MGR__DISABLE_F_BUTTON_HARD_RESET, "IPC_SYSTEM_MGR__DISABLE_F_BUTTON_HARD_RESET"},
    Named{IPC_SYSTEM_MGR__IS_F_BUTTON_ENABLED, "IPC_SYSTEM_MGR__IS_F_BUTTON_ENABLED"},
    Named{IPC_SYSTEM_MGR__IS_F_BUTTON_HARD_RESET_ENABLED, "IPC_SYSTEM_MGR__IS_F_BUTTON_HARD_RESET_ENABLED"},
    Named{IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED, "IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED"},
    Named{IPC_SYSTEM_MGR__GET_TEMP, "IPC_SYSTEM_MGR__GET_TEMP"},
    Named{IPC_SYSTEM_MGR__TRIGGER_EVENT_P_PORTS_SFP_MODULE_INJECT,
          "IPC_SYSTEM_MGR__TRIGGER_EVENT_P_PORTS_SFP_MODULE_INJECT"},
    Named{IPC_SYSTEM_MGR__TRIGGER_EVENT_F_PORTS_SFP_MODULE_INJECT,
          "IPC_SYSTEM_MGR__TRIGGER_EVENT_F_PORTS_SFP_MODULE_INJECT"},
    Named{IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA, "IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA"},
    Named{IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA, "IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA"},
    Named{IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER, "IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER"},
    Named{IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO, "IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO"},
    Named{IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO, "IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO"},
    Named{IPC_SYSTEM_MGR__ENABLE_P_PORT_SFP_MODULE_TRX, "IPC_SYSTEM_MGR__ENABLE_P_PORT_SFP_MODULE_TRX"},
    Named{IPC_SYSTEM_MGR__ENABLE_F_PORT_SFP_MODULE_TRX, "IPC_SYSTEM_MGR__ENABLE_F_PORT_SFP_MODULE_TRX"},
    Named{IPC_SYSTEM_MGR__DISABLE_P_PORT_SFP_MODULE_TRX, "IPC_SYSTEM_MGR__DISABLE_P_PORT_SFP_MODULE_TRX"},
    Named{IPC_SYSTEM_MGR__DISABLE_F_PORT_SFP_MODULE_TRX, "IPC_SYSTEM_MGR__DISABLE_F_PORT_SFP_MODULE_TRX"},
    Named{IPC_SYSTEM_MGR__GET_FAN_STATES, "IPC_SYSTEM_MGR__GET_FAN_STATES"},
    Named{IPC_SYSTEM_MGR__SET_FAN_SPEED, "IPC_SYSTEM_MGR__SET_FAN_SPEED"},
    Named{IPC_SYSTEM_MGR__GET_PS_STATES, "IPC_SYSTEM_MGR__GET_PS_STATES"},
    Named{IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE, "IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE"},
    Named{IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY, "IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY"},
    Named{IPC_SYSTEM_MGR__SET_FAN_MODULE_SPEED, "IPC_SYSTEM_MGR__SET_FAN_MODULE_SPEED"},
    Named{IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE, "IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE"},
    Named{IPC_SYSTEM_MGR__P_PORT_R_LED_ON_G_LED_OFF, "IPC_SYSTEM_MGR__P_PORT_R_LED_ON_G_LED_OFF"},
    Named{IPC_SYSTEM_MGR__P_PORT_G_LED_ON_R_LED_OFF, "IPC_SYSTEM_MGR__P_PORT_G_LED_ON_R_LED_OFF"},
    Named{IPC_SYSTEM_MGR__P_PORT_LED_OFF, "IPC_SYSTEM_MGR__P_PORT_LED_OFF"},
};

constexpr std::array kDaemonEvents{
    Named{IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE, "IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE"},
    Named{IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE, "IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE"},
    Named{IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_INSERTED, "IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_INSERTED"},
    Named{IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_REMOVED, "IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_REMOVED"},
    Named{IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_INSERTED, "IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_INSERTED"},
    Named{IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED, "IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED"},
};

// Events of other programs that show up on a board's bus next to the daemon's.
constexpr std::uint16_t kElectionMasterChanged = 14505;

constexpr std::string_view kRequestPrefix = "IPC_SYSTEM_MGR__";

std::string_view find_name(std::span<const Named> table, std::uint16_t id) noexcept {
  const auto found = std::find_if(table.begin(), table.end(), [id](const Named& named) { return named.id == id; });
  return found == table.end() ? std::string_view{} : found->name;
}

/// The fields every JSON line of an event starts with.
Json event_json(std::string_view type, const ipc::Event& event) {
  Json line{{"type", type}, {"group", event.group}, {"id", event.id}};
  const auto name = event_name({event.group, event.id});
  if (!name.empty()) {
    line["name"] = name;
  }
  line["source"] = address_text(event.source);
  line["slot"] = event.source & 0xFFFFU;
  line["address"] = address_text(event.address);
  return line;
}

/// The text every line of an event starts with: key, name when known, and sender.
std::string event_prefix(const ipc::Event& event) {
  const auto name = event_name({event.group, event.id});
  return fmt::format("{}:{} {} from {}", event.group, event.id, name.empty() ? "unknown event" : name,
                     address_text(event.source));
}

std::string malformed(const ipc::Event& event, std::string_view type, const std::string& reason, bool json) {
  if (json) {
    Json line = event_json(type, event);
    line["error"] = reason;
    line["payload"] = hex(event.payload);
    return line.dump();
  }
  return fmt::format("{}: {}; payload [{}] {}", event_prefix(event), reason, hex(event.payload),
                     byte_count(event.payload.size()));
}

std::string format_alarm(const ipc::Event& event, bool json) {
  const std::span<const std::uint8_t> bytes(event.payload);
  if (bytes.size() != sizeof(Alarm)) {
    return malformed(
        event, "alarm",
        fmt::format("malformed alarm record: {} bytes, an alarm record has {}", bytes.size(), sizeof(Alarm)), json);
  }
  const std::uint8_t state = bytes[offsetof(Alarm, state)];
  const std::uint32_t alarm_id = read_u32(bytes, offsetof(Alarm, alarm_id));
  const std::uint32_t instance = read_u32(bytes, offsetof(Alarm, instance));
  std::array<std::int64_t, 3> values{};
  for (std::size_t i = 0; i < values.size(); ++i) {
    values[i] = read_u32(bytes, offsetof(Alarm, value) + 4 * i);
  }
  // A temperature travels as one signed byte at the start of the first value.
  if (alarm_id == SYSTEM_MGR_ALARM_TEMPERATURE) {
    // NOLINTNEXTLINE(bugprone-signed-char-misuse): the sign extension is the point
    values[0] = static_cast<std::int8_t>(bytes[offsetof(Alarm, value)]);
  }
  const auto text_field = bytes.subspan(offsetof(Alarm, text), sizeof(Alarm::text));
  const auto nul = std::find(text_field.begin(), text_field.end(), std::uint8_t{0});
  const bool terminated = nul != text_field.end();
  const std::string_view text(reinterpret_cast<const char*>(text_field.data()),
                              static_cast<std::size_t>(nul - text_field.begin()));
  const std::string_view name = alarm_name(alarm_id);
  std::string state_text;
  if (state == SYSTEM_MGR_ALARM_RAISED) {
    state_text = "raised";
  } else if (state == SYSTEM_MGR_ALARM_BACK_TO_NORMAL) {
    state_text = "back to normal";
  } else {
    state_text = fmt::format("unknown state {}", state);
  }
  if (json) {
    Json line = event_json("alarm", event);
    line["alarm_id"] = alarm_id;
    line["alarm"] = name.empty() ? std::string_view("unknown") : name;
    line["state"] = state_text;
    line["instance"] = instance;
    line["values"] = values;
    line["text"] = escaped(text, false);
    if (!terminated) {
      line["text_terminated"] = false;
    }
    return line.dump();
  }
  // A supply alarm carries no value: its values would only be noise in the line.
  const std::string values_text = alarm_id == SYSTEM_MGR_ALARM_POWER_SUPPLY
                                      ? std::string()
                                      : fmt::format(", values {} {} {}", values[0], values[1], values[2]);
  return fmt::format("{}:{} alarm from {}: id {} ({}) {}, instance {}{}, text \"{}\"{}", event.group, event.id,
                     address_text(event.source), alarm_id, name.empty() ? "unknown" : name, state_text, instance,
                     values_text, escaped(text, true), terminated ? "" : " (not NUL-terminated)");
}

std::string format_sfp(const ipc::Event& event, bool p_ports, bool inserted, bool json) {
  const std::span<const std::uint8_t> bytes(event.payload);
  const std::string_view group = p_ports ? "P" : "F";
  if (inserted) {
    if (bytes.size() != sizeof(SfpModuleRecord)) {
      return malformed(
          event, "sfp_inserted",
          fmt::format("malformed SFP module record: {} bytes, a record has {}", bytes.size(), sizeof(SfpModuleRecord)),
          json);
    }
    const std::uint32_t port = read_u32(bytes, offsetof(SfpModuleRecord, port));
    const std::uint8_t state = bytes[offsetof(SfpModuleRecord, state)];
    const auto data = bytes.subspan(offsetof(SfpModuleRecord, data));
    const SfpIdentity identity = decode_sfp_identity(data);
    if (json) {
      Json line = event_json("sfp_inserted", event);
      line["ports"] = group;
      line["port"] = port;
      line["state"] = state;
      line.update(sfp_identity_json(identity));
      line["data"] = hex(data);
      return line.dump();
    }
    return fmt::format("{}: {}-port {} SFP module inserted: {}, state 0x{:02x}", event_prefix(event), group, port,
                       sfp_identity_text(identity), state);
  }
  if (bytes.size() != sizeof(std::uint32_t)) {
    return malformed(event, "sfp_removed",
                     fmt::format("malformed port number: {} bytes, a port number has 4", bytes.size()), json);
  }
  const std::uint32_t port = read_u32(bytes, 0);
  if (json) {
    Json line = event_json("sfp_removed", event);
    line["ports"] = group;
    line["port"] = port;
    return line.dump();
  }
  return fmt::format("{}: {}-port {} SFP module removed", event_prefix(event), group, port);
}

std::string format_fan_rate(const ipc::Event& event, bool maximum, bool json) {
  const std::string_view rate = maximum ? "max" : "min";
  const auto slot = event.source & 0xFFFFU;
  if (json) {
    Json line = event_json("fan_rate", event);
    line["rate"] = rate;
    if (!event.payload.empty()) {
      line["payload"] = hex(event.payload);
    }
    return line.dump();
  }
  std::string line =
      fmt::format("{}: slot {} asks for the {} fan rate", event_prefix(event), slot, maximum ? "maximum" : "minimum");
  if (!event.payload.empty()) {
    line += fmt::format(", unexpected payload [{}] {}", hex(event.payload), byte_count(event.payload.size()));
  }
  return line;
}

std::string format_other(const ipc::Event& event, bool json) {
  if (json) {
    Json line = event_json("event", event);
    line["payload"] = hex(event.payload);
    return line.dump();
  }
  return fmt::format("{}: payload [{}] {}", event_prefix(event), hex(event.payload), byte_count(event.payload.size()));
}

constexpr std::size_t kTempRecordSize = 8;

Decoded decode_two_floats(std::span<const std::uint8_t> bytes, std::string_view unit, std::string_view key_suffix) {
  if (bytes.size() != 8) {
    return wrong_size(bytes.size(), "8");
  }
  const float total = read_f32(bytes, 0);
  const float free = read_f32(bytes, 4);
  Decoded decoded;
  decoded.lines.push_back(fmt::format("total {} {}, free {} {}", number(total), unit, number(free), unit));
  decoded.json[fmt::format("total_{}", key_suffix)] = total;
  decoded.json[fmt::format("free_{}", key_suffix)] = free;
  return decoded;
}

Decoded decode_version(std::span<const std::uint8_t> bytes) {
  if (bytes.size() != 1) {
    return wrong_size(bytes.size(), "1");
  }
  Decoded decoded;
  decoded.lines.push_back(fmt::format("version 0x{:02x} ({})", bytes[0], bytes[0]));
  decoded.json["version"] = bytes[0];
  return decoded;
}

Decoded decode_flag(std::span<const std::uint8_t> bytes, std::string_view what) {
  if (bytes.size() != 1) {
    return wrong_size(bytes.size(), "1");
  }
  Decoded decoded;
  decoded.lines.push_back(fmt::format("{}: {} ({})", what, bytes[0] != 0 ? "yes" : "no", bytes[0]));
  decoded.json["value"] = bytes[0];
  decoded.json["set"] = bytes[0] != 0;
  return decoded;
}

Decoded decode_temperatures(std::span<const std::uint8_t> bytes) {
  if (bytes.size() % kTempRecordSize != 0) {
    return wrong_size(bytes.size(), "a multiple of 8 (one record per sensor)");
  }
  Decoded decoded;
  Json sensors = Json::array();
  for (std::size_t offset = 0; offset < bytes.size(); offset += kTempRecordSize) {
    const auto id = static_cast<std::int32_t>(read_u32(bytes, offset));
    const auto temperature = static_cast<std::int8_t>(bytes[offset + 4]);
    decoded.lines.push_back(fmt::format("sensor {}: {}C", id, temperature));
    sensors.push_back(Json{{"id", id}, {"temperature", temperature}});
  }
  if (bytes.empty()) {
    decoded.lines.emplace_back("no sensors");
  }
  decoded.json["sensors"] = sensors;
  return decoded;
}

/// The decoded answer of a request whose answer layout is known; nothing otherwise.
std::optional<Decoded> decode_answer(std::uint16_t id, std::span<const std::uint8_t> bytes) {
  switch (id) {
    case IPC_SYSTEM_MGR__GET_RAM_DATA:
      return decode_two_floats(bytes, "kB", "kb");
    case IPC_SYSTEM_MGR__GET_HDD_DATA:
      return decode_two_floats(bytes, "GiB", "gib");
    case IPC_SYSTEM_MGR__GET_DEVICE_FACTORY:
    case IPC_SYSTEM_MGR__GET_CRATE_FACTORY:
      return decode_factory(bytes);
    case IPC_SYSTEM_MGR__GET_FPGA_VERSION:
    case IPC_SYSTEM_MGR__GET_CPLD_VERSION:
      return decode_version(bytes);
    case IPC_SYSTEM_MGR__IS_F_BUTTON_ENABLED:
      return decode_flag(bytes, "front button enabled");
    case IPC_SYSTEM_MGR__IS_F_BUTTON_HARD_RESET_ENABLED:
      return decode_flag(bytes, "front button hard reset enabled");
    case IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED:
      return decode_flag(bytes, "front button pressed");
    case IPC_SYSTEM_MGR__GET_TEMP:
      return decode_temperatures(bytes);
    case IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA:
    case IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA:
      return decode_eddi(bytes);
    case IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER:
      return decode_rx_power(bytes);
    case IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO:
    case IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO:
      return decode_sfp_modules(bytes);
    case IPC_SYSTEM_MGR__GET_FAN_STATES:
      return decode_fan_states(bytes);
    case IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE:
      return decode_fan_module_state(bytes);
    case IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY:
      return decode_fan_module_factory(bytes);
    case IPC_SYSTEM_MGR__GET_PS_STATES:
      return decode_ps_states(bytes);
    case IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE:
      return decode_pwr_module(bytes);
    default:
      return std::nullopt;
  }
}

RequestArgument argument_of(std::uint16_t id) noexcept {
  switch (id) {
    case IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA:
    case IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA:
    case IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER:
    case IPC_SYSTEM_MGR__ENABLE_P_PORT_SFP_MODULE_TRX:
    case IPC_SYSTEM_MGR__ENABLE_F_PORT_SFP_MODULE_TRX:
    case IPC_SYSTEM_MGR__DISABLE_P_PORT_SFP_MODULE_TRX:
    case IPC_SYSTEM_MGR__DISABLE_F_PORT_SFP_MODULE_TRX:
    case IPC_SYSTEM_MGR__P_PORT_R_LED_ON_G_LED_OFF:
    case IPC_SYSTEM_MGR__P_PORT_G_LED_ON_R_LED_OFF:
    case IPC_SYSTEM_MGR__P_PORT_LED_OFF:
      return RequestArgument::Port;
    case IPC_SYSTEM_MGR__SET_FAN_SPEED:
    case IPC_SYSTEM_MGR__SET_FAN_MODULE_SPEED:
      return RequestArgument::Speed;
    default:
      return RequestArgument::None;
  }
}

std::string upper(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](char character) { return static_cast<char>(std::toupper(static_cast<unsigned char>(character))); });
  return out;
}

}  // namespace

std::string_view request_name(std::uint16_t id) noexcept {
  return find_name(kRequests, id);
}

std::string_view event_name(ipc::Key key) noexcept {
  if (key.group == IPC_SYSTEM_MGR) {
    return find_name(kDaemonEvents, key.id);
  }
  if (key.group == IPC_EVENT_ALARM_GROUP && key.id == IPC_EVENT_ALARM_ID) {
    return "alarm";
  }
  if (key.group == cfgdb::kSectionsChangedKey.group && key.id == cfgdb::kSectionsChangedKey.id) {
    return cfgdb::kSectionsChangedName;
  }
  if (key.group == IPC_ELECTION_MGR && key.id == kElectionMasterChanged) {
    return "IPC_EVENT_ELECTION__MASTER_CHANGED";
  }
  return {};
}

std::string_view alarm_name(std::uint32_t alarm_id) noexcept {
  switch (alarm_id) {
    case SYSTEM_MGR_ALARM_RAM:
      return "RAM";
    case SYSTEM_MGR_ALARM_FAN:
      return "fan";
    case SYSTEM_MGR_ALARM_LOAD_AVERAGE:
      return "system load average";
    case SYSTEM_MGR_ALARM_TEMPERATURE:
      return "temperature";
    case SYSTEM_MGR_ALARM_DISK_SPACE:
      return "disk space";
    case SYSTEM_MGR_ALARM_POWER_SUPPLY:
      return "power supply";
    default:
      return {};
  }
}

std::uint16_t parse_request_id(std::string_view text) {
  if (!text.empty() && std::isdigit(static_cast<unsigned char>(text.front())) != 0) {
    const auto id = static_cast<std::uint16_t>(tool::parse_number(text, 0xFFFF, "--id"));
    if (request_name(id).empty()) {
      throw UsageError(fmt::format("--id: {} is not a request of the system manager ({} to {})", text,
                                   static_cast<int>(IPC_SYSTEM_MGR__GET_RAM_DATA),
                                   static_cast<int>(IPC_SYSTEM_MGR__P_PORT_LED_OFF)));
    }
    return id;
  }
  std::string name = upper(text);
  if (!name.starts_with(kRequestPrefix)) {
    name.insert(0, kRequestPrefix);
  }
  for (const auto& request : kRequests) {
    if (request.name == name) {
      return request.id;
    }
  }
  throw UsageError(fmt::format("--id: '{}' is neither a number nor the name of a request", text));
}

std::chrono::milliseconds parse_seconds(std::string_view text, std::string_view what) {
  double seconds = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, seconds, std::chars_format::fixed);
  // A day is far beyond any sensible wait and keeps the conversion below clear of overflow.
  if (text.empty() || error != std::errc{} || stop != end || !(seconds > 0) || seconds > 86400) {
    throw UsageError(fmt::format("{}: '{}' is not a number of seconds above 0 and at most 86400", what, text));
  }
  return std::chrono::milliseconds(std::max<std::int64_t>(1, std::llround(seconds * 1000)));
}

std::string format_event(const ipc::Event& event, bool json) {
  if (event.group == IPC_EVENT_ALARM_GROUP && event.id == IPC_EVENT_ALARM_ID) {
    return format_alarm(event, json);
  }
  if (event.group == IPC_SYSTEM_MGR) {
    switch (event.id) {
      case IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE:
        return format_fan_rate(event, true, json);
      case IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE:
        return format_fan_rate(event, false, json);
      case IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_INSERTED:
        return format_sfp(event, true, true, json);
      case IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_REMOVED:
        return format_sfp(event, true, false, json);
      case IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_INSERTED:
        return format_sfp(event, false, true, json);
      case IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED:
        return format_sfp(event, false, false, json);
      default:
        break;
    }
  }
  return format_other(event, json);
}

std::vector<RequestCommand> request_commands() {
  std::vector<RequestCommand> commands;
  commands.reserve(kRequests.size());
  for (const auto& request : kRequests) {
    std::string command(request.name.substr(kRequestPrefix.size()));
    std::transform(command.begin(), command.end(), command.begin(), [](char character) {
      return character == '_' ? '-' : static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    });
    commands.push_back(RequestCommand{request.id, request.name, std::move(command), argument_of(request.id)});
  }
  return commands;
}

ipc::Payload port_payload(std::uint32_t port) {
  return {static_cast<std::uint8_t>(port & 0xFFU), static_cast<std::uint8_t>((port >> 8U) & 0xFFU),
          static_cast<std::uint8_t>((port >> 16U) & 0xFFU), static_cast<std::uint8_t>((port >> 24U) & 0xFFU)};
}

std::string format_response(ipc::Address from, std::uint16_t id, const ipc::Response& response, bool json) {
  const auto name = request_name(id);
  std::string meaning;
  if (response.result == SYSTEM_MGR_RESULT_ANSWERED) {
    meaning = "answered";
  } else if (response.result == SYSTEM_MGR_RESULT_ERROR) {
    meaning = "error answer";
  } else {
    meaning = "unknown result";
  }
  // An error answer has no layout to decode.
  const auto decoded =
      response.result == SYSTEM_MGR_RESULT_ANSWERED ? decode_answer(id, response.payload) : std::nullopt;
  if (json) {
    Json line{{"type", "response"}, {"group", static_cast<int>(IPC_SYSTEM_MGR)}, {"id", id}};
    if (!name.empty()) {
      line["name"] = name;
    }
    line["from"] = address_text(from);
    line["result"] = response.result;
    line["answer"] = meaning;
    line["reply_tag"] = response.reply_tag;
    line["address"] = address_text(response.address);
    line["payload"] = hex(response.payload);
    if (decoded) {
      line["decoded"] = decoded->json;
    }
    return line.dump();
  }
  std::string text = fmt::format("{}:{} {} from {}: result {} ({}), payload [{}] {}", static_cast<int>(IPC_SYSTEM_MGR),
                                 id, name.empty() ? "unknown request" : name, address_text(from), response.result,
                                 meaning, hex(response.payload), byte_count(response.payload.size()));
  if (decoded) {
    for (const auto& item : decoded->lines) {
      text += "\n  " + item;
    }
  }
  return text;
}

std::string format_ram(ipc::Address from, const ipc::Response& response, bool json) {
  if (response.result != SYSTEM_MGR_RESULT_ANSWERED || response.payload.size() != sizeof(System_mgr__ram_data)) {
    return format_response(from, IPC_SYSTEM_MGR__GET_RAM_DATA, response, json);
  }
  const float total = read_f32(response.payload, 0);
  const float free = read_f32(response.payload, 4);
  constexpr double kKibPerMib = 1024.0;
  const double total_mib = static_cast<double>(total) / kKibPerMib;
  const double free_mib = static_cast<double>(free) / kKibPerMib;
  if (json) {
    return Json{{"type", "ram"},   {"from", address_text(from)}, {"total_kb", total},
                {"free_kb", free}, {"total_mib", total_mib},     {"free_mib", free_mib}}
        .dump();
  }
  return fmt::format("RAM total {} kB ({:.1f} MiB), free {} kB ({:.1f} MiB)", number(total), total_mib, number(free),
                     free_mib);
}

std::string format_disk(ipc::Address from, const ipc::Response& response, bool json) {
  if (response.result != SYSTEM_MGR_RESULT_ANSWERED || response.payload.size() != sizeof(System_mgr__hdd_data)) {
    return format_response(from, IPC_SYSTEM_MGR__GET_HDD_DATA, response, json);
  }
  const std::span<const std::uint8_t> bytes(response.payload);
  const float total = read_f32(bytes, offsetof(System_mgr__hdd_data, total));
  const float free = read_f32(bytes, offsetof(System_mgr__hdd_data, free));
  if (json) {
    Json line{{"type", "disk"}, {"from", address_text(from)}, {"total_gib", total}, {"free_gib", free}};
    return line.dump();
  }
  return fmt::format("total {:.2f} GiB, free {:.2f} GiB", total, free);
}

}  // namespace xpon::system_mgr::ctl
