#include "decode_fans.hpp"

#include "decode.hpp"
#include "xpon/system_mgr/api.h"

#include <array>
#include <cstddef>
#include <string>

namespace xpon::system_mgr::ctl {

namespace {

using detail::Decoded;
using detail::Json;

constexpr std::size_t kTempRecordSize = 8;
constexpr std::size_t kFanRecordSize = 4;
constexpr std::size_t kFanModuleStateSize = 50;
constexpr std::size_t kFanModuleFactorySize = 42;
constexpr std::size_t kFanModuleCountByte = 30;
constexpr std::size_t kFanModuleSettingByte = 31;
constexpr std::size_t kFanModuleFirstSpeed = 2;
constexpr std::size_t kFanModuleMaxFans = 28;
constexpr unsigned kRpmPerRps = 60;

constexpr std::array<std::string_view, 5> kSensorNames{"PON SFP 1", "PON SFP 2", "Front SFP", "Switch chip",
                                                       "PON chip"};

// A NUL-padded text field, not always terminated.
std::string field_text(std::span<const std::uint8_t> bytes, std::size_t offset, std::size_t size) {
  std::string text;
  for (std::size_t index = offset; index < offset + size && bytes[index] != 0; ++index) {
    text.push_back(static_cast<char>(bytes[index]));
  }
  return detail::escaped(text, false);
}

std::string render(ipc::Address from, std::string_view type, const Decoded& decoded, bool json) {
  if (json) {
    Json line{{"type", type}, {"from", detail::address_text(from)}};
    line.update(decoded.json);
    return line.dump();
  }
  std::string text;
  for (const auto& line : decoded.lines) {
    if (!text.empty()) {
      text += '\n';
    }
    text += line;
  }
  return text;
}

bool answered_with(const ipc::Response& response, bool size_ok) {
  return response.result == SYSTEM_MGR_RESULT_ANSWERED && size_ok;
}

}  // namespace

std::string_view sensor_name(std::int32_t id) noexcept {
  if (id >= 0 && static_cast<std::size_t>(id) < kSensorNames.size()) {
    return kSensorNames[static_cast<std::size_t>(id)];
  }
  return "unknown";
}

namespace detail {

Decoded decode_fan_states(std::span<const std::uint8_t> bytes) {
  if (bytes.size() % kFanRecordSize != 0) {
    return wrong_size(bytes.size(), "a multiple of 4 (one record per fan)");
  }
  Decoded decoded;
  Json fans = Json::array();
  for (std::size_t offset = 0; offset < bytes.size(); offset += kFanRecordSize) {
    const std::size_t fan = offset / kFanRecordSize + 1;
    const bool fault = bytes[offset] != 0;
    const bool present = bytes[offset + 1] != 0;
    const unsigned rps = read_u16(bytes, offset + 2);
    decoded.lines.push_back(fmt::format("fan {}: {}, {}, {} rpm ({} rps)", fan, present ? "present" : "absent",
                                        fault ? "fault" : "no fault", rps * kRpmPerRps, rps));
    fans.push_back(
        Json{{"fan", fan}, {"present", present}, {"fault", fault}, {"rpm", rps * kRpmPerRps}, {"speed_rps", rps}});
  }
  if (bytes.empty()) {
    decoded.lines.emplace_back("no fans");
  }
  decoded.json["fans"] = fans;
  return decoded;
}

Decoded decode_fan_module_state(std::span<const std::uint8_t> bytes) {
  if (bytes.size() != kFanModuleStateSize) {
    return wrong_size(bytes.size(), "50");
  }
  Decoded decoded;
  const bool present = bytes[0] != 0;
  const bool fault = bytes[1] != 0;
  const unsigned count = bytes[kFanModuleCountByte];
  const unsigned setting = bytes[kFanModuleSettingByte];
  decoded.lines.push_back(fmt::format("fan module: {}, {}, {} fans, speed setting {}", present ? "present" : "absent",
                                      fault ? "fault" : "no fault", count, setting));
  Json fans = Json::array();
  for (std::size_t fan = 1; fan <= count && fan <= kFanModuleMaxFans; ++fan) {
    const unsigned rps = bytes[kFanModuleFirstSpeed + fan - 1];
    decoded.lines.push_back(fmt::format("fan {}: {} rpm ({} rps)", fan, rps * kRpmPerRps, rps));
    fans.push_back(Json{{"fan", fan}, {"rpm", rps * kRpmPerRps}, {"speed_rps", rps}});
  }
  decoded.json = Json{{"present", present}, {"fault", fault}, {"count", count}, {"speed_setting", setting}};
  decoded.json["fans"] = fans;
  return decoded;
}

Decoded decode_fan_module_factory(std::span<const std::uint8_t> bytes) {
  if (bytes.size() != kFanModuleFactorySize) {
    return wrong_size(bytes.size(), "42");
  }
  Decoded decoded;
  const std::string product = field_text(bytes, 0, 16);
  const std::string serial = field_text(bytes, 16, 16);
  const std::string revision = field_text(bytes, 32, 4);
  const std::string date = field_text(bytes, 36, 6);
  decoded.lines.push_back(
      fmt::format("fan module {}, serial {}, revision {}, made {}", product, serial, revision, date));
  decoded.json =
      Json{{"product_name", product}, {"serial_number", serial}, {"hw_revision", revision}, {"mfg_date", date}};
  return decoded;
}

}  // namespace detail

std::string format_temperatures(ipc::Address from, const ipc::Response& response, bool json) {
  const std::span<const std::uint8_t> bytes(response.payload);
  if (!answered_with(response, bytes.size() % kTempRecordSize == 0)) {
    return format_response(from, IPC_SYSTEM_MGR__GET_TEMP, response, json);
  }
  Decoded decoded;
  Json sensors = Json::array();
  for (std::size_t offset = 0; offset < bytes.size(); offset += kTempRecordSize) {
    const auto id = static_cast<std::int32_t>(detail::read_u32(bytes, offset));
    const auto celsius = static_cast<std::int8_t>(bytes[offset + 4]);
    decoded.lines.push_back(fmt::format("sensor {} ({}): {} °C", id, sensor_name(id), celsius));
    sensors.push_back(Json{{"id", id}, {"name", sensor_name(id)}, {"celsius", celsius}});
  }
  if (bytes.empty()) {
    decoded.lines.emplace_back("no sensors");
  }
  decoded.json["sensors"] = sensors;
  return render(from, "temperatures", decoded, json);
}

std::string format_fan_states(ipc::Address from, const ipc::Response& response, bool json) {
  const std::span<const std::uint8_t> bytes(response.payload);
  if (!answered_with(response, bytes.size() % kFanRecordSize == 0)) {
    return format_response(from, IPC_SYSTEM_MGR__GET_FAN_STATES, response, json);
  }
  return render(from, "fans", detail::decode_fan_states(bytes), json);
}

std::string format_fan_module(ipc::Address from, std::uint16_t id, const ipc::Response& response, bool json) {
  const bool state = id == IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE;
  const std::size_t size = state ? kFanModuleStateSize : kFanModuleFactorySize;
  if (!answered_with(response, response.payload.size() == size)) {
    return format_response(from, id, response, json);
  }
  return state ? render(from, "fan_module_state", detail::decode_fan_module_state(response.payload), json)
               : render(from, "fan_module_factory", detail::decode_fan_module_factory(response.payload), json);
}

std::string format_speed_set(ipc::Address from, std::uint16_t id, const ipc::Response& response, bool json) {
  if (response.result != SYSTEM_MGR_RESULT_ANSWERED) {
    return format_response(from, id, response, json);
  }
  const bool module = id == IPC_SYSTEM_MGR__SET_FAN_MODULE_SPEED;
  if (json) {
    return Json{{"type", module ? "fan_module_speed_set" : "fan_speed_set"}, {"from", detail::address_text(from)}}
        .dump();
  }
  return module ? "fan module speed set" : "fan speed set";
}

}  // namespace xpon::system_mgr::ctl
