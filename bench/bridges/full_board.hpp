#pragma once

// The board model the bridges' benchmarks serve: an LT board as busy as it gets.

#include "xpon/board_view/model.hpp"
#include "xpon/system_mgr/api.h"

#include <string>
#include <utility>

namespace xpon::bench {

using namespace xpon::board_view;

// An LT board as busy as it gets: 16 PON and 8 front modules with diagnostics, five sensors, four
// fans, two supplies and an alarm per supply.
inline BoardModel full_lt_board() {
  const auto now = Clock::now();
  ReadState fresh;
  fresh.updated = now;
  BoardModel model;
  model.family = xpon::system_mgr::SYSTEM_MGR_FAMILY_LT;
  model.product = "Korvan-16GP";
  model.serial = "LT2311000007";
  model.fpga_version = 21;
  model.cpld_version = 7;
  model.factory_read = model.fpga_read = model.cpld_read = model.ram_read = model.disk_read = fresh;
  model.ram_total_bytes = 2.0e9;
  model.ram_free_bytes = 1.2e9;
  model.disk_total_bytes = 4.0e9;
  model.disk_free_bytes = 1.4e9;
  for (std::int32_t id = 0; id < 5; ++id) {
    model.temperature_limits[id] = {0, 80};
    model.temperatures.push_back(Temperature{id, 40 + id, 0, 80});
  }
  model.temperatures_read = fresh;
  for (unsigned fan = 1; fan <= 4; ++fan) {
    model.fans.push_back(Fan{fan, true, false, 6000});
  }
  model.fans_read = fresh;
  model.limits.fan_lower_rpm = 1200;
  model.limits.fan_upper_rpm = 12000;
  model.supplies = {Supply{1, true, true, 0}, Supply{2, true, true, 0}};
  model.supplies_read = fresh;
  for (const auto& [group, count] : {std::pair{PortGroup::Pon, 16U}, std::pair{PortGroup::Front, 8U}}) {
    for (std::uint32_t port = 0; port < count; ++port) {
      SfpModule module;
      module.group = group;
      module.port = port;
      module.state = 1;
      module.vendor = "XPON-OPTICS";
      module.part_number = group == PortGroup::Pon ? "GP-SFP-C++" : "SFP-10G-LR";
      module.serial = "XO23110001" + std::to_string(10 + port);
      module.revision = "A";
      module.wavelength_nm = 1490;
      module.diagnostics = Diagnostics{38.5, 3.3, 0.012, 0.002};
      module.diagnostics_read = fresh;
      if (group == PortGroup::Pon) {
        module.rx_watts = 2.0e-5;
        module.rx_read = fresh;
      }
      model.sfp[{group, port}] = module;
    }
  }
  model.sfp_read = {fresh, fresh};
  for (std::uint32_t supply = 1; supply <= 2; ++supply) {
    ActiveAlarm alarm;
    alarm.alarm_id = xpon::system_mgr::SYSTEM_MGR_ALARM_POWER_SUPPLY;
    alarm.instance = supply;
    alarm.text = "Power supply " + std::to_string(supply) + " is missing voltage";
    alarm.raised = alarm.last_seen = now;
    model.alarms[{alarm.alarm_id, alarm.instance}] = alarm;
  }
  return model;
}

}  // namespace xpon::bench
