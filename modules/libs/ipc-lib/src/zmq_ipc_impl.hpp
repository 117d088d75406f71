// The ZeroMQ endpoint's private parts, shared by its sources: zmq_ipc.cpp (making and closing the
// endpoint, the interface), zmq_ipc_io.cpp (the I/O thread), zmq_ipc_delivery.cpp (the delivery
// threads, the inbox and subscriber hand-overs) and zmq_ipc_send.cpp (sending and requests).
#pragma once

#include "outlet_cache.hpp"
#include "xpon/core/file_descriptor.hpp"
#include "xpon/ipc/wire.hpp"
#include "xpon/ipc/zmq_ipc.hpp"

#include <fmt/format.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>
#include <zmq.hpp>

namespace xpon::ipc {

namespace detail {

using Clock = std::chrono::steady_clock;

/// A socket shared by API callers; ZeroMQ sockets may change threads only across a full barrier.
/// Held by shared_ptr: the outlet cache may drop it while a sender still holds it and its mutex.
struct Outlet {
  std::mutex mutex;
  zmq::socket_t socket;
};

template <typename Handler>
struct HandlerEntry {
  explicit HandlerEntry(Handler function) : handler(std::move(function)) {}
  Handler handler;
  int in_flight = 0;  // guarded by the endpoint's handlers mutex
};

using RequestEntry = HandlerEntry<RequestHandler>;
using EventEntry = HandlerEntry<EventHandler>;

/// The handler entry the current delivery thread is running, so that a handler may unsubscribe itself.
/// (constinit: no initialisation wrapper on each access from the other sources.)
extern constinit thread_local const void* current_entry;

/// Set while the current thread reads the inbox in place of the I/O thread (see InboxReader).
extern constinit thread_local bool reading_inbox;

/// Set while the current delivery thread reads the bus subscriber (see SubscriberReader).
extern constinit thread_local bool reading_subscriber;

/// Who reads the inbox. The I/O thread does unless a thread that would otherwise only wait takes
/// it over: an idle delivery thread (which then runs the first request it reads itself) or a
/// caller of request() (which then reads its own answer). Either saves the thread hand-over that
/// the I/O thread would add to every request and every response.
enum class InboxReader : std::uint8_t {
  Io,         ///< the I/O thread, waiting for the inbox among its other descriptors
  IoReading,  ///< the I/O thread, reading a batch
  Worker,     ///< an idle delivery thread
  Requester,  ///< a caller of request() waiting for its answer
};

/// Who reads the bus subscriber: the I/O thread, or an idle delivery thread, which then runs the
/// first event it reads itself when no other event runs or waits (saving the hand-over from the
/// I/O thread to a delivery thread on every event). Subscription changes are made by the I/O
/// thread only: it asks the subscriber back for them.
enum class SubscriberReader : std::uint8_t {
  Io,         ///< the I/O thread, waiting for the subscriber among its other descriptors
  IoReading,  ///< the I/O thread, changing subscriptions or reading a batch
  Worker,     ///< an idle delivery thread
};

/// Tags of the I/O thread's epoll descriptors.
enum : std::uint32_t { kInboxTag = 0, kSubscriberTag = 1, kWakeTag = 2 };

struct PendingRequest {
  std::condition_variable ready;
  std::optional<Response> response;
};

struct SubscriptionCommand {
  bool subscribe;
  std::array<std::uint8_t, wire::kTopicSize> prefix;
  std::size_t length;
};

inline std::string key_text(Key key) {
  return fmt::format("{}:{}", key.group, key.id);
}

/// The options every socket of the endpoint shares: the LINGER given and a reconnection interval
/// that starts short and backs off while the peer stays away.
void set_common_options(zmq::socket_t& socket, std::chrono::milliseconds linger);

}  // namespace detail

struct ZmqIpc::Impl {
  Impl(Address own, std::string_view endpoint_name, const ZmqIpcOptions& options);
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void stop_threads();
  void close_all();

  // --- I/O thread ---
  void io_loop();
  void apply_commands();
  /// Reads a batch from the inbox if the I/O thread is its reader; true if the batch was full.
  bool read_inbox_as_io();
  /// With `apply`, changes the subscriptions as queued; then reads a batch from the subscriber;
  /// true if the batch was full. While a delivery thread reads the subscriber, asks it back
  /// instead when subscription changes wait.
  bool serve_subscriber_as_io(bool apply);
  /// Reads up to a batch from the inbox; true if the batch was full (more may be waiting). With
  /// `keep`, the first request read is stored there instead of queued for delivery.
  bool drain_inbox(std::optional<Request>* keep);
  /// Reads up to a batch from the subscriber; true if the batch was full. With `keep`, the first
  /// event read is stored there instead of queued, when it may run at once (ordered_running is
  /// then set for it).
  bool drain_subscriber(std::optional<Event>* keep);
  void on_inbox_message(std::vector<zmq::message_t>& frames, std::optional<Request>* keep);
  void on_bus_message(std::vector<zmq::message_t>& frames, std::optional<Event>* keep);
  std::optional<wire::Header> checked_header(const zmq::message_t& frame, const zmq::message_t& payload);
  void count_drop(std::atomic<std::uint64_t>& counter, std::string_view what);

  // --- delivery ---
  /// Queues a delivery; `in_order` deliveries (events) run one at a time in arrival order.
  void enqueue(std::function<void()> task, bool in_order);
  void delivery_loop();
  /// True if a delivery thread has work it may start now; with queue_mutex held.
  [[nodiscard]] bool task_runnable() const {
    return (!ordered_running && !ordered_queue.empty()) || !parallel_queue.empty();
  }
  /// Takes the inbox over from the I/O thread if it is free; with queue_mutex held.
  bool take_inbox(detail::InboxReader reader);
  /// Reads the inbox as `reader` until `done()` (asked with queue_mutex held) or the endpoint stops,
  /// then gives it back to the I/O thread. A delivery thread gets the first request it read.
  std::optional<Request> read_inbox_until(detail::InboxReader reader, const std::function<bool()>& done,
                                          std::optional<detail::Clock::time_point> deadline);
  /// Puts a descriptor taken over from the I/O thread back into its epoll set; with queue_mutex held.
  void give_back_to_io(int fd, std::uint32_t tag, std::string_view what);
  /// Takes the subscriber over from the I/O thread if it is free and events are subscribed to;
  /// with queue_mutex held.
  bool take_subscriber();
  /// Reads the subscriber until it has an event to run, a task is runnable, the I/O thread asks
  /// for it or the endpoint stops, then gives it back to the I/O thread.
  std::optional<Event> read_subscriber();
  void deliver_request(const Request& request);
  void deliver_event(const Event& event);

  // --- sending ---
  /// The outgoing link to a destination, opened (and the least recently used one closed to make
  /// room) if it has none; refused, counted and logged when the process is short of descriptors.
  Result<std::shared_ptr<detail::Outlet>> outlet_for(Address destination);
  /// True when a response to the destination can be sent: its link is open, or the process has
  /// the descriptors for a new one. Counts and logs a refusal.
  bool can_reach(Address destination);
  /// Closes the links unused for outlet_idle_expiry; how long the I/O thread may then sleep (-1: no limit).
  int expire_outlets();
  /// Sends one message; `destination` names the peer in error texts (nullopt: the bus).
  Result<void> send_frames(detail::Outlet& outlet, std::span<const std::span<const std::uint8_t>> frames,
                           std::optional<Address> destination);
  void queue_command(const detail::SubscriptionCommand& command);

  Address address;
  Address source_word;
  std::string name;
  ZmqIpcOptions options;
  std::shared_ptr<logger::ILogger> log;

  // Closed by close_all once the threads are gone, after ZeroMQ's context.
  core::FileDescriptor lock_fd;
  core::FileDescriptor wake_fd;             // wakes the I/O thread: commands queued, inbox given back with more to read
  core::FileDescriptor reader_wake_fd;      // wakes a thread other than the I/O thread reading the inbox
  core::FileDescriptor subscriber_wake_fd;  // wakes a delivery thread reading the subscriber
  core::FileDescriptor epoll_fd;            // the I/O thread's descriptors
  int inbox_fd = -1;                        // ZeroMQ's notification descriptor of the inbox, owned by ZeroMQ
  int subscriber_fd = -1;                   // and that of the subscriber
  zmq::context_t context;
  zmq::socket_t inbox;       // owned by the I/O thread once it runs
  zmq::socket_t subscriber;  // owned by the I/O thread once it runs (lent to an idle delivery thread)
  detail::Outlet bus;

  std::mutex outlets_mutex;
  detail::OutletCache<detail::Outlet> outlets;  // guarded by outlets_mutex
  std::atomic<std::size_t> open_outlets{0};     // outlets.size(), for stats() without the lock

  std::mutex command_mutex;
  std::vector<detail::SubscriptionCommand> commands;

  std::mutex pending_mutex;
  std::unordered_map<std::uint16_t, std::shared_ptr<detail::PendingRequest>> pending;
  std::uint16_t next_tag = 1;

  std::mutex handlers_mutex;
  std::condition_variable handler_done;
  std::map<Key, std::shared_ptr<detail::RequestEntry>> request_handlers;
  std::map<Key, std::shared_ptr<detail::EventEntry>> event_handlers;

  std::mutex queue_mutex;
  std::condition_variable queue_ready;
  std::deque<std::function<void()>> ordered_queue;   // events: one at a time, in order
  std::deque<std::function<void()>> parallel_queue;  // requests: any free delivery thread
  bool ordered_running = false;
  bool delivery_stopping = false;
  detail::InboxReader inbox_reader = detail::InboxReader::Io;                 // guarded by queue_mutex
  detail::SubscriberReader subscriber_reader = detail::SubscriberReader::Io;  // guarded by queue_mutex
  bool subscriber_wanted = false;  // the I/O thread waits for the subscriber back; guarded by queue_mutex
  unsigned sleeping_workers = 0;   // delivery threads waiting on queue_ready
  std::atomic<unsigned> request_handler_count{0};
  std::atomic<unsigned> event_handler_count{0};

  std::mutex drop_log_mutex;
  std::map<std::string_view, detail::Clock::time_point> last_drop_log;
  std::map<std::string_view, std::uint64_t> suppressed_drops;

  std::atomic<bool> stopping{false};
  std::thread io_thread;
  std::vector<std::thread> workers;

  struct Counters {
    std::atomic<std::uint64_t> short_headers{0}, long_headers{0}, bad_versions{0}, bad_kinds{0}, oversized{0},
        malformed{0}, queue_overflows{0}, unrouted{0}, late_responses{0}, handler_failures{0}, requests_received{0},
        events_received{0}, requests_read_by_delivery_threads{0}, responses_read_by_callers{0}, outlets_evicted{0},
        outlets_expired{0}, descriptor_refusals{0};
  } counters;
};

}  // namespace xpon::ipc
