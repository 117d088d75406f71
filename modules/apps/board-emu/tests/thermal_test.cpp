#include "xpon/board_emu/model.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace xpon::board_emu {
namespace {

std::string refusal(const std::string& text) {
  auto model = model_from_json(Json::parse(text));
  return model ? std::string("accepted") : error_text(model.error());
}

BoardModel board_with(const std::string& text) {
  auto model = model_from_json(Json::parse(text));
  EXPECT_TRUE(model.has_value()) << error_text(model.error());
  return model ? model.value() : BoardModel{};
}

std::vector<int> temperatures(const BoardModel& model) {
  std::vector<int> values;
  for (const auto& sensor : model.sensors) {
    values.push_back(sensor.temperature);
  }
  return values;
}

TEST(Thermal, IsOffByDefaultSoFixedScenariosStayFixed) {
  BoardModel model = board_with(R"({"sensors": [{"id": 0, "temperature": 41}]})");
  EXPECT_FALSE(model.thermal.enabled);
  EXPECT_FALSE(thermal_step(model));
  EXPECT_EQ(temperatures(model), (std::vector<int>{41}));
}

TEST(Thermal, SensorsMoveTowardAmbientPlusLoadLessTheFansCooling) {
  // Target at setting 102: 25 + 45 - 60 * 102 / 255 = 46.
  BoardModel model = board_with(R"({"sensors": [{"id": 0, "temperature": 66}, {"id": 1, "temperature": 45}],
                                    "fan_speed_setting": 102,
                                    "thermal": {"enabled": true, "rate_percent": 50}})");
  EXPECT_TRUE(thermal_step(model));
  EXPECT_EQ(temperatures(model), (std::vector<int>{56, 46}));
  EXPECT_TRUE(thermal_step(model));
  EXPECT_EQ(temperatures(model), (std::vector<int>{51, 46}));
}

TEST(Thermal, AFasterFanSettingCoolsFurther) {
  // Target at setting 159: 25 + 45 - 60 * 159 / 255 = 33 (integer division).
  BoardModel model = board_with(
      R"({"sensors": [{"id": 0, "temperature": 34}], "fan_speed_setting": 159, "thermal": {"enabled": true}})");
  EXPECT_TRUE(thermal_step(model));
  EXPECT_EQ(temperatures(model), (std::vector<int>{33}));
  EXPECT_FALSE(thermal_step(model));
}

TEST(Thermal, TheFanModuleSettingCountsOnABoardThatHasOne) {
  BoardModel model = board_with(R"({"sensors": [{"id": 0, "temperature": 70}], "fan_speed_setting": 0,
                                    "fan_module": {"speed_setting": 255},
                                    "thermal": {"enabled": true, "rate_percent": 100}})");
  EXPECT_TRUE(thermal_step(model));
  EXPECT_EQ(temperatures(model), (std::vector<int>{10}));
}

TEST(Thermal, TemperaturesStayWithinASignedByte) {
  BoardModel model = board_with(R"({"sensors": [{"id": 0, "temperature": 120}],
                                    "thermal": {"enabled": true, "ambient": 127, "load": 255, "cooling": 0,
                                                "rate_percent": 100}})");
  EXPECT_TRUE(thermal_step(model));
  EXPECT_EQ(temperatures(model), (std::vector<int>{127}));
}

TEST(Thermal, RoundTripsThroughJson) {
  const BoardModel model = board_with(
      R"({"thermal": {"enabled": true, "ambient": -5, "load": 70, "cooling": 40, "step_ms": 250, "rate_percent": 7}})");
  const Json json = model_to_json(model);
  EXPECT_EQ(json["thermal"], Json::parse(R"({"enabled": true, "ambient": -5, "load": 70, "cooling": 40,
                                             "step_ms": 250, "rate_percent": 7})"));
  const BoardModel again = board_with(json.dump());
  EXPECT_EQ(model_to_json(again), json);
}

TEST(Thermal, BadFieldsAreRefusedByName) {
  EXPECT_EQ(refusal(R"({"thermal": {"step_ms": 5}})"), "thermal.step_ms: must be an integer from 10 to 60000, not 5");
  EXPECT_EQ(refusal(R"({"thermal": {"rate_percent": 0}})"),
            "thermal.rate_percent: must be an integer from 1 to 100, not 0");
  EXPECT_EQ(refusal(R"({"thermal": {"ambient": 300}})"),
            "thermal.ambient: must be an integer from -128 to 127, not 300");
  EXPECT_EQ(refusal(R"({"thermal": {"enabled": "yes"}})").rfind("thermal.enabled: ", 0), 0U);
  EXPECT_EQ(refusal(R"({"thermal": {"heat": 1}})").rfind("thermal.heat: ", 0), 0U);
}

TEST(Thermal, APatchSwitchesItOn) {
  const BoardModel model = board_with(R"({"sensors": [{"id": 0, "temperature": 41}]})");
  auto patched = apply_patch(model, Json::parse(R"({"thermal": {"enabled": true, "load": 60}})"));
  ASSERT_TRUE(patched.has_value()) << error_text(patched.error());
  EXPECT_TRUE(patched.value().thermal.enabled);
  EXPECT_EQ(patched.value().thermal.load, 60);
  EXPECT_EQ(patched.value().thermal.cooling, 60);
}

}  // namespace
}  // namespace xpon::board_emu
