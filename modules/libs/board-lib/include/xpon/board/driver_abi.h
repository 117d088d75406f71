/*
 * Board driver interface of the line card: the ioctl commands of the character
 * device /dev/board and the records they carry.
 *
 * This header is shared by the board driver, the board library (xpon::board)
 * and the board emulator, and is usable from C11 and C++. Every record is packed
 * and little-endian; its size is part of the interface and checked below.
 *
 * Every command has the ioctl type 'L'. Direction and argument size are encoded
 * in the request code (_IOR: the driver fills the record, _IOW: the driver reads
 * it, _IOWR: both), so a file system in user space can serve them as restricted
 * ioctls: the kernel copies exactly the encoded size each way. For that reason
 * no record holds a pointer; list commands use a fixed array sized to the
 * maximum and a count.
 *
 * List commands (BOARD_GET_TEMP_INFO, BOARD_GET_FAN_INFO, BOARD_GET_PS_INFO):
 * the caller sets `count` to the number of records it wants (at most the array
 * size); the driver fills records 0 .. n-1 in board order, n being the smaller
 * of that request and the number of devices the board has, and writes n back
 * into `count`.
 */
#ifndef XPON_BOARD_DRIVER_ABI_H
#define XPON_BOARD_DRIVER_ABI_H

#include <linux/ioctl.h>
#include <stdint.h>

#ifdef __cplusplus
#define BRD_ABI_STATIC_ASSERT(condition, message) static_assert(condition, message)
#else
#define BRD_ABI_STATIC_ASSERT(condition, message) _Static_assert(condition, message)
#endif

#define BRD_ABI_PACKED __attribute__((packed))

/* Name of the device node; a sandbox may place it under another root. */
#define BOARD_DEVICE_PATH "/dev/board"

/* The ioctl type letter of every board command. */
#define BOARD_IOCTL_TYPE 'L'

/* Array sizes of the list records. */
#define BRD_MAX_TEMP_SENSORS 16
#define BRD_MAX_FANS 16
#define BRD_MAX_POWER_SUPPLIES 8
#define WAKE_FAN_MODULE_MAX_FANS 28

/* ------------------------------------------------------------------------- */
/* Identifiers and modes                                                      */
/* ------------------------------------------------------------------------- */

/* A port number inside its group (P-ports or F-ports), counted from 0. */
typedef uint32_t Brd_api__port_id;

/* Mode of one LED. */
typedef enum Brd_api__led_mode {
  BRD_API__LED_MODE_OFF = 0,
  BRD_API__LED_MODE_ON = 1,
  BRD_API__LED_MODE_BLINK = 2
} Brd_api__led_mode;

/* Colour of an LED: on a two-colour P-port LED it selects the red or the green element. */
typedef enum Brd_api__led_color {
  BRD_API__LED_COLOR_GREEN = 0,
  BRD_API__LED_COLOR_YELLOW = 1,
  BRD_API__LED_COLOR_RED = 2
} Brd_api__led_color;

/* Front-panel LEDs addressed by Brd__led. */
typedef enum Brd_api__panel_led {
  BRD_API__PANEL_LED_POWER = 0,
  BRD_API__PANEL_LED_STATUS = 1,
  BRD_API__PANEL_LED_ALARM = 2,
  BRD_API__PANEL_LED_MASTER = 3,
  BRD_API__PANEL_LED_FAN = 4
} Brd_api__panel_led;

/* ------------------------------------------------------------------------- */
/* Records                                                                    */
/* ------------------------------------------------------------------------- */

/* One temperature sensor reading. */
typedef struct BRD_ABI_PACKED Brd__temp_info {
  int32_t id;          /* sensor id: 0 PON SFP 1, 1 PON SFP 2, 2 front SFP, 3 switch chip, 4 PON chip */
  int8_t temperature;  /* degrees Celsius */
  uint8_t reserved[3]; /* zero */
} Brd__temp_info;
BRD_ABI_STATIC_ASSERT(sizeof(Brd__temp_info) == 8, "Brd__temp_info is 8 bytes");

/* All temperature sensors (BOARD_GET_TEMP_INFO). */
typedef struct BRD_ABI_PACKED Brd__temp_list {
  uint32_t count; /* in: records wanted; out: records filled */
  Brd__temp_info info[BRD_MAX_TEMP_SENSORS];
} Brd__temp_list;
BRD_ABI_STATIC_ASSERT(sizeof(Brd__temp_list) == 4 + 8 * BRD_MAX_TEMP_SENSORS, "Brd__temp_list size");

/* One fan of the board. */
typedef struct BRD_ABI_PACKED Brd__fan_info {
  uint8_t fault;   /* non-zero: the fan reports a fault */
  uint8_t present; /* non-zero: the fan is installed */
  uint16_t speed;  /* revolutions per second */
} Brd__fan_info;
BRD_ABI_STATIC_ASSERT(sizeof(Brd__fan_info) == 4, "Brd__fan_info is 4 bytes");

/* All fans of the board (BOARD_GET_FAN_INFO). */
typedef struct BRD_ABI_PACKED Brd__fan_list {
  uint32_t count; /* in: records wanted; out: records filled */
  Brd__fan_info info[BRD_MAX_FANS];
} Brd__fan_list;
BRD_ABI_STATIC_ASSERT(sizeof(Brd__fan_list) == 4 + 4 * BRD_MAX_FANS, "Brd__fan_list size");

/* One power supply. Text fields are NUL-terminated. */
typedef struct BRD_ABI_PACKED Brd__ps_info {
  uint8_t id;            /* supply number on the board, from 0 */
  uint8_t is_present;    /* non-zero: the supply is installed */
  uint8_t is_power_good; /* non-zero: the output is good */
  uint8_t has_info;      /* non-zero: the identification fields are valid */
  uint8_t alert;         /* driver status bits of the supply, 0 when quiet */
  char model[31];
  char sn[17];
  char ver[6];
  char rev[2];
  char date[11];
} Brd__ps_info;
BRD_ABI_STATIC_ASSERT(sizeof(Brd__ps_info) == 72, "Brd__ps_info is 72 bytes");

/* All power supplies (BOARD_GET_PS_INFO). */
typedef struct BRD_ABI_PACKED Brd__ps_list {
  uint32_t count; /* in: records wanted; out: records filled */
  Brd__ps_info info[BRD_MAX_POWER_SUPPLIES];
} Brd__ps_list;
BRD_ABI_STATIC_ASSERT(sizeof(Brd__ps_list) == 4 + 72 * BRD_MAX_POWER_SUPPLIES, "Brd__ps_list size");

/* Front-panel LED command (BOARD_CNTRL_LED_PANEL). */
typedef struct BRD_ABI_PACKED Brd__led {
  uint32_t led;   /* Brd_api__panel_led */
  uint32_t mode;  /* Brd_api__led_mode */
  uint32_t color; /* Brd_api__led_color */
} Brd__led;
BRD_ABI_STATIC_ASSERT(sizeof(Brd__led) == 12, "Brd__led is 12 bytes");

/* State of one element of a P-port's two-colour LED (BOARD_P_PORT_SET_LED_STATE, BOARD_P_PORT_GET_LED_STATE). */
typedef struct BRD_ABI_PACKED Brd__p_port_led {
  uint32_t port;  /* Brd_api__port_id */
  uint32_t mode;  /* Brd_api__led_mode: 1 on, 0 off */
  uint32_t color; /* Brd_api__led_color: 2 red element, 0 green element */
} Brd__p_port_led;
BRD_ABI_STATIC_ASSERT(sizeof(Brd__p_port_led) == 12, "Brd__p_port_led is 12 bytes");

/* Presence and state of the SFP module of one port. */
typedef struct BRD_ABI_PACKED Brd__sfp_state {
  uint32_t port;    /* in: Brd_api__port_id */
  uint8_t present;  /* out: non-zero when a module sits in the cage */
  uint8_t tx_fault; /* out: the module's TX_FAULT line */
  uint8_t state;    /* out: module state byte, passed on to clients unchanged */
  uint8_t rx_los;   /* out: the module's RX_LOS line */
} Brd__sfp_state;
BRD_ABI_STATIC_ASSERT(sizeof(Brd__sfp_state) == 8, "Brd__sfp_state is 8 bytes");

/* Where the driver puts the module's SFF-8472 A0h base ID fields in Brd__sfp_data.data: offset and
   length of each, the A0h bytes they come from in brackets. Texts are ASCII padded with blanks, the
   wavelength is big-endian nanometres, as in the module's memory. The last byte (59) is zero; clients
   of system-mgr do not get it (SfpModuleRecord keeps bytes 0 to 58). The date code (A0h 84-91) does
   not fit and is not delivered. */
#define BRD_SFP_ID_IDENTIFIER 0   /* 1 byte [0]: 0x03 SFP/SFP+ */
#define BRD_SFP_ID_CONNECTOR 1    /* 1 byte [2]: 0x07 LC */
#define BRD_SFP_ID_VENDOR_NAME 2  /* 16 bytes [20-35] */
#define BRD_SFP_ID_VENDOR_OUI 18  /* 3 bytes [37-39] */
#define BRD_SFP_ID_PART_NUMBER 21 /* 16 bytes [40-55] */
#define BRD_SFP_ID_REVISION 37    /* 4 bytes [56-59] */
#define BRD_SFP_ID_WAVELENGTH 41  /* 2 bytes [60-61] */
#define BRD_SFP_ID_SERIAL 43      /* 16 bytes [68-83] */
#define BRD_SFP_ID_TEXT_LENGTH 16
#define BRD_SFP_ID_REVISION_LENGTH 4

/* Identification data of the SFP module of one port. */
typedef struct BRD_ABI_PACKED Brd__sfp_data {
  uint32_t port;    /* in: Brd_api__port_id */
  uint8_t data[60]; /* out: module identification data as read from the module */
} Brd__sfp_data;
BRD_ABI_STATIC_ASSERT(sizeof(Brd__sfp_data) == 64, "Brd__sfp_data is 64 bytes");

/* Word indexes into Brd__sfp_eddi_data.data: raw value, slope, offset of each quantity. */
#define BRD_SFP_EDDI_STATUS 0
#define BRD_SFP_EDDI_FLAGS 1
#define BRD_SFP_EDDI_TEMPERATURE 2
#define BRD_SFP_EDDI_VOLTAGE 5
#define BRD_SFP_EDDI_BIAS 8
#define BRD_SFP_EDDI_TX_POWER 11
#define BRD_SFP_EDDI_RESERVED 14

/* Digital diagnostics of the SFP module of one port. */
typedef struct BRD_ABI_PACKED Brd__sfp_eddi_data {
  uint32_t port;     /* in: Brd_api__port_id */
  uint16_t data[16]; /* out: words indexed by BRD_SFP_EDDI_* */
} Brd__sfp_eddi_data;
BRD_ABI_STATIC_ASSERT(sizeof(Brd__sfp_eddi_data) == 36, "Brd__sfp_eddi_data is 36 bytes");

/* Transmitter switch of the SFP module of one port. */
typedef struct BRD_ABI_PACKED Brd__cntrl_sfp_trx {
  uint32_t port;       /* Brd_api__port_id */
  uint8_t enable;      /* 1 transmitter on, 0 off */
  uint8_t reserved[3]; /* zero */
} Brd__cntrl_sfp_trx;
BRD_ABI_STATIC_ASSERT(sizeof(Brd__cntrl_sfp_trx) == 8, "Brd__cntrl_sfp_trx is 8 bytes");

/* Received optical power of a PON-port module: raw reading and its calibration polynomial. */
typedef struct BRD_ABI_PACKED Brd__sfp_rx_power {
  uint32_t port;        /* port the reading belongs to, as the driver reports it */
  uint16_t rx_power;    /* out: raw received-power word x */
  uint16_t reserved;    /* zero */
  float coefficient[5]; /* out: c0 .. c4; power = sum of c_k * x^k */
} Brd__sfp_rx_power;
BRD_ABI_STATIC_ASSERT(sizeof(Brd__sfp_rx_power) == 28, "Brd__sfp_rx_power is 28 bytes");

/* State of the crate's fan module. */
typedef struct BRD_ABI_PACKED Wake__fan_module__data {
  uint8_t present;                         /* non-zero: the module is installed */
  uint8_t fault;                           /* non-zero: the module reports a fault */
  uint8_t speed[WAKE_FAN_MODULE_MAX_FANS]; /* revolutions per second of fan 1 .. count */
  uint8_t count;                           /* number of fans of the module */
  uint8_t speed_setting;                   /* last speed setting applied */
  uint8_t reserved[18];                    /* zero */
} Wake__fan_module__data;
BRD_ABI_STATIC_ASSERT(sizeof(Wake__fan_module__data) == 50, "Wake__fan_module__data is 50 bytes");

/* Factory data of the crate's fan module. Text fields are NUL-padded, not always terminated. */
typedef struct BRD_ABI_PACKED Wake__fan_module__factory {
  char product_name[16];
  char serial_number[16];
  char hw_revision[4];
  char mfg_date[6]; /* YYMMDD */
} Wake__fan_module__factory;
BRD_ABI_STATIC_ASSERT(sizeof(Wake__fan_module__factory) == 42, "Wake__fan_module__factory is 42 bytes");

/* State of the crate's power module. */
typedef struct BRD_ABI_PACKED Wake__pwr_module {
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
} Wake__pwr_module;
BRD_ABI_STATIC_ASSERT(sizeof(Wake__pwr_module) == 20, "Wake__pwr_module is 20 bytes");

/* ------------------------------------------------------------------------- */
/* Commands                                                                   */
/* ------------------------------------------------------------------------- */

/* Inventory, one byte each, read once when the board library starts. */
#define BOARD_GET_CPLD_VERSION _IOR(BOARD_IOCTL_TYPE, 0x21, uint8_t)
#define BOARD_GET_FAN_COUNT _IOR(BOARD_IOCTL_TYPE, 0x22, uint8_t)
#define BOARD_GET_PS_COUNT _IOR(BOARD_IOCTL_TYPE, 0x23, uint8_t)
#define BOARD_GET_TEMP_COUNT _IOR(BOARD_IOCTL_TYPE, 0x24, uint8_t)
#define BOARD_GET_PON_PORT_COUNT _IOR(BOARD_IOCTL_TYPE, 0x25, uint8_t)
#define BOARD_GET_FRONT_PORT_COUNT _IOR(BOARD_IOCTL_TYPE, 0x26, uint8_t)

/* FPGA configuration version, one byte. */
#define BOARD_GET_FPGA_VERSION _IOR(BOARD_IOCTL_TYPE, 0x27, uint8_t)

/* Front button: queries fill one byte (non-zero = yes); settings take one byte (1 enable, 0 disable). */
#define BOARD_F_BTN_IS_PRESSED _IOR(BOARD_IOCTL_TYPE, 0x30, uint8_t)
#define BOARD_F_BTN_IS_POLLING_ENABLED _IOR(BOARD_IOCTL_TYPE, 0x31, uint8_t)
#define BOARD_F_BTN_IS_HARD_RESET_ENABLED _IOR(BOARD_IOCTL_TYPE, 0x32, uint8_t)
#define BOARD_F_BTN_SET_POLLING _IOW(BOARD_IOCTL_TYPE, 0x33, uint8_t)
#define BOARD_F_BTN_SET_HARD_RESET _IOW(BOARD_IOCTL_TYPE, 0x34, uint8_t)

/* Board fans, power supplies and temperature sensors. */
#define BOARD_SET_FAN_SPEED _IOW(BOARD_IOCTL_TYPE, 0x40, uint8_t)
#define BOARD_GET_FAN_INFO _IOWR(BOARD_IOCTL_TYPE, 0x41, Brd__fan_list)
#define BOARD_GET_PS_INFO _IOWR(BOARD_IOCTL_TYPE, 0x42, Brd__ps_list)
#define BOARD_GET_TEMP_INFO _IOWR(BOARD_IOCTL_TYPE, 0x43, Brd__temp_list)

/* Crate fan module and power module. */
#define BOARD_SET_FAN_MODULE_SPEED _IOW(BOARD_IOCTL_TYPE, 0x48, uint8_t)
#define BOARD_GET_FAN_MODULE_FACTORY _IOR(BOARD_IOCTL_TYPE, 0x49, Wake__fan_module__factory)
#define BOARD_GET_FAN_MODULE_STATE _IOR(BOARD_IOCTL_TYPE, 0x4A, Wake__fan_module__data)
#define BOARD_GET_PWR_MODULE_STATE _IOR(BOARD_IOCTL_TYPE, 0x4B, Wake__pwr_module)

/* LEDs. */
#define BOARD_CNTRL_LED_PANEL _IOW(BOARD_IOCTL_TYPE, 0x50, Brd__led)
#define BOARD_P_PORT_SET_LED_STATE _IOW(BOARD_IOCTL_TYPE, 0x51, Brd__p_port_led)
#define BOARD_P_PORT_GET_LED_STATE _IOWR(BOARD_IOCTL_TYPE, 0x52, Brd__p_port_led)

/* SFP modules. The port number travels in the record. */
#define BOARD_CNTRL_P_PORT_SFP_TRX _IOW(BOARD_IOCTL_TYPE, 0x60, Brd__cntrl_sfp_trx)
#define BOARD_CNTRL_F_PORT_SFP_TRX _IOW(BOARD_IOCTL_TYPE, 0x61, Brd__cntrl_sfp_trx)
#define BOARD_GET_P_PORT_SFP_TRX _IOWR(BOARD_IOCTL_TYPE, 0x62, Brd__cntrl_sfp_trx)
#define BOARD_GET_F_PORT_SFP_STATE _IOWR(BOARD_IOCTL_TYPE, 0x63, Brd__sfp_state)
#define BOARD_GET_P_PORT_SFP_STATE _IOWR(BOARD_IOCTL_TYPE, 0x64, Brd__sfp_state)
#define BOARD_GET_F_PORT_SFP_DATA _IOWR(BOARD_IOCTL_TYPE, 0x65, Brd__sfp_data)
#define BOARD_GET_P_PORT_SFP_DATA _IOWR(BOARD_IOCTL_TYPE, 0x66, Brd__sfp_data)
#define BOARD_GET_F_PORT_SFP_EDDI_DATA _IOWR(BOARD_IOCTL_TYPE, 0x67, Brd__sfp_eddi_data)
#define BOARD_GET_P_PORT_SFP_EDDI_DATA _IOWR(BOARD_IOCTL_TYPE, 0x68, Brd__sfp_eddi_data)
#define BOARD_GET_P_PORT_SFP_RX_POWER _IOWR(BOARD_IOCTL_TYPE, 0x69, Brd__sfp_rx_power)

/* ------------------------------------------------------------------------- */
/* The command list                                                           */
/* ------------------------------------------------------------------------- */

/*
 * Every command above, in the order of this header, as X(command, record): `command` is the
 * name of its request code, `record` the type of the argument whose size the code encodes.
 * This list is the one enumeration of the driver's commands: the board library's command names,
 * the emulator's operation table and the test doubles are generated from it, so a new command is
 * its request code above and one line here (and, in the emulator, its answer).
 */
#define BRD_DRIVER_COMMANDS(X)                               \
  X(BOARD_GET_CPLD_VERSION, uint8_t)                         \
  X(BOARD_GET_FAN_COUNT, uint8_t)                            \
  X(BOARD_GET_PS_COUNT, uint8_t)                             \
  X(BOARD_GET_TEMP_COUNT, uint8_t)                           \
  X(BOARD_GET_PON_PORT_COUNT, uint8_t)                       \
  X(BOARD_GET_FRONT_PORT_COUNT, uint8_t)                     \
  X(BOARD_GET_FPGA_VERSION, uint8_t)                         \
  X(BOARD_F_BTN_IS_PRESSED, uint8_t)                         \
  X(BOARD_F_BTN_IS_POLLING_ENABLED, uint8_t)                 \
  X(BOARD_F_BTN_IS_HARD_RESET_ENABLED, uint8_t)              \
  X(BOARD_F_BTN_SET_POLLING, uint8_t)                        \
  X(BOARD_F_BTN_SET_HARD_RESET, uint8_t)                     \
  X(BOARD_SET_FAN_SPEED, uint8_t)                            \
  X(BOARD_GET_FAN_INFO, Brd__fan_list)                       \
  X(BOARD_GET_PS_INFO, Brd__ps_list)                         \
  X(BOARD_GET_TEMP_INFO, Brd__temp_list)                     \
  X(BOARD_SET_FAN_MODULE_SPEED, uint8_t)                     \
  X(BOARD_GET_FAN_MODULE_FACTORY, Wake__fan_module__factory) \
  X(BOARD_GET_FAN_MODULE_STATE, Wake__fan_module__data)      \
  X(BOARD_GET_PWR_MODULE_STATE, Wake__pwr_module)            \
  X(BOARD_CNTRL_LED_PANEL, Brd__led)                         \
  X(BOARD_P_PORT_SET_LED_STATE, Brd__p_port_led)             \
  X(BOARD_P_PORT_GET_LED_STATE, Brd__p_port_led)             \
  X(BOARD_CNTRL_P_PORT_SFP_TRX, Brd__cntrl_sfp_trx)          \
  X(BOARD_CNTRL_F_PORT_SFP_TRX, Brd__cntrl_sfp_trx)          \
  X(BOARD_GET_P_PORT_SFP_TRX, Brd__cntrl_sfp_trx)            \
  X(BOARD_GET_F_PORT_SFP_STATE, Brd__sfp_state)              \
  X(BOARD_GET_P_PORT_SFP_STATE, Brd__sfp_state)              \
  X(BOARD_GET_F_PORT_SFP_DATA, Brd__sfp_data)                \
  X(BOARD_GET_P_PORT_SFP_DATA, Brd__sfp_data)                \
  X(BOARD_GET_F_PORT_SFP_EDDI_DATA, Brd__sfp_eddi_data)      \
  X(BOARD_GET_P_PORT_SFP_EDDI_DATA, Brd__sfp_eddi_data)      \
  X(BOARD_GET_P_PORT_SFP_RX_POWER, Brd__sfp_rx_power)

/*
 * The inventory, read once when the board library starts, in this order, as X(command, value):
 * `value` is the name the board library and the emulator give the byte the command answers.
 */
#define BRD_DRIVER_INVENTORY(X)               \
  X(BOARD_GET_CPLD_VERSION, cpld_version)     \
  X(BOARD_GET_FAN_COUNT, fan_count)           \
  X(BOARD_GET_PS_COUNT, ps_count)             \
  X(BOARD_GET_TEMP_COUNT, temp_count)         \
  X(BOARD_GET_PON_PORT_COUNT, pon_port_count) \
  X(BOARD_GET_FRONT_PORT_COUNT, front_port_count)

/* Each command has the type 'L' and encodes the size of the record the list gives it. */
#define BRD_ABI_CHECK_COMMAND(command, record)                                                          \
  BRD_ABI_STATIC_ASSERT(_IOC_TYPE(command) == BOARD_IOCTL_TYPE && _IOC_SIZE(command) == sizeof(record), \
                        #command " has the type 'L' and the size of its record");
BRD_DRIVER_COMMANDS(BRD_ABI_CHECK_COMMAND)
#undef BRD_ABI_CHECK_COMMAND

/* Each inventory command reads one byte. */
#define BRD_ABI_CHECK_INVENTORY(command, value) \
  BRD_ABI_STATIC_ASSERT(_IOC_DIR(command) == _IOC_READ && _IOC_SIZE(command) == 1, #command " reads one byte");
BRD_DRIVER_INVENTORY(BRD_ABI_CHECK_INVENTORY)
#undef BRD_ABI_CHECK_INVENTORY

#endif /* XPON_BOARD_DRIVER_ABI_H */
