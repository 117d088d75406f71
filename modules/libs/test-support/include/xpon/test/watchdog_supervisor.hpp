#pragma once

// Plays systemd's part for a Type=notify service with WatchdogSec=: starts the program with
// NOTIFY_SOCKET and WATCHDOG_USEC, arms the watchdog at READY=1, and when WATCHDOG=1 stops
// coming for longer than the interval, kills the program with SIGABRT (systemd's default
// WatchdogSignal) and starts it again, as Restart=on-failure would.

#include "xpon/test/notify_listener.hpp"
#include "xpon/test/process.hpp"

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace xpon::test {

/// A program as the supervisor starts it.
struct SupervisedProgram {
  /// The program (a path) and its arguments.
  std::vector<std::string> argv;
  /// Changes to the environment as Process takes them; NOTIFY_SOCKET and WATCHDOG_USEC are added.
  std::vector<std::string> environment;
  /// Start n (from 1) writes its standard output and error to "<path>.<n>"; empty: /dev/null.
  std::string output_path;
  std::string errors_path;
};

/// One notification as it arrived.
struct SupervisedNotification {
  std::size_t start;  ///< the start (from 1) that was running when it arrived
  std::chrono::steady_clock::time_point at;
  std::string text;
};

/// One kill for want of pings.
struct WatchdogKill {
  std::size_t start;                                ///< the start that was killed
  std::chrono::steady_clock::time_point last_ping;  ///< its last WATCHDOG=1 (or READY=1)
  std::chrono::steady_clock::time_point killed_at;  ///< when SIGABRT was sent
  std::optional<ProcessEnd> end;                    ///< how it ended
};

/// Supervises one program with a watchdog; a thread of its own receives the notifications and
/// starts, kills and starts again the program (it must be the thread that starts it, as a
/// Process dies with the thread that started it).
class WatchdogSupervisor {
 public:
  /// Binds the notification socket at `socket_path`; `interval` is what WATCHDOG_USEC says.
  /// Throws std::runtime_error when the socket cannot be bound.
  WatchdogSupervisor(const std::string& socket_path, SupervisedProgram program, std::chrono::milliseconds interval);
  /// Kills a program still running (SIGKILL) and ends the thread.
  ~WatchdogSupervisor();
  WatchdogSupervisor(const WatchdogSupervisor&) = delete;
  WatchdogSupervisor& operator=(const WatchdogSupervisor&) = delete;
  WatchdogSupervisor(WatchdogSupervisor&&) = delete;
  WatchdogSupervisor& operator=(WatchdogSupervisor&&) = delete;

  /// Starts the thread and the program's first start; the core size limit of this process
  /// (inherited by the program) is set to 0 first, so that a watchdog kill leaves no core file.
  /// Throws std::runtime_error when the program cannot be started.
  void start();

  /// Sends a signal to the running program; false when none runs.
  bool signal(int signal_number);

  /// Stops supervising: sends the signal, waits up to `timeout`, then kills; how it ended, or
  /// nothing when no program ran.
  std::optional<ProcessEnd> stop(int signal_number, std::chrono::milliseconds timeout);

  /// The process id of the running program, or -1.
  [[nodiscard]] pid_t pid() const;

  /// How many times the program has been started.
  [[nodiscard]] std::size_t starts() const;

  /// The watchdog kills so far, in order.
  [[nodiscard]] std::vector<WatchdogKill> kills() const;

  /// Ends of the program that the supervisor did not cause (it is not started again then).
  [[nodiscard]] std::vector<ProcessEnd> unexpected_ends() const;

  /// Every notification so far, in order.
  [[nodiscard]] std::vector<SupervisedNotification> notifications() const;

  /// How many notifications so far are exactly `text`.
  [[nodiscard]] std::size_t count(const std::string& text) const;

  /// Waits until `occurrence` notifications (from 1) are exactly `text`.
  bool wait_for_notification(const std::string& text, std::size_t occurrence, std::chrono::milliseconds timeout) const;

  /// The standard error file of start n (from 1).
  [[nodiscard]] std::string errors_path(std::size_t start) const;

  /// What start n wrote to standard error so far.
  [[nodiscard]] std::string errors(std::size_t start) const;

 private:
  void watch();
  void start_program();
  void receive(std::chrono::milliseconds timeout);
  void kill_for_missing_pings(std::chrono::steady_clock::time_point last_ping);
  [[nodiscard]] std::size_t count_locked(const std::string& text) const;

  std::unique_ptr<NotifyListener> listener_;
  SupervisedProgram program_;
  std::chrono::milliseconds interval_;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::optional<Process> process_;  // made on the watching thread; used under the mutex by every thread
  std::size_t starts_ = 0;
  bool armed_ = false;
  std::chrono::steady_clock::time_point last_ping_{};
  bool stop_requested_ = false;
  bool supervising_ = true;
  std::string start_failure_;
  std::vector<WatchdogKill> kills_;
  std::vector<ProcessEnd> unexpected_ends_;
  std::vector<SupervisedNotification> notifications_;
  std::size_t seen_ = 0;  // messages of the listener taken so far; the watching thread's own
  std::thread thread_;
};

}  // namespace xpon::test
