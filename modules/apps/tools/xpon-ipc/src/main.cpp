// xpon-ipc: talks the IPC protocol by hand: sends requests, publishes and watches events, and
// stands in for a peer that answers one request (the Election Manager's mastership query, say).

#include "tool.hpp"
#include "xpon/core/file_descriptor.hpp"
#include "xpon/ipc/paths.hpp"
#include "xpon/ipc/zmq_ipc.hpp"
#include "xpon/tool/bus_watch.hpp"
#include "xpon/tool/command_line.hpp"
#include "xpon/tool/console.hpp"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace {

using namespace xpon::ipc;
using namespace xpon::ipc::tool;
using namespace xpon::tool;

/// Application ids tried, in order, when no --from is given.
constexpr std::uint16_t kFirstToolApplication = 0xFF00;

void print_error(const std::string& line) {
  xpon::tool::print_error("xpon-ipc", line);
}

std::shared_ptr<ZmqIpc> open_endpoint(const std::optional<std::string>& from, std::chrono::milliseconds linger) {
  ZmqIpcOptions options;
  options.linger = linger;
  if (from) {
    return make_zmq_endpoint(parse_address(*from, "--from"), "xpon-ipc", options);
  }
  return make_zmq_endpoint_in_range(kFirstToolApplication, 0xFFFF, "xpon-ipc", options);
}

struct Common {
  bool json = false;
  std::optional<std::string> from;
};

int run_send(const Common& common, const std::string& to_text, const std::string& key_text,
             const std::string& payload_text, const std::string& timeout_text) {
  const Address to = parse_address(to_text, "--to");
  const Key key = parse_key(key_text);
  const Payload payload = parse_hex(payload_text);
  const auto timeout = std::chrono::milliseconds(parse_number(timeout_text, 3600000, "--timeout"));
  auto endpoint = open_endpoint(common.from, std::chrono::milliseconds(20));
  Request request;
  request.group = key.group;
  request.id = key.id;
  request.payload = payload;
  const auto answer = endpoint->request(to, request, timeout);
  if (!answer) {
    if (answer.error().error == xpon::core::Error::InvalidState) {
      print_error(fmt::format("no response from 0x{:08x} within {} ms", to, timeout.count()));
      return kExitTimeout;
    }
    print_error(answer.error().to_string());
    return kExitFailed;
  }
  print_line(format_response(to, answer.value(), common.json));
  return answer.value().result == 1 ? kExitOk : kExitFailed;
}

int run_publish(const Common& common, const std::string& key_text, const std::string& payload_text) {
  const Key key = parse_key(key_text);
  if (key.id == kAnyId) {
    throw UsageError("--key: an event needs a message id");
  }
  Event event;
  event.group = key.group;
  event.id = key.id;
  event.payload = parse_hex(payload_text);
  if (!std::filesystem::exists(ipc_directory() + "/bus.in")) {
    print_error(fmt::format("no event bus is running ({}/bus.in is missing)", ipc_directory()));
    return kExitFailed;
  }
  // A long linger lets the event reach the bus before the process ends.
  auto endpoint = open_endpoint(common.from, std::chrono::milliseconds(2000));
  const auto sent = endpoint->send_event(event);
  if (!sent) {
    print_error(sent.error().to_string());
    return kExitFailed;
  }
  event.source = endpoint->event_source();
  event.address = make_address(0);
  if (common.json) {
    print_line(format_event(event, true));
  } else {
    print_line("published " + format_event(event, false));
  }
  return kExitOk;
}

int run_watch(const Common& common, const std::vector<std::string>& key_texts, std::uint64_t count,
              const std::string& timeout_text) {
  xpon::tool::WatchOptions options;
  for (const auto& text : key_texts) {
    options.keys.push_back(parse_key(text, true));
  }
  options.timeout = std::chrono::milliseconds(parse_number(timeout_text, 86400000, "--timeout"));
  options.count = count;
  // The watcher shows what others drop, so that a bad publisher can be found.
  const auto result = xpon::tool::watch_bus(
      options, [&](const Event& event) { print_line(format_event(event, common.json)); },
      [](const std::string& what) { print_error(fmt::format("malformed message on the bus ({})", what)); });
  if (result.end == xpon::tool::WatchEnd::TimedOut) {
    print_error(fmt::format("{} of {} events seen before the time-out", result.seen, count));
    return kExitTimeout;
  }
  return kExitOk;
}

int run_serve(const Common& common, const std::string& address_text, const std::string& key_text,
              const std::string& reply_text, const std::string& result_text, std::uint64_t count) {
  const Address address = parse_address(address_text, "--address");
  const Key key = parse_key(key_text);
  const Payload reply = parse_hex(reply_text);
  const auto result = static_cast<std::uint32_t>(parse_number(result_text, 0xFFFFFFFFU, "--result"));
  const sigset_t signals = stop_signals();
  const xpon::core::FileDescriptor signal_fd(::signalfd(-1, &signals, SFD_CLOEXEC));
  ZmqIpcOptions options;
  options.delivery_threads = 1;
  auto endpoint = make_zmq_endpoint(address, "xpon-ipc", options);
  std::atomic<std::uint64_t> served{0};
  const auto subscribed =
      endpoint->subscribe_request(key, [&, json = common.json](const Request& request) -> xpon::core::Result<void> {
        print_line(format_request(request, json));
        if (!request.reply_to) {
          return xpon::core::success();
        }
        Response response;
        response.payload = reply;
        response.reply_tag = request.reply_to->tag;
        response.result = result;
        auto sent = endpoint->send_response(request.reply_to->address, response);
        if (++served == count) {
          // Wakes the main thread, which waits on the signalfd.
          ::kill(::getpid(), SIGTERM);
        }
        return sent;
      });
  if (!subscribed) {
    print_error(subscribed.error().to_string());
    return kExitFailed;
  }
  print_error(fmt::format("serving {}:{} at 0x{:08x}", key.group, key.id, address));
  signalfd_siginfo info{};
  [[maybe_unused]] const auto got = xpon::core::read_once(signal_fd.get(), &info, sizeof info);
  (void)endpoint->unsubscribe_request(key);
  return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
  xpon::tool::block_stop_signals();

  CLI::App app{
      "Sends IPC requests, publishes and watches events, and answers requests as a stand-in peer. "
      "Addresses, keys and numbers are decimal or 0x hex; payloads are hex digits, two per byte.\n"
      "Exit status: 0 done (answered), 1 error answer or failure, 2 usage, 3 time-out.",
      "xpon-ipc"};
  app.require_subcommand(1, 1);
  Common common;
  app.add_flag("--json", common.json, "Print one JSON object per line");
  app.add_option("--from", common.from,
                 "Address of this tool's own endpoint (default: the first free of 0xff00fffe...)");

  std::string to;
  std::string key;
  std::string payload;
  std::string timeout = "1000";
  auto* send = app.add_subcommand("send", "Send a request and print its response");
  send->add_option("--to", to, "Address of the receiver")->required();
  send->add_option("--key", key, "GROUP:ID of the request")->required();
  send->add_option("--payload", payload, "Payload as hex digits");
  send->add_option("--timeout", timeout, "Time to wait for the response, in ms")->capture_default_str();

  std::string publish_key;
  std::string publish_payload;
  auto* publish = app.add_subcommand("publish", "Publish one event on the bus");
  publish->add_option("--key", publish_key, "GROUP:ID of the event")->required();
  publish->add_option("--payload", publish_payload, "Payload as hex digits");

  std::vector<std::string> watch_keys;
  std::uint64_t watch_count = 0;
  std::string watch_timeout = "0";
  auto* watch = app.add_subcommand("watch", "Print the events on the bus");
  watch->add_option("--key", watch_keys, "GROUP or GROUP:ID to watch (repeatable; none: everything)");
  watch->add_option("--count", watch_count, "Stop after this many events (0: never)");
  watch->add_option("--timeout", watch_timeout, "Give up after this many ms (0: never); exit 3");

  std::string serve_address;
  std::string serve_key;
  std::string serve_reply;
  std::string serve_result = "1";
  std::uint64_t serve_count = 0;
  auto* serve = app.add_subcommand("serve", "Answer one kind of request until stopped");
  serve->add_option("--address", serve_address, "Address to serve at (for example 0x0015FFFE)")->required();
  serve->add_option("--key", serve_key, "GROUP:ID of the request to answer")->required();
  serve->add_option("--reply", serve_reply, "Payload of every answer, as hex digits")->required();
  serve->add_option("--result", serve_result, "Result word of every answer")->capture_default_str();
  serve->add_option("--count", serve_count, "Stop after answering this many requests (0: never)");

  return xpon::tool::run_command_line(app, argc, argv, [&] {
    if (send->parsed()) {
      return run_send(common, to, key, payload, timeout);
    }
    if (publish->parsed()) {
      return run_publish(common, publish_key, publish_payload);
    }
    if (watch->parsed()) {
      return run_watch(common, watch_keys, watch_count, watch_timeout);
    }
    return run_serve(common, serve_address, serve_key, serve_reply, serve_result, serve_count);
  });
}
