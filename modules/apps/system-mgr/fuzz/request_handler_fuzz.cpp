// Feeds arbitrary requests to one system function's request handler, delivered as the IPC library
// delivers them: through the handler the function subscribed, with whatever leaves it caught and
// logged as the dispatcher does. The function runs on fakes (board, host, IPC endpoint, logger)
// and a real configuration database in a temporary root; XPON_FUZZ_FUNCTION names the function.
//
// Input: byte 0 chooses the message id (15500 + byte % 48: the function's own ids, the others of
// the daemon and a few beyond), byte 1 the reply information (bit 0) and how the board behaves
// for this request (bits 1-2: answers, fails once per operation, throws once per operation) and
// whether the host's readings fail (bit 3); the rest is the payload.
//
// What must hold for every input: without reply information nothing is answered; with it a
// subscribed request gets exactly one answer, to the sender, with the sender's tag, the address
// word 0x0000FFFE, a result word of 0 or 1, no payload on an error answer and at most 64 KiB.

#include "xpon/board/driver_abi.h"
#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/core/guard.hpp"
#include "xpon/core/host_path.hpp"
#include "xpon/core/result.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/system_mgr/functions/fan_module_monitoring.hpp"
#include "xpon/system_mgr/functions/fan_monitoring.hpp"
#include "xpon/system_mgr/functions/hdd_monitoring.hpp"
#include "xpon/system_mgr/functions/led_panel_cntrl.hpp"
#include "xpon/system_mgr/functions/misc_parameters.hpp"
#include "xpon/system_mgr/functions/ps_monitoring.hpp"
#include "xpon/system_mgr/functions/pwr_module_monitoring.hpp"
#include "xpon/system_mgr/functions/ram_monitoring.hpp"
#include "xpon/system_mgr/functions/sfp_monitoring.hpp"
#include "xpon/system_mgr/functions/temp_monitoring.hpp"
#include "xpon/test/fake_board.hpp"
#include "xpon/test/fake_host.hpp"
#include "xpon/test/recording_ipc.hpp"
#include "xpon/test/recording_logger.hpp"

#include <sys/statvfs.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#ifndef XPON_FUZZ_FUNCTION
#error "XPON_FUZZ_FUNCTION names the system function under test"
#endif

namespace {

using namespace xpon;
using namespace xpon::system_mgr;
using xpon::test::BoardOp;

// Never reached: the functions' polling threads are not started here.
constexpr std::chrono::milliseconds kPeriod{3600000};
constexpr ipc::Address kSender = ipc::make_address(0x0042);
constexpr std::uint16_t kTag = 0x2468;
constexpr std::size_t kMaxPayload = std::size_t{64} * 1024;
constexpr const char* kMeminfo =
    "MemTotal:        4045632 kB\nMemFree:         1234567 kB\nMemAvailable:    2000000 kB\n";

// Every operation of the fake board, to tell or forget outcomes for all of them.
constexpr BoardOp kLastOp = BoardOp::f_btn__disable_hard_reset;

// What the functions run on, made once for the whole run.
struct Fakes {
  Fakes() {
    std::string pattern = (std::filesystem::temp_directory_path() / "request-fuzz-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      std::abort();
    }
    root = pattern;
    ::setenv("XPON_ROOT", root.c_str(), 1);
    std::filesystem::create_directories(root + "/var/lib/xpon");
    cfgdb = std::make_shared<cfgdb::CfgDbWrapper>("FUZZ_CFGDB", root + "/var/lib/xpon/cfgdb.sqlite3");
    set_host_readings();
    board->answer(BoardOp::get_temp_count, std::uint8_t{5});
    board->answer(BoardOp::get_fpga_config_version, std::uint8_t{21});
    board->answer(BoardOp::get_cpld_config_version, std::uint8_t{7});
    // A module in P-port 0 and in F-port 0, so that the port requests find one.
    for (const BoardOp op : {BoardOp::get_p_port_sfp_state, BoardOp::get_f_port_sfp_state}) {
      board->answer_port(op, 0, Brd__sfp_state{0, 1, 0, 1, 0});
    }
  }

  // The host as a healthy board shows it: memory and five half-full 1 GiB partitions.
  void set_host_readings() const {
    host->set_file("/proc/meminfo", kMeminfo);
    host->set_pages(1000000, 300000);
    struct statvfs stats {};
    stats.f_bsize = 4096;
    stats.f_frsize = 4096;
    stats.f_blocks = 262144;
    stats.f_bavail = 131072;
    stats.f_bfree = 131072;
    for (const char* mount_point : HddMonitoring::kPartitions) {
      host->set_file_system(core::host_path(mount_point), stats);
    }
  }

  ~Fakes() {
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
  }

  Fakes(const Fakes&) = delete;
  Fakes& operator=(const Fakes&) = delete;

  std::string root;
  std::shared_ptr<xpon::test::RecordingLogger> logger = std::make_shared<xpon::test::RecordingLogger>();
  std::shared_ptr<xpon::test::RecordingIpc> ipc = std::make_shared<xpon::test::RecordingIpc>();
  std::shared_ptr<xpon::test::FakeBoard> board = std::make_shared<xpon::test::FakeBoard>();
  std::shared_ptr<xpon::test::FakeHost> host = std::make_shared<xpon::test::FakeHost>();
  std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb;
};

using Make = std::function<std::shared_ptr<SysFunction>(Fakes&)>;

// Every system function that answers requests, by the name the build gives.
const std::vector<std::pair<std::string_view, Make>>& factories() {
  static const std::vector<std::pair<std::string_view, Make>> list{
      {"ram", [](Fakes& f) { return std::make_shared<RamMonitoring>(f.logger, f.ipc, f.cfgdb, kPeriod, f.host); }},
      {"hdd", [](Fakes& f) { return std::make_shared<HddMonitoring>(f.logger, f.ipc, f.cfgdb, kPeriod, f.host); }},
      {"led_panel", [](Fakes& f) { return std::make_shared<LedPanelCntrl>(f.logger, f.ipc, f.board); }},
      {"misc", [](Fakes& f) { return std::make_shared<MiscParameters>(f.logger, f.ipc, f.board); }},
      {"temp",
       [](Fakes& f) { return std::make_shared<TempMonitoring>(f.logger, f.ipc, f.cfgdb, f.board, kPeriod, f.host); }},
      {"sfp", [](Fakes& f) { return std::make_shared<SfpMonitoring>(f.logger, f.ipc, f.board, kPeriod); }},
      {"fan", [](Fakes& f) { return std::make_shared<FanMonitoring>(f.logger, f.ipc, f.cfgdb, f.board, kPeriod); }},
      {"ps", [](Fakes& f) { return std::make_shared<PsMonitoring>(f.logger, f.ipc, f.board, kPeriod, f.host); }},
      {"fan_module",
       [](Fakes& f) { return std::make_shared<FanModuleMonitoring>(f.logger, f.ipc, f.cfgdb, f.board, kPeriod); }},
      {"pwr_module",
       [](Fakes& f) { return std::make_shared<PwrModuleMonitoring>(f.logger, f.ipc, f.cfgdb, f.board, kPeriod); }},
  };
  return list;
}

struct Harness {
  Harness() {
    for (const auto& [name, make] : factories()) {
      if (name == XPON_FUZZ_FUNCTION) {
        function = make(fakes);
      }
    }
    if (!function || !function->ipc_subscribe()) {
      std::abort();
    }
    // The SFP function learns its modules by polling; the others' polls change nothing a
    // request reads, and the control functions do not poll at all (their result says so).
    static_cast<void>(function->polling());
    reset();
  }

  ~Harness() { static_cast<void>(function->ipc_unsubscribe()); }

  Harness(const Harness&) = delete;
  Harness& operator=(const Harness&) = delete;

  // Back to a healthy board and host with nothing recorded; only what an input changed is
  // undone, since every call here is paid on every input.
  void reset() {
    fakes.logger->clear();
    fakes.ipc->clear_sent();
    fakes.board->clear_calls();
    fakes.host->clear_calls();
    if (board_told) {
      for (int op = 0; op <= static_cast<int>(kLastOp); ++op) {
        fakes.board->succeed(static_cast<BoardOp>(op));
      }
      board_told = false;
    }
    if (host_told) {
      fakes.set_host_readings();
      host_told = false;
    }
  }

  Fakes fakes;
  std::shared_ptr<SysFunction> function;
  bool board_told = false;  // outcomes were told to the board for this input
  bool host_told = false;   // the host's readings were made to fail for this input
};

void check(bool holds) {
  if (!holds) {
    __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Harness harness;
  if (size < 2) {
    return -1;  // not kept in the corpus
  }
  const auto id = static_cast<std::uint16_t>(IPC_SYSTEM_MGR + data[0] % 48);
  const bool reply_wanted = (data[1] & 0x01U) != 0;
  const unsigned board_mode = (data[1] >> 1U) & 0x03U;
  const bool host_fails = (data[1] & 0x08U) != 0;

  harness.board_told = board_mode == 1 || board_mode == 2;
  for (int op = 0; harness.board_told && op <= static_cast<int>(kLastOp); ++op) {
    if (board_mode == 1) {
      harness.fakes.board->fail(static_cast<BoardOp>(op), core::Error::CommonError, "driver failed",
                                xpon::test::FakeBoard::Times::once);
    } else if (board_mode == 2) {
      harness.fakes.board->throw_exception(static_cast<BoardOp>(op), "driver threw",
                                           xpon::test::FakeBoard::Times::once);
    }
  }
  harness.host_told = host_fails;
  if (host_fails) {
    // The payload doubles as the text of /proc/meminfo, for the RAM function's reader.
    harness.fakes.host->set_file("/proc/meminfo", std::string(reinterpret_cast<const char*>(data + 2), size - 2));
    harness.fakes.host->fail_get_phys_pages(EIO);
    for (const char* mount_point : HddMonitoring::kPartitions) {
      harness.fakes.host->fail_file_system(core::host_path(mount_point), EIO);
    }
  }

  ipc::Request request;
  request.group = IPC_SYSTEM_MGR;
  request.id = id;
  request.payload.assign(data + 2, data + size);
  request.address = SYSTEM_MGR_REPLY_ADDRESS_WORD;
  if (reply_wanted) {
    request.reply_to = ipc::ReplyTo{kSender, kTag};
  }
  const bool subscribed = harness.fakes.ipc->has_request_subscription({IPC_SYSTEM_MGR, id});
  // As the dispatcher runs a handler: whatever leaves it is caught and logged, never passed on.
  static_cast<void>(core::guarded_call(
      *harness.fakes.logger, [&]() -> core::Result<void> { return harness.fakes.ipc->inject_request(request); }));

  const auto responses = harness.fakes.ipc->responses();
  if (!reply_wanted || !subscribed) {
    check(responses.empty());
  } else {
    check(responses.size() == 1);
    const auto& sent = responses.front();
    check(sent.address == kSender);
    check(sent.response.reply_tag == kTag);
    check(sent.response.address == SYSTEM_MGR_REPLY_ADDRESS_WORD);
    check(sent.response.result == SYSTEM_MGR_RESULT_ANSWERED || sent.response.result == SYSTEM_MGR_RESULT_ERROR);
    check(sent.response.result == SYSTEM_MGR_RESULT_ANSWERED || sent.response.payload.empty());
    check(sent.response.payload.size() <= kMaxPayload);
  }
  harness.reset();
  return 0;
}
