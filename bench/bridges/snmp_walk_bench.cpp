// A full walk of entPhysicalTable and entPhySensorTable of an LT board with 24 modules: the real
// daemon on the emulated LT board with every cage filled (the scenario's first modules copied into
// the others), xpon-snmp-subagent as a program, Debian's snmpd as its AgentX master. The walker
// reads each table as a manager does, all of its columns side by side in GETBULK requests (25
// rows a request) over SNMPv2c, with net-snmp's client library; each iteration walks both tables,
// and the percentiles of the iterations are reported. BM_WalkOneColumnAtATime does the same with
// snmpbulkwalk, one column after the other (a process per table), for comparison; BM_IdleSubagent
// measures the subagent left alone.

#include "daemon_rig.hpp"
#include "snmp_sandbox.hpp"
#include "xpon/test/proc_stats.hpp"
#include "xpon/test/process.hpp"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using xpon::system_mgr::test::DaemonRig;

constexpr const char* kEntityTable = "1.3.6.1.2.1.47.1.1.1";
constexpr const char* kSensorTable = "1.3.6.1.2.1.99.1.1";
constexpr long kRowsPerRequest = 25;

// The emulated LT board with 24 modules, snmpd and the subagent, all serving.
class Board {
 public:
  // Empty when all is up; else why not. The subagent asks the daemon every `period_ms`.
  std::string start(const std::string& period_ms = "1000") {
    if (auto missing = xpon::snmp_subagent::missing_programs(); !missing.empty()) {
      return missing;
    }
    std::string skip;
    if (auto error = rig_.start_settled_board("board-lt.json", "Korvan-16GP", skip); !skip.empty() || !error.empty()) {
      return skip + error;
    }
    if (auto filled = fill_every_cage(); !filled.empty()) {
      return filled;
    }
    if (auto started = snmp_.start(); !started.empty()) {
      return started;
    }
    auto environment = snmp_.environment();
    environment.push_back("XPON_ROOT=" + rig_.root());
    subagent_.emplace(std::vector<std::string>{XPON_SNMP_SUBAGENT_PROGRAM, "--agentx-socket", snmp_.agentx_socket(),
                                               "--period-ms", period_ms},
                      environment, "", rig_.path("/subagent.log"));
    // Served once the 24 modules are in the entity table (their serial numbers).
    const bool served = xpon::test::wait_until(
        [&] {
          const auto serials = snmp_.walk("1.3.6.1.2.1.47.1.1.1.1.11");
          return xpon::snmp_subagent::count_of(serials, "STRING: \"XO23") == 24;
        },
        20s, 100ms);
    if (!served) {
      return "the subagent does not serve 24 modules: " + snmp_.walk("1.3.6.1.2.1.47.1.1.1.1.11") +
             xpon::test::read_text_file(rig_.path("/subagent.log"));
    }
    return {};
  }

  ~Board() {
    if (subagent_) {
      subagent_->stop(SIGTERM, 5s);
    }
  }

  xpon::snmp_subagent::SnmpSandbox& snmp() { return snmp_; }
  pid_t subagent_pid() const { return subagent_ ? subagent_->pid() : -1; }
  pid_t daemon_pid() { return rig_.daemon().pid(); }

 private:
  // Every cage gets the scenario's first module of its group.
  std::string fill_every_cage() {
    std::ifstream file(std::string(XPON_EXAMPLES_DIR) + "/board-lt.json");
    const auto scenario = nlohmann::json::parse(file, nullptr, false);
    if (scenario.is_discarded()) {
      return "cannot read examples/board-lt.json";
    }
    nlohmann::json patch;
    for (int cage = 0; cage < 16; ++cage) {
      patch["pon_ports"][std::to_string(cage)] = scenario["pon_ports"][0];
    }
    for (int cage = 0; cage < 8; ++cage) {
      patch["front_ports"][std::to_string(cage)] = scenario["front_ports"][0];
    }
    std::ofstream control(rig_.path("/dev/board-control"));
    control << patch.dump();
    control.close();
    return control.good() ? std::string() : "the emulator refused the patch";
  }

  DaemonRig rig_;
  xpon::snmp_subagent::SnmpSandbox snmp_;
  std::optional<xpon::test::Process> subagent_;
};

std::vector<oid> parse(const char* text) {
  std::vector<oid> name(MAX_OID_LEN);
  std::size_t length = name.size();
  read_objid(text, name.data(), &length);
  name.resize(length);
  return name;
}

bool under(const std::vector<oid>& prefix, const oid* name, std::size_t length) {
  return length > prefix.size() && std::equal(prefix.begin(), prefix.end(), name);
}

// Walks a table's columns side by side; the number of objects read, or -1 on an error.
long walk_table(void* session, const char* table, unsigned first_column, unsigned last_column) {
  const auto entry = parse((std::string(table) + ".1").c_str());
  struct Column {
    std::vector<oid> prefix;
    std::vector<oid> last;
    bool done = false;
  };
  std::vector<Column> columns;
  for (unsigned column = first_column; column <= last_column; ++column) {
    auto prefix = entry;
    prefix.push_back(column);
    columns.push_back(Column{prefix, prefix, false});
  }
  long objects = 0;
  while (std::any_of(columns.begin(), columns.end(), [](const Column& column) { return !column.done; })) {
    netsnmp_pdu* request = snmp_pdu_create(SNMP_MSG_GETBULK);
    request->non_repeaters = 0;
    request->max_repetitions = kRowsPerRequest;
    std::vector<Column*> asked;
    for (auto& column : columns) {
      if (!column.done) {
        snmp_add_null_var(request, column.last.data(), column.last.size());
        asked.push_back(&column);
      }
    }
    netsnmp_pdu* response = nullptr;
    if (snmp_sess_synch_response(session, request, &response) != STAT_SUCCESS || response == nullptr ||
        response->errstat != SNMP_ERR_NOERROR) {
      if (response != nullptr) {
        snmp_free_pdu(response);
      }
      return -1;
    }
    std::size_t at = 0;
    for (netsnmp_variable_list* variable = response->variables; variable != nullptr;
         variable = variable->next_variable, ++at) {
      Column& column = *asked[at % asked.size()];
      if (column.done) {
        continue;
      }
      if (variable->type == SNMP_ENDOFMIBVIEW || !under(column.prefix, variable->name, variable->name_length)) {
        column.done = true;
        continue;
      }
      column.last.assign(variable->name, variable->name + variable->name_length);
      ++objects;
    }
    snmp_free_pdu(response);
  }
  return objects;
}

void report(benchmark::State& state, std::vector<double> walks, long objects) {
  if (walks.empty()) {
    return;
  }
  std::sort(walks.begin(), walks.end());
  const auto at = [&](double share) {
    return walks[std::min(walks.size() - 1, static_cast<std::size_t>(share * static_cast<double>(walks.size())))];
  };
  state.counters["objects"] = static_cast<double>(objects);
  state.counters["p50_ms"] = at(0.50);
  state.counters["p99_ms"] = at(0.99);
  state.counters["max_ms"] = walks.back();
}

void BM_WalkEntityAndSensorTables(benchmark::State& state) {
  Board board;
  if (const auto error = board.start(); !error.empty()) {
    state.SkipWithError(error.c_str());
    return;
  }
  init_snmp("snmp_walk_bench");
  netsnmp_session settings;
  snmp_sess_init(&settings);
  std::string peer = "127.0.0.1:" + std::to_string(board.snmp().agent_port());
  std::string community = "public";
  settings.peername = peer.data();
  settings.version = SNMP_VERSION_2c;
  settings.community = reinterpret_cast<u_char*>(community.data());
  settings.community_len = community.size();
  settings.timeout = 1000000;
  settings.retries = 0;
  void* session = snmp_sess_open(&settings);
  if (session == nullptr) {
    state.SkipWithError("cannot open an SNMP session");
    return;
  }
  std::vector<double> walks;
  long objects = 0;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    const long entities = walk_table(session, kEntityTable, 2, 16);
    const long sensors = walk_table(session, kSensorTable, 1, 8);
    walks.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
    if (entities < 0 || sensors < 0) {
      state.SkipWithError("a walk failed");
      break;
    }
    objects = entities + sensors;
  }
  snmp_sess_close(session);
  report(state, walks, objects);
}
BENCHMARK(BM_WalkEntityAndSensorTables)->Iterations(200)->Unit(benchmark::kMillisecond);

void BM_WalkOneColumnAtATime(benchmark::State& state) {
  Board board;
  if (const auto error = board.start(); !error.empty()) {
    state.SkipWithError(error.c_str());
    return;
  }
  std::vector<double> walks;
  long objects = 0;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    const auto entities = board.snmp().bulk_walk(kEntityTable);
    const auto sensors = board.snmp().bulk_walk(kSensorTable);
    walks.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
    objects = static_cast<long>(std::count(entities.begin(), entities.end(), '\n') +
                                std::count(sensors.begin(), sensors.end(), '\n'));
  }
  report(state, walks, objects);
}
BENCHMARK(BM_WalkOneColumnAtATime)->Iterations(50)->Unit(benchmark::kMillisecond);

// The subagent as its unit runs it (the view's round every 10 s, the rows rebuilt every 500 ms)
// on the filled LT board, walked every 60 s, for XPON_IDLE_SECONDS (default 300): its CPU time
// and memory, and the daemon's beside it.
void BM_IdleSubagent(benchmark::State& state) {
  const char* configured = std::getenv("XPON_IDLE_SECONDS");
  const int seconds = configured != nullptr ? std::atoi(configured) : 300;
  Board board;
  if (const auto error = board.start("10000"); !error.empty()) {
    state.SkipWithError(error.c_str());
    return;
  }
  double subagent_cpu = 0;
  double daemon_cpu = 0;
  for (auto _ : state) {
    const double subagent_before = xpon::test::cpu_seconds(board.subagent_pid());
    const double daemon_before = xpon::test::cpu_seconds(board.daemon_pid());
    for (int elapsed = 0; elapsed < seconds; elapsed += 60) {
      (void)board.snmp().walk("1.3.6.1.2.1.99.1.1.1.4");
      std::this_thread::sleep_for(std::chrono::seconds(std::min(60, seconds - elapsed)));
    }
    subagent_cpu = xpon::test::cpu_seconds(board.subagent_pid()) - subagent_before;
    daemon_cpu = xpon::test::cpu_seconds(board.daemon_pid()) - daemon_before;
  }
  state.counters["seconds"] = seconds;
  state.counters["subagent_core_percent"] = 100.0 * subagent_cpu / seconds;
  state.counters["daemon_core_percent"] = 100.0 * daemon_cpu / seconds;
  state.counters["subagent_VmRSS_KiB"] = xpon::test::status_kib(board.subagent_pid(), "VmRSS");
  state.counters["subagent_Pss_KiB"] = xpon::test::smaps_rollup_kib(board.subagent_pid(), "Pss");
}
BENCHMARK(BM_IdleSubagent)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
