#pragma once

#include "xpon/ipc/ipc.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace xpon::ipc::wire {

/// The only header version this library speaks.
inline constexpr std::uint8_t kVersion = 1;

/// Size of the packed little-endian header frame.
inline constexpr std::size_t kHeaderSize = 24;

/// Size of an event's topic frame (group and id, big-endian); a 2-byte prefix selects a whole group.
inline constexpr std::size_t kTopicSize = 4;

/// Largest payload accepted or sent.
inline constexpr std::size_t kMaxPayload = std::size_t{64} * 1024;

/// The flag bit saying that a request carries reply information.
inline constexpr std::uint16_t kFlagReplyWanted = 0x0001;

/// The kind byte of a message.
enum class Kind : std::uint8_t { Request = 1, Response = 2, Event = 3 };

/// The header frame, field by field.
struct Header {
  std::uint8_t version = kVersion;
  Kind kind = Kind::Request;
  std::uint16_t flags = 0;
  std::uint32_t source = 0;
  std::uint32_t address = 0;
  std::uint16_t group = 0;
  std::uint16_t id = 0;
  std::uint16_t reply_tag = 0;
  std::uint16_t reserved = 0;
  std::uint32_t result = 0;
  friend constexpr bool operator==(const Header&, const Header&) = default;
};

/// Why a received frame was refused.
enum class DecodeError : std::uint8_t { ShortHeader, LongHeader, BadVersion, BadKind };

/// A decoded header, or why the frame was refused.
struct Decoded {
  std::optional<Header> header;
  DecodeError error = DecodeError::ShortHeader;
};

/// The printed name of a decode error ("short header", ...).
std::string_view decode_error_name(DecodeError error) noexcept;

/// Writes the header as its 24 wire bytes.
std::array<std::uint8_t, kHeaderSize> encode_header(const Header& header) noexcept;

/// Reads a header frame; anything but exactly 24 bytes of version 1 with a known kind is refused.
Decoded decode_header(std::span<const std::uint8_t> frame) noexcept;

/// The 4-byte topic of an event: group then id, both big-endian.
std::array<std::uint8_t, kTopicSize> encode_topic(Key key) noexcept;

/// The subscription prefix for a key: 2 bytes (group only) when the id is kAnyId, else the full topic.
std::array<std::uint8_t, kTopicSize> subscription_prefix(Key key, std::size_t& length) noexcept;

/// Reads a 4-byte topic frame; nullopt for any other length.
std::optional<Key> decode_topic(std::span<const std::uint8_t> frame) noexcept;

/// The header of a request sent by `source` (whatever its destination); the tag is used only with reply information.
Header request_header(Address source, const Request& request) noexcept;

/// The header of a response sent by `source`.
Header response_header(Address source, const Response& response) noexcept;

/// The header of an event sent by `source`.
Header event_header(Address source, const Event& event) noexcept;

/// Rebuilds a request from its header and payload.
Request to_request(const Header& header, std::span<const std::uint8_t> payload);

/// Rebuilds a response from its header and payload.
Response to_response(const Header& header, std::span<const std::uint8_t> payload);

/// Rebuilds an event from its header and payload.
Event to_event(const Header& header, std::span<const std::uint8_t> payload);

}  // namespace xpon::ipc::wire
