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

/* The families a request is served on: bit (1 << family id) of System_mgr__device_family. */
enum {
  SYSTEM_MGR_SERVED_BY_LT = 1 << 0,
  SYSTEM_MGR_SERVED_BY_LC = 1 << 1,
  SYSTEM_MGR_SERVED_BY_FC = 1 << 2,
  SYSTEM_MGR_SERVED_BY_ALL = SYSTEM_MGR_SERVED_BY_LT | SYSTEM_MGR_SERVED_BY_LC | SYSTEM_MGR_SERVED_BY_FC
};

/* What a request's payload carries. */
enum System_mgr__request_argument {
  SYSTEM_MGR_ARGUMENT_NONE = 0,  /* nothing: any payload is ignored */
  SYSTEM_MGR_ARGUMENT_PORT = 1,  /* the port number, uint32_t; bytes after it are ignored */
  SYSTEM_MGR_ARGUMENT_SPEED = 2, /* the speed setting in byte 0; bytes after it are ignored */
  SYSTEM_MGR_ARGUMENT_LED = 3    /* the board driver's 12-byte LED command record (Brd__led) */
};

/* The size of the payload a request's argument needs; a shorter payload is refused. */
enum { SYSTEM_MGR_PORT_ARGUMENT_SIZE = 4, SYSTEM_MGR_SPEED_ARGUMENT_SIZE = 1, SYSTEM_MGR_LED_ARGUMENT_SIZE = 12 };

/* How a request's answer (result word 1) is made of its answer record. */
enum System_mgr__answer_shape {
  SYSTEM_MGR_ANSWER_EMPTY = 0, /* an empty payload; the record column is void */
  SYSTEM_MGR_ANSWER_ONE = 1,   /* exactly one record */
  SYSTEM_MGR_ANSWER_EACH = 2   /* one record per item (sensor, fan, supply, module), possibly none */
};

/*
 * The request catalogue: every request of module IPC_SYSTEM_MGR, in id order, as
 *   X(NAME, id, families served, argument, answer shape, answer record)
 * NAME is the identifier without its IPC_SYSTEM_MGR__ prefix; the record types are defined
 * below. The message ids, the daemon's subscriptions and logged names, and system-mgr-ctl's
 * commands and decoders are all derived from this list.
 */
#define SYSTEM_MGR_REQUESTS(X)                                                                                         \
  X(GET_RAM_DATA, 15501, SYSTEM_MGR_SERVED_BY_ALL, SYSTEM_MGR_ARGUMENT_NONE, SYSTEM_MGR_ANSWER_ONE,                    \
    System_mgr__ram_data)                                                                                              \
  X(GET_HDD_DATA, 15502, SYSTEM_MGR_SERVED_BY_LT | SYSTEM_MGR_SERVED_BY_FC, SYSTEM_MGR_ARGUMENT_NONE,                  \
    SYSTEM_MGR_ANSWER_ONE, System_mgr__hdd_data)                                                                       \
  X(CNTRL_LED_PANEL, 15503, SYSTEM_MGR_SERVED_BY_ALL, SYSTEM_MGR_ARGUMENT_LED, SYSTEM_MGR_ANSWER_EMPTY, void)          \
  X(GET_DEVICE_FACTORY, 15504, SYSTEM_MGR_SERVED_BY_ALL, SYSTEM_MGR_ARGUMENT_NONE, SYSTEM_MGR_ANSWER_ONE,              \
    System_mgr__factory)                                                                                               \
  X(GET_CRATE_FACTORY, 15505, SYSTEM_MGR_SERVED_BY_ALL, SYSTEM_MGR_ARGUMENT_NONE, SYSTEM_MGR_ANSWER_ONE,               \
    System_mgr__factory)                                                                                               \
  X(GET_FPGA_VERSION, 15506, SYSTEM_MGR_SERVED_BY_ALL, SYSTEM_MGR_ARGUMENT_NONE, SYSTEM_MGR_ANSWER_ONE,                \
    System_mgr__version)                                                                                               \
  X(GET_CPLD_VERSION, 15507, SYSTEM_MGR_SERVED_BY_ALL, SYSTEM_MGR_ARGUMENT_NONE, SYSTEM_MGR_ANSWER_ONE,                \
    System_mgr__version)                                                                                               \
  X(ENABLE_F_BUTTON, 15508, SYSTEM_MGR_SERVED_BY_ALL, SYSTEM_MGR_ARGUMENT_NONE, SYSTEM_MGR_ANSWER_EMPTY, void)         \
  X(ENABLE_F_BUTTON_HARD_RESET, 15509, SYSTEM_MGR_SERVED_BY_ALL, SYSTEM_MGR_ARGUMENT_NONE, SYSTEM_MGR_ANSWER_EMPTY,    \
    void)                                                                                                              \
  X(DISABLE_F_BUTTON, 15510, SYSTEM_MGR_SERVED_BY_ALL, SYSTEM_MGR_ARGUMENT_NONE, SYSTEM_MGR_ANSWER_EMPTY, void)        \
  X(DISABLE_F_BUTTON_HARD_RESET, 15511, SYSTEM_MGR_SERVED_BY_ALL, SYSTEM_MGR_ARGUMENT_NONE, SYSTEM_MGR_ANSWER_EMPTY,   \
    void)                                                                                                              \
  X(IS_F_BUTTON_ENABLED, 15512, SYSTEM_MGR_SERVED_BY_ALL, SYSTEM_MGR_ARGUMENT_NONE, SYSTEM_MGR_ANSWER_ONE,             \
    System_mgr__flag)                                                                                                  \
  X(IS_F_BUTTON_HARD_RESET_ENABLED, 15513, SYSTEM_MGR_SERVED_BY_ALL, SYSTEM_MGR_ARGUMENT_NONE, SYSTEM_MGR_ANSWER_ONE,  \
    System_mgr__flag)                                                                                                  \
  X(IS_F_BUTTON_PRESSED, 15514, SYSTEM_MGR_SERVED_BY_ALL, SYSTEM_MGR_ARGUMENT_NONE, SYSTEM_MGR_ANSWER_ONE,             \
    System_mgr__flag)                                                                                                  \
  X(GET_TEMP, 15515, SYSTEM_MGR_SERVED_BY_ALL, SYSTEM_MGR_ARGUMENT_NONE, SYSTEM_MGR_ANSWER_EACH,                       \
    System_mgr__temperature)                                                                                           \
  X(TRIGGER_EVENT_P_PORTS_SFP_MODULE_INJECT, 15516, SYSTEM_MGR_SERVED_BY_LT | SYSTEM_MGR_SERVED_BY_LC,                 \
    SYSTEM_MGR_ARGUMENT_NONE, SYSTEM_MGR_ANSWER_EMPTY, void)                                                           \
  X(TRIGGER_EVENT_F_PORTS_SFP_MODULE_INJECT, 15517, SYSTEM_MGR_SERVED_BY_LT | SYSTEM_MGR_SERVED_BY_FC,                 \
    SYSTEM_MGR_ARGUMENT_NONE, SYSTEM_MGR_ANSWER_EMPTY, void)                                                           \
  X(GET_P_PORT_EDDI_DATA, 15518, SYSTEM_MGR_SERVED_BY_LT | SYSTEM_MGR_SERVED_BY_LC, SYSTEM_MGR_ARGUMENT_PORT,          \
    SYSTEM_MGR_ANSWER_ONE, System_mgr__sfp_eddi_data)                                                                  \
  X(GET_F_PORT_EDDI_DATA, 15519, SYSTEM_MGR_SERVED_BY_LT | SYSTEM_MGR_SERVED_BY_FC, SYSTEM_MGR_ARGUMENT_PORT,          \
    SYSTEM_MGR_ANSWER_ONE, System_mgr__sfp_eddi_data)                                                                  \
  X(GET_P_PORT_RX_POWER, 15520, SYSTEM_MGR_SERVED_BY_LT | SYSTEM_MGR_SERVED_BY_LC, SYSTEM_MGR_ARGUMENT_PORT,           \
    SYSTEM_MGR_ANSWER_ONE, System_mgr__rx_power)                                                                       \
  X(GET_P_PORTS_TOTAL_INFO, 15521, SYSTEM_MGR_SERVED_BY_LT | SYSTEM_MGR_SERVED_BY_LC, SYSTEM_MGR_ARGUMENT_NONE,        \
    SYSTEM_MGR_ANSWER_EACH, SfpModuleRecord)                                                                           \
  X(GET_F_PORTS_TOTAL_INFO, 15522, SYSTEM_MGR_SERVED_BY_LT | SYSTEM_MGR_SERVED_BY_FC, SYSTEM_MGR_ARGUMENT_NONE,        \
    SYSTEM_MGR_ANSWER_EACH, SfpModuleRecord)                                                                           \
  X(ENABLE_P_PORT_SFP_MODULE_TRX, 15523, SYSTEM_MGR_SERVED_BY_LT | SYSTEM_MGR_SERVED_BY_LC, SYSTEM_MGR_ARGUMENT_PORT,  \
    SYSTEM_MGR_ANSWER_EMPTY, void)                                                                                     \
  X(ENABLE_F_PORT_SFP_MODULE_TRX, 15524, SYSTEM_MGR_SERVED_BY_LT | SYSTEM_MGR_SERVED_BY_FC, SYSTEM_MGR_ARGUMENT_PORT,  \
    SYSTEM_MGR_ANSWER_EMPTY, void)                                                                                     \
  X(DISABLE_P_PORT_SFP_MODULE_TRX, 15525, SYSTEM_MGR_SERVED_BY_LT | SYSTEM_MGR_SERVED_BY_LC, SYSTEM_MGR_ARGUMENT_PORT, \
    SYSTEM_MGR_ANSWER_EMPTY, void)                                                                                     \
  X(DISABLE_F_PORT_SFP_MODULE_TRX, 15526, SYSTEM_MGR_SERVED_BY_LT | SYSTEM_MGR_SERVED_BY_FC, SYSTEM_MGR_ARGUMENT_PORT, \
    SYSTEM_MGR_ANSWER_EMPTY, void)                                                                                     \
  X(GET_FAN_STATES, 15527, SYSTEM_MGR_SERVED_BY_LT, SYSTEM_MGR_ARGUMENT_NONE, SYSTEM_MGR_ANSWER_EACH,                  \
    System_mgr__fan_state)                                                                                             \
  X(SET_FAN_SPEED, 15528, SYSTEM_MGR_SERVED_BY_LT, SYSTEM_MGR_ARGUMENT_SPEED, SYSTEM_MGR_ANSWER_EMPTY, void)           \
  X(GET_PS_STATES, 15529, SYSTEM_MGR_SERVED_BY_LT, SYSTEM_MGR_ARGUMENT_NONE, SYSTEM_MGR_ANSWER_EACH,                   \
    System_mgr__ps_state)                                                                                              \
  X(GET_FAN_MODULE_STATE, 15530, SYSTEM_MGR_SERVED_BY_FC, SYSTEM_MGR_ARGUMENT_NONE, SYSTEM_MGR_ANSWER_ONE,             \
    System_mgr__fan_module_state)                                                                                      \
  X(GET_FAN_MODULE_FACTORY, 15531, SYSTEM_MGR_SERVED_BY_FC, SYSTEM_MGR_ARGUMENT_NONE, SYSTEM_MGR_ANSWER_ONE,           \
    System_mgr__fan_module_factory)                                                                                    \
  X(SET_FAN_MODULE_SPEED, 15532, SYSTEM_MGR_SERVED_BY_FC, SYSTEM_MGR_ARGUMENT_SPEED, SYSTEM_MGR_ANSWER_EMPTY, void)    \
  X(GET_PWR_MODULE_STATE, 15533, SYSTEM_MGR_SERVED_BY_FC, SYSTEM_MGR_ARGUMENT_NONE, SYSTEM_MGR_ANSWER_ONE,             \
    System_mgr__pwr_module_state)                                                                                      \
  X(P_PORT_R_LED_ON_G_LED_OFF, 15534, SYSTEM_MGR_SERVED_BY_ALL, SYSTEM_MGR_ARGUMENT_PORT, SYSTEM_MGR_ANSWER_EMPTY,     \
    void)                                                                                                              \
  X(P_PORT_G_LED_ON_R_LED_OFF, 15535, SYSTEM_MGR_SERVED_BY_ALL, SYSTEM_MGR_ARGUMENT_PORT, SYSTEM_MGR_ANSWER_EMPTY,     \
    void)                                                                                                              \
  X(P_PORT_LED_OFF, 15536, SYSTEM_MGR_SERVED_BY_ALL, SYSTEM_MGR_ARGUMENT_PORT, SYSTEM_MGR_ANSWER_EMPTY, void)

/* Requests answered by the daemon (module word IPC_SYSTEM_MGR): IPC_SYSTEM_MGR__<NAME> = id. */
#define SYSTEM_MGR_REQUEST_ID(name, id, families, argument, shape, record) IPC_SYSTEM_MGR__##name = (id),
enum System_mgr__request_id { SYSTEM_MGR_REQUESTS(SYSTEM_MGR_REQUEST_ID) };
#undef SYSTEM_MGR_REQUEST_ID

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

/*
 * The alarm kinds: X(NAME, Alarm::alarm_id, the kind as a client names it). What Alarm::instance
 * and Alarm::value hold for each:
 *   RAM            instance 0; value[0] free RAM in percent
 *   FAN            instance: fan from 1 (0 for the fan module fault); value[0] rpm
 *   LOAD_AVERAGE   instance 0; value[0..2] 1, 5, 15 minute load average x 100
 *   TEMPERATURE    instance: sensor from 1; first byte of value[0] int8 degrees C
 *   DISK_SPACE     instance: partition from 0; value[0] free space in percent
 *   POWER_SUPPLY   instance: supply from 1; no value
 */
#define SYSTEM_MGR_ALARMS(X)                \
  X(RAM, 1, "RAM")                          \
  X(FAN, 2, "fan")                          \
  X(LOAD_AVERAGE, 3, "system load average") \
  X(TEMPERATURE, 4, "temperature")          \
  X(DISK_SPACE, 45, "disk space")           \
  X(POWER_SUPPLY, 46, "power supply")

/* Alarm::alarm_id values: SYSTEM_MGR_ALARM_<NAME> = id. */
#define SYSTEM_MGR_ALARM_ID(name, id, text) SYSTEM_MGR_ALARM_##name = (id),
enum System_mgr__alarm_id { SYSTEM_MGR_ALARMS(SYSTEM_MGR_ALARM_ID) };
#undef SYSTEM_MGR_ALARM_ID

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

/* The answer to IPC_SYSTEM_MGR__GET_FPGA_VERSION and IPC_SYSTEM_MGR__GET_CPLD_VERSION: 1 byte. */
typedef struct SYSTEM_MGR_API_PACKED System_mgr__version {
  uint8_t version; /* the configuration version read from the board at start-up */
} System_mgr__version;

SYSTEM_MGR_API_STATIC_ASSERT(sizeof(System_mgr__version) == 1, "System_mgr__version is 1 byte");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__version, version) == 0, "version at byte 0");

/* The answer to the IPC_SYSTEM_MGR__IS_F_BUTTON_* requests: 1 byte. */
typedef struct SYSTEM_MGR_API_PACKED System_mgr__flag {
  uint8_t value; /* the driver's byte: non-zero means yes */
} System_mgr__flag;

SYSTEM_MGR_API_STATIC_ASSERT(sizeof(System_mgr__flag) == 1, "System_mgr__flag is 1 byte");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__flag, value) == 0, "flag at byte 0");

/* One sensor in the answer to IPC_SYSTEM_MGR__GET_TEMP: the board driver's record, packed,
 * little-endian, 8 bytes, one per sensor in the driver's order (none on a board without sensors). */
typedef struct SYSTEM_MGR_API_PACKED System_mgr__temperature {
  int32_t id;          /* sensor id: 0 PON SFP 1, 1 PON SFP 2, 2 front SFP, 3 switch chip, 4 PON chip */
  int8_t temperature;  /* degrees Celsius */
  uint8_t reserved[3]; /* zero */
} System_mgr__temperature;

SYSTEM_MGR_API_STATIC_ASSERT(sizeof(System_mgr__temperature) == 8, "System_mgr__temperature is 8 bytes");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__temperature, id) == 0, "sensor id at byte 0");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__temperature, temperature) == 4, "temperature at byte 4");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__temperature, reserved) == 5, "reserved from byte 5");

/* The answer to IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER: packed, little-endian, 8 bytes. */
typedef struct SYSTEM_MGR_API_PACKED System_mgr__rx_power {
  double value; /* c0 + c1.x + ... + c4.x^4 of the board's reading, in 0.1 microwatt units */
} System_mgr__rx_power;

SYSTEM_MGR_API_STATIC_ASSERT(sizeof(System_mgr__rx_power) == 8, "System_mgr__rx_power is 8 bytes");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__rx_power, value) == 0, "receive power at byte 0");

/* One fan in the answer to IPC_SYSTEM_MGR__GET_FAN_STATES: the board driver's record, packed,
 * little-endian, 4 bytes, fan 1 first. */
typedef struct SYSTEM_MGR_API_PACKED System_mgr__fan_state {
  uint8_t fault;   /* non-zero: the fan reports a fault */
  uint8_t present; /* non-zero: the fan is installed */
  uint16_t speed;  /* revolutions per second */
} System_mgr__fan_state;

SYSTEM_MGR_API_STATIC_ASSERT(sizeof(System_mgr__fan_state) == 4, "System_mgr__fan_state is 4 bytes");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__fan_state, fault) == 0, "fan fault at byte 0");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__fan_state, present) == 1, "fan present flag at byte 1");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__fan_state, speed) == 2, "fan speed at byte 2");

/* Speed bytes of the fan module record. */
enum { SYSTEM_MGR_FAN_MODULE_MAX_FANS = 28 };

/* The answer to IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE: the crate's fan module as the board
 * driver reports it, passed through unchanged. Packed, 50 bytes. The count is not checked
 * against the speed bytes: a count above 28 reads the bytes that follow. */
typedef struct SYSTEM_MGR_API_PACKED System_mgr__fan_module_state {
  uint8_t present;                               /* non-zero: the module is installed */
  uint8_t fault;                                 /* non-zero: the module reports a fault */
  uint8_t speed[SYSTEM_MGR_FAN_MODULE_MAX_FANS]; /* revolutions per second of fan 1 .. count */
  uint8_t count;                                 /* number of fans of the module */
  uint8_t speed_setting;                         /* last speed setting applied */
  uint8_t reserved[18];                          /* zero */
} System_mgr__fan_module_state;

SYSTEM_MGR_API_STATIC_ASSERT(sizeof(System_mgr__fan_module_state) == 50, "System_mgr__fan_module_state is 50 bytes");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__fan_module_state, present) == 0, "module present flag at byte 0");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__fan_module_state, fault) == 1, "module fault at byte 1");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__fan_module_state, speed) == 2, "fan speeds from byte 2");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__fan_module_state, count) == 30, "fan count at byte 30");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__fan_module_state, speed_setting) == 31, "speed setting at byte 31");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__fan_module_state, reserved) == 32, "reserved from byte 32");

/* The answer to IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY: the fan module's identification as the
 * board driver reports it. Packed, 42 bytes; the text fields are NUL-padded, not always terminated. */
typedef struct SYSTEM_MGR_API_PACKED System_mgr__fan_module_factory {
  char product_name[16];
  char serial_number[16];
  char hw_revision[4];
  char mfg_date[6]; /* YYMMDD */
} System_mgr__fan_module_factory;

SYSTEM_MGR_API_STATIC_ASSERT(sizeof(System_mgr__fan_module_factory) == 42,
                             "System_mgr__fan_module_factory is 42 bytes");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__fan_module_factory, product_name) == 0, "product name at byte 0");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__fan_module_factory, serial_number) == 16, "serial number at byte 16");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__fan_module_factory, hw_revision) == 32, "revision at byte 32");
SYSTEM_MGR_API_STATIC_ASSERT(offsetof(System_mgr__fan_module_factory, mfg_date) == 36, "date at byte 36");

#ifdef __cplusplus
}  // namespace xpon::system_mgr

#include <string_view>
#include <type_traits>

namespace xpon::system_mgr {

/// One entry of the request catalogue (SYSTEM_MGR_REQUESTS) as C++ reads it.
struct RequestInfo {
  std::uint16_t id;
  std::string_view name;  ///< "IPC_SYSTEM_MGR__GET_TEMP"
  unsigned families;      ///< SYSTEM_MGR_SERVED_BY_* bits
  System_mgr__request_argument argument;
  System_mgr__answer_shape answer;
  std::size_t record_size;  ///< bytes of one answer record; 0 for an empty answer
};

namespace detail {
template <typename Record>
constexpr std::size_t record_size() noexcept {
  if constexpr (std::is_void_v<Record>) {
    return 0;
  } else {
    return sizeof(Record);
  }
}
}  // namespace detail

#define SYSTEM_MGR_REQUEST_INFO(name, id, families, argument, shape, record) \
  RequestInfo{id, "IPC_SYSTEM_MGR__" #name, families, argument, shape, detail::record_size<record>()},
/// The request catalogue, in id order.
inline constexpr RequestInfo kRequestCatalogue[] = {SYSTEM_MGR_REQUESTS(SYSTEM_MGR_REQUEST_INFO)};
#undef SYSTEM_MGR_REQUEST_INFO

/// The catalogue entry of a request id; nullptr for an id that is not a request of the daemon.
constexpr const RequestInfo* find_request(std::uint16_t id) noexcept {
  for (const RequestInfo& info : kRequestCatalogue) {
    if (info.id == id) {
      return &info;
    }
  }
  return nullptr;
}

/// The bytes a request's argument needs (0 for none).
constexpr std::size_t argument_size(System_mgr__request_argument argument) noexcept {
  switch (argument) {
    case SYSTEM_MGR_ARGUMENT_PORT:
      return SYSTEM_MGR_PORT_ARGUMENT_SIZE;
    case SYSTEM_MGR_ARGUMENT_SPEED:
      return SYSTEM_MGR_SPEED_ARGUMENT_SIZE;
    case SYSTEM_MGR_ARGUMENT_LED:
      return SYSTEM_MGR_LED_ARGUMENT_SIZE;
    case SYSTEM_MGR_ARGUMENT_NONE:
      break;
  }
  return 0;
}

/// The name of an alarm kind ("system load average"); empty for an id that is not one.
constexpr std::string_view alarm_kind_name(std::uint32_t alarm_id) noexcept {
#define SYSTEM_MGR_ALARM_NAME(name, id, text) \
  if (alarm_id == (id)) {                     \
    return text;                              \
  }
  SYSTEM_MGR_ALARMS(SYSTEM_MGR_ALARM_NAME)
#undef SYSTEM_MGR_ALARM_NAME
  return {};
}

}  // namespace xpon::system_mgr
#endif

#endif /* XPON_SYSTEM_MGR_API_H */
