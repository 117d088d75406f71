// The endpoint: making it (lock file, sockets, threads) and closing it, its handler table and its
// counters. The I/O thread, the delivery threads and the sending have sources of their own.
#include "zmq_ipc_impl.hpp"

#include "xpon/ipc/paths.hpp"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace xpon::ipc {

using namespace detail;

namespace {

/// Receive-side limit: large enough that an oversized payload still arrives whole and is counted,
/// small enough that a hostile peer cannot make the endpoint buffer arbitrary amounts.
constexpr std::int64_t kMaxReceivedMessage = std::int64_t{1024} * 1024;

/// First reconnection interval of every connecting socket; short so a restarted peer or bus is
/// found fast. A connection that was up and is lost starts again from this interval.
constexpr int kReconnectIntervalMs = 50;

/// ZeroMQ doubles the interval after each failed attempt up to this (plus up to 50 ms of
/// jitter): a peer that stays away (an LC or FC board without its Election Manager) costs one
/// attempt every 2 s instead of twenty a second, and a peer back after a long absence is found
/// within about 2 s.
constexpr int kReconnectIntervalMaxMs = 2000;

/// Sockets closed by the endpoint that ZeroMQ's reaper thread may not have freed yet, beyond
/// one per cached link: even a link with nothing queued is freed a moment after it is closed.
constexpr std::size_t kClosingSocketMargin = 32;

/// ZeroMQ's own socket limit for an endpoint: its three sockets (inbox, subscriber, bus), the
/// cached links, as many again still closing (lingering with messages for an absent peer) after
/// an eviction, and a margin. Beyond it ZeroMQ refuses a new socket (EMFILE), which the endpoint
/// counts as a refusal: a flood of new destinations cannot pile up closing sockets without bound.
int socket_limit(std::size_t outlet_cache_size) {
  const std::size_t cache = std::clamp<std::size_t>(outlet_cache_size, 1, 16384);
  return static_cast<int>(3 + 2 * cache + kClosingSocketMargin);
}

/// The longest idle expiry of a link that is kept as given.
constexpr std::chrono::milliseconds kLongestIdleExpiry = std::chrono::hours(24 * 365);

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

}  // namespace

void detail::set_common_options(zmq::socket_t& socket, std::chrono::milliseconds linger) {
  socket.set(zmq::sockopt::linger, static_cast<int>(linger.count()));
  socket.set(zmq::sockopt::reconnect_ivl, kReconnectIntervalMs);
  socket.set(zmq::sockopt::reconnect_ivl_max, kReconnectIntervalMaxMs);
}

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

ZmqIpc::Impl::Impl(Address own, std::string_view endpoint_name, const ZmqIpcOptions& given)
    : address(own),
      source_word(event_source_for(own)),
      name(endpoint_name),
      options(given),
      log(given.logger ? given.logger : std::make_shared<StderrLogger>()),
      context(1, socket_limit(given.outlet_cache_size)) {
  options.outlet_cache_size = std::clamp<std::size_t>(options.outlet_cache_size, 1, 16384);
  // Bounded so that "now less the expiry" stays a valid time point.
  options.outlet_idle_expiry = std::min(options.outlet_idle_expiry, kLongestIdleExpiry);
  if (options.delivery_threads == 0) {
    options.delivery_threads = 1;
  }
  if (options.delivery_queue_capacity == 0) {
    options.delivery_queue_capacity = 1;
  }
  ensure_ipc_directory();
  const std::string lock_path = ipc_directory() + "/" + address_hex(address) + ".lock";
  lock_fd.reset(::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  if (!lock_fd) {
    throw std::runtime_error(fmt::format("IPC endpoint {}: cannot open the lock file of address 0x{:08x}: {}", name,
                                         address, std::strerror(errno)));
  }
  if (::flock(lock_fd.get(), LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    lock_fd.reset();
    if (error == EWOULDBLOCK) {
      throw AddressInUse(
          fmt::format("IPC endpoint {}: address 0x{:08x} is already owned by another endpoint", name, address));
    }
    throw std::runtime_error(
        fmt::format("IPC endpoint {}: cannot lock address 0x{:08x}: {}", name, address, std::strerror(error)));
  }
  const auto close_descriptors = [this] {
    epoll_fd.reset();
    subscriber_wake_fd.reset();
    reader_wake_fd.reset();
    wake_fd.reset();
    lock_fd.reset();
  };
  try {
    wake_fd.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    reader_wake_fd.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    subscriber_wake_fd.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake_fd || !reader_wake_fd || !subscriber_wake_fd) {
      throw std::runtime_error(fmt::format("IPC endpoint {}: eventfd failed: {}", name, std::strerror(errno)));
    }
    epoll_fd.reset(::epoll_create1(EPOLL_CLOEXEC));
    if (!epoll_fd) {
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
    subscriber_fd = subscriber.get(zmq::sockopt::fd);
    for (const auto& [fd, tag] : {std::pair{inbox_fd, kInboxTag}, std::pair{subscriber_fd, kSubscriberTag},
                                  std::pair{wake_fd.get(), kWakeTag}}) {
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.u32 = tag;
      if (::epoll_ctl(epoll_fd.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
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
  [[maybe_unused]] const auto written = core::write_once(wake_fd.get(), &one, sizeof one);
  // A delivery thread or a caller reading the inbox gives it up and returns.
  [[maybe_unused]] const auto also_written = core::write_once(reader_wake_fd.get(), &one, sizeof one);
  // So does a delivery thread reading the subscriber.
  [[maybe_unused]] const auto subscriber_written = core::write_once(subscriber_wake_fd.get(), &one, sizeof one);
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
    (void)outlets.take_all();
    open_outlets.store(0);
  }
  context.close();
  epoll_fd.reset();
  subscriber_wake_fd.reset();
  reader_wake_fd.reset();
  wake_fd.reset();
  lock_fd.reset();
}

ZmqIpc::Impl::~Impl() {
  stop_threads();
  close_all();
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
    impl_->event_handler_count.fetch_add(1);
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
  impl_->event_handler_count.fetch_sub(1);
  SubscriptionCommand command{false, {}, 0};
  command.prefix = wire::subscription_prefix(key, command.length);
  impl_->queue_command(command);
  return core::success();
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
  stats.outlets_evicted = c.outlets_evicted.load();
  stats.outlets_expired = c.outlets_expired.load();
  stats.descriptor_refusals = c.descriptor_refusals.load();
  stats.open_outlets = impl_->open_outlets.load();
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
