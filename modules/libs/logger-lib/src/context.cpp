#include "config.hpp"
#include "journal_sink.hpp"
#include "registry.hpp"
#include "xpon/core/file_descriptor.hpp"
#include "xpon/logger/logger.hpp"

#include <fcntl.h>

#include <spdlog/common.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <system_error>
#include <utility>

namespace xpon::logger {

namespace {

// Opens the file once ourselves first: spdlog's own error would not say which errno it met in a
// form we can pass on, and the directory is made the same way spdlog would make it.
void check_log_file(const std::string& config_path, const std::string& file) {
  const std::filesystem::path parent = std::filesystem::path(file).parent_path();
  if (!parent.empty()) {
    std::error_code error;
    std::filesystem::create_directories(parent, error);
    if (error) {
      throw detail::ConfigError(
          fmt::format("{}: cannot create the directory of log file '{}': {}", config_path, file, error.message()));
    }
  }
  const core::FileDescriptor descriptor(::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  if (!descriptor) {
    throw detail::ConfigError(
        fmt::format("{}: cannot open log file '{}': {}", config_path, file, std::generic_category().message(errno)));
  }
}

// spdlog opens (and reopens at each rotation) the log file with a plain fopen, which leaves the
// descriptor open across exec; marked here at once so that a program started later does not
// hold the log file.
spdlog::file_event_handlers close_on_exec_handlers() {
  spdlog::file_event_handlers handlers;
  handlers.after_open = [](const spdlog::filename_t& /*file*/, std::FILE* stream) {
    if (stream != nullptr) {
      (void)::fcntl(::fileno(stream), F_SETFD, FD_CLOEXEC);
    }
  };
  return handlers;
}

spdlog::sink_ptr make_sink(const detail::SinkConfig& config, const std::string& config_path,
                           const std::shared_ptr<IJournalWriter>& journal) {
  switch (config.type) {
    case detail::SinkType::Journal:
      return std::make_shared<detail::JournalSink>(journal);
    case detail::SinkType::Stderr:
      return std::make_shared<spdlog::sinks::stderr_sink_mt>();
    case detail::SinkType::File:
      check_log_file(config_path, config.path);
      try {
        return std::make_shared<spdlog::sinks::rotating_file_sink_mt>(config.path, config.max_size, config.max_files,
                                                                      false, close_on_exec_handlers());
      } catch (const spdlog::spdlog_ex& error) {
        throw detail::ConfigError(
            fmt::format("{}: cannot open log file '{}': {}", config_path, config.path, error.what()));
      }
  }
  throw detail::ConfigError(fmt::format("{}: unknown sink type", config_path));
}

}  // namespace

LoggingContext::LoggingContext(std::shared_ptr<detail::ContextState> state, std::string name, int flags) noexcept
    : state_(std::move(state)), name_(std::move(name)), flags_(flags) {}

LoggingContext::LoggingContext(LoggingContext&& other) noexcept
    // NOLINTNEXTLINE(performance-move-constructor-init): a moved-from context keeps its name
    : state_(std::move(other.state_)), name_(other.name_), flags_(other.flags_) {}

LoggingContext& LoggingContext::operator=(LoggingContext&& other) noexcept {
  if (this != &other) {
    release();
    state_ = std::move(other.state_);
    name_ = other.name_;
    flags_ = other.flags_;
  }
  return *this;
}

LoggingContext::~LoggingContext() {
  release();
}

void LoggingContext::release() noexcept {
  if (!state_) {
    return;
  }
  detail::uninstall(state_);
  // A thread that is writing a line right now keeps its own reference; the files close when the
  // last reference goes.
  for (const auto& sink : state_->sinks) {
    try {
      sink->flush();
    } catch (...) {
      detail::report_failure("cannot flush a log sink");
    }
  }
  state_.reset();
}

core::Result<LoggingContext> Logger::create_context(std::string_view path, std::string_view name, int flags) {
  return create_context(path, name, flags, nullptr);
}

core::Result<LoggingContext> Logger::create_context(std::string_view path, std::string_view name, int flags,
                                                    std::shared_ptr<IJournalWriter> journal) {
  const std::string config_path(path);
  try {
    const detail::ContextConfig config = detail::read_config(config_path);
    if (!journal) {
      journal = make_systemd_journal_writer();
    }
    auto state = std::make_shared<detail::ContextState>();
    state->level = config.level;
    for (const auto& sink_config : config.sinks) {
      auto sink = make_sink(sink_config, config_path, journal);
      sink->set_pattern(config.pattern);
      state->sinks.push_back(std::move(sink));
    }
    detail::install(state);
    return LoggingContext(std::move(state), std::string(name), flags);
  } catch (const detail::ConfigError& error) {
    return core::ErrorPayload(core::Error::InvalidInputArg, error.what());
  } catch (const std::exception& error) {
    return core::ErrorPayload(core::Error::Exception, fmt::format("{}: {}", config_path, error.what()));
  }
}

}  // namespace xpon::logger
