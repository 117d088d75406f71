#pragma once

// What every decoder of system-mgr-ctl uses: little-endian reads of a payload, hex and address
// texts, and the decoded view of an answer (text lines plus the same as JSON).

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace xpon::system_mgr::ctl::detail {

using Json = nlohmann::ordered_json;

/// The little-endian unsigned value at `offset`; the caller has checked the size.
std::uint32_t read_u32(std::span<const std::uint8_t> bytes, std::size_t offset) noexcept;
std::uint64_t read_u64(std::span<const std::uint8_t> bytes, std::size_t offset) noexcept;
std::uint16_t read_u16(std::span<const std::uint8_t> bytes, std::size_t offset) noexcept;

/// The IEEE 754 value whose little-endian bytes start at `offset`.
float read_f32(std::span<const std::uint8_t> bytes, std::size_t offset) noexcept;
double read_f64(std::span<const std::uint8_t> bytes, std::size_t offset) noexcept;

/// The bytes as lower-case hex digits, two per byte, without separators.
std::string hex(std::span<const std::uint8_t> bytes);

/// "(1 byte)", "(12 bytes)".
std::string byte_count(std::size_t size);

/// An IPC address as eight hex digits: "0x0001fffe".
std::string address_text(std::uint32_t address);

/// The text with backslashes doubled and every byte outside printable ASCII as \xNN (and quotes
/// escaped when asked), so that whatever a publisher wrote stays readable and valid UTF-8.
std::string escaped(std::string_view text, bool escape_quotes);

/// The shortest text that reads back as the same value, in the value's own precision.
template <typename Value>
std::string number(Value value) {
  return fmt::format("{}", value);
}

/// An answer payload taken apart: indented text lines and the same as a JSON object.
struct Decoded {
  std::vector<std::string> lines;
  Json json = Json::object();
};

/// The decoder of one answer record, registered for the request whose answer it is; the
/// generic `request` command and the typed command of that request both decode through it.
struct AnswerDecoder {
  std::uint16_t id;
  Decoded (*decode)(std::span<const std::uint8_t> bytes);
};

/// The decoded view of an answer whose size is not its layout's: "malformed answer: N bytes,
/// expected E", as its one line and as "error" in JSON.
Decoded wrong_size(std::size_t size, std::string_view expected);

}  // namespace xpon::system_mgr::ctl::detail
