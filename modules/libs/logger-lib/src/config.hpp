#pragma once

#include <spdlog/common.h>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace xpon::logger::detail {

/// A problem with a configuration file; the text names the file and the reason.
class ConfigError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class SinkType { Journal, Stderr, File };

/// One [[sink]] entry.
struct SinkConfig {
  SinkType type = SinkType::Stderr;
  std::string path;                                 // file sinks only
  std::size_t max_size = std::size_t{1024} * 1024;  // file sinks only: bytes before the file is rotated
  std::size_t max_files = 3;                        // file sinks only: rotated files kept besides the current one
};

/// The whole configuration of a logging context.
struct ContextConfig {
  spdlog::level::level_enum level = spdlog::level::info;
  std::string pattern;
  std::vector<SinkConfig> sinks;
};

/// Reads and checks the configuration file at `path`; throws ConfigError.
ContextConfig read_config(const std::string& path);

/// Checks a configuration text; `path` names it in error messages. Throws ConfigError.
ContextConfig parse_config(std::string_view text, const std::string& path);

/// The size in bytes of a max_size text ("1MiB", "512KiB", "2GiB", "4096"); throws std::invalid_argument.
std::size_t parse_size(std::string_view text);

}  // namespace xpon::logger::detail
