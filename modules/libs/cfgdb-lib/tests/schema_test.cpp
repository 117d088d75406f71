#include "xpon/cfgdb/schema.hpp"
#include "xpon/cfgdb/cfgdb.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace xpon::cfgdb {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

std::string message_of(const core::ErrorPayload& error) {
  return error.info && error.info->message ? *error.info->message : std::string("<no message>");
}

std::vector<std::string> field_names(const SectionSpec& section) {
  std::vector<std::string> names;
  for (const auto& field : section.fields) {
    names.emplace_back(field.name);
  }
  return names;
}

TEST(CfgdbSchema, DeclaresTheSevenSectionsWithTheirIdentifiers) {
  std::vector<std::pair<std::uint32_t, std::string>> seen;
  for (const auto& section : sections()) {
    seen.emplace_back(section.id, std::string(section.name));
  }
  EXPECT_THAT(seen, ElementsAre(std::pair<std::uint32_t, std::string>{42, "FAN"},
                                std::pair<std::uint32_t, std::string>{77, "ALARM_SYSTEM_RAM"},
                                std::pair<std::uint32_t, std::string>{78, "ALARM_DISK_SPACE"},
                                std::pair<std::uint32_t, std::string>{79, "ALARM_SYSTEM_FAN"},
                                std::pair<std::uint32_t, std::string>{80, "ALARM_SYSTEM_LOAD_AVERAGE"},
                                std::pair<std::uint32_t, std::string>{81, "ALARM_SYSTEM_TEMPERATURE"},
                                std::pair<std::uint32_t, std::string>{123, "ALARM_SYSTEM_PWR_MODULE"}));
}

TEST(CfgdbSchema, FieldNamesAreTheOperatorNames) {
  EXPECT_THAT(field_names(*find_section(80)), ElementsAre("threshold"));
  EXPECT_THAT(field_names(*find_section(77)), ElementsAre("threshold"));
  EXPECT_THAT(field_names(*find_section(78)), ElementsAre("threshold"));
  EXPECT_THAT(field_names(*find_section(81)),
              ElementsAre("sensor0_lower", "sensor0_upper", "sensor1_lower", "sensor1_upper", "sensor2_lower",
                          "sensor2_upper", "sensor3_lower", "sensor3_upper", "sensor4_lower", "sensor4_upper"));
  EXPECT_THAT(field_names(*find_section(42)), ElementsAre("mode", "family"));
  EXPECT_THAT(field_names(*find_section(79)), ElementsAre("upper_speed", "lower_speed"));
  EXPECT_TRUE(find_section(123)->fields.empty());
}

TEST(CfgdbSchema, RecordSizesMatchTheCRecords) {
  EXPECT_EQ(find_section(80)->record_size, sizeof(CfgDb__alarm_system_load_average));
  EXPECT_EQ(find_section(77)->record_size, 4U);
  EXPECT_EQ(find_section(78)->record_size, 4U);
  EXPECT_EQ(find_section(81)->record_size, 10U);
  EXPECT_EQ(find_section(42)->record_size, 8U);
  EXPECT_EQ(find_section(79)->record_size, 12U);
  EXPECT_EQ(find_section(123)->record_size, 4U);
}

TEST(CfgdbSchema, FieldsFitTheirRecordsWithoutOverlap) {
  for (const auto& section : sections()) {
    std::set<std::size_t> used;
    for (const auto& field : section.fields) {
      EXPECT_TRUE(field.width == 1 || field.width == 2 || field.width == 4) << field.name;
      EXPECT_LE(field.offset + field.width, section.record_size) << section.name << " " << field.name;
      for (std::size_t byte = field.offset; byte < field.offset + field.width; ++byte) {
        EXPECT_TRUE(used.insert(byte).second) << section.name << " byte " << byte << " used twice";
      }
      const std::uint64_t width_max = field.width == 4 ? 0xFFFFFFFFULL : (1ULL << (8 * field.width)) - 1;
      EXPECT_LE(field.max, width_max) << field.name;
      EXPECT_LE(field.min, field.default_value) << field.name;
      EXPECT_LE(field.default_value, field.max) << field.name;
      EXPECT_FALSE(field.description.empty()) << field.name;
      EXPECT_FALSE(field.default_reason.empty()) << field.name;
    }
  }
}

TEST(CfgdbSchema, DefaultsPassTheirOwnChecks) {
  for (const auto& section : sections()) {
    EXPECT_TRUE(check_values(section, default_values(section))) << section.name;
  }
}

TEST(CfgdbSchema, DefaultValuesForALineCard) {
  EXPECT_THAT(default_values(*find_section(80)), ElementsAre(400U));
  EXPECT_THAT(default_values(*find_section(77)), ElementsAre(10U));
  EXPECT_THAT(default_values(*find_section(78)), ElementsAre(10U));
  EXPECT_THAT(default_values(*find_section(81)), ElementsAre(0U, 80U, 0U, 80U, 0U, 80U, 0U, 80U, 0U, 80U));
  EXPECT_THAT(default_values(*find_section(42)), ElementsAre(0U, 1U));
  EXPECT_THAT(default_values(*find_section(79)), ElementsAre(20000U, 1000U));
}

TEST(CfgdbSchema, SectionsAreFoundByNameInAnyCaseOrById) {
  EXPECT_EQ(find_section("ALARM_SYSTEM_RAM"), find_section(77));
  EXPECT_EQ(find_section("alarm_system_ram"), find_section(77));
  EXPECT_EQ(find_section("77"), find_section(77));
  EXPECT_EQ(find_section("FAN"), find_section(42));
  EXPECT_EQ(find_section("ALARM_SYSTEM_RA"), nullptr);
  EXPECT_EQ(find_section("76"), nullptr);
  EXPECT_EQ(find_section(""), nullptr);
  EXPECT_EQ(find_section("99999999999999999999"), nullptr);
  EXPECT_EQ(find_section("0x4D"), nullptr);
}

TEST(CfgdbSchema, ParseAcceptsDecimalAndHexWithinRange) {
  const auto& ram = *find_section(77);
  EXPECT_EQ(parse_value(ram, ram.fields[0], "0").value(), 0U);
  EXPECT_EQ(parse_value(ram, ram.fields[0], "100").value(), 100U);
  EXPECT_EQ(parse_value(ram, ram.fields[0], "0x14").value(), 20U);
}

TEST(CfgdbSchema, ParseRefusesAboveTheRange) {
  const auto& ram = *find_section(77);
  auto parsed = parse_value(ram, ram.fields[0], "101");
  ASSERT_FALSE(parsed);
  EXPECT_EQ(parsed.error().error, core::Error::InvalidInputArg);
  EXPECT_EQ(message_of(parsed.error()), "ALARM_SYSTEM_RAM: threshold=101 is out of range 0..100");
}

TEST(CfgdbSchema, ParseRefusesBeyondEveryInteger) {
  const auto& fan = *find_section(79);
  auto parsed = parse_value(fan, fan.fields[0], "99999999999999999999999");
  ASSERT_FALSE(parsed);
  EXPECT_EQ(message_of(parsed.error()),
            "ALARM_SYSTEM_FAN: upper_speed=99999999999999999999999 is out of range 0..65535");
}

TEST(CfgdbSchema, ParseRefusesMalformedNumbers) {
  const auto& load = *find_section(80);
  for (const char* text : {"", "abc", "-1", "+5", " 5", "5 ", "2.5", "0x", "0xZZ", "12abc"}) {
    auto parsed = parse_value(load, load.fields[0], text);
    ASSERT_FALSE(parsed) << text;
    EXPECT_EQ(message_of(parsed.error()),
              std::string("ALARM_SYSTEM_LOAD_AVERAGE: threshold='") + text + "' is not a number");
  }
}

TEST(CfgdbSchema, TemperatureLimitsStopAt127) {
  const auto& temperature = *find_section(81);
  auto parsed = parse_value(temperature, *temperature.field("sensor3_upper"), "128");
  ASSERT_FALSE(parsed);
  EXPECT_EQ(message_of(parsed.error()), "ALARM_SYSTEM_TEMPERATURE: sensor3_upper=128 is out of range 0..127");
}

TEST(CfgdbSchema, LowerLimitMustStayBelowUpperLimit) {
  const auto& temperature = *find_section(81);
  auto values = default_values(temperature);
  values[4] = 80;  // sensor2_lower equal to sensor2_upper
  auto checked = check_values(temperature, values);
  ASSERT_FALSE(checked);
  EXPECT_EQ(message_of(checked.error()), "ALARM_SYSTEM_TEMPERATURE: sensor2_lower=80 must be below sensor2_upper=80");

  const auto& fan = *find_section(79);
  auto fan_check = check_values(fan, SectionValues{1000, 2000});
  ASSERT_FALSE(fan_check);
  EXPECT_EQ(message_of(fan_check.error()), "ALARM_SYSTEM_FAN: lower_speed=2000 must be below upper_speed=1000");
}

TEST(CfgdbSchema, CheckRefusesValuesOutsideTheirRange) {
  const auto& fan_section = *find_section(42);
  auto checked = check_values(fan_section, SectionValues{0, 3});
  ASSERT_FALSE(checked);
  EXPECT_EQ(message_of(checked.error()), "FAN: family=3 is out of range 0..2");
}

TEST(CfgdbSchema, CheckRefusesAWrongNumberOfValues) {
  auto checked = check_values(*find_section(42), SectionValues{0});
  ASSERT_FALSE(checked);
  EXPECT_EQ(message_of(checked.error()), "FAN: 1 values given for 2 fields");
}

TEST(CfgdbSchema, EncodeLaysOutLittleEndianFieldsAndZeroReservedBytes) {
  EXPECT_THAT(encode_record(*find_section(80), SectionValues{0x1234}),
              ElementsAreArray<std::uint8_t>({0x34, 0x12, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_THAT(encode_record(*find_section(42), SectionValues{1, 2}),
              ElementsAreArray<std::uint8_t>({1, 0, 0, 0, 2, 0, 0, 0}));
  EXPECT_THAT(encode_record(*find_section(79), SectionValues{0xABCD, 0x0102}),
              ElementsAreArray<std::uint8_t>({0xCD, 0xAB, 0x02, 0x01, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_THAT(encode_record(*find_section(81), SectionValues{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}),
              ElementsAreArray<std::uint8_t>({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
  EXPECT_THAT(encode_record(*find_section(123), SectionValues{}), ElementsAreArray<std::uint8_t>({0, 0, 0, 0}));
}

}  // namespace
}  // namespace xpon::cfgdb
