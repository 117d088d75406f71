#pragma once

#include "xpon/core/result.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace xpon::metrics {

/// A request head that was read in full and parsed.
struct RequestHead {
  std::string method;     ///< as sent (case-sensitive): "GET", "HEAD", ...
  std::string target;     ///< the request target as sent: "/metrics?x=1"
  std::string path;       ///< the target without its query: "/metrics" (not percent-decoded)
  int minor_version = 1;  ///< 0 for HTTP/1.0, 1 for HTTP/1.1
  /// The header fields in the order sent: names as sent, values without surrounding blanks.
  std::vector<std::pair<std::string, std::string>> fields;
  /// True when the request announces a body (Content-Length above 0, or any Transfer-Encoding).
  bool has_body = false;
};

/// Why a request head was refused: the status to answer (400 or 505) and a short reason.
struct RequestError {
  int status = 400;
  std::string reason;
};

/// A parsed head, or why it was refused.
using RequestHeadResult = core::outcome::basic_result<RequestHead, RequestError, core::XponPolicy>;

/// The length of the request head at the start of `received`, up to and including the empty line
/// that ends it (CRLF or a bare LF ends a line); empty while that line has not arrived. Empty
/// lines before the request line belong to the head and are skipped by parse_request_head().
std::optional<std::size_t> request_head_size(std::string_view received);

/// Parses a complete request head (as request_head_size() delimits it; what follows the empty
/// line is ignored). Refused with 400: a malformed request line (one space between its three
/// parts, a method of token characters, a target that starts with '/' or is "*", visible ASCII
/// only), a malformed header line (no colon, blanks before the colon, a folded line, control
/// characters), an HTTP/1.1 request without exactly one Host, a Content-Length that is not a
/// number or differs between its copies, Content-Length together with Transfer-Encoding, a bare
/// CR, no empty line at the end. Refused with 505: a well-formed version other than 1.0 and 1.1.
RequestHeadResult parse_request_head(std::string_view head);

}  // namespace xpon::metrics
