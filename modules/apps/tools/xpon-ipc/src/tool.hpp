#pragma once

// The pieces of xpon-ipc that do not need a socket: reading addresses and keys, and the
// output lines. The console plumbing it shares with the other tools is in xpon/tool/console.hpp.

#include "xpon/ipc/ipc.hpp"
#include "xpon/tool/console.hpp"

#include <string>
#include <string_view>

namespace xpon::ipc::tool {

/// Reads an address (32 bits, decimal or 0x hex).
Address parse_address(std::string_view text, std::string_view what = "--address");

/// Reads GROUP:ID; with `id_optional`, GROUP alone means the whole group (id kAnyId).
Key parse_key(std::string_view text, bool id_optional = false);

/// One line for a response, as text or as a JSON object.
std::string format_response(Address from, const Response& response, bool json);

/// One line for an event, as text or as a JSON object.
std::string format_event(const Event& event, bool json);

/// One line for a request served, as text or as a JSON object.
std::string format_request(const Request& request, bool json);

}  // namespace xpon::ipc::tool
