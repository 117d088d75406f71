#include "xpon/units/units.h"
#include "units_c_check.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

constexpr std::uint16_t kSlopeOne = 0x0100;

// The temperature examples of the diagnostics standard: signed two's complement in 1/256 degC.
TEST(UnitsTemperature, DecodesTheStandardExamples) {
  EXPECT_EQ(calibrate_sfp_temperature(0x7FFF, kSlopeOne, 0), 127.99609375);
  EXPECT_EQ(calibrate_sfp_temperature(0x7D00, kSlopeOne, 0), 125.0);
  EXPECT_EQ(calibrate_sfp_temperature(0x1900, kSlopeOne, 0), 25.0);
  EXPECT_EQ(calibrate_sfp_temperature(0x0101, kSlopeOne, 0), 1.00390625);
  EXPECT_EQ(calibrate_sfp_temperature(0x0100, kSlopeOne, 0), 1.0);
  EXPECT_EQ(calibrate_sfp_temperature(0x00FF, kSlopeOne, 0), 0.99609375);
  EXPECT_EQ(calibrate_sfp_temperature(0x0001, kSlopeOne, 0), 0.00390625);
  EXPECT_EQ(calibrate_sfp_temperature(0x0000, kSlopeOne, 0), 0.0);
  EXPECT_EQ(calibrate_sfp_temperature(0xFFFF, kSlopeOne, 0), -0.00390625);
  EXPECT_EQ(calibrate_sfp_temperature(0xFF00, kSlopeOne, 0), -1.0);
  EXPECT_EQ(calibrate_sfp_temperature(0xE700, kSlopeOne, 0), -25.0);
  EXPECT_EQ(calibrate_sfp_temperature(0xD800, kSlopeOne, 0), -40.0);
  EXPECT_EQ(calibrate_sfp_temperature(0x8300, kSlopeOne, 0), -125.0);
  EXPECT_EQ(calibrate_sfp_temperature(0x8000, kSlopeOne, 0), -128.0);
}

// The conversion examples module makers print with their diagnostics tables.
TEST(UnitsTemperature, DecodesHalfDegreeSteps) {
  EXPECT_EQ(calibrate_sfp_temperature(0x4B00, kSlopeOne, 0), 75.0);
  EXPECT_EQ(calibrate_sfp_temperature(0x4B80, kSlopeOne, 0), 75.5);
  EXPECT_EQ(calibrate_sfp_temperature(0xDD00, kSlopeOne, 0), -35.0);
  EXPECT_EQ(calibrate_sfp_temperature(0xDC80, kSlopeOne, 0), -35.5);
}

TEST(UnitsVoltage, DecodesTheSupplyExamples) {
  EXPECT_EQ(centivolts_to_microvolts(calculate_fixed_decimal(0x80E8, kSlopeOne, 0)), 3300000.0);
  EXPECT_EQ(centivolts_to_microvolts(calculate_fixed_decimal(0x7EF4, kSlopeOne, 0)), 3250000.0);
}

TEST(UnitsTemperature, AppliesSlopeBeforeOffset) {
  // 16 degC read with slope 1.5 is 24 degC; an offset of -256 (1 degC in raw units) takes it to 23.
  EXPECT_EQ(calibrate_sfp_temperature(0x1000, 0x0180, 0), 24.0);
  EXPECT_EQ(calibrate_sfp_temperature(0x1000, 0x0180, 0xFF00), 23.0);
  EXPECT_EQ(calibrate_sfp_temperature(0x1000, 0x0180, 0x0080), 24.5);
}

TEST(UnitsTemperature, SlopeScalesNegativeReadings) {
  // -40 degC with slope 0.5 is -20 degC.
  EXPECT_EQ(calibrate_sfp_temperature(0xD800, 0x0080, 0), -20.0);
}

TEST(UnitsTemperature, ZeroSlopeLeavesOnlyTheOffset) {
  EXPECT_EQ(calibrate_sfp_temperature(0x1900, 0, 0x0200), 2.0);
}

TEST(UnitsTemperature, ExtremeWordsStayFinite) {
  // Largest slope (255.996) on the most negative reading, largest negative offset.
  EXPECT_EQ(calibrate_sfp_temperature(0x8000, 0xFFFF, 0x8000), (-32768.0 * 65535.0 / 256.0 - 32768.0) / 256.0);
}

TEST(UnitsFixedDecimal, UnitSlopeGivesTheRawValue) {
  EXPECT_EQ(calculate_fixed_decimal(0, kSlopeOne, 0), 0.0);
  EXPECT_EQ(calculate_fixed_decimal(33000, kSlopeOne, 0), 33000.0);
  EXPECT_EQ(calculate_fixed_decimal(0xFFFF, kSlopeOne, 0), 65535.0);
}

TEST(UnitsFixedDecimal, RawValueIsUnsigned) {
  // 0x8000 is a large voltage, not a negative one: only temperatures are signed.
  EXPECT_EQ(calculate_fixed_decimal(0x8000, kSlopeOne, 0), 32768.0);
}

TEST(UnitsFixedDecimal, SlopeIsUnsignedEightDotEight) {
  EXPECT_EQ(calculate_fixed_decimal(1000, 0x0080, 0), 500.0);
  EXPECT_EQ(calculate_fixed_decimal(1000, 0x0180, 0), 1500.0);
  EXPECT_EQ(calculate_fixed_decimal(1000, 0x0001, 0), 3.90625);
  EXPECT_EQ(calculate_fixed_decimal(1000, 0xFFFF, 0), 1000.0 * 65535.0 / 256.0);
  EXPECT_EQ(calculate_fixed_decimal(1000, 0, 0), 0.0);
}

TEST(UnitsFixedDecimal, OffsetIsSignedAndAddedAfterTheSlope) {
  EXPECT_EQ(calculate_fixed_decimal(1000, 0x0180, 10), 1510.0);
  EXPECT_EQ(calculate_fixed_decimal(1000, 0x0180, 0xFFF6), 1490.0);
  EXPECT_EQ(calculate_fixed_decimal(10, kSlopeOne, 0xFFEC), -10.0);
  EXPECT_EQ(calculate_fixed_decimal(0, kSlopeOne, 0x7FFF), 32767.0);
  EXPECT_EQ(calculate_fixed_decimal(0, kSlopeOne, 0x8000), -32768.0);
}

TEST(UnitsFixedDecimal, LargestWordsAreExact) {
  EXPECT_EQ(calculate_fixed_decimal(0xFFFF, 0xFFFF, 0x7FFF), 65535.0 * 65535.0 / 256.0 + 32767.0);
}

TEST(UnitsVoltage, HundredMicrovoltUnitsBecomeMicrovolts) {
  EXPECT_EQ(centivolts_to_microvolts(0.0), 0.0);
  EXPECT_EQ(centivolts_to_microvolts(1.0), 100.0);
  EXPECT_EQ(centivolts_to_microvolts(33000.0), 3300000.0);  // 3.3 V supply
  EXPECT_EQ(centivolts_to_microvolts(65535.0), 6553500.0);  // 6.5535 V, the top of the range
}

TEST(UnitsBias, TwoMicroampereUnitsBecomeMilliamperes) {
  EXPECT_EQ(ampers_to_milliampers(0.0), 0.0);
  EXPECT_EQ(ampers_to_milliampers(1.0), 0.002);
  EXPECT_EQ(ampers_to_milliampers(3000.0), 6.0);
  EXPECT_EQ(ampers_to_milliampers(65535.0), 131.07);  // the top of the range
  EXPECT_EQ(ampers_to_milliampers(0.5), 0.001);
}

TEST(UnitsPower, TenthMicrowattUnitsBecomeMilliwatts) {
  EXPECT_EQ(sfp_power_units_to_mw(0.0), 0.0);
  EXPECT_EQ(sfp_power_units_to_mw(1.0), 0.0001);
  EXPECT_EQ(sfp_power_units_to_mw(1000.0), 0.1);
  EXPECT_EQ(sfp_power_units_to_mw(10000.0), 1.0);
  EXPECT_EQ(sfp_power_units_to_mw(65535.0), 6.5535);  // the top of the range
}

// The diagnostics words of one module as the daemon converts them for its EDDI answer.
TEST(UnitsChain, ConvertsAModuleReadingAsTheDaemonDoes) {
  const std::uint16_t words[16] = {0,     0,         0x2380, kSlopeOne, 0,  // temperature 35.5 degC
                                   32900, kSlopeOne, 0,                     // 3.29 V
                                   3500,  kSlopeOne, 0,                     // 7 mA
                                   5000,  kSlopeOne, 0,                     // 0.5 mW
                                   0,     0};
  EXPECT_EQ(calibrate_sfp_temperature(words[2], words[3], words[4]), 35.5);
  EXPECT_EQ(centivolts_to_microvolts(calculate_fixed_decimal(words[5], words[6], words[7])), 3290000.0);
  EXPECT_EQ(ampers_to_milliampers(calculate_fixed_decimal(words[8], words[9], words[10])), 7.0);
  EXPECT_EQ(sfp_power_units_to_mw(calculate_fixed_decimal(words[11], words[12], words[13])), 0.5);
}

TEST(UnitsChain, ExternallyCalibratedBias) {
  // 3000 units with slope 1.25 and offset -50: 3700 units of 2 uA, 7.4 mA.
  EXPECT_EQ(ampers_to_milliampers(calculate_fixed_decimal(3000, 0x0140, 0xFFCE)), 7.4);
}

TEST(UnitsFromC, CCallersGetTheSameValues) {
  EXPECT_EQ(units_c_eddi_power_mw(1000, 0x0100, 0), 0.1);
  EXPECT_EQ(units_c_temperature(0xD800, 0x0100, 0), -40.0);
}

}  // namespace
