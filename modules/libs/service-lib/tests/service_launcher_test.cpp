#include "xpon/service/service_launcher.hpp"

#include "xpon/test/inheritable_descriptors.hpp"
#include "xpon/test/recording_ipc.hpp"
#include "xpon/test/recording_logger.hpp"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace xpon::service {
namespace {

using namespace std::chrono_literals;
using core::Error;
using core::Result;

// Generous bound for "promptly": far below any period the launcher could be waiting for,
// far above scheduling noise under the sanitizers.
constexpr auto kPrompt = 2s;

// A service that records what the launcher asked of it, in order, and can be told to fail
// or to hold a configuration change until released.
class RecordingService : public IService {
 public:
  Result<void> run(const ServiceCtx& /*ctx*/) override {
    record("run");
    return next_or_success(run_error);
  }
  Result<void> stop(const ServiceCtx& /*ctx*/) override {
    record("stop");
    return next_or_success(stop_error);
  }
  Result<void> config_change(const ServiceCtx& /*ctx*/, const std::vector<Config_change>& changes) override {
    const int in_flight = ++deliveries_in_flight;
    if (in_flight > max_deliveries_in_flight.load()) {
      max_deliveries_in_flight = in_flight;
    }
    std::string call = "config_change";
    for (const auto& change : changes) {
      call += " " + std::to_string(change.section_id) + "/" + std::to_string(change.changed) + "/" +
              std::to_string(change.reserved);
    }
    record(call);
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [&] { return !hold_config_changes; });
    }
    --deliveries_in_flight;
    return next_or_success(config_error);
  }
  Result<void> master_change(const ServiceCtx& ctx) override {
    ++deliveries_in_flight;
    record("master_change " + (ctx.master_slot ? std::to_string(*ctx.master_slot) : std::string("none")) +
           (ctx.is_master() ? " master" : " backup"));
    --deliveries_in_flight;
    return core::success();
  }
  Result<void> health_check(const ServiceCtx& /*ctx*/) override {
    record("health_check");
    return next_or_success(health_error);
  }

  std::vector<std::string> calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }
  bool wait_for_calls(std::size_t count, std::chrono::milliseconds timeout = kPrompt * 2) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return calls_.size() >= count; });
  }
  void hold(bool held) {
    {
      std::lock_guard lock(mutex_);
      hold_config_changes = held;
    }
    changed_.notify_all();
  }

  std::atomic<int> deliveries_in_flight{0};
  std::atomic<int> max_deliveries_in_flight{0};
  std::optional<Error> run_error;
  std::optional<Error> stop_error;
  std::optional<Error> config_error;
  std::optional<Error> health_error;

 private:
  void record(std::string call) {
    {
      std::lock_guard lock(mutex_);
      calls_.push_back(std::move(call));
    }
    changed_.notify_all();
  }
  Result<void> next_or_success(std::optional<Error>& armed) {
    std::lock_guard lock(mutex_);
    if (armed) {
      const Error error = *armed;
      armed.reset();
      return core::ErrorPayload(error, std::string("recorded failure"));
    }
    return core::success();
  }

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<std::string> calls_;
  bool hold_config_changes = false;
};

ipc::Event sections_changed(std::vector<std::uint8_t> payload) {
  ipc::Event event;
  event.group = cfgdb::kSectionsChangedKey.group;
  event.id = cfgdb::kSectionsChangedKey.id;
  event.payload = std::move(payload);
  return event;
}

ipc::Event master_changed(std::vector<std::uint8_t> payload) {
  ipc::Event event;
  event.group = kMasterChangedEvent.group;
  event.id = kMasterChangedEvent.id;
  event.payload = std::move(payload);
  return event;
}

std::vector<std::uint8_t> record_of(std::uint32_t section) {
  return {static_cast<std::uint8_t>(section & 0xFFU),
          static_cast<std::uint8_t>((section >> 8U) & 0xFFU),
          0,
          0,
          1,
          0,
          0,
          0,
          0,
          0,
          0,
          0};
}

class ServiceLauncherTest : public ::testing::Test {
 protected:
  void make_launcher(bool health_checks = false, std::chrono::milliseconds interval = 10s) {
    auto owned = std::make_unique<RecordingService>();
    service = owned.get();
    launcher = std::make_unique<ServiceLauncher>(std::move(owned), logger, ipc, health_checks, interval);
  }

  // Runs the launcher on a thread of its own and waits until its service runs.
  void start() {
    running = std::async(std::launch::async, [this] { return launcher->run(); });
    ASSERT_TRUE(service->wait_for_calls(1));
    ASSERT_EQ(service->calls().front(), "run");
  }

  Result<void> stop_and_wait() {
    EXPECT_TRUE(launcher->stop());
    EXPECT_EQ(running.wait_for(kPrompt), std::future_status::ready);
    return running.get();
  }

  std::shared_ptr<test::RecordingLogger> logger = std::make_shared<test::RecordingLogger>();
  std::shared_ptr<test::RecordingIpc> ipc = std::make_shared<test::RecordingIpc>(0x00190002);
  RecordingService* service = nullptr;  // owned by the launcher
  std::unique_ptr<ServiceLauncher> launcher;
  std::future<Result<void>> running;
};

TEST_F(ServiceLauncherTest, ConstructionLogsAndRejectsNullArguments) {
  make_launcher();
  EXPECT_TRUE(logger->contains("ServiceLauncher create successfully", 0));
  EXPECT_THROW(ServiceLauncher(nullptr, logger, ipc, false), std::runtime_error);
  EXPECT_THROW(ServiceLauncher(std::make_unique<RecordingService>(), nullptr, ipc, false), std::runtime_error);
  EXPECT_THROW(ServiceLauncher(std::make_unique<RecordingService>(), logger, nullptr, false), std::runtime_error);
  EXPECT_THROW(ServiceLauncher(std::make_unique<RecordingService>(), logger, ipc, true, 0ms), std::runtime_error);
}

TEST_F(ServiceLauncherTest, DestructionLogs) {
  make_launcher();
  launcher.reset();
  EXPECT_TRUE(logger->contains("ServiceLauncher destroy successfully", 0));
}

TEST_F(ServiceLauncherTest, ItsWakeUpDescriptorIsClosedOnExecAndClosedWithIt) {
  const std::string kEventFd = "anon_inode:[eventfd]";
  const auto before = test::inheritable_descriptors();
  const std::size_t event_fds = test::descriptors_open_on(kEventFd);
  make_launcher();
  EXPECT_EQ(test::descriptors_open_on(kEventFd), event_fds + 1);
  EXPECT_EQ(test::added_descriptors(before, test::inheritable_descriptors()), std::set<std::string>{});
  launcher.reset();
  EXPECT_EQ(test::descriptors_open_on(kEventFd), event_fds);
}

TEST_F(ServiceLauncherTest, RunSubscribesBothChangeEventsAndRunsTheService) {
  make_launcher();
  start();
  EXPECT_TRUE(ipc->has_event_subscription(ipc::Key{11000, 11001}));
  EXPECT_TRUE(ipc->has_event_subscription(ipc::Key{14500, 14505}));
  EXPECT_TRUE(stop_and_wait());
}

TEST_F(ServiceLauncherTest, StopFromAnotherThreadReturnsRunPromptlyAndStopsTheService) {
  make_launcher();
  start();
  const auto before = std::chrono::steady_clock::now();
  EXPECT_TRUE(stop_and_wait());
  EXPECT_LT(std::chrono::steady_clock::now() - before, kPrompt);
  EXPECT_EQ(service->calls(), (std::vector<std::string>{"run", "stop"}));
  EXPECT_TRUE(ipc->event_subscriptions().empty());
}

ServiceLauncher* g_signalled_launcher = nullptr;

extern "C" void stop_launcher_from_signal(int /*signal*/) {
  if (g_signalled_launcher != nullptr) {
    (void)g_signalled_launcher->stop();
  }
}

TEST_F(ServiceLauncherTest, StopFromSignalHandlerReturnsRunPromptly) {
  make_launcher();
  g_signalled_launcher = launcher.get();
  struct sigaction action {};
  action.sa_handler = stop_launcher_from_signal;
  sigemptyset(&action.sa_mask);
  struct sigaction previous {};
  ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);

  // run() blocks this (main) thread, as in the daemon; the signal is aimed at it.
  const pthread_t runner = pthread_self();
  std::atomic<bool> signalled{false};
  std::thread sender([&] {
    ASSERT_TRUE(service->wait_for_calls(1));
    std::this_thread::sleep_for(50ms);
    signalled = true;
    pthread_kill(runner, SIGUSR1);
  });
  const auto result = launcher->run();
  const auto returned = std::chrono::steady_clock::now();
  sender.join();
  ASSERT_EQ(sigaction(SIGUSR1, &previous, nullptr), 0);
  g_signalled_launcher = nullptr;

  EXPECT_TRUE(signalled.load());
  EXPECT_TRUE(result);
  EXPECT_EQ(service->calls(), (std::vector<std::string>{"run", "stop"}));
  (void)returned;
}

TEST_F(ServiceLauncherTest, StopBeforeRunReturnsAtOnceWithoutRunningTheService) {
  make_launcher();
  ASSERT_TRUE(launcher->stop());
  EXPECT_TRUE(launcher->run());
  EXPECT_TRUE(service->calls().empty());
  EXPECT_EQ(ipc->subscribe_calls(), 0U);
  EXPECT_TRUE(logger->contains("ServiceLauncher stopped before run: service not started", 0));
}

TEST_F(ServiceLauncherTest, SecondRunIsRefused) {
  make_launcher();
  start();
  ASSERT_TRUE(stop_and_wait());
  const auto again = launcher->run();
  ASSERT_TRUE(again.has_error());
  EXPECT_EQ(again.error().error, Error::Already);
  EXPECT_EQ(service->calls(), (std::vector<std::string>{"run", "stop"}));
}

TEST_F(ServiceLauncherTest, ConfigChangeIsDeliveredWithItsRecords) {
  make_launcher();
  start();
  std::vector<std::uint8_t> payload = record_of(80);
  const auto second = record_of(77);
  payload.insert(payload.end(), second.begin(), second.end());
  ASSERT_TRUE(ipc->inject_event(sections_changed(payload)));
  ASSERT_TRUE(service->wait_for_calls(2));
  EXPECT_EQ(service->calls()[1], "config_change 80/1/0 77/1/0");
  EXPECT_TRUE(logger->contains("Deliver configuration change of 2 section(s)", 0));
  EXPECT_TRUE(stop_and_wait());
}

TEST_F(ServiceLauncherTest, MasterChangeIsDeliveredWithTheNewMasterInTheContext) {
  make_launcher();
  start();
  ASSERT_TRUE(ipc->inject_event(master_changed({0x05, 0x00})));
  ASSERT_TRUE(service->wait_for_calls(2));
  ASSERT_TRUE(ipc->inject_event(master_changed({0x02, 0x00})));
  ASSERT_TRUE(service->wait_for_calls(3));
  EXPECT_EQ(service->calls()[1], "master_change 5 backup");
  EXPECT_EQ(service->calls()[2], "master_change 2 master");
  EXPECT_TRUE(logger->contains("Deliver mastership change: master slot 5", 0));
  EXPECT_TRUE(stop_and_wait());
}

TEST_F(ServiceLauncherTest, ChangesAreDeliveredOneAtATimeInArrivalOrder) {
  make_launcher();
  start();
  service->hold(true);
  // Several publishers at once, as the IPC library's delivery threads would be; each waits
  // for its predecessor so that the arrival order is known.
  ASSERT_TRUE(ipc->inject_event(sections_changed(record_of(80))));
  ASSERT_TRUE(service->wait_for_calls(2));
  std::thread second([&] { EXPECT_TRUE(ipc->inject_event(master_changed({0x01, 0x00}))); });
  second.join();
  std::thread third([&] { EXPECT_TRUE(ipc->inject_event(sections_changed(record_of(81)))); });
  third.join();
  // The first change is still held: nothing else may be delivered meanwhile.
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(service->calls().size(), 2U);
  service->hold(false);
  ASSERT_TRUE(service->wait_for_calls(4));
  EXPECT_EQ(service->calls(), (std::vector<std::string>{"run", "config_change 80/1/0", "master_change 1 backup",
                                                        "config_change 81/1/0"}));
  EXPECT_EQ(service->max_deliveries_in_flight.load(), 1);
  EXPECT_TRUE(stop_and_wait());
}

TEST_F(ServiceLauncherTest, EmptySectionsChangedPayloadIsLoggedAndDropped) {
  make_launcher();
  start();
  EXPECT_TRUE(ipc->inject_event(sections_changed({})));
  EXPECT_TRUE(logger->contains("Malformed IPC_EVENT_CFGDB__SECTIONS_CHANGED event dropped: empty payload", 4));
  // A valid change after it still arrives, and is the only one.
  ASSERT_TRUE(ipc->inject_event(sections_changed(record_of(80))));
  ASSERT_TRUE(service->wait_for_calls(2));
  EXPECT_TRUE(stop_and_wait());
  EXPECT_EQ(service->calls(), (std::vector<std::string>{"run", "config_change 80/1/0", "stop"}));
}

TEST_F(ServiceLauncherTest, SectionsChangedPayloadNotAMultipleOfTwelveIsLoggedAndDropped) {
  make_launcher();
  start();
  std::vector<std::uint8_t> payload = record_of(80);
  payload.push_back(0);
  EXPECT_TRUE(ipc->inject_event(sections_changed(payload)));
  EXPECT_TRUE(ipc->inject_event(sections_changed(std::vector<std::uint8_t>(11, 0))));
  EXPECT_TRUE(logger->contains(
      "Malformed IPC_EVENT_CFGDB__SECTIONS_CHANGED event dropped: payload of 13 bytes is not a whole number of "
      "12-byte records",
      4));
  EXPECT_TRUE(logger->contains(
      "Malformed IPC_EVENT_CFGDB__SECTIONS_CHANGED event dropped: payload of 11 bytes is not a whole number of "
      "12-byte records",
      4));
  EXPECT_TRUE(stop_and_wait());
  EXPECT_EQ(service->calls(), (std::vector<std::string>{"run", "stop"}));
}

TEST_F(ServiceLauncherTest, MasterChangedPayloadOfWrongSizeIsLoggedAndDropped) {
  make_launcher();
  start();
  EXPECT_TRUE(ipc->inject_event(master_changed({})));
  EXPECT_TRUE(ipc->inject_event(master_changed({1, 0, 0})));
  EXPECT_TRUE(logger->contains(
      "Malformed IPC_EVENT_ELECTION__MASTER_CHANGED event dropped: payload of 0 bytes, expected 2 (the master slot)",
      4));
  EXPECT_TRUE(logger->contains(
      "Malformed IPC_EVENT_ELECTION__MASTER_CHANGED event dropped: payload of 3 bytes, expected 2 (the master slot)",
      4));
  EXPECT_TRUE(stop_and_wait());
  EXPECT_EQ(service->calls(), (std::vector<std::string>{"run", "stop"}));
}

TEST_F(ServiceLauncherTest, FailedConfigChangeIsLoggedAndLaterChangesStillArrive) {
  make_launcher();
  service->config_error = Error::ErrorCApi;
  start();
  ASSERT_TRUE(ipc->inject_event(sections_changed(record_of(80))));
  ASSERT_TRUE(ipc->inject_event(sections_changed(record_of(81))));
  ASSERT_TRUE(service->wait_for_calls(3));
  EXPECT_TRUE(logger->contains("Error: ErrorCApi. Message: recorded failure.", 4));
  EXPECT_TRUE(stop_and_wait());
  EXPECT_EQ(service->calls(),
            (std::vector<std::string>{"run", "config_change 80/1/0", "config_change 81/1/0", "stop"}));
}

TEST_F(ServiceLauncherTest, FailedServiceRunStopsTheServiceAndReturnsTheError) {
  make_launcher();
  service->run_error = Error::CommonError;
  const auto result = launcher->run();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::CommonError);
  EXPECT_EQ(service->calls(), (std::vector<std::string>{"run", "stop"}));
  EXPECT_TRUE(ipc->event_subscriptions().empty());
}

TEST_F(ServiceLauncherTest, FailedSubscriptionReturnsTheErrorWithoutRunningTheService) {
  make_launcher();
  ipc->fail_next_subscribe(Error::InvalidState);
  const auto result = launcher->run();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
  EXPECT_TRUE(service->calls().empty());
  EXPECT_TRUE(ipc->event_subscriptions().empty());
}

TEST_F(ServiceLauncherTest, FailedServiceStopIsTheResultOfRun) {
  make_launcher();
  service->stop_error = Error::NotImplemented;
  start();
  const auto result = stop_and_wait();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::NotImplemented);
}

TEST_F(ServiceLauncherTest, ServiceThatThrowsBecomesException) {
  class ThrowingService : public ServiceBaseFC {
   public:
    Result<void> run(const ServiceCtx& /*ctx*/) override { throw std::runtime_error("no board"); }
  };
  launcher = std::make_unique<ServiceLauncher>(std::make_unique<ThrowingService>(), logger, ipc, false);
  const auto result = launcher->run();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Exception);
  EXPECT_TRUE(logger->contains("An std::exception was thrown: no board ", 4));
}

TEST_F(ServiceLauncherTest, WithoutHealthChecksTheServiceIsNeverAsked) {
  make_launcher(false, 10ms);
  start();
  std::this_thread::sleep_for(100ms);
  EXPECT_TRUE(stop_and_wait());
  EXPECT_EQ(service->calls(), (std::vector<std::string>{"run", "stop"}));
}

TEST_F(ServiceLauncherTest, HealthChecksAreMadePeriodically) {
  make_launcher(true, 20ms);
  start();
  ASSERT_TRUE(service->wait_for_calls(3));
  EXPECT_EQ(service->calls()[1], "health_check");
  EXPECT_EQ(service->calls()[2], "health_check");
  EXPECT_TRUE(stop_and_wait());
}

TEST_F(ServiceLauncherTest, FailedHealthCheckEndsRunWithItsErrorAfterStoppingTheService) {
  make_launcher(true, 20ms);
  service->health_error = Error::InvalidState;
  const auto result = launcher->run();
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
  EXPECT_EQ(service->calls(), (std::vector<std::string>{"run", "health_check", "stop"}));
  EXPECT_TRUE(ipc->event_subscriptions().empty());
}

// A phase as the listener heard it, with the number of service calls made before it.
struct HeardPhase {
  ServiceLauncher::Phase phase;
  std::size_t calls_before;
  bool operator==(const HeardPhase&) const = default;
};

TEST_F(ServiceLauncherTest, PhaseListenerHearsEachPhaseBetweenTheServiceCalls) {
  make_launcher();
  std::mutex heard_mutex;
  std::vector<HeardPhase> heard;
  launcher->set_phase_listener([&](ServiceLauncher::Phase phase) {
    const std::lock_guard lock(heard_mutex);
    heard.push_back({phase, service->calls().size()});
  });
  start();
  EXPECT_TRUE(stop_and_wait());
  const std::lock_guard lock(heard_mutex);
  EXPECT_EQ(heard, (std::vector<HeardPhase>{{ServiceLauncher::Phase::Starting, 0},
                                            {ServiceLauncher::Phase::Running, 1},
                                            {ServiceLauncher::Phase::Stopping, 1}}));
  EXPECT_EQ(service->calls(), (std::vector<std::string>{"run", "stop"}));
}

TEST_F(ServiceLauncherTest, FailedServiceRunGoesFromStartingStraightToStopping) {
  make_launcher();
  service->run_error = Error::CommonError;
  std::vector<HeardPhase> heard;
  launcher->set_phase_listener([&](ServiceLauncher::Phase phase) {
    heard.push_back({phase, service->calls().size()});
  });
  EXPECT_TRUE(launcher->run().has_error());
  EXPECT_EQ(heard,
            (std::vector<HeardPhase>{{ServiceLauncher::Phase::Starting, 0}, {ServiceLauncher::Phase::Stopping, 1}}));
}

TEST_F(ServiceLauncherTest, StopBeforeRunTellsThePhaseListenerNothing) {
  make_launcher();
  std::vector<ServiceLauncher::Phase> heard;
  launcher->set_phase_listener([&](ServiceLauncher::Phase phase) { heard.push_back(phase); });
  EXPECT_TRUE(launcher->stop());
  EXPECT_TRUE(launcher->run());
  EXPECT_TRUE(heard.empty());
}

}  // namespace
}  // namespace xpon::service
