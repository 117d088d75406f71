#pragma once

// The tool's side of a request to the daemon: its own endpoint, the request with its time-out,
// and the answer printed the way the command wants it.

#include "xpon/ipc/ipc.hpp"

#include <cstdint>
#include <string>

namespace xpon::system_mgr::ctl {

/// Prints "system-mgr-ctl: <line>" on standard error.
void print_error(const std::string& line);

/// How an answer is printed: format_response, or a command's own view of its answer.
using AnswerFormat = std::string (*)(ipc::Address from, std::uint16_t id, const ipc::Response& response, bool json);

/// Sends request `id` with `payload` to the daemon, waits up to `timeout_text` ms (1 to 3600000,
/// else tool::UsageError) and prints the answer with `format`. Returns the exit status: 0 for an
/// answer with SYSTEM_MGR_RESULT_ANSWERED, 1 for an error answer or a failed send, 3 for no answer
/// in time.
int run_request(bool json, std::uint16_t id, const ipc::Payload& payload, const std::string& timeout_text,
                AnswerFormat format);

}  // namespace xpon::system_mgr::ctl
