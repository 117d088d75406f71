#ifndef XPON_CFGDB_CFGDB_H
#define XPON_CFGDB_CFGDB_H

/* C interface of the configuration database: the packed records of the sections the
   system manager reads, and the getters that fill them. Every record is little-endian
   and packed; its size and field offsets are fixed, since readers copy it byte for byte. */

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* An open configuration database; made and owned by xpon::cfgdb::CfgDbWrapper. */
typedef struct CfgDb__handle CfgDb__handle;

/* Selects the instance of a section. Every section the system manager reads has exactly
   one instance per board, addressed by the all-zero key; any other key names no row. */
typedef struct __attribute__((packed)) CfgDb__key {
  uint8_t index[6];
} CfgDb__key;

/* ALARM_SYSTEM_LOAD_AVERAGE (80), 16 bytes. */
typedef struct __attribute__((packed)) CfgDb__alarm_system_load_average {
  uint16_t threshold; /* load average x 100 at or above which the alarm is raised; 0 = no threshold */
  uint8_t reserved[14];
} CfgDb__alarm_system_load_average;

/* ALARM_SYSTEM_RAM (77), 4 bytes. */
typedef struct __attribute__((packed)) CfgDb__alarm_system_ram {
  uint8_t threshold; /* lowest acceptable free share of RAM, percent */
  uint8_t reserved[3];
} CfgDb__alarm_system_ram;

/* ALARM_DISK_SPACE (78), 4 bytes. */
typedef struct __attribute__((packed)) CfgDb__alarm_disk_space {
  uint8_t threshold; /* lowest acceptable free share of each flash partition, percent */
  uint8_t reserved[3];
} CfgDb__alarm_disk_space;

/* One temperature sensor's limits in degrees Celsius; a reading at or outside either is an alarm. */
typedef struct __attribute__((packed)) CfgDb__temperature_limits {
  uint8_t lower;
  uint8_t upper;
} CfgDb__temperature_limits;

/* Number of temperature sensors the temperature section describes (ids 0 to 4). */
#define CFGDB__TEMPERATURE_SENSOR_COUNT 5

/* ALARM_SYSTEM_TEMPERATURE (81), 10 bytes: byte 2*id is sensor id's lower limit,
   byte 2*id+1 its upper limit. */
typedef struct __attribute__((packed)) CfgDb__alarm_system_temperature {
  CfgDb__temperature_limits sensor[CFGDB__TEMPERATURE_SENSOR_COUNT];
} CfgDb__alarm_system_temperature;

/* FAN (42), 8 bytes. */
typedef struct __attribute__((packed)) CfgDb__fan {
  uint8_t mode; /* 0 = automatic fan speed control; any other value = manual */
  uint8_t reserved[3];
  uint32_t family; /* device family that drives the fans: 0 = LT, 1 = LC, 2 = FC */
} CfgDb__fan;

/* ALARM_SYSTEM_FAN (79), 12 bytes. */
typedef struct __attribute__((packed)) CfgDb__alarm_system_fan {
  uint16_t upper_speed; /* rpm; a fan at or above it is an alarm */
  uint16_t lower_speed; /* rpm; a fan at or below it is an alarm */
  uint8_t reserved[8];
} CfgDb__alarm_system_fan;

/* ALARM_SYSTEM_PWR_MODULE (123), 4 bytes: the section is reserved for a power module alarm;
   it has no fields yet and no getter. */
typedef struct __attribute__((packed)) CfgDb__alarm_system_pwr_module {
  uint8_t reserved[4];
} CfgDb__alarm_system_pwr_module;

/* The getters below fill the whole record (reserved bytes zero) from one consistent snapshot
   of the database and return 0. On failure they return -1, set errno (EINVAL: a null argument
   or a value stored in the database that is out of its range; ENOENT: no such instance;
   EIO: the database cannot be read), leave the record untouched and keep a text saying why
   for cfgdb__last_error. */

int getRunDb_CommonGCfg_system_alarm_system_load_average(CfgDb__handle* db, CfgDb__alarm_system_load_average* cfg,
                                                         const CfgDb__key* key);
int getRunDb_CommonGCfg_system_alarm_system_ram(CfgDb__handle* db, CfgDb__alarm_system_ram* cfg, const CfgDb__key* key);
int getRunDb_CommonGCfg_system_alarm_system_disk_space(CfgDb__handle* db, CfgDb__alarm_disk_space* cfg,
                                                       const CfgDb__key* key);
int getRunDb_CommonGCfg_system_alarm_system_temperature(CfgDb__handle* db, CfgDb__alarm_system_temperature* cfg,
                                                        const CfgDb__key* key);
int getRunDb_CommonGCfg_system_alarm_system_fan(CfgDb__handle* db, CfgDb__alarm_system_fan* cfg, const CfgDb__key* key);
int getRunDb_CommonGCfg_system_fan_speed(CfgDb__handle* db, CfgDb__fan* cfg, const CfgDb__key* key);

/* The reason of the calling thread's last failed getter call ("" when none failed yet). */
const char* cfgdb__last_error(void);

#ifdef __cplusplus
}

static_assert(sizeof(CfgDb__key) == 6);
static_assert(sizeof(CfgDb__alarm_system_load_average) == 16);
static_assert(offsetof(CfgDb__alarm_system_load_average, threshold) == 0);
static_assert(sizeof(CfgDb__alarm_system_ram) == 4);
static_assert(offsetof(CfgDb__alarm_system_ram, threshold) == 0);
static_assert(sizeof(CfgDb__alarm_disk_space) == 4);
static_assert(offsetof(CfgDb__alarm_disk_space, threshold) == 0);
static_assert(sizeof(CfgDb__alarm_system_temperature) == 10);
static_assert(offsetof(CfgDb__alarm_system_temperature, sensor) == 0);
static_assert(sizeof(CfgDb__temperature_limits) == 2);
static_assert(offsetof(CfgDb__temperature_limits, lower) == 0);
static_assert(offsetof(CfgDb__temperature_limits, upper) == 1);
static_assert(sizeof(CfgDb__fan) == 8);
static_assert(offsetof(CfgDb__fan, mode) == 0);
static_assert(offsetof(CfgDb__fan, family) == 4);
static_assert(sizeof(CfgDb__alarm_system_fan) == 12);
static_assert(offsetof(CfgDb__alarm_system_fan, upper_speed) == 0);
static_assert(offsetof(CfgDb__alarm_system_fan, lower_speed) == 2);
static_assert(sizeof(CfgDb__alarm_system_pwr_module) == 4);
#else
_Static_assert(sizeof(CfgDb__key) == 6, "key is 6 bytes");
_Static_assert(sizeof(CfgDb__alarm_system_load_average) == 16, "load average record is 16 bytes");
_Static_assert(sizeof(CfgDb__alarm_system_ram) == 4, "RAM record is 4 bytes");
_Static_assert(sizeof(CfgDb__alarm_disk_space) == 4, "disk space record is 4 bytes");
_Static_assert(sizeof(CfgDb__alarm_system_temperature) == 10, "temperature record is 10 bytes");
_Static_assert(sizeof(CfgDb__fan) == 8, "fan record is 8 bytes");
_Static_assert(sizeof(CfgDb__alarm_system_fan) == 12, "fan alarm record is 12 bytes");
_Static_assert(sizeof(CfgDb__alarm_system_pwr_module) == 4, "power module record is 4 bytes");
#endif

#endif
