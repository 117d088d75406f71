#include "xpon/system_mgr/services/create_service.hpp"
#include "xpon/system_mgr/services/fc_service.hpp"
#include "xpon/system_mgr/services/lc_service.hpp"
#include "xpon/system_mgr/services/lineups.hpp"
#include "xpon/system_mgr/services/lt_service.hpp"

#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/test/fake_board.hpp"
#include "xpon/test/recording_ipc.hpp"
#include "xpon/test/recording_logger.hpp"
#include "xpon/test/sandbox.hpp"
#include "xpon/test/temp_dir.hpp"
#include "xpon/test/vtable_slot.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace xpon::system_mgr {
namespace {

using core::Error;
using core::ErrorPayload;
using core::Result;
using namespace std::chrono_literals;

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
      : FamilyService<Base>(logger, nullptr, nullptr, nullptr) {
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
  std::shared_ptr<test::RecordingLogger> logger_ = std::make_shared<test::RecordingLogger>();
  std::shared_ptr<test::RecordingIpc> ipc_ = std::make_shared<test::RecordingIpc>();
  // A board's file system: the disk space function looks at the five flash partitions in it.
  test::Sandbox sandbox_;
  test::ScopedEnv root_{"XPON_ROOT", sandbox_.root()};
  std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb_ = std::make_shared<cfgdb::CfgDbWrapper>("SYSTEM-MGR_CFGDB");
  // MiscParameters reads the FPGA and CPLD versions when it is made, the temperature function
  // the sensor count.
  std::shared_ptr<test::FakeBoard> board_ = std::make_shared<test::FakeBoard>();
};

TEST_F(RealServices, FcServiceConnectsTheElectionManagerAndLogsItsLife) {
  {
    const FcService service(logger_, ipc_, cfgdb_, board_);
    EXPECT_EQ(ipc_->connected(), (std::vector<ipc::Address>{0x0015FFFE}));
    EXPECT_TRUE(logger_->contains("FcService create successfully", 0));
    EXPECT_FALSE(service.functions().empty());
  }
  EXPECT_TRUE(logger_->contains("FcService destroy successfully", 0));
}

TEST_F(RealServices, LcServiceConnectsTheElectionManagerAndLogsItsLife) {
  {
    const LcService service(logger_, ipc_, cfgdb_, board_);
    EXPECT_EQ(ipc_->connected(), (std::vector<ipc::Address>{0x0015FFFE}));
    EXPECT_TRUE(logger_->contains("LcService create successfully", 0));
  }
  EXPECT_TRUE(logger_->contains("LcService destroy successfully", 0));
}

TEST_F(RealServices, LtServiceConnectsNothing) {
  {
    const LtService service(logger_, ipc_, cfgdb_, board_);
    EXPECT_TRUE(ipc_->connected().empty());
    EXPECT_TRUE(logger_->contains("LtService create successfully", 0));
  }
  EXPECT_TRUE(logger_->contains("LtService destroy successfully", 0));
}

TEST_F(RealServices, CpuLoadMonitoringIsTheFirstFunctionOfEveryFamily) {
  const FcService fc(logger_, ipc_, cfgdb_, board_);
  const LcService lc(logger_, ipc_, cfgdb_, board_);
  const LtService lt(logger_, ipc_, cfgdb_, board_);
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
                     const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, const std::shared_ptr<board::IBoard>& board,
                     std::vector<std::string>& journal)
      : LtService(logger, ipc, cfgdb, board) {
    functions_.push_back(std::make_shared<ProbeFunction>("probe", journal));
  }
};

TEST_F(RealServices, LtMasterChangeReachesNoFunction) {
  std::vector<std::string> journal;
  LtServiceWithProbe service(logger_, ipc_, cfgdb_, board_, journal);
  ASSERT_TRUE(service.master_change({}).has_value());
  EXPECT_TRUE(journal.empty());
  ASSERT_TRUE(service.config_change({}, {{80, 1, 0}}).has_value());
  EXPECT_EQ(journal, (std::vector<std::string>{"probe.config_change(1)"}));
}

class FixedFactory : public IFactory {
 public:
  explicit FixedFactory(std::uint32_t code) : type_(static_cast<DeviceType>(code)) {}
  [[nodiscard]] DeviceType device_type() const override { return type_; }

 private:
  DeviceType type_;
};

TEST(CreateService, TypeOutsideTheFamiliesIsUnknownDeviceType) {
  auto logger = std::make_shared<test::RecordingLogger>();
  auto ipc = std::make_shared<test::RecordingIpc>();
  const auto result = create_service(logger, ipc, nullptr, std::make_shared<FixedFactory>(3), nullptr);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, core::Error::CommonError);
  EXPECT_EQ(result.error().to_string(), "Error: CommonError. Message: Unknown device type.");
}

TEST(CreateService, ConstructorExceptionBecomesExceptionErrorNamingTheService) {
  auto logger = std::make_shared<test::RecordingLogger>();
  auto ipc = std::make_shared<test::RecordingIpc>();
  ipc->fail_next_connect();
  const auto result = create_service(logger, ipc, nullptr, std::make_shared<FixedFactory>(1), nullptr);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, core::Error::Exception);
  ASSERT_TRUE(result.error().info.has_value());
  EXPECT_EQ(result.error().info->message,
            "Exception on create LcService: Unable to connect Election Manager IPC client [LcService].");
}

TEST(CreateService, FcServiceConnectFailureNamesFcService) {
  auto logger = std::make_shared<test::RecordingLogger>();
  auto ipc = std::make_shared<test::RecordingIpc>();
  ipc->fail_next_connect();
  const auto result = create_service(logger, ipc, nullptr, std::make_shared<FixedFactory>(2), nullptr);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().info->message,
            "Exception on create FcService: Unable to connect Election Manager IPC client [FcService].");
}

// A logger that throws something that is not a std::exception, as a broken component might.
class ThrowingLogger : public logger::ILogger {
 public:
  void log(int /*level*/, std::string_view /*text*/, const std::source_location& /*location*/) override { throw 7; }
};

TEST(CreateService, NonStandardExceptionIsAnUnknownExceptionNamingTheService) {
  const std::vector<std::pair<std::uint32_t, std::string>> families{{0, "Unknown exception on create LtService"},
                                                                    {1, "Unknown exception on create LcService"},
                                                                    {2, "Unknown exception on create FcService"}};
  for (const auto& [code, text] : families) {
    const auto result = create_service(std::make_shared<ThrowingLogger>(), std::make_shared<test::RecordingIpc>(),
                                       nullptr, std::make_shared<FixedFactory>(code), nullptr);
    ASSERT_TRUE(result.has_error()) << text;
    EXPECT_EQ(result.error().error, core::Error::Exception);
    ASSERT_TRUE(result.error().info.has_value());
    EXPECT_EQ(result.error().info->message, text);
  }
}

TEST(CreateService, FunctionConstructorThatThrowsAbortsTheServicesCreation) {
  const std::vector<std::pair<std::uint32_t, std::string>> families{
      {0, "LtService"}, {1, "LcService"}, {2, "FcService"}};
  for (const auto& [code, service] : families) {
    auto logger = std::make_shared<test::RecordingLogger>();
    // No configuration database: CpuLoadMonitoring, the first function, cannot read its section.
    const auto result = create_service(logger, std::make_shared<test::RecordingIpc>(), nullptr,
                                       std::make_shared<FixedFactory>(code), nullptr);
    ASSERT_TRUE(result.has_error()) << service;
    EXPECT_EQ(result.error().error, core::Error::Exception);
    ASSERT_TRUE(result.error().info.has_value());
    EXPECT_EQ(result.error().info->message,
              "Exception on create " + service +
                  ": Config update for CpuLoadMonitoring failed (Error: InvalidInputArg. Message: no configuration "
                  "database.) .");
    EXPECT_FALSE(logger->contains(service + " create successfully"));
  }
}

TEST(FanOut, FailingConfigChangeEndsTheWalk) {
  auto logger = std::make_shared<test::RecordingLogger>();
  std::vector<std::string> journal;
  FcProbeService service(logger, 3, journal);
  service.probes[1]->fail_on = "config_change";
  const auto result = service.config_change({}, {{80, 1, 0}});
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidState);
  EXPECT_EQ(journal, (std::vector<std::string>{"f1.config_change(1)", "f2.config_change(1)"}));
  EXPECT_TRUE(logger->contains("Error: InvalidState. Message: f2 failed.", 4));
}

TEST(FanOut, ThrowingConfigChangeEndsTheWalkAsAnException) {
  auto logger = std::make_shared<test::RecordingLogger>();
  std::vector<std::string> journal;
  FcProbeService service(logger, 3, journal);
  service.probes[0]->throw_on = "config_change";
  const auto result = service.config_change({}, {{80, 1, 0}});
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Exception);
  EXPECT_EQ(journal, (std::vector<std::string>{"f1.config_change(1)"}));
  EXPECT_TRUE(logger->contains("An std::exception was thrown: f1 threw ", 4));
}

using Lineup = std::vector<std::pair<std::string, std::chrono::milliseconds>>;

// Each family's functions, in creation order, with their polling periods (0: never polls).
const Lineup kExpectedFc{
    {"CpuLoadMonitoring", 30000ms}, {"RamMonitoring", 30000ms},       {"HddMonitoring", 30000ms},
    {"LedPanelCntrl", 0ms},         {"MiscParameters", 0ms},          {"TempMonitoring", 20000ms},
    {"SfpMonitoring", 1000ms},      {"FanModuleMonitoring", 30000ms}, {"PwrModuleMonitoring", 30000ms}};
const Lineup kExpectedLc{{"CpuLoadMonitoring", 30000ms}, {"RamMonitoring", 30000ms},  {"LedPanelCntrl", 0ms},
                         {"MiscParameters", 0ms},        {"TempMonitoring", 20000ms}, {"SfpMonitoring", 1000ms}};
const Lineup kExpectedLt{{"CpuLoadMonitoring", 30000ms}, {"RamMonitoring", 30000ms}, {"HddMonitoring", 30000ms},
                         {"LedPanelCntrl", 0ms},         {"MiscParameters", 0ms},    {"TempMonitoring", 20000ms},
                         {"SfpMonitoring", 1000ms},      {"FanMonitoring", 30000ms}, {"PsMonitoring", 1000ms}};

// Name and period of every function of a service, in creation order.
Lineup lineup(const std::vector<std::shared_ptr<ISysFunction>>& functions) {
  Lineup names;
  for (const auto& function : functions) {
    const auto* base = dynamic_cast<const SysFunction*>(function.get());
    EXPECT_NE(base, nullptr);
    if (base != nullptr) {
      names.emplace_back(std::string(base->name()), base->period());
    }
  }
  return names;
}

// Name and period of every entry of a family's table, in its order.
Lineup lineup(std::span<const LineupEntry> table) {
  Lineup names;
  for (const LineupEntry& entry : table) {
    names.emplace_back(std::string(entry.name), entry.period);
  }
  return names;
}

TEST(Lineups, EachFamilysTableNamesItsFunctionsAndPeriodsInCreationOrder) {
  EXPECT_EQ(lineup(lineups::kFc), kExpectedFc);
  EXPECT_EQ(lineup(lineups::kLc), kExpectedLc);
  EXPECT_EQ(lineup(lineups::kLt), kExpectedLt);
  EXPECT_EQ(kNoPolling, 0ms);
}

TEST_F(RealServices, EachFamilyCreatesExactlyItsFunctionsWithTheirPeriods) {
  const FcService fc(logger_, ipc_, cfgdb_, board_);
  const LcService lc(logger_, ipc_, cfgdb_, board_);
  const LtService lt(logger_, ipc_, cfgdb_, board_);
  EXPECT_EQ(lineup(fc.functions()), kExpectedFc);
  EXPECT_EQ(lineup(lc.functions()), kExpectedLc);
  EXPECT_EQ(lineup(lt.functions()), kExpectedLt);
}

TEST_F(RealServices, EveryFunctionOfATableIsMadeOfItsOwnClassWithTheServicesObjects) {
  // Each entry makes the function it names, with the period it gives, from the objects handed in.
  const FunctionDeps deps{logger_, ipc_, cfgdb_, board_, DeviceType::FC};
  for (const auto* table : {&lineups::kFc, &lineups::kLt}) {
    for (const LineupEntry& entry : *table) {
      const auto made = entry.make(deps, entry.period);
      const auto* function = dynamic_cast<const SysFunction*>(made.get());
      ASSERT_NE(function, nullptr) << entry.name;
      EXPECT_EQ(function->name(), entry.name);
      EXPECT_EQ(function->period(), entry.period) << entry.name;
    }
  }
}

TEST_F(RealServices, TheFifthOperationAnswersSuccessInEveryFamily) {
  FcService fc(logger_, ipc_, cfgdb_, board_);
  LcService lc(logger_, ipc_, cfgdb_, board_);
  LtService lt(logger_, ipc_, cfgdb_, board_);
  EXPECT_TRUE(fc.health_check({}));
  EXPECT_TRUE(lc.health_check({}));
  EXPECT_TRUE(lt.health_check({}));
}

TEST_F(RealServices, EveryServiceKeepsTheBoardItIsGiven) {
  auto board = std::make_shared<test::FakeBoard>();
  const FcService fc(logger_, ipc_, cfgdb_, board);
  const LcService lc(logger_, ipc_, cfgdb_, board);
  const LtService lt(logger_, ipc_, cfgdb_, board);
  EXPECT_EQ(fc.board().get(), board.get());
  EXPECT_EQ(lc.board().get(), board.get());
  EXPECT_EQ(lt.board().get(), board.get());
  // The test's own; each service's, its two control functions', its TempMonitoring's and its
  // SfpMonitoring's, once and once more in each of its eight bound board operations; those of
  // the FC fan module's and power module's functions and the LT fans' and power supplies'.
  EXPECT_EQ(board.use_count(), 1 + 3 * (1 + 2 + 1 + 1 + 8) + 2 + 2);
  // Making a service reads the FPGA and CPLD versions once (MiscParameters) and the number of
  // temperature sensors (TempMonitoring), nothing else.
  const std::vector<test::BoardOp> construction{test::BoardOp::get_fpga_config_version,
                                                test::BoardOp::get_cpld_config_version, test::BoardOp::get_temp_count};
  std::vector<test::BoardOp> expected;
  for (int service = 0; service < 3; ++service) {
    expected.insert(expected.end(), construction.begin(), construction.end());
  }
  EXPECT_EQ(board->ops(), expected);
}

TEST(SlotOrder, SystemFunctionInterface) {
  EXPECT_EQ(test::vtable_slot(&ISysFunction::config_change), 2);
  EXPECT_EQ(test::vtable_slot(&ISysFunction::master_change), 3);
  EXPECT_EQ(test::vtable_slot(&ISysFunction::run), 4);
  EXPECT_EQ(test::vtable_slot(&ISysFunction::stop), 5);
  EXPECT_EQ(test::vtable_slot(&ISysFunction::polling), 6);
  EXPECT_EQ(test::vtable_slot(&ISysFunction::ipc_subscribe), 7);
  EXPECT_EQ(test::vtable_slot(&ISysFunction::ipc_unsubscribe), 8);
  // The base adds no slot of its own in front of them.
  EXPECT_EQ(test::vtable_slot(&SysFunction::ipc_unsubscribe), 8);
}

TEST(SlotOrder, ServiceInterface) {
  EXPECT_EQ(test::vtable_slot(&service::IService::run), 2);
  EXPECT_EQ(test::vtable_slot(&service::IService::stop), 3);
  EXPECT_EQ(test::vtable_slot(&service::IService::config_change), 4);
  EXPECT_EQ(test::vtable_slot(&service::IService::master_change), 5);
  EXPECT_EQ(test::vtable_slot(&service::IService::health_check), 6);
}

TEST(SlotOrder, FactoryInterface) {
  EXPECT_EQ(test::vtable_slot(&IFactory::device_type), 2);
}

TEST(SlotOrder, BoardInterface) {
  using board::IBoard;
  // The operations this system calls, in the interface's order, with the operations no caller
  // here uses between them.
  EXPECT_EQ(test::vtable_slot(&IBoard::get_fpga_config_version), 2);
  EXPECT_EQ(test::vtable_slot(&IBoard::get_cpld_config_version), 3);
  EXPECT_EQ(test::vtable_slot(&IBoard::get_temp_count), 6);
  EXPECT_EQ(test::vtable_slot(&IBoard::f_btn__is_pressed), 9);
  EXPECT_EQ(test::vtable_slot(&IBoard::f_btn__is_pooling_enabled), 10);
  EXPECT_EQ(test::vtable_slot(&IBoard::f_btn__is_hard_reset_enabled), 11);
  EXPECT_EQ(test::vtable_slot(&IBoard::set_fan_speed), 12);
  EXPECT_EQ(test::vtable_slot(&IBoard::cntrl_led_panel), 13);
  EXPECT_EQ(test::vtable_slot(&IBoard::p_port__set_led_state), 14);
  EXPECT_EQ(test::vtable_slot(&IBoard::cntrl_p_port_sfp_trx), 16);
  EXPECT_EQ(test::vtable_slot(&IBoard::cntrl_f_port_sfp_trx), 17);
  EXPECT_EQ(test::vtable_slot(&IBoard::get_fan_info), 19);
  EXPECT_EQ(test::vtable_slot(&IBoard::get_ps_info), 20);
  EXPECT_EQ(test::vtable_slot(&IBoard::get_temp_info), 21);
  EXPECT_EQ(test::vtable_slot(&IBoard::get_f_port_sfp_state), 22);
  EXPECT_EQ(test::vtable_slot(&IBoard::get_p_port_sfp_state), 23);
  EXPECT_EQ(test::vtable_slot(&IBoard::get_f_port_sfp_data), 24);
  EXPECT_EQ(test::vtable_slot(&IBoard::get_p_port_sfp_data), 25);
  EXPECT_EQ(test::vtable_slot(&IBoard::get_f_port_sfp_eddi_data), 26);
  EXPECT_EQ(test::vtable_slot(&IBoard::get_p_port_sfp_eddi_data), 27);
  EXPECT_EQ(test::vtable_slot(&IBoard::get_p_port_sfp_rx_power), 28);
  EXPECT_EQ(test::vtable_slot(&IBoard::set_fan_module_speed), 29);
  EXPECT_EQ(test::vtable_slot(&IBoard::get_fan_module_factory), 30);
  EXPECT_EQ(test::vtable_slot(&IBoard::get_fan_module_state), 31);
  EXPECT_EQ(test::vtable_slot(&IBoard::get_pwr_module_state), 32);
}

TEST(SlotOrder, ANonVirtualMemberHasNoSlot) {
  EXPECT_EQ(test::vtable_slot(&SysFunction::period), -1);
}

}  // namespace
}  // namespace xpon::system_mgr
