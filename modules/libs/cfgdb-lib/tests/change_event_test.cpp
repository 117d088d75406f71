#include "xpon/cfgdb/change_event.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace xpon::cfgdb {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

// Records what is published; every other operation is outside what a writer uses.
class PublishedEvents : public ipc::IIpc {
 public:
  core::Result<void> subscribe_request(ipc::Key, ipc::RequestHandler) override { return core::Error::NotImplemented; }
  core::Result<void> unsubscribe_request(ipc::Key) override { return core::Error::NotImplemented; }
  core::Result<void> subscribe_event(ipc::Key, ipc::EventHandler) override { return core::Error::NotImplemented; }
  core::Result<void> unsubscribe_event(ipc::Key) override { return core::Error::NotImplemented; }
  core::Result<void> send_response(ipc::Address, const ipc::Response&) override { return core::Error::NotImplemented; }
  core::Result<void> send_event(const ipc::Event& event) override {
    events.push_back(event);
    if (fail) {
      return core::ErrorPayload{core::Error::ErrorCApi, "bus unreachable"};
    }
    return core::success();
  }
  core::Result<void> connect(ipc::Address) override { return core::Error::NotImplemented; }
  core::Result<ipc::Response> request(ipc::Address, ipc::Request, std::chrono::milliseconds) override {
    return core::Error::NotImplemented;
  }
  [[nodiscard]] ipc::Address address() const override { return kWriterAddress; }

  std::vector<ipc::Event> events;
  bool fail = false;
};

TEST(CfgdbChangeEvent, PayloadIsTwelveBytesPerSectionLittleEndian) {
  const std::vector<std::uint32_t> ids{80, 123};
  EXPECT_THAT(encode_sections_changed(ids), ElementsAreArray<std::uint8_t>({80,  0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0,  //
                                                                            123, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(CfgdbChangeEvent, PublishSendsOneEventWithKeySourceAndPayload) {
  PublishedEvents ipc;
  const std::vector<std::uint32_t> ids{77, 42};
  ASSERT_TRUE(publish_sections_changed(ipc, ids));
  ASSERT_EQ(ipc.events.size(), 1U);
  const auto& event = ipc.events[0];
  EXPECT_EQ(event.group, 11000);
  EXPECT_EQ(event.id, 11001);
  EXPECT_EQ(event.source, 0x0011FFFEU);
  EXPECT_EQ(event.address, 0x0000FFFEU);
  EXPECT_THAT(event.payload, ElementsAreArray<std::uint8_t>({77, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0,  //
                                                             42, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(CfgdbChangeEvent, NothingChangedPublishesNothing) {
  PublishedEvents ipc;
  EXPECT_TRUE(publish_sections_changed(ipc, std::vector<std::uint32_t>{}));
  EXPECT_TRUE(ipc.events.empty());
}

TEST(CfgdbChangeEvent, SendFailureIsReturned) {
  PublishedEvents ipc;
  ipc.fail = true;
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
