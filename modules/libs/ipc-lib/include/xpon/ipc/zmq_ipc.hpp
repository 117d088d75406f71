#pragma once

#include "xpon/ipc/ipc.hpp"

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string_view>

namespace xpon::ipc {

/// What an endpoint has dropped or failed to deliver since it was made.
struct IpcStats {
  std::uint64_t short_headers = 0;      ///< header frame shorter than 24 bytes
  std::uint64_t long_headers = 0;       ///< header frame longer than 24 bytes
  std::uint64_t bad_versions = 0;       ///< header version other than 1
  std::uint64_t bad_kinds = 0;          ///< unknown kind, or a kind that does not belong on that socket
  std::uint64_t oversized = 0;          ///< payload above 64 KiB
  std::uint64_t malformed = 0;          ///< wrong number of frames, bad topic frame
  std::uint64_t queue_overflows = 0;    ///< delivery queue full: the newest message was dropped
  std::uint64_t unrouted = 0;           ///< no handler subscribed for the key
  std::uint64_t late_responses = 0;     ///< response with no request waiting for its tag
  std::uint64_t handler_failures = 0;   ///< a handler threw or returned an error
  std::uint64_t requests_received = 0;  ///< well-formed requests taken from the inbox
  std::uint64_t events_received = 0;    ///< well-formed events taken from the bus
  /// Requests an idle delivery thread read from the inbox itself and ran at once (the rest went
  /// through the I/O thread and the delivery queue).
  std::uint64_t requests_read_by_delivery_threads = 0;
  /// Responses read from the inbox by a caller of request() waiting for one, not by the I/O thread.
  std::uint64_t responses_read_by_callers = 0;
  /// Outgoing links closed to make room for a new destination (least recently used first).
  std::uint64_t outlets_evicted = 0;
  /// Outgoing links closed after `outlet_idle_expiry` unused.
  std::uint64_t outlets_expired = 0;
  /// Requests dropped before their handler ran, and sends refused, because a link to a new
  /// destination would have taken the process too near its descriptor limit (or ZeroMQ's
  /// socket limit).
  std::uint64_t descriptor_refusals = 0;
  /// Outgoing links open now (a gauge, not a counter).
  std::uint64_t open_outlets = 0;

  /// Messages dropped because of what a peer sent (every counter of bad input together).
  [[nodiscard]] std::uint64_t dropped_input() const {
    return short_headers + long_headers + bad_versions + bad_kinds + oversized + malformed;
  }
};

/// The ZeroMQ implementation of an endpoint (see make_zmq_ipc), with its counters.
class ZmqIpc final : public IIpc {
 public:
  /// Binds the inbox of the address and links to the bus; throws std::runtime_error when it cannot.
  ZmqIpc(Address address, std::string_view name, const ZmqIpcOptions& options);
  ZmqIpc(const ZmqIpc&) = delete;
  ZmqIpc& operator=(const ZmqIpc&) = delete;
  /// Stops the threads and closes every socket; must not run on one of this endpoint's own threads.
  ~ZmqIpc() override;

  Result<void> subscribe_request(Key key, RequestHandler handler) override;
  Result<void> unsubscribe_request(Key key) override;
  Result<void> subscribe_event(Key key, EventHandler handler) override;
  Result<void> unsubscribe_event(Key key) override;
  Result<void> send_response(Address address, const Response& response) override;
  Result<void> send_event(const Event& event) override;
  Result<void> connect(Address address) override;
  Result<Response> request(Address address, Request request, std::chrono::milliseconds timeout) override;
  [[nodiscard]] Address address() const override;

  /// A snapshot of the counters.
  [[nodiscard]] IpcStats stats() const;

  /// The source word this endpoint puts into its events (its address, the slot from XPON_SLOT when set).
  [[nodiscard]] Address event_source() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

/// Thrown when an endpoint's address is owned by another live endpoint.
class AddressInUse : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Makes the ZeroMQ endpoint as make_zmq_ipc does, keeping access to its counters; throws
/// AddressInUse when another endpoint owns the address, std::runtime_error for other failures.
std::shared_ptr<ZmqIpc> make_zmq_endpoint(Address address, std::string_view name, const ZmqIpcOptions& options = {});

/// Makes an endpoint at the first address of this board whose application id, from `first` to
/// `last`, no other endpoint owns (for short-lived clients such as the tools); throws
/// std::runtime_error naming the range when every one is taken.
std::shared_ptr<ZmqIpc> make_zmq_endpoint_in_range(std::uint16_t first, std::uint16_t last, std::string_view name,
                                                   const ZmqIpcOptions& options = {});

/// The slot this board's endpoints report in their events: $XPON_SLOT when it holds a number
/// from 0 to 0xFFFE, the slot of the address otherwise.
Address event_source_for(Address address);

}  // namespace xpon::ipc
