#pragma once

#include <string>

namespace xpon::test {

/// A temporary XPON_ROOT: a fresh directory with the folders the system's fixed paths live in
/// (etc/zlog_modules_config, the device EEPROM's nvmem folder, var/lib/xpon, run/xpon/ipc).
/// The destructor removes it, unless something is still mounted inside, which it leaves alone
/// rather than reach into a foreign file system.
class Sandbox {
 public:
  /// Makes the directory under the system's temporary folder; throws std::runtime_error on failure.
  Sandbox();
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  /// The root directory, the value for XPON_ROOT.
  [[nodiscard]] const std::string& root() const { return root_; }

  /// A path under the root: path("/dev/board") is "<root>/dev/board".
  [[nodiscard]] std::string path(const std::string& logical_path) const;

  /// The "XPON_ROOT=<root>" environment entry.
  [[nodiscard]] std::string environment_entry() const { return "XPON_ROOT=" + root_; }

 private:
  std::string root_;
};

/// True when `directory` is a mount point now (as /proc/self/mountinfo lists it).
bool is_mount_point(const std::string& directory);

}  // namespace xpon::test
