#pragma once

// The board view shared by the operator bridges: subscribes to the system manager's alarm records
// and SFP insertion/removal events, asks the daemon on a period (and at once for a module just
// plugged) for what the events do not carry, reads the limits from the configuration database,
// and keeps the last-value model. Requests run on the view's own thread; readers take a copy of
// the model under a short lock, so a slow or absent daemon never holds up a bridge's answers.

#include "xpon/board_view/model.hpp"
#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/ipc/ipc.hpp"
#include "xpon/logger/ilogger.hpp"
#include "xpon/system_mgr/api.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace xpon::board_view {

/// What a view asks, how often, and how long it waits.
struct BoardViewOptions {
  /// Time between two rounds of requests.
  std::chrono::milliseconds period{std::chrono::seconds(10)};
  /// How long one request may wait for its answer.
  std::chrono::milliseconds request_timeout{std::chrono::seconds(5)};
  /// The daemon's endpoint.
  ipc::Address daemon = system_mgr::SYSTEM_MGR_IPC_ADDRESS;
};

/// Counters of what the view has received and asked.
struct BoardViewStats {
  std::uint64_t rounds = 0;            ///< complete rounds of requests
  std::uint64_t requests = 0;          ///< requests sent
  std::uint64_t failed_requests = 0;   ///< of which with no answer, an error answer or a bad payload
  std::uint64_t events = 0;            ///< events of the model received
  std::uint64_t malformed_events = 0;  ///< events with a payload that is not their record
};

/// Called on the view's event thread with each alarm transition, in order.
using TransitionHandler = std::function<void(const AlarmTransition&)>;

class BoardView {
 public:
  /// The view asks through `ipc` (its own endpoint) and reads limits through `cfgdb` (may be null:
  /// no limits). Nothing runs before start().
  BoardView(std::shared_ptr<ipc::IIpc> ipc, std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb,
            std::shared_ptr<logger::ILogger> logger, BoardViewOptions options = {});
  ~BoardView();
  BoardView(const BoardView&) = delete;
  BoardView& operator=(const BoardView&) = delete;
  BoardView(BoardView&&) = delete;
  BoardView& operator=(BoardView&&) = delete;

  /// Sets the handler of alarm transitions; call before start().
  void on_transition(TransitionHandler handler);

  /// Subscribes to the daemon's events and starts the polling thread, whose first round runs at once.
  core::Result<void> start();

  /// Stops the polling thread and the subscriptions; safe to call twice.
  void stop();

  /// One whole round of requests on the caller's thread (tests; start() is not needed).
  void poll_once();

  /// A copy of the model as it stands.
  [[nodiscard]] BoardModel snapshot() const;

  [[nodiscard]] BoardViewStats stats() const;

 private:
  core::Result<void> handle_event(const ipc::Event& event);
  // Asks the daemon and takes the answer into the model; false when no answer came.
  bool ask(std::uint16_t id, std::optional<std::uint32_t> port = std::nullopt);
  void record(std::uint16_t id, std::optional<std::uint32_t> port, const core::Result<ipc::Response>& answer);
  [[nodiscard]] bool stopping() const;
  void read_limits();
  void read_modules(const std::vector<SfpKey>& modules);
  void run();

  std::shared_ptr<ipc::IIpc> ipc_;
  std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb_;
  std::shared_ptr<logger::ILogger> logger_;
  BoardViewOptions options_;
  TransitionHandler on_transition_;

  mutable std::mutex mutex_;  // guards model_, stats_, plugged_, stopping_
  BoardModel model_;
  BoardViewStats stats_;
  std::deque<SfpKey> plugged_;  // modules inserted since the last round, read at once by the thread
  bool stopping_ = false;
  std::condition_variable wake_;
  std::thread thread_;
  bool subscribed_ = false;
};

}  // namespace xpon::board_view
