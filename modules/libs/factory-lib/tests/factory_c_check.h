#ifndef XPON_FACTORY_TESTS_FACTORY_C_CHECK_H
#define XPON_FACTORY_TESTS_FACTORY_C_CHECK_H

#include <stdbool.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The record's size and the offset of its last field as a C compiler sees them. */
size_t factory_c_record_size(void);
size_t factory_c_fields_present_offset(void);

/* Reads an image from C and copies the device name out; returns get_factory_from_file's result. */
int factory_c_read_device_name(const char* path, char* name, size_t size, bool* valid);

#ifdef __cplusplus
}
#endif

#endif
