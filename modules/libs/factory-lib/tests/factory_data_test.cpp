#include "xpon/factory/factory_data.hpp"
#include "xpon/test/temp_dir.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace xpon::factory {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes text(std::string_view value) {
  return {value.begin(), value.end()};
}

Bytes image_of(const std::vector<Tlv>& tlvs) {
  const EncodeResult encoded = encode_image(tlvs);
  EXPECT_TRUE(encoded.valid()) << encoded.reason;
  return encoded.bytes.value_or(Bytes{});
}

FactoryFields full_fields() {
  FactoryFields fields;
  fields.product_name = "QD7R-FC-2";
  fields.part_number = "PN-4711-02";
  fields.serial_number = "QD7R21050017";
  fields.base_mac = MacAddress{0xA8, 0xF9, 0x4B, 0x01, 0x02, 0x03};
  fields.manufacture_date = "05/21/2021 13:45:07";
  fields.device_version = 3;
  fields.label_revision = "R03";
  fields.platform_name = "arm64-qd7r-fc";
  fields.onie_version = "2021.05";
  fields.mac_count = 0x0102;
  fields.manufacturer = "Line Card Works";
  fields.country_code = "DE";
  fields.vendor_name = "Optical Access";
  fields.diag_version = "1.4.0";
  fields.service_tag = "ST-99";
  return fields;
}

TEST(FactoryData, RecordLayoutIsFixed) {
  EXPECT_EQ(sizeof(Factory__data), 276U);
  EXPECT_EQ(offsetof(Factory__data, device_name), 0U);
  EXPECT_EQ(offsetof(Factory__data, part_number), 64U);
  EXPECT_EQ(offsetof(Factory__data, serial_number), 96U);
  EXPECT_EQ(offsetof(Factory__data, base_mac), 128U);
  EXPECT_EQ(offsetof(Factory__data, mac_count), 134U);
  EXPECT_EQ(offsetof(Factory__data, manufacture_date), 136U);
  EXPECT_EQ(offsetof(Factory__data, device_version), 156U);
  EXPECT_EQ(offsetof(Factory__data, country_code), 157U);
  EXPECT_EQ(offsetof(Factory__data, label_revision), 160U);
  EXPECT_EQ(offsetof(Factory__data, platform_name), 176U);
  EXPECT_EQ(offsetof(Factory__data, manufacturer), 208U);
  EXPECT_EQ(offsetof(Factory__data, vendor_name), 240U);
  EXPECT_EQ(offsetof(Factory__data, fields_present), 272U);
}

TEST(FactoryData, ToTlvsPutsTheFieldsInTypeOrder) {
  const std::vector<Tlv> tlvs = to_tlvs(full_fields());
  std::vector<std::uint8_t> types;
  types.reserve(tlvs.size());
  for (const Tlv& entry : tlvs) {
    types.push_back(entry.type);
  }
  EXPECT_EQ(types, (std::vector<std::uint8_t>{0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27, 0x28, 0x29, 0x2A, 0x2B, 0x2C,
                                              0x2D, 0x2E, 0x2F}));
  EXPECT_EQ(tlvs[9].value, (Bytes{0x01, 0x02}));
  EXPECT_EQ(tlvs[5].value, (Bytes{0x03}));
}

TEST(FactoryData, OnlyTheProductNameIsWrittenWhenNothingElseIsGiven) {
  FactoryFields fields;
  fields.product_name = "QD7R-LC-8";
  const std::vector<Tlv> tlvs = to_tlvs(fields);
  ASSERT_EQ(tlvs.size(), 1U);
  EXPECT_EQ(tlvs[0], (Tlv{0x21, text("QD7R-LC-8"), 0}));
}

TEST(FactoryData, RoundTripFillsEveryField) {
  const FactoryResult result = factory_data_from_bytes(image_of(to_tlvs(full_fields())));
  ASSERT_TRUE(result.valid()) << result.reason;
  EXPECT_TRUE(result.notes.empty());
  const Factory__data& data = *result.data;
  EXPECT_STREQ(data.device_name, "QD7R-FC-2");
  EXPECT_STREQ(data.part_number, "PN-4711-02");
  EXPECT_STREQ(data.serial_number, "QD7R21050017");
  EXPECT_EQ(Bytes(data.base_mac, data.base_mac + 6), (Bytes{0xA8, 0xF9, 0x4B, 0x01, 0x02, 0x03}));
  EXPECT_EQ(data.mac_count, 0x0102);
  EXPECT_STREQ(data.manufacture_date, "05/21/2021 13:45:07");
  EXPECT_EQ(data.device_version, 3);
  EXPECT_STREQ(data.country_code, "DE");
  EXPECT_STREQ(data.label_revision, "R03");
  EXPECT_STREQ(data.platform_name, "arm64-qd7r-fc");
  EXPECT_STREQ(data.manufacturer, "Line Card Works");
  EXPECT_STREQ(data.vendor_name, "Optical Access");
  EXPECT_EQ(data.fields_present, 0x7FFFU);
}

TEST(FactoryData, AbsentFieldsStayZero) {
  FactoryFields fields;
  fields.product_name = "Korvan-16";
  fields.serial_number = "K1";
  const FactoryResult result = factory_data_from_bytes(image_of(to_tlvs(fields)));
  ASSERT_TRUE(result.valid()) << result.reason;
  Factory__data expected{};
  std::strcpy(expected.device_name, "Korvan-16");
  std::strcpy(expected.serial_number, "K1");
  expected.fields_present = FACTORY__FIELD_BIT(0x21) | FACTORY__FIELD_BIT(0x23);
  EXPECT_EQ(std::memcmp(&*result.data, &expected, sizeof expected), 0);
}

TEST(FactoryData, MissingProductNameGivesNoRecord) {
  const FactoryResult result = factory_data_from_bytes(image_of({Tlv{0x23, text("SN1"), 0}}));
  EXPECT_FALSE(result.valid());
  EXPECT_EQ(result.reason, "Product Name TLV (0x21) is missing");
}

TEST(FactoryData, EmptyProductNameGivesNoRecord) {
  const FactoryResult result = factory_data_from_bytes(image_of({Tlv{0x21, {}, 0}}));
  EXPECT_FALSE(result.valid());
  EXPECT_EQ(result.reason, "Product Name TLV (0x21) is empty");
}

TEST(FactoryData, ProductNameWithANulGivesNoRecord) {
  const FactoryResult result = factory_data_from_bytes(image_of({Tlv{0x21, {'Q', 0, 'X'}, 0}}));
  EXPECT_FALSE(result.valid());
  EXPECT_EQ(result.reason, "Product Name TLV (0x21) contains a NUL byte");
}

TEST(FactoryData, InvalidImageGivesItsReason) {
  Bytes bytes = image_of({Tlv{0x21, text("QD7R-LC-8"), 0}});
  bytes[8] = 7;
  const FactoryResult result = factory_data_from_bytes(bytes);
  EXPECT_FALSE(result.valid());
  EXPECT_EQ(result.reason, "unsupported version 7 (expected 1)");
}

TEST(FactoryData, MacOfWrongLengthGivesNoRecord) {
  const FactoryResult result =
      factory_data_from_bytes(image_of({Tlv{0x21, text("QD7R-LC-8"), 0}, Tlv{0x24, {1, 2, 3, 4, 5}, 0}}));
  EXPECT_FALSE(result.valid());
  EXPECT_EQ(result.reason, "Base MAC Address TLV (0x24) has length 5 (expected 6)");
}

TEST(FactoryData, DeviceVersionOfWrongLengthGivesNoRecord) {
  const FactoryResult result =
      factory_data_from_bytes(image_of({Tlv{0x21, text("QD7R-LC-8"), 0}, Tlv{0x26, {1, 2}, 0}}));
  EXPECT_FALSE(result.valid());
  EXPECT_EQ(result.reason, "Device Version TLV (0x26) has length 2 (expected 1)");
}

TEST(FactoryData, MacCountOfWrongLengthGivesNoRecord) {
  const FactoryResult result = factory_data_from_bytes(image_of({Tlv{0x21, text("QD7R-LC-8"), 0}, Tlv{0x2A, {1}, 0}}));
  EXPECT_FALSE(result.valid());
  EXPECT_EQ(result.reason, "MAC Addresses TLV (0x2a) has length 1 (expected 2)");
}

TEST(FactoryData, LongTextIsCutWithANote) {
  const std::string serial(40, 'S');
  const FactoryResult result =
      factory_data_from_bytes(image_of({Tlv{0x21, text("QD7R-LC-8"), 0}, Tlv{0x23, text(serial), 0}}));
  ASSERT_TRUE(result.valid()) << result.reason;
  EXPECT_EQ(std::string(result.data->serial_number), std::string(31, 'S'));
  ASSERT_EQ(result.notes.size(), 1U);
  EXPECT_EQ(result.notes[0], "Serial Number TLV (0x23) cut from 40 to 31 bytes");
}

TEST(FactoryData, LongestDeviceNameFitsWithItsNul) {
  const std::string name = "QD7R-LC-" + std::string(55, '8');
  const FactoryResult result = factory_data_from_bytes(image_of({Tlv{0x21, text(name), 0}}));
  ASSERT_TRUE(result.valid()) << result.reason;
  EXPECT_EQ(std::string(result.data->device_name), name);
  EXPECT_TRUE(result.notes.empty());
}

TEST(FactoryData, FirstEntryOfATypeWins) {
  // The second Device Version has a length that would be refused: only the first entry is read.
  const FactoryResult names = factory_data_from_bytes(image_of(
      {Tlv{0x21, text("QD7R-LC-8"), 0}, Tlv{0x21, text("Korvan-1"), 0}, Tlv{0x26, {5}, 0}, Tlv{0x26, {6, 7}, 0}}));
  ASSERT_TRUE(names.valid()) << names.reason;
  EXPECT_STREQ(names.data->device_name, "QD7R-LC-8");
  EXPECT_EQ(names.data->device_version, 5);
}

TEST(FactoryData, VendorExtensionsAndUnknownTypesAreSkipped) {
  const FactoryResult result = factory_data_from_bytes(
      image_of({Tlv{0xFD, {0, 0, 0x12, 0x34}, 0}, Tlv{0x21, text("QD7R-LC-8"), 0}, Tlv{0x40, {9}, 0}}));
  ASSERT_TRUE(result.valid()) << result.reason;
  EXPECT_EQ(result.data->fields_present, FACTORY__FIELD_BIT(0x21));
}

TEST(FactoryParseMac, AcceptsColonsAndDashesInEitherCase) {
  EXPECT_EQ(parse_mac("00:11:22:aa:BB:cc"), (MacAddress{0x00, 0x11, 0x22, 0xAA, 0xBB, 0xCC}));
  EXPECT_EQ(parse_mac("a8-f9-4b-01-02-03"), (MacAddress{0xA8, 0xF9, 0x4B, 0x01, 0x02, 0x03}));
}

TEST(FactoryParseMac, RefusesMalformedText) {
  EXPECT_EQ(parse_mac(""), std::nullopt);
  EXPECT_EQ(parse_mac("00:11:22:33:44"), std::nullopt);
  EXPECT_EQ(parse_mac("00:11:22:33:44:55:66"), std::nullopt);
  EXPECT_EQ(parse_mac("00:11-22:33:44:55"), std::nullopt);
  EXPECT_EQ(parse_mac("00:11:22:33:44:5g"), std::nullopt);
  EXPECT_EQ(parse_mac("001122334455abcde"), std::nullopt);
  EXPECT_EQ(parse_mac("+0:11:22:33:44:55"), std::nullopt);
  EXPECT_EQ(parse_mac("00.11.22.33.44.55"), std::nullopt);
}

TEST(FactoryFormatMac, WritesUpperCaseWithColons) {
  const MacAddress mac{0xA8, 0xF9, 0x4B, 0x01, 0x02, 0x0C};
  EXPECT_EQ(format_mac(mac), "A8:F9:4B:01:02:0C");
}

TEST(FactoryManufactureDate, AcceptsTheFixedForm) {
  EXPECT_TRUE(is_manufacture_date("05/21/2021 13:45:07"));
  EXPECT_TRUE(is_manufacture_date("12/31/1999 23:59:59"));
  EXPECT_TRUE(is_manufacture_date("01/01/2000 00:00:00"));
}

TEST(FactoryManufactureDate, RefusesOtherForms) {
  EXPECT_FALSE(is_manufacture_date("2021-05-21 13:45:07"));
  EXPECT_FALSE(is_manufacture_date("05/21/2021"));
  EXPECT_FALSE(is_manufacture_date("13/21/2021 13:45:07"));
  EXPECT_FALSE(is_manufacture_date("00/21/2021 13:45:07"));
  EXPECT_FALSE(is_manufacture_date("05/32/2021 13:45:07"));
  EXPECT_FALSE(is_manufacture_date("05/21/2021 24:00:00"));
  EXPECT_FALSE(is_manufacture_date("05/21/2021 13:60:00"));
  EXPECT_FALSE(is_manufacture_date("05/21/2021 13:45:60"));
  EXPECT_FALSE(is_manufacture_date("05/21/20a1 13:45:07"));
  EXPECT_FALSE(is_manufacture_date("+5/21/2021 13:45:07"));
  EXPECT_FALSE(is_manufacture_date("05/21/2021 13:45:07 "));
}

TEST(FactoryPrintableText, EscapesControlAndHighBytes) {
  EXPECT_EQ(printable_text(text("QD7R-LC-8")), "QD7R-LC-8");
  EXPECT_EQ(printable_text(Bytes{'A', 0x00, 0x7F, 0xFF, '\\', 'B'}), "A\\x00\\x7f\\xff\\x5cB");
}

TEST(FactoryImageFile, ASmallFileIsReadWhole) {
  const test::TempDir directory("factory-image");
  const std::string path = directory.write("eeprom", "TlvInfo");
  Bytes bytes{1, 2, 3};
  EXPECT_EQ(read_image_file(path, bytes), 0);
  EXPECT_EQ(bytes, text("TlvInfo"));
}

TEST(FactoryImageFile, OnlyTheLargestImageIsReadOfALargerFile) {
  const test::TempDir directory("factory-image");
  std::string content(kMaxImageSize + 100, 'x');
  content[kMaxImageSize - 1] = 'y';
  const std::string path = directory.write("nvmem", content);
  Bytes bytes;
  EXPECT_EQ(read_image_file(path, bytes), 0);
  ASSERT_EQ(bytes.size(), kMaxImageSize);
  EXPECT_EQ(bytes.back(), 'y');
}

TEST(FactoryImageFile, AMissingFileGivesItsErrnoAndNoBytes) {
  const test::TempDir directory("factory-image");
  Bytes bytes{1, 2, 3};
  EXPECT_EQ(read_image_file(directory.file("absent"), bytes), ENOENT);
  EXPECT_TRUE(bytes.empty());
}

TEST(FactoryImageFile, AFailedReadGivesItsErrnoAndNoBytes) {
  // A directory opens read-only but fails every read.
  const test::TempDir directory("factory-image");
  Bytes bytes{1, 2, 3};
  EXPECT_EQ(read_image_file(directory.path(), bytes), EISDIR);
  EXPECT_TRUE(bytes.empty());
}

}  // namespace
}  // namespace xpon::factory
