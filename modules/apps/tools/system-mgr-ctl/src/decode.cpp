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
#include <iterator>
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

Decoded decode_two_floats(std::span<const std::uint8_t> bytes, std::string_view unit, std::string_view key_suffix) {
  static_assert(sizeof(System_mgr__ram_data) == sizeof(System_mgr__hdd_data));
  static_assert(offsetof(System_mgr__ram_data, free) == offsetof(System_mgr__hdd_data, free));
  if (bytes.size() != sizeof(System_mgr__ram_data)) {
    return wrong_size(bytes.size(), std::to_string(sizeof(System_mgr__ram_data)));
  }
  const float total = read_f32(bytes, offsetof(System_mgr__ram_data, total));
  const float free = read_f32(bytes, offsetof(System_mgr__ram_data, free));
  Decoded decoded;
  decoded.lines.push_back(fmt::format("total {} {}, free {} {}", number(total), unit, number(free), unit));
  decoded.json[fmt::format("total_{}", key_suffix)] = total;
  decoded.json[fmt::format("free_{}", key_suffix)] = free;
  return decoded;
}

/// The decoders of the answers of `ram` and `disk`.
std::span<const AnswerDecoder> memory_decoders() {
  static const std::array<AnswerDecoder, 2> decoders{{
      {IPC_SYSTEM_MGR__GET_RAM_DATA,
       [](std::span<const std::uint8_t> bytes) { return decode_two_floats(bytes, "kB", "kb"); }},
      {IPC_SYSTEM_MGR__GET_HDD_DATA,
       [](std::span<const std::uint8_t> bytes) { return decode_two_floats(bytes, "GiB", "gib"); }},
  }};
  return decoders;
}

/// The decoded answer of a request whose answer record has a decoder; nothing otherwise.
std::optional<Decoded> decode_answer(std::uint16_t id, std::span<const std::uint8_t> bytes) {
  for (const auto decoders :
       {memory_decoders(), control_decoders(), power_decoders(), sfp_decoders(), fan_decoders()}) {
    for (const AnswerDecoder& decoder : decoders) {
      if (decoder.id == id) {
        return decoder.decode(bytes);
      }
    }
  }
  return std::nullopt;
}

RequestArgument argument_of(const RequestInfo& request) noexcept {
  switch (request.argument) {
    case SYSTEM_MGR_ARGUMENT_PORT:
      return RequestArgument::Port;
    case SYSTEM_MGR_ARGUMENT_SPEED:
      return RequestArgument::Speed;
    case SYSTEM_MGR_ARGUMENT_LED:
    case SYSTEM_MGR_ARGUMENT_NONE:
      break;
  }
  return RequestArgument::None;
}

std::string upper(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](char character) { return static_cast<char>(std::toupper(static_cast<unsigned char>(character))); });
  return out;
}

}  // namespace

std::string_view request_name(std::uint16_t id) noexcept {
  const RequestInfo* request = find_request(id);
  return request == nullptr ? std::string_view{} : request->name;
}

std::vector<std::uint16_t> decoded_requests() {
  std::vector<std::uint16_t> ids;
  for (const auto decoders :
       {memory_decoders(), control_decoders(), power_decoders(), sfp_decoders(), fan_decoders()}) {
    for (const AnswerDecoder& decoder : decoders) {
      ids.push_back(decoder.id);
    }
  }
  return ids;
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
  return alarm_kind_name(alarm_id);
}

std::uint16_t parse_request_id(std::string_view text) {
  if (!text.empty() && std::isdigit(static_cast<unsigned char>(text.front())) != 0) {
    const auto id = static_cast<std::uint16_t>(tool::parse_number(text, 0xFFFF, "--id"));
    if (request_name(id).empty()) {
      throw UsageError(fmt::format("--id: {} is not a request of the system manager ({} to {})", text,
                                   std::begin(kRequestCatalogue)->id, std::prev(std::end(kRequestCatalogue))->id));
    }
    return id;
  }
  std::string name = upper(text);
  if (!name.starts_with(kRequestPrefix)) {
    name.insert(0, kRequestPrefix);
  }
  for (const RequestInfo& request : kRequestCatalogue) {
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
  commands.reserve(std::size(kRequestCatalogue));
  for (const RequestInfo& request : kRequestCatalogue) {
    std::string command(request.name.substr(kRequestPrefix.size()));
    std::transform(command.begin(), command.end(), command.begin(), [](char character) {
      return character == '_' ? '-' : static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    });
    commands.push_back(RequestCommand{request.id, request.name, std::move(command), argument_of(request)});
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
      response.result == SYSTEM_MGR_RESULT_ANSWERED ? decode_answer(id, response.payload) : std::optional<Decoded>{};
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
  const float total = read_f32(response.payload, offsetof(System_mgr__ram_data, total));
  const float free = read_f32(response.payload, offsetof(System_mgr__ram_data, free));
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
