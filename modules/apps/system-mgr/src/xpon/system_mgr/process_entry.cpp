// The cycle of system-mgr: builds the object graph, reports each stage to systemd, runs the
// device-family service until a signal stops it, and releases everything in reverse order.
// SIGHUP starts a new cycle inside the same process.

#include "xpon/system_mgr/process_entry.hpp"

#include "xpon/core/guard.hpp"
#include "xpon/core/host_path.hpp"
#include "xpon/service/service_launcher.hpp"
#include "xpon/system_mgr/services/create_service.hpp"
#include "xpon/system_mgr/watchdog.hpp"

#include <fmt/format.h>
#include <malloc.h>
#include <systemd/sd-daemon.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

namespace xpon::system_mgr {

namespace {

using service::ServiceLauncher;

constexpr std::string_view kLogConfigPath = "/etc/zlog_modules_config/SYSTEM-MGR.conf";
constexpr std::string_view kIpcName = "SYSTEM-MGR_IPC";
constexpr std::string_view kLogCategory = "SYSTEM-MGR";
constexpr std::string_view kCfgDbName = "SYSTEM-MGR_CFGDB";
constexpr ipc::Address kOwnAddress = 0x0019FFFE;
// Request handlers run on the endpoint's delivery threads, and those of the board's requests wait
// for the board, which serves one driver call at a time. Four threads leave two free for the
// requests that never touch the board (RAM, disk space, the factory answers) while two board
// requests are held up by a stalled driver call; the two extra threads cost 10 to 25 KiB each of
// the resident set, less than capping the heap arenas saves (docs/system-mgr.md).
constexpr unsigned kDeliveryThreads = 4;

/// The two status texts of one creation step: one for a std::exception, whose what() fills
/// the placeholder, and one for anything else thrown.
struct StatusRow {
  std::string_view on_exception;
  std::string_view on_unknown;
};

constexpr StatusRow kLoggerRow{"STATUS=Exception on create log subsystem: {}.",
                               "STATUS=Unknown exception on create log subsystem."};
constexpr StatusRow kIpcRow{"STATUS=Exception on create IPC subsystem: {}.", "STATUS=Error on create IPC subsystem."};
constexpr StatusRow kFactoryRow{"STATUS=Exception on create Factory object: {}.",
                                "STATUS=Unknown exception on create Factory object."};
// One text whatever was thrown, and never the exception's own text.
constexpr StatusRow kCfgDbRow{"STATUS=Error on create CFGDB subsystem.", "STATUS=Error on create CFGDB subsystem."};
constexpr StatusRow kPosixWrapperRow{"STATUS=Exception on create PosixWrapper object: {}.",
                                     "STATUS=Unknown exception on create PosixWrapper object."};
constexpr StatusRow kBoardRow{"STATUS=Exception on create Board object: {}.",
                              "STATUS=Unknown exception on create Board object."};
constexpr StatusRow kLauncherRow{"STATUS=Exception on create Service Launcher: {}.",
                                 "STATUS=Unknown exception on create Service Launcher."};

/// Picks the row that reports a std::exception of a step whose own row is `own`.
using RowChoice = const StatusRow& (*)(const std::exception& exception, const StatusRow& own);

const StatusRow& own_row(const std::exception& /*exception*/, const StatusRow& own) {
  return own;
}

// A board device that cannot be opened is what an operator knows as the board failing, so
// the wrapper's open failure is reported on the board's row; anything else on its own.
const StatusRow& device_open_on_board_row(const std::exception& exception, const StatusRow& own) {
  return dynamic_cast<const board::DeviceOpenError*>(&exception) != nullptr ? kBoardRow : own;
}

/// Runs one creation step. On an exception it notifies the row's text (a row without a
/// placeholder leaves the exception's text out) and gives nothing back.
template <typename Make>
auto create_guarded(const CycleParts& parts, const StatusRow& row, Make&& make, RowChoice choose = own_row)
    -> std::optional<std::invoke_result_t<Make&>> {
  try {
    return make();
  } catch (const std::exception& exception) {
    parts.notify(fmt::format(fmt::runtime(choose(exception, row).on_exception), exception.what()));
  } catch (...) {
    parts.notify(std::string(row.on_unknown));
  }
  return std::nullopt;
}

// The process-global signal slots. A slot holds the launcher of the running cycle and is
// empty outside the running phase, so a signal during start-up or shutdown is ignored.
// Handlers may run on any thread; `handlers_in_flight` lets the main thread wait, after
// emptying the slots, until no handler can still be using the launcher it is about to free.
std::atomic<ServiceLauncher*> stop_slot{nullptr};     // SIGINT and SIGTERM
std::atomic<ServiceLauncher*> restart_slot{nullptr};  // SIGHUP
std::atomic<int> handlers_in_flight{0};
std::atomic<bool> keep_running{true};

static_assert(std::atomic<ServiceLauncher*>::is_always_lock_free);
static_assert(std::atomic<int>::is_always_lock_free);
static_assert(std::atomic<bool>::is_always_lock_free);

extern "C" void on_stop_signal(int /*signal*/) {
  handlers_in_flight.fetch_add(1);
  if (ServiceLauncher* launcher = stop_slot.load(); launcher != nullptr) {
    keep_running.store(false);
    (void)launcher->stop();
  }
  handlers_in_flight.fetch_sub(1);
}

extern "C" void on_restart_signal(int /*signal*/) {
  handlers_in_flight.fetch_add(1);
  if (ServiceLauncher* launcher = restart_slot.load(); launcher != nullptr) {
    (void)launcher->stop();
  }
  handlers_in_flight.fetch_sub(1);
}

enum class CycleEnd { Restart, Exit, Failure };

DaemonPhase phase_of(ServiceLauncher::Phase phase) noexcept {
  switch (phase) {
    case ServiceLauncher::Phase::Starting:
      return DaemonPhase::Starting;
    case ServiceLauncher::Phase::Running:
      return DaemonPhase::Running;
    case ServiceLauncher::Phase::Stopping:
      break;
  }
  return DaemonPhase::Stopping;
}

// One start-up, run and shutdown. Objects are locals declared in creation order, so every
// return releases what was built in reverse order of creation. The watchdog (null: none) hears
// the phases; it stays in Stopping from the launcher's stop to the next cycle's start.
CycleEnd run_cycle(const CycleParts& parts, Watchdog* watchdog) {
  if (watchdog != nullptr) {
    watchdog->enter(DaemonPhase::Starting);
  }
  parts.notify("STATUS=Startup system manager...");

  auto created_context = parts.make_logging_context();
  if (created_context.has_error()) {
    std::fprintf(stderr, "system-mgr: %s\n", created_context.error().to_string().c_str());
    parts.notify("STATUS=Unable to create logging context.");
    return CycleEnd::Failure;
  }
  const logger::LoggingContext context = std::move(created_context).value();

  auto logger = create_guarded(parts, kLoggerRow, [&] { return parts.make_logger(); });
  if (!logger) {
    return CycleEnd::Failure;
  }
  const WatchdogLoggerAttachment watchdog_logger(watchdog, *logger);
  auto ipc = create_guarded(parts, kIpcRow, [&] { return parts.make_ipc(*logger); });
  if (!ipc) {
    return CycleEnd::Failure;
  }
  auto factory = create_guarded(parts, kFactoryRow, [&] { return parts.make_factory(*logger); });
  if (!factory) {
    return CycleEnd::Failure;
  }
  auto cfgdb = create_guarded(parts, kCfgDbRow, [&] { return parts.make_cfgdb(); });
  if (!cfgdb) {
    return CycleEnd::Failure;
  }
  auto posix_wrapper = create_guarded(
      parts, kPosixWrapperRow, [&] { return parts.make_posix_wrapper(*logger); }, device_open_on_board_row);
  if (!posix_wrapper) {
    return CycleEnd::Failure;
  }
  auto board = create_guarded(parts, kBoardRow, [&] { return parts.make_board(*logger, std::move(*posix_wrapper)); });
  if (!board) {
    return CycleEnd::Failure;
  }

  auto service = parts.make_service(*logger, *ipc, *cfgdb, *factory, *board);
  if (service.has_error()) {
    parts.notify(fmt::format("STATUS={}.", service.error().to_string()));
    return CycleEnd::Failure;
  }

  auto launcher = create_guarded(parts, kLauncherRow, [&] {
    return std::make_unique<ServiceLauncher>(std::move(service).value(), *logger, *ipc, false);
  });
  if (!launcher) {
    return CycleEnd::Failure;
  }

  if (watchdog != nullptr) {
    (*launcher)->set_phase_listener([watchdog](ServiceLauncher::Phase phase) { watchdog->enter(phase_of(phase)); });
  }
  stop_slot.store(launcher->get());
  restart_slot.store(launcher->get());

  parts.notify("READY=1\nSTATUS=Processing requests...\n");
  const auto result = (*launcher)->run();
  parts.notify("STATUS=Shutdown system manager...\nSTOPPING=1\n");

  restart_slot.store(nullptr);
  stop_slot.store(nullptr);
  while (handlers_in_flight.load() != 0) {
    // A handler that read a slot before it was emptied is finishing its stop(); wait for it.
  }

  if (result.has_error()) {
    core::log_error(**logger, result.error());
    return CycleEnd::Failure;
  }
  return keep_running.load() ? CycleEnd::Restart : CycleEnd::Exit;
}

int run_cycles(const CycleParts& parts, Watchdog* watchdog) {
  (void)std::signal(SIGTERM, on_stop_signal);
  (void)std::signal(SIGINT, on_stop_signal);
  (void)std::signal(SIGHUP, on_restart_signal);
  keep_running.store(true);

  while (true) {
    switch (run_cycle(parts, watchdog)) {
      case CycleEnd::Restart:
        // The old object graph is gone: hand the heap pages it freed back to the system, so that
        // restarts do not add up in the resident set.
        (void)::malloc_trim(0);
        continue;
      case CycleEnd::Exit:
        return 0;
      case CycleEnd::Failure:
        return 1;
    }
  }
}

}  // namespace

CycleParts daemon_cycle_parts() {
  CycleParts parts;
  parts.make_logging_context = [] {
    return logger::Logger::create_context(core::host_path(kLogConfigPath), kIpcName, 0);
  };
  parts.make_logger = []() -> CycleParts::LoggerPtr { return std::make_shared<logger::Logger>(kLogCategory); };
  parts.make_ipc = [](const CycleParts::LoggerPtr& logger) {
    ipc::ZmqIpcOptions options;
    options.delivery_threads = kDeliveryThreads;
    // The endpoint's own lines (dropped messages, receive failures) go where the daemon's go.
    options.logger = logger;
    return ipc::make_zmq_ipc(kOwnAddress, kIpcName, options);
  };
  parts.make_factory = [](const CycleParts::LoggerPtr& logger) -> CycleParts::FactoryPtr {
    return std::make_shared<Factory>(logger, kLogCategory);
  };
  parts.make_cfgdb = [] { return std::make_shared<cfgdb::CfgDbWrapper>(kCfgDbName); };
  parts.make_posix_wrapper = [](const CycleParts::LoggerPtr& logger) -> std::unique_ptr<board::IPosixWrapper> {
    return std::make_unique<board::PosixWrapper>(logger);
  };
  parts.make_board = [](const CycleParts::LoggerPtr& logger,
                        std::unique_ptr<board::IPosixWrapper> posix_wrapper) -> CycleParts::BoardPtr {
    return std::make_shared<board::Board>(logger, std::move(posix_wrapper));
  };
  parts.make_service = create_service;
  parts.notify = [](const std::string& text) { (void)::sd_notify(0, text.c_str()); };
  parts.watchdog_timeout = [] {
    std::uint64_t usec = 0;
    // Positive only when WATCHDOG_USEC is set and WATCHDOG_PID, if set, names this process.
    return ::sd_watchdog_enabled(0, &usec) > 0 ? std::chrono::microseconds(usec) : std::chrono::microseconds::zero();
  };
  return parts;
}

int run_daemon(const CycleParts& parts) {
  std::unique_ptr<Watchdog> watchdog;
  const std::chrono::microseconds watchdog_timeout =
      parts.watchdog_timeout ? parts.watchdog_timeout() : std::chrono::microseconds::zero();
  if (watchdog_timeout > std::chrono::microseconds::zero()) {
    // systemd's advice: ping at half its time-out, so that one late ping is not yet a failure.
    const auto ping_interval = std::max(std::chrono::milliseconds(1),
                                        std::chrono::duration_cast<std::chrono::milliseconds>(watchdog_timeout / 2));
    watchdog = std::make_unique<Watchdog>(ping_interval, kWatchdogStepBound,
                                          WatchdogIo{[] { return WatchdogClock::now(); }, parts.notify});
    try {
      watchdog->start();
    } catch (const std::exception& exception) {
      std::fprintf(stderr, "system-mgr: %s\n", exception.what());
      parts.notify("STATUS=Unable to start the watchdog thread.");
      return 1;
    }
    set_function_wait_listener(watchdog.get());
  }

  const int status = run_cycles(parts, watchdog.get());
  if (watchdog) {
    // The functions are gone with their cycles; none reports to the watchdog any more.
    set_function_wait_listener(nullptr);
    watchdog->stop();
  }
  return status;
}

}  // namespace xpon::system_mgr
