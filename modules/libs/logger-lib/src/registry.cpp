#include "registry.hpp"

#include "xpon/logger/level.hpp"

#include <spdlog/details/log_msg.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <functional>
#include <map>
#include <mutex>
#include <utility>

namespace xpon::logger::detail {

namespace {

class Registry {
 public:
  Registry() : default_state_(std::make_shared<ContextState>()) {
    auto sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
    sink->set_pattern(std::string(kDefaultPattern));
    default_state_->level = spdlog::level::info;
    default_state_->sinks.push_back(std::move(sink));
  }

  std::shared_ptr<ContextState> current() {
    std::lock_guard lock(mutex_);
    return installed_.empty() ? default_state_ : installed_.back();
  }

  void install(std::shared_ptr<ContextState> state) {
    std::lock_guard lock(mutex_);
    installed_.push_back(std::move(state));
  }

  void uninstall(const std::shared_ptr<ContextState>& state) noexcept {
    std::lock_guard lock(mutex_);
    std::erase(installed_, state);
  }

  zlog_category_s* category(std::string_view name) {
    std::lock_guard lock(mutex_);
    auto found = categories_.find(name);
    if (found == categories_.end()) {
      found = categories_.emplace(std::string(name), std::make_unique<zlog_category_s>(std::string(name))).first;
    }
    return found->second.get();
  }

 private:
  std::mutex mutex_;
  std::shared_ptr<ContextState> default_state_;
  // Contexts in order of creation; the newest one alive routes the output.
  std::vector<std::shared_ptr<ContextState>> installed_;
  std::map<std::string, std::unique_ptr<zlog_category_s>, std::less<>> categories_;
};

// Deliberately never destroyed: static objects of other libraries may still log, and C code may
// still hold category handles, while the process exits.
Registry& registry() {
  static auto* instance = new Registry();
  return *instance;
}

}  // namespace

void install(std::shared_ptr<ContextState> state) {
  registry().install(std::move(state));
}

void uninstall(const std::shared_ptr<ContextState>& state) noexcept {
  registry().uninstall(state);
}

zlog_category_s* category(std::string_view name) {
  return registry().category(name);
}

void write(const zlog_category_s& category, int level, std::string_view text,
           const spdlog::source_loc& where) noexcept {
  std::shared_ptr<ContextState> state;
  try {
    state = registry().current();
  } catch (...) {
    report_failure("cannot reach the logging context");
    return;
  }
  const auto backend = backend_level(level);
  if (backend < state->level) {
    return;
  }
  const spdlog::details::log_msg message(where, category.name, backend,
                                         spdlog::string_view_t(text.data(), text.size()));
  // Each line is flushed: the daemon logs little, and a line must not be lost in a buffer when
  // the process dies.
  for (const auto& sink : state->sinks) {
    try {
      if (sink->should_log(backend)) {
        sink->log(message);
        sink->flush();
      }
    } catch (const std::exception& exception) {
      report_failure(exception.what());
    } catch (...) {
      report_failure("unknown error in a log sink");
    }
  }
}

void report_failure(std::string_view what) noexcept {
  static std::mutex mutex;
  static std::chrono::steady_clock::time_point last_report;
  static bool reported = false;
  const auto now = std::chrono::steady_clock::now();
  std::lock_guard lock(mutex);
  if (reported && now - last_report < std::chrono::minutes(1)) {
    return;
  }
  reported = true;
  last_report = now;
  std::fprintf(stderr, "logging failed: %.*s\n", static_cast<int>(what.size()), what.data());
  std::fflush(stderr);
}

}  // namespace xpon::logger::detail
