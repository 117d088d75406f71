#pragma once

#include "xpon/board/iboard.hpp"
#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/core/guard.hpp"
#include "xpon/core/result.hpp"
#include "xpon/ipc/ipc.hpp"
#include "xpon/logger/ilogger.hpp"
#include "xpon/service/service.hpp"
#include "xpon/system_mgr/api.h"
#include "xpon/system_mgr/functions/base.hpp"
#include "xpon/system_mgr/services/lineups.hpp"

#include <memory>
#include <source_location>
#include <span>
#include <utility>
#include <vector>

namespace xpon::system_mgr {

/// What the three device-family services share: the family's system functions, in creation
/// order, and the fan-out of the launcher's calls to them.
template <typename FamilyBase>
class FamilyService : public FamilyBase {
 public:
  ~FamilyService() override = default;
  FamilyService(const FamilyService&) = delete;
  FamilyService& operator=(const FamilyService&) = delete;

  /// Runs every function in creation order, then the family base; stops at the first failure.
  core::Result<void> run(const service::ServiceCtx& ctx) override {
    auto result = fan_out([](ISysFunction& function) { return function.run(); });
    if (result.has_error()) {
      return result;
    }
    return FamilyBase::run(ctx);
  }

  /// Stops every function in creation order, then the family base; stops at the first failure.
  core::Result<void> stop(const service::ServiceCtx& ctx) override {
    auto result = fan_out([](ISysFunction& function) { return function.stop(); });
    if (result.has_error()) {
      return result;
    }
    return FamilyBase::stop(ctx);
  }

  /// Passes the changed sections to every function; stops at the first failure.
  core::Result<void> config_change(const service::ServiceCtx& ctx,
                                   const std::vector<service::Config_change>& changes) override {
    return fan_out([&](ISysFunction& function) { return function.config_change(ctx, changes); });
  }

  /// Passes a mastership change to every function; stops at the first failure.
  core::Result<void> master_change(const service::ServiceCtx& ctx) override {
    return fan_out([&](ISysFunction& function) { return function.master_change(ctx); });
  }

  /// The board the family's functions are handed.
  [[nodiscard]] const std::shared_ptr<board::IBoard>& board() const noexcept { return board_; }

  /// The family's functions, in creation order.
  [[nodiscard]] const std::vector<std::shared_ptr<ISysFunction>>& functions() const noexcept { return functions_; }

 protected:
  FamilyService(const std::shared_ptr<logger::ILogger>& logger, const std::shared_ptr<ipc::IIpc>& ipc,
                const std::shared_ptr<cfgdb::CfgDbWrapper>& cfgdb, const std::shared_ptr<board::IBoard>& board)
      : logger_(logger), ipc_(ipc), cfgdb_(cfgdb), board_(board) {}

  /// Calls `call` on each function in creation order, guarded; the first error is logged and
  /// returned, and the functions after it are not called.
  template <typename Call>
  core::Result<void> fan_out(Call&& call, const std::source_location& where = std::source_location::current()) {
    for (const auto& function : functions_) {
      auto result = core::guarded_call(
          *logger_, [&] { return call(*function); }, where);
      if (result.has_error()) {
        return core::propagate(*logger_, std::move(result), where);
      }
    }
    return core::success();
  }

  /// Creates the functions of the family's line-up in its order and appends each to functions();
  /// what a function constructor throws ends the service's construction.
  void create_functions(std::span<const LineupEntry> lineup, DeviceType family) {
    const FunctionDeps deps{logger_, ipc_, cfgdb_, board_, family};
    for (const LineupEntry& entry : lineup) {
      functions_.push_back(entry.make(deps, entry.period));
    }
  }

  /// Connects the Election Manager client; throws std::runtime_error with `failure_text` when it cannot.
  void connect_election_manager(const char* failure_text) {
    if (ipc_->connect(ELECTION_MGR_IPC_ADDRESS).has_error()) {
      throw std::runtime_error(failure_text);
    }
  }

  std::shared_ptr<logger::ILogger> logger_;
  std::shared_ptr<ipc::IIpc> ipc_;
  std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb_;
  // Kept for the functions that drive the hardware; shared with every one of them.
  std::shared_ptr<board::IBoard> board_;
  std::vector<std::shared_ptr<ISysFunction>> functions_;
};

}  // namespace xpon::system_mgr
