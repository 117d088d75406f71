#pragma once

#include "xpon/core/file_descriptor.hpp"

#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace xpon::test {

/// Stands in for systemd's notification socket: binds a datagram socket at a path that
/// a child process gets as NOTIFY_SOCKET, and collects every message sent to it.
class NotifyListener {
 public:
  /// Binds the socket at `path` (an existing file there is replaced); throws std::runtime_error on failure.
  explicit NotifyListener(std::string path);
  ~NotifyListener();
  NotifyListener(const NotifyListener&) = delete;
  NotifyListener& operator=(const NotifyListener&) = delete;

  /// The socket's path, the value for NOTIFY_SOCKET.
  [[nodiscard]] const std::string& path() const { return path_; }

  /// Waits until `count` messages in all have arrived, or the time-out passes; returns them all.
  std::vector<std::string> wait_for(std::size_t count, std::chrono::milliseconds timeout);

  /// Waits until a message equal to `text` has arrived after the first `skip` ones; true if it did.
  bool wait_for_text(const std::string& text, std::chrono::milliseconds timeout, std::size_t skip = 0);

  /// Every message received so far, in order.
  std::vector<std::string> messages();

 private:
  void receive_pending(std::chrono::milliseconds timeout);

  std::string path_;
  core::FileDescriptor fd_;
  std::mutex mutex_;
  std::vector<std::string> messages_;
};

}  // namespace xpon::test
