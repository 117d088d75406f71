#include "xpon/system_mgr/api.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>

namespace xpon::system_mgr {
namespace {

template <typename Record>
std::array<std::uint8_t, sizeof(Record)> bytes_of(const Record& record) {
  std::array<std::uint8_t, sizeof(Record)> bytes{};
  std::memcpy(bytes.data(), &record, sizeof record);
  return bytes;
}

template <typename Value>
Value read_at(const std::uint8_t* bytes, std::size_t offset) {
  Value value{};
  std::memcpy(&value, bytes + offset, sizeof value);
  return value;
}

TEST(ClientRecords, RamAnswerIsTotalThenFreeAsTwoFloats) {
  const System_mgr__ram_data answer{16384.0F, 2048.5F};
  const auto bytes = bytes_of(answer);
  ASSERT_EQ(bytes.size(), 8U);
  EXPECT_EQ(read_at<float>(bytes.data(), 0), 16384.0F);
  EXPECT_EQ(read_at<float>(bytes.data(), 4), 2048.5F);
  // 16384.0f is 0x46800000, little-endian.
  EXPECT_EQ(bytes[0], 0x00);
  EXPECT_EQ(bytes[2], 0x80);
  EXPECT_EQ(bytes[3], 0x46);
}

TEST(ClientRecords, DiskAnswerIsTotalThenFreeAsTwoFloats) {
  const System_mgr__hdd_data answer{7.25F, 1.5F};
  const auto bytes = bytes_of(answer);
  ASSERT_EQ(bytes.size(), 8U);
  EXPECT_EQ(read_at<float>(bytes.data(), 0), 7.25F);
  EXPECT_EQ(read_at<float>(bytes.data(), 4), 1.5F);
}

TEST(ClientRecords, DiagnosticsAnswerPlacesItsValuesAtTheirOffsets) {
  System_mgr__sfp_eddi_data answer;
  std::memset(&answer, 0, sizeof answer);
  answer.port = 0x01020304;
  answer.valid = 1;
  answer.temperature = 36.5;
  answer.voltage = 3300000.0;
  answer.bias_current = 6.2;
  answer.optical_power = 0.5012;
  const auto bytes = bytes_of(answer);
  ASSERT_EQ(bytes.size(), 133U);
  EXPECT_EQ(bytes[0], 0x04);
  EXPECT_EQ(bytes[3], 0x01);
  EXPECT_EQ(bytes[4], 1);
  EXPECT_EQ(read_at<double>(bytes.data(), 5), 36.5);
  EXPECT_EQ(read_at<double>(bytes.data(), 13), 3300000.0);
  EXPECT_EQ(read_at<double>(bytes.data(), 21), 6.2);
  EXPECT_EQ(read_at<double>(bytes.data(), 29), 0.5012);
  for (std::size_t offset = 37; offset < 133; ++offset) {
    EXPECT_EQ(bytes[offset], 0) << offset;
  }
}

TEST(ClientRecords, SfpModuleRecordIsPortStateThenFiftyNineDataBytes) {
  SfpModuleRecord record;
  std::memset(&record, 0, sizeof record);
  record.port = 0x0A0B0C0D;
  record.state = 0x7E;
  for (std::size_t i = 0; i < sizeof record.data; ++i) {
    record.data[i] = static_cast<std::uint8_t>(0x80 + i);
  }
  const auto bytes = bytes_of(record);
  ASSERT_EQ(bytes.size(), 64U);
  EXPECT_EQ(bytes[0], 0x0D);
  EXPECT_EQ(bytes[1], 0x0C);
  EXPECT_EQ(bytes[2], 0x0B);
  EXPECT_EQ(bytes[3], 0x0A);
  EXPECT_EQ(bytes[4], 0x7E);
  for (std::size_t offset = 5; offset < 64; ++offset) {
    EXPECT_EQ(bytes[offset], 0x80 + offset - 5) << offset;
  }
}

TEST(ClientRecords, ReceivePowerAnswerIsOneLittleEndianDouble) {
  // 0.1 mW in 0.1 uW units, 1000.0: 0x408F400000000000.
  const double power = 1000.0;
  const auto bytes = bytes_of(power);
  EXPECT_EQ(bytes, (std::array<std::uint8_t, 8>{0x00, 0x00, 0x00, 0x00, 0x00, 0x40, 0x8F, 0x40}));
}

}  // namespace
}  // namespace xpon::system_mgr
