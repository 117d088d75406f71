// How long system-mgr takes from being started to READY=1, how long a SIGHUP restart takes
// (signal sent to the second READY=1), and how much memory it keeps resident once ready.
// The daemon runs unmodified against the event bus and the board emulator (LT board).

#include "daemon_rig.hpp"

#include <benchmark/benchmark.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <memory>
#include <string>

namespace {

using namespace std::chrono_literals;
using xpon::system_mgr::test::DaemonRig;
using xpon::system_mgr::test::kDebugToStderr;
using xpon::system_mgr::test::kReadyText;

/// A value from /proc/PID/status in KiB ("VmRSS", "VmHWM"); -1 when it cannot be read.
double status_kib(pid_t pid, const std::string& field) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(field + ":", 0) == 0) {
      return std::stod(line.substr(field.size() + 1));
    }
  }
  return -1.0;
}

/// The LT board around the daemon; empty with `error` set when it cannot be made here.
std::unique_ptr<DaemonRig> make_board(std::string& error) {
  auto rig = std::make_unique<DaemonRig>();
  error = rig->start_bus();
  if (!error.empty()) {
    return nullptr;
  }
  std::string skip;
  error = rig->start_emulator("board-lt.json", skip);
  if (!skip.empty()) {
    error = skip;
  }
  if (!error.empty()) {
    return nullptr;
  }
  error = rig->make_factory_image("Korvan-16GP");
  if (!error.empty()) {
    return nullptr;
  }
  // Debug lines (to a file) tell when a start has settled; they cost the start-up little.
  rig->write_log_config(kDebugToStderr);
  return rig;
}

void record_memory(benchmark::State& state, pid_t pid) {
  state.counters["VmRSS_KiB"] = status_kib(pid, "VmRSS");
  state.counters["VmHWM_KiB"] = status_kib(pid, "VmHWM");
  // Split of the resident set: the daemon's own heap and stacks, and pages of mapped files
  // (the program and its shared libraries, partly shared with other processes).
  state.counters["RssAnon_KiB"] = status_kib(pid, "RssAnon");
  state.counters["RssFile_KiB"] = status_kib(pid, "RssFile");
}

// Spawn to READY=1: fork and exec, then the whole object graph up to the launcher, which
// sends READY=1 just before it runs the service.
void BM_StartToReady(benchmark::State& state) {
  std::string error;
  auto rig = make_board(error);
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
    // Measured once the first polls are done and every thread waits.
    if (!rig->wait_until_settled(1, 10s)) {
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
BENCHMARK(BM_StartToReady)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(30);

// SIGHUP to the next READY=1: the whole graph released and built again in the same process.
void BM_SighupRestart(benchmark::State& state) {
  std::string error;
  auto rig = make_board(error);
  if (!rig) {
    state.SkipWithError(error.c_str());
    return;
  }
  rig->start_daemon();
  std::size_t readies = 1;
  if (!rig->wait_for_notification(kReadyText, readies, 10s)) {
    state.SkipWithError(("no READY=1: " + rig->daemon_log()).c_str());
    return;
  }
  for (auto _ : state) {
    // A stop signal is only seen by a settled daemon (see DaemonRig::wait_until_settled).
    if (!rig->wait_until_settled(readies, 10s)) {
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
  if (rig->wait_until_settled(readies, 10s)) {
    record_memory(state, rig->daemon().pid());
    (void)rig->daemon().stop(SIGTERM, 10s);
  }
}
BENCHMARK(BM_SighupRestart)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(30);
// Many restarts in one process: whether the memory kept across cycles levels off.
BENCHMARK(BM_SighupRestart)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(300);
BENCHMARK(BM_SighupRestart)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1000);

}  // namespace

BENCHMARK_MAIN();
