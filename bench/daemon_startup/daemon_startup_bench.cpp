// How long system-mgr takes from being started to READY=1, how long a SIGHUP restart takes
// (signal sent to the second READY=1), how much memory it keeps resident once ready, and how
// much CPU it uses when left alone. The daemon runs unmodified against the event bus and the
// board emulator, once per board family (LT, LC, FC); each benchmark's name ends in the family.
// BM_IdleDaemonCpu lasts XPON_IDLE_SECONDS (default 300) per family: leave it out of the timing
// runs with --benchmark_filter=-Idle.

#include "daemon_rig.hpp"
#include "xpon/ipc/zmq_ipc.hpp"
#include "xpon/test/proc_stats.hpp"
#include "xpon/test/temp_dir.hpp"
#include "xpon/test/wait.hpp"

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

namespace {

using namespace std::chrono_literals;
using xpon::system_mgr::test::DaemonRig;
using xpon::system_mgr::test::kDebugToStderr;
using xpon::system_mgr::test::kReadyText;

/// One board family: the emulator's example scenario, the product of its factory image, and
/// how many system functions the daemon runs on it.
struct Family {
  const char* scenario;
  const char* product;
  std::size_t functions;
};

const Family kLt{"board-lt.json", "Korvan-16GP", 9};
const Family kLc{"board-lc.json", "QD7R-LC-8", 6};
const Family kFc{"board-fc.json", "QD7R-FC", 9};

/// The Election Manager's IPC address, which FC and LC boards link to at start-up.
constexpr xpon::ipc::Address kElectionManager = 0x0015FFFE;

using xpon::test::cpu_seconds;
using xpon::test::smaps_rollup_kib;
using xpon::test::status_kib;

std::size_t count_of(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
    ++count;
  }
  return count;
}

/// The board of one family around the daemon; empty with `error` set when it cannot be made here.
std::unique_ptr<DaemonRig> make_board(const Family& family, std::string& error) {
  auto rig = std::make_unique<DaemonRig>();
  error = rig->start_bus();
  if (!error.empty()) {
    return nullptr;
  }
  std::string skip;
  error = rig->start_emulator(family.scenario, skip);
  if (!skip.empty()) {
    error = skip;
  }
  if (!error.empty()) {
    return nullptr;
  }
  // FC and LC boards also link to the Election Manager; none answers here, as in the system
  // tests, and the default configuration does not wait for it.
  error = rig->make_factory_image(family.product);
  if (!error.empty()) {
    return nullptr;
  }
  // Debug lines (to a file) tell when a start has settled; they cost the start-up little.
  rig->write_log_config(kDebugToStderr);
  return rig;
}

/// Waits until the daemon's `cycle`-th start has settled. Each start logs one line per system
/// function: "Start System function" for those that poll, "Polling not required" for the
/// others; the rig then checks that every thread sleeps. The rig alone counts only the first
/// kind against the cycle number, which earlier starts already satisfy on later cycles.
bool wait_until_settled(DaemonRig& rig, const Family& family, std::size_t cycle) {
  const bool all_started = xpon::test::wait_until(
      [&] {
        const std::string log = rig.daemon_log();
        return count_of(log, "Start System function: ") + count_of(log, "Polling not required for System function: ") >=
               cycle * family.functions;
      },
      10s);
  return all_started && rig.wait_until_settled(cycle, 10s);
}

void record_memory(benchmark::State& state, pid_t pid) {
  state.counters["VmRSS_KiB"] = status_kib(pid, "VmRSS");
  state.counters["VmHWM_KiB"] = status_kib(pid, "VmHWM");
  // Split of the resident set: the daemon's own heap and stacks, and pages of mapped files
  // (the program and its shared libraries, partly shared with other processes).
  state.counters["RssAnon_KiB"] = status_kib(pid, "RssAnon");
  state.counters["RssFile_KiB"] = status_kib(pid, "RssFile");
  // What the daemon costs the board beside the other processes that map the same files: its
  // share of the file pages, and its anonymous memory counted the same way.
  state.counters["Pss_KiB"] = smaps_rollup_kib(pid, "Pss");
  state.counters["Pss_Anon_KiB"] = smaps_rollup_kib(pid, "Pss_Anon");
  state.counters["Pss_File_KiB"] = smaps_rollup_kib(pid, "Pss_File");
}

/// The board of one family with the daemon started and READY=1 received; empty after
/// skipping the benchmark with the reason when any of it fails. `before_start` runs on the
/// board just before the daemon is started.
std::unique_ptr<DaemonRig> start_ready_daemon(
    benchmark::State& state, const Family& family,
    const std::function<void(DaemonRig&)>& before_start = [](DaemonRig&) {}) {
  std::string error;
  auto rig = make_board(family, error);
  if (!rig) {
    state.SkipWithError(error.c_str());
    return nullptr;
  }
  before_start(*rig);
  rig->start_daemon();
  if (!rig->wait_for_notification(kReadyText, 1, 10s)) {
    state.SkipWithError(("no READY=1: " + rig->daemon_log()).c_str());
    return nullptr;
  }
  return rig;
}

// Spawn to READY=1: fork and exec, then the whole object graph up to the launcher, which
// sends READY=1 just before it runs the service.
void BM_StartToReady(benchmark::State& state, const Family& family) {
  std::string error;
  auto rig = make_board(family, error);
  if (!rig) {
    state.SkipWithError(error.c_str());
    return;
  }
  std::size_t readies = 0;
  for (auto _ : state) {
    const auto started = std::chrono::steady_clock::now();
    rig->start_daemon();
    if (!rig->wait_for_notification(kReadyText, ++readies, 10s)) {
      state.SkipWithError(("no READY=1: " + rig->daemon_log()).c_str());
      break;
    }
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
    // Measured once the first polls are done and every thread waits; each daemon has a log of
    // its own, so this is always its first start.
    if (!wait_until_settled(*rig, family, 1)) {
      state.SkipWithError(("the daemon did not settle: " + rig->daemon_log()).c_str());
      break;
    }
    record_memory(state, rig->daemon().pid());
    // The next daemon may only start once this one has given up its IPC address.
    if (!rig->daemon().stop(SIGTERM, 10s).exited_with(0)) {
      state.SkipWithError("the daemon did not stop cleanly on SIGTERM");
      break;
    }
  }
}

// SIGHUP to the next READY=1: the whole graph released and built again in the same process.
void BM_SighupRestart(benchmark::State& state, const Family& family) {
  auto rig = start_ready_daemon(state, family);
  if (!rig) {
    return;
  }
  std::size_t readies = 1;
  for (auto _ : state) {
    // A stop signal is only seen by a settled daemon (see DaemonRig::wait_until_settled).
    if (!wait_until_settled(*rig, family, readies)) {
      state.SkipWithError(("the daemon did not settle: " + rig->daemon_log()).c_str());
      break;
    }
    const auto started = std::chrono::steady_clock::now();
    rig->daemon().signal(SIGHUP);
    if (!rig->wait_for_notification(kReadyText, ++readies, 10s)) {
      state.SkipWithError(("no READY=1 after SIGHUP: " + rig->daemon_log()).c_str());
      break;
    }
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
  }
  // After every restart of the run: memory that grows here is kept across cycles.
  if (wait_until_settled(*rig, family, readies)) {
    record_memory(state, rig->daemon().pid());
    (void)rig->daemon().stop(SIGTERM, 10s);
  }
}

// The settled daemon left alone: its own user plus system time (the emulator and the bus are
// other processes and not counted), with the rig's debug logging to a file. FC and LC boards
// link to the Election Manager: without one the daemon's ZeroMQ I/O thread tries to connect
// again every reconnection interval; `with_election_manager` gives it a silent stand-in (an
// endpoint at its address that answers nothing), as on a crate where the manager runs.
void BM_IdleDaemonCpu(benchmark::State& state, const Family& family, bool with_election_manager) {
  const char* configured = std::getenv("XPON_IDLE_SECONDS");
  const int seconds = configured != nullptr ? std::atoi(configured) : 300;
  std::optional<xpon::test::ScopedEnv> root;
  std::shared_ptr<xpon::ipc::ZmqIpc> election_manager;
  auto rig = start_ready_daemon(state, family, [&](DaemonRig& board) {
    if (with_election_manager) {
      // The endpoint finds the board's bus and directory under its root for as long as it lives.
      root.emplace("XPON_ROOT", board.root());
      election_manager = xpon::ipc::make_zmq_endpoint(kElectionManager, "election-manager-stand-in");
    }
  });
  if (!rig) {
    return;
  }
  if (!wait_until_settled(*rig, family, 1)) {
    state.SkipWithError(("the daemon did not settle: " + rig->daemon_log()).c_str());
    return;
  }
  const pid_t pid = rig->daemon().pid();
  double used = 0.0;
  double elapsed = 0.0;
  for (auto _ : state) {
    const double cpu_before = cpu_seconds(pid);
    const auto wall_before = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    used = cpu_seconds(pid) - cpu_before;
    elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_before).count();
  }
  state.counters["cpu_s"] = used;
  state.counters["wall_s"] = elapsed;
  state.counters["core_percent"] = 100.0 * used / elapsed;
}

}  // namespace

int main(int argc, char** argv) {
  const std::pair<const char*, const Family*> families[] = {{"LT", &kLt}, {"LC", &kLc}, {"FC", &kFc}};
  for (const auto& [name, family] : families) {
    benchmark::RegisterBenchmark((std::string("BM_StartToReady/") + name).c_str(), BM_StartToReady, *family)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond)
        ->Iterations(30);
    benchmark::RegisterBenchmark((std::string("BM_SighupRestart/") + name).c_str(), BM_SighupRestart, *family)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond)
        ->Iterations(30);
  }
  // Many restarts in one process: whether the memory kept across cycles levels off.
  for (const int restarts : {300, 1000}) {
    benchmark::RegisterBenchmark("BM_SighupRestart/LT", BM_SighupRestart, kLt)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond)
        ->Iterations(restarts);
  }
  // The largest board too: the high-water mark over many restarts is what bounds the daemon.
  benchmark::RegisterBenchmark("BM_SighupRestart/FC", BM_SighupRestart, kFc)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond)
      ->Iterations(1000);
  for (const auto& [name, family] : families) {
    for (const bool with_election_manager : {false, true}) {
      if (with_election_manager && family == &kLt) {
        continue;  // LT boards do not link to it
      }
      const std::string variant = with_election_manager ? "/with_election_manager" : "";
      benchmark::RegisterBenchmark((std::string("BM_IdleDaemonCpu/") + name + variant).c_str(), BM_IdleDaemonCpu,
                                   *family, with_election_manager)
          ->Iterations(1)
          ->Unit(benchmark::kSecond);
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
