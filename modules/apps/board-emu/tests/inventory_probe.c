/*
 * Reads the six inventory bytes of the board driver the way any C client does, knowing only
 * the request codes of the driver header, then changes the fan count through board-control
 * and reads it again.
 *
 * Usage: inventory_probe DEV_DIR   (DEV_DIR holds board and board-control)
 * Prints one "name=value" line per inventory byte, then "fan_count after patch=value".
 * Exit status: 0 when the patched value came back, 1 otherwise.
 */
#include "xpon/board/driver_abi.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

struct inventory_command {
  const char* name;
  unsigned long request;
};

static const struct inventory_command commands[] = {
    {"cpld_version", BOARD_GET_CPLD_VERSION},
    {"fan_count", BOARD_GET_FAN_COUNT},
    {"ps_count", BOARD_GET_PS_COUNT},
    {"temp_count", BOARD_GET_TEMP_COUNT},
    {"pon_port_count", BOARD_GET_PON_PORT_COUNT},
    {"front_port_count", BOARD_GET_FRONT_PORT_COUNT},
};

static int read_byte(int fd, unsigned long request, const char* name, uint8_t* value) {
  if (ioctl(fd, request, value) != 0) {
    fprintf(stderr, "ioctl %s failed: %s\n", name, strerror(errno));
    return -1;
  }
  return 0;
}

int main(int argc, char** argv) {
  char board_path[4096];
  char control_path[4096];
  char patch[64];
  uint8_t values[6];
  uint8_t wanted;
  uint8_t fan_count = 0;
  size_t i;
  int fd;
  int control;
  int length;

  if (argc != 2) {
    fprintf(stderr, "usage: %s DEV_DIR\n", argv[0]);
    return 2;
  }
  snprintf(board_path, sizeof board_path, "%s/board", argv[1]);
  snprintf(control_path, sizeof control_path, "%s/board-control", argv[1]);

  fd = open(board_path, O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    fprintf(stderr, "cannot open %s: %s\n", board_path, strerror(errno));
    return 1;
  }
  for (i = 0; i < sizeof commands / sizeof commands[0]; ++i) {
    if (read_byte(fd, commands[i].request, commands[i].name, &values[i]) != 0) {
      close(fd);
      return 1;
    }
    printf("%s=%u\n", commands[i].name, (unsigned)values[i]);
  }

  wanted = (uint8_t)(values[1] + 1u);
  length = snprintf(patch, sizeof patch, "{\"inventory\": {\"fan_count\": %u}}\n", (unsigned)wanted);
  control = open(control_path, O_WRONLY | O_CLOEXEC);
  if (control < 0 || write(control, patch, (size_t)length) != length) {
    fprintf(stderr, "cannot write %s: %s\n", control_path, strerror(errno));
    close(fd);
    return 1;
  }
  close(control);

  if (read_byte(fd, BOARD_GET_FAN_COUNT, "fan_count", &fan_count) != 0) {
    close(fd);
    return 1;
  }
  printf("fan_count after patch=%u\n", (unsigned)fan_count);
  close(fd);
  return fan_count == wanted ? 0 : 1;
}
