#include "xpon/system_mgr/services/fc_service.hpp"
#include "xpon/system_mgr/services/lc_service.hpp"
#include "xpon/system_mgr/services/lt_service.hpp"

#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/test/recording_ipc.hpp"
#include "xpon/test/recording_logger.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace xpon::system_mgr {
namespace {

namespace fs = std::filesystem;
using core::Error;
using core::ErrorPayload;
using core::Result;

// A system function that records which operations reached it, in a journal shared by all.
class ProbeFunction : public ISysFunction {
 public:
  ProbeFunction(std::string name, std::vector<std::string>& journal) : name_(std::move(name)), journal_(journal) {}

  Result<void> config_change(const ServiceCtx& /*ctx*/, const std::vector<Config_change>& changes) override {
    journal_.push_back(name_ + ".config_change(" + std::to_string(changes.size()) + ")");
    return answer("config_change");
  }
  Result<void> master_change(const ServiceCtx& /*ctx*/) override {
    journal_.push_back(name_ + ".master_change");
    return answer("master_change");
  }
  Result<void> run() override {
    journal_.push_back(name_ + ".run");
    return answer("run");
  }
  Result<void> stop() override {
    journal_.push_back(name_ + ".stop");
    return answer("stop");
  }
  Result<void> polling() override { return Error::NotImplemented; }
  Result<void> ipc_subscribe() override { return core::success(); }
  Result<void> ipc_unsubscribe() override { return core::success(); }

  std::string fail_on;   // operation that returns an error
  std::string throw_on;  // operation that throws

 private:
  Result<void> answer(const std::string& operation) {
    if (operation == throw_on) {
      throw std::runtime_error(name_ + " threw");
    }
    if (operation == fail_on) {
      return ErrorPayload(Error::InvalidState, name_ + " failed");
    }
    return core::success();
  }

  std::string name_;
  std::vector<std::string>& journal_;
};

// A family service whose functions are probes, to watch the fan-out.
template <typename Base>
class ProbeService : public FamilyService<Base> {
 public:
  ProbeService(const std::shared_ptr<logger::ILogger>& logger, std::size_t count, std::vector<std::string>& journal)
      : FamilyService<Base>(logger, nullptr, nullptr) {
    for (std::size_t index = 1; index <= count; ++index) {
      auto probe = std::make_shared<ProbeFunction>("f" + std::to_string(index), journal);
      probes.push_back(probe.get());
      this->functions_.push_back(probe);
    }
  }
  std::vector<ProbeFunction*> probes;
};

using FcProbeService = ProbeService<service::ServiceBaseFC>;

TEST(FanOut, RunCallsEveryFunctionInOrderThenTheBase) {
  auto logger = std::make_shared<test::RecordingLogger>();
  std::vector<std::string> journal;
  FcProbeService service(logger, 3, journal);
  ASSERT_TRUE(service.run({}).has_value());
  EXPECT_EQ(journal, (std::vector<std::string>{"f1.run", "f2.run", "f3.run"}));
  EXPECT_TRUE(service.is_running());
}

TEST(FanOut, ThirdRunFailingStopsTheWalkAndSkipsTheBase) {
  auto logger = std::make_shared<test::RecordingLogger>();
  std::vector<std::string> journal;
  FcProbeService service(logger, 5, journal);
  service.probes[2]->fail_on = "run";
  const auto result = service.run({});
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
  EXPECT_EQ(journal, (std::vector<std::string>{"f1.run", "f2.run", "f3.run"}));
  EXPECT_FALSE(service.is_running());
  EXPECT_TRUE(logger->contains("Error: InvalidState. Message: f3 failed.", 4));
}

TEST(FanOut, ThrowingFunctionBecomesExceptionAndStopsTheWalk) {
  auto logger = std::make_shared<test::RecordingLogger>();
  std::vector<std::string> journal;
  FcProbeService service(logger, 3, journal);
  service.probes[1]->throw_on = "run";
  const auto result = service.run({});
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Exception);
  EXPECT_EQ(journal, (std::vector<std::string>{"f1.run", "f2.run"}));
  EXPECT_TRUE(logger->contains("An std::exception was thrown: f2 threw ", 4));
}

TEST(FanOut, StopGoesInCreationOrderAndAFailureLeavesLaterFunctionsRunning) {
  auto logger = std::make_shared<test::RecordingLogger>();
  std::vector<std::string> journal;
  FcProbeService service(logger, 3, journal);
  ASSERT_TRUE(service.run({}).has_value());
  journal.clear();
  service.probes[0]->fail_on = "stop";
  ASSERT_TRUE(service.stop({}).has_error());
  EXPECT_EQ(journal, (std::vector<std::string>{"f1.stop"}));
  EXPECT_TRUE(service.is_running());
}

TEST(FanOut, StopOfAllCallsTheBase) {
  auto logger = std::make_shared<test::RecordingLogger>();
  std::vector<std::string> journal;
  FcProbeService service(logger, 2, journal);
  ASSERT_TRUE(service.run({}).has_value());
  ASSERT_TRUE(service.stop({}).has_value());
  EXPECT_FALSE(service.is_running());
  EXPECT_EQ(journal, (std::vector<std::string>{"f1.run", "f2.run", "f1.stop", "f2.stop"}));
}

TEST(FanOut, ConfigChangePassesTheSameListToEveryFunction) {
  auto logger = std::make_shared<test::RecordingLogger>();
  std::vector<std::string> journal;
  FcProbeService service(logger, 2, journal);
  const std::vector<Config_change> changes{{80, 1, 0}, {77, 1, 0}};
  ASSERT_TRUE(service.config_change({}, changes).has_value());
  EXPECT_EQ(journal, (std::vector<std::string>{"f1.config_change(2)", "f2.config_change(2)"}));
}

TEST(FanOut, MasterChangeReachesEveryFunctionOnFcAndLc) {
  auto logger = std::make_shared<test::RecordingLogger>();
  std::vector<std::string> journal;
  FcProbeService fc(logger, 2, journal);
  ProbeService<service::ServiceBaseLC> lc(logger, 1, journal);
  ASSERT_TRUE(fc.master_change({}).has_value());
  ASSERT_TRUE(lc.master_change({}).has_value());
  EXPECT_EQ(journal, (std::vector<std::string>{"f1.master_change", "f2.master_change", "f1.master_change"}));
}

TEST(FanOut, MasterChangeFailureIsReturned) {
  auto logger = std::make_shared<test::RecordingLogger>();
  std::vector<std::string> journal;
  FcProbeService service(logger, 3, journal);
  service.probes[0]->fail_on = "master_change";
  ASSERT_TRUE(service.master_change({}).has_error());
  EXPECT_EQ(journal, (std::vector<std::string>{"f1.master_change"}));
}

// The real services over a configuration database in a temporary file.
class RealServices : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "services-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    root_ = pattern;
    cfgdb_ = std::make_shared<cfgdb::CfgDbWrapper>("SYSTEM-MGR_CFGDB", (root_ / "cfgdb.sqlite3").string());
  }
  void TearDown() override {
    cfgdb_.reset();
    fs::remove_all(root_);
  }

  std::shared_ptr<test::RecordingLogger> logger_ = std::make_shared<test::RecordingLogger>();
  std::shared_ptr<test::RecordingIpc> ipc_ = std::make_shared<test::RecordingIpc>();
  fs::path root_;
  std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb_;
};

TEST_F(RealServices, FcServiceConnectsTheElectionManagerAndLogsItsLife) {
  {
    const FcService service(logger_, ipc_, cfgdb_, nullptr);
    EXPECT_EQ(ipc_->connected(), (std::vector<ipc::Address>{0x0015FFFE}));
    EXPECT_TRUE(logger_->contains("FcService create successfully", 0));
    EXPECT_FALSE(service.functions().empty());
  }
  EXPECT_TRUE(logger_->contains("FcService destroy successfully", 0));
}

TEST_F(RealServices, LcServiceConnectsTheElectionManagerAndLogsItsLife) {
  {
    const LcService service(logger_, ipc_, cfgdb_, nullptr);
    EXPECT_EQ(ipc_->connected(), (std::vector<ipc::Address>{0x0015FFFE}));
    EXPECT_TRUE(logger_->contains("LcService create successfully", 0));
  }
  EXPECT_TRUE(logger_->contains("LcService destroy successfully", 0));
}

TEST_F(RealServices, LtServiceConnectsNothing) {
  {
    const LtService service(logger_, ipc_, cfgdb_, nullptr);
    EXPECT_TRUE(ipc_->connected().empty());
    EXPECT_TRUE(logger_->contains("LtService create successfully", 0));
  }
  EXPECT_TRUE(logger_->contains("LtService destroy successfully", 0));
}

TEST_F(RealServices, CpuLoadMonitoringIsTheFirstFunctionOfEveryFamily) {
  const FcService fc(logger_, ipc_, cfgdb_, nullptr);
  const LcService lc(logger_, ipc_, cfgdb_, nullptr);
  const LtService lt(logger_, ipc_, cfgdb_, nullptr);
  for (const auto* functions : {&fc.functions(), &lc.functions(), &lt.functions()}) {
    ASSERT_FALSE(functions->empty());
    const auto* first = dynamic_cast<const SysFunction*>(functions->front().get());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->name(), "CpuLoadMonitoring");
  }
}

// An LT service with a probe added behind its own functions, to see what reaches them.
class LtServiceWithProbe : public LtService {
 public:
  LtServiceWithProbe(const std::shared_ptr<logger::ILogger>& logger, const std::shared_ptr<ipc::IIpc>& ipc,
                     const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, std::vector<std::string>& journal)
      : LtService(logger, ipc, cfgdb, nullptr) {
    functions_.push_back(std::make_shared<ProbeFunction>("probe", journal));
  }
};

TEST_F(RealServices, LtMasterChangeReachesNoFunction) {
  std::vector<std::string> journal;
  LtServiceWithProbe service(logger_, ipc_, cfgdb_, journal);
  ASSERT_TRUE(service.master_change({}).has_value());
  EXPECT_TRUE(journal.empty());
  ASSERT_TRUE(service.config_change({}, {{80, 1, 0}}).has_value());
  EXPECT_EQ(journal, (std::vector<std::string>{"probe.config_change(1)"}));
}

}  // namespace
}  // namespace xpon::system_mgr
