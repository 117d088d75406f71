#pragma once

// Decoding of the temperature, fan and fan module answers for the typed commands `temp`, `fans`,
// `fan-speed` and `fan-module`, and of the fan module's records for the generic view.

#include "decode_support.hpp"
#include "xpon/ipc/ipc.hpp"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace xpon::system_mgr::ctl {

/// The name the daemon gives a temperature sensor id ("PON SFP 1" ... "PON chip", "unknown").
std::string_view sensor_name(std::int32_t id) noexcept;

namespace detail {

/// The temperature sensors, 8 bytes each (System_mgr__temperature): id, name and °C.
Decoded decode_temperatures(std::span<const std::uint8_t> bytes);

/// The board's fans, 4 bytes each: presence, fault and speed in rpm (and the driver's rps).
Decoded decode_fan_states(std::span<const std::uint8_t> bytes);

/// The 50-byte fan module state: presence, fault, count, setting and each fan's speed in rpm.
Decoded decode_fan_module_state(std::span<const std::uint8_t> bytes);

/// The 42-byte fan module factory record: product, serial number, revision, date.
Decoded decode_fan_module_factory(std::span<const std::uint8_t> bytes);

/// The decoders of the answers of `temp`, `fans` and `fan-module`.
std::span<const AnswerDecoder> fan_decoders();

}  // namespace detail

/// `temp`: one line per sensor with its name and °C ("sensor 4 (PON chip): 57 °C"), or as JSON
/// {"type":"temperatures","sensors":[{"id","name","temperature_c"}]}. An error answer or a payload that
/// is not 8 bytes per sensor is shown as format_response shows it. Never throws.
std::string format_temperatures(ipc::Address from, const ipc::Response& response, bool json);

/// `fans`: one line per fan ("fan 1: present, no fault, 6000 rpm (100 rps)"), or as JSON. Never throws.
std::string format_fan_states(ipc::Address from, const ipc::Response& response, bool json);

/// `fan-module state` and `fan-module factory`: the decoded record. Never throws.
std::string format_fan_module(ipc::Address from, std::uint16_t id, const ipc::Response& response, bool json);

/// `fan-speed SET` and `fan-module speed SET`: "fan speed set" / "fan module speed set", or the
/// error answer as format_response shows it. Never throws.
std::string format_speed_set(ipc::Address from, std::uint16_t id, const ipc::Response& response, bool json);

}  // namespace xpon::system_mgr::ctl
