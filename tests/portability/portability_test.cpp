// What x86-64 and 64-bit Arm do differently, pinned down where this code base depends on it:
// plain char is signed on one and unsigned on the other, an out-of-range float-to-integer
// conversion gives different values, and the driver records are read byte for byte from a
// driver built by another compiler, with multi-byte fields at unaligned offsets.

#include "xpon/board/driver_abi.h"
#include "xpon/factory/factory_data.hpp"
#include "xpon/factory/tlvinfo.hpp"
#include "xpon/units/units.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

// The record as the driver writes it: a little-endian byte image, placed at an odd address so
// that every multi-byte field of a packed record is unaligned.
template <typename Record, std::size_t N>
Record from_driver_bytes(const std::array<std::uint8_t, N>& bytes) {
  static_assert(sizeof(Record) == N, "the byte image covers the whole record");
  alignas(8) std::array<std::uint8_t, N + 1> buffer{};
  std::memcpy(buffer.data() + 1, bytes.data(), N);
  Record record{};
  std::memcpy(&record, buffer.data() + 1, N);
  return record;
}

TEST(DriverRecordLayout, PackedRecordsNeedNoAlignment) {
  // Sizes and field offsets are board_tests' business; here only that no record asks for alignment.
  const std::array alignments{alignof(Brd__temp_info),     alignof(Brd__fan_info),     alignof(Brd__ps_info),
                              alignof(Brd__sfp_eddi_data), alignof(Brd__sfp_rx_power), alignof(Wake__pwr_module)};
  for (std::size_t i = 0; i < alignments.size(); ++i) {
    EXPECT_EQ(alignments[i], 1U) << "record " << i << " of the list";
  }
}

TEST(DriverRecordLayout, UnalignedFieldsOfAPackedRecordReadBack) {
  // Five coefficients 0.5, 1.5, -2, 0, 1e-3 after port 7 and raw reading 0x1234.
  const std::array<std::uint8_t, 28> bytes{0x07, 0x00, 0x00, 0x00, 0x34, 0x12, 0x00, 0x00, 0x00, 0x00,
                                           0x00, 0x3F, 0x00, 0x00, 0xC0, 0x3F, 0x00, 0x00, 0x00, 0xC0,
                                           0x00, 0x00, 0x00, 0x00, 0x6F, 0x12, 0x83, 0x3A};
  const auto record = from_driver_bytes<Brd__sfp_rx_power>(bytes);
  EXPECT_EQ(record.port, 7U);
  EXPECT_EQ(record.rx_power, 0x1234U);
  EXPECT_EQ(record.coefficient[0], 0.5F);
  EXPECT_EQ(record.coefficient[1], 1.5F);
  EXPECT_EQ(record.coefficient[2], -2.0F);
  EXPECT_EQ(record.coefficient[3], 0.0F);
  EXPECT_EQ(record.coefficient[4], 1e-3F);

  // A supply at -5 degrees Celsius: int16_t at offset 12, after four unaligned uint16_t.
  const std::array<std::uint8_t, 20> module{1,    1,    0,    0,    0x60, 0x09, 0xB0, 0x04, 0x2C, 0x01,
                                            0x96, 0x00, 0xFB, 0xFF, 0,    0,    0,    0,    0,    0};
  const auto power = from_driver_bytes<Wake__pwr_module>(module);
  EXPECT_EQ(power.input_voltage, 2400U);
  EXPECT_EQ(power.output_voltage, 1200U);
  EXPECT_EQ(power.output_current, 300U);
  EXPECT_EQ(power.output_power, 150U);
  EXPECT_EQ(power.temperature, -5);
}

TEST(DriverRecordLayout, NegativeTemperatureByteIsNegativeWhateverCharIs) {
  std::array<std::uint8_t, 8> bytes{3, 0, 0, 0, 0xF6, 0, 0, 0};
  EXPECT_EQ(from_driver_bytes<Brd__temp_info>(bytes).temperature, -10);
  bytes[4] = 0x7F;
  EXPECT_EQ(from_driver_bytes<Brd__temp_info>(bytes).temperature, 127);
}

TEST(CharSignedness, TextBytesAbove0x7FSurviveTheFactoryImage) {
  // "Société" in UTF-8: bytes a signed char would make negative.
  const std::string vendor = "Soci\xC3\xA9t\xC3\xA9";
  xpon::factory::FactoryFields fields;
  fields.product_name = "Korvan-LT16";
  fields.vendor_name = vendor;
  const auto tlvs = xpon::factory::to_tlvs(fields);
  const auto encoded = xpon::factory::encode_image(tlvs);
  ASSERT_TRUE(encoded.valid()) << encoded.reason;

  const auto result = xpon::factory::factory_data_from_bytes(*encoded.bytes);
  ASSERT_TRUE(result.valid()) << result.reason;
  ASSERT_EQ(std::strlen(result.data->vendor_name), vendor.size());
  for (std::size_t i = 0; i < vendor.size(); ++i) {
    EXPECT_EQ(static_cast<unsigned char>(result.data->vendor_name[i]), static_cast<unsigned char>(vendor[i]))
        << "byte " << i;
  }
}

TEST(CharSignedness, HighBytesAreShownAsTheirUnsignedValue) {
  const std::vector<std::uint8_t> value{'A', 0xC3, 0xA9, 0x80, 0xFF, 0x7F};
  EXPECT_EQ(xpon::factory::printable_text(value), "A\\xc3\\xa9\\x80\\xff\\x7f");
}

TEST(CharSignedness, Crc32OfHighBytesIsTheStandardOne) {
  // CRC-32 of the bytes 0x80..0xFF, as zlib's crc32() gives it.
  std::vector<std::uint8_t> bytes;
  for (unsigned value = 0x80; value <= 0xFF; ++value) {
    bytes.push_back(static_cast<std::uint8_t>(value));
  }
  EXPECT_EQ(xpon::factory::crc32(bytes), 0x4649F09DU);
}

TEST(FloatConversion, SignedDiagnosticWordsCalibrateAlike) {
  // Raw temperature words at and around the sign bit, slope 1.0, offset 0 and -1 degC (0xFF00).
  EXPECT_EQ(calibrate_sfp_temperature(0x7FFF, 0x0100, 0x0000), 32767.0 / 256.0);
  EXPECT_EQ(calibrate_sfp_temperature(0x8000, 0x0100, 0x0000), -128.0);
  EXPECT_EQ(calibrate_sfp_temperature(0xFF00, 0x0100, 0x0000), -1.0);
  EXPECT_EQ(calibrate_sfp_temperature(0x1900, 0x0100, 0xFF00), 24.0);
  // An offset below zero takes an unsigned reading below zero, not to a wrapped large value.
  EXPECT_EQ(calculate_fixed_decimal(0x0001, 0x0100, 0xFFF0), -15.0);
  EXPECT_EQ(calculate_fixed_decimal(0xFFFF, 0xFFFF, 0x7FFF), 65535.0 * 65535.0 / 256.0 + 32767.0);
}

}  // namespace
