// A configuration change travels the whole way: xpon-cfg writes the SQLite file and
// publishes the change on a real xpon-ipc-bus; the launcher hands it to the service, the
// function re-reads its section, and its next alarm, read back from the bus by another
// endpoint, is raised.

#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/ipc/ipc.hpp"
#include "xpon/service/service.hpp"
#include "xpon/service/service_launcher.hpp"
#include "xpon/system_mgr/functions/cpu_load_monitoring.hpp"
#include "xpon/test/fake_host.hpp"
#include "xpon/test/ipc_env.hpp"
#include "xpon/test/recording_logger.hpp"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace xpon::system_mgr {
namespace {

using namespace std::chrono_literals;
using xpon::test::Process;
using xpon::test::TempRoot;
using xpon::test::wait_until;

// Lets the test end the polling thread even when stop's own wake-up falls into a poll.
class WakeableCpuLoadMonitoring : public CpuLoadMonitoring {
 public:
  using CpuLoadMonitoring::CpuLoadMonitoring;
  using SysFunction::wake_polling_thread;
};

// The smallest service that holds the function and passes the launcher's calls on.
class OneFunctionService : public service::ServiceBaseLC {
 public:
  explicit OneFunctionService(std::shared_ptr<ISysFunction> function) : function_(std::move(function)) {}
  Result<void> run(const ServiceCtx& ctx) override {
    if (auto ran = function_->run(); !ran) {
      return ran;
    }
    return ServiceBaseLC::run(ctx);
  }
  Result<void> stop(const ServiceCtx& ctx) override {
    if (auto stopped = function_->stop(); !stopped) {
      return stopped;
    }
    return ServiceBaseLC::stop(ctx);
  }
  Result<void> config_change(const ServiceCtx& ctx, const std::vector<Config_change>& changes) override {
    return function_->config_change(ctx, changes);
  }

 private:
  std::shared_ptr<ISysFunction> function_;
};

// The alarm events one endpoint received from the bus, with the time each arrived.
class AlarmLog {
 public:
  ipc::EventHandler handler() {
    return [this](const ipc::Event& event) -> Result<void> {
      std::lock_guard lock(mutex_);
      events_.emplace_back(std::chrono::steady_clock::now(), event);
      return core::success();
    };
  }
  std::vector<std::pair<std::chrono::steady_clock::time_point, ipc::Event>> events() const {
    std::lock_guard lock(mutex_);
    return events_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<std::chrono::steady_clock::time_point, ipc::Event>> events_;
};

ipc::Payload expected_alarm(std::uint8_t state, const std::array<std::uint32_t, 3>& values, const std::string& text) {
  ipc::Payload bytes(305, 0);
  bytes[8] = state;
  bytes[9] = 3;
  for (std::size_t i = 0; i < values.size(); ++i) {
    for (std::size_t b = 0; b < 4; ++b) {
      bytes[33 + 4 * i + b] = static_cast<std::uint8_t>((values[i] >> (8 * b)) & 0xFFU);
    }
  }
  std::copy(text.begin(), text.end(), bytes.begin() + 45);
  return bytes;
}

TEST(CpuLoadComponent, ThresholdSetWithXponCfgReachesTheFunctionAndRaisesItsNextAlarm) {
  TempRoot root;
  Process bus({XPON_IPC_BUS_PATH});

  auto logger = std::make_shared<test::RecordingLogger>();
  ipc::ZmqIpcOptions options;
  options.logger = logger;
  auto daemon_ipc = ipc::make_zmq_ipc(0x0019FFFE, "SYSTEM-MGR_IPC", options);
  auto watcher_ipc = ipc::make_zmq_ipc(0x0042FFFE, "alarm-watcher", options);
  AlarmLog alarms;
  ASSERT_TRUE(watcher_ipc->subscribe_event(ipc::Key{9000, 9005}, alarms.handler()));

  // The database is created with its defaults (threshold 400) under the temporary root.
  auto cfgdb = std::make_shared<cfgdb::CfgDbWrapper>("SYSTEM-MGR_CFGDB");
  // Fixed load averages so that the alarm's bytes are known; everything else is real.
  auto host = std::make_shared<test::FakeHost>();
  host->set_load_averages(0.05, 0.04, 0.03);
  auto function = std::make_shared<WakeableCpuLoadMonitoring>(logger, daemon_ipc, cfgdb, 200ms, host);
  ASSERT_EQ(function->threshold(), 400);
  service::ServiceLauncher launcher(std::make_unique<OneFunctionService>(function), logger, daemon_ipc, false);
  auto running = std::async(std::launch::async, [&] { return launcher.run(); });

  // Alarms flow before the change: back to normal under the default threshold.
  const ipc::Payload normal =
      expected_alarm(1, {5, 4, 3}, "CPU load average (1m, 5m, 15m): 0.05, 0.04, 0.03 is back to normal");
  ASSERT_TRUE(wait_until([&] { return !alarms.events().empty(); }, 10s));
  EXPECT_EQ(alarms.events().front().second.payload, normal);
  // The launcher's subscription travels to the bus like the watcher's: give it a moment.
  std::this_thread::sleep_for(300ms);

  Process cfg({XPON_CFG_PATH, "set", "ALARM_SYSTEM_LOAD_AVERAGE", "threshold=1"});
  const int status = cfg.wait().wait_status;
  const auto written = std::chrono::steady_clock::now();
  ASSERT_TRUE(WIFEXITED(status));
  ASSERT_EQ(WEXITSTATUS(status), 0);

  ASSERT_TRUE(wait_until([&] { return logger->contains("Change config event [ALARM_SYSTEM_LOAD_AVERAGE]", 0); }, 1s));
  EXPECT_LT(std::chrono::steady_clock::now() - written, 1s);
  EXPECT_EQ(function->threshold(), 1);

  const auto changed = std::chrono::steady_clock::now();
  const ipc::Payload raised = expected_alarm(0, {5, 4, 3}, "CPU load average (1m, 5m, 15m): 0.05, 0.04, 0.03");
  auto after_change = [&] {
    std::vector<ipc::Event> events;
    for (const auto& [when, event] : alarms.events()) {
      if (when > changed) {
        events.push_back(event);
      }
    }
    return events;
  };
  // Two reports after the change: the first may still be one a poll made just before it.
  ASSERT_TRUE(wait_until([&] { return after_change().size() >= 2; }, 5s));
  const auto events = after_change();
  EXPECT_TRUE(events[0].payload == raised || events[0].payload == normal);
  for (std::size_t i = 1; i < events.size(); ++i) {
    EXPECT_EQ(events[i].group, 9000);
    EXPECT_EQ(events[i].id, 9005);
    EXPECT_EQ(events[i].address, 0x0000FFFEU);
    EXPECT_EQ(events[i].source, 0x0019FFFEU);
    EXPECT_EQ(events[i].payload, raised) << i;
  }

  ASSERT_TRUE(launcher.stop());
  while (running.wait_for(5ms) != std::future_status::ready) {
    function->wake_polling_thread();
  }
  EXPECT_TRUE(running.get());
}

}  // namespace
}  // namespace xpon::system_mgr
