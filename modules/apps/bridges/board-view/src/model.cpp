#include "xpon/board_view/model.hpp"

#include "decode_sfp.hpp"
#include "decode_support.hpp"
#include "xpon/system_mgr/api.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <string_view>

namespace xpon::board_view {

using namespace xpon::system_mgr;

namespace {

constexpr unsigned kRpmPerRps = 60;
constexpr double kBytesPerKilobyte = 1024.0;
constexpr double kBytesPerGibibyte = 1024.0 * 1024.0 * 1024.0;
// Units of the daemon's records, in base units.
constexpr double kVoltsPerMicrovolt = 1e-6;
constexpr double kAmperesPerMilliampere = 1e-3;
constexpr double kWattsPerMilliwatt = 1e-3;
constexpr double kWattsPerRxUnit = 1e-7;  // receive power travels in 0.1 uW
constexpr double kVoltsPerInputUnit = 0.1;
constexpr double kVoltsPerOutputUnit = 0.01;
constexpr double kAmperesPerOutputUnit = 0.01;

void succeeded(ReadState& state, Clock::time_point now) {
  state.updated = now;
  state.failed = false;
  state.error.clear();
}

void failed(ReadState& state, std::string why) {
  state.failed = true;
  state.error = std::move(why);
}

// A text field of a driver record: up to its first NUL, within the field, blanks at the end
// dropped, bytes outside printable ASCII escaped (an EEPROM may hold anything; what the bridges
// publish stays valid UTF-8).
template <std::size_t N>
std::string field_text(const char (&field)[N]) {
  const std::string_view text(field, strnlen(field, N));
  const auto end = text.find_last_not_of(' ');
  return end == std::string_view::npos ? std::string()
                                       : system_mgr::ctl::detail::escaped(text.substr(0, end + 1), false);
}

template <typename Record>
Record record_at(std::span<const std::uint8_t> bytes, std::size_t index = 0) {
  Record record;
  std::memcpy(&record, bytes.data() + index * sizeof(Record), sizeof(Record));
  return record;
}

// The records of an answer: exactly one, or any whole number of them; nothing when the size is wrong.
template <typename Record>
std::optional<std::vector<Record>> records(std::span<const std::uint8_t> bytes, bool exactly_one) {
  if (exactly_one ? bytes.size() != sizeof(Record) : bytes.size() % sizeof(Record) != 0) {
    return std::nullopt;
  }
  std::vector<Record> out;
  for (std::size_t i = 0; i < bytes.size() / sizeof(Record); ++i) {
    out.push_back(record_at<Record>(bytes, i));
  }
  return out;
}

PortGroup group_of_request(std::uint16_t id) {
  switch (id) {
    case IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO:
    case IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA:
    case IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_INSERTED:
    case IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED:
      return PortGroup::Front;
    default:
      return PortGroup::Pon;
  }
}

SfpModule module_from(PortGroup group, const SfpModuleRecord& record) {
  const auto identity = system_mgr::ctl::detail::decode_sfp_identity(record.data);
  SfpModule module;
  module.group = group;
  module.port = record.port;
  module.state = record.state;
  module.vendor = identity.vendor;
  module.part_number = identity.part_number;
  module.revision = identity.revision;
  module.serial = identity.serial;
  module.wavelength_nm = identity.wavelength_nm;
  return module;
}

// The modules of a total-info answer replace those of their group; a module seen before keeps
// its diagnostics until they are read again.
void take_modules(BoardModel& model, PortGroup group, const std::vector<SfpModuleRecord>& list) {
  std::map<SfpKey, SfpModule> kept;
  for (auto& [key, module] : model.sfp) {
    if (key.first != group) {
      kept.emplace(key, std::move(module));
    }
  }
  for (const auto& record : list) {
    auto module = module_from(group, record);
    const SfpKey key{group, record.port};
    if (const auto before = model.sfp.find(key); before != model.sfp.end() && before->second.serial == module.serial) {
      module.diagnostics = before->second.diagnostics;
      module.diagnostics_read = before->second.diagnostics_read;
      module.rx_watts = before->second.rx_watts;
      module.rx_read = before->second.rx_read;
    }
    kept.insert_or_assign(key, std::move(module));
  }
  model.sfp = std::move(kept);
}

// Applies a well-formed answer; false when its payload does not have the answer's layout.
bool take_answer(BoardModel& model, std::uint16_t id, std::optional<std::uint32_t> port,
                 std::span<const std::uint8_t> bytes) {
  switch (id) {
    case IPC_SYSTEM_MGR__GET_RAM_DATA: {
      const auto list = records<System_mgr__ram_data>(bytes, true);
      if (!list) {
        return false;
      }
      model.ram_total_bytes = static_cast<double>(list->front().total) * kBytesPerKilobyte;
      model.ram_free_bytes = static_cast<double>(list->front().free) * kBytesPerKilobyte;
      return true;
    }
    case IPC_SYSTEM_MGR__GET_HDD_DATA: {
      const auto list = records<System_mgr__hdd_data>(bytes, true);
      if (!list) {
        return false;
      }
      model.disk_total_bytes = static_cast<double>(list->front().total) * kBytesPerGibibyte;
      model.disk_free_bytes = static_cast<double>(list->front().free) * kBytesPerGibibyte;
      return true;
    }
    case IPC_SYSTEM_MGR__GET_DEVICE_FACTORY:
    case IPC_SYSTEM_MGR__GET_CRATE_FACTORY: {
      const auto list = records<System_mgr__factory>(bytes, true);
      if (!list) {
        return false;
      }
      const auto& answer = list->front();
      if (id == IPC_SYSTEM_MGR__GET_DEVICE_FACTORY) {
        model.family = answer.family;
        model.product = field_text(answer.data.device_name);
        model.serial = field_text(answer.data.serial_number);
      } else {
        model.crate_product = field_text(answer.data.device_name);
        model.crate_serial = field_text(answer.data.serial_number);
      }
      return true;
    }
    case IPC_SYSTEM_MGR__GET_FPGA_VERSION:
    case IPC_SYSTEM_MGR__GET_CPLD_VERSION: {
      const auto list = records<System_mgr__version>(bytes, true);
      if (!list) {
        return false;
      }
      (id == IPC_SYSTEM_MGR__GET_FPGA_VERSION ? model.fpga_version : model.cpld_version) = list->front().version;
      return true;
    }
    case IPC_SYSTEM_MGR__GET_TEMP: {
      const auto list = records<System_mgr__temperature>(bytes, false);
      if (!list) {
        return false;
      }
      model.temperatures.clear();
      for (const auto& sensor : *list) {
        model.temperatures.push_back(Temperature{sensor.id, sensor.temperature, std::nullopt, std::nullopt});
      }
      attach_temperature_limits(model);
      return true;
    }
    case IPC_SYSTEM_MGR__GET_FAN_STATES: {
      const auto list = records<System_mgr__fan_state>(bytes, false);
      if (!list) {
        return false;
      }
      model.fans.clear();
      for (std::size_t i = 0; i < list->size(); ++i) {
        const auto& fan = (*list)[i];
        model.fans.push_back(Fan{static_cast<unsigned>(i + 1), fan.present != 0, fan.fault != 0,
                                 static_cast<unsigned>(fan.speed) * kRpmPerRps});
      }
      return true;
    }
    case IPC_SYSTEM_MGR__GET_PS_STATES: {
      const auto list = records<System_mgr__ps_state>(bytes, false);
      if (!list) {
        return false;
      }
      model.supplies.clear();
      for (std::size_t i = 0; i < list->size(); ++i) {
        const auto& supply = (*list)[i];
        model.supplies.push_back(
            Supply{static_cast<unsigned>(i + 1), supply.is_present != 0, supply.is_power_good != 0, supply.alert});
      }
      return true;
    }
    case IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE: {
      const auto list = records<System_mgr__fan_module_state>(bytes, true);
      if (!list) {
        return false;
      }
      const auto& state = list->front();
      FanModule module = model.fan_module.value_or(FanModule{});
      module.present = state.present != 0;
      module.fault = state.fault != 0;
      module.speed_setting = state.speed_setting;
      module.rpm.clear();
      // The count is the driver's; no more speeds than the record holds are read.
      const unsigned count = std::min<unsigned>(state.count, SYSTEM_MGR_FAN_MODULE_MAX_FANS);
      for (unsigned i = 0; i < count; ++i) {
        module.rpm.push_back(static_cast<unsigned>(state.speed[i]) * kRpmPerRps);
      }
      model.fan_module = std::move(module);
      return true;
    }
    case IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY: {
      const auto list = records<System_mgr__fan_module_factory>(bytes, true);
      if (!list) {
        return false;
      }
      FanModule module = model.fan_module.value_or(FanModule{});
      module.product = field_text(list->front().product_name);
      module.serial = field_text(list->front().serial_number);
      module.revision = field_text(list->front().hw_revision);
      model.fan_module = std::move(module);
      return true;
    }
    case IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE: {
      const auto list = records<System_mgr__pwr_module_state>(bytes, true);
      if (!list) {
        return false;
      }
      const auto& state = list->front();
      model.power_module = PowerModule{state.present != 0,
                                       state.power_good != 0,
                                       state.fault != 0,
                                       state.fan_fault != 0,
                                       state.input_voltage * kVoltsPerInputUnit,
                                       state.output_voltage * kVoltsPerOutputUnit,
                                       state.output_current * kAmperesPerOutputUnit,
                                       static_cast<double>(state.output_power),
                                       state.temperature};
      return true;
    }
    case IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO:
    case IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO: {
      const auto list = records<SfpModuleRecord>(bytes, false);
      if (!list) {
        return false;
      }
      take_modules(model, group_of_request(id), *list);
      return true;
    }
    case IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA:
    case IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA: {
      const auto list = records<System_mgr__sfp_eddi_data>(bytes, true);
      if (!list || !port) {
        return false;
      }
      const auto found = model.sfp.find({group_of_request(id), *port});
      if (found == model.sfp.end()) {
        return true;  // pulled meanwhile
      }
      const auto& data = list->front();
      if (data.valid == 1) {
        found->second.diagnostics =
            Diagnostics{data.temperature, data.voltage * kVoltsPerMicrovolt, data.bias_current * kAmperesPerMilliampere,
                        data.optical_power * kWattsPerMilliwatt};
      } else {
        found->second.diagnostics.reset();
      }
      return true;
    }
    case IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER: {
      const auto list = records<System_mgr__rx_power>(bytes, true);
      if (!list || !port) {
        return false;
      }
      const auto found = model.sfp.find({PortGroup::Pon, *port});
      if (found != model.sfp.end()) {
        found->second.rx_watts = list->front().value * kWattsPerRxUnit;
      }
      return true;
    }
    default:
      return true;
  }
}

// The read state an answer to `id` updates; nullptr for requests the model does not hold.
ReadState* state_of(BoardModel& model, std::uint16_t id, std::optional<std::uint32_t> port) {
  const auto module_state = [&](bool rx) -> ReadState* {
    if (!port) {
      return nullptr;
    }
    const auto found = model.sfp.find({group_of_request(id), *port});
    if (found == model.sfp.end()) {
      return nullptr;
    }
    return rx ? &found->second.rx_read : &found->second.diagnostics_read;
  };
  switch (id) {
    case IPC_SYSTEM_MGR__GET_RAM_DATA:
      return &model.ram_read;
    case IPC_SYSTEM_MGR__GET_HDD_DATA:
      return &model.disk_read;
    case IPC_SYSTEM_MGR__GET_DEVICE_FACTORY:
      return &model.factory_read;
    case IPC_SYSTEM_MGR__GET_CRATE_FACTORY:
      return &model.crate_factory_read;
    case IPC_SYSTEM_MGR__GET_FPGA_VERSION:
      return &model.fpga_read;
    case IPC_SYSTEM_MGR__GET_CPLD_VERSION:
      return &model.cpld_read;
    case IPC_SYSTEM_MGR__GET_TEMP:
      return &model.temperatures_read;
    case IPC_SYSTEM_MGR__GET_FAN_STATES:
      return &model.fans_read;
    case IPC_SYSTEM_MGR__GET_PS_STATES:
      return &model.supplies_read;
    case IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE:
      return &model.fan_module_read;
    case IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY:
      return &model.fan_module_factory_read;
    case IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE:
      return &model.power_module_read;
    case IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO:
      return &model.sfp_read[static_cast<std::size_t>(PortGroup::Pon)];
    case IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO:
      return &model.sfp_read[static_cast<std::size_t>(PortGroup::Front)];
    case IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA:
    case IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA:
      return module_state(false);
    case IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER:
      return module_state(true);
    default:
      return nullptr;
  }
}

std::optional<std::uint32_t> u32_payload(const ipc::Payload& payload) {
  if (payload.size() != sizeof(std::uint32_t)) {
    return std::nullopt;
  }
  std::uint32_t value = 0;
  std::memcpy(&value, payload.data(), sizeof value);
  return value;
}

}  // namespace

std::string_view group_name(PortGroup group) noexcept {
  return group == PortGroup::Front ? "front" : "pon";
}

void apply_answer(BoardModel& model, std::uint16_t id, std::optional<std::uint32_t> port,
                  const core::Result<ipc::Response>& answer, Clock::time_point now) {
  ReadState* state = state_of(model, id, port);
  if (state == nullptr) {
    return;
  }
  if (!answer) {
    failed(*state,
           answer.error().error == core::Error::InvalidState ? "no answer in time" : answer.error().to_string());
    return;
  }
  if (answer.value().result != SYSTEM_MGR_RESULT_ANSWERED) {
    failed(*state, "error answer");
    return;
  }
  // The answer may replace the modules (and so the state) of the group: looked up again after.
  if (!take_answer(model, id, port, answer.value().payload)) {
    failed(*state, fmt::format("answer of {} bytes does not have the record's layout", answer.value().payload.size()));
    return;
  }
  if (ReadState* fresh = state_of(model, id, port)) {
    succeeded(*fresh, now);
  }
}

EventOutcome apply_event(BoardModel& model, const ipc::Event& event, Clock::time_point now) {
  EventOutcome outcome;
  if (event.group == IPC_EVENT_ALARM_GROUP && event.id == IPC_EVENT_ALARM_ID) {
    if (event.payload.size() != sizeof(Alarm)) {
      return outcome;
    }
    const auto record = record_at<Alarm>(event.payload);
    if (record.state != SYSTEM_MGR_ALARM_RAISED && record.state != SYSTEM_MGR_ALARM_BACK_TO_NORMAL) {
      return outcome;
    }
    outcome.understood = true;
    model.alarms_updated = now;
    const AlarmKey key{record.alarm_id, record.instance};
    ActiveAlarm alarm;
    alarm.alarm_id = record.alarm_id;
    alarm.instance = record.instance;
    for (std::size_t i = 0; i < alarm.values.size(); ++i) {
      alarm.values[i] = record.value[i];  // one by one: the record's array is not aligned
    }
    alarm.text = system_mgr::ctl::detail::escaped(
        std::string_view(record.text, strnlen(record.text, sizeof record.text)), false);
    alarm.raised = now;
    alarm.last_seen = now;
    const auto found = model.alarms.find(key);
    if (record.state == SYSTEM_MGR_ALARM_RAISED) {
      if (found == model.alarms.end()) {
        model.alarms.emplace(key, alarm);
        outcome.alarm = AlarmTransition{true, alarm};
      } else {
        alarm.raised = found->second.raised;
        found->second = alarm;
      }
    } else if (found != model.alarms.end()) {
      alarm.raised = found->second.raised;
      model.alarms.erase(found);
      outcome.alarm = AlarmTransition{false, alarm};
    }
    return outcome;
  }
  if (event.group != IPC_SYSTEM_MGR) {
    return outcome;
  }
  switch (event.id) {
    case IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_INSERTED:
    case IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_INSERTED: {
      if (event.payload.size() != sizeof(SfpModuleRecord)) {
        return outcome;
      }
      const auto group = group_of_request(event.id);
      const auto record = record_at<SfpModuleRecord>(event.payload);
      model.sfp.insert_or_assign(SfpKey{group, record.port}, module_from(group, record));
      outcome.understood = true;
      outcome.inserted = SfpKey{group, record.port};
      return outcome;
    }
    case IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_REMOVED:
    case IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED: {
      const auto port = u32_payload(event.payload);
      if (!port) {
        return outcome;
      }
      model.sfp.erase(SfpKey{group_of_request(event.id), *port});
      outcome.understood = true;
      return outcome;
    }
    default:
      return outcome;
  }
}

void attach_temperature_limits(BoardModel& model) {
  for (auto& sensor : model.temperatures) {
    const auto found = model.temperature_limits.find(sensor.id);
    if (found != model.temperature_limits.end()) {
      sensor.lower_limit = found->second.first;
      sensor.upper_limit = found->second.second;
    } else {
      sensor.lower_limit.reset();
      sensor.upper_limit.reset();
    }
  }
}

}  // namespace xpon::board_view
