#include "xpon/system_mgr/functions/pwr_module_monitoring.hpp"

#include "function_test.hpp"
#include "xpon/test/fake_board.hpp"
#include "xpon/test/recording_ipc.hpp"
#include "xpon/test/recording_logger.hpp"
#include "xpon/test/wait.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace xpon::system_mgr {
namespace {

using namespace std::chrono_literals;
using test::BoardOp;

// A power module with every field set to a value of its own, so a misplaced byte shows.
Wake__pwr_module module_state() {
  Wake__pwr_module state;
  std::memset(&state, 0, sizeof state);
  state.present = 1;
  state.power_good = 1;
  state.fault = 0;
  state.fan_fault = 1;
  state.input_voltage = 2300;
  state.output_voltage = 1200;
  state.output_current = 1250;
  state.output_power = 150;
  state.temperature = -12;
  state.reserved[5] = 0x77;
  return state;
}

// The same record written out byte by byte, little-endian.
const ipc::Payload kStateBytes = {0x01, 0x01, 0x00, 0x01, 0xFC, 0x08, 0xB0, 0x04, 0xE2, 0x04,
                                  0x96, 0x00, 0xF4, 0xFF, 0x00, 0x00, 0x00, 0x00, 0x00, 0x77};

class PwrModuleMonitoringTest : public FunctionTest {
 protected:
  std::unique_ptr<PwrModuleMonitoring> make(std::chrono::milliseconds period = 30000ms) {
    return std::make_unique<PwrModuleMonitoring>(logger, ipc, cfgdb, board, period);
  }

  std::shared_ptr<test::FakeBoard> board = std::make_shared<test::FakeBoard>();
};

// --- Construction and configuration -----------------------------------------------------------

TEST_F(PwrModuleMonitoringTest, NeedsNoReadableConfiguration) {
  // The section is reserved for a future alarm: nothing is read, so not even a database is needed.
  const PwrModuleMonitoring function(logger, ipc, nullptr, board, 30000ms);
  EXPECT_TRUE(logger->contains("PwrModuleMonitoring create successfully", 0));
}

TEST_F(PwrModuleMonitoringTest, AChangeListHoldingItsSectionTwiceLogsTheChangeTwice) {
  auto function = make();
  logger->clear();
  EXPECT_TRUE(function->config_change(ServiceCtx{}, {service::Config_change{123, 1, 0}, {80, 1, 0}, {123, 2, 0}}));
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Change config event [ALARM_SYSTEM_PWR_MODULE]",
                                                       "Change config event [ALARM_SYSTEM_PWR_MODULE]"}));
  EXPECT_TRUE(logger->contains("Change config event [ALARM_SYSTEM_PWR_MODULE]", 0));
}

TEST_F(PwrModuleMonitoringTest, OtherSectionsAndAnEmptyListChangeNothing) {
  auto function = make();
  logger->clear();
  EXPECT_TRUE(function->config_change(ServiceCtx{}, {}));
  EXPECT_TRUE(function->config_change(ServiceCtx{}, {service::Config_change{79, 1, 0}}));
  EXPECT_TRUE(logger->texts().empty());
}

TEST_F(PwrModuleMonitoringTest, MastershipChangesDoNothing) {
  auto function = make();
  logger->clear();
  EXPECT_TRUE(function->master_change(ServiceCtx{}));
  EXPECT_TRUE(logger->texts().empty());
}

// --- Polling ------------------------------------------------------------------------------------

TEST_F(PwrModuleMonitoringTest, ThePollSucceedsWithoutDoingAnything) {
  auto function = make();
  logger->clear();
  EXPECT_TRUE(function->polling());
  EXPECT_TRUE(board->calls().empty());
  EXPECT_TRUE(ipc->events().empty());
  EXPECT_TRUE(logger->texts().empty());
}

// The function with its polls counted, to see the thread's.
class CountedPwrModuleMonitoring : public Wakeable<PwrModuleMonitoring> {
 public:
  using Wakeable<PwrModuleMonitoring>::Wakeable;
  Result<void> polling() override {
    ++polls;
    return PwrModuleMonitoring::polling();
  }
  std::atomic<int> polls{0};
};

TEST_F(PwrModuleMonitoringTest, ThePollingThreadRunsAndNeverSendsAnything) {
  auto function = std::make_unique<CountedPwrModuleMonitoring>(logger, ipc, cfgdb, board, 10ms);
  ASSERT_TRUE(function->run());
  // The empty poll is not "not implemented": the thread is started all the same.
  EXPECT_TRUE(function->is_running());
  EXPECT_EQ(function->polls.load(), 1) << "run makes the first poll";
  EXPECT_FALSE(logger->contains("Polling not required for System function: PwrModuleMonitoring"));
  EXPECT_TRUE(ipc->has_request_subscription(ipc::Key{IPC_SYSTEM_MGR, IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE}));
  // At least two polls of the thread after the first one.
  EXPECT_TRUE(test::wait_until([&] { return function->polls.load() >= 3; }, 5s)) << function->polls.load();
  EXPECT_TRUE(ipc->events().empty());
  EXPECT_TRUE(ipc->responses().empty());
  EXPECT_TRUE(board->calls().empty());
  EXPECT_TRUE(logger->contains("Start System function: PwrModuleMonitoring", 0));
  EXPECT_TRUE(stop_waking(*function));
  EXPECT_FALSE(function->is_running());
  EXPECT_TRUE(ipc->request_subscriptions().empty());
}

// --- IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE (what every board request shares: board_request_test.cpp)

TEST_F(PwrModuleMonitoringTest, TheStateIsTheModulesTwentyBytesAsTheyStand) {
  board->answer(BoardOp::get_pwr_module_state, module_state());
  auto function = make();
  ASSERT_TRUE(function->ipc_subscribe());
  logger->clear();
  ASSERT_TRUE(ipc->inject_request(request_to(IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE)));
  const auto response = only_response(kRequestSender, kRequestTag);
  EXPECT_EQ(response.result, 1U);
  EXPECT_EQ(response.payload, kStateBytes);
  EXPECT_EQ(logger->texts(), (std::vector<std::string>{"Handle IPC request [IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE]"}));
  EXPECT_TRUE(logger->contains("Handle IPC request [IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE]", 0));
  EXPECT_EQ(board->ops(), (std::vector<BoardOp>{BoardOp::get_pwr_module_state}));
}

}  // namespace
}  // namespace xpon::system_mgr
