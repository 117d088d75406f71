#include "xpon/metrics/request_head.hpp"

#include <fmt/format.h>

#include <charconv>
#include <string_view>
#include <system_error>
#include <utility>

namespace xpon::metrics {

namespace {

constexpr std::string_view kTokenPunctuation = "!#$%&'*+-.^_`|~";

bool is_token_character(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') || kTokenPunctuation.find(character) != std::string_view::npos;
}

bool is_token(std::string_view text) {
  if (text.empty()) {
    return false;
  }
  for (const char character : text) {
    if (!is_token_character(character)) {
      return false;
    }
  }
  return true;
}

bool is_blank(char character) {
  return character == ' ' || character == '\t';
}

// A field value: visible characters, blanks and bytes of 0x80 and above; no other control character.
bool is_field_value(std::string_view value) {
  for (const char character : value) {
    const auto byte = static_cast<unsigned char>(character);
    if ((byte < 0x20 && character != '\t') || byte == 0x7f) {
      return false;
    }
  }
  return true;
}

bool is_digit(char character) {
  return character >= '0' && character <= '9';
}

bool equals_ignoring_case(std::string_view left, std::string_view right) {
  if (left.size() != right.size()) {
    return false;
  }
  for (std::size_t index = 0; index < left.size(); ++index) {
    char one = left[index];
    char other = right[index];
    if (one >= 'A' && one <= 'Z') {
      one = static_cast<char>(one - 'A' + 'a');
    }
    if (other >= 'A' && other <= 'Z') {
      other = static_cast<char>(other - 'A' + 'a');
    }
    if (one != other) {
      return false;
    }
  }
  return true;
}

RequestError bad_request(std::string reason) {
  return RequestError{400, std::move(reason)};
}

// Splits off the next line of `rest` (without its CRLF or LF); empty when no line end is left.
std::optional<std::string_view> next_line(std::string_view& rest) {
  const std::size_t end = rest.find('\n');
  if (end == std::string_view::npos) {
    return std::nullopt;
  }
  std::string_view line = rest.substr(0, end);
  rest.remove_prefix(end + 1);
  if (line.ends_with('\r')) {
    line.remove_suffix(1);
  }
  return line;
}

std::optional<RequestError> parse_request_line(std::string_view line, RequestHead& head) {
  const std::size_t first_space = line.find(' ');
  const std::size_t second_space =
      first_space == std::string_view::npos ? std::string_view::npos : line.find(' ', first_space + 1);
  if (second_space == std::string_view::npos || line.find(' ', second_space + 1) != std::string_view::npos) {
    return bad_request("The request line is not: method, target and version, each after one space");
  }
  const std::string_view method = line.substr(0, first_space);
  const std::string_view target = line.substr(first_space + 1, second_space - first_space - 1);
  const std::string_view version = line.substr(second_space + 1);
  if (!is_token(method)) {
    return bad_request("The method is not a token");
  }
  if (target.empty() || (target[0] != '/' && target != "*")) {
    return bad_request("The request target is neither a path nor \"*\"");
  }
  for (const char character : target) {
    if (character <= ' ' || character >= 0x7f) {
      return bad_request("The request target holds a character that is not visible ASCII");
    }
  }
  if (version.size() != 8 || !version.starts_with("HTTP/") || !is_digit(version[5]) || version[6] != '.' ||
      !is_digit(version[7])) {
    return bad_request("The version is not HTTP/<digit>.<digit>");
  }
  if (version[5] != '1' || (version[7] != '0' && version[7] != '1')) {
    return RequestError{505, fmt::format("{} is not supported: only HTTP/1.0 and HTTP/1.1 are", version)};
  }
  head.method = method;
  head.target = target;
  head.path = target.substr(0, target.find('?'));
  head.minor_version = version[7] - '0';
  return std::nullopt;
}

std::optional<RequestError> parse_field_line(std::string_view line, RequestHead& head) {
  if (is_blank(line[0])) {
    return bad_request("A header line is folded onto the one before");
  }
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) {
    return bad_request("A header line has no colon");
  }
  const std::string_view name = line.substr(0, colon);
  if (!is_token(name)) {
    return bad_request("A header name is not a token (or has blanks before its colon)");
  }
  std::string_view value = line.substr(colon + 1);
  while (!value.empty() && is_blank(value.front())) {
    value.remove_prefix(1);
  }
  while (!value.empty() && is_blank(value.back())) {
    value.remove_suffix(1);
  }
  if (!is_field_value(value)) {
    return bad_request(fmt::format("The value of header {} holds a control character", name));
  }
  head.fields.emplace_back(name, value);
  return std::nullopt;
}

// Checks Host, Content-Length and Transfer-Encoding once every field is read, and sets has_body.
std::optional<RequestError> check_fields(RequestHead& head) {
  std::size_t hosts = 0;
  std::optional<std::uint64_t> content_length;
  bool transfer_encoding = false;
  for (const auto& [name, value] : head.fields) {
    if (equals_ignoring_case(name, "Host")) {
      ++hosts;
    } else if (equals_ignoring_case(name, "Transfer-Encoding")) {
      transfer_encoding = true;
    } else if (equals_ignoring_case(name, "Content-Length")) {
      std::uint64_t length = 0;
      const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), length);
      if (value.empty() || error != std::errc() || end != value.data() + value.size()) {
        return bad_request("Content-Length is not a number");
      }
      if (content_length && *content_length != length) {
        return bad_request("Content-Length is given twice with different values");
      }
      content_length = length;
    }
  }
  if (head.minor_version == 1 && hosts != 1) {
    return bad_request("An HTTP/1.1 request must have exactly one Host header");
  }
  if (hosts > 1) {
    return bad_request("Host is given more than once");
  }
  if (content_length && transfer_encoding) {
    return bad_request("Content-Length and Transfer-Encoding are both given");
  }
  head.has_body = transfer_encoding || content_length.value_or(0) > 0;
  return std::nullopt;
}

}  // namespace

std::optional<std::size_t> request_head_size(std::string_view received) {
  std::string_view rest = received;
  bool request_line_seen = false;
  while (const auto line = next_line(rest)) {
    if (!line->empty()) {
      request_line_seen = true;
    } else if (request_line_seen) {
      return received.size() - rest.size();
    }
  }
  return std::nullopt;
}

RequestHeadResult parse_request_head(std::string_view head_text) {
  std::string_view rest = head_text;
  RequestHead head;
  std::optional<std::string_view> line = next_line(rest);
  while (line && line->empty()) {
    line = next_line(rest);
  }
  if (!line) {
    return bad_request("The request head has no request line");
  }
  if (line->find('\r') != std::string_view::npos) {
    return bad_request("The request line holds a bare CR");
  }
  if (auto refused = parse_request_line(*line, head)) {
    return std::move(*refused);
  }
  while (true) {
    line = next_line(rest);
    if (!line) {
      return bad_request("The request head does not end with an empty line");
    }
    if (line->empty()) {
      break;
    }
    if (auto refused = parse_field_line(*line, head)) {
      return std::move(*refused);
    }
  }
  if (auto refused = check_fields(head)) {
    return std::move(*refused);
  }
  return head;
}

}  // namespace xpon::metrics
