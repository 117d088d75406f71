#pragma once

// What the subagent serves, computed from a board model without touching net-snmp: the physical
// entities with their stable indexes, and the rows (OID to typed value) of ENTITY-MIB's
// entPhysicalTable, ENTITY-SENSOR-MIB's entPhySensorTable, ALARM-MIB's alarmActiveTable and the
// project's XPON-BOARD-MIB. The net-snmp glue only looks rows up.
//
// entPhysicalIndex scheme (stable across restarts and hot-plug; docs/snmp.md):
//   1                 the board
//   1000 + id         temperature sensor `id` of the driver (0..4)
//   2000 + n          board fan n (from 1); 2500 + n its speed sensor
//   3000 + n          board power supply n (from 1)
//   4000              the crate's fan module; 4000 + n its fan n; 4100 + n that fan's speed sensor
//   5000              the crate's power module; 5001..5005 its sensors (input V, output V, A, W, °C)
//   10000 + p         PON SFP cage p; 11000 + p its module; 12000 + 10 p + k the module's sensors
//   20000 + p         front SFP cage p; 21000 + p its module; 22000 + 10 p + k the module's sensors
//   (k: 1 temperature, 2 supply voltage, 3 bias current, 4 TX power, 5 RX power; p up to 799)

#include "xpon/board_view/model.hpp"

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace xpon::snmp_subagent {

using board_view::AlarmKey;
using board_view::BoardModel;
using board_view::Clock;
using board_view::SfpKey;

using Oid = std::vector<std::uint32_t>;

/// The SMI types the subagent serves.
enum class Syntax : std::uint8_t { Integer, Unsigned, TimeTicks, OctetString, ObjectId };

/// One typed value; only the member of its syntax is used.
struct Value {
  Syntax syntax = Syntax::Integer;
  std::int64_t number = 0;
  std::string octets;
  Oid object;
  bool operator==(const Value&) const = default;
};

Value integer(std::int64_t number);
Value unsigned32(std::uint32_t number);
Value time_ticks(std::uint32_t centiseconds);
Value octet_string(std::string octets);
Value object_id(Oid object);

/// Instances in lexicographic OID order (the order of GETNEXT).
using Rows = std::map<Oid, Value>;

/// Appends `suffix` to `base`.
Oid operator+(Oid base, const Oid& suffix);

namespace oids {
inline const Oid kZeroDotZero{0, 0};
inline const Oid kEntPhysicalEntry{1, 3, 6, 1, 2, 1, 47, 1, 1, 1, 1};
inline const Oid kEntLastChangeTime{1, 3, 6, 1, 2, 1, 47, 1, 4, 1};
inline const Oid kEntConfigChange{1, 3, 6, 1, 2, 1, 47, 2, 0, 1};
inline const Oid kEntPhySensorEntry{1, 3, 6, 1, 2, 1, 99, 1, 1, 1};
inline const Oid kAlarmActiveLastChanged{1, 3, 6, 1, 2, 1, 118, 1, 2, 1};
inline const Oid kAlarmActiveEntry{1, 3, 6, 1, 2, 1, 118, 1, 2, 2, 1};
inline const Oid kAlarmActiveState{1, 3, 6, 1, 2, 1, 118, 0, 2};
inline const Oid kAlarmClearState{1, 3, 6, 1, 2, 1, 118, 0, 3};
inline const Oid kSnmpTrapOid{1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};
/// The default arc of XPON-BOARD-MIB: NET-SNMP-MIB's netSnmpPlaypen (8072.9999), the arc
/// net-snmp leaves for local experiments, branch 4242.
inline const Oid kDefaultBoardMibArc{1, 3, 6, 1, 4, 1, 8072, 9999, 4242};
}  // namespace oids

/// entPhysicalClass values (RFC 4133).
enum class EntityClass : std::int32_t { Container = 5, PowerSupply = 6, Fan = 7, Sensor = 8, Module = 9 };

/// EntitySensorDataType, EntitySensorDataScale and EntitySensorStatus values (RFC 3433).
enum class SensorType : std::int32_t { VoltsDc = 4, Amperes = 5, Watts = 6, Celsius = 8, Rpm = 10 };
enum class SensorScale : std::int32_t { Micro = 7, Milli = 8, Units = 9 };
enum class SensorStatus : std::int32_t { Ok = 1, Unavailable = 2 };

/// The kinds of sensors of an SFP module (the k of the index scheme).
enum class ModuleSensor : std::int32_t { Temperature = 1, Voltage = 2, Bias = 3, TxPower = 4, RxPower = 5 };

namespace index {
constexpr std::int32_t kBoard = 1;
constexpr std::int32_t kTemperatureBase = 1000;
constexpr std::int32_t kFanBase = 2000;
constexpr std::int32_t kFanSensorBase = 2500;
constexpr std::int32_t kSupplyBase = 3000;
constexpr std::int32_t kFanModule = 4000;
constexpr std::int32_t kFanModuleSensorBase = 4100;
constexpr std::int32_t kPowerModule = 5000;
constexpr std::int32_t kPonCageBase = 10000;
constexpr std::int32_t kFrontCageBase = 20000;
constexpr std::int32_t kModuleOffset = 1000;  ///< cage + 1000: the module in it
constexpr std::int32_t kSensorOffset = 2000;  ///< cage base + 2000 + 10 p + k: the module's sensors
constexpr std::uint32_t kMaxPort = 799;       ///< higher ports would run into the next group's range
}  // namespace index

std::int32_t cage_index(const SfpKey& key);
std::int32_t module_index(const SfpKey& key);
std::int32_t module_sensor_index(const SfpKey& key, ModuleSensor sensor);

/// A sensor's reading as ENTITY-SENSOR-MIB gives it: value x 10^(3 (scale - 9)) x 10^-precision units.
struct SensorReading {
  SensorType type = SensorType::Celsius;
  SensorScale scale = SensorScale::Units;
  std::int32_t precision = 0;
  std::int32_t value = 0;
  SensorStatus status = SensorStatus::Ok;
  std::optional<Clock::time_point> updated;
  bool operator==(const SensorReading&) const = default;
};

/// One row of entPhysicalTable, and of entPhySensorTable when it has a reading.
struct PhysicalEntity {
  std::int32_t index = 0;
  std::string description;
  EntityClass entity_class = EntityClass::Module;
  std::int32_t contained_in = 0;
  std::int32_t relative_position = -1;
  std::string name;
  std::string hardware_rev;
  std::string firmware_rev;
  std::string serial;
  std::string manufacturer;
  std::string model_name;
  bool field_replaceable = false;
  std::optional<SensorReading> sensor;
  bool operator==(const PhysicalEntity&) const = default;
};

/// The entities of the board in index order. `cages` are the SFP cages seen so far (with or
/// without a module now); a module's entities exist only while it is plugged.
std::vector<PhysicalEntity> physical_entities(const BoardModel& model, const std::set<SfpKey>& cages);

/// TimeStamp of `at` on an uptime that was 0 at `origin`: centiseconds, 0 for never or before.
std::uint32_t timestamp(std::optional<Clock::time_point> at, Clock::time_point origin);

/// entPhysicalTable (columns 2 to 16).
Rows entity_rows(const std::vector<PhysicalEntity>& entities);

/// entPhySensorTable; `update_rate` is the view's poll period.
Rows sensor_rows(const std::vector<PhysicalEntity>& entities, Clock::time_point origin,
                 std::chrono::milliseconds update_rate);

/// alarmActiveIndex of each raised alarm: a number that grows with each raise (RFC 3877 asks for a
/// strictly increasing one), kept while the alarm stays raised.
class AlarmIndexes {
 public:
  /// The index of a raised alarm, given a new one if it has none.
  std::uint32_t raise(const AlarmKey& key);
  /// The index of a clearing alarm (forgotten afterwards); none if it was never seen raised.
  std::optional<std::uint32_t> clear(const AlarmKey& key);
  /// Gives indexes to the raised alarms of `model` that have none (raised before the subagent
  /// started, or whose transition is still queued).
  void follow(const BoardModel& model);
  [[nodiscard]] const std::map<AlarmKey, std::uint32_t>& indexes() const { return indexes_; }

 private:
  std::map<AlarmKey, std::uint32_t> indexes_;
  std::uint32_t last_ = 0;
};

/// The entPhysicalIndex an alarm is about (the board when nothing closer is known).
std::int32_t alarm_resource(const BoardModel& model, const AlarmKey& key);

/// alarmActiveTable of the default (empty-named) list: one row per raised alarm that has an index.
Rows alarm_rows(const BoardModel& model, const std::map<AlarmKey, std::uint32_t>& indexes);

/// The instance part of an alarm's row: list name "", DateAndTime of `raised` (UTC), index.
Oid alarm_instance(Clock::time_point raised, std::uint32_t active_index);

/// DateAndTime (RFC 2579) of `at` in UTC, 11 octets.
std::string date_and_time(Clock::time_point at);

/// One varbind of a notification.
struct Varbind {
  Oid name;
  Value value;
  bool operator==(const Varbind&) const = default;
};

/// alarmActiveState (raised) or alarmClearState: snmpTrapOID.0, then the alarm's
/// alarmActiveModelPointer and alarmActiveResourceId.
std::vector<Varbind> alarm_notification(const BoardModel& model, const board_view::AlarmTransition& transition,
                                        std::uint32_t active_index);

/// XPON-BOARD-MIB under `arc`: the limits and the dBm values the standard tables cannot carry.
Rows board_mib_rows(const BoardModel& model, const Oid& arc);

/// dBm x 100 of a power in watts (floored at -40 dBm, where a module reads no light).
std::int32_t centi_dbm(double watts);

}  // namespace xpon::snmp_subagent
