#include "xpon/service/service_launcher.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace xpon::service {
namespace {

using core::Error;

TEST(ParseSectionsChanged, DecodesEachTwelveByteRecordLittleEndian) {
  const std::vector<std::uint8_t> payload = {80,   0,    0,    0,    1,    0,    0,    0,    0,    0,    0,    0,  //
                                             0x04, 0x03, 0x02, 0x01, 0x08, 0x07, 0x06, 0x05, 0x0C, 0x0B, 0x0A, 0x09};
  const auto changes = parse_sections_changed(payload);
  ASSERT_TRUE(changes);
  ASSERT_EQ(changes.value().size(), 2U);
  EXPECT_EQ(changes.value()[0], (Config_change{80, 1, 0}));
  EXPECT_EQ(changes.value()[1], (Config_change{0x01020304U, 0x05060708U, 0x090A0B0CU}));
}

TEST(ParseSectionsChanged, EmptyPayloadIsInvalid) {
  const auto changes = parse_sections_changed({});
  ASSERT_TRUE(changes.has_error());
  EXPECT_EQ(changes.error().error, Error::InvalidInputArg);
  EXPECT_EQ(changes.error().to_string(), "Error: InvalidInputArg. Message: empty payload.");
}

TEST(ParseSectionsChanged, PayloadNotAMultipleOfTwelveIsInvalid) {
  for (const std::size_t size : {1U, 11U, 13U, 23U, 25U}) {
    const std::vector<std::uint8_t> payload(size, 0);
    const auto changes = parse_sections_changed(payload);
    ASSERT_TRUE(changes.has_error()) << size;
    EXPECT_EQ(changes.error().error, Error::InvalidInputArg);
    EXPECT_EQ(changes.error().to_string(), "Error: InvalidInputArg. Message: payload of " + std::to_string(size) +
                                               " bytes is not a whole number of 12-byte records.");
  }
}

TEST(ParseMasterChanged, DecodesSlotLittleEndian) {
  const std::vector<std::uint8_t> payload = {0x02, 0x01};
  const auto slot = parse_master_changed(payload);
  ASSERT_TRUE(slot);
  EXPECT_EQ(slot.value(), 0x0102);
}

TEST(ParseMasterChanged, WrongSizeIsInvalid) {
  for (const std::size_t size : {0U, 1U, 3U, 12U}) {
    const std::vector<std::uint8_t> payload(size, 7);
    const auto slot = parse_master_changed(payload);
    ASSERT_TRUE(slot.has_error()) << size;
    EXPECT_EQ(slot.error().error, Error::InvalidInputArg);
    EXPECT_EQ(slot.error().to_string(), "Error: InvalidInputArg. Message: payload of " + std::to_string(size) +
                                            " bytes, expected 2 (the master slot).");
  }
}

}  // namespace
}  // namespace xpon::service
