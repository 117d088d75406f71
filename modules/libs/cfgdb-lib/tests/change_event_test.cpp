#include "xpon/cfgdb/change_event.hpp"

#include "xpon/test/recording_ipc.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace xpon::cfgdb {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

TEST(CfgdbChangeEvent, PayloadIsTwelveBytesPerSectionLittleEndian) {
  const std::vector<std::uint32_t> ids{80, 123};
  EXPECT_THAT(encode_sections_changed(ids), ElementsAreArray<std::uint8_t>({80,  0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0,  //
                                                                            123, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(CfgdbChangeEvent, PublishSendsOneEventWithKeySourceAndPayload) {
  test::RecordingIpc ipc(kWriterAddress);
  const std::vector<std::uint32_t> ids{77, 42};
  ASSERT_TRUE(publish_sections_changed(ipc, ids));
  ASSERT_EQ(ipc.events().size(), 1U);
  const auto event = ipc.events()[0];
  EXPECT_EQ(event.group, 11000);
  EXPECT_EQ(event.id, 11001);
  EXPECT_EQ(event.source, 0x0011FFFEU);
  EXPECT_EQ(event.address, 0x0000FFFEU);
  EXPECT_THAT(event.payload, ElementsAreArray<std::uint8_t>({77, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0,  //
                                                             42, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(CfgdbChangeEvent, NothingChangedPublishesNothing) {
  test::RecordingIpc ipc(kWriterAddress);
  EXPECT_TRUE(publish_sections_changed(ipc, std::vector<std::uint32_t>{}));
  EXPECT_TRUE(ipc.events().empty());
}

TEST(CfgdbChangeEvent, SendFailureIsReturned) {
  test::RecordingIpc ipc(kWriterAddress);
  ipc.fail_next_send(core::Error::ErrorCApi);
  auto published = publish_sections_changed(ipc, std::vector<std::uint32_t>{81});
  ASSERT_FALSE(published);
  EXPECT_EQ(published.error().error, core::Error::ErrorCApi);
}

TEST(CfgdbChangeEvent, DecodeReadsTheRecordsBack) {
  const std::vector<std::uint32_t> ids{79, 0x12345678};
  auto records = decode_sections_changed(encode_sections_changed(ids));
  ASSERT_TRUE(records);
  EXPECT_THAT(records.value(), ElementsAre(ChangeRecord{79, 1, 0}, ChangeRecord{0x12345678, 1, 0}));
}

TEST(CfgdbChangeEvent, DecodeRefusesAPartialRecord) {
  const std::vector<std::uint8_t> payload(13, 0);
  auto records = decode_sections_changed(payload);
  ASSERT_FALSE(records);
  ASSERT_TRUE(records.error().info && records.error().info->message);
  EXPECT_EQ(*records.error().info->message, "payload of 13 bytes is not a whole number of 12-byte records");
}

TEST(CfgdbChangeEvent, DecodesEachTwelveByteRecordLittleEndian) {
  const std::vector<std::uint8_t> payload = {80,   0,    0,    0,    1,    0,    0,    0,    0,    0,    0,    0,  //
                                             0x04, 0x03, 0x02, 0x01, 0x08, 0x07, 0x06, 0x05, 0x0C, 0x0B, 0x0A, 0x09};
  const auto changes = decode_sections_changed(payload);
  ASSERT_TRUE(changes);
  ASSERT_EQ(changes.value().size(), 2U);
  EXPECT_EQ(changes.value()[0], (ChangeRecord{80, 1, 0}));
  EXPECT_EQ(changes.value()[1], (ChangeRecord{0x01020304U, 0x05060708U, 0x090A0B0CU}));
}

// Writers publish nothing when nothing changed, so an event always announces a section.
TEST(CfgdbChangeEvent, EmptyPayloadIsMalformed) {
  const auto changes = decode_sections_changed({});
  ASSERT_TRUE(changes.has_error());
  EXPECT_EQ(changes.error().error, core::Error::InvalidInputArg);
  EXPECT_EQ(changes.error().to_string(), "Error: InvalidInputArg. Message: empty payload.");
}

TEST(CfgdbChangeEvent, PayloadNotAMultipleOfTwelveIsMalformed) {
  for (const std::size_t size : {1U, 11U, 13U, 23U, 25U}) {
    const std::vector<std::uint8_t> payload(size, 0);
    const auto changes = decode_sections_changed(payload);
    ASSERT_TRUE(changes.has_error()) << size;
    EXPECT_EQ(changes.error().error, core::Error::InvalidInputArg);
    EXPECT_EQ(changes.error().to_string(), "Error: InvalidInputArg. Message: payload of " + std::to_string(size) +
                                               " bytes is not a whole number of 12-byte records.");
  }
}

}  // namespace
}  // namespace xpon::cfgdb
