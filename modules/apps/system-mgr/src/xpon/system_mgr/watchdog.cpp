#include "xpon/system_mgr/watchdog.hpp"

#include <fmt/format.h>
#include <signal.h>

#include <cstddef>
#include <cstdio>
#include <exception>
#include <source_location>
#include <system_error>
#include <utility>

namespace xpon::system_mgr {

namespace {

// The thread only decides, pings and now and then formats one log line: a small stack is
// plenty, and an idle daemon keeps its resident set small.
constexpr std::size_t kThreadStackSize = std::size_t{256} * 1024;

constexpr std::string_view kPing = "WATCHDOG=1";

std::string_view phase_word(DaemonPhase phase) noexcept {
  return phase == DaemonPhase::Starting ? "Start-up" : "Stop";
}

std::string_view wait_words(FunctionWait what) noexcept {
  switch (what) {
    case FunctionWait::FirstPoll:
      return "the first poll";
    case FunctionWait::PollingThread:
      return "the polling thread";
    case FunctionWait::Nothing:
      break;
  }
  return {};
}

}  // namespace

WatchdogVerdict decide_watchdog(const WatchdogState& state, WatchdogClock::time_point now,
                                std::chrono::milliseconds bound) {
  if (state.phase == DaemonPhase::Running || now - state.step_start <= bound) {
    return WatchdogVerdict{true, {}};
  }
  if (state.reported) {
    return WatchdogVerdict{false, {}};
  }
  std::string line = fmt::format("{} blocked for more than {} ms", phase_word(state.phase), bound.count());
  if (state.waiting != FunctionWait::Nothing) {
    line += fmt::format(": waiting for {} of {}", wait_words(state.waiting), state.function_name);
  }
  line += "; watchdog pings stopped";
  return WatchdogVerdict{false, std::move(line)};
}

Watchdog::Watchdog(std::chrono::milliseconds ping_interval, std::chrono::milliseconds bound, WatchdogIo io)
    : ping_interval_(ping_interval), bound_(bound), io_(std::move(io)) {
  state_.step_start = io_.now();
}

Watchdog::~Watchdog() {
  stop();
}

void Watchdog::start() {
  std::lock_guard lock(mutex_);
  if (thread_started_) {
    return;
  }
  stop_requested_ = false;
  pthread_attr_t attributes;
  int failure = ::pthread_attr_init(&attributes);
  if (failure == 0) {
    failure = ::pthread_attr_setstacksize(&attributes, kThreadStackSize);
  }
  if (failure == 0) {
    // The thread starts with every signal blocked, so the daemon's handlers never run on it.
    sigset_t all;
    sigset_t previous;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &previous);
    failure = ::pthread_create(&thread_, &attributes, &Watchdog::thread_main, this);
    ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  }
  ::pthread_attr_destroy(&attributes);
  if (failure != 0) {
    throw std::system_error(failure, std::generic_category(), "Unable to start the watchdog thread");
  }
  thread_started_ = true;
}

void Watchdog::stop() noexcept {
  {
    std::lock_guard lock(mutex_);
    if (!thread_started_) {
      return;
    }
    stop_requested_ = true;
  }
  wake_.notify_one();
  ::pthread_join(thread_, nullptr);
  std::lock_guard lock(mutex_);
  thread_started_ = false;
}

void* Watchdog::thread_main(void* self) noexcept {
  static_cast<Watchdog*>(self)->run_thread();
  return nullptr;
}

void Watchdog::run_thread() noexcept {
  std::unique_lock lock(mutex_);
  while (!stop_requested_) {
    lock.unlock();
    try {
      tick();
    } catch (const std::exception& caught) {
      // A tick that failed is retried at the next one; the thread stays.
      std::fprintf(stderr, "system-mgr: watchdog tick failed: %s\n", caught.what());
    } catch (...) {
      std::fputs("system-mgr: watchdog tick failed\n", stderr);
    }
    lock.lock();
    wake_.wait_for(lock, ping_interval_, [this] { return stop_requested_; });
  }
}

void Watchdog::tick() {
  std::lock_guard lock(mutex_);
  const WatchdogVerdict verdict = decide_watchdog(state_, io_.now(), bound_);
  if (!verdict.error_line.empty()) {
    state_.reported = true;
    if (logger_) {
      logger_->log(logger::kError, verdict.error_line, std::source_location::current());
    } else {
      std::fprintf(stderr, "system-mgr: %s\n", verdict.error_line.c_str());
    }
  }
  if (verdict.ping) {
    io_.notify(std::string(kPing));
  }
}

void Watchdog::enter(DaemonPhase phase) noexcept {
  std::lock_guard lock(mutex_);
  state_ = WatchdogState{phase, io_.now(), FunctionWait::Nothing, {}, false};
}

void Watchdog::function_wait(FunctionWait what, std::string_view function_name) noexcept {
  std::lock_guard lock(mutex_);
  state_.step_start = io_.now();
  state_.waiting = what;
  state_.function_name = what == FunctionWait::Nothing ? std::string_view() : function_name;
  state_.reported = false;
}

void Watchdog::attach_logger(std::shared_ptr<logger::ILogger> logger) noexcept {
  std::lock_guard lock(mutex_);
  logger_ = std::move(logger);
}

void Watchdog::detach_logger() noexcept {
  std::lock_guard lock(mutex_);
  logger_.reset();
}

WatchdogLoggerAttachment::WatchdogLoggerAttachment(Watchdog* watchdog, std::shared_ptr<logger::ILogger> logger) noexcept
    : watchdog_(watchdog) {
  if (watchdog_ != nullptr) {
    watchdog_->attach_logger(std::move(logger));
  }
}

WatchdogLoggerAttachment::~WatchdogLoggerAttachment() {
  if (watchdog_ != nullptr) {
    watchdog_->detach_logger();
  }
}

}  // namespace xpon::system_mgr
