// xpon-exporter: the board as Prometheus metrics, read from the system manager over IPC and
// served over HTTP at /metrics.

#include "board_metrics.hpp"
#include "xpon/board_view/board_view.hpp"
#include "xpon/ipc/zmq_ipc.hpp"
#include "xpon/logger/logger.hpp"
#include "xpon/metrics/http_server.hpp"
#include "xpon/tool/command_line.hpp"
#include "xpon/tool/console.hpp"

#include <signal.h>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <chrono>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace {

using namespace xpon;

// The exporter's own IPC endpoint takes the first free application id of this range.
constexpr std::uint16_t kFirstApplication = 0xFD00;
constexpr std::uint16_t kLastApplication = 0xFD0F;
constexpr std::uint16_t kDefaultPort = 9620;

struct Settings {
  std::string listen = fmt::format("127.0.0.1:{}", kDefaultPort);
  double period_seconds = 10;
  unsigned timeout_ms = 5000;
};

/// "127.0.0.1:9620" or "[::1]:9620" as address and port; throws tool::UsageError.
std::pair<std::string, std::uint16_t> split_listen(const std::string& text) {
  const auto colon = text.rfind(':');
  if (colon == std::string::npos || colon + 1 == text.size()) {
    throw tool::UsageError(fmt::format("--listen {}: expected ADDRESS:PORT", text));
  }
  std::string address = text.substr(0, colon);
  if (address.size() >= 2 && address.front() == '[' && address.back() == ']') {
    address = address.substr(1, address.size() - 2);
  }
  const auto port = tool::parse_number(std::string_view(text).substr(colon + 1), 65535, "--listen port");
  return {address, static_cast<std::uint16_t>(port)};
}

metrics::HttpAnswer answer(const board_view::BoardView& view, std::string_view path) {
  if (path == "/metrics") {
    const auto families = exporter::board_metrics(view.snapshot(), view.stats());
    return {200, std::string(metrics::kExpositionContentType), metrics::render(families)};
  }
  if (path == "/") {
    return {200, "text/html; charset=utf-8",
            "<html><head><title>xpon-exporter</title></head><body><h1>xpon-exporter</h1>"
            "<p><a href=\"/metrics\">Metrics</a></p></body></html>\n"};
  }
  return {404, "", "Not found: the metrics are at /metrics\n"};
}

int run(const Settings& settings) {
  auto log = std::make_shared<logger::Logger>("XPON-EXPORTER");
  const auto [address, port] = split_listen(settings.listen);

  // SIGINT and SIGTERM are waited for below; blocked before any thread starts so that all inherit it.
  tool::block_stop_signals();
  const sigset_t stop_signals = tool::stop_signals();

  ipc::ZmqIpcOptions ipc_options;
  ipc_options.logger = log;
  ipc_options.delivery_threads = 1;  // alarm records must be taken in the order they were sent
  auto endpoint = ipc::make_zmq_endpoint_in_range(kFirstApplication, kLastApplication, "xpon-exporter", ipc_options);

  std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb;
  try {
    cfgdb = std::make_shared<cfgdb::CfgDbWrapper>("xpon-exporter");
  } catch (const std::exception& error) {
    log->warning("No limits will be exported: {}", error.what());
  }

  board_view::BoardViewOptions options;
  options.period = std::chrono::milliseconds(static_cast<std::int64_t>(settings.period_seconds * 1000));
  options.request_timeout = std::chrono::milliseconds(settings.timeout_ms);
  board_view::BoardView view(endpoint, cfgdb, log, options);
  if (auto started = view.start(); !started) {
    log->error("Cannot follow the system manager's events: {}", started.error().to_string());
    return 1;
  }

  metrics::HttpServerOptions http;
  http.address = address;
  http.port = port;
  auto server = metrics::HttpServer::start(
      http, [&view](std::string_view /*method*/, std::string_view path) { return answer(view, path); });
  if (!server) {
    log->error("{}", server.error().to_string());
    return 1;
  }
  log->logf(logger::kNotice, "Serving metrics at http://{}/metrics", server.value()->endpoint());

  int signal = 0;
  sigwait(&stop_signals, &signal);
  log->logf(logger::kNotice, "Stopping on signal {}", signal);
  server.value().reset();
  view.stop();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Settings settings;
  CLI::App app{
      "xpon-exporter: the board's readings, limits and raised alarms as Prometheus metrics, read from the system "
      "manager over IPC (under $XPON_ROOT when set) and served at http://ADDRESS:PORT/metrics",
      "xpon-exporter"};
  app.add_option("--listen", settings.listen, "ADDRESS:PORT to listen on ([::1]:PORT for IPv6)")->capture_default_str();
  app.add_option("--period", settings.period_seconds, "Seconds between two rounds of requests to the system manager")
      ->check(CLI::Range(0.1, 3600.0))
      ->capture_default_str();
  app.add_option("--timeout", settings.timeout_ms, "Milliseconds one request may wait for its answer")
      ->check(CLI::Range(1U, 600000U))
      ->capture_default_str();
  // Usage errors exit 2, other failures 1, as the tools do.
  return tool::run_command_line(app, argc, argv, [&settings] { return run(settings); });
}
