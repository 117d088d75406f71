#pragma once

// Runs the real programs of a board in a temporary XPON_ROOT: the event bus, the board
// emulator, the factory image made by xpon-factory, and system-mgr reporting to a stand-in
// for systemd's notification socket. Every process is stopped and the emulator unmounted
// when the rig goes, whatever happened before.

#include "xpon/test/notify_listener.hpp"
#include "xpon/test/process.hpp"
#include "xpon/test/sandbox.hpp"
#include "xpon/test/watchdog_supervisor.hpp"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace xpon::system_mgr::test {

/// The texts the daemon sends to systemd at each stage of a cycle.
inline const std::string kStartupText = "STATUS=Startup system manager...";
inline const std::string kReadyText = "READY=1\nSTATUS=Processing requests...\n";
inline const std::string kShutdownText = "STATUS=Shutdown system manager...\nSTOPPING=1\n";

/// Logging for the rig: every line, progress included, to the daemon's standard error.
inline const std::string kDebugToStderr = "level = \"debug\"\n\n[[sink]]\ntype = \"stderr\"\n";

/// One board's worth of processes in its own sandbox.
class DaemonRig {
 public:
  /// Makes the sandbox and the notification listener; throws std::runtime_error on failure.
  DaemonRig();
  /// Stops the daemon, the emulator and the bus, unmounts the emulator, removes the sandbox.
  ~DaemonRig();
  DaemonRig(const DaemonRig&) = delete;
  DaemonRig& operator=(const DaemonRig&) = delete;

  /// The sandbox root (the value of XPON_ROOT for every process of the rig).
  [[nodiscard]] const std::string& root() const { return sandbox_.root(); }

  /// A path under the root: path("/dev/board").
  [[nodiscard]] std::string path(const std::string& logical_path) const { return sandbox_.path(logical_path); }

  /// Starts xpon-ipc-bus (with `arguments` added: a crate configuration, say) and waits until it
  /// serves both sockets; an error text or empty.
  std::string start_bus(const std::vector<std::string>& arguments = {});

  /// The running bus (to kill it, say); throws std::bad_optional_access before start_bus().
  [[nodiscard]] xpon::test::Process& bus() { return bus_.value(); }

  /// Starts xpon-board-emu with one of the example scenarios ("board-lt.json"), or the scenario
  /// file at an absolute path, in the foreground and waits until /dev/board is served. Returns an error text or empty;
  /// sets `skip` instead when FUSE is unusable here (no /dev/fuse, or the mount refused).
  std::string start_emulator(const std::string& example_scenario, std::string& skip);

  /// Stops the emulator and unmounts /dev, as a driver unload or an emulator restart takes the
  /// board device away; the daemon keeps running. start_emulator() brings it back.
  void stop_emulator();

  /// The running emulator (to pause it, say); throws std::bad_optional_access before start_emulator().
  [[nodiscard]] xpon::test::Process& emulator() { return emulator_.value(); }

  /// Writes the device factory image with `xpon-factory make --product NAME`; an error text or empty.
  std::string make_factory_image(const std::string& product);

  /// Writes the crate's factory image (FC boards) the same way; an error text or empty.
  std::string make_crate_factory_image(const std::string& product);

  /// Writes the daemon's logging configuration (/etc/zlog_modules_config/SYSTEM-MGR.conf).
  void write_log_config(const std::string& text) const;

  /// Copies the repository's example logging configuration (examples/logging/stderr.conf).
  void install_example_log_config() const;

  /// Starts system-mgr with NOTIFY_SOCKET set to the listener and the environment changed by
  /// `environment` as Process takes it; its stderr goes to daemon_log().
  void start_daemon(const std::vector<std::string>& environment = {});

  /// Starts system-mgr as above with `limits` set in the daemon's process (under
  /// XPON_DAEMON_WRAPPER: the wrapper's).
  void start_daemon(const xpon::test::ChildLimits& limits);

  /// Starts system-mgr with both a changed environment and limits.
  void start_daemon(const std::vector<std::string>& environment, const xpon::test::ChildLimits& limits);

  /// The daemon as start_daemon() starts it, for a supervisor that starts it itself: the command
  /// (XPON_DAEMON_WRAPPER included), the XPON_ROOT entry, and output and errors under the root
  /// ("/daemon.out.<n>", "/daemon.log.<n>"). NOTIFY_SOCKET is the supervisor's to add.
  [[nodiscard]] xpon::test::SupervisedProgram daemon_program() const;

  /// The running (or ended) daemon; throws std::bad_optional_access before start_daemon().
  [[nodiscard]] xpon::test::Process& daemon() { return daemon_.value(); }

  /// The notification listener the daemon reports to.
  [[nodiscard]] xpon::test::NotifyListener& notifications() { return *listener_; }

  /// Waits until the `occurrence`-th (1-based) message equal to `text` has arrived.
  bool wait_for_notification(const std::string& text, std::size_t occurrence, std::chrono::milliseconds timeout);

  /// Waits until the daemon with this process id, whose standard error is in `log_path`, has
  /// settled with `functions_started` polling threads started, as wait_until_settled says.
  static bool wait_until_settled(pid_t pid, const std::string& log_path, std::size_t functions_started,
                                 std::chrono::milliseconds timeout);

  /// Waits until the daemon's `cycle`-th start (1-based) has settled: its polling threads were
  /// started (the log says "Start System function" that many times) and every thread of the
  /// process sleeps, none in a board call, and no polling thread's next poll is due within the
  /// next 250 ms (read from the deadline of its wait). A polling thread only ends on a wake-up
  /// that finds it waiting, so a stop signal sent while a thread still makes its way to its first
  /// wait, or while it polls, leaves the daemon waiting in the join for good; tests and benchmarks
  /// signal a settled daemon.
  /// Needs the debug logging of kDebugToStderr or the stderr.conf example.
  bool wait_until_settled(std::size_t cycle, std::chrono::milliseconds timeout);

  /// The board of the benchmarks in one step: the bus, the emulator with `scenario`, the factory
  /// image of `product`, the debug logging to standard error, and the daemon started and settled
  /// (within 10 s). An error text or empty; sets `skip` instead when FUSE is unusable here.
  std::string start_settled_board(const std::string& scenario, const std::string& product, std::string& skip);

  /// What the daemon wrote to standard error so far.
  [[nodiscard]] std::string daemon_log() const;

  /// Waits until the daemon's standard error holds `text`.
  bool wait_for_log(const std::string& text, std::chrono::milliseconds timeout) const;

  /// Runs xpon-cfg with the arguments in the rig's XPON_ROOT.
  xpon::test::ProgramRun run_cfg(const std::vector<std::string>& arguments) const;

  /// The emulator's and the bus's logs, for failure messages.
  [[nodiscard]] std::string helper_logs() const;

  /// Everything the daemon sent to the notification socket, quoted one per line, for messages.
  std::string notifications_text();

 private:
  std::string write_factory_image(const std::string& product, const std::string& logical_path);

  xpon::test::Sandbox sandbox_;
  std::unique_ptr<xpon::test::NotifyListener> listener_;
  std::optional<xpon::test::Process> bus_;
  std::optional<xpon::test::Process> emulator_;
  std::optional<xpon::test::Process> daemon_;
};

}  // namespace xpon::system_mgr::test
