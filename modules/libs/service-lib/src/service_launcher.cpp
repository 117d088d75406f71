#include "xpon/service/service_launcher.hpp"

#include "xpon/core/file_descriptor.hpp"
#include "xpon/core/guard.hpp"

#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>
#include <variant>

namespace xpon::service {

namespace {

using core::Error;
using core::ErrorPayload;

// A signal handler may call stop() at any moment; only a lock-free flag is safe there.
static_assert(std::atomic<bool>::is_always_lock_free);

struct MasterChange {
  std::uint16_t master_slot;
};

using Delivery = std::variant<std::vector<Config_change>, MasterChange>;

}  // namespace

Result<std::uint16_t> parse_master_changed(std::span<const std::uint8_t> payload) {
  if (payload.size() != 2) {
    return ErrorPayload(Error::InvalidInputArg,
                        fmt::format("payload of {} bytes, expected 2 (the master slot)", payload.size()));
  }
  return static_cast<std::uint16_t>(payload[0] | (payload[1] << 8U));
}

// What the event handlers share with the launcher's thread.
struct ServiceLauncher::Inbox {
  Inbox() : wake_fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!wake_fd) {
      throw std::runtime_error(fmt::format("Unable to create the launcher's eventfd: {}", std::strerror(errno)));
    }
  }
  Inbox(const Inbox&) = delete;
  Inbox& operator=(const Inbox&) = delete;

  // Async-signal-safe: write(2) on an eventfd, errno kept as it was.
  bool wake() const noexcept {
    const int saved_errno = errno;
    const std::uint64_t one = 1;
    const bool written = core::write_once(wake_fd.get(), &one, sizeof one) == static_cast<ssize_t>(sizeof one);
    errno = saved_errno;
    return written;
  }

  void drain_wake_ups() const noexcept {
    std::uint64_t count = 0;
    while (core::read_once(wake_fd.get(), &count, sizeof count) == static_cast<ssize_t>(sizeof count)) {
    }
  }

  void push(Delivery delivery) {
    {
      std::lock_guard lock(mutex);
      pending.push_back(std::move(delivery));
    }
    wake();
  }

  std::optional<Delivery> pop() {
    std::lock_guard lock(mutex);
    if (pending.empty()) {
      return std::nullopt;
    }
    Delivery next = std::move(pending.front());
    pending.pop_front();
    return next;
  }

  const core::FileDescriptor wake_fd;
  std::mutex mutex;
  std::deque<Delivery> pending;
};

ServiceLauncher::ServiceLauncher(std::unique_ptr<IService> service, std::shared_ptr<logger::ILogger> logger,
                                 std::shared_ptr<ipc::IIpc> ipc, bool health_checks,
                                 std::chrono::milliseconds health_check_interval)
    : service_(std::move(service)),
      logger_(std::move(logger)),
      ipc_(std::move(ipc)),
      health_checks_(health_checks),
      health_check_interval_(health_check_interval),
      inbox_(std::make_shared<Inbox>()) {
  if (!service_ || !logger_ || !ipc_) {
    throw std::runtime_error("ServiceLauncher needs a service, a logger and an IPC endpoint");
  }
  if (health_checks_ && health_check_interval_ <= std::chrono::milliseconds::zero()) {
    throw std::runtime_error(fmt::format("ServiceLauncher health check interval must be positive, not {} ms",
                                         health_check_interval_.count()));
  }
  ctx_.own_address = ipc_->address();
  logger_->progress("ServiceLauncher create successfully");
}

ServiceLauncher::~ServiceLauncher() {
  logger_->progress("ServiceLauncher destroy successfully");
}

Result<void> ServiceLauncher::stop() noexcept {
  stop_requested_.store(true);
  if (!inbox_->wake()) {
    return ErrorPayload(Error::ErrorCApi);
  }
  return core::success();
}

Result<void> ServiceLauncher::subscribe_events() {
  // The handlers run on the IPC library's threads: they only decode and queue, so that the
  // service sees every change on the launcher's thread, one at a time.
  auto subscribed = core::guarded_call(*logger_, [this]() -> Result<void> {
    return ipc_->subscribe_event(
        cfgdb::kSectionsChangedKey, [inbox = inbox_, logger = logger_](const ipc::Event& event) -> Result<void> {
          auto changes = cfgdb::decode_sections_changed(event.payload);
          if (!changes) {
            logger->error("Malformed IPC_EVENT_CFGDB__SECTIONS_CHANGED event dropped: {}",
                          changes.error().info && changes.error().info->message ? *changes.error().info->message : "");
            return core::success();
          }
          inbox->push(std::move(changes).value());
          return core::success();
        });
  });
  if (!subscribed) {
    return core::propagate(*logger_, std::move(subscribed));
  }
  subscribed = core::guarded_call(*logger_, [this]() -> Result<void> {
    return ipc_->subscribe_event(
        kMasterChangedEvent, [inbox = inbox_, logger = logger_](const ipc::Event& event) -> Result<void> {
          auto slot = parse_master_changed(event.payload);
          if (!slot) {
            logger->error("Malformed IPC_EVENT_ELECTION__MASTER_CHANGED event dropped: {}",
                          slot.error().info && slot.error().info->message ? *slot.error().info->message : "");
            return core::success();
          }
          inbox->push(MasterChange{slot.value()});
          return core::success();
        });
  });
  if (!subscribed) {
    auto undone = core::guarded_call(*logger_, [this] { return ipc_->unsubscribe_event(cfgdb::kSectionsChangedKey); });
    (void)core::propagate(*logger_, std::move(undone));
    return core::propagate(*logger_, std::move(subscribed));
  }
  return core::success();
}

void ServiceLauncher::unsubscribe_events() {
  for (const ipc::Key key : {cfgdb::kSectionsChangedKey, kMasterChangedEvent}) {
    auto unsubscribed = core::guarded_call(*logger_, [this, key] { return ipc_->unsubscribe_event(key); });
    // Nothing more can be done about it while shutting down; the line in the log is enough.
    (void)core::propagate(*logger_, std::move(unsubscribed));
  }
}

void ServiceLauncher::deliver_pending() {
  while (!stop_requested_.load()) {
    auto next = inbox_->pop();
    if (!next) {
      return;
    }
    if (auto* changes = std::get_if<std::vector<Config_change>>(&*next)) {
      logger_->progress("Deliver configuration change of {} section(s)", changes->size());
      auto delivered = core::guarded_call(*logger_, [&] { return service_->config_change(ctx_, *changes); });
      // A change the service could not take is its own business: the next one still comes.
      (void)core::propagate(*logger_, std::move(delivered));
    } else {
      const auto master = std::get<MasterChange>(*next);
      ctx_.master_slot = master.master_slot;
      logger_->progress("Deliver mastership change: master slot {}", master.master_slot);
      auto delivered = core::guarded_call(*logger_, [&] { return service_->master_change(ctx_); });
      (void)core::propagate(*logger_, std::move(delivered));
    }
  }
}

Result<void> ServiceLauncher::stop_service() {
  auto stopped = core::guarded_call(*logger_, [this] { return service_->stop(ctx_); });
  return core::propagate(*logger_, std::move(stopped));
}

void ServiceLauncher::enter(Phase phase) const {
  if (phase_listener_) {
    phase_listener_(phase);
  }
}

Result<void> ServiceLauncher::run() {
  if (started_.exchange(true)) {
    return core::propagate(*logger_,
                           Result<void>(ErrorPayload(Error::Already, "ServiceLauncher runs its service only once")));
  }
  if (stop_requested_.load()) {
    logger_->progress("ServiceLauncher stopped before run: service not started");
    return core::success();
  }

  enter(Phase::Starting);
  if (auto subscribed = subscribe_events(); !subscribed) {
    return core::propagate(*logger_, std::move(subscribed));
  }

  auto ran = core::guarded_call(*logger_, [this] { return service_->run(ctx_); });
  if (!ran) {
    enter(Phase::Stopping);
    // Whatever part of the service did start must not outlive the launcher.
    unsubscribe_events();
    (void)stop_service();
    return core::propagate(*logger_, std::move(ran));
  }

  enter(Phase::Running);
  Result<void> outcome = core::success();
  using Clock = std::chrono::steady_clock;
  auto next_health_check = Clock::now() + health_check_interval_;
  while (!stop_requested_.load()) {
    int timeout_ms = -1;
    if (health_checks_) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(next_health_check - Clock::now());
      timeout_ms = static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(left.count(), 0, 60'000));
    }
    pollfd wait{inbox_->wake_fd.get(), POLLIN, 0};
    const int ready = ::poll(&wait, 1, timeout_ms);
    if (ready < 0 && errno != EINTR) {
      outcome = ErrorPayload(Error::ErrorCApi,
                             fmt::format("poll on the launcher's eventfd failed: {}", std::strerror(errno)));
      core::log_error(*logger_, outcome.error());
      break;
    }
    if (ready > 0) {
      inbox_->drain_wake_ups();
    }
    deliver_pending();
    if (health_checks_ && !stop_requested_.load() && Clock::now() >= next_health_check) {
      next_health_check = Clock::now() + health_check_interval_;
      auto healthy = core::guarded_call(*logger_, [this] { return service_->health_check(ctx_); });
      if (!healthy) {
        outcome = core::propagate(*logger_, std::move(healthy));
        break;
      }
    }
  }

  enter(Phase::Stopping);
  unsubscribe_events();
  auto stopped = stop_service();
  if (!outcome) {
    return outcome;
  }
  return stopped;
}

}  // namespace xpon::service
