#pragma once

// The daemon's systemd watchdog: a thread of its own sends WATCHDOG=1 at half systemd's interval
// while the daemon makes progress, and stops when a start-up or stop step stays blocked longer
// than its bound, after naming what that step waits for, so that systemd restarts the service.
// The decision is a pure function beside the thread that acts on it.

#include "xpon/logger/ilogger.hpp"
#include "xpon/system_mgr/functions/base.hpp"

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace xpon::system_mgr {

/// The clock of the watchdog's decisions.
using WatchdogClock = std::chrono::steady_clock;

/// The longest one step of a start-up or stop (a function's first poll, the wait for a polling
/// thread, or whatever the phase does between two such steps) may take before the pings stop.
inline constexpr std::chrono::milliseconds kWatchdogStepBound{5000};

/// What the daemon is doing, as far as its watchdog is concerned.
enum class DaemonPhase {
  Starting,  ///< building a cycle's objects and running the service
  Running,   ///< the launcher delivers changes and waits for a signal
  Stopping,  ///< stopping the service and releasing the cycle's objects
};

/// Everything the watchdog's decision depends on, apart from the time.
struct WatchdogState {
  DaemonPhase phase = DaemonPhase::Starting;
  /// When the phase, or its current step, began.
  WatchdogClock::time_point step_start{};
  /// What the current step waits for, as the functions report it.
  FunctionWait waiting = FunctionWait::Nothing;
  /// The function the step waits for (static text); empty when waiting is Nothing.
  std::string_view function_name;
  /// Whether the current step has been reported as blocked already.
  bool reported = false;
};

/// What the watchdog does at one tick.
struct WatchdogVerdict {
  /// Send WATCHDOG=1.
  bool ping = false;
  /// A line to log at level 4 (error); empty for none.
  std::string error_line;

  bool operator==(const WatchdogVerdict&) const = default;
};

/// The decision of one tick: ping while running, or while the current start-up or stop step has
/// lasted no longer than `bound`; past it no ping, and on the first such tick of the step the
/// line "<Start-up|Stop> blocked for more than <bound> ms: waiting for <the first poll|the
/// polling thread> of <function>; watchdog pings stopped" (without the part after the colon when
/// the step waits for no function).
WatchdogVerdict decide_watchdog(const WatchdogState& state, WatchdogClock::time_point now,
                                std::chrono::milliseconds bound);

/// How the watchdog reaches the outside world.
struct WatchdogIo {
  /// The time of a decision.
  std::function<WatchdogClock::time_point()> now;
  /// Sends one notification text to systemd ("WATCHDOG=1").
  std::function<void(const std::string&)> notify;
};

/// The watchdog's state and its pinging thread, which lives across the daemon's cycles. The
/// daemon's threads report phases and function waits to it; signal handlers never touch it.
class Watchdog final : public IFunctionWaitListener {
 public:
  /// ping_interval: the time between two ticks of the thread; bound: see decide_watchdog.
  Watchdog(std::chrono::milliseconds ping_interval, std::chrono::milliseconds bound, WatchdogIo io);
  /// Ends the thread if it runs.
  ~Watchdog() override;
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;
  Watchdog(Watchdog&&) = delete;
  Watchdog& operator=(Watchdog&&) = delete;

  /// Starts the thread (a small stack, every signal blocked), which ticks at once and then
  /// every ping interval; throws std::system_error when it cannot be made.
  void start();

  /// Ends the thread and waits for it; harmless when it does not run.
  void stop() noexcept;

  /// The daemon enters a phase; its first step begins now.
  void enter(DaemonPhase phase) noexcept;

  /// The logger the blocked-step line goes to, for the cycle that made it. Without one the
  /// line goes to standard error.
  void attach_logger(std::shared_ptr<logger::ILogger> logger) noexcept;

  /// Forgets the cycle's logger; returns once no line is being written through it.
  void detach_logger() noexcept;

  /// A function's run or stop begins or ends a wait: a new step of the phase begins now.
  void function_wait(FunctionWait what, std::string_view function_name) noexcept override;

  /// One decision and what it asks for; what the thread does every ping interval.
  void tick();

 private:
  static void* thread_main(void* self) noexcept;
  void run_thread() noexcept;

  const std::chrono::milliseconds ping_interval_;
  const std::chrono::milliseconds bound_;
  const WatchdogIo io_;
  // Guards everything below; held while a tick pings and logs, so that detach_logger waits
  // until the cycle's logger is no longer used.
  std::mutex mutex_;
  std::condition_variable wake_;
  WatchdogState state_;
  std::shared_ptr<logger::ILogger> logger_;
  bool stop_requested_ = false;
  bool thread_started_ = false;
  pthread_t thread_{};
};

/// Keeps a cycle's logger attached to the watchdog for the life of this object (a null
/// watchdog: nothing to do). Declared after the logger, so it lets go of it first.
class WatchdogLoggerAttachment {
 public:
  WatchdogLoggerAttachment(Watchdog* watchdog, std::shared_ptr<logger::ILogger> logger) noexcept;
  ~WatchdogLoggerAttachment();
  WatchdogLoggerAttachment(const WatchdogLoggerAttachment&) = delete;
  WatchdogLoggerAttachment& operator=(const WatchdogLoggerAttachment&) = delete;
  WatchdogLoggerAttachment(WatchdogLoggerAttachment&&) = delete;
  WatchdogLoggerAttachment& operator=(WatchdogLoggerAttachment&&) = delete;

 private:
  Watchdog* watchdog_;
};

}  // namespace xpon::system_mgr
