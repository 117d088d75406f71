#include "board_metrics.hpp"

#include "decode_control.hpp"
#include "xpon/system_mgr/api.h"

#include <chrono>
#include <cmath>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace xpon::exporter {

using board_view::BoardModel;
using board_view::ReadState;
using metrics::Family;
using metrics::Label;
using metrics::MetricType;
using metrics::Sample;

namespace {

constexpr double kMilliwattsPerWatt = 1000.0;
constexpr double kPercent = 100.0;

// Families are built in this order; each is created once and filled as the model is walked. Names
// and help texts are taken as views and copied once per family, not once per sample.
class Page {
 public:
  Family& family(std::string_view name, std::string_view help, MetricType type = MetricType::Gauge) {
    const auto found = index_.find(name);
    if (found != index_.end()) {
      return families_[found->second];
    }
    index_.emplace(std::string(name), families_.size());
    families_.push_back(Family{std::string(name), std::string(help), type, {}});
    return families_.back();
  }

  void gauge(std::string_view name, std::string_view help, std::vector<Label> labels, double value) {
    family(name, help).samples.push_back(Sample{std::move(labels), value});
  }

  void counter(std::string_view name, std::string_view help, std::uint64_t value) {
    // Exact up to 2^53, far beyond what a counter of requests or events reaches.
    family(name, help, MetricType::Counter).samples.push_back(Sample{{}, static_cast<double>(value)});
  }

  // read_ok and last_update_timestamp_seconds of one source; a source never read has no timestamp.
  void source(const ReadState& state, std::vector<Label> labels) {
    // Never read yet and not failed: the source is not asked on this board.
    if (!state.updated && !state.failed) {
      return;
    }
    gauge("xpon_read_ok", "1 when the last read of the source succeeded, 0 when it failed", labels,
          state.failed ? 0.0 : 1.0);
    if (state.updated) {
      const auto seconds = std::chrono::duration<double>(state.updated->time_since_epoch()).count();
      gauge("xpon_last_update_timestamp_seconds", "When the source was last read successfully", std::move(labels),
            seconds);
    }
  }

  std::vector<Family> take() {
    std::vector<Family> out;
    for (auto& family : families_) {
      if (!family.samples.empty()) {
        out.push_back(std::move(family));
      }
    }
    return out;
  }

 private:
  std::vector<Family> families_;
  std::map<std::string, std::size_t, std::less<>> index_;  // family name -> its place in families_
};

double flag(bool value) {
  return value ? 1.0 : 0.0;
}

void board(Page& page, const BoardModel& model) {
  if (model.family) {
    std::vector<Label> labels{{"family", std::string(system_mgr::ctl::family_name(*model.family))},
                              {"product", model.product},
                              {"serial", model.serial}};
    if (model.fpga_version) {
      labels.push_back({"fpga_version", std::to_string(*model.fpga_version)});
    }
    if (model.cpld_version) {
      labels.push_back({"cpld_version", std::to_string(*model.cpld_version)});
    }
    page.gauge("xpon_board_info", "The board's identity, from its factory data and versions", std::move(labels), 1);
  }
  if (!model.crate_product.empty() || !model.crate_serial.empty()) {
    page.gauge("xpon_crate_info", "The crate's identity, from its factory data",
               {{"product", model.crate_product}, {"serial", model.crate_serial}}, 1);
  }
  if (model.ram_total_bytes) {
    page.gauge("xpon_memory_total_bytes", "Total RAM of the board", {}, *model.ram_total_bytes);
    page.gauge("xpon_memory_free_bytes", "Free RAM of the board", {}, model.ram_free_bytes.value_or(0));
  }
  if (model.disk_total_bytes) {
    page.gauge("xpon_flash_total_bytes", "Size of the watched flash partitions together", {}, *model.disk_total_bytes);
    page.gauge("xpon_flash_free_bytes", "Space available in the watched flash partitions together", {},
               model.disk_free_bytes.value_or(0));
  }
  const auto& limits = model.limits;
  if (limits.ram_free_percent) {
    page.gauge("xpon_memory_free_limit_ratio", "Lowest acceptable free share of RAM", {},
               *limits.ram_free_percent / kPercent);
  }
  if (limits.disk_free_percent) {
    page.gauge("xpon_flash_free_limit_ratio", "Lowest acceptable free share of each flash partition", {},
               *limits.disk_free_percent / kPercent);
  }
  if (limits.load_average) {
    page.gauge("xpon_load_average_limit", "Load average at or above which the load alarm is raised", {},
               *limits.load_average);
  }
}

void temperatures(Page& page, const BoardModel& model) {
  for (const auto& sensor : model.temperatures) {
    const std::vector<Label> labels{{"sensor", std::to_string(sensor.id)}};
    page.gauge("xpon_temperature_celsius", "Temperature of a board sensor", labels, sensor.celsius);
    if (sensor.upper_limit) {
      page.gauge("xpon_temperature_upper_limit_celsius", "Temperature at or above which the sensor's alarm is raised",
                 labels, *sensor.upper_limit);
    }
    if (sensor.lower_limit) {
      page.gauge("xpon_temperature_lower_limit_celsius", "Temperature at or below which the sensor's alarm is raised",
                 labels, *sensor.lower_limit);
    }
  }
}

void fans_and_supplies(Page& page, const BoardModel& model) {
  for (const auto& fan : model.fans) {
    const std::vector<Label> labels{{"fan", std::to_string(fan.number)}};
    page.gauge("xpon_fan_speed_rpm", "Speed of a board fan", labels, fan.rpm);
    page.gauge("xpon_fan_present", "1 when the fan is installed", labels, flag(fan.present));
    page.gauge("xpon_fan_fault", "1 when the fan reports a fault", labels, flag(fan.fault));
  }
  if (!model.fans.empty() && model.limits.fan_lower_rpm) {
    page.gauge("xpon_fan_lower_limit_rpm", "Fan speed at or below which the fan alarm is raised", {},
               *model.limits.fan_lower_rpm);
    page.gauge("xpon_fan_upper_limit_rpm", "Fan speed at or above which the fan alarm is raised", {},
               model.limits.fan_upper_rpm.value_or(0));
  }
  for (const auto& supply : model.supplies) {
    const std::vector<Label> labels{{"supply", std::to_string(supply.number)}};
    page.gauge("xpon_power_supply_present", "1 when the power supply is installed", labels, flag(supply.present));
    page.gauge("xpon_power_supply_power_good", "1 when the power supply's output is good", labels,
               flag(supply.power_good));
    page.gauge("xpon_power_supply_alert", "The driver's status bits of the supply, 0 when quiet", labels, supply.alert);
  }
}

void crate_modules(Page& page, const BoardModel& model) {
  if (const auto& module = model.fan_module) {
    page.gauge("xpon_fan_module_present", "1 when the crate's fan module is installed", {}, flag(module->present));
    page.gauge("xpon_fan_module_fault", "1 when the crate's fan module reports a fault", {}, flag(module->fault));
    page.gauge("xpon_fan_module_speed_setting", "The last speed setting applied to the crate's fan module", {},
               module->speed_setting);
    for (std::size_t i = 0; i < module->rpm.size(); ++i) {
      page.gauge("xpon_fan_module_fan_speed_rpm", "Speed of a fan of the crate's fan module",
                 {{"fan", std::to_string(i + 1)}}, module->rpm[i]);
    }
    if (!module->product.empty() || !module->serial.empty()) {
      page.gauge("xpon_fan_module_info", "The crate's fan module's identity",
                 {{"product", module->product}, {"serial", module->serial}, {"revision", module->revision}}, 1);
    }
  }
  if (const auto& module = model.power_module) {
    page.gauge("xpon_power_module_present", "1 when the crate's power module is installed", {}, flag(module->present));
    page.gauge("xpon_power_module_power_good", "1 when the crate's power module's output is good", {},
               flag(module->power_good));
    page.gauge("xpon_power_module_fault", "1 when the crate's power module reports a fault", {}, flag(module->fault));
    page.gauge("xpon_power_module_fan_fault", "1 when the crate's power module's own fan failed", {},
               flag(module->fan_fault));
    page.gauge("xpon_power_module_input_volts", "Input voltage of the crate's power module", {}, module->input_volts);
    page.gauge("xpon_power_module_output_volts", "Output voltage of the crate's power module", {},
               module->output_volts);
    page.gauge("xpon_power_module_output_amperes", "Output current of the crate's power module", {},
               module->output_amperes);
    page.gauge("xpon_power_module_output_watts", "Output power of the crate's power module", {}, module->output_watts);
    page.gauge("xpon_power_module_temperature_celsius", "Temperature of the crate's power module", {}, module->celsius);
  }
}

void optical_power(Page& page, const std::string& name, const std::string& what, const std::vector<Label>& labels,
                   double watts) {
  page.gauge("xpon_sfp_" + name + "_power_watts", what + " optical power of the module", labels, watts);
  page.gauge("xpon_sfp_" + name + "_power_dbm",
             what + " optical power of the module in dBm; no light is written as -40", labels, watts_to_dbm(watts));
  page.gauge("xpon_sfp_" + name + "_power_low",
             "1 when the module's " + name + " power is at or below the -40 dBm floor of the _dbm series", labels,
             flag(watts_to_dbm(watts) <= kPowerFloorDbm));
}

void sfp_modules(Page& page, const BoardModel& model) {
  for (const auto& [key, module] : model.sfp) {
    const std::vector<Label> where{{"group", std::string(board_view::group_name(module.group))},
                                   {"port", std::to_string(module.port)}};
    page.gauge("xpon_sfp_present", "1 for each plugged SFP module", where, 1);
    auto info = where;
    info.push_back({"vendor", module.vendor});
    info.push_back({"part_number", module.part_number});
    info.push_back({"serial", module.serial});
    info.push_back({"revision", module.revision});
    page.gauge("xpon_sfp_info", "An SFP module's identity, from its identification data", std::move(info), 1);
    page.gauge("xpon_sfp_wavelength_meters", "Nominal wavelength of the module's laser", where,
               module.wavelength_nm * 1e-9);
    page.gauge("xpon_sfp_state", "The module state byte the board reported last", where, module.state);
    if (const auto& dom = module.diagnostics) {
      page.gauge("xpon_sfp_temperature_celsius", "Temperature of the module", where, dom->celsius);
      page.gauge("xpon_sfp_supply_volts", "Supply voltage of the module", where, dom->volts);
      page.gauge("xpon_sfp_bias_amperes", "Laser bias current of the module", where, dom->bias_amperes);
      optical_power(page, "tx", "Transmitted", where, dom->tx_watts);
    }
    if (module.rx_watts) {
      optical_power(page, "rx", "Received", where, *module.rx_watts);
    }
  }
}

void alarms(Page& page, const BoardModel& model) {
  for (const auto& [key, alarm] : model.alarms) {
    const auto kind = xpon::system_mgr::alarm_kind_name(alarm.alarm_id);
    page.gauge("xpon_alarm_active", "1 for each alarm the system manager reports as raised",
               {{"kind", kind.empty() ? std::to_string(alarm.alarm_id) : std::string(kind)},
                {"alarm_id", std::to_string(alarm.alarm_id)},
                {"instance", std::to_string(alarm.instance)},
                {"text", alarm.text}},
               1);
  }
}

void sources(Page& page, const BoardModel& model) {
  const std::pair<const char*, const ReadState*> board_sources[] = {
      {"factory", &model.factory_read},
      {"crate_factory", &model.crate_factory_read},
      {"fpga_version", &model.fpga_read},
      {"cpld_version", &model.cpld_read},
      {"memory", &model.ram_read},
      {"flash", &model.disk_read},
      {"temperatures", &model.temperatures_read},
      {"fans", &model.fans_read},
      {"power_supplies", &model.supplies_read},
      {"fan_module", &model.fan_module_read},
      {"fan_module_factory", &model.fan_module_factory_read},
      {"power_module", &model.power_module_read},
      {"sfp_pon_modules", &model.sfp_read[static_cast<std::size_t>(board_view::PortGroup::Pon)]},
      {"sfp_front_modules", &model.sfp_read[static_cast<std::size_t>(board_view::PortGroup::Front)]},
      {"limits", &model.limits_read},
  };
  for (const auto& [name, state] : board_sources) {
    page.source(*state, {{"source", name}});
  }
  for (const auto& [key, module] : model.sfp) {
    const std::string group(board_view::group_name(module.group));
    page.source(module.diagnostics_read,
                {{"source", "sfp_diagnostics"}, {"group", group}, {"port", std::to_string(module.port)}});
    page.source(module.rx_read, {{"source", "sfp_rx_power"}, {"group", group}, {"port", std::to_string(module.port)}});
  }
}

}  // namespace

double watts_to_dbm(double watts) {
  if (!(watts > 0.0) || !std::isfinite(watts)) {
    return kPowerFloorDbm;
  }
  return std::max(kPowerFloorDbm, 10.0 * std::log10(watts * kMilliwattsPerWatt));
}

std::vector<Family> board_metrics(const BoardModel& model, const board_view::BoardViewStats& stats) {
  Page page;
  board(page, model);
  temperatures(page, model);
  fans_and_supplies(page, model);
  crate_modules(page, model);
  sfp_modules(page, model);
  alarms(page, model);
  sources(page, model);
  page.counter("xpon_exporter_rounds_total", "Complete rounds of requests to the system manager", stats.rounds);
  page.counter("xpon_exporter_requests_total", "Requests sent to the system manager", stats.requests);
  page.counter("xpon_exporter_failed_requests_total",
               "Requests with no answer in time, an error answer or an answer of the wrong layout",
               stats.failed_requests);
  page.counter("xpon_exporter_events_total", "Alarm records and SFP events received", stats.events);
  page.counter("xpon_exporter_malformed_events_total", "Events whose payload is not their record",
               stats.malformed_events);
  return page.take();
}

}  // namespace xpon::exporter
