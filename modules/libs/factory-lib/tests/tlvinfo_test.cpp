#include "xpon/factory/tlvinfo.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace xpon::factory {
namespace {

using Bytes = std::vector<std::uint8_t>;

// QD7R-LC-8 / SN0001 / 00:11:22:33:44:55, with its CRC-32 worked out independently with zlib.
const Bytes kReferenceImage = {0x54, 0x6c, 0x76, 0x49, 0x6e, 0x66, 0x6f, 0x00, 0x01, 0x00, 0x21, 0x21, 0x09, 0x51, 0x44,
                               0x37, 0x52, 0x2d, 0x4c, 0x43, 0x2d, 0x38, 0x23, 0x06, 0x53, 0x4e, 0x30, 0x30, 0x30, 0x31,
                               0x24, 0x06, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0xfe, 0x04, 0xe0, 0x1b, 0x95, 0x62};

Bytes text(std::string_view value) {
  return {value.begin(), value.end()};
}

std::vector<Tlv> reference_tlvs() {
  return {Tlv{0x21, text("QD7R-LC-8"), 0}, Tlv{0x23, text("SN0001"), 0},
          Tlv{0x24, {0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, 0}};
}

// An image header followed by the given TLV area, with no CRC-32 of its own unless the area has one.
Bytes raw_image(const Bytes& area, std::uint8_t version = 1) {
  Bytes bytes(11 + area.size());
  const Bytes header = {'T',
                        'l',
                        'v',
                        'I',
                        'n',
                        'f',
                        'o',
                        0,
                        version,
                        static_cast<std::uint8_t>(area.size() >> 8),
                        static_cast<std::uint8_t>(area.size() & 0xFF)};
  std::copy(header.begin(), header.end(), bytes.begin());
  std::copy(area.begin(), area.end(), bytes.begin() + 11);
  return bytes;
}

std::string reason_of(const Bytes& bytes) {
  const DecodeResult result = decode_image(bytes);
  EXPECT_FALSE(result.valid());
  return result.reason;
}

TEST(FactoryCrc32, MatchesTheZlibCheckValue) {
  const Bytes check = text("123456789");
  EXPECT_EQ(crc32(check), 0xCBF43926U);
}

TEST(FactoryCrc32, OfNothingIsZero) {
  EXPECT_EQ(crc32({}), 0U);
}

TEST(FactoryCrc32, OfTheMagic) {
  EXPECT_EQ(crc32(Bytes(kMagic.begin(), kMagic.end())), 0x050690EAU);
}

TEST(FactoryEncodeImage, WritesTheReferenceImageByteForByte) {
  const auto tlvs = reference_tlvs();
  const EncodeResult encoded = encode_image(tlvs);
  ASSERT_TRUE(encoded.valid()) << encoded.reason;
  EXPECT_EQ(*encoded.bytes, kReferenceImage);
}

TEST(FactoryEncodeImage, NoEntriesGiveAnImageWithOnlyTheCrc) {
  const EncodeResult encoded = encode_image({});
  ASSERT_TRUE(encoded.valid());
  ASSERT_EQ(encoded.bytes->size(), 17U);
  EXPECT_EQ((*encoded.bytes)[9], 0);
  EXPECT_EQ((*encoded.bytes)[10], 6);
  EXPECT_EQ((*encoded.bytes)[11], 0xFE);
  EXPECT_EQ((*encoded.bytes)[12], 4);
}

TEST(FactoryEncodeImage, RefusesAGivenCrcEntry) {
  const std::vector<Tlv> tlvs = {Tlv{0xFE, {1, 2, 3, 4}, 0}};
  const EncodeResult encoded = encode_image(tlvs);
  EXPECT_FALSE(encoded.valid());
  EXPECT_EQ(encoded.reason, "the CRC-32 TLV is added when the image is written and may not be given");
}

TEST(FactoryEncodeImage, RefusesAReservedType) {
  const std::vector<Tlv> tlvs = {Tlv{0x00, {1}, 0}};
  const EncodeResult encoded = encode_image(tlvs);
  EXPECT_FALSE(encoded.valid());
  EXPECT_EQ(encoded.reason, "TLV type 0x00 is reserved");
}

TEST(FactoryEncodeImage, RefusesAValueLongerThan255Bytes) {
  const std::vector<Tlv> tlvs = {Tlv{0x23, Bytes(256, 'x'), 0}};
  const EncodeResult encoded = encode_image(tlvs);
  EXPECT_FALSE(encoded.valid());
  EXPECT_EQ(encoded.reason, "Serial Number (0x23) value is 256 bytes, at most 255 fit");
}

TEST(FactoryEncodeImage, AcceptsA255ByteValue) {
  const std::vector<Tlv> tlvs = {Tlv{0xFD, Bytes(255, 0xAB), 0}};
  const EncodeResult encoded = encode_image(tlvs);
  ASSERT_TRUE(encoded.valid()) << encoded.reason;
  EXPECT_EQ(encoded.bytes->size(), 11U + 257U + 6U);
}

TEST(FactoryEncodeImage, RefusesEntriesThatDoNotFit) {
  // Eight entries of 257 bytes plus the CRC-32 TLV need 2062 bytes of the 2037 available.
  const std::vector<Tlv> tlvs(8, Tlv{0xFD, Bytes(255, 0), 0});
  const EncodeResult encoded = encode_image(tlvs);
  EXPECT_FALSE(encoded.valid());
  EXPECT_EQ(encoded.reason, "the TLVs need 2062 bytes, at most 2037 fit");
}

TEST(FactoryDecodeImage, ReadsTheReferenceImage) {
  const DecodeResult decoded = decode_image(kReferenceImage);
  ASSERT_TRUE(decoded.valid()) << decoded.reason;
  EXPECT_EQ(decoded.reason, "");
  const Image& image = *decoded.image;
  EXPECT_EQ(image.version, 1);
  EXPECT_EQ(image.total_length, 33);
  EXPECT_EQ(image.crc, 0xE01B9562U);
  ASSERT_EQ(image.tlvs.size(), 4U);
  EXPECT_EQ(image.tlvs[0], (Tlv{0x21, text("QD7R-LC-8"), 11}));
  EXPECT_EQ(image.tlvs[1], (Tlv{0x23, text("SN0001"), 22}));
  EXPECT_EQ(image.tlvs[2], (Tlv{0x24, {0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, 30}));
  EXPECT_EQ(image.tlvs[3], (Tlv{0xFE, {0xE0, 0x1B, 0x95, 0x62}, 38}));
}

TEST(FactoryDecodeImage, RoundTripsEncodedEntries) {
  std::vector<Tlv> tlvs = reference_tlvs();
  tlvs.push_back(Tlv{0xFD, {0x00, 0x00, 0x12, 0x34, 0xFF}, 0});
  tlvs.push_back(Tlv{0x2F, {}, 0});
  const EncodeResult encoded = encode_image(tlvs);
  ASSERT_TRUE(encoded.valid());
  const DecodeResult decoded = decode_image(*encoded.bytes);
  ASSERT_TRUE(decoded.valid()) << decoded.reason;
  ASSERT_EQ(decoded.image->tlvs.size(), tlvs.size() + 1);
  for (std::size_t index = 0; index < tlvs.size(); ++index) {
    EXPECT_EQ(decoded.image->tlvs[index].type, tlvs[index].type);
    EXPECT_EQ(decoded.image->tlvs[index].value, tlvs[index].value);
  }
}

TEST(FactoryDecodeImage, IgnoresEepromPaddingAfterTheImage) {
  Bytes padded = kReferenceImage;
  padded.resize(256, 0xFF);
  const DecodeResult decoded = decode_image(padded);
  ASSERT_TRUE(decoded.valid()) << decoded.reason;
  EXPECT_EQ(decoded.image->tlvs.size(), 4U);
}

TEST(FactoryDecodeImage, FindGivesTheFirstEntryOfAType) {
  const std::vector<Tlv> tlvs = {Tlv{0x21, text("first"), 0}, Tlv{0x21, text("second"), 0}};
  const EncodeResult encoded = encode_image(tlvs);
  const DecodeResult decoded = decode_image(*encoded.bytes);
  ASSERT_TRUE(decoded.valid());
  ASSERT_NE(decoded.image->find(0x21), nullptr);
  EXPECT_EQ(decoded.image->find(0x21)->value, text("first"));
  EXPECT_EQ(decoded.image->find(0x22), nullptr);
}

TEST(FactoryDecodeImage, EmptyInputIsTruncated) {
  EXPECT_EQ(reason_of({}), "image is truncated: 0 bytes, the header needs 11");
}

TEST(FactoryDecodeImage, ShortHeaderIsTruncated) {
  const Bytes shortened(kReferenceImage.begin(), kReferenceImage.begin() + 10);
  EXPECT_EQ(reason_of(shortened), "image is truncated: 10 bytes, the header needs 11");
}

TEST(FactoryDecodeImage, WrongMagicIsRefused) {
  Bytes bytes = kReferenceImage;
  bytes[0] = 't';
  EXPECT_EQ(reason_of(bytes), "bad magic: the image does not start with \"TlvInfo\\0\"");
}

TEST(FactoryDecodeImage, MagicWithoutItsNulIsRefused) {
  Bytes bytes = kReferenceImage;
  bytes[7] = ' ';
  EXPECT_EQ(reason_of(bytes), "bad magic: the image does not start with \"TlvInfo\\0\"");
}

TEST(FactoryDecodeImage, ErasedEepromIsRefusedForItsMagic) {
  EXPECT_EQ(reason_of(Bytes(256, 0xFF)), "bad magic: the image does not start with \"TlvInfo\\0\"");
}

TEST(FactoryDecodeImage, UnknownVersionIsRefused) {
  Bytes bytes = kReferenceImage;
  bytes[8] = 2;
  EXPECT_EQ(reason_of(bytes), "unsupported version 2 (expected 1)");
}

TEST(FactoryDecodeImage, VersionZeroIsRefused) {
  Bytes bytes = kReferenceImage;
  bytes[8] = 0;
  EXPECT_EQ(reason_of(bytes), "unsupported version 0 (expected 1)");
}

TEST(FactoryDecodeImage, TotalLengthBeyondTheFileIsRefused) {
  Bytes bytes = kReferenceImage;
  bytes[10] = 34;
  EXPECT_EQ(reason_of(bytes), "total length 34 runs past the end of the image (33 bytes follow the header)");
}

TEST(FactoryDecodeImage, TruncatedFileIsRefusedForItsLength) {
  const Bytes shortened(kReferenceImage.begin(), kReferenceImage.end() - 1);
  EXPECT_EQ(reason_of(shortened), "total length 33 runs past the end of the image (32 bytes follow the header)");
}

TEST(FactoryDecodeImage, TotalLengthAboveTheMaximumIsRefused) {
  Bytes bytes = kReferenceImage;
  bytes[9] = 0x07;
  bytes[10] = 0xF6;  // 2038
  EXPECT_EQ(reason_of(bytes), "total length 2038 exceeds the maximum of 2037 bytes");
}

TEST(FactoryDecodeImage, LargestTotalLengthIsAccepted) {
  // Seven vendor extensions of 257 bytes, one of 232 and the CRC-32 TLV fill exactly 2037 bytes.
  std::vector<Tlv> tlvs(7, Tlv{0xFD, Bytes(255, 0x5A), 0});
  tlvs.push_back(Tlv{0xFD, Bytes(230, 0x5A), 0});
  const EncodeResult encoded = encode_image(tlvs);
  ASSERT_TRUE(encoded.valid()) << encoded.reason;
  ASSERT_EQ(encoded.bytes->size(), 2048U);
  const DecodeResult decoded = decode_image(*encoded.bytes);
  ASSERT_TRUE(decoded.valid()) << decoded.reason;
  EXPECT_EQ(decoded.image->total_length, 2037);
}

TEST(FactoryDecodeImage, TlvRunningPastTheAreaIsRefused) {
  const Bytes bytes = raw_image({0x21, 0x0A, 'Q', 'D', '7', 'R', '-', 'L'});
  EXPECT_EQ(reason_of(bytes), "TLV 0x21 at offset 11 (length 10) runs past the end of the TLV area");
}

TEST(FactoryDecodeImage, TlvRunningIntoPaddingIsStillRefused) {
  // The value would fit in the file, but not in the area the header declares.
  Bytes bytes = raw_image({0x21, 0x04, 'Q', 'D'});
  bytes.insert(bytes.end(), {'7', 'R', 0xFF, 0xFF});
  EXPECT_EQ(reason_of(bytes), "TLV 0x21 at offset 11 (length 4) runs past the end of the TLV area");
}

TEST(FactoryDecodeImage, TlvHeaderCutByTheAreaIsRefused) {
  const Bytes bytes = raw_image({0x21, 0x01, 'Q', 0x23});
  EXPECT_EQ(reason_of(bytes), "TLV header at offset 14 runs past the end of the TLV area");
}

TEST(FactoryDecodeImage, ReservedTypeIsRefused) {
  EXPECT_EQ(reason_of(raw_image({0xFF, 0x00})), "TLV at offset 11 has the reserved type 0xff");
  EXPECT_EQ(reason_of(raw_image({0x21, 0x01, 'Q', 0x00, 0x00})), "TLV at offset 14 has the reserved type 0x00");
}

TEST(FactoryDecodeImage, EmptyAreaHasNoCrc) {
  EXPECT_EQ(reason_of(raw_image({})), "CRC-32 TLV (0xfe) is missing");
}

TEST(FactoryDecodeImage, ImageWithoutCrcIsRefused) {
  EXPECT_EQ(reason_of(raw_image({0x21, 0x03, 'Q', 'D', '7'})), "CRC-32 TLV (0xfe) is missing");
}

TEST(FactoryDecodeImage, CrcOfWrongLengthIsRefused) {
  EXPECT_EQ(reason_of(raw_image({0x21, 0x01, 'Q', 0xFE, 0x02, 0x12, 0x34})),
            "CRC-32 TLV at offset 14 has length 2 (expected 4)");
}

TEST(FactoryDecodeImage, DataAfterTheCrcIsRefused) {
  Bytes area(kReferenceImage.begin() + 11, kReferenceImage.end());
  area.insert(area.end(), {0x23, 0x01, 'X'});
  EXPECT_EQ(reason_of(raw_image(area)), "3 bytes follow the CRC-32 TLV at offset 38");
}

TEST(FactoryDecodeImage, ChangedByteGivesCrcMismatch) {
  Bytes bytes = kReferenceImage;
  bytes[21] = '9';  // QD7R-LC-8 becomes QD7R-LC-9; the mismatch value comes from zlib
  EXPECT_EQ(reason_of(bytes), "CRC-32 mismatch: stored 0xe01b9562, computed 0x37f9153a");
}

TEST(FactoryDecodeImage, ChangedCrcGivesCrcMismatch) {
  Bytes bytes = kReferenceImage;
  bytes[43] = 0x63;
  EXPECT_EQ(reason_of(bytes), "CRC-32 mismatch: stored 0xe01b9563, computed 0xe01b9562");
}

TEST(FactoryDecodeImage, EveryTruncationOfAValidImageIsRefused) {
  for (std::size_t size = 0; size < kReferenceImage.size(); ++size) {
    const Bytes shortened(kReferenceImage.begin(), kReferenceImage.begin() + static_cast<std::ptrdiff_t>(size));
    const DecodeResult decoded = decode_image(shortened);
    EXPECT_FALSE(decoded.valid()) << "size " << size;
    EXPECT_FALSE(decoded.reason.empty()) << "size " << size;
  }
}

TEST(FactoryTlvName, NamesTheStandardTypes) {
  EXPECT_EQ(tlv_name(0x21), "Product Name");
  EXPECT_EQ(tlv_name(0x24), "Base MAC Address");
  EXPECT_EQ(tlv_name(0x2A), "MAC Addresses");
  EXPECT_EQ(tlv_name(0x2F), "Service Tag");
  EXPECT_EQ(tlv_name(0xFD), "Vendor Extension");
  EXPECT_EQ(tlv_name(0xFE), "CRC-32");
  EXPECT_EQ(tlv_name(0x30), "Unknown");
}

TEST(FactoryTlvKind, ClassifiesValues) {
  EXPECT_EQ(tlv_kind(0x21), TlvKind::Text);
  EXPECT_EQ(tlv_kind(0x24), TlvKind::Mac);
  EXPECT_EQ(tlv_kind(0x26), TlvKind::Byte);
  EXPECT_EQ(tlv_kind(0x2A), TlvKind::Count);
  EXPECT_EQ(tlv_kind(0xFE), TlvKind::Crc);
  EXPECT_EQ(tlv_kind(0xFD), TlvKind::Binary);
  EXPECT_EQ(tlv_kind(0x40), TlvKind::Binary);
}

}  // namespace
}  // namespace xpon::factory
