#pragma once

#include "xpon/test/temp_dir.hpp"

#include <string>

namespace xpon::test {

/// A temporary XPON_ROOT for the processes a test starts: a fresh directory with the folders the
/// system's fixed paths live in (etc/zlog_modules_config, the device EEPROM's nvmem folder,
/// var/lib/xpon, run/xpon/ipc, and the watched flash partitions boot, data, configuration and
/// firmware/{primary,secondary}_firmware as plain folders). It leaves this process's own environment alone.
class Sandbox {
 public:
  /// Makes the directory under the system's temporary folder; throws std::runtime_error on failure.
  Sandbox();

  /// The root directory, the value for XPON_ROOT.
  [[nodiscard]] const std::string& root() const { return dir_.path(); }

  /// A path under the root: path("/dev/board") is "<root>/dev/board".
  [[nodiscard]] std::string path(const std::string& logical_path) const { return root() + logical_path; }

  /// The "XPON_ROOT=<root>" environment entry.
  [[nodiscard]] std::string environment_entry() const { return "XPON_ROOT=" + root(); }

 private:
  TempDir dir_{"xpon-sys"};  // kept short: IPC socket paths under the root must fit a sockaddr_un
};

}  // namespace xpon::test
