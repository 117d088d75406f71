#pragma once

// The parts of system-mgr-ctl that need no socket: names of the daemon's messages, decoding of
// its events and responses to one line of text or JSON, and the option values the tool reads.

#include "xpon/ipc/ipc.hpp"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace xpon::system_mgr::ctl {

/// The identifier of a request the daemon answers ("IPC_SYSTEM_MGR__GET_TEMP"); empty if unknown.
std::string_view request_name(std::uint16_t id) noexcept;

/// The identifier of an event known to this tool ("IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_REMOVED"); empty if unknown.
std::string_view event_name(ipc::Key key) noexcept;

/// The request ids whose answers this tool decodes, one entry per registered decoder.
std::vector<std::uint16_t> decoded_requests();

/// What an alarm identifier is about ("system load average", as the client header names the
/// alarm kinds); empty if unknown.
std::string_view alarm_name(std::uint32_t alarm_id) noexcept;

/// Reads a request id: a number (decimal or 0x hex) of the daemon's range, or an identifier with
/// or without its "IPC_SYSTEM_MGR__" prefix, in any case; throws tool::UsageError.
std::uint16_t parse_request_id(std::string_view text);

/// Reads a positive number of seconds with an optional fraction ("5", "0.5"); throws tool::UsageError.
std::chrono::milliseconds parse_seconds(std::string_view text, std::string_view what);

/// One line for an event: the daemon's alarm records, SFP and fan events decoded, any other
/// event with its key and payload in hex. Never throws for any payload.
std::string format_event(const ipc::Event& event, bool json);

/// What the payload of a request is built from on the command line.
enum class RequestArgument : std::uint8_t {
  None,   ///< --payload HEX only
  Port,   ///< --port N: the port number, 4 bytes little-endian
  Speed,  ///< --speed N: one byte, the fan speed setting
};

/// One request of the daemon as a command of the tool.
struct RequestCommand {
  std::uint16_t id = 0;
  std::string_view name;  ///< "IPC_SYSTEM_MGR__GET_TEMP"
  std::string command;    ///< "get-temp"
  RequestArgument argument = RequestArgument::None;
};

/// Every request of the daemon in id order, each with its command name.
std::vector<RequestCommand> request_commands();

/// The payload of a request about one port: the port number, 4 bytes little-endian.
ipc::Payload port_payload(std::uint32_t port);

/// The response to a request with the given id sent to `from`: as text, one line followed by
/// the decoded answer (one indented line per item) where the tool knows the answer's layout;
/// as JSON, one object with a "decoded" member in that case. Never throws for any payload.
std::string format_response(ipc::Address from, std::uint16_t id, const ipc::Response& response, bool json);

/// The answer to IPC_SYSTEM_MGR__GET_RAM_DATA for the `ram` command: one line with the total and
/// free memory in kB and in MiB, or as JSON one object with the sender and both values in both
/// units. An error answer or a payload of another size than 8 bytes is shown as format_response
/// shows it.
/// Never throws for any payload.
std::string format_ram(ipc::Address from, const ipc::Response& response, bool json);

/// The `disk` command's view of an IPC_SYSTEM_MGR__GET_HDD_DATA answer sent from `from`: as text
/// "total 4.00 GiB, free 1.31 GiB" (two decimals), as JSON {"type":"disk","from":...,
/// "total_gib":4.0,"free_gib":1.3125}. An error answer or a payload that is not the 8-byte
/// record is shown as format_response shows it. Never throws for any payload.
std::string format_disk(ipc::Address from, const ipc::Response& response, bool json);

}  // namespace xpon::system_mgr::ctl
