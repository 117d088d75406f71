/*
 * The system manager's IPC interface for its clients: the module word, the message ids of the
 * requests it answers and of the events it publishes, the alarm event, the addresses involved
 * and the packed records carried as payloads. Usable from C (C11) and C++.
 *
 * In C++ the names live in the namespace xpon::system_mgr; in C they are global.
 */
#ifndef XPON_SYSTEM_MGR_API_H
#define XPON_SYSTEM_MGR_API_H

#ifdef __cplusplus
#include <cstddef>
#include <cstdint>
#define SYSTEM_MGR_API_STATIC_ASSERT(condition, message) static_assert(condition, message)
#else
#include <stddef.h>
#include <stdint.h>
#define SYSTEM_MGR_API_STATIC_ASSERT(condition, message) _Static_assert(condition, message)
#endif

#define SYSTEM_MGR_API_PACKED __attribute__((packed))

/* Factory__data, the decoded factory record carried by the factory answers. */
#include "xpon/factory/factory.h"

#ifdef __cplusplus
namespace xpon::system_mgr {
#endif

/* The module (group) word of every request and event of the daemon. */
enum { IPC_SYSTEM_MGR = 15500 };

/* IPC endpoint addresses: application id in the high half, slot 0xFFFE (this board) in the low half. */
enum {
  SYSTEM_MGR_IPC_ADDRESS = 0x0019FFFE,       /* the daemon's own endpoint: requests go here */
  ELECTION_MGR_IPC_ADDRESS = 0x0015FFFE,     /* the Election Manager, asked for the master slot */
  SYSTEM_MGR_REPLY_ADDRESS_WORD = 0x0000FFFE /* address word of the daemon's responses and events */
};

/* The Election Manager's mastership query (its own module word and id). */
enum { IPC_ELECTION_MGR = 14500, IPC_ELECTION_MGR__GET_MASTER = 14504 };

/* Result word of a response. */
enum { SYSTEM_MGR_RESULT_ERROR = 0, SYSTEM_MGR_RESULT_ANSWERED = 1 };

/* Requests answered by the daemon (module word IPC_SYSTEM_MGR). */
enum System_mgr__request_id {
  IPC_SYSTEM_MGR__GET_RAM_DATA = 15501,
  IPC_SYSTEM_MGR__GET_HDD_DATA = 15502,
  IPC_SYSTEM_MGR__CNTRL_LED_PANEL = 15503,
  IPC_SYSTEM_MGR__GET_DEVICE_FACTORY = 15504,
  IPC_SYSTEM_MGR__GET_CRATE_FACTORY = 15505,
  IPC_SYSTEM_MGR__GET_FPGA_VERSION = 15506,
  IPC_SYSTEM_MGR__GET_CPLD_VERSION = 15507,
  IPC_SYSTEM_MGR__ENABLE_F_BUTTON = 15508,
  IPC_SYSTEM_MGR__ENABLE_F_BUTTON_HARD_RESET = 15509,
  IPC_SYSTEM_MGR__DISABLE_F_BUTTON = 15510,
  IPC_SYSTEM_MGR__DISABLE_F_BUTTON_HARD_RESET = 15511,
  IPC_SYSTEM_MGR__IS_F_BUTTON_ENABLED = 15512,
  IPC_SYSTEM_MGR__IS_F_BUTTON_HARD_RESET_ENABLED = 15513,
  IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED = 15514,
  IPC_SYSTEM_MGR__GET_TEMP = 15515,
  IPC_SYSTEM_MGR__TRIGGER_EVENT_P_PORTS_SFP_MODULE_INJECT = 15516,
  IPC_SYSTEM_MGR__TRIGGER_EVENT_F_PORTS_SFP_MODULE_INJECT = 15517,
  IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA = 15518,
  IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA = 15519,
  IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER = 15520,
  IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO = 15521,
  IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO = 15522,
  IPC_SYSTEM_MGR__ENABLE_P_PORT_SFP_MODULE_TRX = 15523,
  IPC_SYSTEM_MGR__ENABLE_F_PORT_SFP_MODULE_TRX = 15524,
  IPC_SYSTEM_MGR__DISABLE_P_PORT_SFP_MODULE_TRX = 15525,
  IPC_SYSTEM_MGR__DISABLE_F_PORT_SFP_MODULE_TRX = 15526,
  IPC_SYSTEM_MGR__GET_FAN_STATES = 15527,
  IPC_SYSTEM_MGR__SET_FAN_SPEED = 15528,
  IPC_SYSTEM_MGR__GET_PS_STATES = 15529,
  IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE = 15530,
  IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY = 15531,
  IPC_SYSTEM_MGR__SET_FAN_MODULE_SPEED = 15532,
  IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE = 15533,
  IPC_SYSTEM_MGR__P_PORT_R_LED_ON_G_LED_OFF = 15534,
  IPC_SYSTEM_MGR__P_PORT_G_LED_ON_R_LED_OFF = 15535,
  IPC_SYSTEM_MGR__P_PORT_LED_OFF = 15536
};

/* Events published by the daemon (module word IPC_SYSTEM_MGR). */
enum System_mgr__event_id {
  IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE = 15537, /* empty; the sender's slot is in the header */
  IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE = 15538, /* empty; the sender's slot is in the header */
  IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_INSERTED = 15539, /* one SfpModuleRecord */
  IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_REMOVED = 15540,  /* the port number, uint32_t */
  IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_INSERTED = 15541, /* one SfpModuleRecord */
  IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED = 15542   /* the port number, uint32_t */
};

/* The alarm event: its two header words (group, then id); the payload is one Alarm record. */
enum { IPC_EVENT_ALARM_GROUP = 9000, IPC_EVENT_ALARM_ID = 9005 };

/* Alarm::state values. */
enum { SYSTEM_MGR_ALARM_RAISED = 0, SYSTEM_MGR_ALARM_BACK_TO_NORMAL = 1 };

/* Alarm::alarm_id values, with what Alarm::instance and Alarm::value hold for each. */
enum System_mgr__alarm_id {
  SYSTEM_MGR_ALARM_RAM = 1,          /* instance 0; value[0] free RAM in percent */
  SYSTEM_MGR_ALARM_FAN = 2,          /* instance: fan from 1 (0 for the fan module fault); value[0] rpm */
  SYSTEM_MGR_ALARM_LOAD_AVERAGE = 3, /* instance 0; value[0..2] 1, 5, 15 minute load average x 100 */
  SYSTEM_MGR_ALARM_TEMPERATURE = 4,  /* instance: sensor from 1; first byte of value[0] int8 degrees C */
  SYSTEM_MGR_ALARM_DISK_SPACE = 45,  /* instance: partition from 0; value[0] free space in percent */
  SYSTEM_MGR_ALARM_POWER_SUPPLY = 46 /* instance: supply from 1; no value */
};

/* The alarm record, byte for byte the payload of the alarm event: packed, little-endian,
 * 305 bytes. The publisher zeroes it and fills what its alarm needs. */
typedef struct SYSTEM_MGR_API_PACKED Alarm {
  uint8_t reserved_head[8];  /* never set */
  uint8_t state;             /* SYSTEM_MGR_ALARM_RAISED or SYSTEM_MGR_ALARM_BACK_TO_NORMAL */
  uint32_t alarm_id;         /* System_mgr__alarm_id */
  uint8_t reserved_kind[4];  /* never set */
  uint32_t instance;         /* which item of its kind the alarm is about (sensor, fan, partition) */
  uint8_t reserved_item[12]; /* never set */
  uint32_t value[3];         /* the measured values, as each alarm kind defines them */
  char text[256];            /* human-readable text, NUL-terminated */
  uint8_t reserved_tail[4];  /* never set */
} Alarm;

SYSTEM_MGR_API_STATIC_ASSERT(sizeof(Alarm) == 305, "Alarm is 305 bytes");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(Alarm, state) == 8, "Alarm state at byte 8");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(Alarm, alarm_id) == 9, "Alarm identifier at byte 9");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(Alarm, instance) == 17, "Alarm instance at byte 17");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(Alarm, value) == 33, "Alarm values from byte 33");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(Alarm, text) == 45, "Alarm text at byte 45");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(Alarm, reserved_tail) == 301, "Alarm tail at byte 301");

/* One present SFP module: the payload of the inserted events and the records of the
 * total-info answers. Packed, little-endian, 64 bytes. */
typedef struct SYSTEM_MGR_API_PACKED SfpModuleRecord {
  uint32_t port;    /* port number in its group */
  uint8_t state;    /* the module state byte the board reported last */
  uint8_t data[59]; /* identification data read from the module when it was first seen */
} SfpModuleRecord;

SYSTEM_MGR_API_STATIC_ASSERT(sizeof(SfpModuleRecord) == 64, "SfpModuleRecord is 64 bytes");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(SfpModuleRecord, state) == 4, "SfpModuleRecord state at byte 4");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(SfpModuleRecord, data) == 5, "SfpModuleRecord data at byte 5");

/* Device family ids, the first word of System_mgr__factory. */
enum System_mgr__device_family { SYSTEM_MGR_FAMILY_LT = 0, SYSTEM_MGR_FAMILY_LC = 1, SYSTEM_MGR_FAMILY_FC = 2 };

/* The answer to IPC_SYSTEM_MGR__GET_DEVICE_FACTORY and IPC_SYSTEM_MGR__GET_CRATE_FACTORY: the
 * family id of the board that answers, then the decoded factory data of the board (device) or of
 * its crate (FC boards only), as the factory library fills it. Packed, little-endian, 280 bytes.
 * An all-zero crate answer means the crate's factory image could not be read or is not valid. */
typedef struct SYSTEM_MGR_API_PACKED System_mgr__factory {
  uint32_t family;    /* System_mgr__device_family of the answering board */
  Factory__data data; /* the 276-byte factory record; all zero when the image gave none */
} System_mgr__factory;
SYSTEM_MGR_API_STATIC_ASSERT(sizeof(System_mgr__factory) == 280, "System_mgr__factory is 280 bytes");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__factory, family) == 0, "family id at byte 0");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__factory, data) == 4, "factory record from byte 4");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__factory, data) + offsetof(Factory__data, base_mac) == 132,
                             "base MAC address at byte 132");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__factory, data) + offsetof(Factory__data, fields_present) == 276,
                             "present-fields mask at byte 276");

/* The answer to IPC_SYSTEM_MGR__GET_RAM_DATA: packed, little-endian, 8 bytes. */
typedef struct SYSTEM_MGR_API_PACKED System_mgr__ram_data {
  float total; /* "MemTotal" of /proc/meminfo, kB */
  float free;  /* "MemFree" of /proc/meminfo, kB */
} System_mgr__ram_data;

SYSTEM_MGR_API_STATIC_ASSERT(sizeof(System_mgr__ram_data) == 8, "System_mgr__ram_data is 8 bytes");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__ram_data, total) == 0, "RAM total at byte 0");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__ram_data, free) == 4, "RAM free at byte 4");

/* The answer to IPC_SYSTEM_MGR__GET_HDD_DATA: packed, little-endian, 8 bytes. */
typedef struct SYSTEM_MGR_API_PACKED System_mgr__hdd_data {
  float total; /* size of the five flash partitions together, GiB, as measured at start-up */
  float free;  /* space available in the five partitions together, GiB, at the time of the request */
} System_mgr__hdd_data;

SYSTEM_MGR_API_STATIC_ASSERT(sizeof(System_mgr__hdd_data) == 8, "System_mgr__hdd_data is 8 bytes");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__hdd_data, total) == 0, "disk total at byte 0");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__hdd_data, free) == 4, "disk free at byte 4");

/* One power supply in the answer to IPC_SYSTEM_MGR__GET_PS_STATES: the board driver's record,
 * packed, 72 bytes, supply 1 first. Text fields are NUL-terminated when the supply terminates
 * them; read them only within their field. For N supplies the daemon copies only the first
 * 8 x N bytes of its record array into the answer and leaves the rest zero: with one supply,
 * bytes 0-7 of its record; with two, bytes 0-15 of supply 1's record and supply 2 all zero. */
typedef struct SYSTEM_MGR_API_PACKED System_mgr__ps_state {
  uint8_t id;            /* the driver's number of the supply, from 0 */
  uint8_t is_present;    /* non-zero: the supply is installed */
  uint8_t is_power_good; /* non-zero: the supply's output is good */
  uint8_t has_info;      /* non-zero: the identification fields are valid */
  uint8_t alert;         /* the driver's status bits of the supply, 0 when quiet */
  char model[31];        /* model name */
  char sn[17];           /* serial number */
  char ver[6];           /* version */
  char rev[2];           /* revision */
  char date[11];         /* manufacturing date */
} System_mgr__ps_state;

SYSTEM_MGR_API_STATIC_ASSERT(sizeof(System_mgr__ps_state) == 72, "System_mgr__ps_state is 72 bytes");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__ps_state, is_present) == 1, "supply present flag at byte 1");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__ps_state, is_power_good) == 2, "supply power good at byte 2");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__ps_state, has_info) == 3, "supply info flag at byte 3");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__ps_state, model) == 5, "supply model at byte 5");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__ps_state, sn) == 36, "supply serial number at byte 36");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__ps_state, ver) == 53, "supply version at byte 53");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__ps_state, rev) == 59, "supply revision at byte 59");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__ps_state, date) == 61, "supply date at byte 61");

/* Bytes of each supply's record the daemon copies into the GET_PS_STATES answer. */
enum { SYSTEM_MGR_PS_STATES_COPIED_PER_SUPPLY = 8 };

/* The answer to IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE: the crate's power module as the board
 * driver reports it, passed through unchanged. Packed, little-endian, 20 bytes. */
typedef struct SYSTEM_MGR_API_PACKED System_mgr__pwr_module_state {
  uint8_t present;         /* non-zero: the module is installed */
  uint8_t power_good;      /* non-zero: the output is good */
  uint8_t fault;           /* non-zero: the module reports a fault */
  uint8_t fan_fault;       /* non-zero: the module's own fan failed */
  uint16_t input_voltage;  /* 0.1 V */
  uint16_t output_voltage; /* 10 mV */
  uint16_t output_current; /* 10 mA */
  uint16_t output_power;   /* W */
  int16_t temperature;     /* degrees Celsius */
  uint8_t reserved[6];     /* zero */
} System_mgr__pwr_module_state;

SYSTEM_MGR_API_STATIC_ASSERT(sizeof(System_mgr__pwr_module_state) == 20, "System_mgr__pwr_module_state is 20 bytes");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__pwr_module_state, input_voltage) == 4, "input voltage at byte 4");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__pwr_module_state, output_voltage) == 6, "output voltage at byte 6");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__pwr_module_state, output_current) == 8, "output current at byte 8");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__pwr_module_state, output_power) == 10, "output power at byte 10");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__pwr_module_state, temperature) == 12, "temperature at byte 12");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__pwr_module_state, reserved) == 14, "reserved from byte 14");

/* The answer to IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA and IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA:
 * an SFP module's digital diagnostics in engineering units. Packed, little-endian, 133 bytes. */
typedef struct SYSTEM_MGR_API_PACKED System_mgr__sfp_eddi_data {
  uint32_t port;        /* port number in its group */
  uint8_t valid;        /* 1: the values below were read from the module */
  double temperature;   /* degrees Celsius */
  double voltage;       /* supply voltage, microvolts */
  double bias_current;  /* laser bias current, milliamperes */
  double optical_power; /* transmitted optical power, milliwatts */
  uint8_t reserved[96]; /* zero */
} System_mgr__sfp_eddi_data;

SYSTEM_MGR_API_STATIC_ASSERT(sizeof(double) == 8, "double is IEEE 754 binary64");
SYSTEM_MGR_API_STATIC_ASSERT(sizeof(System_mgr__sfp_eddi_data) == 133, "System_mgr__sfp_eddi_data is 133 bytes");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__sfp_eddi_data, valid) == 4, "diagnostics flag at byte 4");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__sfp_eddi_data, temperature) == 5, "temperature at byte 5");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__sfp_eddi_data, voltage) == 13, "voltage at byte 13");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__sfp_eddi_data, bias_current) == 21, "bias current at byte 21");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__sfp_eddi_data, optical_power) == 29, "optical power at byte 29");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__sfp_eddi_data, reserved) == 37, "reserved from byte 37");

#ifdef __cplusplus
}  // namespace xpon::system_mgr
#endif

#endif /* XPON_SYSTEM_MGR_API_H */
