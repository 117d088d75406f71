#pragma once

// The pieces of xpon-ipc that do not need a socket: argument parsing, output formatting and
// the console plumbing the bus tools share.

#include "xpon/ipc/ipc.hpp"

#include <signal.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace xpon::ipc::tool {

/// A command-line value that does not parse; the text says which and why.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Writes one line to standard output and flushes it, so that a reader on a pipe sees each
/// event as it comes.
void print_line(const std::string& line);

/// Writes "<program>: <line>" to standard error.
void print_error(std::string_view program, const std::string& line);

/// SIGINT and SIGTERM: the signals that end a long-running command. They are blocked in every
/// thread and read through a signalfd.
sigset_t stop_signals();

/// Exit statuses of the tool.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;  ///< error answer, or the operation failed
inline constexpr int kExitUsage = 2;
inline constexpr int kExitTimeout = 3;

/// Reads an unsigned number in decimal or 0x hex no larger than `max`; `what` names the option.
std::uint64_t parse_number(std::string_view text, std::uint64_t max, std::string_view what);

/// Reads an address (32 bits, decimal or 0x hex).
Address parse_address(std::string_view text, std::string_view what = "--address");

/// Reads GROUP:ID; with `id_optional`, GROUP alone means the whole group (id kAnyId).
Key parse_key(std::string_view text, bool id_optional = false);

/// Reads payload bytes as hex digits, two per byte (empty: no bytes).
Payload parse_hex(std::string_view text);

/// Writes bytes as lowercase hex digits, two per byte.
std::string to_hex(const Payload& bytes);

/// One line for a response, as text or as a JSON object.
std::string format_response(Address from, const Response& response, bool json);

/// One line for an event, as text or as a JSON object.
std::string format_event(const Event& event, bool json);

/// One line for a request served, as text or as a JSON object.
std::string format_request(const Request& request, bool json);

}  // namespace xpon::ipc::tool
