#pragma once

#include <chrono>
#include <thread>

namespace xpon::test {

/// Checks `predicate` every `step` until it holds; false when it still does not after `timeout`.
template <typename Predicate>
bool wait_until(Predicate&& predicate, std::chrono::milliseconds timeout = std::chrono::seconds(5),
                std::chrono::milliseconds step = std::chrono::milliseconds(5)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    if (predicate()) {
      return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(step);
  }
}

}  // namespace xpon::test
