#include "descriptors.hpp"

#include <dirent.h>
#include <sys/resource.h>

#include <algorithm>

namespace xpon::ipc::detail {

std::size_t descriptor_reserve(std::size_t limit) noexcept {
  return std::max<std::size_t>(limit / 4, 16);
}

bool descriptors_to_spare(std::size_t open, std::size_t limit, std::size_t needed) noexcept {
  const std::size_t usable = limit - std::min(limit, descriptor_reserve(limit));
  return open <= usable && needed <= usable - open;
}

std::optional<std::size_t> descriptor_limit() noexcept {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
    return std::nullopt;
  }
  return static_cast<std::size_t>(limit.rlim_cur);
}

std::optional<std::size_t> count_open_descriptors() noexcept {
  // One getdents64 for a few hundred descriptors: cheap enough for each new destination.
  DIR* directory = ::opendir("/proc/self/fd");
  if (directory == nullptr) {
    return std::nullopt;
  }
  std::size_t count = 0;
  while (const dirent* entry = ::readdir(directory)) {
    if (entry->d_name[0] != '.') {
      ++count;
    }
  }
  ::closedir(directory);
  return count > 0 ? count - 1 : 0;  // the directory's own descriptor
}

bool process_has_descriptors(std::size_t needed) noexcept {
  const auto limit = descriptor_limit();
  if (!limit) {
    return true;
  }
  const auto open = count_open_descriptors();
  return !open || descriptors_to_spare(*open, *limit, needed);
}

}  // namespace xpon::ipc::detail
