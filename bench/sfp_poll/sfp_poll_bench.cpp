// The steady cost of SFP monitoring: one poll of its 24 cages when nothing changes (a state read
// per cage, no identification read, no event), with the board object over a fake driver (the
// function's and the board object's own cost) and over the board emulator (plus the FUSE round
// trips of a development machine). BM_IdleDaemonCpu measures the whole daemon's CPU time on an
// idle emulated LT board from /proc, the emulator and the bus excluded; its length in seconds
// comes from XPON_IDLE_SECONDS (default 300).

#include "daemon_rig.hpp"
#include "xpon/board/board.hpp"
#include "xpon/board/posix_wrapper.hpp"
#include "xpon/system_mgr/functions/sfp_monitoring.hpp"
#include "xpon/test/fake_driver.hpp"
#include "xpon/test/proc_stats.hpp"
#include "xpon/test/process.hpp"
#include "xpon/test/recording_ipc.hpp"
#include "xpon/test/recording_logger.hpp"

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

namespace {

using namespace std::chrono_literals;
using xpon::system_mgr::SfpMonitoring;
using xpon::system_mgr::test::DaemonRig;

// The modules of examples/board-lt.json: P-ports 0, 1 and 3, F-port 0.
bool example_module(bool p_port, std::uint32_t port) {
  return p_port ? (port == 0 || port == 1 || port == 3) : port == 0;
}

// A driver that answers the inventory and the SFP presence and identification of the example board.
std::shared_ptr<xpon::test::FakeDriverState> example_driver() {
  auto driver = std::make_shared<xpon::test::FakeDriverState>();
  driver->reply<std::uint8_t>(0x80014C25, 16);  // BOARD_GET_PON_PORT_COUNT
  driver->reply<std::uint8_t>(0x80014C26, 8);   // BOARD_GET_FRONT_PORT_COUNT
  for (const bool p_port : {true, false}) {
    driver->reply_with<Brd__sfp_state>(p_port ? BOARD_GET_P_PORT_SFP_STATE : BOARD_GET_F_PORT_SFP_STATE,
                                       [p_port](Brd__sfp_state& state) {
                                         state.present = example_module(p_port, state.port) ? 1 : 0;
                                         state.state = 1;
                                       });
  }
  return driver;
}

// Polls once so that the modules are known, then measures the polls that find nothing new.
void measure_steady_polls(
    benchmark::State& state, SfpMonitoring& function, const std::function<void()>& between = [] {}) {
  if (!function.polling()) {
    state.SkipWithError("the first poll failed");
    return;
  }
  for (auto _ : state) {
    auto polled = function.polling();
    benchmark::DoNotOptimize(polled);
    between();
  }
  state.counters["cages"] = 24;
}

void BM_SteadyPollOverFakeDriver(benchmark::State& state) {
  auto logger = std::make_shared<xpon::test::RecordingLogger>();
  auto ipc = std::make_shared<xpon::test::RecordingIpc>();
  auto driver = example_driver();
  auto board = std::make_shared<xpon::board::Board>(logger, std::make_unique<xpon::test::FakeDriver>(driver));
  SfpMonitoring function(logger, ipc, board, std::chrono::milliseconds(1000));
  // The fake keeps every call; forgetting them keeps its memory flat over millions of polls.
  measure_steady_polls(state, function, [&driver] { driver->calls.clear(); });
  if (ipc->events().size() != 4) {
    state.SkipWithError("the example modules were not reported exactly once");
  }
}
BENCHMARK(BM_SteadyPollOverFakeDriver)->Unit(benchmark::kMicrosecond);

void BM_SteadyPollOverEmulator(benchmark::State& state) {
  DaemonRig rig;
  std::string skip;
  const std::string error = rig.start_emulator("board-lt.json", skip);
  if (!skip.empty() || !error.empty()) {
    state.SkipWithError((skip + error).c_str());
    return;
  }
  const xpon::test::ScopedEnv root("XPON_ROOT", rig.root());
  auto logger = std::make_shared<xpon::test::RecordingLogger>();
  auto ipc = std::make_shared<xpon::test::RecordingIpc>();
  auto board = std::make_shared<xpon::board::Board>(logger, std::make_unique<xpon::board::PosixWrapper>(logger));
  SfpMonitoring function(logger, ipc, board, std::chrono::milliseconds(1000));
  measure_steady_polls(state, function);
  if (ipc->events().size() != 4) {
    state.SkipWithError("the example modules were not reported exactly once");
  }
}
BENCHMARK(BM_SteadyPollOverEmulator)->Unit(benchmark::kMicrosecond);

using xpon::test::cpu_seconds;

void BM_IdleDaemonCpu(benchmark::State& state) {
  const char* configured = std::getenv("XPON_IDLE_SECONDS");
  const int seconds = configured != nullptr ? std::atoi(configured) : 300;
  DaemonRig rig;
  std::string skip;
  if (const auto error = rig.start_settled_board("board-lt.json", "Korvan-16GP", skip);
      !skip.empty() || !error.empty()) {
    state.SkipWithError((skip + error).c_str());
    return;
  }
  const pid_t pid = rig.daemon().pid();
  double used = 0.0;
  for (auto _ : state) {
    const double before = cpu_seconds(pid);
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    used = cpu_seconds(pid) - before;
  }
  state.counters["cpu_s"] = used;
  state.counters["seconds"] = seconds;
  state.counters["core_percent"] = 100.0 * used / seconds;
}
BENCHMARK(BM_IdleDaemonCpu)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
