#pragma once

#include "xpon/core/result.hpp"
#include "xpon/logger/ilogger.hpp"

#include <chrono>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace xpon::ipc {

using core::Result;

/// A 32-bit endpoint address: application id in the high half, slot in the low half.
using Address = std::uint32_t;

/// The slot word that means "this board".
inline constexpr std::uint16_t kThisSlot = 0xFFFE;

/// Builds an address from an application id and a slot.
constexpr Address make_address(std::uint16_t application, std::uint16_t slot = kThisSlot) {
  return (static_cast<Address>(application) << 16U) | slot;
}

/// Message payload bytes.
using Payload = std::vector<std::uint8_t>;

/// A message key: the module (group) word and the message id.
struct Key {
  std::uint16_t group = 0;
  std::uint16_t id = 0;
  friend constexpr auto operator<=>(const Key&, const Key&) = default;
};

/// Where the answer to a request goes: the sender's address and the tag that pairs them.
struct ReplyTo {
  Address address = 0;
  std::uint16_t tag = 0;
  friend constexpr bool operator==(const ReplyTo&, const ReplyTo&) = default;
};

/// A request: payload, the two identifier words (group, then message id), when the sender waits
/// for an answer its reply information, and the header's address word.
struct Request {
  Payload payload;
  std::uint16_t group = 0;
  std::uint16_t id = 0;
  std::optional<ReplyTo> reply_to;
  /// The address word the sender gives (0x0000FFFE); not the destination, which is the address
  /// the request is sent to. Last, so that positional initialisers of the other fields keep their meaning.
  std::uint32_t address = make_address(0);
};

/// The answer to a request.
struct Response {
  Payload payload;
  std::uint32_t address = make_address(0);  ///< the address word the sender gives (0x0000FFFE)
  std::uint16_t reply_tag = 0;
  std::uint32_t result = 0;  ///< 1 answered, 0 error answer
};

/// A published event.
struct Event {
  Payload payload;
  std::uint32_t address = make_address(0);  ///< the address word the sender gives (0x0000FFFE)
  std::uint16_t group = 0;
  std::uint16_t id = 0;
  Address source = 0;  ///< the sender's endpoint address (its slot in the low half)
};

/// Handles one request; an error it returns is logged by the dispatcher.
using RequestHandler = std::function<Result<void>(const Request&)>;

/// Handles one event; an error it returns is logged by the dispatcher.
using EventHandler = std::function<Result<void>(const Event&)>;

/// The id that, in an event subscription, takes every id of a group.
inline constexpr std::uint16_t kAnyId = 0xFFFF;

/// One IPC endpoint: an inbox for requests and responses, and a link to the event bus.
class IIpc {
 public:
  virtual ~IIpc() = default;

  /// Routes requests with this key to the handler; Error::Already if the key has one.
  virtual Result<void> subscribe_request(Key key, RequestHandler handler) = 0;

  /// Stops routing requests with this key; Error::Empty if none was subscribed.
  virtual Result<void> unsubscribe_request(Key key) = 0;

  /// Delivers events with this key (id kAnyId: the whole group) to the handler.
  virtual Result<void> subscribe_event(Key key, EventHandler handler) = 0;

  /// Stops delivering events with this key; Error::Empty if none was subscribed.
  virtual Result<void> unsubscribe_event(Key key) = 0;

  /// Sends a response to the endpoint at the given address.
  virtual Result<void> send_response(Address address, const Response& response) = 0;

  /// Publishes an event on the bus.
  virtual Result<void> send_event(const Event& event) = 0;

  /// Prepares a client link to the endpoint at the given address.
  virtual Result<void> connect(Address address) = 0;

  /// Sends a request and waits for its response; Error::InvalidState on time-out.
  virtual Result<Response> request(Address address, Request request, std::chrono::milliseconds timeout) = 0;

  /// This endpoint's own address.
  [[nodiscard]] virtual Address address() const = 0;

 protected:
  IIpc() = default;
  IIpc(const IIpc&) = default;
  IIpc& operator=(const IIpc&) = default;
};

/// Options of a ZeroMQ endpoint.
struct ZmqIpcOptions {
  unsigned delivery_threads = 2;
  /// Where the endpoint logs; empty: a small built-in logger that writes to stderr.
  std::shared_ptr<logger::ILogger> logger;
  /// Messages waiting for a delivery thread; when full, the newest incoming message is dropped and counted.
  std::size_t delivery_queue_capacity = 4096;
  /// Outgoing messages queued per destination (and for the bus while it is down) before sends fail.
  int send_high_water_mark = 10000;
  /// How long a closing socket may still try to hand over queued messages.
  std::chrono::milliseconds linger{20};
  /// Outgoing links (one socket per destination answered or asked) kept open at most; a new
  /// destination beyond that closes the least recently used link. Zero counts as one, and more
  /// than 16384 as 16384.
  std::size_t outlet_cache_size = 64;
  /// An outgoing link unused for this long is closed (messages it still holds are discarded);
  /// zero keeps links until the cache evicts them.
  std::chrono::milliseconds outlet_idle_expiry{std::chrono::seconds(60)};
};

/// Makes the ZeroMQ endpoint with the given address and name; throws std::runtime_error
/// when the inbox cannot be bound (for example, the address is owned by another endpoint).
std::shared_ptr<IIpc> make_zmq_ipc(Address address, std::string_view name, const ZmqIpcOptions& options = {});

}  // namespace xpon::ipc
