#pragma once

#include <fmt/format.h>

#include <source_location>
#include <string_view>
#include <type_traits>
#include <utility>

namespace xpon::logger {

/// Numeric log levels used throughout the system (0 progress ... 5 critical).
enum Level : int {
  kProgress = 0,
  kInfo = 1,
  kNotice = 2,
  kWarning = 3,
  kError = 4,
  kCritical = 5,
};

/// A fmt format string that also records where the logging statement stands.
template <typename... Args>
struct FormatAt {
  template <typename S>
  requires std::is_convertible_v<const S&, std::string_view>
  consteval FormatAt(const S& text, std::source_location where =
                                        std::source_location::current())  // NOLINT(google-explicit-constructor)
      : format(text), location(where) {}

  fmt::format_string<Args...> format;
  std::source_location location;
};

/// The logging interface every component writes through.
class ILogger {
 public:
  virtual ~ILogger() = default;

  /// Writes one already formatted line at a numeric level, attributed to a source location.
  virtual void log(int level, std::string_view text, const std::source_location& location) = 0;

  /// Formats with fmt and writes at the given level; the location is that of the caller.
  template <typename... Args>
  void logf(int level, FormatAt<std::type_identity_t<Args>...> format, Args&&... args) {
    log(level, fmt::vformat(fmt::string_view(format.format), fmt::make_format_args(args...)), format.location);
  }

  /// Formats and writes at level 0 (progress).
  template <typename... Args>
  void progress(FormatAt<std::type_identity_t<Args>...> format, Args&&... args) {
    log(kProgress, fmt::vformat(fmt::string_view(format.format), fmt::make_format_args(args...)), format.location);
  }

  /// Formats and writes at level 3 (warning).
  template <typename... Args>
  void warning(FormatAt<std::type_identity_t<Args>...> format, Args&&... args) {
    log(kWarning, fmt::vformat(fmt::string_view(format.format), fmt::make_format_args(args...)), format.location);
  }

  /// Formats and writes at level 4 (error).
  template <typename... Args>
  void error(FormatAt<std::type_identity_t<Args>...> format, Args&&... args) {
    log(kError, fmt::vformat(fmt::string_view(format.format), fmt::make_format_args(args...)), format.location);
  }

 protected:
  ILogger() = default;
  ILogger(const ILogger&) = default;
  ILogger& operator=(const ILogger&) = default;
};

}  // namespace xpon::logger
