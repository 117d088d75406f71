// The endpoint's outgoing links by destination, bounded in number and in idle time.
#pragma once

#include "xpon/ipc/ipc.hpp"

#include <chrono>
#include <cstddef>
#include <list>
#include <memory>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

namespace xpon::ipc::detail {

/// Outlets (any shared type) by destination, most recently used first. The cache holds one
/// reference; a sender holds another while it sends, so an outlet dropped from the cache in the
/// meantime stays whole until that send is done and closes when the last holder lets go.
/// Not thread-safe: the endpoint guards it with its outlets mutex.
template <typename Outlet>
class OutletCache {
 public:
  using Clock = std::chrono::steady_clock;

  /// The outlet of a destination, marked as used now; nullptr when there is none.
  std::shared_ptr<Outlet> find(Address destination, Clock::time_point now) {
    const auto found = index_.find(destination);
    if (found == index_.end()) {
      return nullptr;
    }
    entries_.splice(entries_.begin(), entries_, found->second);
    found->second->last_used = now;
    return found->second->outlet;
  }

  /// True when the destination has an outlet (without marking it used).
  [[nodiscard]] bool contains(Address destination) const { return index_.contains(destination); }

  /// Adds the outlet of a destination that has none, as used now.
  void insert(Address destination, std::shared_ptr<Outlet> outlet, Clock::time_point now) {
    entries_.push_front(Entry{destination, std::move(outlet), now});
    index_[destination] = entries_.begin();
  }

  /// Takes out the least recently used outlet; nullptr when the cache is empty.
  std::shared_ptr<Outlet> take_least_recent() {
    if (entries_.empty()) {
      return nullptr;
    }
    auto outlet = std::move(entries_.back().outlet);
    index_.erase(entries_.back().destination);
    entries_.pop_back();
    return outlet;
  }

  /// Takes out every outlet last used before `cutoff`, least recently used first.
  std::vector<std::shared_ptr<Outlet>> take_unused_since(Clock::time_point cutoff) {
    std::vector<std::shared_ptr<Outlet>> taken;
    while (!entries_.empty() && entries_.back().last_used < cutoff) {
      taken.push_back(take_least_recent());
    }
    return taken;
  }

  /// When the least recently used outlet was last used; nullopt when the cache is empty.
  [[nodiscard]] std::optional<Clock::time_point> oldest_use() const {
    if (entries_.empty()) {
      return std::nullopt;
    }
    return entries_.back().last_used;
  }

  [[nodiscard]] std::size_t size() const { return entries_.size(); }

  /// Takes out every outlet.
  std::vector<std::shared_ptr<Outlet>> take_all() {
    std::vector<std::shared_ptr<Outlet>> taken;
    while (auto outlet = take_least_recent()) {
      taken.push_back(std::move(outlet));
    }
    return taken;
  }

 private:
  struct Entry {
    Address destination;
    std::shared_ptr<Outlet> outlet;
    Clock::time_point last_used;
  };
  std::list<Entry> entries_;  // most recently used first
  std::unordered_map<Address, typename std::list<Entry>::iterator> index_;
};

}  // namespace xpon::ipc::detail
