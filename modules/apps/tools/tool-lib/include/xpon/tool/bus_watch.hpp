#pragma once

// The raw bus watcher of the tools: subscribes to the event bus's subscriber socket and hands
// over each event as it arrives, and each message that is not a well-formed event too, so
// that a faulty publisher can be found.

#include "xpon/ipc/ipc.hpp"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace xpon::tool {

/// What a watch subscribes to, what it accepts as an event and when it stops.
struct WatchOptions {
  std::vector<ipc::Key> keys;  ///< events to watch (id kAnyId: a whole group); none: every event
  std::int64_t max_message_size = std::int64_t{1024} * 1024;  ///< ZeroMQ drops a larger message unseen
  bool strict = false;                   ///< a bad topic frame or a payload above the wire limit is malformed too
  std::uint64_t count = 0;               ///< stop after this many events (0: never)
  std::chrono::milliseconds timeout{0};  ///< give up after this long (0: never)
};

/// How a watch ended.
enum class WatchEnd : std::uint8_t {
  Counted,   ///< the wanted number of events came
  Stopped,   ///< SIGINT or SIGTERM arrived
  TimedOut,  ///< the time limit passed first
};

/// How a watch ended and how many events it handed over.
struct WatchResult {
  WatchEnd end = WatchEnd::Stopped;
  std::uint64_t seen = 0;
};

/// Called with each event received.
using EventHandler = std::function<void(const ipc::Event&)>;

/// Called with each message that is not a well-formed event: "3 frames, <decode error>" or "2 frames".
using MalformedHandler = std::function<void(const std::string& what)>;

/// Watches the bus until the count, the time limit or a stop signal (which the caller has
/// blocked, see stop_signals); throws std::runtime_error when the signals cannot be read.
WatchResult watch_bus(const WatchOptions& options, const EventHandler& on_event, const MalformedHandler& on_malformed);

}  // namespace xpon::tool
