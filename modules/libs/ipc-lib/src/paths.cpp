#include "xpon/ipc/paths.hpp"

#include "xpon/core/host_path.hpp"

#include <fmt/format.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace xpon::ipc {

std::string ipc_directory() {
  return core::host_path("/run") + "/xpon/ipc";
}

std::string address_hex(Address address) {
  return fmt::format("{:08x}", address);
}

std::string inbox_endpoint(Address address) {
  return "ipc://" + ipc_directory() + "/" + address_hex(address);
}

std::string bus_in_endpoint() {
  return "ipc://" + ipc_directory() + "/bus.in";
}

std::string bus_sub_endpoint() {
  return "ipc://" + ipc_directory() + "/bus.sub";
}

void ensure_ipc_directory() {
  const std::string directory = ipc_directory();
  std::error_code error;
  std::filesystem::create_directories(directory, error);
  if (error) {
    throw std::runtime_error(fmt::format("Cannot create the IPC directory {}: {}", directory, error.message()));
  }
}

}  // namespace xpon::ipc
