#ifndef XPON_FACTORY_FACTORY_H
#define XPON_FACTORY_FACTORY_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "xpon/logger/raw_category.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Where the board's own factory image and the crate's (FC boards only) are read from;
   both are moved under $XPON_ROOT when that variable is set. */
#define FACTORY__DEVICE_IMAGE_PATH "/sys/bus/nvmem/devices/device-eeprom0/nvmem"
#define FACTORY__CRATE_IMAGE_PATH "/sys/bus/nvmem/devices/crate-eeprom0/nvmem"

/* Sizes of the text fields, terminating NUL included; longer values are cut to fit. */
#define FACTORY__DEVICE_NAME_SIZE 64
#define FACTORY__PART_NUMBER_SIZE 32
#define FACTORY__SERIAL_NUMBER_SIZE 32
#define FACTORY__MANUFACTURE_DATE_SIZE 20
#define FACTORY__COUNTRY_CODE_SIZE 3
#define FACTORY__LABEL_REVISION_SIZE 16
#define FACTORY__PLATFORM_NAME_SIZE 32
#define FACTORY__MANUFACTURER_SIZE 32
#define FACTORY__VENDOR_NAME_SIZE 32

/* The factory data of one board or crate, decoded from its TlvInfo image. Every text field
   is NUL-terminated and zero-padded; a field whose TLV is absent stays all zero. The record
   has no padding (276 bytes), so it can be copied byte for byte into a message. */
typedef struct Factory__data {
  char device_name[FACTORY__DEVICE_NAME_SIZE];           /* Product Name (0x21); always present when valid */
  char part_number[FACTORY__PART_NUMBER_SIZE];           /* Part Number (0x22) */
  char serial_number[FACTORY__SERIAL_NUMBER_SIZE];       /* Serial Number (0x23) */
  uint8_t base_mac[6];                                   /* Base MAC Address (0x24), in wire order */
  uint16_t mac_count;                                    /* MAC Addresses (0x2A), host byte order */
  char manufacture_date[FACTORY__MANUFACTURE_DATE_SIZE]; /* Manufacture Date (0x25), "MM/DD/YYYY hh:mm:ss" */
  uint8_t device_version;                                /* Device Version (0x26): the hardware revision */
  char country_code[FACTORY__COUNTRY_CODE_SIZE];         /* Country Code (0x2C) */
  char label_revision[FACTORY__LABEL_REVISION_SIZE];     /* Label Revision (0x27) */
  char platform_name[FACTORY__PLATFORM_NAME_SIZE];       /* Platform Name (0x28) */
  char manufacturer[FACTORY__MANUFACTURER_SIZE];         /* Manufacturer (0x2B) */
  char vendor_name[FACTORY__VENDOR_NAME_SIZE];           /* Vendor Name (0x2D) */
  uint32_t fields_present;                               /* bit n set: TLV 0x21 + n was in the image */
} Factory__data;

#ifdef __cplusplus
static_assert(sizeof(Factory__data) == 276, "Factory__data is a fixed 276-byte record");
static_assert(offsetof(Factory__data, base_mac) == 128, "base_mac at offset 128");
static_assert(offsetof(Factory__data, mac_count) == 134, "mac_count at offset 134");
static_assert(offsetof(Factory__data, device_version) == 156, "device_version at offset 156");
static_assert(offsetof(Factory__data, fields_present) == 272, "fields_present at offset 272");
#else
_Static_assert(sizeof(Factory__data) == 276, "Factory__data is a fixed 276-byte record");
_Static_assert(offsetof(Factory__data, base_mac) == 128, "base_mac at offset 128");
_Static_assert(offsetof(Factory__data, mac_count) == 134, "mac_count at offset 134");
_Static_assert(offsetof(Factory__data, device_version) == 156, "device_version at offset 156");
_Static_assert(offsetof(Factory__data, fields_present) == 272, "fields_present at offset 272");
#endif

/* The fields_present bit of a TLV type between 0x21 and 0x2F. */
#define FACTORY__FIELD_BIT(type) (UINT32_C(1) << ((type)-0x21))

/* Reads the board's factory image. Returns 0 when the image was read and then sets *valid:
   true when the image is valid and names the device (record filled), false otherwise
   (record all zero, the reason logged). Returns the errno value of the failure (non-zero)
   when the image cannot be read, and EINVAL for a null record or flag. */
int get_factory(zlog_category_t* category, Factory__data* record, bool* valid);

/* The same for the crate's factory image, which FC boards carry. */
int get_crate_factory(zlog_category_t* category, Factory__data* record, bool* valid);

/* The same for an image at a file path used as given (no $XPON_ROOT prefix). */
int get_factory_from_file(zlog_category_t* category, const char* path, Factory__data* record, bool* valid);

#ifdef __cplusplus
}
#endif

#endif
