#include "config.hpp"

#include "registry.hpp"
#include "xpon/core/file_descriptor.hpp"

#include <fcntl.h>

#include <fmt/format.h>
#include <toml++/toml.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <limits>
#include <optional>
#include <system_error>
#include <utility>

namespace xpon::logger::detail {

namespace {

// A logging configuration is a few lines; anything this large is not one.
constexpr std::size_t kMaxConfigBytes = std::size_t{1024} * 1024;
constexpr std::int64_t kMaxRotatedFiles = 1000;

std::string errno_text(int error) {
  return std::generic_category().message(error);
}

template <typename... Args>
[[noreturn]] void fail(const std::string& path, fmt::format_string<Args...> format, Args&&... args) {
  throw ConfigError(fmt::format("{}: {}", path, fmt::format(format, std::forward<Args>(args)...)));
}

std::optional<spdlog::level::level_enum> level_from_name(std::string_view name) {
  static constexpr std::array<std::pair<std::string_view, spdlog::level::level_enum>, 7> kLevels{{
      {"trace", spdlog::level::trace},
      {"debug", spdlog::level::debug},
      {"info", spdlog::level::info},
      {"warn", spdlog::level::warn},
      {"error", spdlog::level::err},
      {"critical", spdlog::level::critical},
      {"off", spdlog::level::off},
  }};
  for (const auto& [text, level] : kLevels) {
    if (text == name) {
      return level;
    }
  }
  return std::nullopt;
}

std::string_view sink_type_name(SinkType type) {
  switch (type) {
    case SinkType::Journal:
      return "journal";
    case SinkType::Stderr:
      return "stderr";
    case SinkType::File:
      return "file";
  }
  return "unknown";
}

std::size_t read_max_size(const toml::node& node, const std::string& path) {
  if (const auto* integer = node.as_integer()) {
    const std::int64_t bytes = integer->get();
    if (bytes <= 0) {
      fail(path, "bad max_size '{}' (a size in bytes, KiB, MiB or GiB, such as \"1MiB\")", bytes);
    }
    return static_cast<std::size_t>(bytes);
  }
  if (const auto* text = node.as_string()) {
    try {
      return parse_size(text->get());
    } catch (const std::invalid_argument&) {
      fail(path, "bad max_size '{}' (a size in bytes, KiB, MiB or GiB, such as \"1MiB\")", text->get());
    }
  }
  fail(path, "max_size must be a string or a whole number");
}

std::size_t read_max_files(const toml::node& node, const std::string& path) {
  const auto* integer = node.as_integer();
  if (integer == nullptr) {
    fail(path, "max_files must be a whole number");
  }
  const std::int64_t count = integer->get();
  if (count < 0 || count > kMaxRotatedFiles) {
    fail(path, "bad max_files {} (0 to {})", count, kMaxRotatedFiles);
  }
  return static_cast<std::size_t>(count);
}

SinkConfig read_sink(const toml::table& table, const std::string& path) {
  SinkConfig sink;
  const toml::node* type_node = table.get("type");
  if (type_node == nullptr) {
    fail(path, "sink without type");
  }
  const auto* type_text = type_node->as_string();
  if (type_text == nullptr) {
    fail(path, "sink type must be a string");
  }
  const std::string& type = type_text->get();
  if (type == "journal") {
    sink.type = SinkType::Journal;
  } else if (type == "stderr") {
    sink.type = SinkType::Stderr;
  } else if (type == "file") {
    sink.type = SinkType::File;
  } else {
    fail(path, "unknown sink type '{}'", type);
  }

  for (const auto& [key, value] : table) {
    const std::string_view name = key.str();
    if (name == "type") {
      continue;
    }
    if (sink.type != SinkType::File) {
      fail(path, "unknown key '{}' in a {} sink", name, sink_type_name(sink.type));
    }
    if (name == "path") {
      const auto* text = value.as_string();
      if (text == nullptr) {
        fail(path, "file sink path must be a string");
      }
      if (text->get().empty()) {
        fail(path, "file sink path is empty");
      }
      if (text->get().find('\0') != std::string::npos) {
        fail(path, "file sink path contains a NUL character");
      }
      sink.path = text->get();
    } else if (name == "max_size") {
      sink.max_size = read_max_size(value, path);
    } else if (name == "max_files") {
      sink.max_files = read_max_files(value, path);
    } else {
      fail(path, "unknown key '{}' in a file sink", name);
    }
  }
  if (sink.type == SinkType::File && sink.path.empty()) {
    fail(path, "file sink without path");
  }
  return sink;
}

}  // namespace

std::size_t parse_size(std::string_view text) {
  std::uint64_t number = 0;
  const char* const begin = text.data();
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(begin, end, number);
  if (error != std::errc{} || rest == begin) {
    throw std::invalid_argument("not a size");
  }
  const std::string_view unit(rest, static_cast<std::size_t>(end - rest));
  std::uint64_t scale = 0;
  if (unit.empty()) {
    scale = 1;
  } else if (unit == "KiB") {
    scale = std::uint64_t{1} << 10U;
  } else if (unit == "MiB") {
    scale = std::uint64_t{1} << 20U;
  } else if (unit == "GiB") {
    scale = std::uint64_t{1} << 30U;
  } else {
    throw std::invalid_argument("unknown unit");
  }
  if (number == 0 || number > std::numeric_limits<std::size_t>::max() / scale) {
    throw std::invalid_argument("size out of range");
  }
  return static_cast<std::size_t>(number * scale);
}

ContextConfig parse_config(std::string_view text, const std::string& path) {
  toml::table document;
  try {
    document = toml::parse(text, path);
  } catch (const toml::parse_error& error) {
    fail(path, "syntax error at line {}, column {}: {}", error.source().begin.line, error.source().begin.column,
         error.description());
  }

  ContextConfig config;
  config.pattern = std::string(kDefaultPattern);
  bool has_sink_key = false;
  for (const auto& [key, value] : document) {
    const std::string_view name = key.str();
    if (name == "level") {
      const auto* level = value.as_string();
      if (level == nullptr) {
        fail(path, "level must be a string");
      }
      const auto parsed = level_from_name(level->get());
      if (!parsed) {
        fail(path, "unknown level '{}'", level->get());
      }
      config.level = *parsed;
    } else if (name == "pattern") {
      const auto* pattern = value.as_string();
      if (pattern == nullptr) {
        fail(path, "pattern must be a string");
      }
      if (pattern->get().empty()) {
        fail(path, "pattern is empty");
      }
      config.pattern = pattern->get();
    } else if (name == "sink") {
      has_sink_key = true;
      const auto* entries = value.as_array();
      if (entries == nullptr) {
        fail(path, "sink must be an array of tables ([[sink]])");
      }
      for (const auto& entry : *entries) {
        const auto* table = entry.as_table();
        if (table == nullptr) {
          fail(path, "sink must be an array of tables ([[sink]])");
        }
        config.sinks.push_back(read_sink(*table, path));
      }
    } else {
      fail(path, "unknown key '{}'", name);
    }
  }
  if (!has_sink_key || config.sinks.empty()) {
    fail(path, "no [[sink]] entry");
  }
  return config;
}

ContextConfig read_config(const std::string& path) {
  if (path.empty()) {
    throw ConfigError("logging configuration path is empty");
  }
  // open() would stop at the NUL and read some other file.
  if (path.find('\0') != std::string::npos) {
    throw ConfigError("logging configuration path contains a NUL character");
  }
  const core::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) {
    fail(path, "cannot open: {}", errno_text(errno));
  }
  std::string text;
  std::array<char, 4096> buffer{};
  for (;;) {
    // Fewer bytes than asked for only at the end of the file.
    const ssize_t count = core::read_full(file.get(), buffer.data(), buffer.size());
    if (count < 0) {
      fail(path, "cannot read: {}", errno_text(errno));
    }
    text.append(buffer.data(), static_cast<std::size_t>(count));
    if (text.size() > kMaxConfigBytes) {
      fail(path, "larger than {} bytes", kMaxConfigBytes);
    }
    if (static_cast<std::size_t>(count) < buffer.size()) {
      break;
    }
  }
  return parse_config(text, path);
}

}  // namespace xpon::logger::detail
