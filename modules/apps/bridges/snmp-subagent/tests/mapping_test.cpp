// The rows the subagent serves, computed from board models: indexes, OIDs, types and values exactly.
#include "mapping.hpp"
#include "options.hpp"
#include "xpon/system_mgr/api.h"

#include <gtest/gtest.h>

#include <chrono>

namespace xpon::snmp_subagent {
namespace {

using namespace std::chrono_literals;
using board_view::PortGroup;

const Clock::time_point kOrigin = Clock::time_point(std::chrono::seconds(1'800'000'000));

board_view::ReadState read_at(Clock::time_point at) {
  board_view::ReadState state;
  state.updated = at;
  return state;
}

board_view::SfpModule pon_module(std::uint32_t port) {
  board_view::SfpModule module;
  module.group = PortGroup::Pon;
  module.port = port;
  module.vendor = "OPTIC CO";
  module.part_number = "GPON-C+";
  module.revision = "A1";
  module.serial = "SN0042";
  module.wavelength_nm = 1490;
  module.diagnostics = board_view::Diagnostics{41.5, 3.3, 0.006, 0.002};
  module.diagnostics_read = read_at(kOrigin + 12s);
  module.rx_watts = 0.00001;
  module.rx_read = read_at(kOrigin + 13s);
  return module;
}

BoardModel lt_model() {
  BoardModel model;
  model.product = "LT-16";
  model.serial = "B123";
  model.fpga_version = 7;
  model.cpld_version = 3;
  model.temperatures = {{0, 45, 0, 85}, {3, -2, std::nullopt, std::nullopt}};
  model.temperatures_read = read_at(kOrigin + 10s);
  model.fans = {{1, true, false, 6000}};
  model.fans_read = read_at(kOrigin + 10s);
  model.supplies = {{1, true, true, 0}};
  model.sfp[{PortGroup::Pon, 3}] = pon_module(3);
  return model;
}

std::vector<std::int32_t> indexes_of(const std::vector<PhysicalEntity>& entities) {
  std::vector<std::int32_t> indexes;
  indexes.reserve(entities.size());
  for (const auto& entity : entities) {
    indexes.push_back(entity.index);
  }
  return indexes;
}

const PhysicalEntity& entity_at(const std::vector<PhysicalEntity>& entities, std::int32_t index) {
  for (const auto& entity : entities) {
    if (entity.index == index) {
      return entity;
    }
  }
  throw std::out_of_range("no entity " + std::to_string(index));
}

TEST(IndexSchemeTest, CagesModulesAndTheirSensorsHaveFixedRanges) {
  EXPECT_EQ(cage_index({PortGroup::Pon, 0}), 10000);
  EXPECT_EQ(module_index({PortGroup::Pon, 3}), 11003);
  EXPECT_EQ(module_sensor_index({PortGroup::Pon, 3}, ModuleSensor::Temperature), 12031);
  EXPECT_EQ(module_sensor_index({PortGroup::Pon, 3}, ModuleSensor::RxPower), 12035);
  EXPECT_EQ(cage_index({PortGroup::Front, 1}), 20001);
  EXPECT_EQ(module_index({PortGroup::Front, 1}), 21001);
  EXPECT_EQ(module_sensor_index({PortGroup::Front, 799}, ModuleSensor::TxPower), 29994);
}

TEST(PhysicalEntitiesTest, AnLtBoardHasItsSensorsFansSuppliesAndModulesInIndexOrder) {
  const auto entities = physical_entities(lt_model(), {{PortGroup::Front, 1}});
  const auto indexes = indexes_of(entities);
  EXPECT_EQ(indexes, (std::vector<std::int32_t>{1, 1000, 1003, 2001, 2501, 3001, 10003, 11003, 12031, 12032, 12033,
                                                12034, 12035, 20001}));

  const auto& board = entity_at(entities, 1);
  EXPECT_EQ(board.description, "LT-16");
  EXPECT_EQ(board.entity_class, EntityClass::Module);
  EXPECT_EQ(board.contained_in, 0);
  EXPECT_EQ(board.relative_position, -1);
  EXPECT_EQ(board.serial, "B123");
  EXPECT_EQ(board.firmware_rev, "FPGA 7, CPLD 3");

  const auto& module = entity_at(entities, 11003);
  EXPECT_EQ(module.entity_class, EntityClass::Module);
  EXPECT_EQ(module.contained_in, 10003);
  EXPECT_EQ(module.manufacturer, "OPTIC CO");
  EXPECT_EQ(module.model_name, "GPON-C+");
  EXPECT_EQ(module.hardware_rev, "A1");
  EXPECT_EQ(module.serial, "SN0042");
  EXPECT_TRUE(module.field_replaceable);
  EXPECT_EQ(entity_at(entities, 10003).entity_class, EntityClass::Container);
  EXPECT_EQ(entity_at(entities, 10003).relative_position, 3);
  EXPECT_EQ(entity_at(entities, 20001).description, "SFP cage, front port 1");
  EXPECT_EQ(entity_at(entities, 2501).contained_in, 2001);
}

TEST(PhysicalEntitiesTest, SfpReadingsHaveTheirTypeScaleAndPrecision) {
  const auto entities = physical_entities(lt_model(), {});
  const auto sensor = [&](std::int32_t index) { return *entity_at(entities, index).sensor; };
  const auto updated = kOrigin + 12s;
  EXPECT_EQ(sensor(12031),
            (SensorReading{SensorType::Celsius, SensorScale::Units, 2, 4150, SensorStatus::Ok, updated}));
  EXPECT_EQ(sensor(12032),
            (SensorReading{SensorType::VoltsDc, SensorScale::Milli, 1, 33000, SensorStatus::Ok, updated}));
  EXPECT_EQ(sensor(12033),
            (SensorReading{SensorType::Amperes, SensorScale::Milli, 3, 6000, SensorStatus::Ok, updated}));
  EXPECT_EQ(sensor(12034), (SensorReading{SensorType::Watts, SensorScale::Micro, 1, 20000, SensorStatus::Ok, updated}));
  EXPECT_EQ(sensor(12035),
            (SensorReading{SensorType::Watts, SensorScale::Micro, 1, 100, SensorStatus::Ok, kOrigin + 13s}));
  EXPECT_EQ(sensor(1000),
            (SensorReading{SensorType::Celsius, SensorScale::Units, 0, 45, SensorStatus::Ok, kOrigin + 10s}));
  EXPECT_EQ(sensor(2501),
            (SensorReading{SensorType::Rpm, SensorScale::Units, 0, 6000, SensorStatus::Ok, kOrigin + 10s}));
}

TEST(PhysicalEntitiesTest, AFailedReadMakesItsSensorsUnavailableAndKeepsTheLastValue) {
  auto model = lt_model();
  model.temperatures_read.failed = true;
  model.sfp.at({PortGroup::Pon, 3}).rx_read.failed = true;
  const auto entities = physical_entities(model, {});
  EXPECT_EQ(entity_at(entities, 1000).sensor->status, SensorStatus::Unavailable);
  EXPECT_EQ(entity_at(entities, 1000).sensor->value, 45);
  EXPECT_EQ(entity_at(entities, 1003).sensor->status, SensorStatus::Unavailable);
  EXPECT_EQ(entity_at(entities, 12035).sensor->status, SensorStatus::Unavailable);
  EXPECT_EQ(entity_at(entities, 12031).sensor->status, SensorStatus::Ok);
  EXPECT_EQ(entity_at(entities, 2501).sensor->status, SensorStatus::Ok);
}

TEST(PhysicalEntitiesTest, AModuleWithoutDiagnosticsHasItsSensorsUnavailable) {
  auto model = lt_model();
  model.sfp.at({PortGroup::Pon, 3}).diagnostics.reset();
  const auto entities = physical_entities(model, {});
  EXPECT_EQ(entity_at(entities, 12031).sensor->status, SensorStatus::Unavailable);
  EXPECT_EQ(entity_at(entities, 12034).sensor->status, SensorStatus::Unavailable);
}

TEST(PhysicalEntitiesTest, ARemovedModuleLeavesItsSeenCageAndNothingElse) {
  auto model = lt_model();
  model.sfp.clear();
  const auto entities = physical_entities(model, {{PortGroup::Pon, 3}});
  EXPECT_EQ(entities.back().index, 10003);
  EXPECT_EQ(entities.size(), 7U);
}

TEST(PhysicalEntitiesTest, AnFcBoardShowsTheCratesModules) {
  BoardModel model;
  board_view::FanModule fans;
  fans.present = true;
  fans.rpm = {3000, 3100};
  fans.product = "FAN-28";
  fans.serial = "F9";
  model.fan_module = fans;
  model.fan_module_read = read_at(kOrigin + 1s);
  board_view::PowerModule power;
  power.present = true;
  power.input_volts = 53.25;
  power.output_amperes = 2.5;
  power.celsius = 31;
  model.power_module = power;
  model.power_module_read.failed = true;
  const auto entities = physical_entities(model, {});
  const auto indexes = indexes_of(entities);
  EXPECT_EQ(indexes, (std::vector<std::int32_t>{1, 4000, 4001, 4002, 4101, 4102, 5000, 5001, 5002, 5003, 5004, 5005}));
  EXPECT_EQ(entity_at(entities, 4000).model_name, "FAN-28");
  EXPECT_EQ(entity_at(entities, 4000).contained_in, 0);
  EXPECT_EQ(entity_at(entities, 4102).sensor->value, 3100);
  EXPECT_EQ(entity_at(entities, 4102).contained_in, 4002);
  EXPECT_EQ(entity_at(entities, 5001).sensor, (SensorReading{SensorType::VoltsDc, SensorScale::Milli, 0, 53250,
                                                             SensorStatus::Unavailable, std::nullopt}));
  EXPECT_EQ(entity_at(entities, 5003).sensor->value, 2500);
  EXPECT_EQ(entity_at(entities, 5005).sensor->value, 31);
  const auto rows = sensor_rows(entities, kOrigin, 10s);
  const auto units = [&](std::uint32_t index) { return rows.at(Oid{1, 3, 6, 1, 2, 1, 99, 1, 1, 1, 6, index}); };
  EXPECT_EQ(units(5001), octet_string("mV"));
  EXPECT_EQ(units(5003), octet_string("mA"));
  EXPECT_EQ(units(5004), octet_string("mW"));
  EXPECT_EQ(units(5005), octet_string("C"));
  EXPECT_EQ(units(4101), octet_string("rpm"));
}

TEST(RowsTest, EntPhysicalTableRowsCarryEveryColumnWithItsType) {
  const auto rows = entity_rows(physical_entities(lt_model(), {}));
  const auto at = [&](std::uint32_t column, std::uint32_t index) {
    return rows.at(Oid{1, 3, 6, 1, 2, 1, 47, 1, 1, 1, 1, column, index});
  };
  EXPECT_EQ(rows.size(), 13U * 15U);
  EXPECT_EQ(rows.begin()->first, (Oid{1, 3, 6, 1, 2, 1, 47, 1, 1, 1, 1, 2, 1}));
  EXPECT_EQ(at(2, 11003), octet_string("SFP module, 1490 nm"));
  EXPECT_EQ(at(3, 11003), object_id({0, 0}));
  EXPECT_EQ(at(4, 11003), integer(10003));
  EXPECT_EQ(at(5, 11003), integer(9));
  EXPECT_EQ(at(5, 10003), integer(5));
  EXPECT_EQ(at(5, 12031), integer(8));
  EXPECT_EQ(at(5, 2001), integer(7));
  EXPECT_EQ(at(5, 3001), integer(6));
  EXPECT_EQ(at(6, 11003), integer(1));
  EXPECT_EQ(at(7, 11003), octet_string("SFP module in PON port 3"));
  EXPECT_EQ(at(8, 11003), octet_string("A1"));
  EXPECT_EQ(at(11, 11003), octet_string("SN0042"));
  EXPECT_EQ(at(12, 11003), octet_string("OPTIC CO"));
  EXPECT_EQ(at(13, 11003), octet_string("GPON-C+"));
  EXPECT_EQ(at(16, 11003), integer(1));
  EXPECT_EQ(at(16, 12031), integer(2));
}

TEST(RowsTest, EntPhySensorTableRowsCarryTimeStampsOnTheUptimeAndTheUpdateRate) {
  const auto rows = sensor_rows(physical_entities(lt_model(), {}), kOrigin, 10s);
  const auto at = [&](std::uint32_t column, std::uint32_t index) {
    return rows.at(Oid{1, 3, 6, 1, 2, 1, 99, 1, 1, 1, column, index});
  };
  // Seven sensors: two temperatures, a fan, five of the module, eight columns each.
  EXPECT_EQ(rows.size(), 8U * 8U);
  EXPECT_EQ(at(1, 12035), integer(6));
  EXPECT_EQ(at(2, 12035), integer(7));
  EXPECT_EQ(at(3, 12035), integer(1));
  EXPECT_EQ(at(4, 12035), integer(100));
  EXPECT_EQ(at(5, 12035), integer(1));
  EXPECT_EQ(at(6, 12035), octet_string("uW"));
  EXPECT_EQ(at(7, 12035), time_ticks(1300));
  EXPECT_EQ(at(8, 12035), unsigned32(10000));
  EXPECT_EQ(at(1, 1003), integer(8));
  EXPECT_EQ(at(4, 1003), integer(-2));
  EXPECT_EQ(at(1, 2501), integer(10));
  EXPECT_EQ(at(6, 12033), octet_string("mA"));
}

TEST(TimestampTest, NeverReadAndBeforeTheOriginAreZero) {
  EXPECT_EQ(timestamp(std::nullopt, kOrigin), 0U);
  EXPECT_EQ(timestamp(kOrigin - 1s, kOrigin), 0U);
  EXPECT_EQ(timestamp(kOrigin + 1234ms, kOrigin), 123U);
}

board_view::ActiveAlarm temperature_alarm(std::uint32_t instance) {
  board_view::ActiveAlarm alarm;
  alarm.alarm_id = system_mgr::SYSTEM_MGR_ALARM_TEMPERATURE;
  alarm.instance = instance;
  alarm.text = "temperature";
  // 2027-01-15 08:00:00.3 UTC
  alarm.raised = Clock::time_point(std::chrono::seconds(1'800'000'000)) + 300ms;
  alarm.last_seen = alarm.raised;
  return alarm;
}

TEST(AlarmTest, DateAndTimeIsElevenOctetsInUtc) {
  const auto text = date_and_time(temperature_alarm(1).raised);
  const std::string expected{0x07, static_cast<char>(0xEB), 1, 15, 8, 0, 0, 3, '+', 0, 0};
  EXPECT_EQ(text, expected);
}

TEST(AlarmTest, EachRaisedAlarmIsOneRowOfTheDefaultListPointingAtItsEntity) {
  auto model = lt_model();
  model.alarms[{system_mgr::SYSTEM_MGR_ALARM_TEMPERATURE, 4}] = temperature_alarm(4);
  AlarmIndexes indexes;
  indexes.follow(model);
  const auto rows = alarm_rows(model, indexes.indexes());
  const Oid instance{0, 11, 7, 235, 1, 15, 8, 0, 0, 3, 43, 0, 0, 1};
  EXPECT_EQ(alarm_instance(model.alarms.begin()->second.raised, 1), instance);
  const auto at = [&](std::uint32_t column) {
    return rows.at(Oid{1, 3, 6, 1, 2, 1, 118, 1, 2, 2, 1, column} + instance);
  };
  EXPECT_EQ(rows.size(), 8U);
  EXPECT_EQ(at(7), octet_string(""));
  EXPECT_EQ(at(8), unsigned32(0));
  EXPECT_EQ(at(9), object_id({1, 3, 6, 1, 2, 1, 118, 0, 2}));
  // Sensor 4 counted from 1 is the driver's sensor 3.
  EXPECT_EQ(at(10), object_id({1, 3, 6, 1, 2, 1, 47, 1, 1, 1, 1, 2, 1003}));
  EXPECT_EQ(at(11), octet_string("temperature"));
  EXPECT_EQ(at(13), object_id({0, 0}));
}

TEST(AlarmTest, IndexesGrowWithEachRaiseAndStayWhileRaised) {
  AlarmIndexes indexes;
  EXPECT_EQ(indexes.raise({4, 1}), 1U);
  EXPECT_EQ(indexes.raise({2, 1}), 2U);
  EXPECT_EQ(indexes.raise({4, 1}), 1U);
  EXPECT_EQ(indexes.clear({4, 1}), 1U);
  EXPECT_EQ(indexes.clear({4, 1}), std::nullopt);
  EXPECT_EQ(indexes.raise({4, 1}), 3U);

  // An alarm the model holds without a transition (raised before the subagent started) gets the
  // next index; one that is gone from the model keeps its index until its clear transition.
  BoardModel model;
  model.alarms[{1, 0}] = board_view::ActiveAlarm{1, 0, {}, "RAM", kOrigin, kOrigin};
  indexes.follow(model);
  EXPECT_EQ(indexes.indexes().at({1, 0}), 4U);
  EXPECT_EQ(indexes.indexes().at({4, 1}), 3U);
}

TEST(AlarmTest, NotificationsNameTheStateTheModelPointerAndTheResource) {
  BoardModel model;
  board_view::FanModule fans;
  fans.present = true;
  model.fan_module = fans;
  board_view::AlarmTransition transition;
  transition.raised = false;
  transition.alarm = temperature_alarm(0);
  transition.alarm.alarm_id = system_mgr::SYSTEM_MGR_ALARM_FAN;
  transition.alarm.instance = 2;
  const auto varbinds = alarm_notification(model, transition, 9);
  const Oid instance{0, 11, 7, 235, 1, 15, 8, 0, 0, 3, 43, 0, 0, 9};
  const std::vector<Varbind> expected{
      {{1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0}, object_id({1, 3, 6, 1, 2, 1, 118, 0, 3})},
      {Oid{1, 3, 6, 1, 2, 1, 118, 1, 2, 2, 1, 13} + instance, object_id({0, 0})},
      {Oid{1, 3, 6, 1, 2, 1, 118, 1, 2, 2, 1, 10} + instance, object_id({1, 3, 6, 1, 2, 1, 47, 1, 1, 1, 1, 2, 4002})},
  };
  EXPECT_EQ(varbinds, expected);
}

TEST(AlarmTest, ResourcesFollowTheBoardsFamily) {
  BoardModel lt;
  EXPECT_EQ(alarm_resource(lt, {system_mgr::SYSTEM_MGR_ALARM_FAN, 2}), 2002);
  EXPECT_EQ(alarm_resource(lt, {system_mgr::SYSTEM_MGR_ALARM_POWER_SUPPLY, 1}), 3001);
  EXPECT_EQ(alarm_resource(lt, {system_mgr::SYSTEM_MGR_ALARM_RAM, 0}), 1);
  BoardModel fc;
  fc.fan_module = board_view::FanModule{};
  fc.power_module = board_view::PowerModule{};
  EXPECT_EQ(alarm_resource(fc, {system_mgr::SYSTEM_MGR_ALARM_FAN, 0}), 4000);
  EXPECT_EQ(alarm_resource(fc, {system_mgr::SYSTEM_MGR_ALARM_POWER_SUPPLY, 1}), 5000);
}

TEST(BoardMibTest, LimitsAndDbmValuesAreServedUnderTheGivenArc) {
  auto model = lt_model();
  model.limits.fan_lower_rpm = 1200;
  const Oid arc{1, 3, 6, 1, 4, 1, 99999, 7};
  const auto rows = board_mib_rows(model, arc);
  const Rows expected{
      {arc + Oid{1, 1, 1, 1, 1000}, integer(0)},      {arc + Oid{1, 1, 1, 2, 1000}, integer(85)},
      {arc + Oid{1, 2, 0}, unsigned32(1200)},         {arc + Oid{1, 4, 1, 1, 11003}, integer(301)},
      {arc + Oid{1, 4, 1, 2, 11003}, integer(-2000)}, {arc + Oid{1, 4, 1, 3, 11003}, unsigned32(1490)},
  };
  EXPECT_EQ(rows, expected);
}

TEST(BoardMibTest, CentiDbmIsFlooredWhereThereIsNoLight) {
  EXPECT_EQ(centi_dbm(0.001), 0);
  EXPECT_EQ(centi_dbm(0.0), -4000);
  EXPECT_EQ(centi_dbm(1e-9), -4000);
  EXPECT_EQ(centi_dbm(0.0005), -301);
}

TEST(OptionsTest, DottedOidsAreParsedAndNonsenseIsRefused) {
  EXPECT_EQ(parse_oid("1.3.6.1.4.1.8072.9999.4242"), (Oid{1, 3, 6, 1, 4, 1, 8072, 9999, 4242}));
  EXPECT_EQ(parse_oid(".1.3.6"), (Oid{1, 3, 6}));
  EXPECT_EQ(parse_oid("1"), std::nullopt);
  EXPECT_EQ(parse_oid("1..3"), std::nullopt);
  EXPECT_EQ(parse_oid("1.3."), std::nullopt);
  EXPECT_EQ(parse_oid("1.x"), std::nullopt);
  EXPECT_EQ(parse_oid("1.99999999999"), std::nullopt);
}

}  // namespace
}  // namespace xpon::snmp_subagent
