#include "decode_fans.hpp"
#include "decode.hpp"
#include "xpon/system_mgr/api.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace xpon::system_mgr::ctl {
namespace {

constexpr ipc::Address kDaemon = 0x0019FFFE;

ipc::Response answered(ipc::Payload payload) {
  ipc::Response response;
  response.payload = std::move(payload);
  response.result = SYSTEM_MGR_RESULT_ANSWERED;
  return response;
}

ipc::Response refused() {
  ipc::Response response;
  response.result = SYSTEM_MGR_RESULT_ERROR;
  return response;
}

TEST(CtlTemp, EverySensorWithItsNameInCelsius) {
  const ipc::Payload payload{0, 0, 0, 0, 41, 0, 0, 0, 4, 0, 0, 0, 0xFB, 0, 0, 0, 9, 0, 0, 0, 70, 0, 0, 0};
  EXPECT_EQ(format_temperatures(kDaemon, answered(payload), false),
            "sensor 0 (PON SFP 1): 41 °C\nsensor 4 (PON chip): -5 °C\nsensor 9 (unknown): 70 °C");
  EXPECT_EQ(format_temperatures(kDaemon, answered(payload), true),
            R"({"type":"temperatures","from":"0x0019fffe","sensors":[{"id":0,"name":"PON SFP 1","temperature_c":41},)"
            R"({"id":4,"name":"PON chip","temperature_c":-5},{"id":9,"name":"unknown","temperature_c":70}]})");
  EXPECT_EQ(format_temperatures(kDaemon, answered({}), false), "no sensors");
}

TEST(CtlTemp, ErrorAnswerOrBrokenRecordsAreShownAsTheGenericView) {
  EXPECT_EQ(format_temperatures(kDaemon, refused(), false), format_response(kDaemon, 15515, refused(), false));
  const auto odd = answered({1, 2, 3});
  EXPECT_EQ(format_temperatures(kDaemon, odd, false), format_response(kDaemon, 15515, odd, false));
  EXPECT_EQ(format_temperatures(kDaemon, odd, true), format_response(kDaemon, 15515, odd, true));
}

TEST(CtlFans, EveryFanWithPresenceFaultAndRpm) {
  const ipc::Payload payload{0, 1, 100, 0, 1, 0, 0x2C, 0x01};
  EXPECT_EQ(format_fan_states(kDaemon, answered(payload), false),
            "fan 1: present, no fault, 6000 rpm (100 rps)\nfan 2: absent, fault, 18000 rpm (300 rps)");
  EXPECT_EQ(format_fan_states(kDaemon, answered(payload), true),
            R"({"type":"fans","from":"0x0019fffe","fans":[{"fan":1,"present":true,"fault":false,"rpm":6000,)"
            R"("speed_rps":100},{"fan":2,"present":false,"fault":true,"rpm":18000,"speed_rps":300}]})");
  EXPECT_EQ(format_fan_states(kDaemon, answered({}), false), "no fans");
  EXPECT_EQ(format_fan_states(kDaemon, answered({1}), false), format_response(kDaemon, 15527, answered({1}), false));
}

TEST(CtlFanModule, StateShowsTheCountTheSettingAndEachFan) {
  ipc::Payload payload(50, 0);
  payload[0] = 1;
  payload[2] = 95;
  payload[3] = 0;
  payload[30] = 2;
  payload[31] = 159;
  EXPECT_EQ(format_fan_module(kDaemon, IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE, answered(payload), false),
            "fan module: present, no fault, 2 fans, speed setting 159\nfan 1: 5700 rpm (95 rps)\nfan 2: 0 rpm (0 rps)");
  EXPECT_EQ(format_fan_module(kDaemon, IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE, answered(payload), true),
            R"({"type":"fan_module_state","from":"0x0019fffe","present":true,"fault":false,"count":2,)"
            R"("speed_setting":159,"fans":[{"fan":1,"rpm":5700,"speed_rps":95},{"fan":2,"rpm":0,"speed_rps":0}]})");
}

TEST(CtlFanModule, ACountBeyondTheSpeedBytesStopsAtTheLastOne) {
  ipc::Payload payload(50, 0);
  payload[30] = 255;
  const auto text = format_fan_module(kDaemon, IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE, answered(payload), false);
  EXPECT_TRUE(text.ends_with("\nfan 28: 0 rpm (0 rps)")) << text;
}

TEST(CtlFanModule, FactoryShowsItsTextFields) {
  ipc::Payload payload(42, 0);
  std::memcpy(payload.data(), "FAN-MODULE-6", 12);
  std::memcpy(payload.data() + 16, "FM2208000042", 12);
  std::memcpy(payload.data() + 32, "A1", 2);
  std::memcpy(payload.data() + 36, "220815", 6);
  EXPECT_EQ(format_fan_module(kDaemon, IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY, answered(payload), false),
            "fan module FAN-MODULE-6, serial FM2208000042, revision A1, made 220815");
  EXPECT_EQ(format_fan_module(kDaemon, IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY, answered(payload), true),
            R"({"type":"fan_module_factory","from":"0x0019fffe","product_name":"FAN-MODULE-6",)"
            R"("serial_number":"FM2208000042","hw_revision":"A1","mfg_date":"220815"})");
}

TEST(CtlFanModule, WrongSizesAreMalformedInTheGenericView) {
  const auto short_state = answered(ipc::Payload(49, 0));
  EXPECT_EQ(format_fan_module(kDaemon, IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE, short_state, false),
            format_response(kDaemon, IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE, short_state, false));
  EXPECT_TRUE(format_response(kDaemon, IPC_SYSTEM_MGR__GET_FAN_MODULE_STATE, short_state, false)
                  .ends_with("malformed answer: 49 bytes, expected 50"));
  const auto long_factory = answered(ipc::Payload(43, 0));
  EXPECT_TRUE(format_response(kDaemon, IPC_SYSTEM_MGR__GET_FAN_MODULE_FACTORY, long_factory, false)
                  .ends_with("malformed answer: 43 bytes, expected 42"));
}

TEST(CtlFanSpeed, SetIsConfirmedAndARefusalShownAsTheGenericView) {
  EXPECT_EQ(format_speed_set(kDaemon, IPC_SYSTEM_MGR__SET_FAN_SPEED, answered({}), false), "fan speed set");
  EXPECT_EQ(format_speed_set(kDaemon, IPC_SYSTEM_MGR__SET_FAN_MODULE_SPEED, answered({}), true),
            R"({"type":"fan_module_speed_set","from":"0x0019fffe"})");
  EXPECT_EQ(format_speed_set(kDaemon, IPC_SYSTEM_MGR__SET_FAN_SPEED, refused(), false),
            format_response(kDaemon, IPC_SYSTEM_MGR__SET_FAN_SPEED, refused(), false));
}

}  // namespace
}  // namespace xpon::system_mgr::ctl
