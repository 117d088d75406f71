// system-mgr-ctl: asks the system manager daemon over IPC and watches what it publishes.

#include "client.hpp"
#include "commands.hpp"
#include "decode.hpp"
#include "xpon/ipc/paths.hpp"
#include "xpon/ipc/wire.hpp"
#include "xpon/ipc/zmq_ipc.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/tool/bus_watch.hpp"
#include "xpon/tool/command_line.hpp"
#include "xpon/tool/console.hpp"

#include <signal.h>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace xpon::system_mgr::ctl;
using xpon::tool::kExitOk;
using xpon::tool::kExitTimeout;
using xpon::tool::kExitUsage;
using xpon::tool::print_line;
using xpon::tool::UsageError;
namespace ipc = xpon::ipc;
namespace wire = xpon::ipc::wire;

std::uint64_t parse_count(const std::optional<std::string>& text) {
  if (!text) {
    return 0;
  }
  const auto count = xpon::tool::parse_number(*text, 0xFFFFFFFFU, "--count");
  if (count == 0) {
    throw UsageError("--count: at least 1 event");
  }
  return count;
}

int run_watch(bool json, const std::optional<std::string>& count_text, const std::optional<std::string>& timeout_text) {
  xpon::tool::WatchOptions options;
  options.count = parse_count(count_text);
  // Zero stands for "no time limit"; parse_seconds never gives it.
  options.timeout = timeout_text ? parse_seconds(*timeout_text, "--timeout") : std::chrono::milliseconds(0);
  // Bounds what one message may make this process allocate; larger ones are dropped by ZeroMQ.
  options.max_message_size = static_cast<std::int64_t>(wire::kMaxPayload + 1024);
  options.strict = true;

  ipc::ensure_ipc_directory();
  if (!std::filesystem::exists(ipc::ipc_directory() + "/bus.sub")) {
    print_error("the event bus is not running yet; waiting for it");
  }
  // Every event: the daemon's own, the alarm events and whatever else travels on the bus. What
  // is not a well-formed event is shown rather than dropped silently, so that a faulty
  // publisher can be found.
  const auto result = xpon::tool::watch_bus(
      options, [json](const ipc::Event& event) { print_line(format_event(event, json)); },
      [](const std::string& what) { print_error(fmt::format("malformed message on the bus ({}); skipped", what)); });
  if (result.end != xpon::tool::WatchEnd::TimedOut || (options.count == 0 && result.seen > 0)) {
    return kExitOk;
  }
  print_error(options.count == 0
                  ? fmt::format("no event within {} s", *timeout_text)
                  : fmt::format("{} of {} events within {} s", result.seen, options.count, *timeout_text));
  return kExitTimeout;
}

/// The options of one request command, kept for as long as the parser refers to them.
struct CommandOptions {
  RequestCommand command;
  CLI::App* app = nullptr;
  bool json = false;
  std::optional<std::string> payload;
  std::optional<std::string> argument;
  std::string timeout = "1000";
};

/// The payload of a request command: --payload, or the typed argument of the request.
ipc::Payload command_payload(const CommandOptions& options) {
  const auto& command = options.command;
  if (command.argument == RequestArgument::None) {
    return xpon::tool::parse_hex(options.payload.value_or(""));
  }
  const std::string_view option = command.argument == RequestArgument::Port ? "--port" : "--speed";
  if (options.payload && options.argument) {
    throw UsageError(fmt::format("{} and --payload cannot both be given", option));
  }
  if (options.payload) {
    return xpon::tool::parse_hex(*options.payload);
  }
  if (!options.argument) {
    throw UsageError(fmt::format("{} needs {} (or --payload)", command.command, option));
  }
  if (command.argument == RequestArgument::Port) {
    return port_payload(static_cast<std::uint32_t>(xpon::tool::parse_number(*options.argument, 0xFFFFFFFFU, option)));
  }
  return {static_cast<std::uint8_t>(xpon::tool::parse_number(*options.argument, 0xFF, option))};
}

}  // namespace

int main(int argc, char** argv) {
  xpon::tool::block_stop_signals();

  CLI::App app{
      "Talks to the system manager daemon: sends it requests and prints the events it publishes, "
      "decoded.\nExit status: 0 done (answered), 1 error answer or failure, 2 usage, 3 time-out.",
      "system-mgr-ctl"};
  app.require_subcommand(1, 1);

  bool watch_json = false;
  std::optional<std::string> watch_count;
  std::optional<std::string> watch_timeout;
  auto* watch =
      app.add_subcommand("watch", "Print the events on the bus, alarm records and the daemon's events decoded");
  watch->add_flag("--json", watch_json, "Print one JSON object per event");
  watch->add_option("--count", watch_count, "Stop after N events");
  watch->add_option("--timeout", watch_timeout, "Give up after S seconds (exit 3 if fewer events than wanted came)");

  bool request_json = false;
  std::string request_id;
  std::string request_payload;
  std::string request_timeout = "1000";
  auto* request = app.add_subcommand("request", "Send one request to the daemon and print its answer");
  request->add_flag("--json", request_json, "Print the answer as a JSON object");
  request->add_option("--id", request_id, "Message id (15501 to 15536) or name (GET_TEMP, IPC_SYSTEM_MGR__GET_TEMP)")
      ->required();
  request->add_option("--payload", request_payload, "Request payload as hex digits, two per byte");
  request->add_option("--timeout", request_timeout, "Time to wait for the answer, in ms")->capture_default_str();

  // The typed commands, one group of requests per source.
  Subcommands typed;
  add_memory_commands(app, typed);
  add_power_commands(app, typed);
  add_control_commands(app, typed);
  add_sfp_commands(app, typed);
  add_fan_commands(app, typed);

  // One command per request of the daemon; a deque keeps each one's options where the parser points.
  std::deque<CommandOptions> commands;
  for (auto& command : request_commands()) {
    auto& options = commands.emplace_back();
    options.command = std::move(command);
    const auto& named = options.command;
    options.app =
        app.add_subcommand(named.command, fmt::format("Send {} ({}) and print the answer", named.name, named.id));
    options.app->add_flag("--json", options.json, "Print the answer as a JSON object");
    options.app->add_option("--payload", options.payload, "Request payload as hex digits, two per byte");
    if (named.argument == RequestArgument::Port) {
      options.app->add_option("--port", options.argument, "Port number (sent as 4 bytes, little-endian)");
    } else if (named.argument == RequestArgument::Speed) {
      options.app->add_option("--speed", options.argument, "Fan speed setting, 0 to 255 (sent as 1 byte)");
    }
    options.app->add_option("--timeout", options.timeout, "Time to wait for the answer, in ms")->capture_default_str();
  }

  return xpon::tool::run_command_line(app, argc, argv, [&] {
    if (watch->parsed()) {
      return run_watch(watch_json, watch_count, watch_timeout);
    }
    if (request->parsed()) {
      return run_request(request_json, parse_request_id(request_id), xpon::tool::parse_hex(request_payload),
                         request_timeout, format_response);
    }
    for (const auto& command : typed) {
      if (command.app->parsed()) {
        return command.run();
      }
    }
    for (const auto& options : commands) {
      if (options.app->parsed()) {
        return run_request(options.json, options.command.id, command_payload(options), options.timeout,
                           format_response);
      }
    }
    return kExitUsage;
  });
}
