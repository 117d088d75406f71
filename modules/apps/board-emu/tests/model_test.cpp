#include "xpon/board_emu/model.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace xpon::board_emu {
namespace {

// The refusal text for a model document, or "accepted".
std::string refusal(const std::string& text) {
  auto model = model_from_json(Json::parse(text));
  return model ? std::string("accepted") : error_text(model.error());
}

TEST(ModelFromJson, EmptyDocumentGivesAnEmptyBoard) {
  auto model = model_from_json(Json::object());
  ASSERT_TRUE(model);
  EXPECT_EQ(model.value().inventory.fan_count, 0);
  EXPECT_TRUE(model.value().fans.empty());
  EXPECT_FALSE(model.value().fan_module.has_value());
  EXPECT_FALSE(model.value().power_module.has_value());
}

TEST(ModelFromJson, InventoryCountsDefaultToTheListLengths) {
  auto model = model_from_json(Json::parse(R"({
    "fans": [{"speed": 10}, {"speed": 20}],
    "sensors": [{"temperature": 40}],
    "power_supplies": [{}, {}, {}],
    "pon_ports": [{}, {}, {}, {}],
    "front_ports": [{}]
  })"));
  ASSERT_TRUE(model);
  const Inventory& inventory = model.value().inventory;
  EXPECT_EQ(inventory.fan_count, 2);
  EXPECT_EQ(inventory.temp_count, 1);
  EXPECT_EQ(inventory.ps_count, 3);
  EXPECT_EQ(inventory.pon_port_count, 4);
  EXPECT_EQ(inventory.front_port_count, 1);
  EXPECT_EQ(model.value().sensors[0].id, 0);
}

TEST(ModelFromJson, ExplicitInventoryIsKeptEvenWhenItDiffersFromTheLists) {
  auto model = model_from_json(Json::parse(R"({"inventory": {"fan_count": 6, "cpld_version": 3}, "fans": [{}]})"));
  ASSERT_TRUE(model);
  EXPECT_EQ(model.value().inventory.fan_count, 6);
  EXPECT_EQ(model.value().inventory.cpld_version, 3);
  EXPECT_EQ(model.value().fans.size(), 1U);
}

TEST(ModelFromJson, RoundTripThroughJsonKeepsEveryField) {
  const auto text = R"({
    "inventory": {"cpld_version": 7, "fan_count": 1, "ps_count": 1, "temp_count": 1, "pon_port_count": 1,
                  "front_port_count": 1},
    "versions": {"fpga": 21},
    "sensors": [{"id": 4, "temperature": -12}],
    "fans": [{"present": false, "fault": true, "speed": 65535}],
    "fan_speed_setting": 159,
    "power_supplies": [{"present": true, "power_good": false, "alert": 3, "model": "M", "serial": "S",
                        "version": "1.0", "revision": "B", "date": "2023-01-01"}],
    "fan_module": {"present": true, "fault": true, "fan_speeds": [1, 2, 3], "speed_setting": 102,
                   "factory": {"product_name": "FAN", "serial_number": "SN", "hw_revision": "A1",
                               "mfg_date": "230101"}},
    "power_module": {"present": true, "power_good": true, "fault": false, "fan_fault": true,
                     "input_voltage": 2300, "output_voltage": 1200, "output_current": 10, "output_power": 150,
                     "temperature": -5},
    "pon_ports": [{"present": true, "tx_fault": true, "rx_los": false, "state": 9, "identification": "03 04 ff",
                   "diagnostics": [1, 2, 3], "trx_enabled": false,
                   "rx_power": {"raw": 2000, "coefficients": [0.5, 0.25]}, "led": {"red": "on", "green": "blink"}}],
    "front_ports": [{"present": false}],
    "led_panel": {"alarm": {"mode": "blink", "color": "red"}},
    "front_button": {"pressed": true, "polling_enabled": true, "hard_reset_enabled": false},
    "faults": {"BOARD_GET_FAN_INFO": {"errno": "EIO", "count": 2, "delay_ms": 5}}
  })";
  auto first = model_from_json(Json::parse(text));
  ASSERT_TRUE(first) << error_text(first.error());
  const Json document = model_to_json(first.value());
  auto second = model_from_json(document);
  ASSERT_TRUE(second) << error_text(second.error());
  EXPECT_EQ(model_to_json(second.value()), document);

  const BoardModel& model = second.value();
  EXPECT_EQ(model.sensors[0].temperature, -12);
  EXPECT_EQ(model.power_supplies[0].has_info, true);
  EXPECT_EQ(model.pon_ports[0].identification[2], 0xFF);
  EXPECT_EQ(model.pon_ports[0].diagnostics[2], 3);
  EXPECT_EQ(model.pon_ports[0].rx_power.coefficients[1], 0.25F);
  EXPECT_EQ(model.pon_ports[0].led.green, LedMode::Blink);
  EXPECT_EQ(model.led_panel[2].color, LedColor::Red);
  EXPECT_EQ(model.faults.at("BOARD_GET_FAN_INFO").error, EIO);
  EXPECT_EQ(model.faults.at("BOARD_GET_FAN_INFO").remaining, 2U);
  EXPECT_EQ(document["pon_ports"][0]["identification"], "03 04 ff");
  EXPECT_EQ(document["faults"]["BOARD_GET_FAN_INFO"]["errno"], "EIO");
}

TEST(ModelFromJson, PowerSupplyHasInfoFollowsItsTextsUnlessGiven) {
  auto model =
      model_from_json(Json::parse(R"({"power_supplies": [{}, {"model": "X"}, {"model": "X", "has_info": false}]})"));
  ASSERT_TRUE(model);
  EXPECT_FALSE(model.value().power_supplies[0].has_info);
  EXPECT_TRUE(model.value().power_supplies[1].has_info);
  EXPECT_FALSE(model.value().power_supplies[2].has_info);
}

TEST(ModelValidation, DocumentMustBeAnObject) {
  EXPECT_EQ(refusal("3"), "must be a JSON object, not 3");
}

TEST(ModelValidation, UnknownTopLevelField) {
  EXPECT_EQ(refusal(R"({"fanz": []})"), "fanz: unknown field");
}

TEST(ModelValidation, UnknownNestedField) {
  EXPECT_EQ(refusal(R"({"inventory": {"fan_cnt": 2}})"), "inventory.fan_cnt: unknown field");
  EXPECT_EQ(refusal(R"({"fans": [{}, {"rpm": 2}]})"), "fans[1].rpm: unknown field");
}

TEST(ModelValidation, InventoryByteOutOfRange) {
  EXPECT_EQ(refusal(R"({"inventory": {"fan_count": 256}})"),
            "inventory.fan_count: must be an integer from 0 to 255, not 256");
  EXPECT_EQ(refusal(R"({"inventory": {"cpld_version": -1}})"),
            "inventory.cpld_version: must be an integer from 0 to 255, not -1");
}

TEST(ModelValidation, IntegerGivenAsTextOrFraction) {
  EXPECT_EQ(refusal(R"({"versions": {"fpga": "7"}})"), "versions.fpga: must be an integer from 0 to 255, not \"7\"");
  EXPECT_EQ(refusal(R"({"fans": [{"speed": 1.5}]})"), "fans[0].speed: must be an integer from 0 to 65535, not 1.5");
}

TEST(ModelValidation, SensorTemperatureIsASignedByte) {
  EXPECT_EQ(refusal(R"({"sensors": [{"temperature": 128}]})"),
            "sensors[0].temperature: must be an integer from -128 to 127, not 128");
  EXPECT_EQ(refusal(R"({"sensors": [{"id": 2147483648}]})"),
            "sensors[0].id: must be an integer from -2147483648 to 2147483647, not 2147483648");
}

TEST(ModelValidation, FlagMustBeBoolean) {
  EXPECT_EQ(refusal(R"({"fans": [{"present": 1}]})"), "fans[0].present: must be true or false, not 1");
}

TEST(ModelValidation, ListMustBeAList) {
  EXPECT_EQ(refusal(R"({"fans": {"speed": 1}})"), "fans: must be a list, not {\"speed\":1}");
}

TEST(ModelValidation, ListsAreBoundedByTheDriverRecords) {
  Json document = Json::object();
  document["fans"] = Json::array();
  for (int i = 0; i < 17; ++i) {
    document["fans"].push_back(Json::object());
  }
  auto model = model_from_json(document);
  ASSERT_FALSE(model);
  EXPECT_EQ(error_text(model.error()), "fans: holds 17 elements, at most 16 are possible");
  EXPECT_EQ(refusal(R"({"power_supplies": [{},{},{},{},{},{},{},{},{}]})"),
            "power_supplies: holds 9 elements, at most 8 are possible");
}

TEST(ModelValidation, PowerSupplyTextsFitTheDriverFields) {
  EXPECT_EQ(refusal(R"({"power_supplies": [{"revision": "ABC"}]})"),
            "power_supplies[0].revision: must be a text of at most 2 characters, not \"ABC\"");
  EXPECT_EQ(refusal(R"({"power_supplies": [{"model": 5}]})"),
            "power_supplies[0].model: must be a text of at most 31 characters, not 5");
}

TEST(ModelValidation, FanModuleSpeedsAreBytesAndAtMost28) {
  EXPECT_EQ(refusal(R"({"fan_module": {"fan_speeds": [10, 300]}})"),
            "fan_module.fan_speeds[1]: must be an integer from 0 to 255, not 300");
  Json document = {{"fan_module", {{"fan_speeds", Json::array()}}}};
  for (int i = 0; i < 29; ++i) {
    document["fan_module"]["fan_speeds"].push_back(1);
  }
  auto model = model_from_json(document);
  ASSERT_FALSE(model);
  EXPECT_EQ(error_text(model.error()), "fan_module.fan_speeds: holds 29 elements, at most 28 are possible");
}

TEST(ModelValidation, FanModuleFactoryTextsFitTheirFields) {
  EXPECT_EQ(refusal(R"({"fan_module": {"factory": {"mfg_date": "2023-01-01"}}})"),
            "fan_module.factory.mfg_date: must be a text of at most 6 characters, not \"2023-01-01\"");
}

TEST(ModelValidation, PowerModuleTemperatureIsSigned16) {
  EXPECT_EQ(refusal(R"({"power_module": {"temperature": 40000}})"),
            "power_module.temperature: must be an integer from -32768 to 32767, not 40000");
}

TEST(ModelValidation, IdentificationMustBeHexBytes) {
  EXPECT_EQ(refusal(R"({"pon_ports": [{"identification": "03 0g"}]})"),
            "pon_ports[0].identification: must be at most 60 bytes in hexadecimal (\"03 04 07 ...\"), not \"03 0g\"");
  EXPECT_EQ(refusal(R"({"pon_ports": [{"identification": "030"}]})"),
            "pon_ports[0].identification: must be at most 60 bytes in hexadecimal (\"03 04 07 ...\"), not \"030\"");
  const std::string too_long(std::size_t{61} * 2, 'a');
  auto model = model_from_json(Json{{"front_ports", {{{"identification", too_long}}}}});
  ASSERT_FALSE(model);
  EXPECT_EQ(error_text(model.error()),
            "front_ports[0].identification: must be at most 60 bytes in hexadecimal (\"03 04 07 ...\"), not \"" +
                too_long.substr(0, 39) + "...");
}

TEST(ModelValidation, DiagnosticsAreAtMostSixteenWords) {
  EXPECT_EQ(refusal(R"({"pon_ports": [{"diagnostics": [0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0]}]})"),
            "pon_ports[0].diagnostics: holds 17 elements, at most 16 are possible");
  EXPECT_EQ(refusal(R"({"pon_ports": [{"diagnostics": [70000]}]})"),
            "pon_ports[0].diagnostics[0]: must be an integer from 0 to 65535, not 70000");
}

TEST(ModelValidation, RxPowerCoefficientsAreFloats) {
  EXPECT_EQ(refusal(R"({"pon_ports": [{"rx_power": {"coefficients": [1, "x"]}}]})"),
            "pon_ports[0].rx_power.coefficients[1]: must be a number in the range of a float, not \"x\"");
  EXPECT_EQ(refusal(R"({"pon_ports": [{"rx_power": {"coefficients": [1e39]}}]})"),
            "pon_ports[0].rx_power.coefficients[0]: must be a number in the range of a float, not 1e+39");
}

TEST(ModelValidation, FrontPortsHaveNeitherRxPowerNorLed) {
  EXPECT_EQ(refusal(R"({"front_ports": [{"rx_power": {"raw": 1}}]})"), "front_ports[0].rx_power: unknown field");
  EXPECT_EQ(refusal(R"({"front_ports": [{"led": {}}]})"), "front_ports[0].led: unknown field");
}

TEST(ModelValidation, LedModeAndColourNames) {
  EXPECT_EQ(refusal(R"({"pon_ports": [{"led": {"red": "dim"}}]})"),
            "pon_ports[0].led.red: must be one of \"off\", \"on\", \"blink\", not \"dim\"");
  EXPECT_EQ(refusal(R"({"led_panel": {"power": {"color": "blue"}}})"),
            "led_panel.power.color: must be one of \"green\", \"yellow\", \"red\", not \"blue\"");
  EXPECT_EQ(refusal(R"({"led_panel": {"disk": {}}})"), "led_panel.disk: unknown field");
}

TEST(ModelValidation, FrontButtonFields) {
  EXPECT_EQ(refusal(R"({"front_button": {"pressed": "yes"}})"),
            "front_button.pressed: must be true or false, not \"yes\"");
}

TEST(ModelValidation, FaultNamesADriverCommand) {
  EXPECT_EQ(refusal(R"({"faults": {"BOARD_GET_FANS": {"errno": "EIO"}}})"),
            "faults.BOARD_GET_FANS: no driver command of this name");
}

TEST(ModelValidation, FaultErrno) {
  EXPECT_EQ(refusal(R"({"faults": {"BOARD_GET_FAN_INFO": {"errno": "EWHAT"}}})"),
            "faults.BOARD_GET_FAN_INFO.errno: unknown errno name \"EWHAT\"");
  EXPECT_EQ(refusal(R"({"faults": {"BOARD_GET_FAN_INFO": {"errno": 0}}})"),
            "faults.BOARD_GET_FAN_INFO.errno: must be an integer from 1 to 4095, not 0");
}

TEST(ModelValidation, FaultCountAndDelay) {
  EXPECT_EQ(refusal(R"({"faults": {"BOARD_GET_FAN_INFO": {"errno": "EIO", "count": 0}}})"),
            "faults.BOARD_GET_FAN_INFO.count: must be an integer from 1 to 4294967295, not 0");
  EXPECT_EQ(refusal(R"({"faults": {"BOARD_GET_FAN_INFO": {"delay_ms": 600001}}})"),
            "faults.BOARD_GET_FAN_INFO.delay_ms: must be an integer from 0 to 600000, not 600001");
  EXPECT_EQ(refusal(R"({"faults": {"BOARD_GET_FAN_INFO": {"count": 3}}})"),
            "faults.BOARD_GET_FAN_INFO: needs an errno, a delay_ms above 0, or both");
  EXPECT_EQ(refusal(R"({"faults": {"BOARD_GET_FAN_INFO": {"errno": "EIO", "times": 3}}})"),
            "faults.BOARD_GET_FAN_INFO.times: unknown field");
}

TEST(ModelValidation, FaultErrnoByNumberIsAccepted) {
  auto model = model_from_json(Json::parse(R"({"faults": {"BOARD_GET_PS_INFO": {"errno": 121}}})"));
  ASSERT_TRUE(model);
  EXPECT_EQ(model.value().faults.at("BOARD_GET_PS_INFO").error, 121);
  EXPECT_FALSE(model.value().faults.at("BOARD_GET_PS_INFO").remaining.has_value());
  const Json document = model_to_json(model.value());
  EXPECT_EQ(document["faults"]["BOARD_GET_PS_INFO"]["errno"], 121);
  auto again = model_from_json(document);
  ASSERT_TRUE(again);
  EXPECT_EQ(again.value().faults.at("BOARD_GET_PS_INFO").error, 121);
}

TEST(ErrnoNames, KnownNamesMapBothWays) {
  EXPECT_EQ(errno_from_name("EIO"), EIO);
  EXPECT_EQ(errno_from_name("ETIMEDOUT"), ETIMEDOUT);
  EXPECT_FALSE(errno_from_name("eio").has_value());
  EXPECT_EQ(errno_name(ENODEV), "ENODEV");
  EXPECT_EQ(errno_name(4000), "4000");
}

}  // namespace
}  // namespace xpon::board_emu

namespace xpon::board_emu {
namespace {

TEST(ParseJsonText, DeepNestingIsRefused) {
  auto parsed = parse_json_text(std::string(33, '[') + std::string(33, ']'));
  ASSERT_FALSE(parsed);
  EXPECT_EQ(error_text(parsed.error()), "the JSON text is nested deeper than 32 levels");
  EXPECT_TRUE(parse_json_text(std::string(32, '[') + "1" + std::string(32, ']')));
  EXPECT_TRUE(parse_json_text(R"({"a": {"b": [1]}})"));
  auto very_deep = parse_json_text(std::string(100000, '[') + std::string(100000, ']'));
  ASSERT_FALSE(very_deep);
  EXPECT_EQ(error_text(very_deep.error()), "the JSON text is nested deeper than 32 levels");
}

TEST(ParseJsonText, OversizedTextIsRefused) {
  const std::string text = "\"" + std::string(kMaxJsonText, 'x') + "\"";
  auto parsed = parse_json_text(text);
  ASSERT_FALSE(parsed);
  EXPECT_EQ(error_text(parsed.error()), "the JSON text is larger than 4194304 bytes");
}

TEST(ParseJsonText, SyntaxErrorKeepsTheParserText) {
  auto parsed = parse_json_text("{\"a\" 1}");
  ASSERT_FALSE(parsed);
  EXPECT_EQ(error_text(parsed.error()),
            "not valid JSON: [json.exception.parse_error.101] parse error at line 1, column 6: syntax error while "
            "parsing object separator - unexpected number literal; expected ':'");
}

}  // namespace
}  // namespace xpon::board_emu
