#pragma once

// The device families' line-ups: which system functions each family's service creates, in
// creation order (the order of every fan-out), and at which polling period. The three services
// are built from these tables and nothing else names a function or a period for them.

#include "xpon/board/iboard.hpp"
#include "xpon/cfgdb/cfgdb_wrapper.hpp"
#include "xpon/ipc/ipc.hpp"
#include "xpon/logger/ilogger.hpp"
#include "xpon/system_mgr/factory.hpp"
#include "xpon/system_mgr/functions/base.hpp"
#include "xpon/system_mgr/functions/cpu_load_monitoring.hpp"
#include "xpon/system_mgr/functions/fan_module_monitoring.hpp"
#include "xpon/system_mgr/functions/fan_monitoring.hpp"
#include "xpon/system_mgr/functions/hdd_monitoring.hpp"
#include "xpon/system_mgr/functions/led_panel_cntrl.hpp"
#include "xpon/system_mgr/functions/misc_parameters.hpp"
#include "xpon/system_mgr/functions/ps_monitoring.hpp"
#include "xpon/system_mgr/functions/pwr_module_monitoring.hpp"
#include "xpon/system_mgr/functions/ram_monitoring.hpp"
#include "xpon/system_mgr/functions/sfp_monitoring.hpp"
#include "xpon/system_mgr/functions/temp_monitoring.hpp"
#include "xpon/system_mgr/services/factory_records.hpp"

#include <array>
#include <chrono>
#include <memory>
#include <string_view>
#include <type_traits>

namespace xpon::system_mgr {

/// What a family's functions are made from: the shared objects every service holds and the
/// family itself (MiscParameters answers with the family's factory data).
struct FunctionDeps {
  std::shared_ptr<logger::ILogger> logger;
  std::shared_ptr<ipc::IIpc> ipc;
  std::shared_ptr<cfgdb::CfgDbWrapper> cfgdb;
  std::shared_ptr<board::IBoard> board;
  DeviceType family;
};

/// The period of a function that never polls (it takes no period).
inline constexpr std::chrono::milliseconds kNoPolling{0};

/// One place in a line-up: the function's name, its polling period and how it is made.
struct LineupEntry {
  std::string_view name;
  std::chrono::milliseconds period;
  std::shared_ptr<ISysFunction> (*make)(const FunctionDeps& deps, std::chrono::milliseconds period);
};

namespace lineup_detail {

using std::chrono::milliseconds;

template <typename Function>
constexpr bool kTakesCfgdbAndBoard =
    std::is_constructible_v<Function, const std::shared_ptr<logger::ILogger>&, const std::shared_ptr<ipc::IIpc>&,
                            const std::shared_ptr<cfgdb::CfgDbWrapper>&, const std::shared_ptr<board::IBoard>&,
                            milliseconds>;
template <typename Function>
constexpr bool kTakesCfgdb =
    std::is_constructible_v<Function, const std::shared_ptr<logger::ILogger>&, const std::shared_ptr<ipc::IIpc>&,
                            const std::shared_ptr<cfgdb::CfgDbWrapper>&, milliseconds>;
template <typename Function>
constexpr bool kTakesBoard =
    std::is_constructible_v<Function, const std::shared_ptr<logger::ILogger>&, const std::shared_ptr<ipc::IIpc>&,
                            const std::shared_ptr<board::IBoard>&, milliseconds>;
template <typename Function>
constexpr bool kTakesBoardOnly =
    std::is_constructible_v<Function, const std::shared_ptr<logger::ILogger>&, const std::shared_ptr<ipc::IIpc>&,
                            const std::shared_ptr<board::IBoard>&>;

template <typename Function>
std::shared_ptr<ISysFunction> make(const FunctionDeps& deps, milliseconds period) {
  if constexpr (std::is_same_v<Function, MiscParameters>) {
    return make_misc_parameters(deps.logger, deps.ipc, deps.board, deps.family);
  } else if constexpr (kTakesCfgdbAndBoard<Function>) {
    return std::make_shared<Function>(deps.logger, deps.ipc, deps.cfgdb, deps.board, period);
  } else if constexpr (kTakesCfgdb<Function>) {
    return std::make_shared<Function>(deps.logger, deps.ipc, deps.cfgdb, period);
  } else if constexpr (kTakesBoard<Function>) {
    return std::make_shared<Function>(deps.logger, deps.ipc, deps.board, period);
  } else {
    static_assert(kTakesBoardOnly<Function>, "a function of a line-up is made from the service's shared objects");
    return std::make_shared<Function>(deps.logger, deps.ipc, deps.board);
  }
}

}  // namespace lineup_detail

/// A function that polls every `period`.
template <typename Function>
constexpr LineupEntry polling(std::chrono::milliseconds period) {
  static_assert(!lineup_detail::kTakesBoardOnly<Function> && !std::is_same_v<Function, MiscParameters>,
                "a function that takes no period never polls");
  return LineupEntry{Function::kName, period, &lineup_detail::make<Function>};
}

/// A function that never polls (it takes no period).
template <typename Function>
constexpr LineupEntry never_polling() {
  static_assert(lineup_detail::kTakesBoardOnly<Function>, "a function that takes a period polls");
  return LineupEntry{Function::kName, kNoPolling, &lineup_detail::make<Function>};
}

namespace lineups {

using namespace std::chrono_literals;

/// FC boards: the crate's fan module and power module besides the common functions.
inline constexpr std::array kFc{
    polling<CpuLoadMonitoring>(30000ms), polling<RamMonitoring>(30000ms),       polling<HddMonitoring>(30000ms),
    never_polling<LedPanelCntrl>(),      never_polling<MiscParameters>(),       polling<TempMonitoring>(20000ms),
    polling<SfpMonitoring>(1000ms),      polling<FanModuleMonitoring>(30000ms), polling<PwrModuleMonitoring>(30000ms),
};

/// LC boards: no disk space monitoring and nothing of the crate's.
inline constexpr std::array kLc{
    polling<CpuLoadMonitoring>(30000ms), polling<RamMonitoring>(30000ms),  never_polling<LedPanelCntrl>(),
    never_polling<MiscParameters>(),     polling<TempMonitoring>(20000ms), polling<SfpMonitoring>(1000ms),
};

/// LT boards: their own fans and power supplies besides the common functions.
inline constexpr std::array kLt{
    polling<CpuLoadMonitoring>(30000ms), polling<RamMonitoring>(30000ms), polling<HddMonitoring>(30000ms),
    never_polling<LedPanelCntrl>(),      never_polling<MiscParameters>(), polling<TempMonitoring>(20000ms),
    polling<SfpMonitoring>(1000ms),      polling<FanMonitoring>(30000ms), polling<PsMonitoring>(1000ms),
};

}  // namespace lineups

}  // namespace xpon::system_mgr
