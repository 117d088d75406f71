#include "xpon/system_mgr/api.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>

namespace xpon::system_mgr {
namespace {

template <typename Record>
std::array<std::uint8_t, sizeof(Record)> bytes_of(const Record& record) {
  std::array<std::uint8_t, sizeof(Record)> bytes{};
  std::memcpy(bytes.data(), &record, sizeof record);
  return bytes;
}

template <typename Value>
Value read_at(const std::uint8_t* bytes, std::size_t offset) {
  Value value{};
  std::memcpy(&value, bytes + offset, sizeof value);
  return value;
}

TEST(ClientRecords, RamAnswerIsTotalThenFreeAsTwoFloats) {
  const System_mgr__ram_data answer{16384.0F, 2048.5F};
  const auto bytes = bytes_of(answer);
  ASSERT_EQ(bytes.size(), 8U);
  EXPECT_EQ(read_at<float>(bytes.data(), 0), 16384.0F);
  EXPECT_EQ(read_at<float>(bytes.data(), 4), 2048.5F);
  // 16384.0f is 0x46800000, little-endian.
  EXPECT_EQ(bytes[0], 0x00);
  EXPECT_EQ(bytes[2], 0x80);
  EXPECT_EQ(bytes[3], 0x46);
}

TEST(ClientRecords, DiskAnswerIsTotalThenFreeAsTwoFloats) {
  const System_mgr__hdd_data answer{7.25F, 1.5F};
  const auto bytes = bytes_of(answer);
  ASSERT_EQ(bytes.size(), 8U);
  EXPECT_EQ(read_at<float>(bytes.data(), 0), 7.25F);
  EXPECT_EQ(read_at<float>(bytes.data(), 4), 1.5F);
}

TEST(ClientRecords, PowerSupplyRecordPlacesFlagsAndTextsAtTheirOffsets) {
  System_mgr__ps_state supply;
  std::memset(&supply, 0, sizeof supply);
  supply.id = 3;
  supply.is_present = 1;
  supply.is_power_good = 2;
  supply.has_info = 4;
  supply.alert = 0x80;
  std::memcpy(supply.model, "PSU", 3);
  std::memcpy(supply.sn, "SN7", 3);
  std::memcpy(supply.ver, "1.2", 3);
  supply.rev[0] = 'B';
  std::memcpy(supply.date, "2023-01-17", 10);
  const auto bytes = bytes_of(supply);
  ASSERT_EQ(bytes.size(), 72U);
  EXPECT_EQ(bytes[0], 3);
  EXPECT_EQ(bytes[1], 1);
  EXPECT_EQ(bytes[2], 2);
  EXPECT_EQ(bytes[3], 4);
  EXPECT_EQ(bytes[4], 0x80);
  EXPECT_EQ(std::string(bytes.begin() + 5, bytes.begin() + 8), "PSU");
  EXPECT_EQ(bytes[8], 0);
  EXPECT_EQ(std::string(bytes.begin() + 36, bytes.begin() + 39), "SN7");
  EXPECT_EQ(std::string(bytes.begin() + 53, bytes.begin() + 56), "1.2");
  EXPECT_EQ(bytes[59], 'B');
  EXPECT_EQ(std::string(bytes.begin() + 61, bytes.begin() + 71), "2023-01-17");
  EXPECT_EQ(bytes[71], 0);
  EXPECT_EQ(SYSTEM_MGR_PS_STATES_COPIED_PER_SUPPLY, 8);
}

TEST(ClientRecords, PowerModuleStateIsTwentyLittleEndianBytes) {
  System_mgr__pwr_module_state state;
  std::memset(&state, 0, sizeof state);
  state.present = 1;
  state.power_good = 0;
  state.fault = 1;
  state.fan_fault = 0;
  state.input_voltage = 2300;
  state.output_voltage = 1200;
  state.output_current = 1250;
  state.output_power = 150;
  state.temperature = -5;
  state.reserved[5] = 0x11;
  const auto bytes = bytes_of(state);
  const std::array<std::uint8_t, 20> expected = {0x01, 0x00, 0x01, 0x00, 0xFC, 0x08, 0xB0, 0x04, 0xE2, 0x04,
                                                 0x96, 0x00, 0xFB, 0xFF, 0x00, 0x00, 0x00, 0x00, 0x00, 0x11};
  EXPECT_EQ(bytes, expected);
}

TEST(ClientRecords, DiagnosticsAnswerPlacesItsValuesAtTheirOffsets) {
  System_mgr__sfp_eddi_data answer;
  std::memset(&answer, 0, sizeof answer);
  answer.port = 0x01020304;
  answer.valid = 1;
  answer.temperature = 36.5;
  answer.voltage = 3300000.0;
  answer.bias_current = 6.2;
  answer.optical_power = 0.5012;
  const auto bytes = bytes_of(answer);
  ASSERT_EQ(bytes.size(), 133U);
  EXPECT_EQ(bytes[0], 0x04);
  EXPECT_EQ(bytes[3], 0x01);
  EXPECT_EQ(bytes[4], 1);
  EXPECT_EQ(read_at<double>(bytes.data(), 5), 36.5);
  EXPECT_EQ(read_at<double>(bytes.data(), 13), 3300000.0);
  EXPECT_EQ(read_at<double>(bytes.data(), 21), 6.2);
  EXPECT_EQ(read_at<double>(bytes.data(), 29), 0.5012);
  for (std::size_t offset = 37; offset < 133; ++offset) {
    EXPECT_EQ(bytes[offset], 0) << offset;
  }
}

TEST(ClientRecords, FactoryAnswerIsTheFamilyIdThenTheFactoryRecord) {
  System_mgr__factory answer;
  std::memset(&answer, 0, sizeof answer);
  answer.family = SYSTEM_MGR_FAMILY_FC;
  Factory__data data;
  std::memset(&data, 0, sizeof data);
  std::memcpy(data.device_name, "QD7R-FC", 8);
  const std::array<std::uint8_t, 6> mac{0xA8, 0xF9, 0x4B, 0x01, 0x02, 0x03};
  std::memcpy(data.base_mac, mac.data(), mac.size());
  data.mac_count = 0x0102;
  data.device_version = 3;
  data.fields_present = FACTORY__FIELD_BIT(0x21) | FACTORY__FIELD_BIT(0x24);
  answer.data = data;
  const auto bytes = bytes_of(answer);
  ASSERT_EQ(bytes.size(), 280U);
  EXPECT_EQ(read_at<std::uint32_t>(bytes.data(), 0), 2U);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes.data() + 4)), "QD7R-FC");
  EXPECT_TRUE(std::equal(mac.begin(), mac.end(), bytes.begin() + 132));
  EXPECT_EQ(read_at<std::uint16_t>(bytes.data(), 138), 0x0102);
  EXPECT_EQ(bytes[160], 3);
  EXPECT_EQ(read_at<std::uint32_t>(bytes.data(), 276), 0x9U);
}

TEST(ClientRecords, FamilyIdsAreLtLcFc) {
  EXPECT_EQ(SYSTEM_MGR_FAMILY_LT, 0);
  EXPECT_EQ(SYSTEM_MGR_FAMILY_LC, 1);
  EXPECT_EQ(SYSTEM_MGR_FAMILY_FC, 2);
}

TEST(ClientRecords, SfpModuleRecordIsPortStateThenFiftyNineDataBytes) {
  SfpModuleRecord record;
  std::memset(&record, 0, sizeof record);
  record.port = 0x0A0B0C0D;
  record.state = 0x7E;
  for (std::size_t i = 0; i < sizeof record.data; ++i) {
    record.data[i] = static_cast<std::uint8_t>(0x80 + i);
  }
  const auto bytes = bytes_of(record);
  ASSERT_EQ(bytes.size(), 64U);
  EXPECT_EQ(bytes[0], 0x0D);
  EXPECT_EQ(bytes[1], 0x0C);
  EXPECT_EQ(bytes[2], 0x0B);
  EXPECT_EQ(bytes[3], 0x0A);
  EXPECT_EQ(bytes[4], 0x7E);
  for (std::size_t offset = 5; offset < 64; ++offset) {
    EXPECT_EQ(bytes[offset], 0x80 + offset - 5) << offset;
  }
}

TEST(ClientRecords, ReceivePowerAnswerIsOneLittleEndianDouble) {
  // 0.1 mW in 0.1 uW units, 1000.0: 0x408F400000000000.
  const double power = 1000.0;
  const auto bytes = bytes_of(power);
  EXPECT_EQ(bytes, (std::array<std::uint8_t, 8>{0x00, 0x00, 0x00, 0x00, 0x00, 0x40, 0x8F, 0x40}));
}

TEST(RequestCatalogue, ListsEveryRequestOnceInIdOrderUnderItsIdentifier) {
  ASSERT_GE(std::size(kRequestCatalogue), 36U);
  EXPECT_EQ(kRequestCatalogue[0].id, 15501);
  EXPECT_EQ(kRequestCatalogue[35].id, 15536);
  std::uint16_t previous = IPC_SYSTEM_MGR;
  for (const RequestInfo& info : kRequestCatalogue) {
    EXPECT_GT(info.id, previous) << info.name;
    EXPECT_TRUE(info.name.starts_with("IPC_SYSTEM_MGR__")) << info.name;
    EXPECT_EQ(find_request(info.id), &info);
    // The event ids 15537 to 15542 are not requests.
    EXPECT_TRUE(info.id < IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE ||
                info.id > IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED)
        << info.name;
    previous = info.id;
  }
  EXPECT_EQ(find_request(15500), nullptr);
  EXPECT_EQ(find_request(15537), nullptr);
  EXPECT_EQ(find_request(IPC_SYSTEM_MGR__GET_TEMP)->name, "IPC_SYSTEM_MGR__GET_TEMP");
  EXPECT_EQ(find_request(IPC_SYSTEM_MGR__SET_FAN_MODULE_SPEED)->name, "IPC_SYSTEM_MGR__SET_FAN_MODULE_SPEED");
}

TEST(RequestCatalogue, FamiliesArgumentsAndAnswerRecordsAreThoseOfTheDaemon) {
  const RequestInfo& temp = *find_request(IPC_SYSTEM_MGR__GET_TEMP);
  EXPECT_EQ(temp.families, static_cast<unsigned>(SYSTEM_MGR_SERVED_BY_ALL));
  EXPECT_EQ(temp.argument, SYSTEM_MGR_ARGUMENT_NONE);
  EXPECT_EQ(temp.answer, SYSTEM_MGR_ANSWER_EACH);
  EXPECT_EQ(temp.record_size, 8U);
  const RequestInfo& eddi = *find_request(IPC_SYSTEM_MGR__GET_F_PORT_EDDI_DATA);
  EXPECT_EQ(eddi.families, static_cast<unsigned>(SYSTEM_MGR_SERVED_BY_LT | SYSTEM_MGR_SERVED_BY_FC));
  EXPECT_EQ(eddi.argument, SYSTEM_MGR_ARGUMENT_PORT);
  EXPECT_EQ(eddi.answer, SYSTEM_MGR_ANSWER_ONE);
  EXPECT_EQ(eddi.record_size, 133U);
  const RequestInfo& speed = *find_request(IPC_SYSTEM_MGR__SET_FAN_SPEED);
  EXPECT_EQ(speed.families, static_cast<unsigned>(SYSTEM_MGR_SERVED_BY_LT));
  EXPECT_EQ(speed.argument, SYSTEM_MGR_ARGUMENT_SPEED);
  EXPECT_EQ(speed.answer, SYSTEM_MGR_ANSWER_EMPTY);
  EXPECT_EQ(speed.record_size, 0U);
  EXPECT_EQ(find_request(IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE)->record_size, 50U);
  EXPECT_EQ(find_request(IPC_SYSTEM_MGR__GET_FAN_STATES)->record_size, 4U);
  EXPECT_EQ(find_request(IPC_SYSTEM_MGR__GET_P_PORT_RX_POWER)->record_size, 8U);
  EXPECT_EQ(find_request(IPC_SYSTEM_MGR__GET_PS_STATES)->record_size, 72U);
  EXPECT_EQ(argument_size(SYSTEM_MGR_ARGUMENT_PORT), 4U);
  EXPECT_EQ(argument_size(SYSTEM_MGR_ARGUMENT_SPEED), 1U);
  EXPECT_EQ(argument_size(SYSTEM_MGR_ARGUMENT_LED), 12U);
  EXPECT_EQ(argument_size(SYSTEM_MGR_ARGUMENT_NONE), 0U);
  // An empty answer has no record; every other answer has one.
  for (const RequestInfo& info : kRequestCatalogue) {
    EXPECT_EQ(info.answer == SYSTEM_MGR_ANSWER_EMPTY, info.record_size == 0) << info.name;
    EXPECT_NE(info.families, 0U) << info.name;
  }
}

TEST(AlarmKinds, IdsAndNamesComeFromOneList) {
  EXPECT_EQ(SYSTEM_MGR_ALARM_RAM, 1);
  EXPECT_EQ(SYSTEM_MGR_ALARM_FAN, 2);
  EXPECT_EQ(SYSTEM_MGR_ALARM_LOAD_AVERAGE, 3);
  EXPECT_EQ(SYSTEM_MGR_ALARM_TEMPERATURE, 4);
  EXPECT_EQ(SYSTEM_MGR_ALARM_DISK_SPACE, 45);
  EXPECT_EQ(SYSTEM_MGR_ALARM_POWER_SUPPLY, 46);
  EXPECT_EQ(alarm_kind_name(SYSTEM_MGR_ALARM_LOAD_AVERAGE), "system load average");
  EXPECT_EQ(alarm_kind_name(SYSTEM_MGR_ALARM_POWER_SUPPLY), "power supply");
  EXPECT_EQ(alarm_kind_name(5), "");
}

TEST(ClientRecords, TemperatureAndFanRecordsAreTheDriversLayout) {
  System_mgr__temperature sensor{};
  sensor.id = 4;
  sensor.temperature = -5;
  const auto sensor_bytes = bytes_of(sensor);
  EXPECT_EQ(read_at<std::int32_t>(sensor_bytes.data(), 0), 4);
  EXPECT_EQ(static_cast<std::int8_t>(sensor_bytes[4]), -5);
  System_mgr__fan_state fan{};
  fan.present = 1;
  fan.speed = 0x0102;
  const auto fan_bytes = bytes_of(fan);
  EXPECT_EQ(fan_bytes, (std::array<std::uint8_t, 4>{0, 1, 0x02, 0x01}));
  System_mgr__fan_module_state module{};
  module.count = 6;
  module.speed_setting = 102;
  const auto module_bytes = bytes_of(module);
  EXPECT_EQ(module_bytes[30], 6);
  EXPECT_EQ(module_bytes[31], 102);
}

}  // namespace
}  // namespace xpon::system_mgr
