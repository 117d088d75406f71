#include "mapping.hpp"

#include "xpon/system_mgr/api.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <utility>

namespace xpon::snmp_subagent {

namespace {

using board_view::PortGroup;

// entPhysicalEntry columns (RFC 4133).
enum EntityColumn : std::uint32_t {
  kDescr = 2,
  kVendorType = 3,
  kContainedIn = 4,
  kClass = 5,
  kParentRelPos = 6,
  kName = 7,
  kHardwareRev = 8,
  kFirmwareRev = 9,
  kSoftwareRev = 10,
  kSerialNum = 11,
  kMfgName = 12,
  kModelName = 13,
  kAlias = 14,
  kAssetId = 15,
  kIsFru = 16,
};

// entPhySensorEntry columns (RFC 3433).
enum SensorColumn : std::uint32_t {
  kType = 1,
  kScale = 2,
  kPrecision = 3,
  kValue = 4,
  kOperStatus = 5,
  kUnitsDisplay = 6,
  kValueTimeStamp = 7,
  kValueUpdateRate = 8,
};

// alarmActiveEntry columns (RFC 3877) served; 1 to 3 are the index.
enum AlarmColumn : std::uint32_t {
  kContextName = 7,
  kVariables = 8,
  kNotificationId = 9,
  kResourceId = 10,
  kDescription = 11,
  kLogPointer = 12,
  kModelPointer = 13,
  kSpecificPointer = 14,
};

constexpr std::int32_t kTruthTrue = 1;
constexpr std::int32_t kTruthFalse = 2;
// ENTITY-SENSOR-MIB's value range.
constexpr double kSensorValueLimit = 1e9;

std::int32_t sensor_value(double value) {
  return static_cast<std::int32_t>(std::clamp(std::round(value), -kSensorValueLimit, kSensorValueLimit));
}

SensorReading reading(SensorType type, SensorScale scale, std::int32_t precision, double scaled,
                      const board_view::ReadState& read) {
  return SensorReading{
      type,        scale, precision, sensor_value(scaled), read.failed ? SensorStatus::Unavailable : SensorStatus::Ok,
      read.updated};
}

PhysicalEntity sensor_entity(std::int32_t index, std::string description, std::int32_t parent, std::int32_t position,
                             SensorReading value) {
  PhysicalEntity entity;
  entity.index = index;
  entity.name = description;
  entity.description = std::move(description);
  entity.entity_class = EntityClass::Sensor;
  entity.contained_in = parent;
  entity.relative_position = position;
  entity.sensor = value;
  return entity;
}

std::string units_display(const SensorReading& reading) {
  const char* prefix = reading.scale == SensorScale::Micro ? "u" : reading.scale == SensorScale::Milli ? "m" : "";
  switch (reading.type) {
    case SensorType::VoltsDc:
      return std::string(prefix) + "V";
    case SensorType::Amperes:
      return std::string(prefix) + "A";
    case SensorType::Watts:
      return std::string(prefix) + "W";
    case SensorType::Celsius:
      return "C";
    case SensorType::Rpm:
      return "rpm";
  }
  return "";
}

std::string port_label(const SfpKey& key) {
  return fmt::format("{} port {}", key.first == PortGroup::Pon ? "PON" : "front", key.second);
}

void add_module(std::vector<PhysicalEntity>& entities, const board_view::SfpModule& module) {
  const SfpKey key{module.group, module.port};
  const auto index = module_index(key);
  PhysicalEntity entity;
  entity.index = index;
  entity.description =
      module.wavelength_nm != 0 ? fmt::format("SFP module, {} nm", module.wavelength_nm) : "SFP module";
  entity.entity_class = EntityClass::Module;
  entity.contained_in = cage_index(key);
  entity.relative_position = 1;
  entity.name = "SFP module in " + port_label(key);
  entity.hardware_rev = module.revision;
  entity.serial = module.serial;
  entity.manufacturer = module.vendor;
  entity.model_name = module.part_number;
  entity.field_replaceable = true;
  entities.push_back(std::move(entity));

  // Without diagnostics (the module gives none) the sensors stay, unavailable.
  board_view::ReadState diagnostics_read = module.diagnostics_read;
  const board_view::Diagnostics diagnostics = module.diagnostics.value_or(board_view::Diagnostics{});
  if (!module.diagnostics) {
    diagnostics_read.failed = true;
  }
  const auto label = port_label(key);
  entities.push_back(
      sensor_entity(module_sensor_index(key, ModuleSensor::Temperature), "SFP temperature, " + label, index, 1,
                    reading(SensorType::Celsius, SensorScale::Units, 2, diagnostics.celsius * 100, diagnostics_read)));
  entities.push_back(
      sensor_entity(module_sensor_index(key, ModuleSensor::Voltage), "SFP supply voltage, " + label, index, 2,
                    reading(SensorType::VoltsDc, SensorScale::Milli, 1, diagnostics.volts * 1e4, diagnostics_read)));
  entities.push_back(sensor_entity(
      module_sensor_index(key, ModuleSensor::Bias), "SFP bias current, " + label, index, 3,
      reading(SensorType::Amperes, SensorScale::Milli, 3, diagnostics.bias_amperes * 1e6, diagnostics_read)));
  entities.push_back(
      sensor_entity(module_sensor_index(key, ModuleSensor::TxPower), "SFP TX power, " + label, index, 4,
                    reading(SensorType::Watts, SensorScale::Micro, 1, diagnostics.tx_watts * 1e7, diagnostics_read)));
  if (module.group == PortGroup::Pon) {
    board_view::ReadState rx_read = module.rx_read;
    if (!module.rx_watts) {
      rx_read.failed = true;
    }
    entities.push_back(
        sensor_entity(module_sensor_index(key, ModuleSensor::RxPower), "SFP RX power, " + label, index, 5,
                      reading(SensorType::Watts, SensorScale::Micro, 1, module.rx_watts.value_or(0.0) * 1e7, rx_read)));
  }
}

void add_fan_module(std::vector<PhysicalEntity>& entities, const BoardModel& model) {
  const auto& module = *model.fan_module;
  PhysicalEntity entity;
  entity.index = index::kFanModule;
  entity.description = "crate fan module";
  entity.entity_class = EntityClass::Fan;
  entity.name = "fan module";
  entity.hardware_rev = module.revision;
  entity.serial = module.serial;
  entity.model_name = module.product;
  entity.field_replaceable = true;
  entities.push_back(std::move(entity));
  for (std::size_t i = 0; i < module.rpm.size(); ++i) {
    const auto n = static_cast<std::int32_t>(i + 1);
    PhysicalEntity fan;
    fan.index = index::kFanModule + n;
    fan.description = fmt::format("fan module fan {}", n);
    fan.name = fan.description;
    fan.entity_class = EntityClass::Fan;
    fan.contained_in = index::kFanModule;
    fan.relative_position = n;
    entities.push_back(std::move(fan));
  }
  for (std::size_t i = 0; i < module.rpm.size(); ++i) {
    const auto n = static_cast<std::int32_t>(i + 1);
    entities.push_back(
        sensor_entity(index::kFanModuleSensorBase + n, fmt::format("fan module fan {} speed", n), index::kFanModule + n,
                      1, reading(SensorType::Rpm, SensorScale::Units, 0, module.rpm[i], model.fan_module_read)));
  }
}

void add_power_module(std::vector<PhysicalEntity>& entities, const BoardModel& model) {
  const auto& module = *model.power_module;
  PhysicalEntity entity;
  entity.index = index::kPowerModule;
  entity.description = "crate power module";
  entity.entity_class = EntityClass::PowerSupply;
  entity.name = "power module";
  entity.field_replaceable = true;
  entities.push_back(std::move(entity));
  const auto& read = model.power_module_read;
  const auto at = [](std::int32_t n) { return index::kPowerModule + n; };
  entities.push_back(
      sensor_entity(at(1), "power module input voltage", index::kPowerModule, 1,
                    reading(SensorType::VoltsDc, SensorScale::Milli, 0, module.input_volts * 1e3, read)));
  entities.push_back(
      sensor_entity(at(2), "power module output voltage", index::kPowerModule, 2,
                    reading(SensorType::VoltsDc, SensorScale::Milli, 0, module.output_volts * 1e3, read)));
  entities.push_back(
      sensor_entity(at(3), "power module output current", index::kPowerModule, 3,
                    reading(SensorType::Amperes, SensorScale::Milli, 0, module.output_amperes * 1e3, read)));
  entities.push_back(sensor_entity(at(4), "power module output power", index::kPowerModule, 4,
                                   reading(SensorType::Watts, SensorScale::Milli, 0, module.output_watts * 1e3, read)));
  entities.push_back(sensor_entity(at(5), "power module temperature", index::kPowerModule, 5,
                                   reading(SensorType::Celsius, SensorScale::Units, 0, module.celsius, read)));
}

void put(Rows& rows, const Oid& entry, std::uint32_t column, std::int32_t index, Value value) {
  rows.emplace(entry + Oid{column, static_cast<std::uint32_t>(index)}, std::move(value));
}

std::uint32_t port_offset(const SfpKey& key) {
  return key.first == PortGroup::Pon ? index::kPonCageBase : index::kFrontCageBase;
}

}  // namespace

Value integer(std::int64_t number) {
  Value value;
  value.syntax = Syntax::Integer;
  value.number = number;
  return value;
}

Value unsigned32(std::uint32_t number) {
  Value value;
  value.syntax = Syntax::Unsigned;
  value.number = number;
  return value;
}

Value time_ticks(std::uint32_t centiseconds) {
  Value value;
  value.syntax = Syntax::TimeTicks;
  value.number = centiseconds;
  return value;
}

Value octet_string(std::string octets) {
  Value value;
  value.syntax = Syntax::OctetString;
  value.octets = std::move(octets);
  return value;
}

Value object_id(Oid object) {
  Value value;
  value.syntax = Syntax::ObjectId;
  value.object = std::move(object);
  return value;
}

Oid operator+(Oid base, const Oid& suffix) {
  base.insert(base.end(), suffix.begin(), suffix.end());
  return base;
}

std::int32_t cage_index(const SfpKey& key) {
  return static_cast<std::int32_t>(port_offset(key) + key.second);
}

std::int32_t module_index(const SfpKey& key) {
  return cage_index(key) + index::kModuleOffset;
}

std::int32_t module_sensor_index(const SfpKey& key, ModuleSensor sensor) {
  return static_cast<std::int32_t>(port_offset(key) + index::kSensorOffset + (10 * key.second) +
                                   static_cast<std::uint32_t>(sensor));
}

std::vector<PhysicalEntity> physical_entities(const BoardModel& model, const std::set<SfpKey>& cages) {
  std::vector<PhysicalEntity> entities;
  PhysicalEntity board;
  board.index = index::kBoard;
  board.description = model.product.empty() ? "xPON line card" : model.product;
  board.entity_class = EntityClass::Module;
  board.name = "board";
  board.serial = model.serial;
  board.model_name = model.product;
  if (model.fpga_version || model.cpld_version) {
    board.firmware_rev =
        fmt::format("FPGA {}, CPLD {}", model.fpga_version ? fmt::format("{}", *model.fpga_version) : "-",
                    model.cpld_version ? fmt::format("{}", *model.cpld_version) : "-");
  }
  board.field_replaceable = true;
  entities.push_back(std::move(board));

  for (const auto& sensor : model.temperatures) {
    entities.push_back(sensor_entity(
        index::kTemperatureBase + sensor.id, fmt::format("temperature sensor {}", sensor.id), index::kBoard,
        sensor.id + 1, reading(SensorType::Celsius, SensorScale::Units, 0, sensor.celsius, model.temperatures_read)));
  }
  for (const auto& fan : model.fans) {
    const auto n = static_cast<std::int32_t>(fan.number);
    PhysicalEntity entity;
    entity.index = index::kFanBase + n;
    entity.description = fmt::format("fan {}", n);
    entity.name = entity.description;
    entity.entity_class = EntityClass::Fan;
    entity.contained_in = index::kBoard;
    entity.relative_position = n;
    entities.push_back(std::move(entity));
    entities.push_back(sensor_entity(index::kFanSensorBase + n, fmt::format("fan {} speed", n), index::kFanBase + n, 1,
                                     reading(SensorType::Rpm, SensorScale::Units, 0, fan.rpm, model.fans_read)));
  }
  for (const auto& supply : model.supplies) {
    const auto n = static_cast<std::int32_t>(supply.number);
    PhysicalEntity entity;
    entity.index = index::kSupplyBase + n;
    entity.description = fmt::format("power supply {}", n);
    entity.name = entity.description;
    entity.entity_class = EntityClass::PowerSupply;
    entity.contained_in = index::kBoard;
    entity.relative_position = n;
    entities.push_back(std::move(entity));
  }
  if (model.fan_module && model.fan_module->present) {
    add_fan_module(entities, model);
  }
  if (model.power_module && model.power_module->present) {
    add_power_module(entities, model);
  }

  std::set<SfpKey> all_cages = cages;
  for (const auto& [key, module] : model.sfp) {
    all_cages.insert(key);
  }
  for (const auto& key : all_cages) {
    if (key.second > index::kMaxPort) {
      continue;
    }
    PhysicalEntity cage;
    cage.index = cage_index(key);
    cage.description = "SFP cage, " + port_label(key);
    cage.name = port_label(key);
    cage.entity_class = EntityClass::Container;
    cage.contained_in = index::kBoard;
    cage.relative_position = static_cast<std::int32_t>(key.second);
    entities.push_back(std::move(cage));
    const auto module = model.sfp.find(key);
    if (module != model.sfp.end()) {
      add_module(entities, module->second);
    }
  }
  std::sort(entities.begin(), entities.end(),
            [](const PhysicalEntity& a, const PhysicalEntity& b) { return a.index < b.index; });
  return entities;
}

std::uint32_t timestamp(std::optional<Clock::time_point> at, Clock::time_point origin) {
  if (!at || *at < origin) {
    return 0;
  }
  return static_cast<std::uint32_t>(std::chrono::duration_cast<std::chrono::milliseconds>(*at - origin).count() / 10);
}

Rows entity_rows(const std::vector<PhysicalEntity>& entities) {
  Rows rows;
  const auto& entry = oids::kEntPhysicalEntry;
  for (const auto& entity : entities) {
    const auto i = entity.index;
    put(rows, entry, kDescr, i, octet_string(entity.description));
    put(rows, entry, kVendorType, i, object_id(oids::kZeroDotZero));
    put(rows, entry, kContainedIn, i, integer(entity.contained_in));
    put(rows, entry, kClass, i, integer(static_cast<std::int32_t>(entity.entity_class)));
    put(rows, entry, kParentRelPos, i, integer(entity.relative_position));
    put(rows, entry, kName, i, octet_string(entity.name));
    put(rows, entry, kHardwareRev, i, octet_string(entity.hardware_rev));
    put(rows, entry, kFirmwareRev, i, octet_string(entity.firmware_rev));
    put(rows, entry, kSoftwareRev, i, octet_string(""));
    put(rows, entry, kSerialNum, i, octet_string(entity.serial));
    put(rows, entry, kMfgName, i, octet_string(entity.manufacturer));
    put(rows, entry, kModelName, i, octet_string(entity.model_name));
    put(rows, entry, kAlias, i, octet_string(""));
    put(rows, entry, kAssetId, i, octet_string(""));
    put(rows, entry, kIsFru, i, integer(entity.field_replaceable ? kTruthTrue : kTruthFalse));
  }
  return rows;
}

Rows sensor_rows(const std::vector<PhysicalEntity>& entities, Clock::time_point origin,
                 std::chrono::milliseconds update_rate) {
  Rows rows;
  const auto& entry = oids::kEntPhySensorEntry;
  for (const auto& entity : entities) {
    if (!entity.sensor) {
      continue;
    }
    const auto& sensor = *entity.sensor;
    const auto i = entity.index;
    put(rows, entry, kType, i, integer(static_cast<std::int32_t>(sensor.type)));
    put(rows, entry, kScale, i, integer(static_cast<std::int32_t>(sensor.scale)));
    put(rows, entry, kPrecision, i, integer(sensor.precision));
    put(rows, entry, kValue, i, integer(sensor.value));
    put(rows, entry, kOperStatus, i, integer(static_cast<std::int32_t>(sensor.status)));
    put(rows, entry, kUnitsDisplay, i, octet_string(units_display(sensor)));
    put(rows, entry, kValueTimeStamp, i, time_ticks(timestamp(sensor.updated, origin)));
    put(rows, entry, kValueUpdateRate, i, unsigned32(static_cast<std::uint32_t>(update_rate.count())));
  }
  return rows;
}

std::uint32_t AlarmIndexes::raise(const AlarmKey& key) {
  const auto found = indexes_.find(key);
  if (found != indexes_.end()) {
    return found->second;
  }
  // Wraps back to 1 after the maximum, as RFC 3877 says.
  last_ = last_ == UINT32_MAX ? 1 : last_ + 1;
  indexes_.emplace(key, last_);
  return last_;
}

std::optional<std::uint32_t> AlarmIndexes::clear(const AlarmKey& key) {
  const auto found = indexes_.find(key);
  if (found == indexes_.end()) {
    return std::nullopt;
  }
  const auto index = found->second;
  indexes_.erase(found);
  return index;
}

void AlarmIndexes::follow(const BoardModel& model) {
  // An alarm gone from the model keeps its index until its clear transition is handled, so that
  // alarmClearState names the row the alarm had. Alarms the transitions did not announce (raised before a restart) get
  // indexes in the order they were raised.
  std::vector<const board_view::ActiveAlarm*> missing;
  for (const auto& [key, alarm] : model.alarms) {
    if (!indexes_.contains(key)) {
      missing.push_back(&alarm);
    }
  }
  std::stable_sort(missing.begin(), missing.end(), [](const auto* a, const auto* b) { return a->raised < b->raised; });
  for (const auto* alarm : missing) {
    raise({alarm->alarm_id, alarm->instance});
  }
}

std::int32_t alarm_resource(const BoardModel& model, const AlarmKey& key) {
  const auto [alarm_id, instance] = key;
  const auto n = static_cast<std::int32_t>(instance);
  switch (alarm_id) {
    case system_mgr::SYSTEM_MGR_ALARM_TEMPERATURE:
      // The alarm counts sensors from 1, the driver from 0.
      return n >= 1 ? index::kTemperatureBase + n - 1 : index::kBoard;
    case system_mgr::SYSTEM_MGR_ALARM_FAN:
      if (model.fan_module) {
        return n == 0 ? index::kFanModule : index::kFanModule + n;
      }
      return n >= 1 ? index::kFanBase + n : index::kBoard;
    case system_mgr::SYSTEM_MGR_ALARM_POWER_SUPPLY:
      if (model.power_module) {
        return index::kPowerModule;
      }
      return n >= 1 ? index::kSupplyBase + n : index::kBoard;
    default:
      return index::kBoard;
  }
}

std::string date_and_time(Clock::time_point at) {
  const auto seconds = Clock::to_time_t(at);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  const auto deciseconds =
      (std::chrono::duration_cast<std::chrono::milliseconds>(at.time_since_epoch()).count() % 1000) / 100;
  const int year = utc.tm_year + 1900;
  return std::string{static_cast<char>(year >> 8),
                     static_cast<char>(year & 0xFF),
                     static_cast<char>(utc.tm_mon + 1),
                     static_cast<char>(utc.tm_mday),
                     static_cast<char>(utc.tm_hour),
                     static_cast<char>(utc.tm_min),
                     static_cast<char>(utc.tm_sec),
                     static_cast<char>(deciseconds),
                     '+',
                     static_cast<char>(0),
                     static_cast<char>(0)};
}

Oid alarm_instance(Clock::time_point raised, std::uint32_t active_index) {
  // alarmListName "" (its length only), then the DateAndTime with its length, then the index.
  Oid instance{0};
  const auto when = date_and_time(raised);
  instance.push_back(static_cast<std::uint32_t>(when.size()));
  for (const char octet : when) {
    instance.push_back(static_cast<unsigned char>(octet));
  }
  instance.push_back(active_index);
  return instance;
}

namespace {

Oid resource_oid(const BoardModel& model, const AlarmKey& key) {
  // The row of the entity under alarm, named by its first column (entPhysicalDescr).
  return oids::kEntPhysicalEntry + Oid{kDescr, static_cast<std::uint32_t>(alarm_resource(model, key))};
}

}  // namespace

Rows alarm_rows(const BoardModel& model, const std::map<AlarmKey, std::uint32_t>& indexes) {
  Rows rows;
  const auto& entry = oids::kAlarmActiveEntry;
  for (const auto& [key, alarm] : model.alarms) {
    const auto found = indexes.find(key);
    if (found == indexes.end()) {
      continue;
    }
    const auto instance = alarm_instance(alarm.raised, found->second);
    const auto column = [&](std::uint32_t number) { return entry + Oid{number} + instance; };
    rows.emplace(column(kContextName), octet_string(""));
    rows.emplace(column(kVariables), unsigned32(0));
    rows.emplace(column(kNotificationId), object_id(oids::kAlarmActiveState));
    rows.emplace(column(kResourceId), object_id(resource_oid(model, key)));
    rows.emplace(column(kDescription), octet_string(alarm.text));
    rows.emplace(column(kLogPointer), object_id(oids::kZeroDotZero));
    rows.emplace(column(kModelPointer), object_id(oids::kZeroDotZero));
    rows.emplace(column(kSpecificPointer), object_id(oids::kZeroDotZero));
  }
  return rows;
}

std::vector<Varbind> alarm_notification(const BoardModel& model, const board_view::AlarmTransition& transition,
                                        std::uint32_t active_index) {
  const AlarmKey key{transition.alarm.alarm_id, transition.alarm.instance};
  const auto instance = alarm_instance(transition.alarm.raised, active_index);
  return {
      {oids::kSnmpTrapOid, object_id(transition.raised ? oids::kAlarmActiveState : oids::kAlarmClearState)},
      {oids::kAlarmActiveEntry + Oid{kModelPointer} + instance, object_id(oids::kZeroDotZero)},
      {oids::kAlarmActiveEntry + Oid{kResourceId} + instance, object_id(resource_oid(model, key))},
  };
}

std::int32_t centi_dbm(double watts) {
  constexpr double kFloor = -4000;
  if (watts <= 0) {
    return static_cast<std::int32_t>(kFloor);
  }
  return static_cast<std::int32_t>(std::max(kFloor, std::round(1000 * std::log10(watts * 1000))));
}

Rows board_mib_rows(const BoardModel& model, const Oid& arc) {
  Rows rows;
  const auto objects = arc + Oid{1};
  const auto temperature_entry = objects + Oid{1, 1};
  for (const auto& sensor : model.temperatures) {
    const auto index = static_cast<std::uint32_t>(index::kTemperatureBase + sensor.id);
    if (sensor.lower_limit) {
      rows.emplace(temperature_entry + Oid{1, index}, integer(*sensor.lower_limit));
    }
    if (sensor.upper_limit) {
      rows.emplace(temperature_entry + Oid{2, index}, integer(*sensor.upper_limit));
    }
  }
  if (model.limits.fan_lower_rpm) {
    rows.emplace(objects + Oid{2, 0}, unsigned32(*model.limits.fan_lower_rpm));
  }
  if (model.limits.fan_upper_rpm) {
    rows.emplace(objects + Oid{3, 0}, unsigned32(*model.limits.fan_upper_rpm));
  }
  const auto power_entry = objects + Oid{4, 1};
  for (const auto& [key, module] : model.sfp) {
    if (key.second > index::kMaxPort) {
      continue;
    }
    const auto index = static_cast<std::uint32_t>(module_index(key));
    if (module.diagnostics) {
      rows.emplace(power_entry + Oid{1, index}, integer(centi_dbm(module.diagnostics->tx_watts)));
    }
    if (module.rx_watts) {
      rows.emplace(power_entry + Oid{2, index}, integer(centi_dbm(*module.rx_watts)));
    }
    rows.emplace(power_entry + Oid{3, index}, unsigned32(module.wavelength_nm));
  }
  return rows;
}

}  // namespace xpon::snmp_subagent
