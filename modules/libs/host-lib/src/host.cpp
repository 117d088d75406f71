#include "xpon/host/host.hpp"

#include <sys/sysinfo.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

namespace xpon::host {

int IHost::format(char* out, std::size_t size, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  const int written = vformat(out, size, format, arguments);
  va_end(arguments);
  return written;
}

int SystemHost::getloadavg(double* averages, int count) {
  return ::getloadavg(averages, count);
}

long SystemHost::get_phys_pages() {
  return ::get_phys_pages();
}

long SystemHost::get_avphys_pages() {
  return ::get_avphys_pages();
}

int SystemHost::statvfs(const char* path, struct statvfs* out) {
  return ::statvfs(path, out);
}

std::optional<std::string> SystemHost::read_file(const char* path) {
  std::ifstream stream(path);
  if (!stream.is_open()) {
    return std::nullopt;
  }
  std::ostringstream text;
  text << stream.rdbuf();
  return std::move(text).str();
}

int SystemHost::vformat(char* out, std::size_t size, const char* format, std::va_list arguments) {
  return std::vsnprintf(out, size, format, arguments);
}

std::shared_ptr<IHost> system_host() {
  // Stateless, so one object serves every function for the life of the process.
  static const std::shared_ptr<IHost> host = std::make_shared<SystemHost>();
  return host;
}

}  // namespace xpon::host
