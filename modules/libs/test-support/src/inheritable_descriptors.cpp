#include "xpon/test/inheritable_descriptors.hpp"

#include <fcntl.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace xpon::test {

namespace {

/// The descriptors of /proc/<process> whose flags in fdinfo lack O_CLOEXEC (the kernel shows
/// FD_CLOEXEC there as O_CLOEXEC); the standard streams are left out.
std::set<std::string> inheritable_descriptors_in(const std::filesystem::path& process) {
  std::set<std::string> found;
  std::error_code error;
  // Listing our own /proc/self/fd opens a directory descriptor, which is close-on-exec.
  for (const auto& entry : std::filesystem::directory_iterator(process / "fd", error)) {
    const std::string name = entry.path().filename().string();
    int number = -1;
    const auto [end, parse_error] = std::from_chars(name.data(), name.data() + name.size(), number);
    if (parse_error != std::errc{} || end != name.data() + name.size() || number <= 2) {
      continue;
    }
    std::ifstream info(process / "fdinfo" / name);
    std::string key;
    std::string flags;
    while (info >> key >> flags && key != "flags:") {
    }
    unsigned long value = 0;
    if (key != "flags:" || std::from_chars(flags.data(), flags.data() + flags.size(), value, 8).ec != std::errc{} ||
        (value & static_cast<unsigned long>(O_CLOEXEC)) != 0) {
      continue;  // closed meanwhile, or close-on-exec
    }
    std::error_code link_error;
    const auto target = std::filesystem::read_symlink(entry.path(), link_error);
    found.insert(name + " -> " + (link_error ? std::string("?") : target.string()));
  }
  return found;
}

}  // namespace

std::set<std::string> inheritable_descriptors() {
  return inheritable_descriptors_in("/proc/self");
}

std::set<std::string> inheritable_descriptors(pid_t process) {
  return inheritable_descriptors_in(std::filesystem::path("/proc") / std::to_string(process));
}

std::set<std::string> added_descriptors(const std::set<std::string>& before, const std::set<std::string>& after) {
  std::set<std::string> added;
  std::set_difference(after.begin(), after.end(), before.begin(), before.end(), std::inserter(added, added.end()));
  return added;
}

std::size_t descriptors_open_on(const std::string& target) {
  std::size_t count = 0;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
    std::error_code link_error;
    if (std::filesystem::read_symlink(entry.path(), link_error).string() == target && !link_error) {
      ++count;
    }
  }
  return count;
}

}  // namespace xpon::test
