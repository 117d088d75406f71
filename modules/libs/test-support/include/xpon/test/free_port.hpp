#pragma once

// A TCP port of the loopback for tests and benchmarks that link real processes over TCP.

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

namespace xpon::test {

/// A TCP port of 127.0.0.1 that nothing listens on now (the kernel's choice of a free one).
inline int free_tcp_port() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  const bool found = fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                     ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
  if (fd >= 0) {
    ::close(fd);
  }
  if (!found) {
    throw std::runtime_error("no free TCP port on the loopback");
  }
  return ntohs(address.sin_port);
}

/// "tcp://127.0.0.1:<port>".
inline std::string loopback_tcp(int port) {
  return "tcp://127.0.0.1:" + std::to_string(port);
}

}  // namespace xpon::test
