#include "tool.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <charconv>
#include <cstdio>

namespace xpon::ipc::tool {

void print_line(const std::string& line) {
  const std::string text = line + "\n";
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

void print_error(std::string_view program, const std::string& line) {
  const std::string text = fmt::format("{}: {}\n", program, line);
  std::fwrite(text.data(), 1, text.size(), stderr);
}

sigset_t stop_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  return signals;
}

std::uint64_t parse_number(std::string_view text, std::uint64_t max, std::string_view what) {
  int base = 10;
  std::string_view digits = text;
  if (digits.starts_with("0x") || digits.starts_with("0X")) {
    base = 16;
    digits.remove_prefix(2);
  }
  std::uint64_t value = 0;
  const char* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, value, base);
  if (digits.empty() || error != std::errc{} || stop != end) {
    throw UsageError(fmt::format("{}: '{}' is not a number (decimal or 0x hex)", what, text));
  }
  if (value > max) {
    throw UsageError(fmt::format("{}: {} is out of range (at most {:#x})", what, text, max));
  }
  return value;
}

Address parse_address(std::string_view text, std::string_view what) {
  return static_cast<Address>(parse_number(text, 0xFFFFFFFFU, what));
}

Key parse_key(std::string_view text, bool id_optional) {
  const auto colon = text.find(':');
  if (colon == std::string_view::npos) {
    if (!id_optional) {
      throw UsageError(fmt::format("--key: expected GROUP:ID, got '{}'", text));
    }
    return Key{static_cast<std::uint16_t>(parse_number(text, 0xFFFF, "--key group")), kAnyId};
  }
  return Key{static_cast<std::uint16_t>(parse_number(text.substr(0, colon), 0xFFFF, "--key group")),
             static_cast<std::uint16_t>(parse_number(text.substr(colon + 1), 0xFFFF, "--key id"))};
}

Payload parse_hex(std::string_view text) {
  if (text.size() % 2 != 0) {
    throw UsageError(fmt::format("payload: '{}' has an odd number of hex digits", text));
  }
  Payload bytes;
  bytes.reserve(text.size() / 2);
  for (std::size_t i = 0; i < text.size(); i += 2) {
    std::uint8_t byte = 0;
    const char* begin = text.data() + i;
    const auto [stop, error] = std::from_chars(begin, begin + 2, byte, 16);
    if (error != std::errc{} || stop != begin + 2) {
      throw UsageError(fmt::format("payload: '{}' is not hex digits", text));
    }
    bytes.push_back(byte);
  }
  if (bytes.size() > 64U * 1024U) {
    throw UsageError(fmt::format("payload: {} bytes is above the 64 KiB limit", bytes.size()));
  }
  return bytes;
}

std::string to_hex(const Payload& bytes) {
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const auto byte : bytes) {
    fmt::format_to(std::back_inserter(text), "{:02x}", byte);
  }
  return text;
}

namespace {

std::string byte_count(std::size_t size) {
  return size == 1 ? std::string("(1 byte)") : fmt::format("({} bytes)", size);
}

}  // namespace

std::string format_response(Address from, const Response& response, bool json) {
  if (json) {
    return nlohmann::json{{"type", "response"},
                          {"from", fmt::format("0x{:08x}", from)},
                          {"result", response.result},
                          {"reply_tag", response.reply_tag},
                          {"address", fmt::format("0x{:08x}", response.address)},
                          {"payload", to_hex(response.payload)}}
        .dump();
  }
  return fmt::format("response from 0x{:08x}: result {} tag {} address 0x{:08x} payload [{}] {}", from, response.result,
                     response.reply_tag, response.address, to_hex(response.payload),
                     byte_count(response.payload.size()));
}

std::string format_event(const Event& event, bool json) {
  if (json) {
    return nlohmann::json{{"type", "event"},
                          {"group", event.group},
                          {"id", event.id},
                          {"source", fmt::format("0x{:08x}", event.source)},
                          {"slot", event.source & 0xFFFFU},
                          {"address", fmt::format("0x{:08x}", event.address)},
                          {"payload", to_hex(event.payload)}}
        .dump();
  }
  return fmt::format("event {}:{} from 0x{:08x} address 0x{:08x} payload [{}] {}", event.group, event.id, event.source,
                     event.address, to_hex(event.payload), byte_count(event.payload.size()));
}

std::string format_request(const Request& request, bool json) {
  if (json) {
    nlohmann::json line{
        {"type", "request"}, {"group", request.group}, {"id", request.id}, {"payload", to_hex(request.payload)}};
    if (request.reply_to) {
      line["from"] = fmt::format("0x{:08x}", request.reply_to->address);
      line["reply_tag"] = request.reply_to->tag;
    }
    return line.dump();
  }
  if (request.reply_to) {
    return fmt::format("request {}:{} from 0x{:08x} tag {} payload [{}] {}", request.group, request.id,
                       request.reply_to->address, request.reply_to->tag, to_hex(request.payload),
                       byte_count(request.payload.size()));
  }
  return fmt::format("request {}:{} without reply information payload [{}] {}", request.group, request.id,
                     to_hex(request.payload), byte_count(request.payload.size()));
}

}  // namespace xpon::ipc::tool
