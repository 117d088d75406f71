#include "decode_control.hpp"
#include "decode.hpp"

#include "xpon/system_mgr/api.h"
#include "xpon/tool/console.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

namespace xpon::system_mgr::ctl {
namespace {

using tool::UsageError;

constexpr ipc::Address kDaemon = 0x0019FFFE;

ipc::Response answer_of(ipc::Payload payload, std::uint32_t result = SYSTEM_MGR_RESULT_ANSWERED) {
  ipc::Response response;
  response.payload = std::move(payload);
  response.address = 0x0000FFFE;
  response.reply_tag = 7;
  response.result = result;
  return response;
}

ipc::Payload factory_answer() {
  System_mgr__factory record;
  std::memset(&record, 0, sizeof record);
  record.family = SYSTEM_MGR_FAMILY_FC;
  Factory__data data;
  std::memset(&data, 0, sizeof data);
  std::strcpy(data.device_name, "QD7R-FC");
  std::strcpy(data.part_number, "QD7R-FC-A1");
  std::strcpy(data.serial_number, "QD7R21050017");
  const std::uint8_t mac[6] = {0xA8, 0xF9, 0x4B, 0x01, 0x02, 0x03};
  std::memcpy(data.base_mac, mac, sizeof mac);
  data.mac_count = 16;
  std::strcpy(data.manufacture_date, "05/21/2021 10:30:00");
  data.device_version = 2;
  std::strcpy(data.country_code, "DE");
  std::strcpy(data.label_revision, "R02");
  std::strcpy(data.platform_name, "arm64-qd7r");
  std::strcpy(data.manufacturer, "Maker");
  std::strcpy(data.vendor_name, "Vendor");
  data.fields_present = 0x3FFF;
  record.data = data;
  ipc::Payload bytes(sizeof record);
  std::memcpy(bytes.data(), &record, sizeof record);
  return bytes;
}

TEST(CtlFactory, DeviceFactoryShowsEveryFieldByName) {
  EXPECT_EQ(format_factory(kDaemon, IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, answer_of(factory_answer()), false),
            "device factory data from 0x0019fffe:\n"
            "  family: FC (2)\n"
            "  device name: QD7R-FC\n"
            "  part number: QD7R-FC-A1\n"
            "  serial number: QD7R21050017\n"
            "  base MAC address: a8:f9:4b:01:02:03\n"
            "  MAC addresses: 16\n"
            "  manufacture date: 05/21/2021 10:30:00\n"
            "  device version: 2\n"
            "  country code: DE\n"
            "  label revision: R02\n"
            "  platform name: arm64-qd7r\n"
            "  manufacturer: Maker\n"
            "  vendor name: Vendor\n"
            "  fields present: 0x00003fff");
}

TEST(CtlFactory, CrateFactoryAsJsonHasEveryField) {
  const auto line = nlohmann::json::parse(
      format_factory(kDaemon, IPC_SYSTEM_MGR__GET_CRATE_FACTORY, answer_of(factory_answer()), true));
  EXPECT_EQ(line["type"], "factory");
  EXPECT_EQ(line["which"], "crate");
  EXPECT_EQ(line["from"], "0x0019fffe");
  EXPECT_EQ(line["available"], true);
  EXPECT_EQ(line["family"], "FC");
  EXPECT_EQ(line["family_id"], 2);
  EXPECT_EQ(line["device_name"], "QD7R-FC");
  EXPECT_EQ(line["part_number"], "QD7R-FC-A1");
  EXPECT_EQ(line["serial_number"], "QD7R21050017");
  EXPECT_EQ(line["base_mac"], "a8:f9:4b:01:02:03");
  EXPECT_EQ(line["mac_count"], 16);
  EXPECT_EQ(line["manufacture_date"], "05/21/2021 10:30:00");
  EXPECT_EQ(line["device_version"], 2);
  EXPECT_EQ(line["country_code"], "DE");
  EXPECT_EQ(line["label_revision"], "R02");
  EXPECT_EQ(line["platform_name"], "arm64-qd7r");
  EXPECT_EQ(line["manufacturer"], "Maker");
  EXPECT_EQ(line["vendor_name"], "Vendor");
  EXPECT_EQ(line["fields_present"], 0x3FFF);
  EXPECT_EQ(line.size(), 19U);
}

TEST(CtlFactory, EmptyTextsAreShownAsNone) {
  System_mgr__factory record;
  std::memset(&record, 0, sizeof record);
  record.family = SYSTEM_MGR_FAMILY_LC;
  std::strcpy(record.data.device_name, "QD7R-LC-8");
  record.data.fields_present = 1;
  ipc::Payload bytes(sizeof record);
  std::memcpy(bytes.data(), &record, sizeof record);
  const auto text = format_factory(kDaemon, IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, answer_of(bytes), false);
  EXPECT_NE(text.find("\n  part number: (none)\n"), std::string::npos) << text;
  EXPECT_NE(text.find("\n  base MAC address: 00:00:00:00:00:00\n"), std::string::npos) << text;
  const auto line =
      nlohmann::json::parse(format_factory(kDaemon, IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, answer_of(bytes), true));
  EXPECT_EQ(line["part_number"], "");
  EXPECT_EQ(line["family"], "LC");
}

TEST(CtlFactory, FamiliesByName) {
  EXPECT_EQ(family_name(0), "LT");
  EXPECT_EQ(family_name(1), "LC");
  EXPECT_EQ(family_name(2), "FC");
  EXPECT_EQ(family_name(3), "unknown");
}

TEST(CtlFactory, AllZeroAnswerSaysThereIsNoData) {
  EXPECT_EQ(format_factory(kDaemon, IPC_SYSTEM_MGR__GET_CRATE_FACTORY, answer_of(ipc::Payload(280, 0)), false),
            "crate factory data from 0x0019fffe:\n"
            "  no factory data (all zero: the image could not be read or is not valid)");
  EXPECT_EQ(format_factory(kDaemon, IPC_SYSTEM_MGR__GET_CRATE_FACTORY, answer_of(ipc::Payload(280, 0)), true),
            R"({"type":"factory","which":"crate","from":"0x0019fffe","available":false})");
}

TEST(CtlFactory, UnterminatedAndUnprintableTextsStayInTheirFields) {
  auto payload = factory_answer();
  // A device name filling its whole field without a NUL, with a control byte in it.
  std::memset(payload.data() + 4, 'N', 64);
  payload[4] = 0x01;
  const auto line =
      nlohmann::json::parse(format_factory(kDaemon, IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, answer_of(payload), true));
  EXPECT_EQ(line["device_name"], "\\x01" + std::string(63, 'N'));
  EXPECT_EQ(line["part_number"], "QD7R-FC-A1");
}

TEST(CtlFactory, ErrorAnswerIsShownAsAResponse) {
  const auto response = answer_of({}, SYSTEM_MGR_RESULT_ERROR);
  EXPECT_EQ(format_factory(kDaemon, IPC_SYSTEM_MGR__GET_CRATE_FACTORY, response, false),
            format_response(kDaemon, IPC_SYSTEM_MGR__GET_CRATE_FACTORY, response, false));
  EXPECT_EQ(format_factory(kDaemon, IPC_SYSTEM_MGR__GET_CRATE_FACTORY, response, true),
            format_response(kDaemon, IPC_SYSTEM_MGR__GET_CRATE_FACTORY, response, true));
}

TEST(CtlFactory, ShortAnswerIsMalformed) {
  const auto text = format_factory(kDaemon, IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, answer_of(ipc::Payload(279, 0)), false);
  EXPECT_NE(text.find("malformed answer: 279 bytes, expected 280"), std::string::npos) << text;
}

TEST(CtlFactory, GenericRequestCommandDecodesTheFactoryAnswerToo) {
  const auto line = nlohmann::json::parse(
      format_response(kDaemon, IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, answer_of(factory_answer()), true));
  EXPECT_EQ(line["decoded"]["family"], "FC");
  EXPECT_EQ(line["decoded"]["base_mac"], "a8:f9:4b:01:02:03");
  const auto text = format_response(kDaemon, IPC_SYSTEM_MGR__GET_DEVICE_FACTORY, answer_of(factory_answer()), false);
  EXPECT_NE(text.find("\n  device name: QD7R-FC\n"), std::string::npos) << text;
}

TEST(CtlVersion, TextAndJson) {
  EXPECT_EQ(format_version(kDaemon, IPC_SYSTEM_MGR__GET_FPGA_VERSION, answer_of({0x15}), false),
            "FPGA version 21 (0x15)");
  EXPECT_EQ(format_version(kDaemon, IPC_SYSTEM_MGR__GET_CPLD_VERSION, answer_of({7}), false), "CPLD version 7 (0x07)");
  EXPECT_EQ(format_version(kDaemon, IPC_SYSTEM_MGR__GET_CPLD_VERSION, answer_of({7}), true),
            R"({"type":"version","which":"cpld","from":"0x0019fffe","version":7})");
}

TEST(CtlVersion, AnswerOfAnotherSizeIsShownAsAResponse) {
  const auto response = answer_of({1, 2});
  EXPECT_EQ(format_version(kDaemon, IPC_SYSTEM_MGR__GET_FPGA_VERSION, response, false),
            format_response(kDaemon, IPC_SYSTEM_MGR__GET_FPGA_VERSION, response, false));
}

TEST(CtlButton, QueriesTextAndJson) {
  EXPECT_EQ(format_button_query(kDaemon, IPC_SYSTEM_MGR__IS_F_BUTTON_ENABLED, answer_of({1}), false),
            "front button enabled: yes");
  EXPECT_EQ(format_button_query(kDaemon, IPC_SYSTEM_MGR__IS_F_BUTTON_HARD_RESET_ENABLED, answer_of({0}), false),
            "front button hard reset enabled: no");
  EXPECT_EQ(format_button_query(kDaemon, IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED, answer_of({2}), true),
            R"({"type":"button","query":"pressed","from":"0x0019fffe","value":2,"set":true})");
}

TEST(CtlButton, ErrorAnswerIsShownAsAResponse) {
  const auto response = answer_of({}, SYSTEM_MGR_RESULT_ERROR);
  EXPECT_EQ(format_button_query(kDaemon, IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED, response, true),
            format_response(kDaemon, IPC_SYSTEM_MGR__IS_F_BUTTON_PRESSED, response, true));
}

TEST(CtlSetting, DoneOrTheErrorAnswer) {
  EXPECT_EQ(format_setting(kDaemon, IPC_SYSTEM_MGR__ENABLE_F_BUTTON, answer_of({}), false),
            "IPC_SYSTEM_MGR__ENABLE_F_BUTTON: done");
  EXPECT_EQ(format_setting(kDaemon, IPC_SYSTEM_MGR__CNTRL_LED_PANEL, answer_of({}), true),
            R"({"type":"setting","name":"IPC_SYSTEM_MGR__CNTRL_LED_PANEL","from":"0x0019fffe","done":true})");
  const auto refused = answer_of({}, SYSTEM_MGR_RESULT_ERROR);
  EXPECT_EQ(format_setting(kDaemon, IPC_SYSTEM_MGR__CNTRL_LED_PANEL, refused, false),
            format_response(kDaemon, IPC_SYSTEM_MGR__CNTRL_LED_PANEL, refused, false));
}

TEST(CtlLedPanel, NamesBecomeTheDriversRecord) {
  EXPECT_EQ(led_panel_payload("alarm", "blink", "red"), (ipc::Payload{2, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0}));
  EXPECT_EQ(led_panel_payload("fan", "on", "yellow"), (ipc::Payload{4, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0}));
  EXPECT_EQ(led_panel_payload("power", "off", "green"), ipc::Payload(12, 0));
}

TEST(CtlLedPanel, NumbersAreSentAsTheyAre) {
  EXPECT_EQ(led_panel_payload("9", "3", "258"), (ipc::Payload{9, 0, 0, 0, 3, 0, 0, 0, 2, 1, 0, 0}));
}

TEST(CtlLedPanel, UnknownNamesAreUsageErrors) {
  EXPECT_THROW(static_cast<void>(led_panel_payload("disk", "on", "red")), UsageError);
  EXPECT_THROW(static_cast<void>(led_panel_payload("alarm", "flash", "red")), UsageError);
  EXPECT_THROW(static_cast<void>(led_panel_payload("alarm", "on", "blue")), UsageError);
  EXPECT_THROW(static_cast<void>(led_panel_payload("alarm", "on", "")), UsageError);
  EXPECT_THROW(static_cast<void>(led_panel_payload("4294967296", "on", "red")), UsageError);
  try {
    static_cast<void>(led_panel_payload("disk", "on", "red"));
  } catch (const UsageError& error) {
    EXPECT_STREQ(error.what(), "LED: \"disk\" is not one of power, status, alarm, master, fan nor a number");
  }
}

TEST(CtlPonLed, StatesChooseTheRequest) {
  EXPECT_EQ(pon_led_request("red"), IPC_SYSTEM_MGR__P_PORT_R_LED_ON_G_LED_OFF);
  EXPECT_EQ(pon_led_request("green"), IPC_SYSTEM_MGR__P_PORT_G_LED_ON_R_LED_OFF);
  EXPECT_EQ(pon_led_request("off"), IPC_SYSTEM_MGR__P_PORT_LED_OFF);
  EXPECT_THROW(static_cast<void>(pon_led_request("yellow")), UsageError);
}

TEST(CtlPonLed, GenericCommandsTakeAPort) {
  for (const auto& command : request_commands()) {
    if (command.id >= IPC_SYSTEM_MGR__P_PORT_R_LED_ON_G_LED_OFF && command.id <= IPC_SYSTEM_MGR__P_PORT_LED_OFF) {
      EXPECT_EQ(command.argument, RequestArgument::Port) << command.command;
    }
  }
}

}  // namespace
}  // namespace xpon::system_mgr::ctl
