#pragma once

#include "xpon/core/result.hpp"
#include "xpon/ipc/ipc.hpp"
#include "xpon/logger/ilogger.hpp"
#include "xpon/service/service.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <utility>
#include <vector>

namespace xpon::service {

/// The Election Manager's "IPC_EVENT_ELECTION__MASTER_CHANGED" event.
inline constexpr ipc::Key kMasterChangedEvent{14500, 14505};

/// Decodes a master-changed payload (the master's slot, u16 little-endian);
/// Error::InvalidInputArg when it is not exactly two bytes.
Result<std::uint16_t> parse_master_changed(std::span<const std::uint8_t> payload);

/// Runs a service and feeds it, on the thread that called run(), the configuration and
/// mastership changes announced on the IPC bus, one at a time and in arrival order, until
/// stop() is called. One launcher runs its service once.
class ServiceLauncher {
 public:
  /// How often the service's health_check is called when health checks are on.
  static constexpr std::chrono::milliseconds kDefaultHealthCheckInterval{10000};

  /// Takes the service; logger and IPC endpoint are shared. With health_checks the
  /// service's health_check is called every health_check_interval while running.
  /// Throws std::runtime_error when an argument is null or the wake-up descriptor cannot be made.
  ServiceLauncher(std::unique_ptr<IService> service, std::shared_ptr<logger::ILogger> logger,
                  std::shared_ptr<ipc::IIpc> ipc, bool health_checks,
                  std::chrono::milliseconds health_check_interval = kDefaultHealthCheckInterval);
  ~ServiceLauncher();
  ServiceLauncher(const ServiceLauncher&) = delete;
  ServiceLauncher& operator=(const ServiceLauncher&) = delete;
  ServiceLauncher(ServiceLauncher&&) = delete;
  ServiceLauncher& operator=(ServiceLauncher&&) = delete;

  /// Where run() stands: starting the service, delivering changes, or stopping the service.
  enum class Phase { Starting, Running, Stopping };

  /// Hears, on run()'s thread, each phase as run() enters it; must neither block nor throw.
  using PhaseListener = std::function<void(Phase)>;

  /// Sets the phase listener (empty, the default: none); call it before run().
  void set_phase_listener(PhaseListener listener) { phase_listener_ = std::move(listener); }

  /// Subscribes the change events, runs the service and delivers changes until stop();
  /// then unsubscribes and stops the service. Returns the first error among: subscribing,
  /// the service's run, a failed health check, the service's stop. A stop() that came
  /// before run() makes run() return success at once without running the service.
  Result<void> run();

  /// Asks a running (or not yet running) run() to return. Async-signal-safe: it only sets
  /// an atomic flag and writes to an eventfd, so signal handlers may call it.
  Result<void> stop() noexcept;

 private:
  struct Inbox;

  Result<void> subscribe_events();
  void unsubscribe_events();
  void deliver_pending();
  Result<void> stop_service();
  void enter(Phase phase) const;

  std::unique_ptr<IService> service_;
  std::shared_ptr<logger::ILogger> logger_;
  std::shared_ptr<ipc::IIpc> ipc_;
  bool health_checks_;
  std::chrono::milliseconds health_check_interval_;
  // Shared with the event handlers, which the IPC library may still be running on its own
  // threads for a moment after they are unsubscribed.
  std::shared_ptr<Inbox> inbox_;
  std::atomic<bool> stop_requested_{false};
  std::atomic<bool> started_{false};
  ServiceCtx ctx_;
  PhaseListener phase_listener_;
};

}  // namespace xpon::service
