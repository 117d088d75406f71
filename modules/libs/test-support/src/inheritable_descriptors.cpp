#include "xpon/test/inheritable_descriptors.hpp"

#include <fcntl.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <iterator>
#include <system_error>

namespace xpon::test {

std::set<std::string> inheritable_descriptors() {
  std::set<std::string> found;
  std::error_code error;
  // The listing's own directory descriptor is close-on-exec, so it never shows up here.
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
    const std::string name = entry.path().filename().string();
    int number = -1;
    const auto [end, parse_error] = std::from_chars(name.data(), name.data() + name.size(), number);
    if (parse_error != std::errc{} || end != name.data() + name.size() || number <= 2) {
      continue;
    }
    const int flags = ::fcntl(number, F_GETFD);
    if (flags < 0 || (flags & FD_CLOEXEC) != 0) {
      continue;
    }
    std::error_code link_error;
    const auto target = std::filesystem::read_symlink(entry.path(), link_error);
    found.insert(name + " -> " + (link_error ? std::string("?") : target.string()));
  }
  return found;
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
