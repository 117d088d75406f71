#pragma once

// What the system tests share: the rig started the same way, a subscriber on the bus, and the
// little-endian reads of what the daemon sends.

#include "daemon_rig.hpp"
#include "xpon/ipc/zmq_ipc.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/test/ci_skip.hpp"
#include "xpon/test/temp_dir.hpp"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>
#include <zmq.hpp>
#include <zmq_addon.hpp>

namespace xpon::system_mgr::test {

using namespace std::chrono_literals;
using xpon::test::ProgramRun;

inline constexpr auto kStepTimeout = 10s;

// Device names as they are written into factory images of each family.
inline constexpr const char* kLtProduct = "Korvan-16GP";
inline constexpr const char* kLcProduct = "QD7R-LC-8";
inline constexpr const char* kFcProduct = "QD7R-FC";

// The daemon's own IPC address: the source word of every event it publishes.
inline constexpr std::uint32_t kDaemonAddress = 0x0019FFFE;

// The load-average threshold of a fresh configuration database: a load of 4.00.
inline constexpr std::uint32_t kDefaultLoadThreshold = 400;

// Starts the board around the daemon; ends the test here when FUSE is unusable or a step failed.
#define XPON_START_BOARD(scenario, product)                  \
  do {                                                       \
    ASSERT_NO_FATAL_FAILURE(start_board(scenario, product)); \
    if (IsSkipped()) {                                       \
      return;                                                \
    }                                                        \
  } while (false)

inline std::uint32_t u32_at(const std::vector<std::uint8_t>& bytes, std::size_t offset) {
  return static_cast<std::uint32_t>(bytes[offset]) | (static_cast<std::uint32_t>(bytes[offset + 1]) << 8U) |
         (static_cast<std::uint32_t>(bytes[offset + 2]) << 16U) |
         (static_cast<std::uint32_t>(bytes[offset + 3]) << 24U);
}

/// How many times `part` occurs in `text`, without overlaps (a log line in the daemon's log, say).
inline std::size_t occurrences(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
    ++count;
  }
  return count;
}

inline std::uint16_t u16_at(const std::vector<std::uint8_t>& bytes, std::size_t offset) {
  return static_cast<std::uint16_t>(bytes[offset] | (bytes[offset + 1] << 8U));
}

inline std::string topic(std::uint16_t group, std::uint16_t id) {
  return {static_cast<char>(group >> 8U), static_cast<char>(group & 0xFFU), static_cast<char>(id >> 8U),
          static_cast<char>(id & 0xFFU)};
}

/// Sends one request with an empty payload to the daemon from a client endpoint of its own in
/// the rig's sandbox, as any other daemon of the board would, and returns the answer.
inline core::Result<ipc::Response> ask_daemon(const DaemonRig& rig, std::uint16_t id, std::string_view client_name) {
  const xpon::test::ScopedEnv root("XPON_ROOT", rig.root());
  auto client = ipc::make_zmq_endpoint(ipc::make_address(0x0042), client_name);
  ipc::Request request;
  request.group = IPC_SYSTEM_MGR;
  request.id = id;
  return client->request(kDaemonAddress, request, kStepTimeout);
}

/// One event as it leaves the bus: topic, 24-byte header, payload.
struct BusEvent {
  std::vector<std::uint8_t> header;
  std::vector<std::uint8_t> payload;
};

/// A subscriber on the bus, connected the way any board process connects, with its own
/// probe to learn when the bus has taken its subscriptions.
class BusSubscriber {
 public:
  explicit BusSubscriber(const std::string& ipc_directory)
      : subscriber_(context_, zmq::socket_type::sub), prober_(context_, zmq::socket_type::push) {
    subscriber_.set(zmq::sockopt::linger, 0);
    prober_.set(zmq::sockopt::linger, 0);
    subscriber_.set(zmq::sockopt::subscribe, topic(IPC_EVENT_ALARM_GROUP, IPC_EVENT_ALARM_ID));
    subscriber_.set(zmq::sockopt::subscribe, topic(kProbeGroup, kProbeId));
    subscriber_.connect("ipc://" + ipc_directory + "/bus.sub");
    prober_.connect("ipc://" + ipc_directory + "/bus.in");
  }

  /// Also receives the events with this key; call before wait_subscribed.
  void subscribe(std::uint16_t group, std::uint16_t id) { subscriber_.set(zmq::sockopt::subscribe, topic(group, id)); }

  /// Pushes probe events into the bus until one comes back: subscriptions reach the bus in
  /// the order they were made, so from then on it forwards the alarm events to us too.
  bool wait_subscribed(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
      std::array<std::uint8_t, 24> header{};
      header[0] = 1;  // version
      header[1] = 3;  // event
      header[12] = static_cast<std::uint8_t>(kProbeGroup & 0xFFU);
      header[13] = static_cast<std::uint8_t>(kProbeGroup >> 8U);
      header[14] = static_cast<std::uint8_t>(kProbeId & 0xFFU);
      header[15] = static_cast<std::uint8_t>(kProbeId >> 8U);
      const std::string probe_topic = topic(kProbeGroup, kProbeId);
      prober_.send(zmq::buffer(probe_topic), zmq::send_flags::sndmore);
      prober_.send(zmq::buffer(header), zmq::send_flags::sndmore);
      prober_.send(zmq::message_t(), zmq::send_flags::none);
      if (auto event = next(50ms, /*keep_probes=*/true)) {
        if (u16_at(event->header, 12) == kProbeGroup) {
          return true;
        }
      }
    }
    return false;
  }

  /// The next alarm event, or nothing after the time-out (probe echoes are passed over).
  std::optional<BusEvent> next_alarm(std::chrono::milliseconds timeout) { return next_event(timeout); }

  /// The next event of any subscribed key, or nothing after the time-out (probe echoes are
  /// passed over).
  std::optional<BusEvent> next_event(std::chrono::milliseconds timeout) {
    return next_matching(timeout, [](const BusEvent&) { return true; });
  }

  /// The next event with this key (subscribed with subscribe), or nothing after the time-out;
  /// other events are passed over.
  std::optional<BusEvent> next_event_with_key(std::uint16_t group, std::uint16_t id,
                                              std::chrono::milliseconds timeout) {
    return next_matching(timeout, [group, id](const BusEvent& event) {
      return u16_at(event.header, 12) == group && u16_at(event.header, 14) == id;
    });
  }

  /// The next alarm record of one kind (bytes 9-12 of the record), or nothing after the time-out;
  /// other events are passed over.
  std::optional<BusEvent> next_alarm_of(std::uint32_t alarm_id, std::chrono::milliseconds timeout) {
    return next_matching(timeout, [alarm_id](const BusEvent& event) {
      return event.payload.size() == sizeof(Alarm) && u32_at(event.payload, offsetof(Alarm, alarm_id)) == alarm_id;
    });
  }

 private:
  static constexpr std::uint16_t kProbeGroup = 0x7FF0;
  static constexpr std::uint16_t kProbeId = 0x0001;

  template <typename Wanted>
  std::optional<BusEvent> next_matching(std::chrono::milliseconds timeout, Wanted wanted) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        return std::nullopt;
      }
      if (auto event = next(left, /*keep_probes=*/false); event && wanted(*event)) {
        return event;
      }
    }
  }

  std::optional<BusEvent> next(std::chrono::milliseconds timeout, bool keep_probes) {
    std::array<zmq::pollitem_t, 1> items{{{subscriber_.handle(), 0, ZMQ_POLLIN, 0}}};
    if (zmq::poll(items.data(), items.size(), timeout) <= 0) {
      return std::nullopt;
    }
    std::vector<zmq::message_t> frames;
    if (!zmq::recv_multipart(subscriber_, std::back_inserter(frames), zmq::recv_flags::dontwait) ||
        frames.size() != 3) {
      return std::nullopt;
    }
    BusEvent event;
    event.header.assign(frames[1].data<std::uint8_t>(), frames[1].data<std::uint8_t>() + frames[1].size());
    event.payload.assign(frames[2].data<std::uint8_t>(), frames[2].data<std::uint8_t>() + frames[2].size());
    const bool probe = frames[0].to_string() == topic(kProbeGroup, kProbeId);
    if (probe && !keep_probes) {
      return std::nullopt;
    }
    return event;
  }

  zmq::context_t context_;
  zmq::socket_t subscriber_;
  zmq::socket_t prober_;
};

class SystemMgrTest : public testing::Test {
 protected:
  /// Bus, emulator with the example scenario, factory image, the example stderr logging.
  void start_board(const std::string& scenario, const std::string& product) {
    ASSERT_EQ(rig_.start_bus(), "");
    std::string skip;
    const std::string failure = rig_.start_emulator(scenario, skip);
    XPON_SKIP_OR_FAIL_IN_CI(skip);
    ASSERT_EQ(failure, "");
    ASSERT_EQ(rig_.make_factory_image(product), "");
    rig_.install_example_log_config();
  }

  void start_daemon_and_wait_ready(const xpon::test::ChildLimits& limits = {}) {
    rig_.start_daemon(limits);
    ASSERT_TRUE(rig_.wait_for_notification(kReadyText, 1, kStepTimeout)) << "no READY; notifications:\n"
                                                                         << rig_.notifications_text() << "daemon log:\n"
                                                                         << rig_.daemon_log() << rig_.helper_logs();
  }

  /// Waits until the daemon's `cycle`-th start has settled, so that a stop signal is seen.
  void settle(std::size_t cycle) {
    ASSERT_TRUE(rig_.wait_until_settled(cycle, kStepTimeout)) << "the daemon did not settle; log:\n"
                                                              << rig_.daemon_log();
  }

  /// Starts the daemon without the emulator and expects it to fail with this one status text.
  void expect_start_up_failure(const std::string& status) {
    rig_.start_daemon();
    const auto end = rig_.daemon().wait(kStepTimeout);
    ASSERT_TRUE(end.has_value()) << "the daemon did not end; notifications:\n" << rig_.notifications_text();
    EXPECT_TRUE(end->exited_with(1)) << end->describe() << "\n" << rig_.daemon_log();
    EXPECT_EQ(rig_.notifications().messages(), (std::vector<std::string>{kStartupText, status})) << rig_.daemon_log();
  }

  /// Applies a JSON patch to the running emulator's model through its board-control file.
  void patch_emulator(const std::string& json) {
    std::ofstream control(rig_.path("/dev/board-control"));
    control << json;
    control.close();
    ASSERT_TRUE(control.good()) << "the emulator refused " << json << rig_.helper_logs();
  }

  /// A client endpoint in the rig's sandbox, as any other daemon of the board would have; the
  /// sandbox root stays set while the test runs (endpoints find their peers under it).
  std::shared_ptr<ipc::ZmqIpc> sandbox_endpoint(ipc::Address address, std::string_view name) {
    if (!sandbox_root_) {
      sandbox_root_.emplace("XPON_ROOT", rig_.root());
    }
    return ipc::make_zmq_endpoint(address, name);
  }

  DaemonRig rig_;
  std::optional<xpon::test::ScopedEnv> sandbox_root_;
};

}  // namespace xpon::system_mgr::test
