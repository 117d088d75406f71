#include "xpon/test/notify_listener.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace xpon::test {

NotifyListener::NotifyListener(std::string path) : path_(std::move(path)) {
  sockaddr_un address{};
  if (path_.size() >= sizeof(address.sun_path)) {
    throw std::runtime_error("notification socket path too long: " + path_);
  }
  fd_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!fd_) {
    throw std::runtime_error(std::string("socket: ") + std::strerror(errno));
  }
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
  ::unlink(path_.c_str());
  if (::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    const std::string reason = std::strerror(errno);
    throw std::runtime_error("bind " + path_ + ": " + reason);
  }
}

NotifyListener::~NotifyListener() {
  fd_.reset();
  ::unlink(path_.c_str());
}

void NotifyListener::receive_pending(std::chrono::milliseconds timeout) {
  pollfd entry{fd_.get(), POLLIN, 0};
  if (::poll(&entry, 1, static_cast<int>(timeout.count())) <= 0) {
    return;
  }
  std::array<char, 4096> buffer{};
  while (true) {
    const ssize_t received = ::recv(fd_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (received < 0) {
      return;
    }
    std::lock_guard lock(mutex_);
    messages_.emplace_back(buffer.data(), static_cast<std::size_t>(received));
  }
}

std::vector<std::string> NotifyListener::wait_for(std::size_t count, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    {
      std::lock_guard lock(mutex_);
      if (messages_.size() >= count) {
        return messages_;
      }
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      return messages();
    }
    receive_pending(left);
  }
}

bool NotifyListener::wait_for_text(const std::string& text, std::chrono::milliseconds timeout, std::size_t skip) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    {
      std::lock_guard lock(mutex_);
      for (std::size_t index = skip; index < messages_.size(); ++index) {
        if (messages_[index] == text) {
          return true;
        }
      }
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      return false;
    }
    receive_pending(left);
  }
}

std::vector<std::string> NotifyListener::messages() {
  receive_pending(std::chrono::milliseconds(0));
  std::lock_guard lock(mutex_);
  return messages_;
}

}  // namespace xpon::test
