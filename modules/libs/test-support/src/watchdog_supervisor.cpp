#include "xpon/test/watchdog_supervisor.hpp"

#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <exception>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace xpon::test {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// How long the receiving thread waits for a notification before it looks at the clock again.
constexpr auto kReceiveStep = 10ms;
// How long a program killed with SIGABRT may take to end before SIGKILL follows.
constexpr auto kAbortGrace = 5s;

std::string numbered(const std::string& path, std::size_t start) {
  return path.empty() ? std::string() : path + "." + std::to_string(start);
}

}  // namespace

WatchdogSupervisor::WatchdogSupervisor(const std::string& socket_path, SupervisedProgram program,
                                       std::chrono::milliseconds interval)
    : listener_(std::make_unique<NotifyListener>(socket_path)), program_(std::move(program)), interval_(interval) {}

WatchdogSupervisor::~WatchdogSupervisor() {
  {
    const std::lock_guard lock(mutex_);
    stop_requested_ = true;
  }
  if (thread_.joinable()) {
    thread_.join();
  }
}

void WatchdogSupervisor::start() {
  // As systemd-coredump is not here to take them, the program's SIGABRT cores are not wanted.
  rlimit core{};
  if (::getrlimit(RLIMIT_CORE, &core) == 0) {
    core.rlim_cur = 0;
    (void)::setrlimit(RLIMIT_CORE, &core);
  }
  thread_ = std::thread([this] { watch(); });
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return starts_ >= 1 && (process_.has_value() || !start_failure_.empty()); });
  if (!start_failure_.empty()) {
    throw std::runtime_error(start_failure_);
  }
}

void WatchdogSupervisor::start_program() {
  const std::lock_guard lock(mutex_);
  ++starts_;
  armed_ = false;
  std::vector<std::string> environment = program_.environment;
  environment.push_back("NOTIFY_SOCKET=" + listener_->path());
  environment.push_back("WATCHDOG_USEC=" + std::to_string(std::chrono::microseconds(interval_).count()));
  // systemd names the main process; a supervisor that forks does not know it beforehand.
  environment.emplace_back("WATCHDOG_PID");
  try {
    process_.emplace(program_.argv, environment, numbered(program_.output_path, starts_),
                     numbered(program_.errors_path, starts_));
  } catch (const std::exception& caught) {
    process_.reset();
    supervising_ = false;
    start_failure_ = caught.what();
  }
  changed_.notify_all();
}

void WatchdogSupervisor::receive(std::chrono::milliseconds timeout) {
  const std::vector<std::string> all = listener_->wait_for(seen_ + 1, timeout);
  const auto now = Clock::now();
  const std::lock_guard lock(mutex_);
  for (std::size_t index = seen_; index < all.size(); ++index) {
    notifications_.push_back(SupervisedNotification{starts_, now, all[index]});
    std::istringstream lines(all[index]);
    for (std::string line; std::getline(lines, line);) {
      if (line == "READY=1") {
        armed_ = true;
        last_ping_ = now;
      } else if (line == "WATCHDOG=1") {
        last_ping_ = now;
      }
    }
  }
  seen_ = all.size();
  changed_.notify_all();
}

void WatchdogSupervisor::watch() {
  start_program();
  while (true) {
    {
      const std::lock_guard lock(mutex_);
      if (stop_requested_) {
        break;
      }
    }
    receive(kReceiveStep);
    std::unique_lock lock(mutex_);
    if (!supervising_ || !process_) {
      continue;
    }
    if (!process_->running()) {
      if (process_->end()) {
        unexpected_ends_.push_back(*process_->end());
      }
      supervising_ = false;
      changed_.notify_all();
      continue;
    }
    if (armed_ && Clock::now() - last_ping_ > interval_) {
      const auto last_ping = last_ping_;
      lock.unlock();
      kill_for_missing_pings(last_ping);
    }
  }
  const std::lock_guard lock(mutex_);
  process_.reset();  // SIGKILL and reap
}

void WatchdogSupervisor::kill_for_missing_pings(Clock::time_point last_ping) {
  const auto killed_at = Clock::now();
  {
    const std::lock_guard lock(mutex_);
    (void)process_->signal(SIGABRT);
  }
  const auto deadline = killed_at + kAbortGrace;
  std::optional<ProcessEnd> end;
  while (true) {
    {
      const std::lock_guard lock(mutex_);
      if (!process_->running()) {
        end = process_->end();
        break;
      }
      if (Clock::now() >= deadline) {
        end = process_->stop(SIGKILL, kAbortGrace);
        break;
      }
    }
    std::this_thread::sleep_for(1ms);
  }
  // What the killed start sent before it died is still its own.
  receive(0ms);
  {
    const std::lock_guard lock(mutex_);
    kills_.push_back(WatchdogKill{starts_, last_ping, killed_at, end});
    if (!supervising_) {
      return;
    }
  }
  start_program();
}

bool WatchdogSupervisor::signal(int signal_number) {
  const std::lock_guard lock(mutex_);
  return process_ && process_->signal(signal_number);
}

std::optional<ProcessEnd> WatchdogSupervisor::stop(int signal_number, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  {
    const std::lock_guard lock(mutex_);
    supervising_ = false;
    if (!process_) {
      return std::nullopt;
    }
    (void)process_->signal(signal_number);
  }
  while (true) {
    {
      const std::lock_guard lock(mutex_);
      if (!process_->running()) {
        return process_->end();
      }
      if (Clock::now() >= deadline) {
        return process_->stop(SIGKILL, kAbortGrace);
      }
    }
    std::this_thread::sleep_for(1ms);
  }
}

pid_t WatchdogSupervisor::pid() const {
  const std::lock_guard lock(mutex_);
  return process_ ? process_->pid() : -1;
}

std::size_t WatchdogSupervisor::starts() const {
  const std::lock_guard lock(mutex_);
  return starts_;
}

std::vector<WatchdogKill> WatchdogSupervisor::kills() const {
  const std::lock_guard lock(mutex_);
  return kills_;
}

std::vector<ProcessEnd> WatchdogSupervisor::unexpected_ends() const {
  const std::lock_guard lock(mutex_);
  return unexpected_ends_;
}

std::vector<SupervisedNotification> WatchdogSupervisor::notifications() const {
  const std::lock_guard lock(mutex_);
  return notifications_;
}

std::size_t WatchdogSupervisor::count_locked(const std::string& text) const {
  return static_cast<std::size_t>(std::count_if(notifications_.begin(), notifications_.end(),
                                                [&](const SupervisedNotification& note) { return note.text == text; }));
}

std::size_t WatchdogSupervisor::count(const std::string& text) const {
  const std::lock_guard lock(mutex_);
  return count_locked(text);
}

bool WatchdogSupervisor::wait_for_notification(const std::string& text, std::size_t occurrence,
                                               std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return count_locked(text) >= occurrence; });
}

std::string WatchdogSupervisor::errors_path(std::size_t start) const {
  return numbered(program_.errors_path, start);
}

std::string WatchdogSupervisor::errors(std::size_t start) const {
  return read_text_file(errors_path(start));
}

}  // namespace xpon::test
