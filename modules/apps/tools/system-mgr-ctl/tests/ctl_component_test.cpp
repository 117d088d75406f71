// system-mgr-ctl against real processes: a real xpon-ipc-bus in a temporary XPON_ROOT, events
// published and requests answered through the IPC library from this test process.

#include "xpon/ipc/ipc.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/test/temp_dir.hpp"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
namespace sm = xpon::system_mgr;

constexpr const char* kCtl = SYSTEM_MGR_CTL_PATH;
constexpr const char* kBus = XPON_IPC_BUS_PATH;

/// A fresh $XPON_ROOT for one test; the slot of this board is left to the addresses.
class TempRoot {
 public:
  [[nodiscard]] fs::path path() const { return root_.path(); }

 private:
  xpon::test::TempRoot root_{"system-mgr-ctl"};
  xpon::test::ScopedEnv no_slot_{"XPON_SLOT", std::nullopt};
};

std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

/// A child process with its stdout and stderr in files; killed if still running at destruction.
class Child {
 public:
  Child(std::vector<std::string> arguments, const fs::path& output_prefix)
      : stdout_path_(output_prefix.string() + ".out"), stderr_path_(output_prefix.string() + ".err") {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, stdout_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, stderr_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (auto& argument : arguments) {
      argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    const int failed = ::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) {
      throw std::runtime_error("cannot start " + arguments[0]);
    }
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }

  /// The wait status once the child has ended, or nothing if it still runs after `limit`.
  std::optional<int> wait_for(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    do {
      int status = 0;
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return status;
      }
      std::this_thread::sleep_for(5ms);
    } while (std::chrono::steady_clock::now() < end);
    return std::nullopt;
  }

  /// Sends a signal to the child while it runs.
  void signal(int number) const {
    if (pid_ > 0) {
      ::kill(pid_, number);
    }
  }

  [[nodiscard]] bool running() {
    if (pid_ <= 0) {
      return false;
    }
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      status_ = status;
      return false;
    }
    return true;
  }

  /// The exit status of a child that ended normally; -1 otherwise.
  int exit_status(std::chrono::milliseconds limit = 20s) {
    if (!status_) {
      status_ = wait_for(limit);
    }
    if (!status_ || !WIFEXITED(*status_)) {
      return -1;
    }
    return WEXITSTATUS(*status_);
  }

  [[nodiscard]] std::string out() const { return read_file(stdout_path_); }
  [[nodiscard]] std::string err() const { return read_file(stderr_path_); }

 private:
  std::string stdout_path_;
  std::string stderr_path_;
  pid_t pid_ = -1;
  std::optional<int> status_;
};

bool wait_for_file(const fs::path& path, std::chrono::milliseconds limit = 10s) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < end) {
    if (fs::exists(path)) {
      return true;
    }
    std::this_thread::sleep_for(5ms);
  }
  return fs::exists(path);
}

sm::Alarm cpu_load_alarm(std::uint8_t state, std::uint32_t one, std::uint32_t five, std::uint32_t fifteen,
                         const char* text) {
  sm::Alarm alarm;
  std::memset(&alarm, 0, sizeof alarm);
  alarm.state = state;
  alarm.alarm_id = sm::SYSTEM_MGR_ALARM_LOAD_AVERAGE;
  alarm.value[0] = one;
  alarm.value[1] = five;
  alarm.value[2] = fifteen;
  std::strncpy(alarm.text, text, sizeof alarm.text - 1);
  return alarm;
}

xpon::ipc::Event alarm_event(const sm::Alarm& alarm) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(&alarm);
  xpon::ipc::Event event;
  event.payload.assign(bytes, bytes + sizeof alarm);
  event.address = sm::SYSTEM_MGR_REPLY_ADDRESS_WORD;
  event.group = sm::IPC_EVENT_ALARM_GROUP;
  event.id = sm::IPC_EVENT_ALARM_ID;
  return event;
}

class SystemMgrCtl : public ::testing::Test {
 protected:
  /// Starts the bus and waits for both of its sockets.
  void start_bus() {
    bus_ = std::make_unique<Child>(std::vector<std::string>{kBus}, root_.path() / "bus");
    ASSERT_TRUE(wait_for_file(root_.path() / "run/xpon/ipc/bus.in")) << bus_->err();
    ASSERT_TRUE(wait_for_file(root_.path() / "run/xpon/ipc/bus.sub")) << bus_->err();
  }

  Child run_ctl(const std::vector<std::string>& arguments, const std::string& name) {
    std::vector<std::string> command;
    command.reserve(arguments.size() + 1);
    command.emplace_back(kCtl);
    for (const auto& argument : arguments) {
      command.push_back(argument);
    }
    return {std::move(command), root_.path() / name};
  }

  /// Publishes the event again and again until the watcher ends: a subscriber only gets what
  /// is published after its subscription reached the bus, and that moment is not visible.
  static void publish_until_done(xpon::ipc::IIpc& endpoint, const xpon::ipc::Event& event, Child& watcher) {
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (watcher.running() && std::chrono::steady_clock::now() < end) {
      ASSERT_TRUE(endpoint.send_event(event).has_value());
      std::this_thread::sleep_for(50ms);
    }
  }

  TempRoot root_;
  std::unique_ptr<Child> bus_;
};

TEST_F(SystemMgrCtl, WatchPrintsARaisedCpuLoadAlarmDecoded) {
  start_bus();
  auto watcher = run_ctl({"watch", "--count", "1", "--timeout", "30"}, "watch");
  const auto daemon = xpon::ipc::make_zmq_ipc(sm::SYSTEM_MGR_IPC_ADDRESS, "test-daemon");
  publish_until_done(
      *daemon, alarm_event(cpu_load_alarm(0, 150, 25, 0, "CPU load average (1m, 5m, 15m): 1.50, 0.25, 0.00")), watcher);
  EXPECT_EQ(watcher.exit_status(), 0) << watcher.err();
  EXPECT_EQ(watcher.out(),
            "9000:9005 alarm from 0x0019fffe: id 3 (system load average) raised, instance 0, values 150 25 0, "
            "text \"CPU load average (1m, 5m, 15m): 1.50, 0.25, 0.00\"\n");
  EXPECT_EQ(watcher.err(), "");
}

TEST_F(SystemMgrCtl, WatchPrintsABackToNormalAlarmAsJson) {
  start_bus();
  auto watcher = run_ctl({"watch", "--json", "--count", "1", "--timeout", "30"}, "watch");
  const auto daemon = xpon::ipc::make_zmq_ipc(sm::SYSTEM_MGR_IPC_ADDRESS, "test-daemon");
  publish_until_done(
      *daemon,
      alarm_event(cpu_load_alarm(1, 10, 20, 30, "CPU load average (1m, 5m, 15m): 0.10, 0.20, 0.30 is back to normal")),
      watcher);
  EXPECT_EQ(watcher.exit_status(), 0) << watcher.err();
  EXPECT_EQ(watcher.out(),
            R"({"type":"alarm","group":9000,"id":9005,"name":"alarm","source":"0x0019fffe","slot":65534,)"
            R"("address":"0x0000fffe","alarm_id":3,"alarm":"system load average","state":"back to normal",)"
            R"("instance":0,"values":[10,20,30],)"
            R"("text":"CPU load average (1m, 5m, 15m): 0.10, 0.20, 0.30 is back to normal"})"
            "\n");
}

TEST_F(SystemMgrCtl, WatchPrintsAnSfpRemovalWithItsPort) {
  start_bus();
  auto watcher = run_ctl({"watch", "--count", "1", "--timeout", "30"}, "watch");
  const auto daemon = xpon::ipc::make_zmq_ipc(sm::SYSTEM_MGR_IPC_ADDRESS, "test-daemon");
  xpon::ipc::Event removed;
  removed.payload = {3, 0, 0, 0};
  removed.address = sm::SYSTEM_MGR_REPLY_ADDRESS_WORD;
  removed.group = sm::IPC_SYSTEM_MGR;
  removed.id = sm::IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_REMOVED;
  publish_until_done(*daemon, removed, watcher);
  EXPECT_EQ(watcher.exit_status(), 0) << watcher.err();
  EXPECT_EQ(watcher.out(),
            "15500:15540 IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_REMOVED from 0x0019fffe: P-port 3 SFP module "
            "removed\n");
}

TEST_F(SystemMgrCtl, WatchCountsExactlyNEventsOfAnyKind) {
  start_bus();
  auto watcher = run_ctl({"watch", "--count", "2", "--timeout", "30"}, "watch");
  const auto daemon = xpon::ipc::make_zmq_ipc(sm::SYSTEM_MGR_IPC_ADDRESS, "test-daemon");
  const auto alarm = alarm_event(cpu_load_alarm(0, 150, 25, 0, "CPU load average (1m, 5m, 15m): 1.50, 0.25, 0.00"));
  xpon::ipc::Event inserted;
  inserted.payload.assign(64, 0);
  inserted.payload[0] = 2;
  inserted.payload[4] = 1;
  inserted.address = sm::SYSTEM_MGR_REPLY_ADDRESS_WORD;
  inserted.group = sm::IPC_SYSTEM_MGR;
  inserted.id = sm::IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_INSERTED;
  const auto end = std::chrono::steady_clock::now() + 20s;
  while (watcher.running() && std::chrono::steady_clock::now() < end) {
    ASSERT_TRUE(daemon->send_event(alarm).has_value());
    ASSERT_TRUE(daemon->send_event(inserted).has_value());
    std::this_thread::sleep_for(50ms);
  }
  EXPECT_EQ(watcher.exit_status(), 0) << watcher.err();
  const std::string alarm_line =
      "9000:9005 alarm from 0x0019fffe: id 3 (system load average) raised, instance 0, values 150 25 0, "
      "text \"CPU load average (1m, 5m, 15m): 1.50, 0.25, 0.00\"";
  const std::string inserted_line =
      "15500:15541 IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_INSERTED from 0x0019fffe: F-port 2 SFP module inserted: "
      "(no vendor) (no part number) rev -, serial -, 0 nm, state 0x01";
  // The first event seen depends on when the subscription reached the bus; after it the two alternate.
  const auto out = watcher.out();
  EXPECT_TRUE(out == alarm_line + "\n" + inserted_line + "\n" || out == inserted_line + "\n" + alarm_line + "\n")
      << out;
}

TEST_F(SystemMgrCtl, WatchWithoutABusSaysSoAndTimesOut) {
  auto watcher = run_ctl({"watch", "--timeout", "0.3"}, "watch");
  EXPECT_EQ(watcher.exit_status(), 3);
  EXPECT_EQ(watcher.err(),
            "system-mgr-ctl: the event bus is not running yet; waiting for it\n"
            "system-mgr-ctl: no event within 0.3 s\n");
}

TEST_F(SystemMgrCtl, WatchWithoutEventsTimesOutWithStatus3) {
  start_bus();
  auto watcher = run_ctl({"watch", "--timeout", "0.3"}, "watch");
  EXPECT_EQ(watcher.exit_status(), 3);
  EXPECT_EQ(watcher.out(), "");
  EXPECT_EQ(watcher.err(), "system-mgr-ctl: no event within 0.3 s\n");
}

TEST_F(SystemMgrCtl, WatchWithTooFewEventsTimesOutWithStatus3) {
  start_bus();
  auto watcher = run_ctl({"watch", "--count", "2", "--timeout", "0.3"}, "watch");
  EXPECT_EQ(watcher.exit_status(), 3);
  EXPECT_EQ(watcher.err(), "system-mgr-ctl: 0 of 2 events within 0.3 s\n");
}

TEST_F(SystemMgrCtl, WatchEndsCleanlyOnSigterm) {
  start_bus();
  auto watcher = run_ctl({"watch"}, "watch");
  // Right after its start the tool has not blocked the signal yet; a second is far more than it needs.
  std::this_thread::sleep_for(1s);
  ASSERT_TRUE(watcher.running());
  watcher.signal(SIGTERM);
  EXPECT_EQ(watcher.exit_status(), 0) << watcher.err();
}

TEST_F(SystemMgrCtl, RequestPrintsTheAnswerAndExits0) {
  const auto daemon = xpon::ipc::make_zmq_ipc(sm::SYSTEM_MGR_IPC_ADDRESS, "test-daemon");
  ASSERT_TRUE(daemon
                  ->subscribe_request({sm::IPC_SYSTEM_MGR, sm::IPC_SYSTEM_MGR__GET_TEMP},
                                      [&daemon](const xpon::ipc::Request& request) -> xpon::core::Result<void> {
                                        xpon::ipc::Response response;
                                        // Sensor 4 at 42 degrees.
                                        response.payload = {4, 0, 0, 0, 42, 0, 0, 0};
                                        response.reply_tag = request.reply_to->tag;
                                        response.result = 1;
                                        return daemon->send_response(request.reply_to->address, response);
                                      })
                  .has_value());
  auto client = run_ctl({"request", "--id", "GET_TEMP"}, "request");
  EXPECT_EQ(client.exit_status(), 0) << client.err();
  EXPECT_EQ(client.out(),
            "15500:15515 IPC_SYSTEM_MGR__GET_TEMP from 0x0019fffe: result 1 (answered), payload [040000002a000000] "
            "(8 bytes)\n  sensor 4 (PON chip): 42 °C\n");
  EXPECT_EQ(client.err(), "");
}

TEST_F(SystemMgrCtl, PortCommandSendsThePortAndDecodesTheDiagnostics) {
  const auto daemon = xpon::ipc::make_zmq_ipc(sm::SYSTEM_MGR_IPC_ADDRESS, "test-daemon");
  ASSERT_TRUE(daemon
                  ->subscribe_request({sm::IPC_SYSTEM_MGR, sm::IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA},
                                      [&daemon](const xpon::ipc::Request& request) -> xpon::core::Result<void> {
                                        xpon::ipc::Response response;
                                        response.reply_tag = request.reply_to->tag;
                                        // Answers only the port the test asks for, as the daemon answers only
                                        // ports with a module.
                                        if (request.payload == xpon::ipc::Payload{9, 0, 0, 0}) {
                                          response.payload.assign(133, 0);
                                          response.payload[0] = 9;
                                          response.payload[4] = 1;
                                          const double temperature = 40.0;
                                          std::memcpy(response.payload.data() + 5, &temperature, sizeof temperature);
                                          response.result = 1;
                                        }
                                        return daemon->send_response(request.reply_to->address, response);
                                      })
                  .has_value());
  auto client = run_ctl({"get-p-port-eddi-data", "--port", "9"}, "eddi");
  EXPECT_EQ(client.exit_status(), 0) << client.err();
  const auto out = client.out();
  EXPECT_TRUE(
      out.ends_with("(133 bytes)\n  port 9: diagnostics valid, temperature 40 °C, supply 0 V, bias 0 mA, "
                    "TX power 0 mW (no light)\n"))
      << out;
  auto other_port = run_ctl({"get-p-port-eddi-data", "--port", "2"}, "eddi-other");
  EXPECT_EQ(other_port.exit_status(), 1) << other_port.err();
  EXPECT_EQ(other_port.out(),
            "15500:15518 IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA from 0x0019fffe: result 0 (error answer), payload [] "
            "(0 bytes)\n");
}

TEST_F(SystemMgrCtl, RamCommandSendsGetRamDataAndPrintsKilobytesAndMebibytes) {
  const auto daemon = xpon::ipc::make_zmq_ipc(sm::SYSTEM_MGR_IPC_ADDRESS, "test-daemon");
  ASSERT_TRUE(daemon
                  ->subscribe_request({sm::IPC_SYSTEM_MGR, sm::IPC_SYSTEM_MGR__GET_RAM_DATA},
                                      [&daemon](const xpon::ipc::Request& request) -> xpon::core::Result<void> {
                                        xpon::ipc::Response response;
                                        response.reply_tag = request.reply_to->tag;
                                        // Answers only the empty request the command is to send.
                                        if (request.payload.empty()) {
                                          // 4045632.0F then 1234567.0F.
                                          response.payload = {0x00, 0xED, 0x76, 0x4A, 0x38, 0xB4, 0x96, 0x49};
                                          response.result = 1;
                                        }
                                        return daemon->send_response(request.reply_to->address, response);
                                      })
                  .has_value());
  auto text = run_ctl({"ram"}, "ram");
  EXPECT_EQ(text.exit_status(), 0) << text.err();
  EXPECT_EQ(text.out(), "RAM total 4045632 kB (3950.8 MiB), free 1234567 kB (1205.6 MiB)\n");
  EXPECT_EQ(text.err(), "");
  auto json = run_ctl({"ram", "--json"}, "ram-json");
  EXPECT_EQ(json.exit_status(), 0) << json.err();
  EXPECT_EQ(
      json.out(),
      R"({"type":"ram","from":"0x0019fffe","total_kb":4045632.0,"free_kb":1234567.0,"total_mib":3950.8125,"free_mib":1205.6318359375})"
      "\n");
}

TEST_F(SystemMgrCtl, RequestWithAnErrorAnswerExits1) {
  const auto daemon = xpon::ipc::make_zmq_ipc(sm::SYSTEM_MGR_IPC_ADDRESS, "test-daemon");
  ASSERT_TRUE(daemon
                  ->subscribe_request({sm::IPC_SYSTEM_MGR, sm::IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE},
                                      [&daemon](const xpon::ipc::Request& request) -> xpon::core::Result<void> {
                                        xpon::ipc::Response response;
                                        response.reply_tag = request.reply_to->tag;
                                        response.result = 0;
                                        // The request's payload comes back so the test can see it arrived.
                                        response.payload = request.payload;
                                        return daemon->send_response(request.reply_to->address, response);
                                      })
                  .has_value());
  auto client = run_ctl({"request", "--id", "15533", "--payload", "0102ff", "--json"}, "request");
  EXPECT_EQ(client.exit_status(), 1) << client.err();
  const auto out = client.out();
  EXPECT_TRUE(out.starts_with(R"({"type":"response","group":15500,"id":15533,)"
                              R"("name":"IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE","from":"0x0019fffe",)"
                              R"("result":0,"answer":"error answer","reply_tag":)"))
      << out;
  EXPECT_TRUE(out.ends_with(R"(,"address":"0x0000fffe","payload":"0102ff"})"
                            "\n"))
      << out;
}

TEST_F(SystemMgrCtl, RequestWithoutADaemonTimesOutWithStatus3) {
  auto client = run_ctl({"request", "--id", "15501", "--timeout", "200"}, "request");
  EXPECT_EQ(client.exit_status(), 3);
  EXPECT_EQ(client.out(), "");
  EXPECT_EQ(client.err(), "system-mgr-ctl: no answer from the system manager (0x0019fffe) within 200 ms\n");
}

TEST_F(SystemMgrCtl, UsageErrorsExit2WithAMessage) {
  struct Case {
    std::vector<std::string> arguments;
    std::string message;
  };
  const std::vector<Case> cases{
      {{"watch", "--count", "0"}, "system-mgr-ctl: --count: at least 1 event\n"},
      {{"watch", "--count", "many"}, "system-mgr-ctl: --count: 'many' is not a number (decimal or 0x hex)\n"},
      {{"watch", "--timeout", "soon"},
       "system-mgr-ctl: --timeout: 'soon' is not a number of seconds above 0 and at most 86400\n"},
      {{"request", "--id", "15537"},
       "system-mgr-ctl: --id: 15537 is not a request of the system manager (15501 to 15536)\n"},
      {{"request", "--id", "15501", "--payload", "abc"},
       "system-mgr-ctl: payload: 'abc' has an odd number of hex digits\n"},
      {{"request", "--id", "15501", "--timeout", "0"}, "system-mgr-ctl: --timeout: at least 1 ms\n"},
      {{"get-p-port-eddi-data"}, "system-mgr-ctl: get-p-port-eddi-data needs --port (or --payload)\n"},
      {{"set-fan-speed", "--speed", "256"}, "system-mgr-ctl: --speed: 256 is out of range (at most 0xff)\n"},
      {{"set-fan-speed", "--speed", "1", "--payload", "01"},
       "system-mgr-ctl: --speed and --payload cannot both be given\n"},
  };
  int index = 0;
  for (const auto& usage : cases) {
    auto client = run_ctl(usage.arguments, "usage" + std::to_string(index++));
    EXPECT_EQ(client.exit_status(), 2) << usage.message;
    EXPECT_EQ(client.err(), usage.message);
  }
  for (const auto& arguments : std::vector<std::vector<std::string>>{{}, {"request"}, {"watch", "--bogus"}, {"frob"}}) {
    auto client = run_ctl(arguments, "usage" + std::to_string(index++));
    EXPECT_EQ(client.exit_status(), 2);
    EXPECT_NE(client.err(), "");
  }
}

TEST_F(SystemMgrCtl, HelpIsThereForTheToolAndEachCommand) {
  auto top = run_ctl({"--help"}, "help");
  EXPECT_EQ(top.exit_status(), 0);
  EXPECT_NE(top.out().find("watch"), std::string::npos) << top.out();
  EXPECT_NE(top.out().find("request"), std::string::npos) << top.out();
  auto watch = run_ctl({"watch", "--help"}, "help-watch");
  EXPECT_EQ(watch.exit_status(), 0);
  EXPECT_NE(watch.out().find("--count"), std::string::npos) << watch.out();
  auto request = run_ctl({"request", "--help"}, "help-request");
  EXPECT_EQ(request.exit_status(), 0);
  EXPECT_NE(request.out().find("--payload"), std::string::npos) << request.out();
}

// A stand-in daemon answering one request: result 1 with `answer` when the request carries
// `expected`, an error answer otherwise.
void serve(const std::shared_ptr<xpon::ipc::IIpc>& daemon, std::uint16_t id, const xpon::ipc::Payload& expected,
           const xpon::ipc::Payload& answer) {
  ASSERT_TRUE(daemon
                  ->subscribe_request({sm::IPC_SYSTEM_MGR, id},
                                      [&daemon, expected, answer](const xpon::ipc::Request& request) {
                                        xpon::ipc::Response response;
                                        response.reply_tag = request.reply_to->tag;
                                        if (request.payload == expected) {
                                          response.payload = answer;
                                          response.result = 1;
                                        }
                                        return daemon->send_response(request.reply_to->address, response);
                                      })
                  .has_value());
}

TEST_F(SystemMgrCtl, LedPanelCommandSendsTheDriversRecord) {
  const auto daemon = xpon::ipc::make_zmq_ipc(sm::SYSTEM_MGR_IPC_ADDRESS, "test-daemon");
  // The alarm LED (2), blink (2), red (2).
  ASSERT_NO_FATAL_FAILURE(serve(daemon, sm::IPC_SYSTEM_MGR__CNTRL_LED_PANEL, {2, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0}, {}));
  auto client = run_ctl({"led", "panel", "alarm", "blink", "red"}, "led-panel");
  EXPECT_EQ(client.exit_status(), 0) << client.err();
  EXPECT_EQ(client.out(), "IPC_SYSTEM_MGR__CNTRL_LED_PANEL: done\n");
  auto refused = run_ctl({"led", "panel", "alarm", "on", "red", "--json"}, "led-panel-refused");
  EXPECT_EQ(refused.exit_status(), 1);
  EXPECT_TRUE(refused.out().starts_with(R"({"type":"response","group":15500,"id":15503,)")) << refused.out();
  auto usage = run_ctl({"led", "panel", "disk", "on", "red"}, "led-panel-usage");
  EXPECT_EQ(usage.exit_status(), 2);
  EXPECT_EQ(usage.err(),
            "system-mgr-ctl: LED: \"disk\" is not one of power, status, alarm, master, fan nor a number\n");
}

TEST_F(SystemMgrCtl, PonLedCommandSendsThePortWithTheRequestOfItsState) {
  const auto daemon = xpon::ipc::make_zmq_ipc(sm::SYSTEM_MGR_IPC_ADDRESS, "test-daemon");
  ASSERT_NO_FATAL_FAILURE(serve(daemon, sm::IPC_SYSTEM_MGR__P_PORT_G_LED_ON_R_LED_OFF, {3, 0, 0, 0}, {}));
  auto client = run_ctl({"led", "pon", "3", "green", "--json"}, "led-pon");
  EXPECT_EQ(client.exit_status(), 0) << client.err();
  EXPECT_EQ(client.out(),
            R"({"type":"setting","name":"IPC_SYSTEM_MGR__P_PORT_G_LED_ON_R_LED_OFF","from":"0x0019fffe","done":true})"
            "\n");
}

TEST_F(SystemMgrCtl, ButtonStatusAsksTheThreeQueries) {
  const auto daemon = xpon::ipc::make_zmq_ipc(sm::SYSTEM_MGR_IPC_ADDRESS, "test-daemon");
  ASSERT_NO_FATAL_FAILURE(serve(daemon, sm::IPC_SYSTEM_MGR__IS_F_BUTTON_ENABLED, {}, {1}));
  ASSERT_NO_FATAL_FAILURE(serve(daemon, sm::IPC_SYSTEM_MGR__IS_F_BUTTON_HARD_RESET_ENABLED, {}, {0}));
  ASSERT_NO_FATAL_FAILURE(serve(daemon, sm::IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED, {}, {1}));
  auto client = run_ctl({"button", "status"}, "button-status");
  EXPECT_EQ(client.exit_status(), 0) << client.err();
  EXPECT_EQ(client.out(),
            "front button enabled: yes\nfront button hard reset enabled: no\nfront button pressed: yes\n");
}

TEST_F(SystemMgrCtl, FactoryCommandPrintsTheFamilyAndTheFields) {
  const auto daemon = xpon::ipc::make_zmq_ipc(sm::SYSTEM_MGR_IPC_ADDRESS, "test-daemon");
  xpon::ipc::Payload record(280, 0);
  record[0] = 1;
  const std::string name = "QD7R-LC-8";
  std::copy(name.begin(), name.end(), record.begin() + 4);
  ASSERT_NO_FATAL_FAILURE(serve(daemon, sm::IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, {}, record));
  auto client = run_ctl({"factory", "device"}, "factory");
  EXPECT_EQ(client.exit_status(), 0) << client.err();
  EXPECT_TRUE(
      client.out().starts_with("device factory data from 0x0019fffe:\n  family: LC (1)\n  device name: "
                               "QD7R-LC-8\n"))
      << client.out();
  auto crate = run_ctl({"factory", "crate", "--timeout", "200"}, "factory-crate");
  EXPECT_EQ(crate.exit_status(), 3);
}

// A stand-in daemon that answers one request with `payload` and `result` and keeps what it was sent.
struct FanStandIn {
  explicit FanStandIn(std::uint16_t id, xpon::ipc::Payload payload, std::uint32_t result = 1)
      : daemon(xpon::ipc::make_zmq_ipc(sm::SYSTEM_MGR_IPC_ADDRESS, "test-daemon")) {
    subscribed =
        daemon
            ->subscribe_request({sm::IPC_SYSTEM_MGR, id},
                                [this, payload, result](const xpon::ipc::Request& request) -> xpon::core::Result<void> {
                                  {
                                    const std::lock_guard lock(mutex);
                                    received.push_back(request.payload);
                                  }
                                  xpon::ipc::Response response;
                                  response.reply_tag = request.reply_to->tag;
                                  response.payload = payload;
                                  response.result = result;
                                  return daemon->send_response(request.reply_to->address, response);
                                })
            .has_value();
  }
  // What the stand-in was sent, in order.
  std::vector<xpon::ipc::Payload> payloads() {
    const std::lock_guard lock(mutex);
    return received;
  }
  // Declared before the endpoint, so that the endpoint (and its delivery threads) goes first.
  std::mutex mutex;
  std::vector<xpon::ipc::Payload> received;
  std::shared_ptr<xpon::ipc::IIpc> daemon;
  bool subscribed = false;
};

TEST_F(SystemMgrCtl, TempCommandPrintsEverySensorWithItsName) {
  FanStandIn stand_in(sm::IPC_SYSTEM_MGR__GET_TEMP, {0, 0, 0, 0, 41, 0, 0, 0, 4, 0, 0, 0, 57, 0, 0, 0});
  ASSERT_TRUE(stand_in.subscribed);
  auto text = run_ctl({"temp"}, "temp");
  EXPECT_EQ(text.exit_status(), 0) << text.err();
  EXPECT_EQ(text.out(), "sensor 0 (PON SFP 1): 41 °C\nsensor 4 (PON chip): 57 °C\n");
  EXPECT_EQ(stand_in.payloads(), (std::vector<xpon::ipc::Payload>{{}}));
}

TEST_F(SystemMgrCtl, FanSpeedCommandSendsTheSettingAsOneByte) {
  FanStandIn stand_in(sm::IPC_SYSTEM_MGR__SET_FAN_SPEED, {});
  ASSERT_TRUE(stand_in.subscribed);
  auto text = run_ctl({"fan-speed", "159"}, "fan-speed");
  EXPECT_EQ(text.exit_status(), 0) << text.err();
  EXPECT_EQ(text.out(), "fan speed set\n");
  EXPECT_EQ(stand_in.payloads(), (std::vector<xpon::ipc::Payload>{{0x9F}}));
}

TEST_F(SystemMgrCtl, FanModuleSpeedRefusedExits1) {
  FanStandIn stand_in(sm::IPC_SYSTEM_MGR__SET_FAN_MODULE_SPEED, {}, 0);
  ASSERT_TRUE(stand_in.subscribed);
  auto text = run_ctl({"fan-module", "speed", "0x66"}, "fan-module-speed");
  EXPECT_EQ(text.exit_status(), 1) << text.err();
  EXPECT_EQ(stand_in.payloads(), (std::vector<xpon::ipc::Payload>{{0x66}}));
}

TEST_F(SystemMgrCtl, FanSpeedOutsideAByteIsAUsageError) {
  auto text = run_ctl({"fan-speed", "256"}, "fan-speed-usage");
  EXPECT_EQ(text.exit_status(), 2);
  EXPECT_EQ(text.err(), "system-mgr-ctl: SET: 256 is out of range (at most 0xff)\n");
  auto missing = run_ctl({"fan-module"}, "fan-module-usage");
  EXPECT_EQ(missing.exit_status(), 2);
}

}  // namespace
