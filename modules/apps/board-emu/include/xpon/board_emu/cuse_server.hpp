#pragma once

#include "xpon/board_emu/emulator.hpp"
#include "xpon/logger/ilogger.hpp"

#include <string>

namespace xpon::board_emu {

/// Where and how to serve the board driver as a character device.
struct CuseOptions {
  std::string device_name = "board";      ///< the device appears as /dev/<device_name>
  std::string cuse_device = "/dev/cuse";  ///< the kernel's CUSE channel
  std::string state_dir;                  ///< an existing directory, absolute: board-state.json and board-control
  bool foreground = false;                ///< false: detach from the terminal once set up
};

/// Whether a name can be given to the character device: letters, digits, '.', '_' and '-'.
bool is_device_name(const std::string& name);

/// Creates /dev/<device_name> through CUSE, answering the driver commands from the emulator,
/// mounts board-state.json and board-control at the state directory with FUSE, tells systemd
/// READY=1 once the device exists, and serves both until SIGINT, SIGTERM or SIGHUP; then removes
/// the device and unmounts. Returns one of the exit statuses of fuse_server.hpp.
int serve_cuse(Emulator& emulator, const CuseOptions& options, logger::ILogger& logger);

}  // namespace xpon::board_emu
