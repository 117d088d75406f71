#include "xpon/test/fuse.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace xpon::test {

std::string fuse_unavailable_reason(const std::string& device, const std::string& fusermount) {
  if (::access(device.c_str(), R_OK | W_OK) != 0) {
    return "FUSE is not usable here (" + device + ": " + std::strerror(errno) + "), so the board emulator cannot run";
  }
  if (::access(fusermount.c_str(), X_OK) != 0) {
    return "fusermount3 is not usable here (" + fusermount + ": " + std::strerror(errno) +
           "), so the board emulator cannot be mounted";
  }
  return {};
}

bool running_in_ci() {
  const char* ci = std::getenv("CI");
  return ci != nullptr && std::strcmp(ci, "true") == 0;
}

}  // namespace xpon::test
