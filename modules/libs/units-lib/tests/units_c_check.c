/* Compiled as C11: the daemon's C neighbours call the conversions the same way. */
#include "units_c_check.h"

#include "xpon/units/units.h"

double units_c_eddi_power_mw(uint16_t raw, uint16_t slope, uint16_t offset) {
  return sfp_power_units_to_mw(calculate_fixed_decimal(raw, slope, offset));
}

double units_c_temperature(uint16_t raw, uint16_t slope, uint16_t offset) {
  return calibrate_sfp_temperature(raw, slope, offset);
}
