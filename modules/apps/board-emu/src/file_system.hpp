#pragma once

// The emulator's files as a FUSE file system, shared by the FUSE mode (all three files) and the
// CUSE mode (board-state.json and board-control beside the character device).

#include "xpon/board_emu/emulator.hpp"
#include "xpon/logger/ilogger.hpp"

#include <string>

struct fuse;

namespace xpon::board_emu {

/// What a file system serves; it must outlive the mount.
struct ServedFiles {
  Emulator& emulator;
  bool board = true;  ///< false: only board-state.json and board-control
};

/// Creates the file system and mounts it at `mount_point` with the extra mount options
/// `options` ("-o" list); null, with the reason logged, when FUSE refuses.
fuse* mount_files(ServedFiles& files, const std::string& mount_point, const std::string& options,
                  logger::ILogger& logger);

/// Unmounts and destroys what mount_files made.
void unmount_files(fuse* filesystem);

}  // namespace xpon::board_emu
