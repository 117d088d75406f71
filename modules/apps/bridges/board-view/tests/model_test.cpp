// The board model: each answer and event of the daemon taken in, byte for byte, and what a
// failure or a payload of the wrong size leaves behind.
#include "xpon/board_view/model.hpp"
#include "xpon/board/driver_abi.h"
#include "xpon/board_view/test/daemon_stand_in.hpp"
#include "xpon/system_mgr/api.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

namespace xpon::board_view {
namespace {

using namespace xpon::system_mgr;

const Clock::time_point kThen = Clock::time_point(std::chrono::seconds(1700000000));
const Clock::time_point kNow = kThen + std::chrono::seconds(10);

using test::bytes_of;
using test::module_record;

core::Result<ipc::Response> answered(ipc::Payload payload) {
  ipc::Response response;
  response.result = SYSTEM_MGR_RESULT_ANSWERED;
  response.payload = std::move(payload);
  return response;
}

core::Result<ipc::Response> error_answer() {
  ipc::Response response;
  response.result = SYSTEM_MGR_RESULT_ERROR;
  return response;
}

System_mgr__temperature sensor(std::int32_t id, std::int8_t celsius) {
  System_mgr__temperature record{};
  record.id = id;
  record.temperature = celsius;
  return record;
}

ipc::Event event(std::uint16_t group, std::uint16_t id, ipc::Payload payload) {
  ipc::Event out;
  out.group = group;
  out.id = id;
  out.payload = std::move(payload);
  return out;
}

Alarm alarm_record(std::uint8_t state, std::uint32_t alarm_id, std::uint32_t instance, std::uint32_t value,
                   const char* text) {
  Alarm record{};
  record.state = state;
  record.alarm_id = alarm_id;
  record.instance = instance;
  record.value[0] = value;
  std::strncpy(record.text, text, sizeof record.text - 1);
  return record;
}

TEST(BoardModelTest, TemperaturesAreTakenInTheDriversOrderWithTheirLimits) {
  BoardModel model;
  model.temperature_limits[3] = {0, 85};
  apply_answer(model, IPC_SYSTEM_MGR__GET_TEMP, std::nullopt,
               answered(bytes_of(std::vector{sensor(3, 41), sensor(4, -5)})), kNow);
  ASSERT_EQ(model.temperatures.size(), 2U);
  EXPECT_EQ(model.temperatures[0].id, 3);
  EXPECT_EQ(model.temperatures[0].celsius, 41);
  EXPECT_EQ(model.temperatures[0].upper_limit, 85);
  EXPECT_EQ(model.temperatures[0].lower_limit, 0);
  EXPECT_EQ(model.temperatures[1].celsius, -5);
  EXPECT_FALSE(model.temperatures[1].upper_limit.has_value());
  EXPECT_EQ(model.temperatures_read.updated, kNow);
  EXPECT_FALSE(model.temperatures_read.failed);
}

TEST(BoardModelTest, AFailedReadKeepsTheLastValuesAndSaysWhy) {
  BoardModel model;
  apply_answer(model, IPC_SYSTEM_MGR__GET_TEMP, std::nullopt, answered(bytes_of(std::vector{sensor(0, 30)})), kThen);

  apply_answer(model, IPC_SYSTEM_MGR__GET_TEMP, std::nullopt, error_answer(), kNow);
  EXPECT_TRUE(model.temperatures_read.failed);
  EXPECT_EQ(model.temperatures_read.error, "error answer");
  EXPECT_EQ(model.temperatures_read.updated, kThen);
  ASSERT_EQ(model.temperatures.size(), 1U);
  EXPECT_EQ(model.temperatures[0].celsius, 30);

  apply_answer(model, IPC_SYSTEM_MGR__GET_TEMP, std::nullopt, core::ErrorPayload(core::Error::InvalidState), kNow);
  EXPECT_EQ(model.temperatures_read.error, "no answer in time");

  // 9 bytes: not a whole number of 8-byte records.
  apply_answer(model, IPC_SYSTEM_MGR__GET_TEMP, std::nullopt, answered(ipc::Payload(9, 0)), kNow);
  EXPECT_EQ(model.temperatures_read.error, "answer of 9 bytes does not have the record's layout");
  EXPECT_EQ(model.temperatures[0].celsius, 30);

  // A good read clears the failure.
  apply_answer(model, IPC_SYSTEM_MGR__GET_TEMP, std::nullopt, answered(bytes_of(std::vector{sensor(0, 31)})), kNow);
  EXPECT_FALSE(model.temperatures_read.failed);
  EXPECT_EQ(model.temperatures_read.error, "");
  EXPECT_EQ(model.temperatures_read.updated, kNow);
}

TEST(BoardModelTest, AnswersOfOneRecordRefuseAnyOtherSize) {
  for (const std::uint16_t id :
       {IPC_SYSTEM_MGR__GET_RAM_DATA, IPC_SYSTEM_MGR__GET_HDD_DATA, IPC_SYSTEM_MGR__GET_DEVICE_FACTORY,
        IPC_SYSTEM_MGR__GET_FPGA_VERSION, IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE, IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE}) {
    const RequestInfo* info = find_request(id);
    ASSERT_NE(info, nullptr);
    for (const std::size_t size : {std::size_t{0}, info->record_size - 1, info->record_size * 2, std::size_t{70000}}) {
      BoardModel model;
      apply_answer(model, id, std::nullopt, answered(ipc::Payload(size, 0xFF)), kNow);
      EXPECT_EQ(model.family, std::nullopt) << info->name << " " << size;
      EXPECT_EQ(model.ram_total_bytes, std::nullopt) << info->name << " " << size;
      EXPECT_EQ(model.power_module.has_value(), false) << info->name << " " << size;
      EXPECT_EQ(model.fan_module.has_value(), false) << info->name << " " << size;
      EXPECT_EQ(model.fpga_version, std::nullopt) << info->name << " " << size;
    }
  }
}

TEST(BoardModelTest, MemoryAndDiskAreInBytes) {
  BoardModel model;
  apply_answer(model, IPC_SYSTEM_MGR__GET_RAM_DATA, std::nullopt,
               answered(bytes_of(System_mgr__ram_data{2048.0F, 512.0F})), kNow);
  apply_answer(model, IPC_SYSTEM_MGR__GET_HDD_DATA, std::nullopt, answered(bytes_of(System_mgr__hdd_data{4.0F, 1.5F})),
               kNow);
  EXPECT_EQ(model.ram_total_bytes, 2097152.0);
  EXPECT_EQ(model.ram_free_bytes, 524288.0);
  EXPECT_EQ(model.disk_total_bytes, 4294967296.0);
  EXPECT_EQ(model.disk_free_bytes, 1610612736.0);
}

TEST(BoardModelTest, FactoryAnswersGiveTheFamilyProductAndSerial) {
  System_mgr__factory device{};
  device.family = SYSTEM_MGR_FAMILY_FC;
  std::strcpy(device.data.device_name, "QD7R-FC");
  std::strcpy(device.data.serial_number, "FC2311000042");
  BoardModel model;
  apply_answer(model, IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, std::nullopt, answered(bytes_of(device)), kNow);
  EXPECT_EQ(model.family, SYSTEM_MGR_FAMILY_FC);
  EXPECT_EQ(model.product, "QD7R-FC");
  EXPECT_EQ(model.serial, "FC2311000042");
  EXPECT_EQ(model.crate_product, "");

  // Whatever bytes an EEPROM holds come out printable: \xNN, a backslash doubled.
  std::memcpy(device.data.device_name, "QD7R\xff\\FC", 8);
  device.data.device_name[8] = '\0';
  apply_answer(model, IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, std::nullopt, answered(bytes_of(device)), kNow);
  EXPECT_EQ(model.product, "QD7R\\xff\\\\FC");
}

TEST(BoardModelTest, FansAndSuppliesAreNumberedFromOneWithRpm) {
  BoardModel model;
  apply_answer(model, IPC_SYSTEM_MGR__GET_FAN_STATES, std::nullopt,
               answered(bytes_of(std::vector{System_mgr__fan_state{0, 1, 95}, System_mgr__fan_state{1, 1, 0}})), kNow);
  ASSERT_EQ(model.fans.size(), 2U);
  EXPECT_EQ(model.fans[0].number, 1U);
  EXPECT_EQ(model.fans[0].rpm, 5700U);
  EXPECT_TRUE(model.fans[0].present);
  EXPECT_FALSE(model.fans[0].fault);
  EXPECT_TRUE(model.fans[1].fault);

  System_mgr__ps_state supply{};
  supply.is_present = 1;
  supply.is_power_good = 0;
  supply.alert = 4;
  apply_answer(model, IPC_SYSTEM_MGR__GET_PS_STATES, std::nullopt, answered(bytes_of(std::vector{supply, supply})),
               kNow);
  ASSERT_EQ(model.supplies.size(), 2U);
  EXPECT_EQ(model.supplies[1].number, 2U);
  EXPECT_TRUE(model.supplies[1].present);
  EXPECT_FALSE(model.supplies[1].power_good);
  EXPECT_EQ(model.supplies[1].alert, 4);
}

TEST(BoardModelTest, FanModuleReadsNoMoreSpeedsThanItsRecordHolds) {
  System_mgr__fan_module_state state{};
  state.present = 1;
  state.count = 200;
  state.speed_setting = 159;
  for (auto& speed : state.speed) {
    speed = 100;
  }
  BoardModel model;
  apply_answer(model, IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE, std::nullopt, answered(bytes_of(state)), kNow);
  ASSERT_TRUE(model.fan_module.has_value());
  EXPECT_EQ(model.fan_module->rpm.size(), 28U);
  EXPECT_EQ(model.fan_module->rpm[27], 6000U);
  EXPECT_EQ(model.fan_module->speed_setting, 159U);

  System_mgr__fan_module_factory factory{};
  std::memcpy(factory.product_name, "FAN-MODULE-16CHR", 16);  // fills the field: no NUL
  std::memcpy(factory.serial_number, "FM01", 4);
  apply_answer(model, IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY, std::nullopt, answered(bytes_of(factory)), kNow);
  EXPECT_EQ(model.fan_module->product, "FAN-MODULE-16CHR");
  EXPECT_EQ(model.fan_module->serial, "FM01");
  EXPECT_EQ(model.fan_module->rpm.size(), 28U);  // the state is kept
}

TEST(BoardModelTest, PowerModuleIsInBaseUnits) {
  System_mgr__pwr_module_state state{};
  state.present = 1;
  state.power_good = 1;
  state.input_voltage = 2301;   // 0.1 V
  state.output_voltage = 1200;  // 10 mV
  state.output_current = 1550;  // 10 mA
  state.output_power = 186;
  state.temperature = -3;
  BoardModel model;
  apply_answer(model, IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE, std::nullopt, answered(bytes_of(state)), kNow);
  ASSERT_TRUE(model.power_module.has_value());
  EXPECT_DOUBLE_EQ(model.power_module->input_volts, 230.1);
  EXPECT_DOUBLE_EQ(model.power_module->output_volts, 12.0);
  EXPECT_DOUBLE_EQ(model.power_module->output_amperes, 15.5);
  EXPECT_DOUBLE_EQ(model.power_module->output_watts, 186.0);
  EXPECT_EQ(model.power_module->celsius, -3);
}

TEST(BoardModelTest, TotalInfoReplacesTheModulesOfItsGroupOnly) {
  BoardModel model;
  apply_answer(model, IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO, std::nullopt,
               answered(bytes_of(std::vector{module_record(0, "A"), module_record(3, "B")})), kNow);
  apply_answer(model, IPC_SYSTEM_MGR__GET_F_PORTS_TOTAL_INFO, std::nullopt,
               answered(bytes_of(std::vector{module_record(0, "C")})), kNow);
  EXPECT_EQ(model.sfp.size(), 3U);
  ASSERT_TRUE(model.sfp.contains({PortGroup::Pon, 3}));
  EXPECT_EQ(model.sfp.at({PortGroup::Pon, 3}).vendor, "XPON-OPTICS");
  EXPECT_EQ(model.sfp.at({PortGroup::Pon, 3}).part_number, "GP-SFP-C");
  EXPECT_EQ(model.sfp.at({PortGroup::Pon, 3}).revision, "A");
  EXPECT_EQ(model.sfp.at({PortGroup::Pon, 3}).serial, "B");
  EXPECT_EQ(model.sfp.at({PortGroup::Pon, 3}).wavelength_nm, 1490);

  // Port 3 pulled: the next answer no longer has it; the front module stays.
  apply_answer(model, IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO, std::nullopt,
               answered(bytes_of(std::vector{module_record(0, "A")})), kNow);
  EXPECT_EQ(model.sfp.size(), 2U);
  EXPECT_FALSE(model.sfp.contains({PortGroup::Pon, 3}));
  EXPECT_TRUE(model.sfp.contains({PortGroup::Front, 0}));
  EXPECT_FALSE(model.sfp_read[0].failed);
  EXPECT_EQ(model.sfp_read[0].updated, kNow);

  // An empty answer: no module in the group.
  apply_answer(model, IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO, std::nullopt, answered({}), kNow);
  EXPECT_EQ(model.sfp.size(), 1U);
}

TEST(BoardModelTest, DiagnosticsAndReceivePowerAreInBaseUnits) {
  BoardModel model;
  apply_answer(model, IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO, std::nullopt,
               answered(bytes_of(std::vector{module_record(2, "A")})), kThen);
  System_mgr__sfp_eddi_data eddi{};
  eddi.port = 2;
  eddi.valid = 1;
  eddi.temperature = 38.5;
  eddi.voltage = 3300000.0;  // uV
  eddi.bias_current = 12.0;  // mA
  eddi.optical_power = 2.0;  // mW
  apply_answer(model, IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA, 2U, answered(bytes_of(eddi)), kNow);
  apply_answer(model, IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER, 2U, answered(bytes_of(System_mgr__rx_power{1500.0})), kNow);
  const auto& module = model.sfp.at({PortGroup::Pon, 2});
  ASSERT_TRUE(module.diagnostics.has_value());
  EXPECT_DOUBLE_EQ(module.diagnostics->celsius, 38.5);
  EXPECT_DOUBLE_EQ(module.diagnostics->volts, 3.3);
  EXPECT_DOUBLE_EQ(module.diagnostics->bias_amperes, 0.012);
  EXPECT_DOUBLE_EQ(module.diagnostics->tx_watts, 0.002);
  ASSERT_TRUE(module.rx_watts.has_value());
  EXPECT_DOUBLE_EQ(*module.rx_watts, 1.5e-4);
  EXPECT_EQ(module.diagnostics_read.updated, kNow);
  EXPECT_EQ(module.rx_read.updated, kNow);

  // The next total-info answer with the same module keeps what was read of it.
  apply_answer(model, IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO, std::nullopt,
               answered(bytes_of(std::vector{module_record(2, "A")})), kNow);
  EXPECT_TRUE(model.sfp.at({PortGroup::Pon, 2}).diagnostics.has_value());

  // Another module in the same port: what was read of the old one is gone.
  apply_answer(model, IPC_SYSTEM_MGR__GET_P_PORTS_TOTAL_INFO, std::nullopt,
               answered(bytes_of(std::vector{module_record(2, "Z")})), kNow);
  EXPECT_FALSE(model.sfp.at({PortGroup::Pon, 2}).diagnostics.has_value());
  EXPECT_FALSE(model.sfp.at({PortGroup::Pon, 2}).rx_watts.has_value());
  apply_answer(model, IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA, 2U, answered(bytes_of(eddi)), kNow);
  EXPECT_TRUE(model.sfp.at({PortGroup::Pon, 2}).diagnostics.has_value());

  // A module without diagnostics (valid 0) has none.
  eddi.valid = 0;
  apply_answer(model, IPC_SYSTEM_MGR__GET_P_PORT_EDDI_DATA, 2U, answered(bytes_of(eddi)), kNow);
  EXPECT_FALSE(model.sfp.at({PortGroup::Pon, 2}).diagnostics.has_value());

  // An answer about a port with no module (pulled meanwhile) changes nothing.
  apply_answer(model, IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER, 5U, answered(bytes_of(System_mgr__rx_power{1.0})), kNow);
  EXPECT_EQ(model.sfp.size(), 1U);
}

TEST(BoardModelTest, AlarmRecordsBecomeTransitionsOnlyWhenTheStateChanges) {
  BoardModel model;
  const auto raised = event(IPC_EVENT_ALARM_GROUP, IPC_EVENT_ALARM_ID,
                            bytes_of(alarm_record(SYSTEM_MGR_ALARM_RAISED, SYSTEM_MGR_ALARM_TEMPERATURE, 4, 90,
                                                  "Temperature of sensor 4 is out of range")));
  auto outcome = apply_event(model, raised, kThen);
  ASSERT_TRUE(outcome.understood);
  ASSERT_TRUE(outcome.alarm.has_value());
  EXPECT_TRUE(outcome.alarm->raised);
  EXPECT_EQ(outcome.alarm->alarm.instance, 4U);
  EXPECT_EQ(outcome.alarm->alarm.text, "Temperature of sensor 4 is out of range");
  ASSERT_EQ(model.alarms.size(), 1U);

  // The daemon reports the alarm again every period: no new transition, the first time is kept.
  for (int period = 0; period < 5; ++period) {
    outcome = apply_event(model, raised, kNow);
    EXPECT_TRUE(outcome.understood);
    EXPECT_FALSE(outcome.alarm.has_value());
  }
  EXPECT_EQ(model.alarms.at({SYSTEM_MGR_ALARM_TEMPERATURE, 4}).raised, kThen);
  EXPECT_EQ(model.alarms.at({SYSTEM_MGR_ALARM_TEMPERATURE, 4}).last_seen, kNow);

  const auto normal = event(IPC_EVENT_ALARM_GROUP, IPC_EVENT_ALARM_ID,
                            bytes_of(alarm_record(SYSTEM_MGR_ALARM_BACK_TO_NORMAL, SYSTEM_MGR_ALARM_TEMPERATURE, 4, 40,
                                                  "Temperature of sensor 4 is normal")));
  outcome = apply_event(model, normal, kNow);
  ASSERT_TRUE(outcome.alarm.has_value());
  EXPECT_FALSE(outcome.alarm->raised);
  EXPECT_EQ(outcome.alarm->alarm.raised, kThen);
  EXPECT_EQ(outcome.alarm->alarm.values[0], 40U);
  EXPECT_TRUE(model.alarms.empty());

  // An alarm text with bytes that are not text is kept readable.
  const auto odd = event(IPC_EVENT_ALARM_GROUP, IPC_EVENT_ALARM_ID,
                         bytes_of(alarm_record(SYSTEM_MGR_ALARM_RAISED, SYSTEM_MGR_ALARM_FAN, 1, 0, "Fan \x80 1")));
  outcome = apply_event(model, odd, kNow);
  ASSERT_TRUE(outcome.alarm.has_value());
  EXPECT_EQ(outcome.alarm->alarm.text, "Fan \\x80 1");
  model.alarms.clear();

  // Back to normal again and again: nothing more.
  outcome = apply_event(model, normal, kNow);
  EXPECT_TRUE(outcome.understood);
  EXPECT_FALSE(outcome.alarm.has_value());
}

TEST(BoardModelTest, MalformedEventsAreNotUnderstoodAndChangeNothing) {
  BoardModel model;
  for (const std::size_t size : {std::size_t{0}, sizeof(Alarm) - 1, sizeof(Alarm) + 1, std::size_t{70000}}) {
    EXPECT_FALSE(
        apply_event(model, event(IPC_EVENT_ALARM_GROUP, IPC_EVENT_ALARM_ID, ipc::Payload(size, 0)), kNow).understood);
  }
  // A state byte that is neither raised nor back to normal.
  EXPECT_FALSE(apply_event(model,
                           event(IPC_EVENT_ALARM_GROUP, IPC_EVENT_ALARM_ID, bytes_of(alarm_record(7, 1, 0, 0, "odd"))),
                           kNow)
                   .understood);
  for (const std::size_t size : {std::size_t{0}, sizeof(SfpModuleRecord) - 1, std::size_t{70000}}) {
    EXPECT_FALSE(
        apply_event(
            model, event(IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_INSERTED, ipc::Payload(size, 0)), kNow)
            .understood);
  }
  for (const std::size_t size : {std::size_t{0}, std::size_t{3}, std::size_t{5}}) {
    EXPECT_FALSE(
        apply_event(model,
                    event(IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED, ipc::Payload(size, 0)), kNow)
            .understood);
  }
  EXPECT_FALSE(apply_event(model, event(1234, 5, {}), kNow).understood);
  EXPECT_TRUE(model.alarms.empty());
  EXPECT_TRUE(model.sfp.empty());
  EXPECT_FALSE(model.alarms_updated.has_value());
}

TEST(BoardModelTest, InsertedAndRemovedEventsChangeTheModulesAtOnce) {
  BoardModel model;
  auto outcome = apply_event(
      model, event(IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_INSERTED, bytes_of(module_record(1, "F"))),
      kNow);
  ASSERT_TRUE(outcome.understood);
  ASSERT_TRUE(outcome.inserted.has_value());
  EXPECT_EQ(*outcome.inserted, (SfpKey{PortGroup::Front, 1}));
  EXPECT_EQ(model.sfp.at({PortGroup::Front, 1}).vendor, "XPON-OPTICS");

  // The removal of the same port number in the other group changes nothing.
  outcome = apply_event(
      model, event(IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_REMOVED, ipc::Payload{1, 0, 0, 0}), kNow);
  EXPECT_TRUE(outcome.understood);
  EXPECT_EQ(model.sfp.size(), 1U);
  outcome = apply_event(
      model, event(IPC_SYSTEM_MGR, IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED, ipc::Payload{1, 0, 0, 0}), kNow);
  EXPECT_TRUE(outcome.understood);
  EXPECT_TRUE(model.sfp.empty());
}

}  // namespace
}  // namespace xpon::board_view
