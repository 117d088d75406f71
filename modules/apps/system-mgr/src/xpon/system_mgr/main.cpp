// The process entry of system-mgr: builds the object graph of one cycle, reports each stage
// to systemd, runs the device-family service until a signal stops it, and releases
// everything in reverse order. SIGHUP starts a new cycle inside the same process.

#include "xpon/board/board.hpp"
#include "xpon/board/posix_wrapper.hpp"
#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/core/guard.hpp"
#include "xpon/core/host_path.hpp"
#include "xpon/ipc/ipc.hpp"
#include "xpon/logger/logger.hpp"
#include "xpon/service/service_launcher.hpp"
#include "xpon/system_mgr/factory.hpp"
#include "xpon/system_mgr/services/create_service.hpp"

#include <fmt/format.h>
#include <malloc.h>
#include <systemd/sd-daemon.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace {

using xpon::service::ServiceLauncher;

constexpr std::string_view kLogConfigPath = "/etc/zlog_modules_config/SYSTEM-MGR.conf";
constexpr std::string_view kIpcName = "SYSTEM-MGR_IPC";
constexpr std::string_view kLogCategory = "SYSTEM-MGR";
constexpr std::string_view kCfgDbName = "SYSTEM-MGR_CFGDB";
constexpr xpon::ipc::Address kOwnAddress = 0x0019FFFE;

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

void notify(const std::string& text) {
  (void)::sd_notify(0, text.c_str());
}

enum class CycleEnd { Restart, Exit, Failure };

// One start-up, run and shutdown. Objects are locals declared in creation order, so every
// return releases what was built in reverse order of creation.
CycleEnd run_cycle() {
  notify("STATUS=Startup system manager...");

  auto created_context = xpon::logger::Logger::create_context(xpon::core::host_path(kLogConfigPath), kIpcName, 0);
  if (created_context.has_error()) {
    std::fprintf(stderr, "system-mgr: %s\n", created_context.error().to_string().c_str());
    notify("STATUS=Unable to create logging context.");
    return CycleEnd::Failure;
  }
  const xpon::logger::LoggingContext context = std::move(created_context).value();

  std::shared_ptr<xpon::logger::ILogger> logger;
  try {
    logger = std::make_shared<xpon::logger::Logger>(kLogCategory);
  } catch (const std::exception& exception) {
    notify(fmt::format("STATUS=Exception on create log subsystem: {}.", exception.what()));
    return CycleEnd::Failure;
  } catch (...) {
    notify("STATUS=Unknown exception on create log subsystem.");
    return CycleEnd::Failure;
  }

  std::shared_ptr<xpon::ipc::IIpc> ipc;
  try {
    xpon::ipc::ZmqIpcOptions options;
    ipc = xpon::ipc::make_zmq_ipc(kOwnAddress, kIpcName, options);
  } catch (const std::exception& exception) {
    notify(fmt::format("STATUS=Exception on create IPC subsystem: {}.", exception.what()));
    return CycleEnd::Failure;
  } catch (...) {
    notify("STATUS=Error on create IPC subsystem.");
    return CycleEnd::Failure;
  }

  std::shared_ptr<xpon::system_mgr::IFactory> factory;
  try {
    factory = std::make_shared<xpon::system_mgr::Factory>(logger, kLogCategory);
  } catch (const std::exception& exception) {
    notify(fmt::format("STATUS=Exception on create Factory object: {}.", exception.what()));
    return CycleEnd::Failure;
  } catch (...) {
    notify("STATUS=Unknown exception on create Factory object.");
    return CycleEnd::Failure;
  }

  std::shared_ptr<xpon::cfgdb::CfgDbWrapper> cfgdb;
  try {
    cfgdb = std::make_shared<xpon::cfgdb::CfgDbWrapper>(kCfgDbName);
  } catch (...) {  // one catch-all, and no text of the exception, by design of the status
    notify("STATUS=Error on create CFGDB subsystem.");
    return CycleEnd::Failure;
  }

  // The wrapper opens "/dev/board" as it is made. A device that cannot be opened is the
  // board's failure as far as the operator is concerned, so the wrapper is made within the
  // board's creation step and its exception is reported as "Exception on create Board object".
  std::shared_ptr<xpon::board::IBoard> board;
  try {
    board = std::make_shared<xpon::board::Board>(logger, std::make_unique<xpon::board::PosixWrapper>(logger));
  } catch (const std::exception& exception) {
    notify(fmt::format("STATUS=Exception on create Board object: {}.", exception.what()));
    return CycleEnd::Failure;
  } catch (...) {
    notify("STATUS=Unknown exception on create Board object.");
    return CycleEnd::Failure;
  }

  auto service = xpon::system_mgr::create_service(logger, ipc, cfgdb, factory, board);
  if (service.has_error()) {
    notify(fmt::format("STATUS={}.", service.error().to_string()));
    return CycleEnd::Failure;
  }

  std::unique_ptr<ServiceLauncher> launcher;
  try {
    launcher = std::make_unique<ServiceLauncher>(std::move(service).value(), logger, ipc, false);
  } catch (const std::exception& exception) {
    notify(fmt::format("STATUS=Exception on create Service Launcher: {}.", exception.what()));
    return CycleEnd::Failure;
  } catch (...) {
    notify("STATUS=Unknown exception on create Service Launcher.");
    return CycleEnd::Failure;
  }

  stop_slot.store(launcher.get());
  restart_slot.store(launcher.get());

  notify("READY=1\nSTATUS=Processing requests...\n");
  const auto result = launcher->run();
  notify("STATUS=Shutdown system manager...\nSTOPPING=1\n");

  restart_slot.store(nullptr);
  stop_slot.store(nullptr);
  while (handlers_in_flight.load() != 0) {
    // A handler that read a slot before it was emptied is finishing its stop(); wait for it.
  }

  if (result.has_error()) {
    xpon::core::log_error(*logger, result.error());
    return CycleEnd::Failure;
  }
  return keep_running.load() ? CycleEnd::Restart : CycleEnd::Exit;
}

void print_usage(std::FILE* out) {
  std::fputs(
      "Usage: system-mgr [--help]\n"
      "\n"
      "The system manager daemon of the line card: watches the board's health, publishes\n"
      "alarm records and events on the IPC bus, drives the fans and answers requests.\n"
      "Runs under systemd (Type=notify); SIGHUP restarts it in place, SIGINT and SIGTERM stop it.\n"
      "\n"
      "Environment:\n"
      "  XPON_ROOT      place every fixed path (/dev/board, /etc, /var/lib/xpon, /run, the\n"
      "                 factory EEPROM images) under this directory, as on a development machine\n"
      "  NOTIFY_SOCKET  systemd's notification socket (set by systemd)\n",
      out);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    const std::string_view argument(argv[1]);
    if (argc == 2 && (argument == "--help" || argument == "-h")) {
      print_usage(stdout);
      return 0;
    }
    std::fprintf(stderr, "system-mgr: unexpected argument '%s'\n", argv[1]);
    print_usage(stderr);
    return 2;
  }

  (void)std::signal(SIGTERM, on_stop_signal);
  (void)std::signal(SIGINT, on_stop_signal);
  (void)std::signal(SIGHUP, on_restart_signal);
  keep_running.store(true);

  while (true) {
    switch (run_cycle()) {
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
