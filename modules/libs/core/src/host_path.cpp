#include "xpon/core/host_path.hpp"

#include <cstdlib>

namespace xpon::core {

namespace {

bool is_proc_path(std::string_view path) {
  return path == "/proc" || path.starts_with("/proc/");
}

}  // namespace

std::string host_path(std::string_view logical_path, std::string_view root) {
  if (root.empty() || is_proc_path(logical_path)) {
    return std::string(logical_path);
  }
  while (root.size() > 1 && root.ends_with('/')) {
    root.remove_suffix(1);
  }
  std::string resolved(root == "/" ? std::string_view{} : root);
  if (!logical_path.starts_with('/')) {
    resolved += '/';
  }
  resolved += logical_path;
  return resolved;
}

std::string host_path(std::string_view logical_path) {
  const char* root = std::getenv(kRootVariable.data());
  return host_path(logical_path, root != nullptr ? std::string_view(root) : std::string_view{});
}

}  // namespace xpon::core
