#ifndef XPON_UNITS_TESTS_UNITS_C_CHECK_H
#define XPON_UNITS_TESTS_UNITS_C_CHECK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Optical power in mW and temperature in degC, computed by C code from a diagnostics triple. */
double units_c_eddi_power_mw(uint16_t raw, uint16_t slope, uint16_t offset);
double units_c_temperature(uint16_t raw, uint16_t slope, uint16_t offset);

#ifdef __cplusplus
}
#endif

#endif
