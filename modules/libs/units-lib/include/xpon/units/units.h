#ifndef XPON_UNITS_UNITS_H
#define XPON_UNITS_UNITS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Digital diagnostics of SFP modules (SFF-8472). Each reading comes as a triple of 16-bit
   words (raw, slope, offset): the raw A/D value, the slope as unsigned 8.8 fixed point
   (0x0100 = 1.0) and the offset as a signed 16-bit value in the raw value's own units.
   Internally calibrated modules report slope 0x0100 and offset 0. */

/* Module temperature in degrees Celsius: raw is a signed value in 1/256 degC, so the result
   is (raw * slope / 256 + offset) / 256 with raw and offset read as signed. */
double calibrate_sfp_temperature(uint16_t raw, uint16_t slope, uint16_t offset);

/* The calibrated value of an unsigned reading, in the reading's units: raw * slope / 256 + offset,
   offset read as signed (supply voltage in 100 uV, laser bias in 2 uA, optical power in 0.1 uW). */
double calculate_fixed_decimal(uint16_t raw, uint16_t slope, uint16_t offset);

/* Supply voltage from its 100 uV units to microvolts. */
double centivolts_to_microvolts(double value);

/* Laser bias current from its 2 uA units to milliamperes. */
double ampers_to_milliampers(double value);

/* Optical power from its 0.1 uW units to milliwatts. */
double sfp_power_units_to_mw(double value);

#ifdef __cplusplus
}
#endif

#endif
