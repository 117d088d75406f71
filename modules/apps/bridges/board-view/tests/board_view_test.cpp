// The board view's poller against a daemon stand-in: what a round asks on each family, in which
// order, what a silent daemon costs, and the events: alarm transitions and a plugged module read at once.
#include "xpon/board_view/board_view.hpp"
#include "xpon/board_view/test/daemon_stand_in.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/test/recording_logger.hpp"
#include "xpon/test/wait.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

namespace xpon::board_view {
namespace {

using namespace xpon::system_mgr;
using namespace std::chrono_literals;

using test::Asked;
using test::bytes_of;
using test::DaemonStandIn;
using test::factory_of;

SfpModuleRecord module_at(std::uint32_t port) {
  SfpModuleRecord record{};
  record.port = port;
  record.state = 1;
  return record;
}

ipc::Event alarm_event(std::uint8_t state) {
  return test::alarm_event(state, SYSTEM_MGR_ALARM_TEMPERATURE, 2);
}

class BoardViewTest : public ::testing::Test {
 protected:
  std::shared_ptr<DaemonStandIn> daemon = std::make_shared<DaemonStandIn>();
  std::shared_ptr<xpon::test::RecordingLogger> log = std::make_shared<xpon::test::RecordingLogger>();
};

TEST_F(BoardViewTest, ARoundOnAnLtBoardAsksWhatLtServesThenEachModule) {
  daemon->answer(IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, factory_of(SYSTEM_MGR_FAMILY_LT));
  daemon->answer(IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO, bytes_of(module_at(1)));
  daemon->answer(IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO, bytes_of(module_at(0)));
  BoardView view(daemon, nullptr, log);
  view.poll_once();
  // The crate's factory data only on an FC board (see the FC case below).
  const std::vector<Asked> expected{{IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, std::nullopt},
                                    {IPC_SYSTEM_MGR__GET_FPGA_VERSION, std::nullopt},
                                    {IPC_SYSTEM_MGR__GET_CPLD_VERSION, std::nullopt},
                                    {IPC_SYSTEM_MGR__GET_RAM_DATA, std::nullopt},
                                    {IPC_SYSTEM_MGR__GET_HDD_DATA, std::nullopt},
                                    {IPC_SYSTEM_MGR__GET_TEMP, std::nullopt},
                                    {IPC_SYSTEM_MGR__GET_FAN_STATES, std::nullopt},
                                    {IPC_SYSTEM_MGR__GET_PS_STATES, std::nullopt},
                                    {IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO, std::nullopt},
                                    {IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO, std::nullopt},
                                    {IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA, 1U},
                                    {IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER, 1U},
                                    {IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA, 0U}};
  EXPECT_EQ(daemon->asked(), expected);
  EXPECT_EQ(view.stats().rounds, 1U);
  EXPECT_EQ(view.stats().requests, expected.size());
  // Everything but the factory answer and the two module lists went unanswered.
  EXPECT_EQ(view.stats().failed_requests, expected.size() - 3);
  const auto model = view.snapshot();
  EXPECT_EQ(model.family, SYSTEM_MGR_FAMILY_LT);
  EXPECT_EQ(model.sfp.size(), 2U);
  EXPECT_TRUE(model.temperatures_read.failed);
  EXPECT_TRUE(model.sfp.at({PortGroup::Pon, 1}).diagnostics_read.failed);
}

TEST_F(BoardViewTest, AnFcBoardIsAskedForTheCratesModulesAndNoPonPort) {
  daemon->answer(IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, factory_of(SYSTEM_MGR_FAMILY_FC));
  BoardView view(daemon, nullptr, log);
  view.poll_once();
  std::vector<std::uint16_t> ids;
  for (const auto& [id, port] : daemon->asked()) {
    ids.push_back(id);
  }
  const std::vector<std::uint16_t> expected{IPC_SYSTEM_MGR__GET_DEVICE_FACTORY,
                                            IPC_SYSTEM_MGR__GET_CRATE_FACTORY,
                                            IPC_SYSTEM_MGR__GET_FPGA_VERSION,
                                            IPC_SYSTEM_MGR__GET_CPLD_VERSION,
                                            IPC_SYSTEM_MGR__GET_RAM_DATA,
                                            IPC_SYSTEM_MGR__GET_HDD_DATA,
                                            IPC_SYSTEM_MGR__GET_TEMP,
                                            IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE,
                                            IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY,
                                            IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE,
                                            IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO};
  EXPECT_EQ(ids, expected);
}

TEST_F(BoardViewTest, ASilentDaemonIsAskedOnceARoundAndEveryReadingIsMarkedFailed) {
  daemon->answer(IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, factory_of(SYSTEM_MGR_FAMILY_LT));
  daemon->answer(IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO, bytes_of(module_at(1)));
  BoardView view(daemon, nullptr, log);
  view.poll_once();
  const auto before = daemon->asked().size();
  ASSERT_FALSE(view.snapshot().factory_read.failed);

  daemon->go_silent();
  view.poll_once();
  EXPECT_EQ(daemon->asked().size(), before + 1);
  const auto model = view.snapshot();
  for (const ReadState* state :
       {&model.factory_read, &model.fpga_read, &model.cpld_read, &model.ram_read, &model.disk_read,
        &model.temperatures_read, &model.fans_read, &model.supplies_read, &model.sfp_read[0], &model.sfp_read[1],
        &model.sfp.at({PortGroup::Pon, 1}).diagnostics_read, &model.sfp.at({PortGroup::Pon, 1}).rx_read}) {
    EXPECT_TRUE(state->failed);
    EXPECT_EQ(state->error, "no answer in time");
  }
  EXPECT_EQ(view.stats().rounds, 2U);
}

TEST_F(BoardViewTest, WhenTheDaemonStopsAnsweringTheLastValuesStayAndAreMarkedFailed) {
  System_mgr__temperature sensor{};
  sensor.id = 0;
  sensor.temperature = 44;
  daemon->answer(IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, factory_of(SYSTEM_MGR_FAMILY_LT));
  daemon->answer(IPC_SYSTEM_MGR__GET_TEMP, bytes_of(sensor));
  daemon->answer(IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO, bytes_of(module_at(1)));
  BoardView view(daemon, nullptr, log);
  view.poll_once();
  ASSERT_FALSE(view.snapshot().temperatures_read.failed);

  daemon->answer(IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, {});  // an error-free but empty answer: a bad payload
  view.poll_once();
  const auto model = view.snapshot();
  EXPECT_TRUE(model.factory_read.failed);
  EXPECT_FALSE(model.temperatures_read.failed);  // asked and answered again: the family is still known
  EXPECT_EQ(model.temperatures.at(0).celsius, 44);
}

TEST_F(BoardViewTest, EventsAreFollowedFromStartUntilStop) {
  daemon->answer(IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, factory_of(SYSTEM_MGR_FAMILY_LT));
  BoardViewOptions options;
  options.period = std::chrono::hours(1);  // only the first round and the events ask anything
  BoardView view(daemon, nullptr, log, options);
  std::mutex mutex;
  std::vector<bool> transitions;
  view.on_transition([&](const AlarmTransition& transition) {
    std::lock_guard lock(mutex);
    transitions.push_back(transition.raised);
  });
  ASSERT_TRUE(view.start().has_value());
  EXPECT_EQ(daemon->subscriptions(), 5U);
  ASSERT_TRUE(xpon::test::wait_until([&] { return view.stats().rounds == 1; }, 5000ms));

  // Raised five times, then back to normal twice: one transition each way.
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(daemon->publish(alarm_event(SYSTEM_MGR_ALARM_RAISED)));
  }
  EXPECT_EQ(view.snapshot().alarms.size(), 1U);
  ASSERT_TRUE(daemon->publish(alarm_event(SYSTEM_MGR_ALARM_BACK_TO_NORMAL)));
  ASSERT_TRUE(daemon->publish(alarm_event(SYSTEM_MGR_ALARM_BACK_TO_NORMAL)));
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(transitions, (std::vector<bool>{true, false}));
  }

  // A module plugged in port 6 is read at once, not at the next round an hour away.
  ipc::Event inserted;
  inserted.group = IPC_SYSTEM_MGR;
  inserted.id = IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_INSERTED;
  inserted.payload = bytes_of(module_at(6));
  ASSERT_TRUE(daemon->publish(inserted));
  const Asked eddi{IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA, 6U};
  const Asked rx{IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER, 6U};
  EXPECT_TRUE(xpon::test::wait_until(
      [&] {
        const auto asked = daemon->asked();
        return std::find(asked.begin(), asked.end(), eddi) != asked.end() &&
               std::find(asked.begin(), asked.end(), rx) != asked.end();
      },
      5000ms));
  EXPECT_TRUE(view.snapshot().sfp.contains({PortGroup::Pon, 6}));

  // A malformed event is counted, not taken.
  inserted.payload.resize(3);
  ASSERT_TRUE(daemon->publish(inserted));
  EXPECT_EQ(view.stats().malformed_events, 1U);
  EXPECT_EQ(view.stats().events, 8U);

  const auto before = std::chrono::steady_clock::now();
  view.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
  EXPECT_EQ(daemon->subscriptions(), 0U);
}

}  // namespace
}  // namespace xpon::board_view
