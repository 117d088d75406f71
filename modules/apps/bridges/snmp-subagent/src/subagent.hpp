#pragma once

// The net-snmp side of the subagent: registers the served subtrees with the master agent over
// AgentX, answers GET and GETNEXT from rows rebuilt from the board view's snapshots, and sends the
// notifications. Every net-snmp call runs on the thread that calls run(); other threads only
// hand over alarm transitions through post() and ask to stop.

#include "mapping.hpp"

#include "xpon/board_view/model.hpp"
#include "xpon/logger/ilogger.hpp"

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

namespace xpon::snmp_subagent {

struct SubagentOptions {
  /// The master agent's AgentX socket; empty: net-snmp's default.
  std::string agentx_socket;
  /// Where XPON-BOARD-MIB is served.
  Oid board_mib_arc = oids::kDefaultBoardMibArc;
  /// How often the rows are rebuilt from the view (and queued notifications sent).
  std::chrono::milliseconds refresh{std::chrono::milliseconds(500)};
  /// The view's poll period, served as entPhySensorValueUpdateRate.
  std::chrono::milliseconds update_rate{std::chrono::seconds(10)};
  /// Seconds between AgentX pings of the master; a lost master is reconnected at this pace.
  unsigned ping_interval = 5;
  /// The name net-snmp knows this agent by (its configuration file name, its log lines).
  std::string name = "xpon-snmp-subagent";
};

class Subagent {
 public:
  using Snapshot = std::function<board_view::BoardModel()>;

  Subagent(Snapshot snapshot, std::shared_ptr<logger::ILogger> logger, SubagentOptions options);
  ~Subagent();
  Subagent(const Subagent&) = delete;
  Subagent& operator=(const Subagent&) = delete;
  Subagent(Subagent&&) = delete;
  Subagent& operator=(Subagent&&) = delete;

  /// Queues an alarm transition for its notification; any thread.
  void post(const board_view::AlarmTransition& transition);

  /// Runs net-snmp on the calling thread until stop(); false when the agent could not start.
  bool run();

  /// Makes run() return within one refresh; any thread, also a signal handler.
  void stop() noexcept { stopping_.store(true); }

  /// One refresh of the rows and the queued notifications (called by run()'s timer).
  void refresh();

  /// net-snmp's connection news (callbacks registered by run()).
  void connected(bool now_connected);

  /// The subtrees served, for the request handler.
  struct Subtree {
    Oid root;
    Rows rows;
  };

 private:
  void send_alarm(const board_view::AlarmTransition& transition, std::uint32_t active_index);
  void send_config_change();
  [[nodiscard]] std::uint32_t uptime_now() const;

  Snapshot snapshot_;
  std::shared_ptr<logger::ILogger> logger_;
  SubagentOptions options_;
  std::atomic<bool> stopping_{false};

  std::mutex mutex_;  // guards pending_
  std::deque<board_view::AlarmTransition> pending_;

  // The rest is touched by the net-snmp thread only.
  Subtree entities_;
  Subtree sensors_;
  Subtree entity_general_;
  Subtree alarms_;
  Subtree alarm_last_changed_;
  Subtree board_mib_;
  board_view::BoardModel model_;
  bool built_ = false;  // the rows have been built from model_ at least once
  std::set<SfpKey> cages_;
  AlarmIndexes alarm_indexes_;
  std::uint32_t entities_changed_ = 0;
  std::uint32_t alarms_changed_ = 0;
  bool baseline_ = false;
  std::optional<bool> connected_;
};

}  // namespace xpon::snmp_subagent
