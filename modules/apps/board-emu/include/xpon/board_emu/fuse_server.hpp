#pragma once

#include "xpon/board_emu/emulator.hpp"
#include "xpon/logger/ilogger.hpp"

#include <string>

namespace xpon::board_emu {

/// Exit statuses of xpon-board-emu.
inline constexpr int kExitClean = 0;        ///< unmounted after SIGINT or SIGTERM
inline constexpr int kExitFailure = 1;      ///< the file system failed while serving
inline constexpr int kExitUsage = 2;        ///< bad command line or bad scenario
inline constexpr int kExitMountFailed = 3;  ///< FUSE is not available or the mount was refused

/// Names of the files served in the mount directory.
inline constexpr const char* kBoardFile = "board";
inline constexpr const char* kStateFile = "board-state.json";
inline constexpr const char* kControlFile = "board-control";

/// Where and how to serve the emulator's files.
struct ServeOptions {
  std::string mount_point;  ///< an existing directory, absolute
  bool foreground = false;  ///< false: detach from the terminal once mounted
};

/// Mounts `board`, `board-state.json` and `board-control` at the mount point and serves them
/// until SIGINT or SIGTERM, then unmounts; returns one of the exit statuses above.
int serve(Emulator& emulator, const ServeOptions& options, logger::ILogger& logger);

/// Whether a text holds the start of a JSON value that more bytes could complete.
bool is_incomplete_json(const std::string& text);

}  // namespace xpon::board_emu
