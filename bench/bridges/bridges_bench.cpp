// What the operator bridges cost: the exporter's page of a full LT board (24 modules with their
// diagnostics), one scrape of it over HTTP on loopback with its latency percentiles, and the
// exporter's CPU time and memory on an idle emulated LT board beside the daemon (the length in
// seconds from XPON_IDLE_SECONDS, default 300).

#include "board_metrics.hpp"
#include "daemon_rig.hpp"
#include "full_board.hpp"
#include "xpon/core/file_descriptor.hpp"
#include "xpon/metrics/http_server.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/test/proc_stats.hpp"
#include "xpon/test/process.hpp"

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using namespace xpon::board_view;
using xpon::bench::full_lt_board;
using xpon::system_mgr::test::DaemonRig;

void BM_PageOfAFullLtBoard(benchmark::State& state) {
  const BoardModel model = full_lt_board();
  std::size_t bytes = 0;
  for (auto _ : state) {
    const auto page = xpon::metrics::render(xpon::exporter::board_metrics(model, BoardViewStats{}));
    bytes = page.size();
    benchmark::DoNotOptimize(page.data());
  }
  state.counters["page_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_PageOfAFullLtBoard)->Unit(benchmark::kMicrosecond);

// One GET /metrics over a fresh TCP connection, read to the server's close; the page's size or 0.
std::size_t scrape(std::uint16_t port) {
  const xpon::core::FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::size_t received = 0;
  if (socket && ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    static const std::string request = "GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    if (xpon::core::write_full(socket.get(), request.data(), request.size()) == static_cast<ssize_t>(request.size())) {
      std::vector<char> buffer(std::size_t{64} * 1024);
      ssize_t got = 0;
      while ((got = xpon::core::read_once(socket.get(), buffer.data(), buffer.size())) > 0) {
        received += static_cast<std::size_t>(got);
      }
    }
  }
  return received;
}

void BM_ScrapeOverHttp(benchmark::State& state) {
  const BoardModel model = full_lt_board();
  auto server = xpon::metrics::HttpServer::start({}, [&model](std::string_view, std::string_view) {
    return xpon::metrics::HttpAnswer{200, std::string(xpon::metrics::kExpositionContentType),
                                     xpon::metrics::render(xpon::exporter::board_metrics(model, BoardViewStats{}))};
  });
  if (!server) {
    state.SkipWithError(server.error().to_string().c_str());
    return;
  }
  const std::uint16_t port = server.value()->port();
  std::vector<double> latencies;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    if (scrape(port) == 0) {
      state.SkipWithError("a scrape got nothing");
      return;
    }
    latencies.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
  }
  std::sort(latencies.begin(), latencies.end());
  const auto at = [&](double share) {
    return latencies[std::min(latencies.size() - 1,
                              static_cast<std::size_t>(share * static_cast<double>(latencies.size())))];
  };
  state.counters["p50_us"] = at(0.50);
  state.counters["p99_us"] = at(0.99);
  state.counters["max_us"] = latencies.back();
}
BENCHMARK(BM_ScrapeOverHttp)->Unit(benchmark::kMicrosecond);

void BM_IdleExporter(benchmark::State& state) {
  const char* configured = std::getenv("XPON_IDLE_SECONDS");
  const int seconds = configured != nullptr ? std::atoi(configured) : 300;
  DaemonRig rig;
  std::string skip;
  if (const auto error = rig.start_settled_board("board-lt.json", "Korvan-16GP", skip);
      !skip.empty() || !error.empty()) {
    state.SkipWithError((skip + error).c_str());
    return;
  }
  // The exporter as its unit runs it: a round every 10 s. A scrape every 15 s, as Prometheus's default.
  xpon::test::Process exporter({XPON_EXPORTER_PROGRAM, "--listen", "127.0.0.1:0"}, {"XPON_ROOT=" + rig.root()}, "",
                               rig.path("/exporter.log"));
  const std::regex serving(R"(Serving metrics at http://127\.0\.0\.1:([0-9]+)/metrics)");
  std::smatch match;
  std::string log;
  for (int tries = 0; tries < 100 && !std::regex_search(log, match, serving); ++tries) {
    std::this_thread::sleep_for(100ms);
    log = xpon::test::read_text_file(rig.path("/exporter.log"));
  }
  if (match.empty()) {
    state.SkipWithError(("the exporter did not start: " + log).c_str());
    return;
  }
  const auto port = static_cast<std::uint16_t>(std::stoi(match[1]));
  std::this_thread::sleep_for(1s);  // its first round
  const pid_t daemon = rig.daemon().pid();
  double exporter_cpu = 0;
  double daemon_cpu = 0;
  for (auto _ : state) {
    const double exporter_before = xpon::test::cpu_seconds(exporter.pid());
    const double daemon_before = xpon::test::cpu_seconds(daemon);
    for (int elapsed = 0; elapsed < seconds; elapsed += 15) {
      (void)scrape(port);
      std::this_thread::sleep_for(std::chrono::seconds(std::min(15, seconds - elapsed)));
    }
    exporter_cpu = xpon::test::cpu_seconds(exporter.pid()) - exporter_before;
    daemon_cpu = xpon::test::cpu_seconds(daemon) - daemon_before;
  }
  state.counters["seconds"] = seconds;
  state.counters["exporter_core_percent"] = 100.0 * exporter_cpu / seconds;
  state.counters["daemon_core_percent"] = 100.0 * daemon_cpu / seconds;
  state.counters["exporter_VmRSS_KiB"] = xpon::test::status_kib(exporter.pid(), "VmRSS");
  state.counters["exporter_Pss_KiB"] = xpon::test::smaps_rollup_kib(exporter.pid(), "Pss");
  state.counters["daemon_VmRSS_KiB"] = xpon::test::status_kib(daemon, "VmRSS");
  state.counters["daemon_Pss_KiB"] = xpon::test::smaps_rollup_kib(daemon, "Pss");
  exporter.stop(SIGTERM, 5s);
}
BENCHMARK(BM_IdleExporter)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
