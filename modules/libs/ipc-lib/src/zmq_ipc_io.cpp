// The I/O thread: waits on the bus subscriber, the inbox (while no other thread reads it) and its
// wake-up descriptor; checks what peers send, matches responses to waiting requests and queues
// requests and events for the delivery threads.
#include "zmq_ipc_impl.hpp"

#include <sys/epoll.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <iterator>
#include <utility>
#include <zmq_addon.hpp>

namespace xpon::ipc {

using namespace detail;

namespace {

/// Messages taken from one socket before the other sockets get their turn.
constexpr int kReceiveBatch = 256;

}  // namespace

void ZmqIpc::Impl::io_loop() {
  // A ZeroMQ socket's descriptor only tells that the socket's state may have changed, and only
  // once: a socket is read until it has nothing more (or a batch is done) before the thread
  // sleeps on it again; after a full batch the next round reads every socket without sleeping.
  std::array<epoll_event, 3> events{};
  bool read_all = true;
  while (!stopping.load()) {
    try {
      // Idle links are closed here too; with none open the thread sleeps until woken.
      const int expiry_wait = expire_outlets();
      const int count =
          ::epoll_wait(epoll_fd.get(), events.data(), static_cast<int>(events.size()), read_all ? 0 : expiry_wait);
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
        [[maybe_unused]] const auto got = core::read_once(wake_fd.get(), &value, sizeof value);
        // Changing subscriptions may take the subscriber's notice, and an inbox or a subscriber
        // given back in the middle of a batch has no notice left: both are read now.
        inbox_due = true;
        subscriber_due = true;
      }
      bool more = false;
      if (inbox_due) {
        more = read_inbox_as_io() || more;
      }
      if (subscriber_due) {
        more = serve_subscriber_as_io(woken) || more;
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

bool ZmqIpc::Impl::serve_subscriber_as_io(bool apply) {
  bool changes = false;
  if (apply) {
    std::lock_guard lock(command_mutex);
    changes = !commands.empty();
  }
  {
    std::lock_guard lock(queue_mutex);
    if (subscriber_reader != SubscriberReader::Io) {
      // A delivery thread reads it: it gives it back, and wakes this thread, once asked.
      if (changes && !subscriber_wanted) {
        subscriber_wanted = true;
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = core::write_once(subscriber_wake_fd.get(), &one, sizeof one);
      }
      return false;
    }
    subscriber_reader = SubscriberReader::IoReading;
  }
  bool more = false;
  try {
    if (changes) {
      apply_commands();
    }
    more = drain_subscriber(nullptr);
  } catch (...) {
    std::lock_guard lock(queue_mutex);
    subscriber_reader = SubscriberReader::Io;
    throw;
  }
  std::lock_guard lock(queue_mutex);
  subscriber_reader = SubscriberReader::Io;
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

bool ZmqIpc::Impl::drain_subscriber(std::optional<Event>* keep) {
  std::vector<zmq::message_t> frames;
  for (int i = 0; i < kReceiveBatch; ++i) {
    frames.clear();
    if (!zmq::recv_multipart(subscriber, std::back_inserter(frames), zmq::recv_flags::dontwait)) {
      return false;
    }
    on_bus_message(frames, keep);
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

void ZmqIpc::Impl::on_bus_message(std::vector<zmq::message_t>& frames, std::optional<Event>* keep) {
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
  Event event = wire::to_event(*header, {frames[2].data<std::uint8_t>(), frames[2].size()});
  if (keep != nullptr && !keep->has_value()) {
    // Run by the delivery thread that read it only when it would have been the next to run.
    std::lock_guard lock(queue_mutex);
    if (!ordered_running && ordered_queue.empty() && parallel_queue.size() < options.delivery_queue_capacity) {
      ordered_running = true;
      keep->emplace(std::move(event));
      return;
    }
  }
  auto shared = std::make_shared<Event>(std::move(event));
  enqueue([this, shared] { deliver_event(*shared); }, true);
}

}  // namespace xpon::ipc
