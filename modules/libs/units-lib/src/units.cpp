#include "xpon/units/units.h"

#include <cstdint>

// Every step below is exact in double (products of two 16-bit values, divisions by powers of
// two), except the final unit changes, which are single correctly rounded divisions: a reading
// of 1000 power units gives exactly the double nearest to 0.1 mW.

namespace {

constexpr double kSlopeOne = 256.0;  // 8.8 fixed point

double as_signed(std::uint16_t word) noexcept {
  return static_cast<double>(static_cast<std::int16_t>(word));
}

}  // namespace

extern "C" double calibrate_sfp_temperature(uint16_t raw, uint16_t slope, uint16_t offset) {
  const double in_raw_units = as_signed(raw) * static_cast<double>(slope) / kSlopeOne + as_signed(offset);
  return in_raw_units / 256.0;  // raw temperature is in 1/256 degC
}

extern "C" double calculate_fixed_decimal(uint16_t raw, uint16_t slope, uint16_t offset) {
  return static_cast<double>(raw) * static_cast<double>(slope) / kSlopeOne + as_signed(offset);
}

extern "C" double centivolts_to_microvolts(double value) {
  return value * 100.0;
}

extern "C" double ampers_to_milliampers(double value) {
  return value * 2.0 / 1000.0;
}

extern "C" double sfp_power_units_to_mw(double value) {
  return value / 10000.0;
}
