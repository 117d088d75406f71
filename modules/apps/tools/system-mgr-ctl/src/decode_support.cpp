#include "decode_support.hpp"

#include "xpon/tool/console.hpp"

#include <bit>
#include <iterator>

namespace xpon::system_mgr::ctl::detail {

std::uint16_t read_u16(std::span<const std::uint8_t> bytes, std::size_t offset) noexcept {
  return static_cast<std::uint16_t>(bytes[offset] | (bytes[offset + 1] << 8U));
}

std::uint32_t read_u32(std::span<const std::uint8_t> bytes, std::size_t offset) noexcept {
  return static_cast<std::uint32_t>(bytes[offset]) | (static_cast<std::uint32_t>(bytes[offset + 1]) << 8U) |
         (static_cast<std::uint32_t>(bytes[offset + 2]) << 16U) |
         (static_cast<std::uint32_t>(bytes[offset + 3]) << 24U);
}

std::uint64_t read_u64(std::span<const std::uint8_t> bytes, std::size_t offset) noexcept {
  return static_cast<std::uint64_t>(read_u32(bytes, offset)) |
         (static_cast<std::uint64_t>(read_u32(bytes, offset + 4)) << 32U);
}

float read_f32(std::span<const std::uint8_t> bytes, std::size_t offset) noexcept {
  return std::bit_cast<float>(read_u32(bytes, offset));
}

double read_f64(std::span<const std::uint8_t> bytes, std::size_t offset) noexcept {
  return std::bit_cast<double>(read_u64(bytes, offset));
}

std::string hex(std::span<const std::uint8_t> bytes) {
  return tool::to_hex(std::vector<std::uint8_t>(bytes.begin(), bytes.end()));
}

std::string byte_count(std::size_t size) {
  return size == 1 ? std::string("(1 byte)") : fmt::format("({} bytes)", size);
}

std::string address_text(std::uint32_t address) {
  return fmt::format("0x{:08x}", address);
}

namespace {

bool printable(std::uint8_t byte) noexcept {
  return byte >= 0x20 && byte <= 0x7e;
}

}  // namespace

std::string escaped(std::string_view text, bool escape_quotes) {
  std::string out;
  out.reserve(text.size());
  for (const char character : text) {
    const auto byte = static_cast<std::uint8_t>(character);
    if (character == '\\') {
      out += "\\\\";
    } else if (character == '"' && escape_quotes) {
      out += "\\\"";
    } else if (printable(byte)) {
      out += character;
    } else {
      fmt::format_to(std::back_inserter(out), "\\x{:02x}", byte);
    }
  }
  return out;
}

Decoded wrong_size(std::size_t size, std::string_view expected) {
  Decoded decoded;
  const std::string reason = fmt::format("malformed answer: {} bytes, expected {}", size, expected);
  decoded.lines.push_back(reason);
  decoded.json["error"] = reason;
  return decoded;
}

}  // namespace xpon::system_mgr::ctl::detail
