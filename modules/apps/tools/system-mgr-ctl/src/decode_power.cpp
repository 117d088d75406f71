#include "decode_power.hpp"

#include "decode.hpp"
#include "xpon/system_mgr/api.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

namespace xpon::system_mgr::ctl {

using detail::Decoded;
using detail::Json;

namespace {

// A text field of a supply record up to its NUL, or the whole field when the supply filled it.
std::string_view field_text(std::span<const std::uint8_t> record, std::size_t offset, std::size_t size) {
  const auto field = record.subspan(offset, size);
  const auto nul = std::find(field.begin(), field.end(), std::uint8_t{0});
  return {reinterpret_cast<const char*>(field.data()), static_cast<std::size_t>(nul - field.begin())};
}

// A fixed-point reading as an exact decimal text: 2300 tenths give "230.0".
std::string fixed(std::uint16_t value, unsigned divisor, int places) {
  return fmt::format("{}.{:0{}}", value / divisor, value % divisor, places);
}

std::string yes_no(bool value) {
  return value ? "yes" : "no";
}

}  // namespace

Decoded decode_ps_states(std::span<const std::uint8_t> bytes) {
  constexpr std::size_t kRecord = sizeof(System_mgr__ps_state);
  if (bytes.size() % kRecord != 0) {
    return detail::wrong_size(bytes.size(), "a multiple of 72 (one record per supply)");
  }
  Decoded decoded;
  Json supplies = Json::array();
  const std::size_t count = bytes.size() / kRecord;
  for (std::size_t index = 0; index < count; ++index) {
    const auto record = bytes.subspan(index * kRecord, kRecord);
    const std::uint8_t id = record[offsetof(System_mgr__ps_state, id)];
    const bool present = record[offsetof(System_mgr__ps_state, is_present)] != 0;
    const bool power_good = record[offsetof(System_mgr__ps_state, is_power_good)] != 0;
    const bool has_info = record[offsetof(System_mgr__ps_state, has_info)] != 0;
    const std::uint8_t alert = record[offsetof(System_mgr__ps_state, alert)];
    std::string line =
        fmt::format("supply {} (driver id {}): {}, {}, alert 0x{:02x}", index + 1, id,
                    present ? "present" : "not present", power_good ? "power good" : "no power good", alert);
    Json item{{"supply", index + 1},      {"id", id},       {"present", present},
              {"power_good", power_good}, {"alert", alert}, {"has_info", has_info}};
    if (has_info) {
      const std::string_view texts[] = {
          field_text(record, offsetof(System_mgr__ps_state, model), sizeof(System_mgr__ps_state::model)),
          field_text(record, offsetof(System_mgr__ps_state, sn), sizeof(System_mgr__ps_state::sn)),
          field_text(record, offsetof(System_mgr__ps_state, ver), sizeof(System_mgr__ps_state::ver)),
          field_text(record, offsetof(System_mgr__ps_state, rev), sizeof(System_mgr__ps_state::rev)),
          field_text(record, offsetof(System_mgr__ps_state, date), sizeof(System_mgr__ps_state::date))};
      constexpr std::string_view kNames[] = {"model", "serial", "version", "revision", "date"};
      for (std::size_t field = 0; field < std::size(kNames); ++field) {
        line += fmt::format(", {} \"{}\"", kNames[field], detail::escaped(texts[field], true));
        item[std::string(kNames[field])] = detail::escaped(texts[field], false);
      }
    } else {
      line += ", no identification";
    }
    decoded.lines.push_back(std::move(line));
    supplies.push_back(std::move(item));
  }
  const std::size_t data_bytes = count * SYSTEM_MGR_PS_STATES_COPIED_PER_SUPPLY;
  if (count == 0) {
    decoded.lines.emplace_back("no power supplies");
  } else {
    decoded.lines.push_back(fmt::format(
        "(the daemon fills {} bytes per supply: bytes 0 to {} of the answer carry data, the rest reads as zero)",
        static_cast<int>(SYSTEM_MGR_PS_STATES_COPIED_PER_SUPPLY), data_bytes - 1));
  }
  decoded.json["supplies"] = supplies;
  decoded.json["data_bytes"] = data_bytes;
  return decoded;
}

Decoded decode_pwr_module(std::span<const std::uint8_t> bytes) {
  if (bytes.size() != sizeof(System_mgr__pwr_module_state)) {
    return detail::wrong_size(bytes.size(), "20");
  }
  const bool present = bytes[offsetof(System_mgr__pwr_module_state, present)] != 0;
  const bool power_good = bytes[offsetof(System_mgr__pwr_module_state, power_good)] != 0;
  const bool fault = bytes[offsetof(System_mgr__pwr_module_state, fault)] != 0;
  const bool fan_fault = bytes[offsetof(System_mgr__pwr_module_state, fan_fault)] != 0;
  const std::uint16_t input = detail::read_u16(bytes, offsetof(System_mgr__pwr_module_state, input_voltage));
  const std::uint16_t output = detail::read_u16(bytes, offsetof(System_mgr__pwr_module_state, output_voltage));
  const std::uint16_t current = detail::read_u16(bytes, offsetof(System_mgr__pwr_module_state, output_current));
  const std::uint16_t power = detail::read_u16(bytes, offsetof(System_mgr__pwr_module_state, output_power));
  const auto temperature =
      static_cast<std::int16_t>(detail::read_u16(bytes, offsetof(System_mgr__pwr_module_state, temperature)));
  const auto reserved = bytes.subspan(offsetof(System_mgr__pwr_module_state, reserved));

  Decoded decoded;
  decoded.lines = {fmt::format("present: {}", yes_no(present)),
                   fmt::format("power good: {}", yes_no(power_good)),
                   fmt::format("fault: {}", yes_no(fault)),
                   fmt::format("fan fault: {}", yes_no(fan_fault)),
                   fmt::format("input voltage: {} V", fixed(input, 10, 1)),
                   fmt::format("output voltage: {} V", fixed(output, 100, 2)),
                   fmt::format("output current: {} A", fixed(current, 100, 2)),
                   fmt::format("output power: {} W", power),
                   fmt::format("temperature: {} C", temperature)};
  decoded.json = Json{{"present", present},
                      {"power_good", power_good},
                      {"fault", fault},
                      {"fan_fault", fan_fault},
                      {"input_voltage_v", input / 10.0},
                      {"output_voltage_v", output / 100.0},
                      {"output_current_a", current / 100.0},
                      {"output_power_w", power},
                      {"temperature_c", temperature}};
  if (std::any_of(reserved.begin(), reserved.end(), [](std::uint8_t byte) { return byte != 0; })) {
    decoded.lines.push_back(fmt::format("reserved: [{}]", detail::hex(reserved)));
    decoded.json["reserved"] = detail::hex(reserved);
  }
  return decoded;
}

namespace {

// A command's own view of an answer: the decoded lines, or the decoded JSON with the command's
// type and the sender first; anything else as the request would show it.
std::string format_decoded(ipc::Address from, std::uint16_t id, const ipc::Response& response, bool json,
                           std::string_view type, Decoded (*decode)(std::span<const std::uint8_t>)) {
  if (response.result != SYSTEM_MGR_RESULT_ANSWERED) {
    return format_response(from, id, response, json);
  }
  const Decoded decoded = decode(response.payload);
  if (decoded.json.contains("error")) {
    return format_response(from, id, response, json);
  }
  if (json) {
    Json line{{"type", type}, {"from", detail::address_text(from)}};
    line.update(decoded.json);
    return line.dump();
  }
  return fmt::format("{}", fmt::join(decoded.lines, "\n"));
}

}  // namespace

std::string format_psu(ipc::Address from, const ipc::Response& response, bool json) {
  return format_decoded(from, IPC_SYSTEM_MGR__GET_PS_STATES, response, json, "psu", decode_ps_states);
}

std::string format_power_module(ipc::Address from, const ipc::Response& response, bool json) {
  return format_decoded(from, IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE, response, json, "power_module", decode_pwr_module);
}

std::span<const detail::AnswerDecoder> power_decoders() {
  static const std::array<detail::AnswerDecoder, 2> decoders{{
      {IPC_SYSTEM_MGR__GET_PS_STATES, decode_ps_states},
      {IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE, decode_pwr_module},
  }};
  return decoders;
}

}  // namespace xpon::system_mgr::ctl
