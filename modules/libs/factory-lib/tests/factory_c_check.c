/* Compiled as C11: C callers include the factory header and link get_factory like C++ ones. */
#include "factory_c_check.h"

#include <string.h>

#include "xpon/factory/factory.h"

size_t factory_c_record_size(void) {
  return sizeof(Factory__data);
}

size_t factory_c_fields_present_offset(void) {
  return offsetof(Factory__data, fields_present);
}

int factory_c_read_device_name(const char* path, char* name, size_t size, bool* valid) {
  Factory__data record;
  memset(&record, 0, sizeof record);
  const int result = get_factory_from_file(NULL, path, &record, valid);
  if (size > 0) {
    strncpy(name, record.device_name, size - 1);
    name[size - 1] = '\0';
  }
  return result;
}
