#pragma once

#include "xpon/cfgdb/change_event.hpp"
#include "xpon/core/result.hpp"
#include "xpon/ipc/ipc.hpp"

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace xpon::service {

using core::Result;

/// One changed configuration-database section, as announced by the database's writers: three
/// u32 words, the first the section id. The record of the change event itself, not a copy of it.
using Config_change = cfgdb::ChangeRecord;

/// What the launcher knows about the running system, handed to every service operation.
struct ServiceCtx {
  /// The address of the launcher's IPC endpoint; its low half is this board's slot.
  ipc::Address own_address = 0;
  /// The slot of the current master as last announced by the Election Manager; empty until
  /// the first announcement.
  std::optional<std::uint16_t> master_slot;

  /// This board's slot (the low half of its own address).
  [[nodiscard]] constexpr std::uint16_t own_slot() const noexcept {
    return static_cast<std::uint16_t>(own_address & 0xFFFFU);
  }

  /// Whether the last announced master is this board.
  [[nodiscard]] constexpr bool is_master() const noexcept { return master_slot && *master_slot == own_slot(); }
};

/// A daemon's service as the launcher drives it. Every operation is called on the
/// launcher's thread, one at a time.
class IService {
 public:
  virtual ~IService() = default;

  /// Starts the service's work; called once before any other operation.
  virtual Result<void> run(const ServiceCtx& ctx) = 0;

  /// Ends the service's work; called once when the launcher stops (also after a failed run,
  /// so that what did start is stopped).
  virtual Result<void> stop(const ServiceCtx& ctx) = 0;

  /// Passes on the configuration-database sections that changed, in the order announced.
  virtual Result<void> config_change(const ServiceCtx& ctx, const std::vector<Config_change>& changes) = 0;

  /// Announces a change of mastership; ctx.master_slot holds the new master.
  virtual Result<void> master_change(const ServiceCtx& ctx) = 0;

  /// Tells whether the service is still able to work; called periodically when the
  /// launcher was built with health checks, and an error ends the launcher's run.
  virtual Result<void> health_check(const ServiceCtx& ctx) = 0;

 protected:
  IService() = default;
  IService(const IService&) = default;
  IService& operator=(const IService&) = default;
};

/// The common base of the device-family services: keeps the run state and answers every
/// operation it is not told more about with success.
class ServiceBase : public IService {
 public:
  ~ServiceBase() override = default;
  ServiceBase(const ServiceBase&) = delete;
  ServiceBase& operator=(const ServiceBase&) = delete;

  /// Marks the service running; Error::Already when it is running already.
  Result<void> run(const ServiceCtx& ctx) override;

  /// Marks the service stopped; stopping a service that is not running is harmless.
  Result<void> stop(const ServiceCtx& ctx) override;

  /// Returns success: the base reads no configuration.
  Result<void> config_change(const ServiceCtx& ctx, const std::vector<Config_change>& changes) override;

  /// Returns success: the base does not depend on mastership.
  Result<void> master_change(const ServiceCtx& ctx) override;

  /// Returns success: the base has nothing that can fail.
  Result<void> health_check(const ServiceCtx& ctx) override;

  /// The device family this service belongs to ("FC", "LC" or "Korvan").
  [[nodiscard]] std::string_view family() const noexcept { return family_; }

  /// Whether run succeeded and stop has not been called since.
  [[nodiscard]] bool is_running() const noexcept { return running_; }

 protected:
  /// family must be static text (a string literal): the view is kept.
  explicit ServiceBase(std::string_view family) noexcept : family_(family) {}

 private:
  std::string_view family_;
  bool running_ = false;
};

/// Base of the services of FC boards.
class ServiceBaseFC : public ServiceBase {
 public:
  ServiceBaseFC() noexcept : ServiceBase("FC") {}
};

/// Base of the services of LC boards.
class ServiceBaseLC : public ServiceBase {
 public:
  ServiceBaseLC() noexcept : ServiceBase("LC") {}
};

/// Base of the services of LT (Korvan) boards.
class ServiceBaseKorvan : public ServiceBase {
 public:
  ServiceBaseKorvan() noexcept : ServiceBase("Korvan") {}

  /// Returns success and does nothing, so that an LT service which does not override it
  /// passes no mastership change on to its functions.
  Result<void> master_change(const ServiceCtx& ctx) override;
};

}  // namespace xpon::service
