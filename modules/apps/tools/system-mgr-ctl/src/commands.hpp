#pragma once

// The typed commands of system-mgr-ctl, one group of the daemon's requests per source file. Each
// group adds its subcommands to the parser and says what each one does once it is parsed.

#include <CLI/CLI.hpp>

#include <functional>
#include <string>
#include <vector>

namespace xpon::system_mgr::ctl {

/// A subcommand of the tool and what it does once parsed; `run` returns the exit status.
struct Subcommand {
  CLI::App* app = nullptr;
  std::function<int()> run;
};

using Subcommands = std::vector<Subcommand>;

/// The options every command that prints one answer has.
struct AnswerOptions {
  bool json = false;
  std::string timeout = "1000";
};

/// Adds --json (with its help text) and --timeout to `command`, kept in `options`.
void add_answer_options(CLI::App& command, AnswerOptions& options, const std::string& json_help);

/// `ram` and `disk`: the memory totals and the flash partitions' space.
void add_memory_commands(CLI::App& app, Subcommands& commands);

/// `psu` and `power-module`: the board's power supplies and the crate's power module.
void add_power_commands(CLI::App& app, Subcommands& commands);

/// `factory`, `version`, `button` and `led`: the board's identity, the front button and its LEDs.
void add_control_commands(CLI::App& app, Subcommands& commands);

/// `sfp list|eddi|rx-power|tx|inject`: the SFP modules of the PON and front ports.
void add_sfp_commands(CLI::App& app, Subcommands& commands);

/// `temp`, `fans`, `fan-speed SET` and `fan-module state|factory|speed SET`.
void add_fan_commands(CLI::App& app, Subcommands& commands);

}  // namespace xpon::system_mgr::ctl
