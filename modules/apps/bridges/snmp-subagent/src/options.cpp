#include "options.hpp"

#include <charconv>
#include <cstdint>
#include <string>

namespace xpon::snmp_subagent {

std::optional<Oid> parse_oid(std::string_view text) {
  if (text.starts_with('.')) {
    text.remove_prefix(1);
  }
  Oid result;
  while (!text.empty()) {
    const auto dot = text.find('.');
    const auto arc = text.substr(0, dot);
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(arc.data(), arc.data() + arc.size(), number);
    if (arc.empty() || error != std::errc() || end != arc.data() + arc.size()) {
      return std::nullopt;
    }
    result.push_back(number);
    if (dot == std::string_view::npos) {
      break;
    }
    text.remove_prefix(dot + 1);
    if (text.empty()) {
      return std::nullopt;
    }
  }
  if (result.size() < 2) {
    return std::nullopt;
  }
  return result;
}

void add_options(CLI::App& app, CommandLine& line) {
  app.add_option("--agentx-socket", line.agentx_socket,
                 "The master agent's AgentX socket (a path, or tcp:host:port); default net-snmp's "
                 "(/var/agentx/master)");
  app.add_option("--enterprise-arc", line.enterprise_arc, "Where XPON-BOARD-MIB is served (dotted OID)")
      ->capture_default_str()
      ->check(CLI::Validator(
          [](const std::string& text) { return parse_oid(text) ? std::string() : "not a dotted OID: " + text; },
          "OID"));
  app.add_option("--period-ms", line.period_ms, "Time between two rounds of requests to the system manager, in ms")
      ->capture_default_str()
      ->check(CLI::Range(100U, 3600000U));
  app.add_option("--refresh-ms", line.refresh_ms, "Time between two rebuilds of the served rows, in ms")
      ->capture_default_str()
      ->check(CLI::Range(50U, 60000U));
  app.add_option("--ping-interval", line.ping_interval,
                 "Seconds between pings of the master agent; a lost master is reconnected at this pace")
      ->capture_default_str()
      ->check(CLI::Range(1U, 3600U));
}

Options to_options(const CommandLine& line) {
  Options options;
  options.subagent.agentx_socket = line.agentx_socket;
  options.subagent.board_mib_arc = parse_oid(line.enterprise_arc).value_or(oids::kDefaultBoardMibArc);
  options.subagent.refresh = std::chrono::milliseconds(line.refresh_ms);
  options.subagent.update_rate = std::chrono::milliseconds(line.period_ms);
  options.subagent.ping_interval = line.ping_interval;
  options.view_period = std::chrono::milliseconds(line.period_ms);
  return options;
}

}  // namespace xpon::snmp_subagent
