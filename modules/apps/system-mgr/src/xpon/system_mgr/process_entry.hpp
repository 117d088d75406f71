#pragma once

// The start-up, run and shutdown cycle of system-mgr. Each creation of a cycle is a
// replaceable step, so that tests can drive the cycle with parts that fail on purpose;
// the daemon runs it with daemon_cycle_parts().

#include "xpon/board/board.hpp"
#include "xpon/board/posix_wrapper.hpp"
#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/core/result.hpp"
#include "xpon/ipc/ipc.hpp"
#include "xpon/logger/ilogger.hpp"
#include "xpon/logger/logger.hpp"
#include "xpon/service/service.hpp"
#include "xpon/system_mgr/factory.hpp"

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace xpon::system_mgr {

/// The creations of one cycle, in the order they are made, and the way status texts reach systemd.
struct CycleParts {
  using LoggerPtr = std::shared_ptr<logger::ILogger>;
  using IpcPtr = std::shared_ptr<ipc::IIpc>;
  using CfgDbPtr = std::shared_ptr<cfgdb::CfgDbWrapper>;
  using FactoryPtr = std::shared_ptr<IFactory>;
  using BoardPtr = std::shared_ptr<board::IBoard>;

  std::function<core::Result<logger::LoggingContext>()> make_logging_context;
  std::function<LoggerPtr()> make_logger;
  std::function<IpcPtr(const LoggerPtr&)> make_ipc;
  std::function<FactoryPtr(const LoggerPtr&)> make_factory;
  std::function<CfgDbPtr()> make_cfgdb;
  std::function<std::unique_ptr<board::IPosixWrapper>(const LoggerPtr&)> make_posix_wrapper;
  std::function<BoardPtr(const LoggerPtr&, std::unique_ptr<board::IPosixWrapper>)> make_board;
  std::function<core::Result<std::unique_ptr<service::IService>>(const LoggerPtr&, const IpcPtr&, const CfgDbPtr&,
                                                                 const FactoryPtr&, const BoardPtr&)>
      make_service;
  /// Sends one notification text to systemd (from the watchdog's thread too).
  std::function<void(const std::string&)> notify;
  /// The watchdog time-out systemd expects pings within, or zero when it expects none; left
  /// empty, the daemon runs without its watchdog.
  std::function<std::chrono::microseconds()> watchdog_timeout;
};

/// The parts of the daemon: the logging configuration, endpoint, factory data, configuration
/// database and board device at their fixed paths, sd_notify, and sd_watchdog_enabled (which
/// reads WATCHDOG_USEC and WATCHDOG_PID).
CycleParts daemon_cycle_parts();

/// Installs the SIGTERM, SIGINT and SIGHUP handlers and runs cycles until one ends the process;
/// returns the exit status: 0 after SIGTERM or SIGINT, 1 after a failed start-up or a run that
/// ended with an error. With a watchdog time-out, a watchdog thread pings systemd at half of it
/// across the cycles while the daemon makes progress (see watchdog.hpp).
int run_daemon(const CycleParts& parts);

}  // namespace xpon::system_mgr
