#include "xpon/cfgdb/change_event.hpp"

#include "xpon/test/recording_ipc.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
  EXPECT_EQ(*records.error().info->message,
            "IPC_EVENT_CFGDB__SECTIONS_CHANGED payload of 13 bytes is not a whole number of 12-byte records");
}

}  // namespace
}  // namespace xpon::cfgdb
