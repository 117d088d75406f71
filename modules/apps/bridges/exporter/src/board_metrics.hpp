#pragma once

// The board model as Prometheus metric families: readings in base units with their limits, the
// raised alarms, and for every source of readings whether its last read succeeded and when.

#include "xpon/board_view/board_view.hpp"
#include "xpon/metrics/exposition.hpp"

#include <vector>

namespace xpon::exporter {

/// The optical power written for no light (0 W) in the _dbm series: -40 dBm, 0.1 uW, the
/// diagnostics' resolution. The matching _low series is 1 then.
inline constexpr double kPowerFloorDbm = -40.0;

/// The families of one scrape, in a fixed order; families with no sample are left out.
std::vector<metrics::Family> board_metrics(const board_view::BoardModel& model,
                                           const board_view::BoardViewStats& stats);

/// An optical power in W as dBm, never below kPowerFloorDbm.
double watts_to_dbm(double watts);

}  // namespace xpon::exporter
