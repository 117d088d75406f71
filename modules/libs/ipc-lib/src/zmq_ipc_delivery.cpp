// The delivery threads, which run the handlers, and the hand-over of the inbox to a thread that
// would otherwise only wait (an idle delivery thread, a caller of request()), and of the bus
// subscriber to an idle delivery thread.
#include "zmq_ipc_impl.hpp"

#include "xpon/core/guard.hpp"

#include <poll.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>

namespace xpon::ipc {

using namespace detail;

constinit thread_local const void* detail::current_entry = nullptr;
constinit thread_local bool detail::reading_inbox = false;
constinit thread_local bool detail::reading_subscriber = false;

void ZmqIpc::Impl::enqueue(std::function<void()> task, bool in_order) {
  bool queued = false;
  bool wake_worker = false;
  bool wake_reader = false;
  bool wake_subscriber_reader = false;
  {
    std::lock_guard lock(queue_mutex);
    if (ordered_queue.size() + parallel_queue.size() < options.delivery_queue_capacity) {
      (in_order ? ordered_queue : parallel_queue).push_back(std::move(task));
      queued = true;
      // A delivery thread reading the inbox waits in poll(), not on queue_ready: it is woken only
      // when no other delivery thread sleeps (and not at all when it is the one queueing).
      wake_worker = sleeping_workers > 0;
      wake_reader = !wake_worker && inbox_reader == InboxReader::Worker && !reading_inbox;
      // Then one reading the subscriber, unless the inbox's reader queued the task (it runs it).
      wake_subscriber_reader = !wake_worker && !wake_reader && !reading_inbox &&
                               subscriber_reader == SubscriberReader::Worker && !reading_subscriber;
    }
  }
  if (queued) {
    const std::uint64_t one = 1;
    if (wake_worker) {
      queue_ready.notify_one();
    } else if (wake_reader) {
      [[maybe_unused]] const auto written = core::write_once(reader_wake_fd.get(), &one, sizeof one);
    } else if (wake_subscriber_reader) {
      [[maybe_unused]] const auto written = core::write_once(subscriber_wake_fd.get(), &one, sizeof one);
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
  if (::epoll_ctl(epoll_fd.get(), EPOLL_CTL_DEL, inbox_fd, nullptr) != 0 && errno != ENOENT) {
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
  std::array<pollfd, 2> fds{{{inbox_fd, POLLIN, 0}, {reader_wake_fd.get(), POLLIN, 0}}};
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
        give_back_to_io(inbox_fd, kInboxTag, "inbox");
        inbox_reader = InboxReader::Io;
      }
    }
    if (finished) {
      reading_inbox = false;
      if (more) {
        // The inbox's notice was used up by this thread; the I/O thread reads the rest.
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = core::write_once(wake_fd.get(), &one, sizeof one);
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
      [[maybe_unused]] const auto got = core::read_once(reader_wake_fd.get(), &value, sizeof value);
    }
  }
}

void ZmqIpc::Impl::give_back_to_io(int fd, std::uint32_t tag, std::string_view what) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u32 = tag;
  if (::epoll_ctl(epoll_fd.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
    log->error("IPC endpoint {}: cannot give the {} back to the I/O thread: {}", name, what, std::strerror(errno));
  }
}

bool ZmqIpc::Impl::take_subscriber() {
  if (subscriber_reader != SubscriberReader::Io || subscriber_wanted || delivery_stopping || stopping.load() ||
      event_handler_count.load() == 0) {
    return false;
  }
  // As for the inbox: the I/O thread stops waiting for it at once, without being woken.
  if (::epoll_ctl(epoll_fd.get(), EPOLL_CTL_DEL, subscriber_fd, nullptr) != 0 && errno != ENOENT) {
    return false;
  }
  subscriber_reader = SubscriberReader::Worker;
  reading_subscriber = true;
  return true;
}

std::optional<Event> ZmqIpc::Impl::read_subscriber() {
  std::optional<Event> kept;
  std::array<pollfd, 2> fds{{{subscriber_fd, POLLIN, 0}, {subscriber_wake_fd.get(), POLLIN, 0}}};
  for (;;) {
    bool more = false;
    try {
      // Read until nothing is left (or a batch is full), so that the subscriber is given back
      // with its notice intact: the I/O thread then needs no wake-up for it.
      more = drain_subscriber(&kept);
    } catch (const std::exception& error) {
      log->error("IPC endpoint {}: receiving failed: {}", name, error.what());
    }
    bool finished = false;
    bool wake_io = more;
    {
      std::lock_guard lock(queue_mutex);
      finished = stopping.load() || delivery_stopping || kept.has_value() || subscriber_wanted || task_runnable();
      if (finished) {
        give_back_to_io(subscriber_fd, kSubscriberTag, "subscriber");
        subscriber_reader = SubscriberReader::Io;
        wake_io = std::exchange(subscriber_wanted, false) || wake_io;
      }
    }
    if (finished) {
      reading_subscriber = false;
      if (wake_io) {
        // Subscription changes wait, or the rest of a full batch: the I/O thread takes them.
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = core::write_once(wake_fd.get(), &one, sizeof one);
      }
      return kept;
    }
    if (more) {
      continue;
    }
    if (::poll(fds.data(), fds.size(), -1) > 0 && (fds[1].revents & POLLIN) != 0) {
      std::uint64_t value = 0;
      [[maybe_unused]] const auto got = core::read_once(subscriber_wake_fd.get(), &value, sizeof value);
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
        if (take_subscriber()) {
          // Or it reads the subscriber and runs the first event it reads, in its turn.
          lock.unlock();
          const auto event = read_subscriber();
          if (event) {
            deliver_event(*event);
            {
              std::lock_guard done(queue_mutex);
              ordered_running = false;
            }
            queue_ready.notify_one();
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
  // A request whose answer could not be sent is not run: refused here, before its handler does
  // the work and fails to send, the refusal is one rate-limited log line, not one per request.
  if (request.reply_to && !can_reach(request.reply_to->address)) {
    return;
  }
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

}  // namespace xpon::ipc
