#include "xpon/test/sandbox.hpp"

#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace xpon::test {

namespace {

// The folders the daemon and its tools expect to exist on a real board.
constexpr const char* kFolders[] = {
    "/etc/zlog_modules_config", "/sys/bus/nvmem/devices/device-eeprom0", "/var/lib/xpon", "/run/xpon/ipc",
    // The flash partitions whose free space the daemon watches.
    "/boot", "/data", "/configuration", "/firmware/primary_firmware", "/firmware/secondary_firmware"};

}  // namespace

Sandbox::Sandbox() {
  for (const char* folder : kFolders) {
    std::error_code error;
    std::filesystem::create_directories(path(folder), error);
    if (error) {
      throw std::runtime_error("cannot make " + path(folder) + ": " + error.message());
    }
  }
}

}  // namespace xpon::test
