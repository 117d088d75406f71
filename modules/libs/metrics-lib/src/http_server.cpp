#include "xpon/metrics/http_server.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "xpon/core/file_descriptor.hpp"
#include "xpon/metrics/request_head.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace xpon::metrics {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view kPlainText = "text/plain; charset=utf-8";
// How long accept() is left alone after it ran out of descriptors or memory.
constexpr std::chrono::milliseconds kAcceptBackoff{100};
// How long, and for how many bytes, a client's unread request is still read and dropped after
// the answer, so that closing does not reset the connection before the client has read it.
constexpr std::chrono::milliseconds kMaxDrainTime{1000};
constexpr std::size_t kMaxDrainBytes = std::size_t{1024} * 1024;
// Accepts per round of the loop, so that a burst cannot starve the open connections.
constexpr int kMaxAcceptsPerRound = 64;
constexpr int kListenBacklog = 128;

std::string_view reason_phrase(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 201:
      return "Created";
    case 202:
      return "Accepted";
    case 301:
      return "Moved Permanently";
    case 302:
      return "Found";
    case 307:
      return "Temporary Redirect";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 408:
      return "Request Timeout";
    case 413:
      return "Content Too Large";
    case 429:
      return "Too Many Requests";
    case 431:
      return "Request Header Fields Too Large";
    case 500:
      return "Internal Server Error";
    case 501:
      return "Not Implemented";
    case 503:
      return "Service Unavailable";
    case 505:
      return "HTTP Version Not Supported";
    default:
      break;
  }
  if (status < 300) {
    return "Success";
  }
  if (status < 400) {
    return "Redirection";
  }
  return status < 500 ? "Client Error" : "Server Error";
}

// The whole answer: status line, the fixed header fields, and the body unless `head_only`.
std::string format_answer(int status, std::string_view content_type, std::string_view body, bool head_only,
                          bool allow = false) {
  std::string answer =
      fmt::format("HTTP/1.1 {} {}\r\nContent-Type: {}\r\nContent-Length: {}\r\n{}Connection: close\r\n\r\n", status,
                  reason_phrase(status), content_type, body.size(), allow ? "Allow: GET, HEAD\r\n" : "");
  if (!head_only) {
    answer += body;
  }
  return answer;
}

// The server's own answer for a refused request: the status and a line of text.
std::string refusal(int status, std::string_view detail = {}, bool allow = false) {
  std::string body = detail.empty() ? fmt::format("{}\n", reason_phrase(status))
                                    : fmt::format("{}: {}\n", reason_phrase(status), detail);
  return format_answer(status, kPlainText, body, false, allow);
}

bool valid_content_type(std::string_view content_type) {
  return std::none_of(content_type.begin(), content_type.end(),
                      [](char character) { return static_cast<unsigned char>(character) < 0x20 || character == 0x7f; });
}

// The handler's answer, checked: a status it may not give or a content type that would break
// the head becomes 500.
std::string handler_answer(const HttpHandler& handler, const RequestHead& head) {
  const bool head_only = head.method == "HEAD";
  HttpAnswer answer;
  try {
    answer = handler(head.method, head.path);
  } catch (...) {
    return refusal(500, "the handler failed");
  }
  if (answer.status < 200 || answer.status > 599 || answer.status == 204 || answer.status == 304) {
    return refusal(500, fmt::format("the handler gave status {}", answer.status));
  }
  if (!valid_content_type(answer.content_type)) {
    return refusal(500, "the handler gave a content type with a control character");
  }
  const std::string_view content_type = answer.content_type.empty() ? kPlainText : answer.content_type;
  return format_answer(answer.status, content_type, answer.body, head_only);
}

std::string error_text(int error) {
  return std::generic_category().message(error);
}

std::string format_endpoint(int family, std::string_view address, std::uint16_t port) {
  return family == AF_INET6 ? fmt::format("[{}]:{}", address, port) : fmt::format("{}:{}", address, port);
}

struct ListenAddress {
  sockaddr_storage storage{};
  socklen_t length = 0;
  int family = AF_UNSPEC;
};

// An IPv6 literal may come in brackets, as in a URL: "[::1]".
std::string_view without_brackets(std::string_view text) {
  if (text.size() > 2 && text.front() == '[' && text.back() == ']') {
    return text.substr(1, text.size() - 2);
  }
  return text;
}

std::optional<ListenAddress> parse_address(std::string_view text, std::uint16_t port) {
  const std::string_view bare = without_brackets(text);
  const std::string literal(bare);
  ListenAddress address;
  auto* ipv4 = reinterpret_cast<sockaddr_in*>(&address.storage);
  if (bare.size() == text.size() && inet_pton(AF_INET, literal.c_str(), &ipv4->sin_addr) == 1) {
    ipv4->sin_family = AF_INET;
    ipv4->sin_port = htons(port);
    address.length = sizeof(sockaddr_in);
    address.family = AF_INET;
    return address;
  }
  auto* ipv6 = reinterpret_cast<sockaddr_in6*>(&address.storage);
  if (inet_pton(AF_INET6, literal.c_str(), &ipv6->sin6_addr) == 1) {
    ipv6->sin6_family = AF_INET6;
    ipv6->sin6_port = htons(port);
    address.length = sizeof(sockaddr_in6);
    address.family = AF_INET6;
    return address;
  }
  return std::nullopt;
}

// The address and port a socket is bound to, as "127.0.0.1:9101" or "[::1]:9101".
std::pair<std::string, std::uint16_t> bound_endpoint(int socket) {
  sockaddr_storage storage{};
  socklen_t length = sizeof(storage);
  if (getsockname(socket, reinterpret_cast<sockaddr*>(&storage), &length) != 0) {
    return {"?", 0};
  }
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (storage.ss_family == AF_INET6) {
    const auto* ipv6 = reinterpret_cast<const sockaddr_in6*>(&storage);
    inet_ntop(AF_INET6, &ipv6->sin6_addr, text.data(), text.size());
    const std::uint16_t port = ntohs(ipv6->sin6_port);
    return {format_endpoint(AF_INET6, text.data(), port), port};
  }
  const auto* ipv4 = reinterpret_cast<const sockaddr_in*>(&storage);
  inet_ntop(AF_INET, &ipv4->sin_addr, text.data(), text.size());
  const std::uint16_t port = ntohs(ipv4->sin_port);
  return {format_endpoint(AF_INET, text.data(), port), port};
}

// Makes the coming close reset the connection and drop what is still queued for the client:
// a plain close would leave the kernel sending the rest of the answer to a client that does not read.
void abort_connection(const core::FileDescriptor& socket) {
  const linger reset{1, 0};
  setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
}

struct Connection {
  enum class Phase { Reading, Writing, Draining };

  core::FileDescriptor socket;
  Phase phase = Phase::Reading;
  std::string received;
  std::string answer;
  std::size_t sent = 0;
  std::size_t drained = 0;
  Clock::time_point deadline;
  Clock::time_point drain_end;
};

}  // namespace

// The listening socket, the open connections and the thread that serves them; everything but
// the stop flag and the wake-up descriptor is touched by that thread alone.
class HttpServer::Loop {
 public:
  Loop(HttpServerOptions options, HttpHandler handler, core::FileDescriptor listener, core::FileDescriptor wake)
      : options_(std::move(options)),
        handler_(std::move(handler)),
        listener_(std::move(listener)),
        wake_(std::move(wake)) {
    std::tie(endpoint_, port_) = bound_endpoint(listener_.get());
  }

  ~Loop() {
    stopping_.store(true);
    const std::uint64_t one = 1;
    static_cast<void>(core::write_once(wake_.get(), &one, sizeof(one)));
    if (thread_.joinable()) {
      thread_.join();
    }
  }

  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;
  Loop(Loop&&) = delete;
  Loop& operator=(Loop&&) = delete;

  void start() {
    thread_ = std::thread([this] { run(); });
  }

  [[nodiscard]] std::uint16_t port() const { return port_; }
  [[nodiscard]] const std::string& endpoint() const { return endpoint_; }

 private:
  void run();
  void accept_connections(Clock::time_point now);
  void read_request(Connection& connection, Clock::time_point now);
  void answer(Connection& connection, std::size_t head_size, Clock::time_point now);
  void write_answer(Connection& connection, Clock::time_point now);
  void drain(Connection& connection);
  [[nodiscard]] int poll_timeout(Clock::time_point now) const;

  const HttpServerOptions options_;
  const HttpHandler handler_;
  core::FileDescriptor listener_;
  core::FileDescriptor wake_;
  std::string endpoint_;
  std::uint16_t port_ = 0;
  std::atomic<bool> stopping_{false};
  std::vector<Connection> connections_;
  std::optional<Clock::time_point> accept_paused_until_;
  // Started last and joined first (by the destructor), so it never sees a member half made or gone.
  std::thread thread_;
};

void HttpServer::Loop::run() {
  std::vector<pollfd> descriptors;
  while (!stopping_.load()) {
    auto now = Clock::now();
    if (accept_paused_until_ && now >= *accept_paused_until_) {
      accept_paused_until_.reset();
    }
    descriptors.clear();
    descriptors.push_back({wake_.get(), POLLIN, 0});
    descriptors.push_back({accept_paused_until_ ? -1 : listener_.get(), POLLIN, 0});
    for (const Connection& connection : connections_) {
      const short events = connection.phase == Connection::Phase::Writing ? POLLOUT : POLLIN;
      descriptors.push_back({connection.socket.get(), events, 0});
    }
    const int ready = poll(descriptors.data(), descriptors.size(), poll_timeout(now));
    if (ready < 0) {
      if (errno != EINTR) {
        std::this_thread::sleep_for(kAcceptBackoff);  // ENOMEM: wait for memory rather than spin
      }
      continue;
    }
    if (descriptors[0].revents != 0) {
      std::uint64_t count = 0;
      static_cast<void>(core::read_once(wake_.get(), &count, sizeof(count)));
    }
    now = Clock::now();
    const std::size_t polled = descriptors.size() - 2;
    for (std::size_t index = 0; index < polled; ++index) {
      Connection& connection = connections_[index];
      if (descriptors[index + 2].revents != 0) {
        switch (connection.phase) {
          case Connection::Phase::Reading:
            read_request(connection, now);
            break;
          case Connection::Phase::Writing:
            write_answer(connection, now);
            break;
          case Connection::Phase::Draining:
            drain(connection);
            break;
        }
      }
      // A client that was too slow is closed, whatever it was doing.
      if (connection.socket.valid() && now >= connection.deadline) {
        if (connection.phase == Connection::Phase::Writing) {
          abort_connection(connection.socket);
        }
        connection.socket.reset();
      }
    }
    std::erase_if(connections_, [](const Connection& connection) { return !connection.socket.valid(); });
    if ((descriptors[1].revents & POLLIN) != 0) {
      accept_connections(now);
    }
  }
}

int HttpServer::Loop::poll_timeout(Clock::time_point now) const {
  std::optional<Clock::time_point> earliest = accept_paused_until_;
  for (const Connection& connection : connections_) {
    if (!earliest || connection.deadline < *earliest) {
      earliest = connection.deadline;
    }
  }
  if (!earliest) {
    return -1;
  }
  if (*earliest <= now) {
    return 0;
  }
  // Rounded up, so that the loop does not wake a little early and spin until the deadline.
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(*earliest - now);
  return static_cast<int>(std::min<std::chrono::milliseconds::rep>(wait.count(), 60'000));
}

void HttpServer::Loop::accept_connections(Clock::time_point now) {
  for (int round = 0; round < kMaxAcceptsPerRound; ++round) {
    core::FileDescriptor socket(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket.valid()) {
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        accept_paused_until_ = now + kAcceptBackoff;
        return;
      }
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        return;
      }
      continue;  // EINTR, or a connection that failed before it was accepted
    }
    if (connections_.size() >= options_.max_connections) {
      continue;  // closed at once, as the socket goes
    }
    Connection connection;
    connection.socket = std::move(socket);
    connection.deadline = now + options_.read_timeout;
    connections_.push_back(std::move(connection));
  }
}

void HttpServer::Loop::read_request(Connection& connection, Clock::time_point now) {
  std::array<char, 4096> buffer{};
  while (true) {
    const std::size_t room = options_.max_request_head + 1 - connection.received.size();
    const ssize_t count = core::read_once(connection.socket.get(), buffer.data(), std::min(room, buffer.size()));
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK)) {
      connection.socket.reset();  // the client went before its request was complete
      return;
    }
    if (count < 0) {
      return;
    }
    const std::string_view chunk(buffer.data(), static_cast<std::size_t>(count));
    connection.received += chunk;
    if (chunk.find('\n') != std::string_view::npos) {
      if (const auto head_size = request_head_size(connection.received)) {
        answer(connection, *head_size, now);
        return;
      }
    }
    if (connection.received.size() > options_.max_request_head) {
      answer(connection, connection.received.size(), now);
      return;
    }
  }
}

void HttpServer::Loop::answer(Connection& connection, std::size_t head_size, Clock::time_point now) {
  if (head_size > options_.max_request_head) {
    connection.answer =
        refusal(431, fmt::format("the request head is larger than {} bytes", options_.max_request_head));
  } else {
    const RequestHeadResult parsed = parse_request_head(std::string_view(connection.received).substr(0, head_size));
    if (!parsed) {
      connection.answer = refusal(parsed.error().status, parsed.error().reason);
    } else if (parsed.value().method != "GET" && parsed.value().method != "HEAD") {
      connection.answer = refusal(405, {}, true);
    } else if (parsed.value().has_body) {
      connection.answer = refusal(413, "this server takes no request body");
    } else {
      connection.answer = handler_answer(handler_, parsed.value());
    }
  }
  connection.received = std::string();
  connection.phase = Connection::Phase::Writing;
  connection.deadline = now + options_.write_timeout;
  write_answer(connection, now);
}

void HttpServer::Loop::write_answer(Connection& connection, Clock::time_point now) {
  while (connection.sent < connection.answer.size()) {
    const ssize_t count = send(connection.socket.get(), connection.answer.data() + connection.sent,
                               connection.answer.size() - connection.sent, MSG_NOSIGNAL);
    if (count > 0) {
      connection.sent += static_cast<std::size_t>(count);
      connection.deadline = now + options_.write_timeout;
    } else if (count < 0 && errno == EINTR) {
      continue;
    } else if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      return;
    } else {
      connection.socket.reset();  // the client is gone
      return;
    }
  }
  connection.answer = std::string();
  shutdown(connection.socket.get(), SHUT_WR);
  connection.phase = Connection::Phase::Draining;
  connection.deadline = now + std::min<std::chrono::milliseconds>(options_.read_timeout, kMaxDrainTime);
}

void HttpServer::Loop::drain(Connection& connection) {
  std::array<char, 4096> buffer{};
  while (true) {
    const ssize_t count = core::read_once(connection.socket.get(), buffer.data(), buffer.size());
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      return;
    }
    if (count <= 0) {
      connection.socket.reset();  // the client has closed its side too: done
      return;
    }
    connection.drained += static_cast<std::size_t>(count);
    if (connection.drained > kMaxDrainBytes) {
      connection.socket.reset();
      return;
    }
  }
}

HttpServer::HttpServer(std::unique_ptr<Loop> loop) : loop_(std::move(loop)) {}

HttpServer::~HttpServer() = default;

core::Result<std::unique_ptr<HttpServer>> HttpServer::start(const HttpServerOptions& options, HttpHandler handler) {
  const auto address = parse_address(options.address, options.port);
  if (!address) {
    return core::ErrorPayload(
        core::Error::InvalidInputArg,
        fmt::format("Cannot listen on {}:{}: not an IPv4 or IPv6 address", options.address, options.port));
  }
  const std::string wanted = format_endpoint(address->family, without_brackets(options.address), options.port);
  const auto failed = [&wanted](int error) {
    return core::ErrorPayload(core::Error::ErrorCApi,
                              fmt::format("Cannot listen on {}: {}", wanted, error_text(error)));
  };
  if (!handler) {
    return core::ErrorPayload(core::Error::InvalidInputArg, fmt::format("Cannot listen on {}: no handler", wanted));
  }
  if (options.max_connections == 0 || options.max_request_head == 0) {
    return core::ErrorPayload(
        core::Error::InvalidInputArg,
        fmt::format("Cannot listen on {}: max_connections and max_request_head must be above 0", wanted));
  }
  core::FileDescriptor listener(socket(address->family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!listener.valid()) {
    return failed(errno);
  }
  const int on = 1;
  if (setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
      bind(listener.get(), reinterpret_cast<const sockaddr*>(&address->storage), address->length) != 0 ||
      listen(listener.get(), kListenBacklog) != 0) {
    return failed(errno);
  }
  core::FileDescriptor wake(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (!wake.valid()) {
    return failed(errno);
  }
  auto loop = std::make_unique<Loop>(options, std::move(handler), std::move(listener), std::move(wake));
  try {
    loop->start();
  } catch (const std::system_error& error) {
    return failed(error.code().value());
  }
  return std::unique_ptr<HttpServer>(new HttpServer(std::move(loop)));
}

std::uint16_t HttpServer::port() const {
  return loop_->port();
}

std::string HttpServer::endpoint() const {
  return loop_->endpoint();
}

}  // namespace xpon::metrics
