#include "xpon/ipc/wire.hpp"

namespace xpon::ipc::wire {

namespace {

void put16(std::uint8_t* out, std::uint16_t value) noexcept {
  out[0] = static_cast<std::uint8_t>(value & 0xFFU);
  out[1] = static_cast<std::uint8_t>(value >> 8U);
}

void put32(std::uint8_t* out, std::uint32_t value) noexcept {
  for (unsigned i = 0; i < 4; ++i) {
    out[i] = static_cast<std::uint8_t>((value >> (8U * i)) & 0xFFU);
  }
}

std::uint16_t get16(const std::uint8_t* in) noexcept {
  return static_cast<std::uint16_t>(in[0] | (in[1] << 8U));
}

std::uint32_t get32(const std::uint8_t* in) noexcept {
  std::uint32_t value = 0;
  for (unsigned i = 0; i < 4; ++i) {
    value |= static_cast<std::uint32_t>(in[i]) << (8U * i);
  }
  return value;
}

}  // namespace

std::string_view decode_error_name(DecodeError error) noexcept {
  switch (error) {
    case DecodeError::ShortHeader:
      return "short header";
    case DecodeError::LongHeader:
      return "long header";
    case DecodeError::BadVersion:
      return "unknown version";
    case DecodeError::BadKind:
      return "unknown kind";
  }
  return "unknown error";
}

std::array<std::uint8_t, kHeaderSize> encode_header(const Header& header) noexcept {
  std::array<std::uint8_t, kHeaderSize> bytes{};
  bytes[0] = header.version;
  bytes[1] = static_cast<std::uint8_t>(header.kind);
  put16(&bytes[2], header.flags);
  put32(&bytes[4], header.source);
  put32(&bytes[8], header.address);
  put16(&bytes[12], header.group);
  put16(&bytes[14], header.id);
  put16(&bytes[16], header.reply_tag);
  put16(&bytes[18], header.reserved);
  put32(&bytes[20], header.result);
  return bytes;
}

Decoded decode_header(std::span<const std::uint8_t> frame) noexcept {
  if (frame.size() < kHeaderSize) {
    return {std::nullopt, DecodeError::ShortHeader};
  }
  if (frame.size() > kHeaderSize) {
    return {std::nullopt, DecodeError::LongHeader};
  }
  if (frame[0] != kVersion) {
    return {std::nullopt, DecodeError::BadVersion};
  }
  const std::uint8_t kind = frame[1];
  if (kind < static_cast<std::uint8_t>(Kind::Request) || kind > static_cast<std::uint8_t>(Kind::Event)) {
    return {std::nullopt, DecodeError::BadKind};
  }
  const std::uint8_t* in = frame.data();
  Header header;
  header.version = in[0];
  header.kind = static_cast<Kind>(kind);
  header.flags = get16(in + 2);
  header.source = get32(in + 4);
  header.address = get32(in + 8);
  header.group = get16(in + 12);
  header.id = get16(in + 14);
  header.reply_tag = get16(in + 16);
  header.reserved = get16(in + 18);
  header.result = get32(in + 20);
  return {header, DecodeError::ShortHeader};
}

std::array<std::uint8_t, kTopicSize> encode_topic(Key key) noexcept {
  return {static_cast<std::uint8_t>(key.group >> 8U), static_cast<std::uint8_t>(key.group & 0xFFU),
          static_cast<std::uint8_t>(key.id >> 8U), static_cast<std::uint8_t>(key.id & 0xFFU)};
}

std::array<std::uint8_t, kTopicSize> subscription_prefix(Key key, std::size_t& length) noexcept {
  length = key.id == kAnyId ? 2 : kTopicSize;
  return encode_topic(key);
}

std::optional<Key> decode_topic(std::span<const std::uint8_t> frame) noexcept {
  if (frame.size() != kTopicSize) {
    return std::nullopt;
  }
  return Key{static_cast<std::uint16_t>((frame[0] << 8U) | frame[1]),
             static_cast<std::uint16_t>((frame[2] << 8U) | frame[3])};
}

Header request_header(Address source, const Request& request) noexcept {
  Header header;
  header.kind = Kind::Request;
  header.flags = request.reply_to ? kFlagReplyWanted : 0;
  header.source = request.reply_to ? request.reply_to->address : source;
  header.address = request.address;
  header.group = request.group;
  header.id = request.id;
  header.reply_tag = request.reply_to ? request.reply_to->tag : 0;
  return header;
}

Header response_header(Address source, const Response& response) noexcept {
  Header header;
  header.kind = Kind::Response;
  header.source = source;
  header.address = response.address;
  header.reply_tag = response.reply_tag;
  header.result = response.result;
  return header;
}

Header event_header(Address source, const Event& event) noexcept {
  Header header;
  header.kind = Kind::Event;
  header.source = source;
  header.address = event.address;
  header.group = event.group;
  header.id = event.id;
  return header;
}

Request to_request(const Header& header, std::span<const std::uint8_t> payload) {
  Request request;
  request.payload.assign(payload.begin(), payload.end());
  request.group = header.group;
  request.id = header.id;
  request.address = header.address;
  if ((header.flags & kFlagReplyWanted) != 0) {
    request.reply_to = ReplyTo{header.source, header.reply_tag};
  }
  return request;
}

Response to_response(const Header& header, std::span<const std::uint8_t> payload) {
  Response response;
  response.payload.assign(payload.begin(), payload.end());
  response.address = header.address;
  response.reply_tag = header.reply_tag;
  response.result = header.result;
  return response;
}

Event to_event(const Header& header, std::span<const std::uint8_t> payload) {
  Event event;
  event.payload.assign(payload.begin(), payload.end());
  event.address = header.address;
  event.group = header.group;
  event.id = header.id;
  event.source = header.source;
  return event;
}

}  // namespace xpon::ipc::wire
