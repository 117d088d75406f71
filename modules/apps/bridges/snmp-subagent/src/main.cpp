// xpon-snmp-subagent: serves the board view over AgentX to the board's snmpd.

#include "options.hpp"
#include "subagent.hpp"

#include "xpon/board_view/board_view.hpp"
#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/ipc/zmq_ipc.hpp"
#include "xpon/logger/logger.hpp"
#include "xpon/tool/command_line.hpp"
#include "xpon/tool/console.hpp"

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>

namespace {

using namespace xpon;

constexpr const char* kProgram = "xpon-snmp-subagent";
// The subagent's own endpoint: the first free application id of this range.
constexpr std::uint16_t kFirstApplication = 0xFD10;
constexpr std::uint16_t kLastApplication = 0xFD1F;

snmp_subagent::Subagent* stopping_target = nullptr;

extern "C" void on_stop_signal(int /*signal*/) {
  if (stopping_target != nullptr) {
    stopping_target->stop();
  }
}

// Runs the subagent until SIGINT or SIGTERM; the exit status.
int run(const snmp_subagent::Options& options) {
  // net-snmp parses the MIB modules named by $MIBS (all it finds by default); the subagent names
  // nothing by label, so none. Set before any thread starts, since setenv is not thread-safe.
  setenv("MIBS", "", 1);  // NOLINT(concurrency-mt-unsafe)

  // The stop signals are blocked while the endpoint's threads start, so that only this thread,
  // which runs net-snmp, takes them.
  tool::block_stop_signals();
  const sigset_t stop_signals = tool::stop_signals();

  // Without a logging context the lines go to standard error (the journal under systemd).
  auto log = std::make_shared<logger::Logger>("XPON-SNMP-SUBAGENT");
  try {
    ipc::ZmqIpcOptions ipc_options;
    ipc_options.logger = log;
    ipc_options.delivery_threads = 1;  // alarm records must be taken in the order they were sent
    auto endpoint = ipc::make_zmq_endpoint_in_range(kFirstApplication, kLastApplication, kProgram, ipc_options);
    std::shared_ptr<cfgdb::CfgDbWrapper> database;
    try {
      database = std::make_shared<cfgdb::CfgDbWrapper>(kProgram);
    } catch (const std::exception& error) {
      log->warning("no configuration database, so no limits: {}", error.what());
    }
    board_view::BoardViewOptions view_options;
    view_options.period = options.view_period;
    board_view::BoardView view(endpoint, database, log, view_options);
    snmp_subagent::Subagent subagent([&view] { return view.snapshot(); }, log, options.subagent);
    view.on_transition([&subagent](const board_view::AlarmTransition& transition) { subagent.post(transition); });
    if (const auto started = view.start(); !started) {
      log->error("cannot follow the system manager: {}", started.error().to_string());
      return 1;
    }

    stopping_target = &subagent;
    struct sigaction action {};
    action.sa_handler = on_stop_signal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    pthread_sigmask(SIG_UNBLOCK, &stop_signals, nullptr);

    const bool ran = subagent.run();
    view.stop();
    stopping_target = nullptr;
    log->logf(logger::kInfo, "stopped");
    return ran ? 0 : 1;
  } catch (const std::exception& error) {
    log->error("{}", error.what());
    return 1;
  }
}

}  // namespace

int main(int argc, char** argv) {
  snmp_subagent::CommandLine line;
  CLI::App app{
      "Serves the board's health (ENTITY-MIB, ENTITY-SENSOR-MIB, ALARM-MIB, XPON-BOARD-MIB) to the "
      "board's snmpd as an AgentX subagent, from the system manager's readings and alarms.",
      kProgram};
  snmp_subagent::add_options(app, line);
  // Usage errors exit 2, other failures 1, as the tools do.
  return tool::run_command_line(app, argc, argv, [&line] { return run(snmp_subagent::to_options(line)); });
}
