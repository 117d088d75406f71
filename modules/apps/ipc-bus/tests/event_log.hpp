#pragma once

// Records the events an endpoint delivers, keeping apart the probes sent while waiting for a
// subscription to travel to the bus. Shared by the bus tests and the crate transport tests.

#include "xpon/ipc/ipc.hpp"

#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

namespace xpon::ipc {

/// The payload of the probes sent while waiting for a subscription to reach the bus. Late
/// copies of a probe may still arrive after the wait, so logs keep probes apart from the events
/// a test sends itself.
inline const Payload kProbePayload{0x70, 0x72, 0x6F, 0x62, 0x65};

/// Records the events an endpoint delivered to one subscription; probes are only counted.
class EventLog {
 public:
  EventHandler handler() {
    return [this](const Event& event) -> Result<void> {
      std::lock_guard lock(mutex_);
      if (event.payload == kProbePayload) {
        ++probes_;
      } else {
        events_.push_back(event);
      }
      return core::success();
    };
  }
  std::size_t probes() const {
    std::lock_guard lock(mutex_);
    return probes_;
  }
  std::vector<Event> events() const {
    std::lock_guard lock(mutex_);
    return events_;
  }
  std::size_t count(Key key) const {
    std::lock_guard lock(mutex_);
    std::size_t n = 0;
    for (const auto& event : events_) {
      n += event.group == key.group && event.id == key.id ? 1 : 0;
    }
    return n;
  }
  void clear() {
    std::lock_guard lock(mutex_);
    events_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Event> events_;
  std::size_t probes_ = 0;
};

inline Event make_event(Key key, Payload payload = {}) {
  Event event;
  event.group = key.group;
  event.id = key.id;
  event.payload = std::move(payload);
  return event;
}

}  // namespace xpon::ipc
