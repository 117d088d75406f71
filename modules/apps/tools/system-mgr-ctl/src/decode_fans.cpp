#include "decode_fans.hpp"

#include "decode.hpp"
#include "xpon/system_mgr/api.h"

#include <array>
#include <cstddef>
#include <span>
#include <string>

namespace xpon::system_mgr::ctl {

namespace {

using detail::Decoded;
using detail::Json;

constexpr std::size_t kTempRecordSize = sizeof(System_mgr__temperature);
constexpr std::size_t kFanRecordSize = sizeof(System_mgr__fan_state);
constexpr std::size_t kFanModuleStateSize = sizeof(System_mgr__fan_module_state);
constexpr std::size_t kFanModuleFactorySize = sizeof(System_mgr__fan_module_factory);
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

Decoded decode_temperatures(std::span<const std::uint8_t> bytes) {
  if (bytes.size() % kTempRecordSize != 0) {
    return wrong_size(bytes.size(), fmt::format("a multiple of {} (one record per sensor)", kTempRecordSize));
  }
  Decoded decoded;
  Json sensors = Json::array();
  for (std::size_t offset = 0; offset < bytes.size(); offset += kTempRecordSize) {
    const auto id = static_cast<std::int32_t>(read_u32(bytes, offset + offsetof(System_mgr__temperature, id)));
    const auto celsius = static_cast<std::int8_t>(bytes[offset + offsetof(System_mgr__temperature, temperature)]);
    decoded.lines.push_back(fmt::format("sensor {} ({}): {} °C", id, sensor_name(id), celsius));
    sensors.push_back(Json{{"id", id}, {"name", sensor_name(id)}, {"temperature_c", celsius}});
  }
  if (bytes.empty()) {
    decoded.lines.emplace_back("no sensors");
  }
  decoded.json["sensors"] = sensors;
  return decoded;
}

Decoded decode_fan_states(std::span<const std::uint8_t> bytes) {
  if (bytes.size() % kFanRecordSize != 0) {
    return wrong_size(bytes.size(), fmt::format("a multiple of {} (one record per fan)", kFanRecordSize));
  }
  Decoded decoded;
  Json fans = Json::array();
  for (std::size_t offset = 0; offset < bytes.size(); offset += kFanRecordSize) {
    const std::size_t fan = offset / kFanRecordSize + 1;
    const bool fault = bytes[offset + offsetof(System_mgr__fan_state, fault)] != 0;
    const bool present = bytes[offset + offsetof(System_mgr__fan_state, present)] != 0;
    const unsigned rps = read_u16(bytes, offset + offsetof(System_mgr__fan_state, speed));
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
    return wrong_size(bytes.size(), std::to_string(kFanModuleStateSize));
  }
  Decoded decoded;
  const bool present = bytes[offsetof(System_mgr__fan_module_state, present)] != 0;
  const bool fault = bytes[offsetof(System_mgr__fan_module_state, fault)] != 0;
  const unsigned count = bytes[offsetof(System_mgr__fan_module_state, count)];
  const unsigned setting = bytes[offsetof(System_mgr__fan_module_state, speed_setting)];
  decoded.lines.push_back(fmt::format("fan module: {}, {}, {} fans, speed setting {}", present ? "present" : "absent",
                                      fault ? "fault" : "no fault", count, setting));
  Json fans = Json::array();
  for (std::size_t fan = 1; fan <= count && fan <= SYSTEM_MGR_FAN_MODULE_MAX_FANS; ++fan) {
    const unsigned rps = bytes[offsetof(System_mgr__fan_module_state, speed) + fan - 1];
    decoded.lines.push_back(fmt::format("fan {}: {} rpm ({} rps)", fan, rps * kRpmPerRps, rps));
    fans.push_back(Json{{"fan", fan}, {"rpm", rps * kRpmPerRps}, {"speed_rps", rps}});
  }
  decoded.json = Json{{"present", present}, {"fault", fault}, {"count", count}, {"speed_setting", setting}};
  decoded.json["fans"] = fans;
  return decoded;
}

Decoded decode_fan_module_factory(std::span<const std::uint8_t> bytes) {
  if (bytes.size() != kFanModuleFactorySize) {
    return wrong_size(bytes.size(), std::to_string(kFanModuleFactorySize));
  }
  Decoded decoded;
#define FAN_MODULE_FIELD(field) \
  field_text(bytes, offsetof(System_mgr__fan_module_factory, field), sizeof(System_mgr__fan_module_factory::field))
  const std::string product = FAN_MODULE_FIELD(product_name);
  const std::string serial = FAN_MODULE_FIELD(serial_number);
  const std::string revision = FAN_MODULE_FIELD(hw_revision);
  const std::string date = FAN_MODULE_FIELD(mfg_date);
#undef FAN_MODULE_FIELD
  decoded.lines.push_back(
      fmt::format("fan module {}, serial {}, revision {}, made {}", product, serial, revision, date));
  decoded.json =
      Json{{"product_name", product}, {"serial_number", serial}, {"hw_revision", revision}, {"mfg_date", date}};
  return decoded;
}

std::span<const AnswerDecoder> fan_decoders() {
  static const std::array<AnswerDecoder, 4> decoders{{
      {IPC_SYSTEM_MGR__GET_TEMP, decode_temperatures},
      {IPC_SYSTEM_MGR__GET_FAN_STATES, decode_fan_states},
      {IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE, decode_fan_module_state},
      {IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY, decode_fan_module_factory},
  }};
  return decoders;
}

}  // namespace detail

std::string format_temperatures(ipc::Address from, const ipc::Response& response, bool json) {
  if (!answered_with(response, response.payload.size() % kTempRecordSize == 0)) {
    return format_response(from, IPC_SYSTEM_MGR__GET_TEMP, response, json);
  }
  return render(from, "temperatures", detail::decode_temperatures(response.payload), json);
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
