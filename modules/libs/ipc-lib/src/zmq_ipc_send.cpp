// Sending: one DEALER per destination, the bus PUSH, the subscription commands for the I/O thread,
// and request(), which waits for its answer (reading it itself while the inbox is free).
#include "zmq_ipc_impl.hpp"

#include "descriptors.hpp"
#include "xpon/ipc/paths.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace xpon::ipc {

using namespace detail;

namespace {

/// What the refusal log line and its rate limit go by.
constexpr std::string_view kRefusal = "no descriptor to spare for a link to a new destination";

}  // namespace

Result<std::shared_ptr<Outlet>> ZmqIpc::Impl::outlet_for(Address destination) {
  const auto now = Clock::now();
  // Declared before the lock: evicted sockets are closed once it is released.
  std::vector<std::shared_ptr<Outlet>> closing;
  std::string refusal;
  {
    std::lock_guard lock(outlets_mutex);
    if (auto found = outlets.find(destination, now)) {
      return found;
    }
    // A full cache gives back the descriptors of the link it closes (once ZeroMQ has reaped it).
    const bool full = outlets.size() >= options.outlet_cache_size;
    while (outlets.size() >= options.outlet_cache_size) {
      closing.push_back(outlets.take_least_recent());
      counters.outlets_evicted.fetch_add(1);
    }
    if (process_has_descriptors(full ? 0 : kDescriptorsPerOutlet)) {
      try {
        auto outlet = std::make_shared<Outlet>();
        outlet->socket = zmq::socket_t(context, zmq::socket_type::dealer);
        set_common_options(outlet->socket, options.linger);
        outlet->socket.set(zmq::sockopt::sndhwm, options.send_high_water_mark);
        outlet->socket.connect(inbox_endpoint(destination));
        const bool was_empty = outlets.size() == 0;
        outlets.insert(destination, outlet, now);
        open_outlets.store(outlets.size());
        if (was_empty && options.outlet_idle_expiry.count() > 0) {
          // The I/O thread sleeps without a time-out while no link is open; it now has one to expire.
          const std::uint64_t one = 1;
          [[maybe_unused]] const auto written = core::write_once(wake_fd.get(), &one, sizeof one);
        }
        return outlet;
      } catch (const zmq::error_t& error) {
        open_outlets.store(outlets.size());
        if (error.num() != EMFILE) {
          return core::ErrorPayload(core::Error::CommonError,
                                    fmt::format("Cannot connect to 0x{:08x}: {}", destination, error.what()));
        }
        refusal = fmt::format("ZeroMQ: {}", error.what());  // its socket limit, set from the cache size
      }
    } else {
      refusal = "the process is near its limit of open files";
      open_outlets.store(outlets.size());
    }
  }
  count_drop(counters.descriptor_refusals, kRefusal);
  return core::ErrorPayload(core::Error::Overflow,
                            fmt::format("No link to 0x{:08x} was opened: {}", destination, refusal));
}

bool ZmqIpc::Impl::can_reach(Address destination) {
  {
    std::lock_guard lock(outlets_mutex);
    if (outlets.contains(destination)) {
      return true;
    }
    if (process_has_descriptors(outlets.size() >= options.outlet_cache_size ? 0 : kDescriptorsPerOutlet)) {
      return true;
    }
  }
  count_drop(counters.descriptor_refusals, kRefusal);
  return false;
}

int ZmqIpc::Impl::expire_outlets() {
  if (options.outlet_idle_expiry.count() <= 0) {
    return -1;
  }
  const auto now = Clock::now();
  std::vector<std::shared_ptr<Outlet>> closing;  // closed once the lock is released
  std::optional<Clock::time_point> oldest;
  {
    std::lock_guard lock(outlets_mutex);
    closing = outlets.take_unused_since(now - options.outlet_idle_expiry);
    counters.outlets_expired.fetch_add(closing.size());
    open_outlets.store(outlets.size());
    oldest = outlets.oldest_use();
  }
  if (!oldest) {
    return -1;
  }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*oldest + options.outlet_idle_expiry - now);
  return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(left.count(), 1, INT_MAX));
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
  [[maybe_unused]] const auto written = core::write_once(wake_fd.get(), &one, sizeof one);
}

Result<void> ZmqIpc::send_response(Address address, const Response& response) {
  if (response.payload.size() > wire::kMaxPayload) {
    return core::ErrorPayload(core::Error::InvalidInputArg,
                              fmt::format("Response payload of {} bytes is above 64 KiB", response.payload.size()));
  }
  const auto header = wire::encode_header(wire::response_header(impl_->address, response));
  const std::array<std::span<const std::uint8_t>, 2> frames{std::span<const std::uint8_t>(header),
                                                            std::span<const std::uint8_t>(response.payload)};
  auto outlet = impl_->outlet_for(address);
  if (!outlet) {
    return outlet.error();
  }
  return impl_->send_frames(*outlet.value(), frames, address);
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
  auto outlet = impl_->outlet_for(address);
  if (!outlet) {
    return outlet.error();
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
  const auto header = wire::encode_header(wire::request_header(impl.address, request));
  const std::array<std::span<const std::uint8_t>, 2> frames{std::span<const std::uint8_t>(header),
                                                            std::span<const std::uint8_t>(request.payload)};
  auto outlet = impl.outlet_for(address);
  Result<void> sent = core::success();
  if (outlet) {
    sent = impl.send_frames(*outlet.value(), frames, address);
  } else {
    sent = outlet.error();
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

}  // namespace xpon::ipc
