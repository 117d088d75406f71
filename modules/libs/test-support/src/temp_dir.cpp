#include "xpon/test/temp_dir.hpp"

#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace xpon::test {

namespace {

// The mount points /proc/self/mountinfo lists now (its fifth field).
template <typename Visit>
bool any_mount_point(Visit&& matches) {
  std::ifstream mounts("/proc/self/mountinfo");
  std::string line;
  while (std::getline(mounts, line)) {
    std::istringstream fields(line);
    std::string field;
    for (int i = 0; i < 5 && fields >> field; ++i) {
    }
    if (matches(field)) {
      return true;
    }
  }
  return false;
}

std::optional<std::string> environment_value(const std::string& name) {
  const char* value = std::getenv(name.c_str());
  return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

void set_environment(const std::string& name, const std::optional<std::string>& value) {
  if (value) {
    ::setenv(name.c_str(), value->c_str(), 1);
  } else {
    ::unsetenv(name.c_str());
  }
}

}  // namespace

TempDir::TempDir(const std::string& prefix) {
  std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("mkdtemp " + pattern + ": " + std::strerror(errno));
  }
  path_ = pattern;
}

TempDir::~TempDir() {
  // Never remove through a mount that is still there: it would reach into, say, the emulator.
  if (has_mount_inside(path_)) {
    return;
  }
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::write(const std::string& relative, const std::string& text) const {
  std::string target = file(relative);
  std::ofstream out(target, std::ios::binary | std::ios::trunc);
  out << text;
  out.close();
  if (!out) {
    throw std::runtime_error("cannot write " + target);
  }
  return target;
}

ScopedEnv::ScopedEnv(std::string name, const std::optional<std::string>& value)
    : name_(std::move(name)), previous_(environment_value(name_)) {
  set_environment(name_, value);
}

ScopedEnv::~ScopedEnv() {
  set_environment(name_, previous_);
}

TempRoot::TempRoot(const std::string& prefix) : dir_(prefix), root_("XPON_ROOT", dir_.path()) {}

bool is_mount_point(const std::string& directory) {
  return any_mount_point([&](const std::string& mount) { return mount == directory; });
}

bool has_mount_inside(const std::string& directory) {
  const std::string prefix = directory + "/";
  return any_mount_point([&](const std::string& mount) { return mount == directory || mount.rfind(prefix, 0) == 0; });
}

}  // namespace xpon::test
