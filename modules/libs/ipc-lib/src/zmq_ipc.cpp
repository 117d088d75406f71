#include "xpon/ipc/zmq_ipc.hpp"

#include "xpon/core/guard.hpp"
#include "xpon/ipc/paths.hpp"
#include "xpon/ipc/wire.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <unistd.h>

#include <fmt/format.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>
#include <zmq.hpp>
#include <zmq_addon.hpp>

namespace xpon::ipc {

namespace {

using Clock = std::chrono::steady_clock;

/// Receive-side limit: large enough that an oversized payload still arrives whole and is counted,
/// small enough that a hostile peer cannot make the endpoint buffer arbitrary amounts.
constexpr std::int64_t kMaxReceivedMessage = std::int64_t{1024} * 1024;

/// Messages taken from one socket before the other sockets get their turn.
constexpr int kReceiveBatch = 256;

/// Reconnection interval of every connecting socket; short so a restarted peer or bus is found fast.
constexpr int kReconnectIntervalMs = 50;

/// The logger used when the caller gives none: one line per call on stderr.
class StderrLogger final : public logger::ILogger {
 public:
  void log(int level, std::string_view text, const std::source_location& location) override {
    static constexpr std::array<std::string_view, 6> kNames{"progress", "info",  "notice",
                                                            "warning",  "error", "critical"};
    const std::string_view name = level >= 0 && level < 6 ? kNames[static_cast<std::size_t>(level)] : "log";
    const std::string line = fmt::format("xpon-ipc {} {}:{}: {}\n", name, location.file_name(), location.line(), text);
    // One fwrite per line keeps lines of concurrent threads whole.
    std::fwrite(line.data(), 1, line.size(), stderr);
  }
};

/// A socket shared by API callers; ZeroMQ sockets may change threads only across a full barrier.
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
thread_local const void* current_entry = nullptr;

/// Set while the current thread reads the inbox in place of the I/O thread (see InboxReader).
thread_local bool reading_inbox = false;

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

std::string key_text(Key key) {
  return fmt::format("{}:{}", key.group, key.id);
}

void set_common_options(zmq::socket_t& socket, std::chrono::milliseconds linger) {
  socket.set(zmq::sockopt::linger, static_cast<int>(linger.count()));
  socket.set(zmq::sockopt::reconnect_ivl, kReconnectIntervalMs);
}

}  // namespace

Address event_source_for(Address address) {
  if ((address & 0xFFFFU) != kThisSlot) {
    return address;
  }
  const char* text = std::getenv("XPON_SLOT");
  if (text == nullptr || *text == '\0') {
    return address;
  }
  unsigned slot = 0;
  const char* end = text + std::strlen(text);
  const auto [stop, error] = std::from_chars(text, end, slot);
  if (error != std::errc{} || stop != end || slot > kThisSlot) {
    return address;
  }
  return (address & 0xFFFF0000U) | slot;
}

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
  /// Reads up to a batch from the inbox; true if the batch was full (more may be waiting). With
  /// `keep`, the first request read is stored there instead of queued for delivery.
  bool drain_inbox(std::optional<Request>* keep);
  bool drain_subscriber();
  void on_inbox_message(std::vector<zmq::message_t>& frames, std::optional<Request>* keep);
  void on_bus_message(std::vector<zmq::message_t>& frames);
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
  bool take_inbox(InboxReader reader);
  /// Reads the inbox as `reader` until `done()` (asked with queue_mutex held) or the endpoint stops,
  /// then gives it back to the I/O thread. A delivery thread gets the first request it read.
  std::optional<Request> read_inbox_until(InboxReader reader, const std::function<bool()>& done,
                                          std::optional<Clock::time_point> deadline);
  void deliver_request(const Request& request);
  void deliver_event(const Event& event);

  // --- sending ---
  Outlet& outlet_for(Address destination);
  /// Sends one message; `destination` names the peer in error texts (nullopt: the bus).
  Result<void> send_frames(Outlet& outlet, std::span<const std::span<const std::uint8_t>> frames,
                           std::optional<Address> destination);
  void queue_command(const SubscriptionCommand& command);

  Address address;
  Address source_word;
  std::string name;
  ZmqIpcOptions options;
  std::shared_ptr<logger::ILogger> log;

  int lock_fd = -1;
  int wake_fd = -1;         // wakes the I/O thread: commands queued, inbox given back with more to read
  int reader_wake_fd = -1;  // wakes a thread other than the I/O thread reading the inbox
  int epoll_fd = -1;        // the I/O thread's descriptors
  int inbox_fd = -1;        // ZeroMQ's notification descriptor of the inbox
  zmq::context_t context;
  zmq::socket_t inbox;       // owned by the I/O thread once it runs
  zmq::socket_t subscriber;  // owned by the I/O thread once it runs
  Outlet bus;

  std::mutex outlets_mutex;
  std::map<Address, std::unique_ptr<Outlet>> outlets;

  std::mutex command_mutex;
  std::vector<SubscriptionCommand> commands;

  std::mutex pending_mutex;
  std::unordered_map<std::uint16_t, std::shared_ptr<PendingRequest>> pending;
  std::uint16_t next_tag = 1;

  std::mutex handlers_mutex;
  std::condition_variable handler_done;
  std::map<Key, std::shared_ptr<RequestEntry>> request_handlers;
  std::map<Key, std::shared_ptr<EventEntry>> event_handlers;

  std::mutex queue_mutex;
  std::condition_variable queue_ready;
  std::deque<std::function<void()>> ordered_queue;   // events: one at a time, in order
  std::deque<std::function<void()>> parallel_queue;  // requests: any free delivery thread
  bool ordered_running = false;
  bool delivery_stopping = false;
  InboxReader inbox_reader = InboxReader::Io;  // guarded by queue_mutex
  unsigned sleeping_workers = 0;               // delivery threads waiting on queue_ready
  std::atomic<unsigned> request_handler_count{0};

  std::mutex drop_log_mutex;
  std::map<std::string_view, Clock::time_point> last_drop_log;
  std::map<std::string_view, std::uint64_t> suppressed_drops;

  std::atomic<bool> stopping{false};
  std::thread io_thread;
  std::vector<std::thread> workers;

  struct Counters {
    std::atomic<std::uint64_t> short_headers{0}, long_headers{0}, bad_versions{0}, bad_kinds{0}, oversized{0},
        malformed{0}, queue_overflows{0}, unrouted{0}, late_responses{0}, handler_failures{0}, requests_received{0},
        events_received{0}, requests_read_by_delivery_threads{0}, responses_read_by_callers{0};
  } counters;
};

ZmqIpc::Impl::Impl(Address own, std::string_view endpoint_name, const ZmqIpcOptions& given)
    : address(own),
      source_word(event_source_for(own)),
      name(endpoint_name),
      options(given),
      log(given.logger ? given.logger : std::make_shared<StderrLogger>()),
      context(1) {
  if (options.delivery_threads == 0) {
    options.delivery_threads = 1;
  }
  if (options.delivery_queue_capacity == 0) {
    options.delivery_queue_capacity = 1;
  }
  ensure_ipc_directory();
  const std::string lock_path = ipc_directory() + "/" + address_hex(address) + ".lock";
  lock_fd = ::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (lock_fd < 0) {
    throw std::runtime_error(fmt::format("IPC endpoint {}: cannot open the lock file of address 0x{:08x}: {}", name,
                                         address, std::strerror(errno)));
  }
  if (::flock(lock_fd, LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    ::close(lock_fd);
    if (error == EWOULDBLOCK) {
      throw AddressInUse(
          fmt::format("IPC endpoint {}: address 0x{:08x} is already owned by another endpoint", name, address));
    }
    throw std::runtime_error(
        fmt::format("IPC endpoint {}: cannot lock address 0x{:08x}: {}", name, address, std::strerror(error)));
  }
  const auto close_descriptors = [this] {
    for (const int fd : {lock_fd, wake_fd, reader_wake_fd, epoll_fd}) {
      if (fd >= 0) {
        ::close(fd);
      }
    }
  };
  try {
    wake_fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    reader_wake_fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake_fd < 0 || reader_wake_fd < 0) {
      throw std::runtime_error(fmt::format("IPC endpoint {}: eventfd failed: {}", name, std::strerror(errno)));
    }
    epoll_fd = ::epoll_create1(EPOLL_CLOEXEC);
    if (epoll_fd < 0) {
      throw std::runtime_error(fmt::format("IPC endpoint {}: epoll_create1 failed: {}", name, std::strerror(errno)));
    }
    inbox = zmq::socket_t(context, zmq::socket_type::router);
    set_common_options(inbox, options.linger);
    inbox.set(zmq::sockopt::maxmsgsize, kMaxReceivedMessage);
    inbox.set(zmq::sockopt::rcvhwm, options.send_high_water_mark);
    inbox.bind(inbox_endpoint(address));

    subscriber = zmq::socket_t(context, zmq::socket_type::sub);
    set_common_options(subscriber, options.linger);
    subscriber.set(zmq::sockopt::maxmsgsize, kMaxReceivedMessage);
    subscriber.set(zmq::sockopt::rcvhwm, options.send_high_water_mark);
    subscriber.connect(bus_sub_endpoint());

    bus.socket = zmq::socket_t(context, zmq::socket_type::push);
    set_common_options(bus.socket, options.linger);
    bus.socket.set(zmq::sockopt::sndhwm, options.send_high_water_mark);
    bus.socket.connect(bus_in_endpoint());

    inbox_fd = inbox.get(zmq::sockopt::fd);
    for (const auto& [fd, tag] :
         {std::pair{inbox_fd, kInboxTag}, std::pair{subscriber.get(zmq::sockopt::fd), kSubscriberTag},
          std::pair{wake_fd, kWakeTag}}) {
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.u32 = tag;
      if (::epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event) != 0) {
        throw std::runtime_error(fmt::format("IPC endpoint {}: epoll_ctl failed: {}", name, std::strerror(errno)));
      }
    }
  } catch (const zmq::error_t& error) {
    inbox.close();
    subscriber.close();
    bus.socket.close();
    close_descriptors();
    throw std::runtime_error(
        fmt::format("IPC endpoint {}: cannot open the inbox of address 0x{:08x}: {}", name, address, error.what()));
  } catch (...) {
    inbox.close();
    subscriber.close();
    bus.socket.close();
    close_descriptors();
    throw;
  }
  try {
    io_thread = std::thread([this] { io_loop(); });
    workers.reserve(options.delivery_threads);
    for (unsigned i = 0; i < options.delivery_threads; ++i) {
      workers.emplace_back([this] { delivery_loop(); });
    }
  } catch (const std::system_error& error) {
    stop_threads();
    close_all();
    throw std::runtime_error(fmt::format("IPC endpoint {}: cannot start its threads: {}", name, error.what()));
  }
}

void ZmqIpc::Impl::stop_threads() {
  stopping.store(true);
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(wake_fd, &one, sizeof one);
  // A delivery thread or a caller reading the inbox gives it up and returns.
  [[maybe_unused]] const auto also_written = ::write(reader_wake_fd, &one, sizeof one);
  if (io_thread.joinable()) {
    io_thread.join();
  }
  {
    // A handler still waiting for an answer (to a request of its own) gives up now rather than
    // at its time-out: no answer can arrive without the I/O thread.
    std::lock_guard lock(pending_mutex);
    for (auto& [tag, waiting] : pending) {
      waiting->ready.notify_all();
    }
  }
  {
    std::lock_guard lock(queue_mutex);
    delivery_stopping = true;
    ordered_queue.clear();
    parallel_queue.clear();
  }
  queue_ready.notify_all();
  for (auto& worker : workers) {
    worker.join();
  }
}

void ZmqIpc::Impl::close_all() {
  inbox.close();
  subscriber.close();
  bus.socket.close();
  {
    std::lock_guard lock(outlets_mutex);
    outlets.clear();
  }
  context.close();
  ::close(epoll_fd);
  ::close(reader_wake_fd);
  ::close(wake_fd);
  ::close(lock_fd);
}

ZmqIpc::Impl::~Impl() {
  stop_threads();
  close_all();
}

// ---------------------------------------------------------------------------------------------
// I/O thread

void ZmqIpc::Impl::io_loop() {
  // A ZeroMQ socket's descriptor only tells that the socket's state may have changed, and only
  // once: a socket is read until it has nothing more (or a batch is done) before the thread
  // sleeps on it again; after a full batch the next round reads every socket without sleeping.
  std::array<epoll_event, 3> events{};
  bool read_all = true;
  while (!stopping.load()) {
    try {
      const int count = ::epoll_wait(epoll_fd, events.data(), static_cast<int>(events.size()), read_all ? 0 : -1);
      if (count < 0) {
        if (errno != EINTR) {
          log->error("IPC endpoint {}: epoll_wait failed: {}", name, std::strerror(errno));
          std::this_thread::sleep_for(std::chrono::milliseconds(10));  // no busy loop on a lasting failure
        }
        continue;
      }
      bool woken = read_all;
      bool inbox_due = read_all;
      bool subscriber_due = read_all;
      read_all = true;  // stays so if anything below throws
      for (int i = 0; i < count; ++i) {
        switch (events[static_cast<std::size_t>(i)].data.u32) {
          case kInboxTag:
            inbox_due = true;
            break;
          case kSubscriberTag:
            subscriber_due = true;
            break;
          default:
            woken = true;
            break;
        }
      }
      if (woken) {
        std::uint64_t value = 0;
        [[maybe_unused]] const auto got = ::read(wake_fd, &value, sizeof value);
        apply_commands();
        // Changing subscriptions may have taken the subscriber's notice, and an inbox given back
        // in the middle of a batch has no notice left: both are read now.
        inbox_due = true;
        subscriber_due = true;
      }
      bool more = false;
      if (inbox_due) {
        more = read_inbox_as_io() || more;
      }
      if (subscriber_due) {
        more = drain_subscriber() || more;
      }
      read_all = more;
    } catch (const zmq::error_t& error) {
      if (error.num() == ETERM) {
        return;
      }
      if (error.num() != EINTR) {
        log->error("IPC endpoint {}: receiving failed: {}", name, error.what());
      }
    } catch (const std::exception& error) {
      // Nothing a peer sends may end this thread; a failure here is ours and is logged.
      log->error("IPC endpoint {}: receiving failed: {}", name, error.what());
    }
  }
}

void ZmqIpc::Impl::apply_commands() {
  std::vector<SubscriptionCommand> todo;
  {
    std::lock_guard lock(command_mutex);
    todo.swap(commands);
  }
  for (const auto& command : todo) {
    const zmq::const_buffer prefix(command.prefix.data(), command.length);
    if (command.subscribe) {
      subscriber.set(zmq::sockopt::subscribe, prefix);
    } else {
      subscriber.set(zmq::sockopt::unsubscribe, prefix);
    }
  }
}

bool ZmqIpc::Impl::read_inbox_as_io() {
  {
    std::lock_guard lock(queue_mutex);
    if (inbox_reader != InboxReader::Io) {
      return false;  // another thread reads it now
    }
    inbox_reader = InboxReader::IoReading;
  }
  bool more = false;
  try {
    more = drain_inbox(nullptr);
  } catch (...) {
    std::lock_guard lock(queue_mutex);
    inbox_reader = InboxReader::Io;
    throw;
  }
  std::lock_guard lock(queue_mutex);
  inbox_reader = InboxReader::Io;
  return more;
}

bool ZmqIpc::Impl::drain_inbox(std::optional<Request>* keep) {
  std::vector<zmq::message_t> frames;
  for (int i = 0; i < kReceiveBatch; ++i) {
    frames.clear();
    if (!zmq::recv_multipart(inbox, std::back_inserter(frames), zmq::recv_flags::dontwait)) {
      return false;
    }
    on_inbox_message(frames, keep);
  }
  return true;
}

bool ZmqIpc::Impl::drain_subscriber() {
  std::vector<zmq::message_t> frames;
  for (int i = 0; i < kReceiveBatch; ++i) {
    frames.clear();
    if (!zmq::recv_multipart(subscriber, std::back_inserter(frames), zmq::recv_flags::dontwait)) {
      return false;
    }
    on_bus_message(frames);
  }
  return true;
}

void ZmqIpc::Impl::count_drop(std::atomic<std::uint64_t>& counter, std::string_view what) {
  counter.fetch_add(1);
  const auto now = Clock::now();
  std::uint64_t suppressed = 0;
  {
    std::lock_guard lock(drop_log_mutex);
    auto [last, first] = last_drop_log.try_emplace(what, now);
    if (!first && now - last->second < std::chrono::seconds(1)) {
      ++suppressed_drops[what];
      return;
    }
    last->second = now;
    suppressed = std::exchange(suppressed_drops[what], 0);
  }
  if (suppressed == 0) {
    log->warning("IPC endpoint {}: dropped a message ({})", name, what);
  } else {
    log->warning("IPC endpoint {}: dropped a message ({}); {} more dropped since the last report", name, what,
                 suppressed);
  }
}

std::optional<wire::Header> ZmqIpc::Impl::checked_header(const zmq::message_t& frame, const zmq::message_t& payload) {
  const auto decoded = wire::decode_header({frame.data<std::uint8_t>(), frame.size()});
  if (!decoded.header) {
    switch (decoded.error) {
      case wire::DecodeError::ShortHeader:
        count_drop(counters.short_headers, "short header");
        break;
      case wire::DecodeError::LongHeader:
        count_drop(counters.long_headers, "long header");
        break;
      case wire::DecodeError::BadVersion:
        count_drop(counters.bad_versions, "unknown version");
        break;
      case wire::DecodeError::BadKind:
        count_drop(counters.bad_kinds, "unknown kind");
        break;
    }
    return std::nullopt;
  }
  if (payload.size() > wire::kMaxPayload) {
    count_drop(counters.oversized, "payload above 64 KiB");
    return std::nullopt;
  }
  return decoded.header;
}

void ZmqIpc::Impl::on_inbox_message(std::vector<zmq::message_t>& frames, std::optional<Request>* keep) {
  // A ROUTER hands up the peer's identity first, then the two frames of the message.
  if (frames.size() != 3) {
    count_drop(counters.malformed, "wrong number of frames");
    return;
  }
  const auto header = checked_header(frames[1], frames[2]);
  if (!header) {
    return;
  }
  const std::span<const std::uint8_t> payload{frames[2].data<std::uint8_t>(), frames[2].size()};
  if (header->kind == wire::Kind::Request) {
    counters.requests_received.fetch_add(1);
    if (keep != nullptr && !keep->has_value()) {
      counters.requests_read_by_delivery_threads.fetch_add(1);
      keep->emplace(wire::to_request(*header, payload));
      return;
    }
    auto request = std::make_shared<Request>(wire::to_request(*header, payload));
    enqueue([this, request] { deliver_request(*request); }, false);
  } else if (header->kind == wire::Kind::Response) {
    std::unique_lock lock(pending_mutex);
    const auto waiting = pending.find(header->reply_tag);
    if (waiting == pending.end() || waiting->second->response) {
      lock.unlock();
      count_drop(counters.late_responses, "response without a waiting request");
      return;
    }
    // The waiter is woken after the lock is released, so that it does not wake only to block on it;
    // it keeps its PendingRequest alive itself.
    const std::shared_ptr<PendingRequest> request = waiting->second;
    request->response = wire::to_response(*header, payload);
    lock.unlock();
    if (reading_inbox && keep == nullptr) {  // read by a caller of request(), not a delivery thread
      counters.responses_read_by_callers.fetch_add(1);
    }
    request->ready.notify_one();
  } else {
    count_drop(counters.bad_kinds, "event sent to an inbox");
  }
}

void ZmqIpc::Impl::on_bus_message(std::vector<zmq::message_t>& frames) {
  if (frames.size() != 3) {
    count_drop(counters.malformed, "wrong number of frames");
    return;
  }
  const auto topic = wire::decode_topic({frames[0].data<std::uint8_t>(), frames[0].size()});
  if (!topic) {
    count_drop(counters.malformed, "bad topic frame");
    return;
  }
  const auto header = checked_header(frames[1], frames[2]);
  if (!header) {
    return;
  }
  if (header->kind != wire::Kind::Event) {
    count_drop(counters.bad_kinds, "request or response sent on the bus");
    return;
  }
  if (topic->group != header->group || topic->id != header->id) {
    count_drop(counters.malformed, "topic does not match the header");
    return;
  }
  counters.events_received.fetch_add(1);
  auto event = std::make_shared<Event>(wire::to_event(*header, {frames[2].data<std::uint8_t>(), frames[2].size()}));
  enqueue([this, event] { deliver_event(*event); }, true);
}

// ---------------------------------------------------------------------------------------------
// Delivery

void ZmqIpc::Impl::enqueue(std::function<void()> task, bool in_order) {
  bool queued = false;
  bool wake_worker = false;
  bool wake_reader = false;
  {
    std::lock_guard lock(queue_mutex);
    if (ordered_queue.size() + parallel_queue.size() < options.delivery_queue_capacity) {
      (in_order ? ordered_queue : parallel_queue).push_back(std::move(task));
      queued = true;
      // A delivery thread reading the inbox waits in poll(), not on queue_ready: it is woken only
      // when no other delivery thread sleeps (and not at all when it is the one queueing).
      wake_worker = sleeping_workers > 0;
      wake_reader = !wake_worker && inbox_reader == InboxReader::Worker && !reading_inbox;
    }
  }
  if (queued) {
    if (wake_worker) {
      queue_ready.notify_one();
    } else if (wake_reader) {
      const std::uint64_t one = 1;
      [[maybe_unused]] const auto written = ::write(reader_wake_fd, &one, sizeof one);
    }
    return;
  }
  // Dropping the newest keeps the I/O thread free to match responses; blocking it here could
  // deadlock a handler that waits for an answer of its own.
  count_drop(counters.queue_overflows, "delivery queue full");
}

bool ZmqIpc::Impl::take_inbox(InboxReader reader) {
  if (inbox_reader != InboxReader::Io || delivery_stopping || stopping.load()) {
    return false;
  }
  // A delivery thread of an endpoint that serves no request would only be woken for others'
  // answers and for every event: it leaves the inbox to the I/O thread and to the callers.
  if (reader == InboxReader::Worker && request_handler_count.load() == 0) {
    return false;
  }
  // Removing the descriptor from the I/O thread's set takes effect at once, even while that thread
  // waits on it, so the I/O thread is not woken for the change.
  // (ENOENT: an earlier hand-back could not add it again; it was logged then, and the inbox
  // is still read by whoever takes it.)
  if (::epoll_ctl(epoll_fd, EPOLL_CTL_DEL, inbox_fd, nullptr) != 0 && errno != ENOENT) {
    return false;
  }
  inbox_reader = reader;
  reading_inbox = true;
  return true;
}

std::optional<Request> ZmqIpc::Impl::read_inbox_until(InboxReader reader, const std::function<bool()>& done,
                                                      std::optional<Clock::time_point> deadline) {
  std::optional<Request> kept;
  std::optional<Request>* const keep = reader == InboxReader::Worker ? &kept : nullptr;
  std::array<pollfd, 2> fds{{{inbox_fd, POLLIN, 0}, {reader_wake_fd, POLLIN, 0}}};
  for (;;) {
    bool more = false;
    try {
      more = drain_inbox(keep);
    } catch (const std::exception& error) {
      log->error("IPC endpoint {}: receiving failed: {}", name, error.what());
    }
    bool finished = false;
    {
      std::lock_guard lock(queue_mutex);
      finished =
          stopping.load() || delivery_stopping || kept.has_value() || done() || (deadline && Clock::now() >= *deadline);
      if (finished) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u32 = kInboxTag;
        if (::epoll_ctl(epoll_fd, EPOLL_CTL_ADD, inbox_fd, &event) != 0) {
          log->error("IPC endpoint {}: cannot give the inbox back to the I/O thread: {}", name, std::strerror(errno));
        }
        inbox_reader = InboxReader::Io;
      }
    }
    if (finished) {
      reading_inbox = false;
      if (more) {
        // The inbox's notice was used up by this thread; the I/O thread reads the rest.
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(wake_fd, &one, sizeof one);
      }
      return kept;
    }
    if (more) {
      continue;
    }
    int timeout_ms = -1;
    if (deadline) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now());
      timeout_ms = static_cast<int>(std::max<std::int64_t>(left.count(), 0));
    }
    if (::poll(fds.data(), fds.size(), timeout_ms) > 0 && (fds[1].revents & POLLIN) != 0) {
      std::uint64_t value = 0;
      [[maybe_unused]] const auto got = ::read(reader_wake_fd, &value, sizeof value);
    }
  }
}

void ZmqIpc::Impl::delivery_loop() {
  for (;;) {
    std::function<void()> task;
    bool in_order = false;
    {
      std::unique_lock lock(queue_mutex);
      for (;;) {
        if (delivery_stopping) {
          return;
        }
        if (task_runnable()) {
          break;
        }
        if (take_inbox(InboxReader::Worker)) {
          // While idle, this thread reads the inbox itself and runs the first request it reads,
          // instead of waiting for the I/O thread to hand it over.
          lock.unlock();
          const auto request = read_inbox_until(
              InboxReader::Worker, [this] { return task_runnable(); }, std::nullopt);
          if (request) {
            deliver_request(*request);
          }
          lock.lock();
          continue;
        }
        ++sleeping_workers;
        queue_ready.wait(lock);
        --sleeping_workers;
      }
      // Events keep their order (a "maximum fan rate" must not overtake the "minimum" sent before
      // it), so only one of them runs at a time; requests take any free thread.
      if (!ordered_running && !ordered_queue.empty()) {
        task = std::move(ordered_queue.front());
        ordered_queue.pop_front();
        ordered_running = true;
        in_order = true;
      } else {
        task = std::move(parallel_queue.front());
        parallel_queue.pop_front();
      }
    }
    task();
    if (in_order) {
      {
        std::lock_guard lock(queue_mutex);
        ordered_running = false;
      }
      queue_ready.notify_one();
    }
  }
}

namespace {

/// Runs one handler entry: counts it in flight so that unsubscribe can wait for it, and turns an
/// exception or error that leaves it into a log line.
template <typename Entry, typename Message>
bool run_entry(std::mutex& mutex, std::condition_variable& done, const std::shared_ptr<Entry>& entry,
               const Message& message, logger::ILogger& log, std::string_view endpoint, std::string_view what,
               Key key) {
  current_entry = entry.get();
  const Result<void> result = core::guarded_call(log, [&]() -> Result<void> { return entry->handler(message); });
  current_entry = nullptr;
  {
    std::lock_guard lock(mutex);
    --entry->in_flight;
  }
  done.notify_all();
  if (result.has_error()) {
    log.error("IPC endpoint {}: the handler of {} {} failed: {}", endpoint, what, key_text(key),
              result.error().to_string());
    return false;
  }
  return true;
}

}  // namespace

void ZmqIpc::Impl::deliver_request(const Request& request) {
  const Key key{request.group, request.id};
  std::shared_ptr<RequestEntry> entry;
  {
    std::lock_guard lock(handlers_mutex);
    const auto found = request_handlers.find(key);
    if (found != request_handlers.end()) {
      entry = found->second;
      ++entry->in_flight;
    }
  }
  if (!entry) {
    count_drop(counters.unrouted, "request with no handler");
    return;
  }
  if (!run_entry(handlers_mutex, handler_done, entry, request, *log, name, "request", key)) {
    counters.handler_failures.fetch_add(1);
  }
}

void ZmqIpc::Impl::deliver_event(const Event& event) {
  const Key key{event.group, event.id};
  // One message may match both a subscription of its exact key and one of its whole group. Each
  // handler is looked up just before it runs, so the first may unsubscribe the second.
  const std::array<Key, 2> keys{key, Key{event.group, kAnyId}};
  bool delivered = false;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (i == 1 && key.id == kAnyId) {
      break;
    }
    std::shared_ptr<EventEntry> entry;
    {
      std::lock_guard lock(handlers_mutex);
      const auto found = event_handlers.find(keys[i]);
      if (found == event_handlers.end()) {
        continue;
      }
      entry = found->second;
      ++entry->in_flight;
    }
    delivered = true;
    if (!run_entry(handlers_mutex, handler_done, entry, event, *log, name, "event", key)) {
      counters.handler_failures.fetch_add(1);
    }
  }
  if (!delivered) {
    count_drop(counters.unrouted, "event with no handler");
  }
}

// ---------------------------------------------------------------------------------------------
// Sending

Outlet& ZmqIpc::Impl::outlet_for(Address destination) {
  std::lock_guard lock(outlets_mutex);
  auto& slot = outlets[destination];
  if (!slot) {
    auto outlet = std::make_unique<Outlet>();
    outlet->socket = zmq::socket_t(context, zmq::socket_type::dealer);
    set_common_options(outlet->socket, options.linger);
    outlet->socket.set(zmq::sockopt::sndhwm, options.send_high_water_mark);
    outlet->socket.connect(inbox_endpoint(destination));
    slot = std::move(outlet);
  }
  return *slot;
}

Result<void> ZmqIpc::Impl::send_frames(Outlet& outlet, std::span<const std::span<const std::uint8_t>> frames,
                                       std::optional<Address> destination) {
  // Formatted only on failure: this is the hot path of every message.
  const auto what = [&] {
    return destination ? fmt::format("to 0x{:08x}", *destination) : std::string("to the event bus");
  };
  std::lock_guard lock(outlet.mutex);
  try {
    for (std::size_t i = 0; i < frames.size(); ++i) {
      auto flags = zmq::send_flags::dontwait;
      if (i + 1 < frames.size()) {
        flags = flags | zmq::send_flags::sndmore;
      }
      // ZeroMQ accepts the later frames of a message once it has taken the first one.
      if (!outlet.socket.send(zmq::const_buffer(frames[i].data(), frames[i].size()), flags)) {
        return core::ErrorPayload(core::Error::Overflow,
                                  fmt::format("The send queue {} is full; the message was not sent", what()));
      }
    }
  } catch (const zmq::error_t& error) {
    return core::ErrorPayload(core::Error::CommonError, fmt::format("Sending {} failed: {}", what(), error.what()));
  }
  return core::success();
}

void ZmqIpc::Impl::queue_command(const SubscriptionCommand& command) {
  {
    std::lock_guard lock(command_mutex);
    commands.push_back(command);
  }
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(wake_fd, &one, sizeof one);
}

// ---------------------------------------------------------------------------------------------
// The interface

ZmqIpc::ZmqIpc(Address address, std::string_view name, const ZmqIpcOptions& options)
    : impl_(std::make_unique<Impl>(address, name, options)) {}

ZmqIpc::~ZmqIpc() = default;

Result<void> ZmqIpc::subscribe_request(Key key, RequestHandler handler) {
  if (!handler) {
    return core::ErrorPayload(core::Error::InvalidInputArg, "Empty request handler for " + key_text(key));
  }
  std::lock_guard lock(impl_->handlers_mutex);
  const auto [where, added] = impl_->request_handlers.try_emplace(key);
  if (!added) {
    return core::ErrorPayload(core::Error::Already, "Request " + key_text(key) + " already has a handler");
  }
  where->second = std::make_shared<RequestEntry>(std::move(handler));
  impl_->request_handler_count.fetch_add(1);
  return core::success();
}

namespace {

/// Removes a handler and waits until no delivery thread runs it any more (unless the caller is
/// that handler itself), so that whatever the handler refers to may be destroyed afterwards.
template <typename Entry>
Result<void> remove_entry(std::mutex& mutex, std::condition_variable& done, std::map<Key, std::shared_ptr<Entry>>& map,
                          Key key, std::string_view what) {
  std::unique_lock lock(mutex);
  const auto found = map.find(key);
  if (found == map.end()) {
    return core::ErrorPayload(core::Error::Empty, fmt::format("No {} handler for {}", what, key_text(key)));
  }
  const std::shared_ptr<Entry> entry = found->second;
  map.erase(found);
  const int own = current_entry == entry.get() ? 1 : 0;
  done.wait(lock, [&] { return entry->in_flight <= own; });
  return core::success();
}

}  // namespace

Result<void> ZmqIpc::unsubscribe_request(Key key) {
  auto removed = remove_entry(impl_->handlers_mutex, impl_->handler_done, impl_->request_handlers, key, "request");
  if (removed.has_value()) {
    impl_->request_handler_count.fetch_sub(1);
  }
  return removed;
}

Result<void> ZmqIpc::subscribe_event(Key key, EventHandler handler) {
  if (!handler) {
    return core::ErrorPayload(core::Error::InvalidInputArg, "Empty event handler for " + key_text(key));
  }
  {
    std::lock_guard lock(impl_->handlers_mutex);
    const auto [where, added] = impl_->event_handlers.try_emplace(key);
    if (!added) {
      return core::ErrorPayload(core::Error::Already, "Event " + key_text(key) + " already has a handler");
    }
    where->second = std::make_shared<EventEntry>(std::move(handler));
  }
  SubscriptionCommand command{true, {}, 0};
  command.prefix = wire::subscription_prefix(key, command.length);
  impl_->queue_command(command);
  return core::success();
}

Result<void> ZmqIpc::unsubscribe_event(Key key) {
  auto removed = remove_entry(impl_->handlers_mutex, impl_->handler_done, impl_->event_handlers, key, "event");
  if (removed.has_error()) {
    return removed;
  }
  SubscriptionCommand command{false, {}, 0};
  command.prefix = wire::subscription_prefix(key, command.length);
  impl_->queue_command(command);
  return core::success();
}

Result<void> ZmqIpc::send_response(Address address, const Response& response) {
  if (response.payload.size() > wire::kMaxPayload) {
    return core::ErrorPayload(core::Error::InvalidInputArg,
                              fmt::format("Response payload of {} bytes is above 64 KiB", response.payload.size()));
  }
  const auto header = wire::encode_header(wire::response_header(impl_->address, response));
  const std::array<std::span<const std::uint8_t>, 2> frames{std::span<const std::uint8_t>(header),
                                                            std::span<const std::uint8_t>(response.payload)};
  return impl_->send_frames(impl_->outlet_for(address), frames, address);
}

Result<void> ZmqIpc::send_event(const Event& event) {
  if (event.payload.size() > wire::kMaxPayload) {
    return core::ErrorPayload(core::Error::InvalidInputArg,
                              fmt::format("Event payload of {} bytes is above 64 KiB", event.payload.size()));
  }
  const auto topic = wire::encode_topic(Key{event.group, event.id});
  const auto header = wire::encode_header(wire::event_header(impl_->source_word, event));
  const std::array<std::span<const std::uint8_t>, 3> frames{std::span<const std::uint8_t>(topic),
                                                            std::span<const std::uint8_t>(header),
                                                            std::span<const std::uint8_t>(event.payload)};
  return impl_->send_frames(impl_->bus, frames, std::nullopt);
}

Result<void> ZmqIpc::connect(Address address) {
  try {
    impl_->outlet_for(address);
  } catch (const zmq::error_t& error) {
    return core::ErrorPayload(core::Error::CommonError,
                              fmt::format("Cannot connect to 0x{:08x}: {}", address, error.what()));
  }
  return core::success();
}

Result<Response> ZmqIpc::request(Address address, Request request, std::chrono::milliseconds timeout) {
  if (request.payload.size() > wire::kMaxPayload) {
    return core::ErrorPayload(core::Error::InvalidInputArg,
                              fmt::format("Request payload of {} bytes is above 64 KiB", request.payload.size()));
  }
  Impl& impl = *impl_;
  auto waiting = std::make_shared<PendingRequest>();
  std::uint16_t tag = 0;
  {
    std::lock_guard lock(impl.pending_mutex);
    if (impl.pending.size() >= 0xFFFFU) {
      return core::ErrorPayload(core::Error::Overflow, "Every reply tag is in use");
    }
    do {
      tag = impl.next_tag++;
    } while (tag == 0 || impl.pending.contains(tag));
    impl.pending.emplace(tag, waiting);
  }
  request.reply_to = ReplyTo{impl.address, tag};
  const auto header = wire::encode_header(wire::request_header(impl.address, address, request));
  const std::array<std::span<const std::uint8_t>, 2> frames{std::span<const std::uint8_t>(header),
                                                            std::span<const std::uint8_t>(request.payload)};
  Result<void> sent = core::success();
  try {
    sent = impl.send_frames(impl.outlet_for(address), frames, address);
  } catch (const zmq::error_t& error) {
    sent = core::ErrorPayload(core::Error::CommonError,
                              fmt::format("Cannot connect to 0x{:08x}: {}", address, error.what()));
  }
  if (sent.has_error()) {
    std::lock_guard lock(impl.pending_mutex);
    impl.pending.erase(tag);
    return sent.error();
  }
  const auto deadline = Clock::now() + timeout;
  bool reading = false;
  {
    std::lock_guard lock(impl.queue_mutex);
    reading = impl.take_inbox(InboxReader::Requester);
  }
  if (reading) {
    // The caller reads its answer itself (and passes on whatever else it reads) while the inbox
    // is free, rather than being woken by the I/O thread.
    impl.read_inbox_until(
        InboxReader::Requester,
        [&] {
          std::lock_guard lock(impl.pending_mutex);
          return waiting->response.has_value();
        },
        deadline);
  }
  std::unique_lock lock(impl.pending_mutex);
  waiting->ready.wait_until(lock, deadline, [&] { return waiting->response.has_value() || impl.stopping.load(); });
  // Once the tag leaves the map, an answer that still arrives is late and is dropped.
  impl.pending.erase(tag);
  if (!waiting->response) {
    return core::ErrorPayload(core::Error::InvalidState,
                              fmt::format("No response from 0x{:08x} to request {}:{} within {} ms", address,
                                          request.group, request.id, timeout.count()));
  }
  return std::move(*waiting->response);
}

Address ZmqIpc::address() const {
  return impl_->address;
}

Address ZmqIpc::event_source() const {
  return impl_->source_word;
}

IpcStats ZmqIpc::stats() const {
  const auto& c = impl_->counters;
  IpcStats stats;
  stats.short_headers = c.short_headers.load();
  stats.long_headers = c.long_headers.load();
  stats.bad_versions = c.bad_versions.load();
  stats.bad_kinds = c.bad_kinds.load();
  stats.oversized = c.oversized.load();
  stats.malformed = c.malformed.load();
  stats.queue_overflows = c.queue_overflows.load();
  stats.unrouted = c.unrouted.load();
  stats.late_responses = c.late_responses.load();
  stats.handler_failures = c.handler_failures.load();
  stats.requests_received = c.requests_received.load();
  stats.events_received = c.events_received.load();
  stats.requests_read_by_delivery_threads = c.requests_read_by_delivery_threads.load();
  stats.responses_read_by_callers = c.responses_read_by_callers.load();
  return stats;
}

std::shared_ptr<ZmqIpc> make_zmq_endpoint(Address address, std::string_view name, const ZmqIpcOptions& options) {
  return std::make_shared<ZmqIpc>(address, name, options);
}

std::shared_ptr<ZmqIpc> make_zmq_endpoint_in_range(std::uint16_t first, std::uint16_t last, std::string_view name,
                                                   const ZmqIpcOptions& options) {
  for (unsigned application = first; application <= last; ++application) {
    try {
      return make_zmq_endpoint(make_address(static_cast<std::uint16_t>(application)), name, options);
    } catch (const AddressInUse&) {
      // Taken by another client: try the next one.
    }
  }
  throw std::runtime_error(fmt::format("IPC endpoint {}: every address from 0x{:08x} to 0x{:08x} is in use", name,
                                       make_address(first), make_address(last)));
}

std::shared_ptr<IIpc> make_zmq_ipc(Address address, std::string_view name, const ZmqIpcOptions& options) {
  return make_zmq_endpoint(address, name, options);
}

}  // namespace xpon::ipc
