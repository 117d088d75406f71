#pragma once

// The control requests of system-mgr-ctl: the factory answers taken apart, the views of the
// version, front-button and LED commands, and the payloads those commands send.

#include "decode_support.hpp"
#include "xpon/ipc/ipc.hpp"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace xpon::system_mgr::ctl {

/// The name of a device family id: "LT", "LC", "FC", or "unknown".
std::string_view family_name(std::uint32_t family) noexcept;

/// A 280-byte factory answer taken apart: the family by name and id, then every field of the
/// factory record by name, the MAC address as six hex pairs with colons. An all-zero answer
/// (the crate's image could not be read) is shown as such. Never throws for any payload.
detail::Decoded decode_factory(std::span<const std::uint8_t> bytes);

/// The one-byte version answer (System_mgr__version).
detail::Decoded decode_version(std::span<const std::uint8_t> bytes);

/// A one-byte yes/no answer (System_mgr__flag), named `what` in its text line.
detail::Decoded decode_flag(std::span<const std::uint8_t> bytes, std::string_view what);

/// The decoders of the answers of `factory`, `version` and `button`.
std::span<const detail::AnswerDecoder> control_decoders();

/// The `factory device|crate` view of a factory answer: a heading line and one indented line per
/// field, or as JSON one object with every field. An error answer or a payload of another size
/// is shown as format_response shows it. Never throws for any payload.
std::string format_factory(ipc::Address from, std::uint16_t id, const ipc::Response& response, bool json);

/// The `version fpga|cpld` view: "FPGA version 21 (0x15)", or as JSON {"type":"version",...}.
std::string format_version(ipc::Address from, std::uint16_t id, const ipc::Response& response, bool json);

/// The `button status` view of one front-button query: "front button enabled: yes", or as JSON
/// {"type":"button",...}.
std::string format_button_query(ipc::Address from, std::uint16_t id, const ipc::Response& response, bool json);

/// The view of a setting (front button, LEDs): "<request identifier>: done", or as JSON
/// {"type":"setting",...}. An error answer is shown as format_response shows it.
std::string format_setting(ipc::Address from, std::uint16_t id, const ipc::Response& response, bool json);

/// The 12-byte LED command of `led panel`: the LED (power, status, alarm, master, fan), the mode
/// (off, on, blink) and the colour (green, yellow, red), each by name or as a number, which is
/// sent as it is so that the board can be seen refusing it; throws tool::UsageError otherwise.
ipc::Payload led_panel_payload(std::string_view led, std::string_view mode, std::string_view colour);

/// The request of `led pon PORT STATE` for a state red, green or off; throws tool::UsageError otherwise.
std::uint16_t pon_led_request(std::string_view state);

}  // namespace xpon::system_mgr::ctl
