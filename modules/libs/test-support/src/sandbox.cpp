#include "xpon/test/sandbox.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace xpon::test {

namespace {

// The folders the daemon and its tools expect to exist on a real board.
constexpr const char* kFolders[] = {"/etc/zlog_modules_config", "/sys/bus/nvmem/devices/device-eeprom0",
                                    "/var/lib/xpon", "/run/xpon/ipc"};

}  // namespace

Sandbox::Sandbox() {
  // Kept short: IPC socket paths under the root must fit a sockaddr_un.
  std::string pattern = (std::filesystem::temp_directory_path() / "xpon-sys-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error(std::string("mkdtemp: ") + std::strerror(errno));
  }
  root_ = pattern;
  for (const char* folder : kFolders) {
    std::error_code error;
    std::filesystem::create_directories(path(folder), error);
    if (error) {
      throw std::runtime_error("cannot make " + path(folder) + ": " + error.message());
    }
  }
}

Sandbox::~Sandbox() {
  // Never remove through a mount that is still there: it would reach into the emulator.
  std::ifstream mounts("/proc/self/mountinfo");
  std::string line;
  while (std::getline(mounts, line)) {
    std::istringstream fields(line);
    std::string field;
    for (int i = 0; i < 5 && fields >> field; ++i) {
    }
    if (field.rfind(root_ + "/", 0) == 0) {
      return;
    }
  }
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

std::string Sandbox::path(const std::string& logical_path) const {
  return root_ + logical_path;
}

bool is_mount_point(const std::string& directory) {
  std::ifstream mounts("/proc/self/mountinfo");
  std::string line;
  while (std::getline(mounts, line)) {
    // Field 5 is the mount point.
    std::istringstream fields(line);
    std::string field;
    for (int i = 0; i < 5 && fields >> field; ++i) {
    }
    if (field == directory) {
      return true;
    }
  }
  return false;
}

}  // namespace xpon::test
