#include "decode_control.hpp"

#include "decode.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/tool/console.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>

namespace xpon::system_mgr::ctl {

namespace {

using detail::Decoded;
using detail::escaped;
using detail::Json;
using detail::read_u16;
using detail::read_u32;

constexpr std::size_t kData = offsetof(System_mgr__factory, data);

// One text field of the factory record: its JSON key, its label and where it lies.
struct TextField {
  std::string_view key;
  std::string_view label;
  std::size_t offset;
  std::size_t size;
};

#define XPON_TEXT_FIELD(field, label)                                                   \
  TextField {                                                                           \
#field, label, kData + offsetof(Factory__data, field), sizeof(Factory__data::field) \
  }

const std::array kLeadingTexts = {
    XPON_TEXT_FIELD(device_name, "device name"),
    XPON_TEXT_FIELD(part_number, "part number"),
    XPON_TEXT_FIELD(serial_number, "serial number"),
};
const std::array kTrailingTexts = {
    XPON_TEXT_FIELD(country_code, "country code"),   XPON_TEXT_FIELD(label_revision, "label revision"),
    XPON_TEXT_FIELD(platform_name, "platform name"), XPON_TEXT_FIELD(manufacturer, "manufacturer"),
    XPON_TEXT_FIELD(vendor_name, "vendor name"),
};

#undef XPON_TEXT_FIELD

// The text of a field up to its first NUL; a field without one is taken whole.
std::string field_text(std::span<const std::uint8_t> bytes, const TextField& field) {
  const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(field.offset);
  const auto end = std::find(begin, begin + static_cast<std::ptrdiff_t>(field.size), std::uint8_t{0});
  return escaped(std::string(begin, end), false);
}

void add_texts(std::span<const std::uint8_t> bytes, std::span<const TextField> fields, Decoded& decoded) {
  for (const auto& field : fields) {
    const std::string text = field_text(bytes, field);
    decoded.lines.push_back(fmt::format("{}: {}", field.label, text.empty() ? "(none)" : text));
    decoded.json[std::string(field.key)] = text;
  }
}

std::string mac_text(std::span<const std::uint8_t> mac) {
  return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

// A name of `names` (its index is the value) or a number up to the 32-bit maximum.
std::uint32_t code_of(std::string_view text, std::span<const std::string_view> names, std::string_view what) {
  for (std::size_t index = 0; index < names.size(); ++index) {
    if (text == names[index]) {
      return static_cast<std::uint32_t>(index);
    }
  }
  if (!text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return static_cast<std::uint32_t>(tool::parse_number(text, 0xFFFFFFFFU, what));
  }
  throw tool::UsageError(fmt::format("{}: \"{}\" is not one of {} nor a number", what, text, fmt::join(names, ", ")));
}

void append_u32(ipc::Payload& payload, std::uint32_t value) {
  for (unsigned shift = 0; shift < 32; shift += 8) {
    payload.push_back(static_cast<std::uint8_t>((value >> shift) & 0xFFU));
  }
}

bool answered_with_size(const ipc::Response& response, std::size_t size) {
  return response.result == SYSTEM_MGR_RESULT_ANSWERED && response.payload.size() == size;
}

}  // namespace

std::string_view family_name(std::uint32_t family) noexcept {
  switch (family) {
    case SYSTEM_MGR_FAMILY_LT:
      return "LT";
    case SYSTEM_MGR_FAMILY_LC:
      return "LC";
    case SYSTEM_MGR_FAMILY_FC:
      return "FC";
    default:
      return "unknown";
  }
}

Decoded decode_factory(std::span<const std::uint8_t> bytes) {
  if (bytes.size() != sizeof(System_mgr__factory)) {
    return detail::wrong_size(bytes.size(), "280");
  }
  Decoded decoded;
  if (std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte == 0; })) {
    decoded.lines.emplace_back("no factory data (all zero: the image could not be read or is not valid)");
    decoded.json["available"] = false;
    return decoded;
  }
  const std::uint32_t family = read_u32(bytes, offsetof(System_mgr__factory, family));
  decoded.json["available"] = true;
  decoded.lines.push_back(fmt::format("family: {} ({})", family_name(family), family));
  decoded.json["family"] = family_name(family);
  decoded.json["family_id"] = family;
  add_texts(bytes, kLeadingTexts, decoded);
  const auto mac = bytes.subspan(kData + offsetof(Factory__data, base_mac), sizeof(Factory__data::base_mac));
  decoded.lines.push_back("base MAC address: " + mac_text(mac));
  decoded.json["base_mac"] = mac_text(mac);
  // The record keeps the count in host order; the daemon's boards are little-endian.
  const std::uint16_t mac_count = read_u16(bytes, kData + offsetof(Factory__data, mac_count));
  decoded.lines.push_back(fmt::format("MAC addresses: {}", mac_count));
  decoded.json["mac_count"] = mac_count;
  const TextField date{"manufacture_date", "manufacture date", kData + offsetof(Factory__data, manufacture_date),
                       sizeof(Factory__data::manufacture_date)};
  add_texts(bytes, std::span(&date, 1), decoded);
  const std::uint8_t version = bytes[kData + offsetof(Factory__data, device_version)];
  decoded.lines.push_back(fmt::format("device version: {}", version));
  decoded.json["device_version"] = version;
  add_texts(bytes, kTrailingTexts, decoded);
  const std::uint32_t present = read_u32(bytes, kData + offsetof(Factory__data, fields_present));
  decoded.lines.push_back(fmt::format("fields present: 0x{:08x}", present));
  decoded.json["fields_present"] = present;
  return decoded;
}

Decoded decode_version(std::span<const std::uint8_t> bytes) {
  if (bytes.size() != sizeof(System_mgr__version)) {
    return detail::wrong_size(bytes.size(), std::to_string(sizeof(System_mgr__version)));
  }
  const std::uint8_t version = bytes[offsetof(System_mgr__version, version)];
  Decoded decoded;
  decoded.lines.push_back(fmt::format("version 0x{:02x} ({})", version, version));
  decoded.json["version"] = version;
  return decoded;
}

Decoded decode_flag(std::span<const std::uint8_t> bytes, std::string_view what) {
  if (bytes.size() != sizeof(System_mgr__flag)) {
    return detail::wrong_size(bytes.size(), std::to_string(sizeof(System_mgr__flag)));
  }
  const std::uint8_t value = bytes[offsetof(System_mgr__flag, value)];
  Decoded decoded;
  decoded.lines.push_back(fmt::format("{}: {} ({})", what, value != 0 ? "yes" : "no", value));
  decoded.json["value"] = value;
  decoded.json["set"] = value != 0;
  return decoded;
}

std::span<const detail::AnswerDecoder> control_decoders() {
  using Bytes = std::span<const std::uint8_t>;
  static const std::array<detail::AnswerDecoder, 7> decoders{{
      {IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, decode_factory},
      {IPC_SYSTEM_MGR__GET_CRATE_FACTORY, decode_factory},
      {IPC_SYSTEM_MGR__GET_FPGA_VERSION, decode_version},
      {IPC_SYSTEM_MGR__GET_CPLD_VERSION, decode_version},
      {IPC_SYSTEM_MGR__IS_F_BUTTON_ENABLED, [](Bytes bytes) { return decode_flag(bytes, "front button enabled"); }},
      {IPC_SYSTEM_MGR__IS_F_BUTTON_HARD_RESET_ENABLED,
       [](Bytes bytes) { return decode_flag(bytes, "front button hard reset enabled"); }},
      {IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED, [](Bytes bytes) { return decode_flag(bytes, "front button pressed"); }},
  }};
  return decoders;
}

std::string format_factory(ipc::Address from, std::uint16_t id, const ipc::Response& response, bool json) {
  if (!answered_with_size(response, sizeof(System_mgr__factory))) {
    return format_response(from, id, response, json);
  }
  const std::string_view which = id == IPC_SYSTEM_MGR__GET_CRATE_FACTORY ? "crate" : "device";
  const Decoded decoded = decode_factory(response.payload);
  if (json) {
    Json line{{"type", "factory"}, {"which", which}, {"from", detail::address_text(from)}};
    line.update(decoded.json);
    return line.dump();
  }
  std::string text = fmt::format("{} factory data from {}:", which, detail::address_text(from));
  for (const auto& item : decoded.lines) {
    text += "\n  " + item;
  }
  return text;
}

std::string format_version(ipc::Address from, std::uint16_t id, const ipc::Response& response, bool json) {
  if (!answered_with_size(response, sizeof(System_mgr__version))) {
    return format_response(from, id, response, json);
  }
  const bool fpga = id == IPC_SYSTEM_MGR__GET_FPGA_VERSION;
  const Decoded decoded = decode_version(response.payload);
  const auto version = decoded.json["version"].get<std::uint8_t>();
  if (json) {
    Json line{{"type", "version"}, {"which", fpga ? "fpga" : "cpld"}, {"from", detail::address_text(from)}};
    line.update(decoded.json);
    return line.dump();
  }
  return fmt::format("{} version {} (0x{:02x})", fpga ? "FPGA" : "CPLD", version, version);
}

std::string format_button_query(ipc::Address from, std::uint16_t id, const ipc::Response& response, bool json) {
  if (!answered_with_size(response, sizeof(System_mgr__flag))) {
    return format_response(from, id, response, json);
  }
  std::string_view query = "pressed";
  if (id == IPC_SYSTEM_MGR__IS_F_BUTTON_ENABLED) {
    query = "enabled";
  } else if (id == IPC_SYSTEM_MGR__IS_F_BUTTON_HARD_RESET_ENABLED) {
    query = "hard reset enabled";
  }
  const Decoded decoded = decode_flag(response.payload, query);
  if (json) {
    Json line{{"type", "button"}, {"query", query}, {"from", detail::address_text(from)}};
    line.update(decoded.json);
    return line.dump();
  }
  return fmt::format("front button {}: {}", query, decoded.json["set"].get<bool>() ? "yes" : "no");
}

std::string format_setting(ipc::Address from, std::uint16_t id, const ipc::Response& response, bool json) {
  if (response.result != SYSTEM_MGR_RESULT_ANSWERED) {
    return format_response(from, id, response, json);
  }
  const std::string_view name = request_name(id);
  if (json) {
    return Json{{"type", "setting"}, {"name", name}, {"from", detail::address_text(from)}, {"done", true}}.dump();
  }
  return fmt::format("{}: done", name);
}

ipc::Payload led_panel_payload(std::string_view led, std::string_view mode, std::string_view colour) {
  static constexpr std::array<std::string_view, 5> kLeds = {"power", "status", "alarm", "master", "fan"};
  static constexpr std::array<std::string_view, 3> kModes = {"off", "on", "blink"};
  static constexpr std::array<std::string_view, 3> kColours = {"green", "yellow", "red"};
  ipc::Payload payload;
  append_u32(payload, code_of(led, kLeds, "LED"));
  append_u32(payload, code_of(mode, kModes, "MODE"));
  append_u32(payload, code_of(colour, kColours, "COLOUR"));
  return payload;
}

std::uint16_t pon_led_request(std::string_view state) {
  if (state == "red") {
    return IPC_SYSTEM_MGR__P_PORT_R_LED_ON_G_LED_OFF;
  }
  if (state == "green") {
    return IPC_SYSTEM_MGR__P_PORT_G_LED_ON_R_LED_OFF;
  }
  if (state == "off") {
    return IPC_SYSTEM_MGR__P_PORT_LED_OFF;
  }
  throw tool::UsageError(fmt::format("STATE: \"{}\" is not one of red, green, off", state));
}

}  // namespace xpon::system_mgr::ctl
