#pragma once

// The console plumbing every command-line tool shares: output lines, exit statuses, the stop
// signals and the reading of numbers and hex payloads from options.

#include "xpon/ipc/ipc.hpp"

#include <signal.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace xpon::tool {

/// A command-line value that does not parse; the text says which and why.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Exit statuses of the tools.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;  ///< error answer, or the operation failed
inline constexpr int kExitUsage = 2;
inline constexpr int kExitTimeout = 3;

/// Writes one line to standard output and flushes it, so that a reader on a pipe sees each
/// event as it comes.
void print_line(const std::string& line);

/// Writes "<program>: <line>" to standard error.
void print_error(std::string_view program, const std::string& line);

/// SIGINT and SIGTERM: the signals that end a long-running command. They are blocked in every
/// thread and read through a signalfd.
sigset_t stop_signals();

/// Reads an unsigned number in decimal or 0x hex no larger than `max`; `what` names the option.
std::uint64_t parse_number(std::string_view text, std::uint64_t max, std::string_view what);

/// Reads payload bytes as hex digits, two per byte (empty: no bytes), at most 64 KiB.
ipc::Payload parse_hex(std::string_view text);

/// Writes bytes as lowercase hex digits, two per byte.
std::string to_hex(const ipc::Payload& bytes);

}  // namespace xpon::tool
