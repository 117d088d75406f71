// The daemon's cycle driven with parts of the test's own: every creation step failing with a
// std::exception and with anything else, the wrapper's open failure on the board's row, a
// service that cannot be made, a run that ends with an error, and stop signals during start-up.
// Paths a real daemon reaches are also covered by the system tests.

#include "xpon/system_mgr/process_entry.hpp"

#include "xpon/test/recording_ipc.hpp"
#include "xpon/test/recording_logger.hpp"
#include "xpon/test/wait.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace xpon::system_mgr {
namespace {

namespace fs = std::filesystem;
using core::Result;

class LtFactory final : public IFactory {
 public:
  [[nodiscard]] DeviceType device_type() const override { return DeviceType::LT; }
};

// A driver that answers every request with success and leaves the argument as it was.
class QuietPosixWrapper final : public board::IPosixWrapper {
 public:
  int ioctl(unsigned long /*request*/, void* /*argument*/) override { return 0; }
  int reopen() override { return 0; }
};

// A service whose run does what the test says; every other operation succeeds.
class ScriptedService final : public service::IService {
 public:
  explicit ScriptedService(std::function<Result<void>()> on_run) : on_run_(std::move(on_run)) {}
  Result<void> run(const service::ServiceCtx& /*ctx*/) override { return on_run_(); }
  Result<void> stop(const service::ServiceCtx& /*ctx*/) override { return core::success(); }
  Result<void> config_change(const service::ServiceCtx& /*ctx*/,
                             const std::vector<service::Config_change>& /*changes*/) override {
    return core::success();
  }
  Result<void> master_change(const service::ServiceCtx& /*ctx*/) override { return core::success(); }
  Result<void> health_check(const service::ServiceCtx& /*ctx*/) override { return core::success(); }

 private:
  std::function<Result<void>()> on_run_;
};

const std::string kStartup = "STATUS=Startup system manager...";
const std::string kReady = "READY=1\nSTATUS=Processing requests...\n";
const std::string kShutdown = "STATUS=Shutdown system manager...\nSTOPPING=1\n";

// Braces in an exception's text must reach the status as they are.
constexpr const char* kReason = "broken {}";

class ProcessEntryTest : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/xpon-entry-test-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    directory_ = pattern;
    std::ofstream(directory_ / "SYSTEM-MGR.conf") << "level = \"debug\"\n\n[[sink]]\ntype = \"stderr\"\n";

    parts_.make_logging_context = [this] {
      return logger::Logger::create_context((directory_ / "SYSTEM-MGR.conf").string(), "SYSTEM-MGR_IPC", 0);
    };
    parts_.make_logger = [this]() -> CycleParts::LoggerPtr { return logger_; };
    parts_.make_ipc = [](const CycleParts::LoggerPtr& /*logger*/) -> CycleParts::IpcPtr {
      return std::make_shared<test::RecordingIpc>();
    };
    parts_.make_factory = [](const CycleParts::LoggerPtr& /*logger*/) -> CycleParts::FactoryPtr {
      return std::make_shared<LtFactory>();
    };
    parts_.make_cfgdb = [this] {
      return std::make_shared<cfgdb::CfgDbWrapper>("SYSTEM-MGR_CFGDB", (directory_ / "cfgdb.sqlite3").string());
    };
    parts_.make_posix_wrapper = [](const CycleParts::LoggerPtr& /*logger*/) -> std::unique_ptr<board::IPosixWrapper> {
      return std::make_unique<QuietPosixWrapper>();
    };
    parts_.make_board = [](const CycleParts::LoggerPtr& logger,
                           std::unique_ptr<board::IPosixWrapper> posix_wrapper) -> CycleParts::BoardPtr {
      return std::make_shared<board::Board>(logger, std::move(posix_wrapper));
    };
    parts_.make_service = [this](const CycleParts::LoggerPtr&, const CycleParts::IpcPtr&, const CycleParts::CfgDbPtr&,
                                 const CycleParts::FactoryPtr&,
                                 const CycleParts::BoardPtr&) -> Result<std::unique_ptr<service::IService>> {
      return std::unique_ptr<service::IService>(std::make_unique<ScriptedService>(on_run_));
    };
    parts_.notify = [this](const std::string& text) { notifications_.push_back(text); };
  }

  void TearDown() override {
    // The cycle installed its handlers in this process: the test runner's signals act again.
    for (const int signal_number : {SIGTERM, SIGINT, SIGHUP}) {
      (void)std::signal(signal_number, SIG_DFL);
    }
    std::error_code ignored;
    fs::remove_all(directory_, ignored);
  }

  /// Runs the cycle with a step that throws what `thrower` throws in place of the step named.
  void break_step(const std::string& step, const std::function<void()>& thrower) {
    if (step == "logger") {
      parts_.make_logger = [thrower]() -> CycleParts::LoggerPtr {
        thrower();
        return {};
      };
    } else if (step == "ipc") {
      parts_.make_ipc = [thrower](const CycleParts::LoggerPtr&) -> CycleParts::IpcPtr {
        thrower();
        return {};
      };
    } else if (step == "factory") {
      parts_.make_factory = [thrower](const CycleParts::LoggerPtr&) -> CycleParts::FactoryPtr {
        thrower();
        return {};
      };
    } else if (step == "cfgdb") {
      parts_.make_cfgdb = [thrower]() -> CycleParts::CfgDbPtr {
        thrower();
        return {};
      };
    } else if (step == "posix wrapper") {
      parts_.make_posix_wrapper = [thrower](const CycleParts::LoggerPtr&) -> std::unique_ptr<board::IPosixWrapper> {
        thrower();
        return {};
      };
    } else if (step == "board") {
      parts_.make_board = [thrower](const CycleParts::LoggerPtr&,
                                    std::unique_ptr<board::IPosixWrapper>) -> CycleParts::BoardPtr {
        thrower();
        return {};
      };
    } else {
      FAIL() << "no step " << step;
    }
  }

  std::shared_ptr<test::RecordingLogger> logger_ = std::make_shared<test::RecordingLogger>();
  CycleParts parts_;
  std::vector<std::string> notifications_;
  // By default the service's run is stopped the way systemd stops the daemon.
  std::function<Result<void>()> on_run_ = [] {
    (void)std::raise(SIGTERM);
    return core::success();
  };
  fs::path directory_;
};

TEST_F(ProcessEntryTest, TheseQuietPartsMakeAWholeCycleThatSigtermEndsWithZero) {
  EXPECT_EQ(run_daemon(parts_), 0);
  EXPECT_EQ(notifications_, (std::vector<std::string>{kStartup, kReady, kShutdown}));
  EXPECT_TRUE(logger_->contains("Board create successfully", 0));
}

struct StepRow {
  const char* step;
  const char* on_exception;
  const char* on_anything_else;
};

void PrintTo(const StepRow& row, std::ostream* out) {
  *out << row.step;
}

class CreationStepTest : public ProcessEntryTest, public testing::WithParamInterface<StepRow> {};

TEST_P(CreationStepTest, AStdExceptionIsReportedWithItsTextAndEndsTheProcessWithOne) {
  ASSERT_NO_FATAL_FAILURE(break_step(GetParam().step, [] { throw std::runtime_error(kReason); }));
  EXPECT_EQ(run_daemon(parts_), 1);
  EXPECT_EQ(notifications_, (std::vector<std::string>{kStartup, GetParam().on_exception}));
}

TEST_P(CreationStepTest, AnythingElseThrownIsReportedWithoutTextAndEndsTheProcessWithOne) {
  ASSERT_NO_FATAL_FAILURE(break_step(GetParam().step, [] { throw 42; }));
  EXPECT_EQ(run_daemon(parts_), 1);
  EXPECT_EQ(notifications_, (std::vector<std::string>{kStartup, GetParam().on_anything_else}));
}

INSTANTIATE_TEST_SUITE_P(EveryStep, CreationStepTest,
                         testing::Values(StepRow{"logger", "STATUS=Exception on create log subsystem: broken {}.",
                                                 "STATUS=Unknown exception on create log subsystem."},
                                         StepRow{"ipc", "STATUS=Exception on create IPC subsystem: broken {}.",
                                                 "STATUS=Error on create IPC subsystem."},
                                         StepRow{"factory", "STATUS=Exception on create Factory object: broken {}.",
                                                 "STATUS=Unknown exception on create Factory object."},
                                         StepRow{"cfgdb", "STATUS=Error on create CFGDB subsystem.",
                                                 "STATUS=Error on create CFGDB subsystem."},
                                         StepRow{"posix wrapper",
                                                 "STATUS=Exception on create PosixWrapper object: broken {}.",
                                                 "STATUS=Unknown exception on create PosixWrapper object."},
                                         StepRow{"board", "STATUS=Exception on create Board object: broken {}.",
                                                 "STATUS=Unknown exception on create Board object."}),
                         [](const testing::TestParamInfo<StepRow>& row) {
                           std::string name = row.param.step;
                           std::erase(name, ' ');
                           return name;
                         });

TEST_F(ProcessEntryTest, ADeviceThatCannotBeOpenedIsReportedOnTheBoardsRow) {
  bool board_made = false;
  parts_.make_posix_wrapper = [](const CycleParts::LoggerPtr&) -> std::unique_ptr<board::IPosixWrapper> {
    throw board::DeviceOpenError("Can't open /dev/board file (Permission denied) ");
  };
  parts_.make_board = [&board_made](const CycleParts::LoggerPtr&,
                                    std::unique_ptr<board::IPosixWrapper>) -> CycleParts::BoardPtr {
    board_made = true;
    return nullptr;
  };
  EXPECT_EQ(run_daemon(parts_), 1);
  EXPECT_EQ(notifications_,
            (std::vector<std::string>{kStartup,
                                      "STATUS=Exception on create Board object: Can't open /dev/board file "
                                      "(Permission denied) ."}));
  EXPECT_FALSE(board_made);
}

TEST_F(ProcessEntryTest, TheBoardIsMadeFromTheWrapperOfItsOwnStep) {
  board::IPosixWrapper* made = nullptr;
  board::IPosixWrapper* handed_over = nullptr;
  parts_.make_posix_wrapper = [&made](const CycleParts::LoggerPtr&) -> std::unique_ptr<board::IPosixWrapper> {
    auto wrapper = std::make_unique<QuietPosixWrapper>();
    made = wrapper.get();
    return wrapper;
  };
  parts_.make_board = [&handed_over](const CycleParts::LoggerPtr& logger,
                                     std::unique_ptr<board::IPosixWrapper> posix_wrapper) -> CycleParts::BoardPtr {
    handed_over = posix_wrapper.get();
    return std::make_shared<board::Board>(logger, std::move(posix_wrapper));
  };
  EXPECT_EQ(run_daemon(parts_), 0);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(handed_over, made);
}

TEST_F(ProcessEntryTest, AServiceThatCannotBeMadeIsReportedWithTheErrorsTextAndEndsWithOne) {
  parts_.make_service = [](const CycleParts::LoggerPtr&, const CycleParts::IpcPtr&, const CycleParts::CfgDbPtr&,
                           const CycleParts::FactoryPtr&,
                           const CycleParts::BoardPtr&) -> Result<std::unique_ptr<service::IService>> {
    return core::ErrorPayload(core::Error::CommonError, "Unknown device type");
  };
  EXPECT_EQ(run_daemon(parts_), 1);
  EXPECT_EQ(notifications_,
            (std::vector<std::string>{kStartup, "STATUS=Error: CommonError. Message: Unknown device type.."}));
}

TEST_F(ProcessEntryTest, ALauncherThatCannotBeMadeIsReportedWithTheExceptionsText) {
  // No service at all: the launcher refuses to be made.
  parts_.make_service = [](const CycleParts::LoggerPtr&, const CycleParts::IpcPtr&, const CycleParts::CfgDbPtr&,
                           const CycleParts::FactoryPtr&,
                           const CycleParts::BoardPtr&) -> Result<std::unique_ptr<service::IService>> {
    return std::unique_ptr<service::IService>();
  };
  EXPECT_EQ(run_daemon(parts_), 1);
  EXPECT_EQ(notifications_, (std::vector<std::string>{kStartup,
                                                      "STATUS=Exception on create Service Launcher: "
                                                      "ServiceLauncher needs a service, a logger and an "
                                                      "IPC endpoint."}));
}

TEST_F(ProcessEntryTest, ARunThatEndsWithAnErrorEndsTheProcessWithOneAfterTheShutdownNotification) {
  on_run_ = [] { return Result<void>(core::ErrorPayload(core::Error::CommonError, "the service gave up")); };
  EXPECT_EQ(run_daemon(parts_), 1);
  EXPECT_EQ(notifications_, (std::vector<std::string>{kStartup, kReady, kShutdown}));
  EXPECT_THAT(logger_->texts(), testing::Contains(testing::HasSubstr("the service gave up")));
}

TEST_F(ProcessEntryTest, StopSignalsDuringStartUpAreIgnoredAndTheCycleGoesOn) {
  const auto make_factory = parts_.make_factory;
  parts_.make_factory = [make_factory](const CycleParts::LoggerPtr& logger) {
    for (const int signal_number : {SIGTERM, SIGINT, SIGHUP}) {
      (void)std::raise(signal_number);
    }
    return make_factory(logger);
  };
  // A SIGHUP ends the first run: had the early SIGTERM counted, the process would end here.
  int runs = 0;
  on_run_ = [&runs] {
    (void)std::raise(++runs == 1 ? SIGHUP : SIGTERM);
    return core::success();
  };
  EXPECT_EQ(run_daemon(parts_), 0);
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(notifications_, (std::vector<std::string>{kStartup, kReady, kShutdown, kStartup, kReady, kShutdown}));
}

// Notifications from the cycle's thread and the watchdog's, kept apart: pings and everything else.
class SharedNotifications {
 public:
  void add(const std::string& text) {
    const std::lock_guard lock(mutex_);
    if (text == "WATCHDOG=1") {
      ++pings_;
    } else {
      others_.push_back(text);
    }
  }
  std::size_t pings() const {
    const std::lock_guard lock(mutex_);
    return pings_;
  }
  std::vector<std::string> others() const {
    const std::lock_guard lock(mutex_);
    return others_;
  }
  // Waits until more than `count` pings have arrived.
  bool wait_for_pings_above(std::size_t count) const {
    return test::wait_until([&] { return pings() > count; }, std::chrono::seconds(5), std::chrono::milliseconds(1));
  }

 private:
  mutable std::mutex mutex_;
  std::size_t pings_ = 0;
  std::vector<std::string> others_;
};

TEST_F(ProcessEntryTest, WithAWatchdogTimeOutPingsGoOutAtHalfOfItAcrossCyclesAndEndWithTheProcess) {
  SharedNotifications shared;
  parts_.notify = [&shared](const std::string& text) { shared.add(text); };
  parts_.watchdog_timeout = [] { return std::chrono::microseconds(20000); };
  int runs = 0;
  bool pinged_in_each_run = true;
  on_run_ = [&] {
    // Each cycle's run waits for a ping from the watchdog's own thread, then the signal ends it.
    pinged_in_each_run = pinged_in_each_run && shared.wait_for_pings_above(shared.pings());
    (void)std::raise(++runs == 1 ? SIGHUP : SIGTERM);
    return core::success();
  };
  EXPECT_EQ(run_daemon(parts_), 0);
  EXPECT_EQ(runs, 2);
  EXPECT_TRUE(pinged_in_each_run);
  EXPECT_EQ(shared.others(), (std::vector<std::string>{kStartup, kReady, kShutdown, kStartup, kReady, kShutdown}));
  // The thread ended with run_daemon: no ping comes after it.
  const std::size_t pings = shared.pings();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(shared.pings(), pings);
}

TEST_F(ProcessEntryTest, AZeroWatchdogTimeOutSendsNoPing) {
  SharedNotifications shared;
  parts_.notify = [&shared](const std::string& text) { shared.add(text); };
  parts_.watchdog_timeout = [] { return std::chrono::microseconds::zero(); };
  on_run_ = [] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    (void)std::raise(SIGTERM);
    return core::success();
  };
  EXPECT_EQ(run_daemon(parts_), 0);
  EXPECT_EQ(shared.pings(), 0U);
  EXPECT_EQ(shared.others(), (std::vector<std::string>{kStartup, kReady, kShutdown}));
}

}  // namespace
}  // namespace xpon::system_mgr
