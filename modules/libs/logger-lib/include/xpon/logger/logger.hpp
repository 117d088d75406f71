#pragma once

#include "xpon/core/result.hpp"
#include "xpon/logger/ilogger.hpp"
#include "xpon/logger/journal.hpp"
#include "xpon/logger/raw_category.h"

#include <memory>
#include <source_location>
#include <string>
#include <string_view>

namespace xpon::logger {

namespace detail {
struct ContextState;
}  // namespace detail

/// While alive, routes the output of every Logger of the process to the sinks read from one
/// configuration file; destroying it restores the previous routing (the built-in default when
/// no other context is alive). Movable, not copyable.
class LoggingContext {
 public:
  LoggingContext(LoggingContext&& other) noexcept;
  LoggingContext& operator=(LoggingContext&& other) noexcept;
  LoggingContext(const LoggingContext&) = delete;
  LoggingContext& operator=(const LoggingContext&) = delete;
  ~LoggingContext();

  /// The name the context was created with, kept as given.
  [[nodiscard]] const std::string& name() const noexcept { return name_; }

  /// The flags the context was created with, kept as given (no bit has a meaning yet).
  [[nodiscard]] int flags() const noexcept { return flags_; }

  /// Whether this object still owns its routing (false once moved from).
  [[nodiscard]] bool active() const noexcept { return state_ != nullptr; }

 private:
  friend class Logger;
  LoggingContext(std::shared_ptr<detail::ContextState> state, std::string name, int flags) noexcept;
  void release() noexcept;

  std::shared_ptr<detail::ContextState> state_;
  std::string name_;
  int flags_ = 0;
};

/// A logger of one category; it writes through the sinks of the logging context alive at the
/// time of each line, or to stderr at level info while no context is alive.
class Logger : public ILogger {
 public:
  /// Makes a logger of the given category ("SYSTEM-MGR"); cheap, and safe before any context exists.
  explicit Logger(std::string_view category);

  /// Writes one line at a numeric level (0 progress ... 5 critical) with its source location.
  void log(int level, std::string_view text, const std::source_location& location) override;

  /// The category this logger writes under.
  [[nodiscard]] std::string_view category() const noexcept;

  /// Reads the TOML configuration at `path` (taken as given) and makes its sinks the destination
  /// of every logger while the returned context lives; any problem with the file is an error
  /// whose message names the path and the reason. `name` and `flags` are kept as given.
  static core::Result<LoggingContext> create_context(std::string_view path, std::string_view name, int flags);

  /// The same, with the writer that journal sinks hand their entries to (null: the systemd journal).
  static core::Result<LoggingContext> create_context(std::string_view path, std::string_view name, int flags,
                                                     std::shared_ptr<IJournalWriter> journal);

  /// The back-end handle of a category for C-level libraries (see xpon_raw_log); the handle stays
  /// valid for the life of the process and is the same for the same name.
  static zlog_category_t* get_raw_zlog_category(std::string_view name);

 private:
  zlog_category_t* category_;
};

}  // namespace xpon::logger
