// The event bus killed and started again under load: an LT board publishes its two power-supply
// alarms every second, a client keeps asking the daemon for readings, and an SFP module is pulled
// and plugged back while the bus is away. Requests never go through the bus and are answered
// throughout; every event published while the bus was down waits in the daemon's endpoint and
// reaches the subscriber once the bus is back, none lost and none twice.

#include "reliability_test.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace xpon::system_mgr::test {
namespace {

using namespace std::chrono_literals;

// How long the bus stays away: several power-supply polls (1 s period) and two SFP polls.
constexpr auto kBusDown = 3500ms;

// A silence this long means that every event published so far has arrived: the bus forwards
// within milliseconds, and the power supplies are polled once a second.
constexpr auto kQuiet = 300ms;

// What the subscriber has received, by kind.
struct Tally {
  std::size_t supply_alarms[2] = {0, 0};  // by supply, instance 1 and 2
  std::size_t f_port_removed = 0;
  std::size_t f_port_inserted = 0;
  std::vector<std::uint16_t> sfp_order;  // ids of the SFP events, in arrival order

  void count(const BusEvent& event) {
    const std::uint16_t group = u16_at(event.header, 12);
    const std::uint16_t id = u16_at(event.header, 14);
    if (group == IPC_EVENT_ALARM_GROUP && id == IPC_EVENT_ALARM_ID && event.payload.size() == sizeof(Alarm) &&
        u32_at(event.payload, offsetof(Alarm, alarm_id)) == SYSTEM_MGR_ALARM_POWER_SUPPLY) {
      const std::uint32_t instance = u32_at(event.payload, offsetof(Alarm, instance));
      if (instance == 1 || instance == 2) {
        ++supply_alarms[instance - 1];
      }
    } else if (group == IPC_SYSTEM_MGR && id == IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED) {
      ++f_port_removed;
      sfp_order.push_back(id);
    } else if (group == IPC_SYSTEM_MGR && id == IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_INSERTED) {
      ++f_port_inserted;
      sfp_order.push_back(id);
    }
  }
};

// The supplies' polls the daemon has logged: it logs a supply only after its alarm was handed to
// the endpoint.
struct Published {
  std::size_t supply_alarms[2] = {0, 0};
};

class BusRestart : public ReliabilityTest {
 protected:
  // Receives until nothing has come for kQuiet; false when the time-out came first.
  bool drain_until_quiet(BusSubscriber& subscriber, Tally& tally, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
      auto event = subscriber.next_event(kQuiet);
      if (!event) {
        return true;
      }
      tally.count(*event);
    }
    return false;
  }

  [[nodiscard]] Published published() const {
    const std::string log = rig_.daemon_log();
    return {{occurrences(log, "PS[0] is_present: "), occurrences(log, "PS[1] is_present: ")}};
  }

  // The daemon's published count and the subscriber's tally at one quiet moment, so that nothing
  // is on its way between them: quiet before the log is read and quiet after.
  Published quiet_moment(BusSubscriber& subscriber, Tally& tally) {
    while (true) {
      EXPECT_TRUE(drain_until_quiet(subscriber, tally, 10s));
      const Published now = published();
      const Tally before = tally;
      if (drain_until_quiet(subscriber, tally, 10s) && tally.supply_alarms[0] == before.supply_alarms[0] &&
          tally.supply_alarms[1] == before.supply_alarms[1]) {
        return now;
      }
    }
  }
};

TEST_F(BusRestart, EventsPublishedWhileTheBusIsDownArriveOnceItIsBackAndRequestsAreAnsweredThroughout) {
  XPON_START_RELIABILITY(kLtBoard);
  BusSubscriber subscriber(ipc_directory());
  subscriber.subscribe(IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED);
  subscriber.subscribe(IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_INSERTED);
  ASSERT_TRUE(subscriber.wait_subscribed(kStepTimeout));
  // The power supplies are seen on the bus before anything is measured.
  ASSERT_TRUE(subscriber.next_alarm_of(SYSTEM_MGR_ALARM_POWER_SUPPLY, kStepTimeout).has_value()) << rig_.daemon_log();

  // A client asks for readings all along; none of it goes through the bus.
  std::atomic<bool> asking = true;
  std::atomic<std::size_t> answered = 0;
  std::atomic<std::size_t> unanswered = 0;
  std::thread client([&] {
    while (asking) {
      for (const std::uint16_t id : {IPC_SYSTEM_MGR__GET_PS_STATES, IPC_SYSTEM_MGR__GET_TEMP}) {
        const auto answer = ask(id, {}, 2s);
        (answer && answer->result == 1 ? answered : unanswered)++;
      }
      std::this_thread::sleep_for(20ms);
    }
  });

  Tally tally;
  const Published before = quiet_moment(subscriber, tally);
  const Tally received_before = tally;
  // Killed: it cannot hand over what it holds, so it is killed in a quiet moment, with nothing
  // in flight.
  ASSERT_TRUE(rig_.bus().stop(SIGKILL, 5s).signaled);
  const auto answered_before_down = answered.load();

  ASSERT_NO_FATAL_FAILURE(patch(R"({"front_ports": {"0": {"present": false}}})"));
  std::this_thread::sleep_for(kBusDown / 2);
  ASSERT_NO_FATAL_FAILURE(patch(R"({"front_ports": {"0": {"present": true}}})"));
  std::this_thread::sleep_for(kBusDown / 2);
  const Published while_down = published();
  const auto answered_while_down = answered.load() - answered_before_down;
  EXPECT_GE(while_down.supply_alarms[1], before.supply_alarms[1] + 2) << "too few polls while the bus was down";

  ASSERT_EQ(rig_.start_bus(), "");
  // Both SFP events, in the order they happened, and every supply alarm published since the kill.
  ASSERT_TRUE(xpon::test::wait_until(
      [&] {
        if (auto event = subscriber.next_event(100ms)) {
          tally.count(*event);
        }
        return tally.f_port_inserted > 0;
      },
      kStepTimeout))
      << rig_.daemon_log() << rig_.helper_logs();
  const Published after = quiet_moment(subscriber, tally);
  asking = false;
  client.join();

  for (std::size_t supply = 0; supply < 2; ++supply) {
    EXPECT_EQ(tally.supply_alarms[supply] - received_before.supply_alarms[supply],
              after.supply_alarms[supply] - before.supply_alarms[supply])
        << "supply " << supply + 1 << ": received and published differ";
  }
  EXPECT_EQ(tally.f_port_removed - received_before.f_port_removed, 1U);
  EXPECT_EQ(tally.f_port_inserted - received_before.f_port_inserted, 1U);
  const std::vector<std::uint16_t> sfp_since(
      tally.sfp_order.begin() + static_cast<std::ptrdiff_t>(received_before.sfp_order.size()), tally.sfp_order.end());
  EXPECT_EQ(sfp_since, (std::vector<std::uint16_t>{IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED,
                                                   IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_INSERTED}));
  EXPECT_EQ(unanswered.load(), 0U);
  EXPECT_GE(answered_while_down, 20U) << "requests stalled while the bus was down";
  EXPECT_TRUE(rig_.daemon().running());
}

}  // namespace
}  // namespace xpon::system_mgr::test
