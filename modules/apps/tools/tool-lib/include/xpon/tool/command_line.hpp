#pragma once

// The frame of a tool's main: the stop signals blocked before any thread starts, the command
// line parsed, and errors turned into the tools' exit statuses.

#include <CLI/CLI.hpp>

#include <functional>

namespace xpon::tool {

/// Blocks SIGINT and SIGTERM in the calling thread; called first in main, so that every thread
/// started later inherits the mask and the signals reach only a signalfd.
void block_stop_signals();

/// Parses the command line into `app` and runs `command`, returning its status. A parse error
/// gives kExitUsage (--help kExitOk) with CLI11's message, a UsageError kExitUsage and any other
/// exception kExitFailed, each with "<app name>: <what>" on standard error.
int run_command_line(CLI::App& app, int argc, char** argv, const std::function<int()>& command);

}  // namespace xpon::tool
