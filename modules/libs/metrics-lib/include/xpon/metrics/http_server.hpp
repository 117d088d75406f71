#pragma once

#include "xpon/core/result.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace xpon::metrics {

/// What the handler answers to a request.
struct HttpAnswer {
  int status = 200;          ///< 200 to 599, except 204 and 304 (which carry no body): others give 500
  std::string content_type;  ///< empty: "text/plain; charset=utf-8"; a control character in it gives 500
  std::string body;
};

/// Called on the server's thread for each GET and HEAD request with the method ("GET" or "HEAD")
/// and the path without its query ("/metrics"). An exception it throws is answered 500.
using HttpHandler = std::function<HttpAnswer(std::string_view method, std::string_view path)>;

/// Where the server listens and how much it takes.
struct HttpServerOptions {
  std::string address = "127.0.0.1";    ///< an IPv4 or IPv6 literal: "0.0.0.0", "::1", "::"
  std::uint16_t port = 0;               ///< 0: the kernel picks a free port
  std::size_t max_connections = 32;     ///< open connections; one more is accepted and closed at once
  std::size_t max_request_head = 8192;  ///< bytes of request line and header fields; more gives 431
  /// How long a client may take to send its whole request head; then it is closed unanswered.
  std::chrono::milliseconds read_timeout{5000};
  /// How long an answer may make no progress because the client does not read; then it is closed.
  std::chrono::milliseconds write_timeout{10000};
};

/// A minimal HTTP/1.1 server for scrapes on a thread of its own: GET and HEAD go to the handler,
/// every answer closes its connection (see docs/metrics-lib.md for what is refused and how).
class HttpServer {
 public:
  /// Listens as `options` say and starts the thread; the error's message says why it cannot
  /// ("Cannot listen on 127.0.0.1:9101: Address already in use").
  static core::Result<std::unique_ptr<HttpServer>> start(const HttpServerOptions& options, HttpHandler handler);

  /// Stops the thread and closes every connection, answered or not.
  ~HttpServer();

  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;
  HttpServer(HttpServer&&) = delete;
  HttpServer& operator=(HttpServer&&) = delete;

  /// The port listened on (the kernel's pick when the options gave 0).
  [[nodiscard]] std::uint16_t port() const;

  /// The address and port listened on: "127.0.0.1:9101", "[::1]:9101".
  [[nodiscard]] std::string endpoint() const;

 private:
  class Loop;
  explicit HttpServer(std::unique_ptr<Loop> loop);

  std::unique_ptr<Loop> loop_;
};

}  // namespace xpon::metrics
