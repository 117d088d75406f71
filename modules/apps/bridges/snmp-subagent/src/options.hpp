#pragma once

// The subagent's command line.

#include "subagent.hpp"

#include <CLI/CLI.hpp>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace xpon::snmp_subagent {

struct CommandLine {
  std::string agentx_socket;
  std::string enterprise_arc = "1.3.6.1.4.1.8072.9999.4242";
  unsigned period_ms = 10000;
  unsigned refresh_ms = 500;
  unsigned ping_interval = 5;
};

/// What main needs: the subagent's options and the view's period.
struct Options {
  SubagentOptions subagent;
  std::chrono::milliseconds view_period{};
};

/// A dotted OID ("1.3.6.1.4.1.8072.9999.4242", a leading dot allowed); none if it is not one
/// (fewer than two arcs, an arc that is not a 32-bit number).
std::optional<Oid> parse_oid(std::string_view text);

void add_options(CLI::App& app, CommandLine& line);

/// The options of a parsed command line (add_options has checked every value).
Options to_options(const CommandLine& line);

}  // namespace xpon::snmp_subagent
