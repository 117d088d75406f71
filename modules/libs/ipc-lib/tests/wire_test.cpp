#include "xpon/ipc/wire.hpp"
#include "xpon/ipc/paths.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <vector>

namespace xpon::ipc::wire {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes as_vector(const std::array<std::uint8_t, kHeaderSize>& bytes) {
  return {bytes.begin(), bytes.end()};
}

TEST(IpcWire, HeaderFieldsAreLittleEndianAtTheirOffsets) {
  Header header;
  header.kind = Kind::Response;
  header.flags = 0x0102;
  header.source = 0x0A0B0C0D;
  header.address = 0x11223344;
  header.group = 0x5566;
  header.id = 0x7788;
  header.reply_tag = 0x99AA;
  header.reserved = 0xBBCC;
  header.result = 0xDDEEFF01;
  const Bytes expected{0x01, 0x02, 0x02, 0x01, 0x0D, 0x0C, 0x0B, 0x0A, 0x44, 0x33, 0x22, 0x11,
                       0x66, 0x55, 0x88, 0x77, 0xAA, 0x99, 0xCC, 0xBB, 0x01, 0xFF, 0xEE, 0xDD};
  EXPECT_EQ(as_vector(encode_header(header)), expected);
}

TEST(IpcWire, MastershipQueryEncodesToTheDocumentedBytes) {
  Request request;
  request.group = 14500;
  request.id = 14504;
  request.reply_to = ReplyTo{0x0019FFFE, 7};
  // Sent to 0x0015FFFE, which is the inbox it goes to, not a header word: the address word is 0x0000FFFE.
  const Bytes expected{0x01, 0x01, 0x01, 0x00, 0xFE, 0xFF, 0x19, 0x00, 0xFE, 0xFF, 0x00, 0x00,
                       0xA4, 0x38, 0xA8, 0x38, 0x07, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
  EXPECT_EQ(request.address, 0x0000FFFEU);
  EXPECT_EQ(as_vector(encode_header(request_header(0x0019FFFE, request))), expected);
}

TEST(IpcWire, RequestAddressWordIsWrittenAtOffsetEightAndReadBack) {
  Request request;
  request.group = 14500;
  request.id = 14504;
  request.reply_to = ReplyTo{0x0019FFFE, 7};
  request.address = 0x0A0B0C0D;
  const Bytes expected{0x01, 0x01, 0x01, 0x00, 0xFE, 0xFF, 0x19, 0x00, 0x0D, 0x0C, 0x0B, 0x0A,
                       0xA4, 0x38, 0xA8, 0x38, 0x07, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
  const auto bytes = encode_header(request_header(0x0019FFFE, request));
  EXPECT_EQ(as_vector(bytes), expected);
  const Decoded decoded = decode_header(bytes);
  ASSERT_TRUE(decoded.header.has_value());
  EXPECT_EQ(decoded.header->address, 0x0A0B0C0DU);
  const Request back = to_request(*decoded.header, {});
  EXPECT_EQ(back.address, 0x0A0B0C0DU);
  EXPECT_EQ(back.group, 14500);
  EXPECT_EQ(back.id, 14504);
  ASSERT_TRUE(back.reply_to.has_value());
  EXPECT_EQ(*back.reply_to, (ReplyTo{0x0019FFFE, 7}));
}

TEST(IpcWire, RequestFromAPeerThatWritesItsDestinationThereKeepsThatWord) {
  // The bytes of a sender that still puts the destination (0x0015FFFE) into the address word.
  const Bytes frame{0x01, 0x01, 0x01, 0x00, 0xFE, 0xFF, 0x19, 0x00, 0xFE, 0xFF, 0x15, 0x00,
                    0xA4, 0x38, 0xA8, 0x38, 0x07, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
  const Decoded decoded = decode_header(frame);
  ASSERT_TRUE(decoded.header.has_value());
  const Request request = to_request(*decoded.header, {});
  EXPECT_EQ(request.address, 0x0015FFFEU);
  ASSERT_TRUE(request.reply_to.has_value());
  EXPECT_EQ(request.reply_to->address, 0x0019FFFEU);
  EXPECT_EQ(as_vector(encode_header(request_header(0x0019FFFE, request))), frame);
}

TEST(IpcWire, MastershipAnswerEncodesToTheDocumentedBytes) {
  Response response;
  response.payload = {0x15, 0x00};
  response.reply_tag = 7;
  response.result = 1;
  const Bytes expected{0x01, 0x02, 0x00, 0x00, 0xFE, 0xFF, 0x15, 0x00, 0xFE, 0xFF, 0x00, 0x00,
                       0x00, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00};
  EXPECT_EQ(as_vector(encode_header(response_header(0x0015FFFE, response))), expected);
}

TEST(IpcWire, MaxRateEventEncodesToTheDocumentedBytes) {
  Event event;
  event.group = 15500;
  event.id = 15537;
  const Bytes expected{0x01, 0x03, 0x00, 0x00, 0x05, 0x00, 0x19, 0x00, 0xFE, 0xFF, 0x00, 0x00,
                       0x8C, 0x3C, 0xB1, 0x3C, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
  EXPECT_EQ(as_vector(encode_header(event_header(0x00190005, event))), expected);
  const auto topic = encode_topic(Key{event.group, event.id});
  EXPECT_EQ(Bytes(topic.begin(), topic.end()), (Bytes{0x3C, 0x8C, 0x3C, 0xB1}));
}

TEST(IpcWire, RequestWithoutReplyInformationHasNoFlagAndNoTag) {
  Request request;
  request.group = 15500;
  request.id = 15515;
  const Header header = request_header(0x0042FFFE, request);
  EXPECT_EQ(header.kind, Kind::Request);
  EXPECT_EQ(header.flags, 0);
  EXPECT_EQ(header.source, 0x0042FFFEU);
  EXPECT_EQ(header.address, 0x0000FFFEU);
  EXPECT_EQ(header.reply_tag, 0);
  const Request back = to_request(header, {});
  EXPECT_FALSE(back.reply_to.has_value());
}

TEST(IpcWire, EveryFieldSurvivesEncodeAndDecode) {
  Header header;
  header.kind = Kind::Event;
  header.flags = 0xFFFF;
  header.source = 0xFFFFFFFF;
  header.address = 0x0000FFFE;
  header.group = 9000;
  header.id = 9005;
  header.reply_tag = 0xFFFF;
  header.reserved = 0;
  header.result = 1;
  const auto bytes = encode_header(header);
  const Decoded decoded = decode_header(bytes);
  ASSERT_TRUE(decoded.header.has_value());
  EXPECT_EQ(*decoded.header, header);
}

TEST(IpcWire, RequestRoundTripKeepsPayloadKeyAndReplyInformation) {
  Request request;
  request.payload = {1, 2, 3};
  request.group = 15500;
  request.id = 15515;
  request.reply_to = ReplyTo{0x0015FFFE, 0x1234};
  const Header header = request_header(0, request);
  const auto decoded = decode_header(encode_header(header));
  ASSERT_TRUE(decoded.header.has_value());
  const Request back = to_request(*decoded.header, request.payload);
  EXPECT_EQ(back.payload, request.payload);
  EXPECT_EQ(back.group, 15500);
  EXPECT_EQ(back.id, 15515);
  EXPECT_EQ(back.address, 0x0000FFFEU);
  ASSERT_TRUE(back.reply_to.has_value());
  EXPECT_EQ(*back.reply_to, (ReplyTo{0x0015FFFE, 0x1234}));
}

TEST(IpcWire, ResponseRoundTripKeepsAddressTagAndResult) {
  Response response;
  response.payload = {0x15, 0x00};
  response.address = 0x0000FFFE;
  response.reply_tag = 42;
  response.result = 1;
  const Header header = response_header(0x0015FFFE, response);
  EXPECT_EQ(header.kind, Kind::Response);
  EXPECT_EQ(header.source, 0x0015FFFEU);
  const Bytes expected{0x01, 0x02, 0x00, 0x00, 0xFE, 0xFF, 0x15, 0x00, 0xFE, 0xFF, 0x00, 0x00,
                       0x00, 0x00, 0x00, 0x00, 0x2A, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00};
  EXPECT_EQ(as_vector(encode_header(header)), expected);
  const Response back = to_response(*decode_header(encode_header(header)).header, response.payload);
  EXPECT_EQ(back.payload, response.payload);
  EXPECT_EQ(back.address, 0x0000FFFEU);
  EXPECT_EQ(back.reply_tag, 42);
  EXPECT_EQ(back.result, 1U);
}

TEST(IpcWire, EventRoundTripCarriesTheSendersSource) {
  Event event;
  event.payload = {9};
  event.address = 0x0000FFFE;
  event.group = 15500;
  event.id = 15537;
  event.source = 0xDEAD;  // the endpoint's own word replaces whatever the caller left here
  const Header header = event_header(0x00190005, event);
  const Event back = to_event(*decode_header(encode_header(header)).header, event.payload);
  EXPECT_EQ(back.source, 0x00190005U);
  EXPECT_EQ(back.group, 15500);
  EXPECT_EQ(back.id, 15537);
  EXPECT_EQ(back.address, 0x0000FFFEU);
  EXPECT_EQ(back.payload, event.payload);
}

TEST(IpcWire, TopicIsGroupThenIdBigEndian) {
  const auto topic = encode_topic(Key{15500, 15537});
  EXPECT_EQ(Bytes(topic.begin(), topic.end()), (Bytes{0x3C, 0x8C, 0x3C, 0xB1}));
  const auto key = decode_topic(topic);
  ASSERT_TRUE(key.has_value());
  EXPECT_EQ(*key, (Key{15500, 15537}));
}

TEST(IpcWire, WholeGroupSubscriptionIsTwoBytes) {
  std::size_t length = 0;
  const auto prefix = subscription_prefix(Key{9000, kAnyId}, length);
  EXPECT_EQ(length, 2U);
  EXPECT_EQ(prefix[0], 0x23);
  EXPECT_EQ(prefix[1], 0x28);
  subscription_prefix(Key{9000, 9005}, length);
  EXPECT_EQ(length, 4U);
}

TEST(IpcWire, TopicOfWrongLengthIsRefused) {
  EXPECT_FALSE(decode_topic(Bytes{0x23, 0x28}).has_value());
  EXPECT_FALSE(decode_topic(Bytes{0x23, 0x28, 0x23, 0x2D, 0x00}).has_value());
}

TEST(IpcWire, ShortHeaderIsRefused) {
  const auto bytes = encode_header(Header{});
  const Decoded decoded = decode_header(std::span<const std::uint8_t>(bytes).first(23));
  EXPECT_FALSE(decoded.header.has_value());
  EXPECT_EQ(decoded.error, DecodeError::ShortHeader);
  EXPECT_EQ(decode_error_name(decoded.error), "short header");
  EXPECT_EQ(decode_header({}).error, DecodeError::ShortHeader);
}

TEST(IpcWire, LongHeaderIsRefused) {
  Bytes bytes = as_vector(encode_header(Header{}));
  bytes.push_back(0);
  const Decoded decoded = decode_header(bytes);
  EXPECT_FALSE(decoded.header.has_value());
  EXPECT_EQ(decoded.error, DecodeError::LongHeader);
}

TEST(IpcWire, UnknownVersionIsRefused) {
  Bytes bytes = as_vector(encode_header(Header{}));
  bytes[0] = 2;
  EXPECT_EQ(decode_header(bytes).error, DecodeError::BadVersion);
  bytes[0] = 0;
  EXPECT_EQ(decode_header(bytes).error, DecodeError::BadVersion);
  EXPECT_FALSE(decode_header(bytes).header.has_value());
}

TEST(IpcWire, UnknownKindIsRefused) {
  Bytes bytes = as_vector(encode_header(Header{}));
  for (const int kind : {0, 4, 255}) {
    bytes[1] = static_cast<std::uint8_t>(kind);
    const Decoded decoded = decode_header(bytes);
    EXPECT_FALSE(decoded.header.has_value()) << kind;
    EXPECT_EQ(decoded.error, DecodeError::BadKind) << kind;
  }
  EXPECT_EQ(decode_error_name(DecodeError::BadKind), "unknown kind");
}

TEST(IpcPaths, InboxIsNamedByEightLowercaseHexDigits) {
  EXPECT_EQ(address_hex(0x0019FFFE), "0019fffe");
  EXPECT_EQ(address_hex(0x1), "00000001");
}

}  // namespace
}  // namespace xpon::ipc::wire
