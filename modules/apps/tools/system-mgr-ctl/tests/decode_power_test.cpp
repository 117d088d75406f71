#include "decode_power.hpp"
#include "decode.hpp"
#include "xpon/system_mgr/api.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

namespace xpon::system_mgr::ctl {
namespace {

constexpr ipc::Address kDaemon = 0x0019FFFE;

ipc::Response answered(ipc::Payload payload) {
  ipc::Response response;
  response.result = SYSTEM_MGR_RESULT_ANSWERED;
  response.address = 0x0000FFFE;
  response.reply_tag = 7;
  response.payload = std::move(payload);
  return response;
}

void put_text(ipc::Payload& bytes, std::size_t offset, const std::string& text) {
  std::copy(text.begin(), text.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}

// A whole supply record: flags, then texts (a text as long as its field has no NUL).
ipc::Payload supply_record(std::uint8_t id, std::uint8_t present, std::uint8_t power_good, std::uint8_t has_info,
                           std::uint8_t alert) {
  ipc::Payload bytes(72, 0);
  bytes[0] = id;
  bytes[1] = present;
  bytes[2] = power_good;
  bytes[3] = has_info;
  bytes[4] = alert;
  return bytes;
}

// --- GET_PS_STATES ------------------------------------------------------------------------------

TEST(CtlPsu, OneSupplyShowsItsFlagsAndTheTextsItsCopiedBytesHold) {
  // What the daemon sends for one supply "PSU-150W-AC": bytes 0-7 of the record, then zeros.
  auto record = supply_record(0, 1, 1, 1, 0);
  put_text(record, 5, "PSU");
  EXPECT_EQ(format_psu(kDaemon, answered(record), false),
            "supply 1 (driver id 0): present, power good, alert 0x00, model \"PSU\", serial \"\", version \"\", "
            "revision \"\", date \"\"\n"
            "(the daemon fills 8 bytes per supply: bytes 0 to 7 of the answer carry data, the rest reads as zero)");
}

TEST(CtlPsu, EveryFieldOfAWholeRecordIsDecoded) {
  auto record = supply_record(1, 0, 0, 1, 0x84);
  put_text(record, 5, "PSU-150W-AC");
  put_text(record, 36, "PS2301000123");
  put_text(record, 53, "1.2");
  put_text(record, 59, "B");
  put_text(record, 61, "2023-01-17");
  const auto decoded = decode_ps_states(record);
  ASSERT_EQ(decoded.lines.size(), 2U);
  EXPECT_EQ(decoded.lines[0],
            "supply 1 (driver id 1): not present, no power good, alert 0x84, model \"PSU-150W-AC\", serial "
            "\"PS2301000123\", version \"1.2\", revision \"B\", date \"2023-01-17\"");
  EXPECT_EQ(decoded.json.dump(),
            R"({"supplies":[{"supply":1,"id":1,"present":false,"power_good":false,"alert":132,"has_info":true,)"
            R"("model":"PSU-150W-AC","serial":"PS2301000123","version":"1.2","revision":"B","date":"2023-01-17"}],)"
            R"("data_bytes":8})");
}

TEST(CtlPsu, WithoutInfoTheTextsAreNotShown) {
  auto record = supply_record(0, 1, 0, 0, 0);
  put_text(record, 5, "STALE");
  const auto decoded = decode_ps_states(record);
  EXPECT_EQ(decoded.lines[0], "supply 1 (driver id 0): present, no power good, alert 0x00, no identification");
  EXPECT_FALSE(decoded.json["supplies"][0].contains("model"));
}

TEST(CtlPsu, TextsThatFillTheirFieldsAreReadOnlyWithinThem) {
  auto record = supply_record(0, 1, 1, 1, 0);
  put_text(record, 5, std::string(31, 'M'));
  put_text(record, 36, std::string(17, 'S'));
  put_text(record, 53, std::string(6, 'V'));
  put_text(record, 59, std::string(2, 'R'));
  put_text(record, 61, std::string(11, 'D'));
  const auto decoded = decode_ps_states(record);
  const auto& supply = decoded.json["supplies"][0];
  EXPECT_EQ(supply["model"], std::string(31, 'M'));
  EXPECT_EQ(supply["serial"], std::string(17, 'S'));
  EXPECT_EQ(supply["version"], std::string(6, 'V'));
  EXPECT_EQ(supply["revision"], std::string(2, 'R'));
  EXPECT_EQ(supply["date"], std::string(11, 'D'));
}

TEST(CtlPsu, UnprintableTextBytesAreEscaped) {
  auto record = supply_record(0, 1, 1, 1, 0);
  record[5] = 'A';
  record[6] = 0xFF;
  record[7] = '"';
  const auto decoded = decode_ps_states(record);
  EXPECT_NE(decoded.lines[0].find(R"(model "A\xff\"")"), std::string::npos) << decoded.lines[0];
  EXPECT_EQ(decoded.json["supplies"][0]["model"], "A\\xff\"");
}

TEST(CtlPsu, TwoSuppliesAreNumberedFromOneAndTheDataBytesCounted) {
  // Two supplies: the first 16 bytes of the array, which are all supply 1's.
  auto payload = supply_record(0, 1, 1, 1, 0);
  put_text(payload, 5, "PSU-150W-AC");
  payload.resize(144, 0);
  const auto decoded = decode_ps_states(payload);
  ASSERT_EQ(decoded.lines.size(), 3U);
  EXPECT_EQ(decoded.lines[1], "supply 2 (driver id 0): not present, no power good, alert 0x00, no identification");
  EXPECT_EQ(decoded.lines[2],
            "(the daemon fills 8 bytes per supply: bytes 0 to 15 of the answer carry data, the rest reads as zero)");
  EXPECT_EQ(decoded.json["data_bytes"], 16);
  EXPECT_EQ(decoded.json["supplies"][1]["supply"], 2);
}

TEST(CtlPsu, NoSuppliesIsSaid) {
  EXPECT_EQ(format_psu(kDaemon, answered({}), false), "no power supplies");
  EXPECT_EQ(format_psu(kDaemon, answered({}), true),
            R"({"type":"psu","from":"0x0019fffe","supplies":[],"data_bytes":0})");
}

TEST(CtlPsu, JsonStartsWithTheTypeAndSender) {
  auto record = supply_record(0, 1, 1, 0, 0);
  EXPECT_EQ(format_psu(kDaemon, answered(record), true),
            R"({"type":"psu","from":"0x0019fffe","supplies":[{"supply":1,"id":0,"present":true,"power_good":true,)"
            R"("alert":0,"has_info":false}],"data_bytes":8})");
}

TEST(CtlPsu, AnErrorAnswerIsShownAsTheResponse) {
  ipc::Response response;
  response.result = SYSTEM_MGR_RESULT_ERROR;
  EXPECT_EQ(format_psu(kDaemon, response, false),
            "15500:15529 IPC_SYSTEM_MGR__GET_PS_STATES from 0x0019fffe: result 0 (error answer), payload [] (0 bytes)");
  EXPECT_EQ(format_psu(kDaemon, response, true), format_response(kDaemon, 15529, response, true));
}

TEST(CtlPsu, APayloadThatIsNotWholeRecordsIsMalformed) {
  for (const std::size_t size : {std::size_t{1}, std::size_t{71}, std::size_t{73}, std::size_t{8}}) {
    const auto text = format_psu(kDaemon, answered(ipc::Payload(size, 0)), false);
    EXPECT_TRUE(text.ends_with("\n  malformed answer: " + std::to_string(size) +
                               " bytes, expected a multiple of 72 (one record per supply)"))
        << text;
  }
}

TEST(CtlPsu, TheGenericRequestDecodesTheRecordsToo) {
  const auto text =
      format_response(kDaemon, IPC_SYSTEM_MGR__GET_PS_STATES, answered(supply_record(0, 0, 0, 0, 0)), false);
  EXPECT_TRUE(
      text.ends_with("\n  supply 1 (driver id 0): not present, no power good, alert 0x00, no identification\n"
                     "  (the daemon fills 8 bytes per supply: bytes 0 to 7 of the answer carry data, the rest "
                     "reads as zero)"))
      << text;
}

// --- The supply alarm as `watch` shows it ---------------------------------------------------

TEST(CtlPsu, ASupplyAlarmIsNamedWithItsInstanceAndText) {
  Alarm alarm{};
  alarm.state = SYSTEM_MGR_ALARM_RAISED;
  alarm.alarm_id = SYSTEM_MGR_ALARM_POWER_SUPPLY;
  alarm.instance = 2;
  std::strcpy(alarm.text, "Power supply 2 is missing voltage");
  ipc::Event event;
  event.group = IPC_EVENT_ALARM_GROUP;
  event.id = IPC_EVENT_ALARM_ID;
  event.source = kDaemon;
  event.address = 0x0000FFFE;
  event.payload.resize(sizeof alarm);
  std::memcpy(event.payload.data(), &alarm, sizeof alarm);
  EXPECT_EQ(format_event(event, false),
            "9000:9005 alarm from 0x0019fffe: id 46 (power supply) raised, instance 2, text "
            "\"Power supply 2 is missing voltage\"");
  // JSON keeps the record's three value words, zero for a supply.
  EXPECT_EQ(format_event(event, true),
            R"({"type":"alarm","group":9000,"id":9005,"name":"alarm","source":"0x0019fffe","slot":65534,)"
            R"("address":"0x0000fffe","alarm_id":46,"alarm":"power supply","state":"raised","instance":2,)"
            R"("values":[0,0,0],"text":"Power supply 2 is missing voltage"})");
}

// --- GET_PWR_MODULE_STATE -------------------------------------------------------------------

const ipc::Payload kModule = {0x01, 0x01, 0x00, 0x01, 0xFC, 0x08, 0xB0, 0x04, 0xE2, 0x04,
                              0x96, 0x00, 0xF4, 0xFF, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};

TEST(CtlPowerModule, EveryFieldIsShownByNameWithItsUnit) {
  EXPECT_EQ(format_power_module(kDaemon, answered(kModule), false),
            "present: yes\npower good: yes\nfault: no\nfan fault: yes\ninput voltage: 230.0 V\n"
            "output voltage: 12.00 V\noutput current: 12.50 A\noutput power: 150 W\ntemperature: -12 C");
}

TEST(CtlPowerModule, JsonHoldsTheFieldsInTheirUnits) {
  EXPECT_EQ(format_power_module(kDaemon, answered(kModule), true),
            R"({"type":"power_module","from":"0x0019fffe","present":true,"power_good":true,"fault":false,)"
            R"("fan_fault":true,"input_voltage_v":230.0,"output_voltage_v":12.0,"output_current_a":12.5,)"
            R"("output_power_w":150,"temperature_c":-12})");
}

TEST(CtlPowerModule, SmallReadingsKeepTheirLeadingZeros) {
  ipc::Payload payload(20, 0);
  payload[4] = 5;  // 0.5 V
  payload[6] = 7;  // 0.07 V
  payload[8] = 1;  // 0.01 A
  const auto decoded = decode_pwr_module(payload);
  EXPECT_EQ(decoded.lines[4], "input voltage: 0.5 V");
  EXPECT_EQ(decoded.lines[5], "output voltage: 0.07 V");
  EXPECT_EQ(decoded.lines[6], "output current: 0.01 A");
  EXPECT_EQ(decoded.lines[0], "present: no");
}

TEST(CtlPowerModule, ReservedBytesAreShownOnlyWhenSet) {
  ipc::Payload payload = kModule;
  payload[19] = 0x77;
  const auto decoded = decode_pwr_module(payload);
  ASSERT_EQ(decoded.lines.size(), 10U);
  EXPECT_EQ(decoded.lines[9], "reserved: [000000000077]");
  EXPECT_EQ(decoded.json["reserved"], "000000000077");
  EXPECT_EQ(decode_pwr_module(kModule).lines.size(), 9U);
}

TEST(CtlPowerModule, AnErrorAnswerIsShownAsTheResponse) {
  ipc::Response response;
  response.result = SYSTEM_MGR_RESULT_ERROR;
  EXPECT_EQ(format_power_module(kDaemon, response, false),
            "15500:15533 IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE from 0x0019fffe: result 0 (error answer), payload [] "
            "(0 bytes)");
  EXPECT_EQ(format_power_module(kDaemon, response, true), format_response(kDaemon, 15533, response, true));
}

TEST(CtlPowerModule, AnyOtherSizeIsMalformed) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{19}, std::size_t{21}, std::size_t{4096}}) {
    const auto text = format_power_module(kDaemon, answered(ipc::Payload(size, 0)), false);
    EXPECT_TRUE(text.ends_with("\n  malformed answer: " + std::to_string(size) + " bytes, expected 20")) << size;
    EXPECT_TRUE(format_power_module(kDaemon, answered(ipc::Payload(size, 0)), true)
                    .ends_with(R"("decoded":{"error":"malformed answer: )" + std::to_string(size) +
                               R"( bytes, expected 20"}})"))
        << size;
  }
}

TEST(CtlPowerModule, TheGenericRequestDecodesTheStateToo) {
  const auto text = format_response(kDaemon, IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE, answered(kModule), true);
  EXPECT_TRUE(text.ends_with(R"("decoded":{"present":true,"power_good":true,"fault":false,"fan_fault":true,)"
                             R"("input_voltage_v":230.0,"output_voltage_v":12.0,"output_current_a":12.5,)"
                             R"("output_power_w":150,"temperature_c":-12}})"))
      << text;
}

}  // namespace
}  // namespace xpon::system_mgr::ctl
