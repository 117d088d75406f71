#include "decode.hpp"
#include "decode_test_support.hpp"

#include "xpon/system_mgr/api.h"
#include "xpon/tool/console.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <set>
#include <string>

extern "C" {
std::size_t system_mgr_api_c_alarm_size(void);
std::size_t system_mgr_api_c_text_offset(void);
void system_mgr_api_c_fill_alarm(unsigned char out[305]);
int system_mgr_api_c_request_id(void);
std::size_t system_mgr_api_c_request_count(void);
const char* system_mgr_api_c_request_name(int id);
}

namespace xpon::system_mgr::ctl {
namespace {

using tool::UsageError;

using test::event_of;
using test::kDaemon;

ipc::Event alarm_event(const Alarm& alarm) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(&alarm);
  return event_of(IPC_EVENT_ALARM_GROUP, IPC_EVENT_ALARM_ID, ipc::Payload(bytes, bytes + sizeof alarm));
}

Alarm cpu_load_alarm(std::uint8_t state, std::array<std::uint32_t, 3> values, const char* text) {
  Alarm alarm;
  std::memset(&alarm, 0, sizeof alarm);
  alarm.state = state;
  alarm.alarm_id = SYSTEM_MGR_ALARM_LOAD_AVERAGE;
  for (std::size_t i = 0; i < values.size(); ++i) {
    alarm.value[i] = values[i];
  }
  std::strncpy(alarm.text, text, sizeof alarm.text - 1);
  return alarm;
}

// --- the client header -------------------------------------------------------------------------

TEST(CtlClientHeader, AlarmFieldsSitAtTheirWireOffsets) {
  Alarm alarm;
  std::memset(&alarm, 0, sizeof alarm);
  alarm.state = 0xA1;
  alarm.alarm_id = 0x04030201;
  alarm.instance = 0x08070605;
  alarm.value[0] = 0x0C0B0A09;
  alarm.value[2] = 0x1413;
  alarm.text[0] = 'x';
  std::array<std::uint8_t, 305> bytes{};
  std::memcpy(bytes.data(), &alarm, sizeof alarm);
  EXPECT_EQ(bytes[8], 0xA1);
  EXPECT_EQ((std::array<std::uint8_t, 4>{bytes[9], bytes[10], bytes[11], bytes[12]}),
            (std::array<std::uint8_t, 4>{1, 2, 3, 4}));
  EXPECT_EQ((std::array<std::uint8_t, 4>{bytes[17], bytes[18], bytes[19], bytes[20]}),
            (std::array<std::uint8_t, 4>{5, 6, 7, 8}));
  EXPECT_EQ((std::array<std::uint8_t, 4>{bytes[33], bytes[34], bytes[35], bytes[36]}),
            (std::array<std::uint8_t, 4>{9, 10, 11, 12}));
  EXPECT_EQ(bytes[41], 0x13);
  EXPECT_EQ(bytes[42], 0x14);
  EXPECT_EQ(bytes[45], 'x');
}

TEST(CtlClientHeader, CompilesAsCWithTheSameLayout) {
  EXPECT_EQ(system_mgr_api_c_alarm_size(), 305U);
  EXPECT_EQ(system_mgr_api_c_text_offset(), 45U);
  EXPECT_EQ(system_mgr_api_c_request_id(), 15515);
  std::array<unsigned char, 305> bytes{};
  system_mgr_api_c_fill_alarm(bytes.data());
  const auto event = event_of(9000, 9005, ipc::Payload(bytes.begin(), bytes.end()));
  EXPECT_EQ(format_event(event, false),
            "9000:9005 alarm from 0x0019fffe: id 1 (RAM) back to normal, instance 0, values 42 0 0, "
            "text \"Free RAM is 42% is back to normal\"");
}

TEST(CtlClientHeader, TheRequestCatalogueReadsTheSameFromC) {
  ASSERT_EQ(system_mgr_api_c_request_count(), std::size(kRequestCatalogue));
  EXPECT_EQ(std::string(system_mgr_api_c_request_name(15515)), "IPC_SYSTEM_MGR__GET_TEMP");
  EXPECT_EQ(std::string(system_mgr_api_c_request_name(15536)), "IPC_SYSTEM_MGR__P_PORT_LED_OFF");
  EXPECT_EQ(system_mgr_api_c_request_name(15537), nullptr);
  for (const RequestInfo& info : kRequestCatalogue) {
    EXPECT_EQ(std::string(system_mgr_api_c_request_name(info.id)), info.name);
  }
}

TEST(CtlDecoders, EveryAnswerRecordOfTheCatalogueHasExactlyOneDecoder) {
  const auto ids = decoded_requests();
  for (const RequestInfo& info : kRequestCatalogue) {
    const auto registered = std::count(ids.begin(), ids.end(), info.id);
    EXPECT_EQ(registered, info.answer == SYSTEM_MGR_ANSWER_EMPTY ? 0 : 1) << info.name;
  }
  for (const std::uint16_t id : ids) {
    EXPECT_NE(find_request(id), nullptr) << id;
  }
}

TEST(CtlDecoders, EachDecoderTakesTheRecordSizeOfTheCatalogueAndRefusesAnotherSize) {
  for (const RequestInfo& info : kRequestCatalogue) {
    if (info.answer == SYSTEM_MGR_ANSWER_EMPTY) {
      continue;
    }
    const std::size_t records = info.answer == SYSTEM_MGR_ANSWER_EACH ? 2 : 1;
    const auto good =
        format_response(kDaemon, info.id, test::answered(ipc::Payload(records * info.record_size, 0)), true);
    EXPECT_EQ(good.find("malformed answer"), std::string::npos) << info.name << ": " << good;
    EXPECT_NE(good.find(R"("decoded":)"), std::string::npos) << info.name;
    const auto odd = format_response(kDaemon, info.id, test::answered(ipc::Payload(info.record_size + 1, 0)), true);
    EXPECT_NE(odd.find("malformed answer: " + std::to_string(info.record_size + 1) + " bytes"), std::string::npos)
        << info.name << ": " << odd;
  }
}

TEST(CtlClientHeader, KeysAndAddressesHaveTheirFixedValues) {
  EXPECT_EQ(IPC_SYSTEM_MGR, 15500);
  EXPECT_EQ(IPC_SYSTEM_MGR__GET_RAM_DATA, 15501);
  EXPECT_EQ(IPC_SYSTEM_MGR__P_PORT_LED_OFF, 15536);
  EXPECT_EQ(IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE, 15537);
  EXPECT_EQ(IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED, 15542);
  EXPECT_EQ(IPC_EVENT_ALARM_GROUP, 9000);
  EXPECT_EQ(IPC_EVENT_ALARM_ID, 9005);
  EXPECT_EQ(static_cast<std::uint32_t>(SYSTEM_MGR_IPC_ADDRESS), 0x0019FFFEU);
  EXPECT_EQ(static_cast<std::uint32_t>(ELECTION_MGR_IPC_ADDRESS), 0x0015FFFEU);
  EXPECT_EQ(sizeof(SfpModuleRecord), 64U);
}

// --- names -------------------------------------------------------------------------------------

TEST(CtlNames, EveryRequestIdOfTheDaemonHasItsOwnIdentifier) {
  std::set<std::string_view> names;
  for (std::uint16_t id = 15501; id <= 15536; ++id) {
    const auto name = request_name(id);
    EXPECT_TRUE(name.starts_with("IPC_SYSTEM_MGR__")) << id;
    names.insert(name);
  }
  EXPECT_EQ(names.size(), 36U);
  EXPECT_EQ(request_name(15501), "IPC_SYSTEM_MGR__GET_RAM_DATA");
  EXPECT_EQ(request_name(15515), "IPC_SYSTEM_MGR__GET_TEMP");
  EXPECT_EQ(request_name(15533), "IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE");
  EXPECT_EQ(request_name(15536), "IPC_SYSTEM_MGR__P_PORT_LED_OFF");
  EXPECT_EQ(request_name(15500), "");
  EXPECT_EQ(request_name(15537), "");
}

TEST(CtlNames, EventsAndAlarmKindsAreNamed) {
  EXPECT_EQ(event_name({15500, 15537}), "IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE");
  EXPECT_EQ(event_name({15500, 15542}), "IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED");
  EXPECT_EQ(event_name({11000, 11001}), "IPC_EVENT_CFGDB__SECTIONS_CHANGED");
  EXPECT_EQ(event_name({14500, 14505}), "IPC_EVENT_ELECTION__MASTER_CHANGED");
  EXPECT_EQ(event_name({15500, 15515}), "");
  EXPECT_EQ(alarm_name(1), "RAM");
  EXPECT_EQ(alarm_name(2), "fan");
  EXPECT_EQ(alarm_name(3), "system load average");
  EXPECT_EQ(alarm_name(4), "temperature");
  EXPECT_EQ(alarm_name(45), "disk space");
  EXPECT_EQ(alarm_name(46), "power supply");
  EXPECT_EQ(alarm_name(5), "");
}

// --- alarm records -----------------------------------------------------------------------------

TEST(CtlAlarmDecoding, RaisedCpuLoadAlarmAsText) {
  const auto alarm = cpu_load_alarm(0, {150, 25, 0}, "CPU load average (1m, 5m, 15m): 1.50, 0.25, 0.00");
  EXPECT_EQ(format_event(alarm_event(alarm), false),
            "9000:9005 alarm from 0x0019fffe: id 3 (system load average) raised, instance 0, values 150 25 0, "
            "text \"CPU load average (1m, 5m, 15m): 1.50, 0.25, 0.00\"");
}

TEST(CtlAlarmDecoding, RaisedCpuLoadAlarmAsJson) {
  const auto alarm = cpu_load_alarm(0, {150, 25, 0}, "CPU load average (1m, 5m, 15m): 1.50, 0.25, 0.00");
  EXPECT_EQ(format_event(alarm_event(alarm), true),
            R"({"type":"alarm","group":9000,"id":9005,"name":"alarm","source":"0x0019fffe","slot":65534,)"
            R"("address":"0x0000fffe","alarm_id":3,"alarm":"system load average","state":"raised","instance":0,)"
            R"("values":[150,25,0],"text":"CPU load average (1m, 5m, 15m): 1.50, 0.25, 0.00"})");
}

TEST(CtlAlarmDecoding, BackToNormalCpuLoadAlarmAsText) {
  const auto alarm =
      cpu_load_alarm(1, {10, 20, 30}, "CPU load average (1m, 5m, 15m): 0.10, 0.20, 0.30 is back to normal");
  EXPECT_EQ(format_event(alarm_event(alarm), false),
            "9000:9005 alarm from 0x0019fffe: id 3 (system load average) back to normal, instance 0, "
            "values 10 20 30, text \"CPU load average (1m, 5m, 15m): 0.10, 0.20, 0.30 is back to normal\"");
}

TEST(CtlAlarmDecoding, BackToNormalCpuLoadAlarmAsJson) {
  const auto alarm =
      cpu_load_alarm(1, {10, 20, 30}, "CPU load average (1m, 5m, 15m): 0.10, 0.20, 0.30 is back to normal");
  EXPECT_EQ(format_event(alarm_event(alarm), true),
            R"({"type":"alarm","group":9000,"id":9005,"name":"alarm","source":"0x0019fffe","slot":65534,)"
            R"("address":"0x0000fffe","alarm_id":3,"alarm":"system load average","state":"back to normal",)"
            R"("instance":0,"values":[10,20,30],)"
            R"("text":"CPU load average (1m, 5m, 15m): 0.10, 0.20, 0.30 is back to normal"})");
}

TEST(CtlAlarmDecoding, TemperatureIsTheSignedFirstByteOfTheValues) {
  Alarm alarm;
  std::memset(&alarm, 0, sizeof alarm);
  alarm.alarm_id = SYSTEM_MGR_ALARM_TEMPERATURE;
  alarm.instance = 2;
  reinterpret_cast<std::uint8_t*>(&alarm)[33] = 0xFB;  // -5 degrees
  std::strcpy(alarm.text, "Sensor CPU temperature -5C");
  EXPECT_EQ(format_event(alarm_event(alarm), false),
            "9000:9005 alarm from 0x0019fffe: id 4 (temperature) raised, instance 2, values -5 0 0, "
            "text \"Sensor CPU temperature -5C\"");
}

TEST(CtlAlarmDecoding, UnknownKindAndStateAreShownAsNumbers) {
  Alarm alarm;
  std::memset(&alarm, 0, sizeof alarm);
  alarm.state = 7;
  alarm.alarm_id = 99;
  alarm.instance = 4;
  EXPECT_EQ(format_event(alarm_event(alarm), false),
            "9000:9005 alarm from 0x0019fffe: id 99 (unknown) unknown state 7, instance 4, values 0 0 0, text \"\"");
}

TEST(CtlAlarmDecoding, TextWithoutTerminatorOrWithOddBytesIsEscapedAndFlagged) {
  Alarm alarm;
  std::memset(&alarm, 0, sizeof alarm);
  alarm.alarm_id = SYSTEM_MGR_ALARM_RAM;
  alarm.text[0] = '"';
  alarm.text[1] = '\\';
  alarm.text[2] = '\n';
  alarm.text[3] = static_cast<char>(0xC3);
  std::memset(alarm.text + 4, 'A', sizeof alarm.text - 4);
  const auto text = format_event(alarm_event(alarm), false);
  EXPECT_EQ(text,
            "9000:9005 alarm from 0x0019fffe: id 1 (RAM) raised, instance 0, values 0 0 0, text \"\\\"\\\\\\x0a\\xc3" +
                std::string(252, 'A') + "\" (not NUL-terminated)");
  const auto json = format_event(alarm_event(alarm), true);
  EXPECT_NE(json.find(R"("text":"\"\\\\\\x0a\\xc3AAAA)"), std::string::npos) << json;
  EXPECT_TRUE(json.ends_with(R"(AAAA","text_terminated":false})")) << json;
}

TEST(CtlAlarmDecoding, ShortRecordIsReportedNotDecoded) {
  const auto event = event_of(9000, 9005, {0x01, 0x00, 0x03});
  EXPECT_EQ(format_event(event, false),
            "9000:9005 alarm from 0x0019fffe: malformed alarm record: 3 bytes, an alarm record has 305; "
            "payload [010003] (3 bytes)");
  EXPECT_EQ(format_event(event, true),
            R"({"type":"alarm","group":9000,"id":9005,"name":"alarm","source":"0x0019fffe","slot":65534,)"
            R"("address":"0x0000fffe","error":"malformed alarm record: 3 bytes, an alarm record has 305",)"
            R"("payload":"010003"})");
}

TEST(CtlAlarmDecoding, EmptyAndOverlongRecordsAreReported) {
  EXPECT_EQ(format_event(event_of(9000, 9005, {}), false),
            "9000:9005 alarm from 0x0019fffe: malformed alarm record: 0 bytes, an alarm record has 305; "
            "payload [] (0 bytes)");
  const auto overlong = format_event(event_of(9000, 9005, ipc::Payload(306, 0)), false);
  EXPECT_TRUE(overlong.starts_with(
      "9000:9005 alarm from 0x0019fffe: malformed alarm record: 306 bytes, an alarm record has 305; payload ["))
      << overlong;
  EXPECT_TRUE(overlong.ends_with("] (306 bytes)")) << overlong;
}

TEST(CtlAlarmDecoding, AnyPayloadOfAnyKnownKeyGivesOneLine) {
  const std::array<ipc::Key, 7> keys{
      {{9000, 9005}, {15500, 15537}, {15500, 15538}, {15500, 15539}, {15500, 15540}, {15500, 15541}, {15500, 15542}}};
  for (const auto key : keys) {
    for (std::size_t size = 0; size <= 400; ++size) {
      ipc::Payload payload(size);
      for (std::size_t i = 0; i < size; ++i) {
        payload[i] = static_cast<std::uint8_t>(i * 37 + 11);
      }
      const auto event = event_of(key.group, key.id, payload);
      for (const bool json : {false, true}) {
        std::string line;
        ASSERT_NO_THROW(line = format_event(event, json)) << key.id << " " << size;
        EXPECT_FALSE(line.empty());
        EXPECT_EQ(line.find('\n'), std::string::npos) << line;
      }
    }
  }
}

// --- the daemon's other events -----------------------------------------------------------------

TEST(CtlEventDecoding, FPortSfpRemovalShowsThePort) {
  const auto event = event_of(15500, 15542, {0x10, 0x01, 0x00, 0x00});
  EXPECT_EQ(
      format_event(event, false),
      "15500:15542 IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED from 0x0019fffe: F-port 272 SFP module removed");
  EXPECT_EQ(
      format_event(event, true),
      R"({"type":"sfp_removed","group":15500,"id":15542,"name":"IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_REMOVED",)"
      R"("source":"0x0019fffe","slot":65534,"address":"0x0000fffe","ports":"F","port":272})");
}

TEST(CtlEventDecoding, SfpEventsOfTheWrongSizeAreReported) {
  EXPECT_EQ(format_event(event_of(15500, 15540, {1, 2}), false),
            "15500:15540 IPC_EVENT_SYSTEM_MGR__P_PORT_SFP_MODULE_REMOVED from 0x0019fffe: malformed port number: "
            "2 bytes, a port number has 4; payload [0102] (2 bytes)");
  EXPECT_EQ(format_event(event_of(15500, 15541, {9}), false),
            "15500:15541 IPC_EVENT_SYSTEM_MGR__F_PORT_SFP_MODULE_INSERTED from 0x0019fffe: malformed SFP module "
            "record: 1 bytes, a record has 64; payload [09] (1 byte)");
}

TEST(CtlEventDecoding, FanRateEventsNameTheSendersSlot) {
  const auto maximum = event_of(15500, 15537, {}, 0x00190005);
  EXPECT_EQ(format_event(maximum, false),
            "15500:15537 IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MAX_RATE from 0x00190005: slot 5 asks for the "
            "maximum fan rate");
  const auto minimum = event_of(15500, 15538, {}, 0x00190006);
  EXPECT_EQ(format_event(minimum, true),
            R"({"type":"fan_rate","group":15500,"id":15538,"name":"IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE",)"
            R"("source":"0x00190006","slot":6,"address":"0x0000fffe","rate":"min"})");
  const auto with_payload = event_of(15500, 15538, {0xAB}, 0x00190006);
  EXPECT_EQ(format_event(with_payload, false),
            "15500:15538 IPC_EVENT_SYSTEM_MGR__FAN_AUTO_MODE_SET_MIN_RATE from 0x00190006: slot 6 asks for the "
            "minimum fan rate, unexpected payload [ab] (1 byte)");
}

TEST(CtlEventDecoding, UnknownEventOfTheDaemonsGroupShowsKeyAndPayload) {
  const auto event = event_of(15500, 15599, {0xDE, 0xAD});
  EXPECT_EQ(format_event(event, false), "15500:15599 unknown event from 0x0019fffe: payload [dead] (2 bytes)");
  EXPECT_EQ(format_event(event, true), R"({"type":"event","group":15500,"id":15599,"source":"0x0019fffe","slot":65534,)"
                                       R"("address":"0x0000fffe","payload":"dead"})");
}

TEST(CtlEventDecoding, EventsOfOtherProgramsShowKeyNameAndPayload) {
  const auto event = event_of(11000, 11001, {80, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}, 0x0011FFFE);
  EXPECT_EQ(format_event(event, false),
            "11000:11001 IPC_EVENT_CFGDB__SECTIONS_CHANGED from 0x0011fffe: payload [500000000100000000000000] "
            "(12 bytes)");
  EXPECT_EQ(format_event(event_of(1, 2, {}), false), "1:2 unknown event from 0x0019fffe: payload [] (0 bytes)");
}

// --- responses ---------------------------------------------------------------------------------

TEST(CtlResponseFormatting, AnsweredRequestShowsNameResultAndPayload) {
  ipc::Response response;
  response.payload = {0x01, 0x02};
  response.reply_tag = 7;
  response.result = 1;
  EXPECT_EQ(format_response(kDaemon, 15533, response, false),
            "15500:15533 IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE from 0x0019fffe: result 1 (answered), payload [0102] "
            "(2 bytes)\n  malformed answer: 2 bytes, expected 20");
  EXPECT_EQ(format_response(kDaemon, 15533, response, true),
            R"({"type":"response","group":15500,"id":15533,"name":"IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE",)"
            R"("from":"0x0019fffe","result":1,"answer":"answered","reply_tag":7,"address":"0x0000fffe",)"
            R"("payload":"0102","decoded":{"error":"malformed answer: 2 bytes, expected 20"}})");
}

using test::answered;
using test::put;

TEST(CtlResponseDecoding, TemperaturesOnePerSensor) {
  ipc::Payload payload;
  put<std::int32_t>(payload, 0, 0);
  put<std::int8_t>(payload, 4, 45);
  put<std::int32_t>(payload, 8, 3);
  put<std::int8_t>(payload, 12, -5);
  payload.resize(16);
  EXPECT_EQ(format_response(kDaemon, 15515, answered(payload), false),
            "15500:15515 IPC_SYSTEM_MGR__GET_TEMP from 0x0019fffe: result 1 (answered), payload "
            "[000000002d00000003000000fb000000] (16 bytes)\n"
            "  sensor 0 (PON SFP 1): 45 °C\n"
            "  sensor 3 (Switch chip): -5 °C");
  EXPECT_TRUE(format_response(kDaemon, 15515, answered(payload), true)
                  .ends_with(R"("decoded":{"sensors":[{"id":0,"name":"PON SFP 1","temperature_c":45},)"
                             R"({"id":3,"name":"Switch chip","temperature_c":-5}]}})"));
  EXPECT_EQ(format_response(kDaemon, 15515, answered({}), false),
            "15500:15515 IPC_SYSTEM_MGR__GET_TEMP from 0x0019fffe: result 1 (answered), payload [] (0 bytes)\n"
            "  no sensors");
}

TEST(CtlResponseDecoding, RamAndDiskSizesAreTwoFloats) {
  ipc::Payload ram;
  put<float>(ram, 0, 4045632.0F);
  put<float>(ram, 4, 1234567.0F);
  EXPECT_TRUE(format_response(kDaemon, 15501, answered(ram), false)
                  .ends_with("(8 bytes)\n  total 4045632 kB, free 1234567 kB"));
  EXPECT_TRUE(format_response(kDaemon, 15501, answered(ram), true)
                  .ends_with(R"("decoded":{"total_kb":4045632.0,"free_kb":1234567.0}})"));
  ipc::Payload disk;
  put<float>(disk, 0, 7.25F);
  put<float>(disk, 4, 0.1F);
  EXPECT_TRUE(format_response(kDaemon, 15502, answered(disk), false).ends_with("\n  total 7.25 GiB, free 0.1 GiB"));
}

// --- the ram command ---------------------------------------------------------------------------

// 4045632.0F then 1234567.0F, little-endian IEEE 754 singles.
const ipc::Payload kRamAnswer{0x00, 0xED, 0x76, 0x4A, 0x38, 0xB4, 0x96, 0x49};

TEST(CtlRam, TotalAndFreeInKilobytesAndMebibytes) {
  EXPECT_EQ(format_ram(kDaemon, answered(kRamAnswer), false),
            "RAM total 4045632 kB (3950.8 MiB), free 1234567 kB (1205.6 MiB)");
}

TEST(CtlRam, JsonHasBothValuesInBothUnits) {
  EXPECT_EQ(format_ram(kDaemon, answered(kRamAnswer), true),
            R"({"type":"ram","from":"0x0019fffe","total_kb":4045632.0,"free_kb":1234567.0,"total_mib":3950.8125,)"
            R"("free_mib":1205.6318359375})");
}

TEST(CtlRam, ErrorAnswerIsShownAsTheResponse) {
  ipc::Response response;
  response.result = 0;
  EXPECT_EQ(format_ram(kDaemon, response, false),
            "15500:15501 IPC_SYSTEM_MGR__GET_RAM_DATA from 0x0019fffe: result 0 (error answer), payload [] (0 bytes)");
  EXPECT_EQ(format_ram(kDaemon, response, true), format_response(kDaemon, 15501, response, true));
}

TEST(CtlRam, AnswerOfAnotherSizeIsShownAsMalformed) {
  EXPECT_EQ(
      format_ram(kDaemon, answered({0x01, 0x02, 0x03}), false),
      "15500:15501 IPC_SYSTEM_MGR__GET_RAM_DATA from 0x0019fffe: result 1 (answered), payload [010203] (3 bytes)\n"
      "  malformed answer: 3 bytes, expected 8");
  ipc::Payload longer = kRamAnswer;
  longer.push_back(0);
  EXPECT_TRUE(format_ram(kDaemon, answered(longer), true)
                  .ends_with(R"("decoded":{"error":"malformed answer: 9 bytes, expected 8"}})"));
}

ipc::Payload disk_answer(float total, float free) {
  ipc::Payload payload;
  put<float>(payload, 0, total);
  put<float>(payload, 4, free);
  return payload;
}

TEST(CtlDiskCommand, PrintsTotalAndFreeWithTwoDecimals) {
  EXPECT_EQ(format_disk(kDaemon, answered(disk_answer(4.0F, 1.3125F)), false), "total 4.00 GiB, free 1.31 GiB");
  EXPECT_EQ(format_disk(kDaemon, answered(disk_answer(7.256F, 0.004F)), false), "total 7.26 GiB, free 0.00 GiB");
}

TEST(CtlDiskCommand, PrintsTheExactSizesAsJson) {
  EXPECT_EQ(format_disk(kDaemon, answered(disk_answer(4.0F, 1.3125F)), true),
            R"({"type":"disk","from":"0x0019fffe","total_gib":4.0,"free_gib":1.3125})");
}

TEST(CtlDiskCommand, ShowsAnErrorAnswerAsTheRequestWouldShowIt) {
  ipc::Response response;
  response.result = 0;
  EXPECT_EQ(format_disk(kDaemon, response, false),
            "15500:15502 IPC_SYSTEM_MGR__GET_HDD_DATA from 0x0019fffe: result 0 (error answer), payload [] (0 bytes)");
  EXPECT_EQ(format_disk(kDaemon, response, true), format_response(kDaemon, 15502, response, true));
}

TEST(CtlDiskCommand, ShowsAnAnswerOfTheWrongSizeAsMalformed) {
  auto payload = disk_answer(4.0F, 1.0F);
  payload.push_back(0);
  EXPECT_EQ(format_disk(kDaemon, answered(payload), false),
            "15500:15502 IPC_SYSTEM_MGR__GET_HDD_DATA from 0x0019fffe: result 1 (answered), payload "
            "[000080400000803f00] (9 bytes)\n  malformed answer: 9 bytes, expected 8");
  EXPECT_TRUE(format_disk(kDaemon, answered({0x01}), true)
                  .ends_with(R"("decoded":{"error":"malformed answer: 1 bytes, expected 8"}})"));
}

TEST(CtlResponseDecoding, VersionsAndFrontButtonFlagsAreOneByte) {
  EXPECT_TRUE(format_response(kDaemon, 15507, answered({0x12}), false).ends_with("(1 byte)\n  version 0x12 (18)"));
  EXPECT_TRUE(format_response(kDaemon, 15506, answered({0x12}), true).ends_with(R"("decoded":{"version":18}})"));
  EXPECT_TRUE(
      format_response(kDaemon, 15514, answered({1}), false).ends_with("(1 byte)\n  front button pressed: yes (1)"));
  EXPECT_TRUE(
      format_response(kDaemon, 15512, answered({0}), false).ends_with("(1 byte)\n  front button enabled: no (0)"));
  EXPECT_TRUE(format_response(kDaemon, 15513, answered({2}), true).ends_with(R"("decoded":{"value":2,"set":true}})"));
}

TEST(CtlResponseDecoding, FanStatesOnePerFan) {
  const ipc::Payload payload{0, 1, 50, 0, 1, 0, 0x2c, 0x01};
  EXPECT_TRUE(
      format_response(kDaemon, 15527, answered(payload), false)
          .ends_with(
              "(8 bytes)\n  fan 1: present, no fault, 3000 rpm (50 rps)\n  fan 2: absent, fault, 18000 rpm (300 rps)"));
  EXPECT_TRUE(format_response(kDaemon, 15527, answered(payload), true)
                  .ends_with(R"("decoded":{"fans":[{"fan":1,"present":true,"fault":false,"rpm":3000,"speed_rps":50},)"
                             R"({"fan":2,"present":false,"fault":true,"rpm":18000,"speed_rps":300}]}})"));
}

TEST(CtlResponseDecoding, AnswersOfTheWrongSizeAreReportedNotDecoded) {
  EXPECT_EQ(format_response(kDaemon, 15515, answered({1, 2}), false),
            "15500:15515 IPC_SYSTEM_MGR__GET_TEMP from 0x0019fffe: result 1 (answered), payload [0102] (2 bytes)\n"
            "  malformed answer: 2 bytes, expected a multiple of 8 (one record per sensor)");
  EXPECT_TRUE(format_response(kDaemon, 15518, answered({1, 2}), true)
                  .ends_with(R"("decoded":{"error":"malformed answer: 2 bytes, expected 133"}})"));
  EXPECT_TRUE(format_response(kDaemon, 15501, answered({}), false)
                  .ends_with("(0 bytes)\n  malformed answer: 0 bytes, expected 8"));
  EXPECT_TRUE(format_response(kDaemon, 15506, answered({1, 2}), false)
                  .ends_with("(2 bytes)\n  malformed answer: 2 bytes, expected 1"));
}

TEST(CtlResponseDecoding, AnyAnswerOfAnyRequestGivesText) {
  for (std::uint16_t id = 15501; id <= 15536; ++id) {
    for (std::size_t size = 0; size <= 300; ++size) {
      ipc::Payload payload(size, 0xFF);
      for (const bool json : {false, true}) {
        std::string text;
        ASSERT_NO_THROW(text = format_response(kDaemon, id, answered(payload), json)) << id << " " << size;
        EXPECT_TRUE(text.starts_with(json ? "{" : "15500:")) << text;
      }
    }
  }
}

TEST(CtlResponseDecoding, ErrorAnswersAreNotDecoded) {
  ipc::Response response;
  response.result = 0;
  EXPECT_EQ(format_response(kDaemon, 15515, response, false),
            "15500:15515 IPC_SYSTEM_MGR__GET_TEMP from 0x0019fffe: result 0 (error answer), payload [] (0 bytes)");
}

TEST(CtlResponseFormatting, ErrorAnswerIsNamedSo) {
  ipc::Response response;
  response.result = 0;
  EXPECT_EQ(format_response(kDaemon, 15533, response, false),
            "15500:15533 IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE from 0x0019fffe: result 0 (error answer), payload [] "
            "(0 bytes)");
  response.result = 5;
  EXPECT_EQ(format_response(kDaemon, 15533, response, false),
            "15500:15533 IPC_SYSTEM_MGR__GET_PWR_MODULE_STATE from 0x0019fffe: result 5 (unknown result), payload [] "
            "(0 bytes)");
}

// --- option values -----------------------------------------------------------------------------

TEST(CtlOptions, OneCommandPerRequestNamedAfterItsIdentifier) {
  const auto commands = request_commands();
  ASSERT_EQ(commands.size(), 36U);
  for (std::size_t i = 0; i < commands.size(); ++i) {
    EXPECT_EQ(commands[i].id, 15501 + i);
    EXPECT_EQ(commands[i].name, request_name(commands[i].id));
  }
  EXPECT_EQ(commands[0].command, "get-ram-data");
  EXPECT_EQ(commands[0].argument, RequestArgument::None);
  EXPECT_EQ(commands[14].command, "get-temp");
  EXPECT_EQ(commands[17].command, "get-p-port-eddi-data");
  EXPECT_EQ(commands[17].argument, RequestArgument::Port);
  EXPECT_EQ(commands[25].command, "disable-f-port-sfp-module-trx");
  EXPECT_EQ(commands[25].argument, RequestArgument::Port);
  EXPECT_EQ(commands[27].command, "set-fan-speed");
  EXPECT_EQ(commands[27].argument, RequestArgument::Speed);
  EXPECT_EQ(commands[31].argument, RequestArgument::Speed);
  EXPECT_EQ(commands[35].command, "p-port-led-off");
}

TEST(CtlOptions, PortPayloadIsLittleEndian) {
  EXPECT_EQ(port_payload(0x01020304), (ipc::Payload{4, 3, 2, 1}));
  EXPECT_EQ(port_payload(3), (ipc::Payload{3, 0, 0, 0}));
}

TEST(CtlOptions, RequestIdByNumberOrName) {
  EXPECT_EQ(parse_request_id("15515"), 15515);
  EXPECT_EQ(parse_request_id("0x3c9b"), 15515);
  EXPECT_EQ(parse_request_id("IPC_SYSTEM_MGR__GET_TEMP"), 15515);
  EXPECT_EQ(parse_request_id("get_temp"), 15515);
  EXPECT_EQ(parse_request_id("GET_PWR_MODULE_STATE"), 15533);
}

TEST(CtlOptions, RequestIdsOutsideTheDaemonAreRefused) {
  try {
    parse_request_id("15537");
    FAIL() << "no error";
  } catch (const UsageError& error) {
    EXPECT_STREQ(error.what(), "--id: 15537 is not a request of the system manager (15501 to 15536)");
  }
  try {
    parse_request_id("GET_EVERYTHING");
    FAIL() << "no error";
  } catch (const UsageError& error) {
    EXPECT_STREQ(error.what(), "--id: 'GET_EVERYTHING' is neither a number nor the name of a request");
  }
  EXPECT_THROW(parse_request_id(""), UsageError);
  EXPECT_THROW(parse_request_id("70000"), UsageError);
  EXPECT_THROW(parse_request_id("155x1"), UsageError);
}

TEST(CtlOptions, SecondsWithOptionalFraction) {
  EXPECT_EQ(parse_seconds("5", "--timeout"), std::chrono::milliseconds(5000));
  EXPECT_EQ(parse_seconds("0.5", "--timeout"), std::chrono::milliseconds(500));
  EXPECT_EQ(parse_seconds("0.0001", "--timeout"), std::chrono::milliseconds(1));
  EXPECT_EQ(parse_seconds("86400", "--timeout"), std::chrono::milliseconds(86400000));
}

TEST(CtlOptions, BadSecondsAreRefused) {
  for (const char* text : {"", "0", "-1", "abc", "1s", "86401", "nan", "inf", "1e3"}) {
    try {
      parse_seconds(text, "--timeout");
      ADD_FAILURE() << "no error for '" << text << "'";
    } catch (const UsageError& error) {
      EXPECT_EQ(std::string(error.what()),
                std::string("--timeout: '") + text + "' is not a number of seconds above 0 and at most 86400");
    }
  }
}

}  // namespace
}  // namespace xpon::system_mgr::ctl
