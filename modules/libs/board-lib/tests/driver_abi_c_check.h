#ifndef XPON_BOARD_DRIVER_ABI_C_CHECK_H
#define XPON_BOARD_DRIVER_ABI_C_CHECK_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What a C translation unit sees of the driver interface, for comparison with C++. */
size_t brd_c_request_count(void);
unsigned long brd_c_request(size_t index);
const char* brd_c_request_name(size_t index);
size_t brd_c_request_record_size(size_t index);
size_t brd_c_record_size(const char* name);
size_t brd_c_offset_of_ps_date(void);
size_t brd_c_offset_of_fan_module_count(void);

#ifdef __cplusplus
}
#endif

#endif /* XPON_BOARD_DRIVER_ABI_C_CHECK_H */
