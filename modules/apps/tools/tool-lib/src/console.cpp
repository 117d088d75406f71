#include "xpon/tool/console.hpp"

#include <fmt/format.h>

#include <charconv>
#include <cstdio>
#include <iterator>

namespace xpon::tool {

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

ipc::Payload parse_hex(std::string_view text) {
  if (text.size() % 2 != 0) {
    throw UsageError(fmt::format("payload: '{}' has an odd number of hex digits", text));
  }
  ipc::Payload bytes;
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
  if (bytes.size() > std::size_t{64} * 1024) {
    throw UsageError(fmt::format("payload: {} bytes is above the 64 KiB limit", bytes.size()));
  }
  return bytes;
}

std::string to_hex(const ipc::Payload& bytes) {
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const auto byte : bytes) {
    fmt::format_to(std::back_inserter(text), "{:02x}", byte);
  }
  return text;
}

}  // namespace xpon::tool
