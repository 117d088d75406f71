#include "xpon/service/service_launcher.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace xpon::service {
namespace {

using core::Error;

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
