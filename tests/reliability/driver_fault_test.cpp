// The driver-fault matrix: every board command the running daemon uses fails with EIO, then with
// ETIMEDOUT, then answers later than a client waits for an answer, injected through the emulator
// into one running daemon per family, case after case. Meanwhile the other functions keep their
// periods (the board serialises driver calls by design, so one poll may wait out one injected
// delay), and once each fault is cleared the requests that use the command are answered as
// before; at the end every function has published again and every request is answered.

#include "reliability_test.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace xpon::system_mgr::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// What a client of the daemon waits for an answer (system-mgr-ctl's default); the delay cases
// answer later than that.
constexpr auto kClientTimeout = 1000ms;
constexpr auto kInjectedDelay = 1200ms;
// What the timing of a poll and of the bus may add to a period.
constexpr auto kSlack = 1000ms;
// The SFP poll's period.
constexpr auto kSfpPeriod = 1000ms;
// The cage whose module goes in and out, case after case; the requests name port 0, whose
// module stays.
constexpr std::uint32_t kToggledPort = 1;

// A board command the running daemon calls, the families whose daemon calls it, and the
// requests that call it (none: only a poll does).
struct Command {
  const char* name;
  unsigned families;
  std::vector<std::uint16_t> requests;
  bool polled_by_sfp = false;
};

// The inventory commands and the two version reads are left out: the daemon reads them once,
// while it starts, and a fault there stops the start-up by design.
const std::vector<Command>& commands() {
  static const std::vector<Command> list{
      {"BOARD_F_BTN_IS_PRESSED", kOnAll, {IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED}},
      {"BOARD_F_BTN_IS_POLLING_ENABLED", kOnAll, {IPC_SYSTEM_MGR__IS_F_BUTTON_ENABLED}},
      {"BOARD_F_BTN_IS_HARD_RESET_ENABLED", kOnAll, {IPC_SYSTEM_MGR__IS_F_BUTTON_HARD_RESET_ENABLED}},
      {"BOARD_F_BTN_SET_POLLING", kOnAll, {IPC_SYSTEM_MGR__ENABLE_F_BUTTON, IPC_SYSTEM_MGR__DISABLE_F_BUTTON}},
      {"BOARD_F_BTN_SET_HARD_RESET",
       kOnAll,
       {IPC_SYSTEM_MGR__ENABLE_F_BUTTON_HARD_RESET, IPC_SYSTEM_MGR__DISABLE_F_BUTTON_HARD_RESET}},
      {"BOARD_SET_FAN_SPEED", kOnLt, {IPC_SYSTEM_MGR__SET_FAN_SPEED}},
      {"BOARD_GET_FAN_INFO", kOnLt, {IPC_SYSTEM_MGR__GET_FAN_STATES}},
      {"BOARD_GET_PS_INFO", kOnLt, {IPC_SYSTEM_MGR__GET_PS_STATES}},
      {"BOARD_GET_TEMP_INFO", kOnAll, {IPC_SYSTEM_MGR__GET_TEMP}},
      {"BOARD_SET_FAN_MODULE_SPEED", kOnFc, {IPC_SYSTEM_MGR__SET_FAN_MODULE_SPEED}},
      {"BOARD_GET_FAN_MODULE_FACTORY", kOnFc, {IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY}},
      {"BOARD_GET_FAN_MODULE_STATE", kOnFc, {IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE}},
      {"BOARD_GET_PWR_MODULE_STATE", kOnFc, {IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE}},
      {"BOARD_CNTRL_LED_PANEL", kOnAll, {IPC_SYSTEM_MGR__CNTRL_LED_PANEL}},
      {"BOARD_P_PORT_SET_LED_STATE",
       kOnLt | kOnLc,
       {IPC_SYSTEM_MGR__P_PORT_R_LED_ON_G_LED_OFF, IPC_SYSTEM_MGR__P_PORT_G_LED_ON_R_LED_OFF,
        IPC_SYSTEM_MGR__P_PORT_LED_OFF}},
      {"BOARD_CNTRL_P_PORT_SFP_TRX",
       kOnLt | kOnLc,
       {IPC_SYSTEM_MGR__DISABLE_P_PORT_SFP_MODULE_TRX, IPC_SYSTEM_MGR__ENABLE_P_PORT_SFP_MODULE_TRX}},
      {"BOARD_CNTRL_F_PORT_SFP_TRX",
       kOnAll,
       {IPC_SYSTEM_MGR__DISABLE_F_PORT_SFP_MODULE_TRX, IPC_SYSTEM_MGR__ENABLE_F_PORT_SFP_MODULE_TRX}},
      {"BOARD_GET_P_PORT_SFP_STATE", kOnAll, {}, true},
      {"BOARD_GET_F_PORT_SFP_STATE", kOnAll, {}, true},
      {"BOARD_GET_P_PORT_SFP_DATA", kOnLt | kOnLc, {}, true},
      {"BOARD_GET_F_PORT_SFP_DATA", kOnAll, {}, true},
      {"BOARD_GET_P_PORT_SFP_EDDI_DATA", kOnLt | kOnLc, {IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA}},
      {"BOARD_GET_F_PORT_SFP_EDDI_DATA", kOnAll, {IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA}},
      {"BOARD_GET_P_PORT_SFP_RX_POWER", kOnLt | kOnLc, {IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER}},
  };
  return list;
}

// The three faults of every command, as the emulator's patch writes them.
struct Fault {
  const char* name;
  std::string json;  // the value of the command's entry in "faults"
  std::chrono::milliseconds delay;
};

const std::vector<Fault>& faults() {
  static const std::vector<Fault> list{
      {"EIO", R"({"errno": "EIO", "count": 2})", 0ms},
      {"ETIMEDOUT", R"({"errno": "ETIMEDOUT", "count": 2})", 0ms},
      {"delay", R"({"delay_ms": )" + std::to_string(kInjectedDelay.count()) + R"(, "count": 1})", kInjectedDelay},
  };
  return list;
}

// An alarm kind a family publishes on every poll, with the period of the function behind it.
struct AlarmKind {
  std::uint32_t id;
  const char* function;
  unsigned families;
  std::chrono::milliseconds period;
};

const std::vector<AlarmKind> kAlarmKinds{
    {SYSTEM_MGR_ALARM_LOAD_AVERAGE, "CpuLoadMonitoring", kOnAll, 30000ms},
    {SYSTEM_MGR_ALARM_RAM, "RamMonitoring", kOnAll, 30000ms},
    {SYSTEM_MGR_ALARM_DISK_SPACE, "HddMonitoring", kOnLt | kOnFc, 30000ms},
    {SYSTEM_MGR_ALARM_TEMPERATURE, "TempMonitoring", kOnAll, 20000ms},
    {SYSTEM_MGR_ALARM_FAN, "FanMonitoring or FanModuleMonitoring", kOnLt | kOnFc, 30000ms},
    {SYSTEM_MGR_ALARM_POWER_SUPPLY, "PsMonitoring", kOnLt, 1000ms},
};

// Records every alarm and F-port event from the bus with its arrival time, on a thread of its own.
class EventRecorder {
 public:
  struct Seen {
    std::uint16_t group;
    std::uint16_t id;
    std::uint32_t alarm_kind;
    std::uint32_t port;  // of an SFP event: the removed port, or the inserted record's port
    Clock::time_point at;
  };

  explicit EventRecorder(const std::string& ipc_directory) : subscriber_(ipc_directory) {
    subscriber_.subscribe(IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED);
    subscriber_.subscribe(IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_INSERTED);
    subscriber_.subscribe(IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_REMOVED);
    subscriber_.subscribe(IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_INSERTED);
  }
  ~EventRecorder() { stop(); }
  EventRecorder(const EventRecorder&) = delete;
  EventRecorder& operator=(const EventRecorder&) = delete;

  bool start(std::chrono::milliseconds timeout) {
    if (!subscriber_.wait_subscribed(timeout)) {
      return false;
    }
    thread_ = std::thread([this] { record(); });
    return true;
  }

  void stop() {
    running_ = false;
    if (thread_.joinable()) {
      thread_.join();
    }
  }

  // Waits for an SFP event with this id about this port that arrived at or after `since`; its
  // arrival time.
  std::optional<Clock::time_point> wait_for(std::uint16_t id, std::uint32_t port, Clock::time_point since,
                                            std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    std::optional<Clock::time_point> found;
    arrived_.wait_for(lock, timeout, [&] {
      for (const auto& seen : seen_) {
        if (seen.group == IPC_SYSTEM_MGR && seen.id == id && seen.port == port && seen.at >= since) {
          found = seen.at;
          return true;
        }
      }
      return false;
    });
    return found;
  }

  // The arrival times of one alarm kind's polls: the alarms of one poll arrive together.
  std::vector<Clock::time_point> polls_of(std::uint32_t alarm_kind) {
    const std::lock_guard lock(mutex_);
    std::vector<Clock::time_point> polls;
    for (const auto& seen : seen_) {
      if (seen.group == IPC_EVENT_ALARM_GROUP && seen.alarm_kind == alarm_kind &&
          (polls.empty() || seen.at - polls.back() > 300ms)) {
        polls.push_back(seen.at);
      }
    }
    return polls;
  }

 private:
  void record() {
    while (running_) {
      auto event = subscriber_.next_event(50ms);
      if (!event) {
        continue;
      }
      Seen seen{u16_at(event->header, 12), u16_at(event->header, 14), 0, 0, Clock::now()};
      if (seen.group == IPC_EVENT_ALARM_GROUP && event->payload.size() == sizeof(Alarm)) {
        seen.alarm_kind = u32_at(event->payload, offsetof(Alarm, alarm_id));
      } else if (event->payload.size() >= sizeof(std::uint32_t)) {
        seen.port = u32_at(event->payload, 0);
      }
      {
        const std::lock_guard lock(mutex_);
        seen_.push_back(seen);
      }
      arrived_.notify_all();
    }
  }

  BusSubscriber subscriber_;
  std::thread thread_;
  std::atomic<bool> running_ = true;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Seen> seen_;
};

std::string seconds_text(Clock::duration duration) {
  return std::to_string(std::chrono::duration<double>(duration).count()) + " s";
}

class DriverFaultMatrix : public ReliabilityTest, public ::testing::WithParamInterface<Board> {};

TEST_P(DriverFaultMatrix, EveryCommandFailingOrSlowStopsNothingAndOtherFunctionsKeepTheirPeriods) {
  XPON_START_RELIABILITY(GetParam());
  EventRecorder recorder(ipc_directory());
  ASSERT_TRUE(recorder.start(kStepTimeout));
  ASSERT_NO_FATAL_FAILURE(wait_for_sfp_modules());
  const bool has_pon_ports = board_.family != SYSTEM_MGR_FAMILY_FC;

  // Whether the toggled cage of each group holds a module now.
  const Json state = board_state();
  std::map<std::string, bool> module_in;
  for (const char* group : {"front_ports", "pon_ports"}) {
    module_in[group] = state.contains(group) && state[group].size() > kToggledPort &&
                       state[group][kToggledPort].value("present", false);
  }

  const auto window_start = Clock::now();
  for (const auto& command : commands()) {
    if ((command.families & (1U << board_.family)) == 0) {
      continue;
    }
    for (const auto& fault : faults()) {
      const std::string context = std::string(command.name) + " " + fault.name;
      // The SFP poll's pace: a module is pulled or plugged back as the fault goes in, and the
      // poll must report it within two periods, one of which may wait out the injected delay.
      // A P-port module for the P-port data read, so that the read is made.
      const bool p_port = has_pon_ports && std::string(command.name) == "BOARD_GET_P_PORT_SFP_DATA";
      const std::string group = p_port ? "pon_ports" : "front_ports";
      // The data read is made only for a module that comes in: the case of a data command plugs one.
      const bool data_read = std::string(command.name).ends_with("_SFP_DATA");
      if (data_read && module_in[group]) {
        const auto pulled = Clock::now();
        ASSERT_NO_FATAL_FAILURE(
            patch(R"({")" + group + R"(": {")" + std::to_string(kToggledPort) + R"(": {"present": false}}})"));
        const std::uint16_t removed =
            p_port ? IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_REMOVED : IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED;
        ASSERT_TRUE(recorder.wait_for(removed, kToggledPort, pulled, kStepTimeout).has_value())
            << context << ": port " << kToggledPort << " never reported removed";
        module_in[group] = false;
      }
      const bool plugged = !module_in[group];
      module_in[group] = plugged;
      const auto toggled = Clock::now();
      ASSERT_NO_FATAL_FAILURE(patch(R"({")" + group + R"(": {")" + std::to_string(kToggledPort) + R"(": {"present": )" +
                                    (plugged ? "true" : "false") + R"(}}, "faults": {")" + command.name + R"(": )" +
                                    fault.json + "}}"));
      for (const std::uint16_t id : command.requests) {
        // Answered or not: the client gives up after its time-out, as real clients do.
        (void)ask(id, well_formed_argument(entry_of(id).argument), kClientTimeout);
      }
      const std::uint16_t event_id = p_port ? (plugged ? IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_INSERTED
                                                       : IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_REMOVED)
                                            : (plugged ? IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_INSERTED
                                                       : IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED);
      if (!command.polled_by_sfp) {
        const auto bound = 2 * kSfpPeriod + fault.delay + kSlack;
        const auto seen = recorder.wait_for(event_id, kToggledPort, toggled, bound);
        EXPECT_TRUE(seen.has_value()) << context << ": the SFP poll did not report port 1 within "
                                      << seconds_text(bound);
      }
      ASSERT_NO_FATAL_FAILURE(patch(R"({"faults": {")" + std::string(command.name) + R"(": null}})"));
      // Cleared: the SFP function reports the module (its own faults held it back at most), and
      // the requests of the command are answered as before.
      EXPECT_TRUE(recorder.wait_for(event_id, kToggledPort, toggled, 2 * kSfpPeriod + kSlack).has_value())
          << context << ": port 1's change was never reported";
      ASSERT_NO_FATAL_FAILURE(expect_answered(command.requests, context + ", cleared"));
      ASSERT_TRUE(rig_.daemon().running()) << context << "\n" << rig_.daemon_log();
    }
  }
  const auto matrix_end = Clock::now();
  ::testing::Test::RecordProperty("matrix_seconds", seconds_text(matrix_end - window_start));

  // Every function publishes again after the last fault: each has one more poll, at most a
  // period and the slack after the matrix.
  const auto longest = std::max_element(kAlarmKinds.begin(), kAlarmKinds.end(), [](const auto& a, const auto& b) {
                         return a.period < b.period;
                       })->period;
  std::this_thread::sleep_until(matrix_end + longest + kInjectedDelay + 2 * kSlack);
  const auto window_end = Clock::now();
  recorder.stop();

  for (const auto& kind : kAlarmKinds) {
    if ((kind.families & (1U << board_.family)) == 0) {
      continue;
    }
    std::vector<Clock::time_point> polls;
    for (const auto at : recorder.polls_of(kind.id)) {
      if (at >= window_start && at <= window_end) {
        polls.push_back(at);
      }
    }
    ASSERT_GE(polls.size(), 2U) << kind.function << " published " << polls.size() << " polls in "
                                << seconds_text(window_end - window_start);
    const auto average = (polls.back() - polls.front()) / static_cast<long>(polls.size() - 1);
    Clock::duration longest_gap{};
    for (std::size_t i = 1; i < polls.size(); ++i) {
      longest_gap = std::max(longest_gap, polls[i] - polls[i - 1]);
    }
    ::testing::Test::RecordProperty(kind.function, std::to_string(polls.size()) + " polls, average period " +
                                                       seconds_text(average) + ", longest gap " +
                                                       seconds_text(longest_gap));
    EXPECT_LE(average, 2 * kind.period) << kind.function << ": average period " << seconds_text(average);
    for (std::size_t i = 1; i < polls.size(); ++i) {
      // One missed poll (a fault of its own command) and one injected delay at most.
      EXPECT_LE(polls[i] - polls[i - 1], 2 * kind.period + kInjectedDelay + kSlack)
          << kind.function << ": gap of " << seconds_text(polls[i] - polls[i - 1]);
    }
    EXPECT_GE(polls.back(), matrix_end) << kind.function << " published nothing after the last fault was cleared";
  }

  ASSERT_NO_FATAL_FAILURE(expect_every_request_answered("after the matrix"));
  // Nothing was left behind in the model: every fault was used up or cleared.
  EXPECT_TRUE(board_state().value("faults", Json::object()).empty()) << board_state()["faults"].dump();
  EXPECT_TRUE(rig_.daemon().running());
}

INSTANTIATE_TEST_SUITE_P(Boards, DriverFaultMatrix, ::testing::Values(kLtBoard, kLcBoard, kFcBoard));

}  // namespace
}  // namespace xpon::system_mgr::test
