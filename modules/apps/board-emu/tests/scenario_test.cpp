#include "xpon/board_emu/scenario.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace xpon::board_emu {
namespace {

std::string refusal(const std::string& text) {
  auto scenario = parse_scenario(text);
  return scenario ? std::string("accepted") : error_text(scenario.error());
}

TEST(ParseScenario, ModelDescriptionAndTimeline) {
  auto scenario = parse_scenario(R"({
    "description": "two fans",
    "fans": [{"speed": 10}, {"speed": 20}],
    "timeline": [{"at_ms": 500, "patch": {"fans": {"0": {"speed": 0}}}},
                 {"at_ms": 100, "patch": {"inventory": {"fan_count": 1}}},
                 {"at_ms": 500, "patch": {"fans": {"1": {"speed": 0}}}}]
  })");
  ASSERT_TRUE(scenario) << error_text(scenario.error());
  EXPECT_EQ(scenario.value().description, "two fans");
  EXPECT_EQ(scenario.value().model.inventory.fan_count, 2);
  ASSERT_EQ(scenario.value().timeline.size(), 3U);
  EXPECT_EQ(scenario.value().timeline[0].at.count(), 100);
  EXPECT_EQ(scenario.value().timeline[1].patch, Json::parse(R"({"fans": {"0": {"speed": 0}}})"));
  EXPECT_EQ(scenario.value().timeline[2].patch, Json::parse(R"({"fans": {"1": {"speed": 0}}})"));
}

TEST(ScenarioValidation, NotJson) {
  EXPECT_EQ(refusal("{\"fans\": [}"),
            "not valid JSON: [json.exception.parse_error.101] parse error at line 1, column 11: syntax error while "
            "parsing value - unexpected '}'; expected '[', '{', or a literal");
}

TEST(ScenarioValidation, NotAnObject) {
  EXPECT_EQ(refusal("[]"), "a scenario must be a JSON object, not []");
}

TEST(ScenarioValidation, DescriptionMustBeText) {
  EXPECT_EQ(refusal(R"({"description": 5})"), "description: must be a text of at most 1000 characters, not 5");
}

TEST(ScenarioValidation, BadModelFieldIsNamed) {
  EXPECT_EQ(refusal(R"({"fans": [{"speed": 10}, {"speed": 70000}]})"),
            "fans[1].speed: must be an integer from 0 to 65535, not 70000");
}

TEST(ScenarioValidation, TimelineMustBeAList) {
  EXPECT_EQ(refusal(R"({"timeline": {"at_ms": 1}})"), "timeline: must be a list, not {\"at_ms\":1}");
}

TEST(ScenarioValidation, TimelineStepFields) {
  EXPECT_EQ(refusal(R"({"timeline": [{"patch": {}}]})"), "timeline[0].at_ms: is missing");
  EXPECT_EQ(refusal(R"({"timeline": [{"at_ms": 5}]})"), "timeline[0].patch: is missing");
  EXPECT_EQ(refusal(R"({"timeline": [{"at_ms": -1, "patch": {}}]})"),
            "timeline[0].at_ms: must be an integer from 0 to 86400000, not -1");
  EXPECT_EQ(refusal(R"({"timeline": [{"at_ms": 1, "patch": {}, "repeat": true}]})"),
            "timeline[0].repeat: unknown field");
  EXPECT_EQ(refusal(R"({"timeline": [3]})"), "timeline[0]: must be a JSON object, not 3");
}

TEST(ScenarioValidation, TimelinePatchIsCheckedAgainstTheModelItWillMeet) {
  EXPECT_EQ(refusal(R"({"fans": [{}], "timeline": [{"at_ms": 5, "patch": {"fans": {"0": {"speed": "fast"}}}}]})"),
            "timeline[0].patch.fans[0].speed: must be an integer from 0 to 65535, not \"fast\"");
  // The later step (by time) comes first in the file; it needs the list the earlier step leaves.
  EXPECT_EQ(refusal(R"({"fans": [{}, {}], "timeline": [
                 {"at_ms": 50, "patch": {"fans": {"1": {"speed": 1}}}},
                 {"at_ms": 10, "patch": {"fans": [{}]}}]})"),
            "timeline[0].patch.fans[1]: no such element, the list has 1");
  EXPECT_EQ(refusal(R"({"timeline": [{"at_ms": 5, "patch": [1]}]})"),
            "timeline[0].patch: a patch must be a JSON object, not [1]");
}

TEST(LoadScenarioFile, MissingFileIsNamed) {
  auto scenario = load_scenario_file("/nonexistent/board.json");
  ASSERT_FALSE(scenario);
  EXPECT_EQ(error_text(scenario.error()), "cannot read /nonexistent/board.json: No such file or directory");
}

TEST(LoadScenarioFile, DirectoryIsNamed) {
  const auto directory = std::filesystem::temp_directory_path().string();
  auto scenario = load_scenario_file(directory);
  ASSERT_FALSE(scenario);
  EXPECT_EQ(error_text(scenario.error()), "cannot read " + directory + ": Is a directory");
}

TEST(LoadScenarioFile, ExampleScenariosAreValid) {
  for (const char* name : {"board-lt.json", "board-lc.json", "board-fc.json"}) {
    const auto path = std::filesystem::path(XPON_EXAMPLES_DIR) / name;
    auto scenario = load_scenario_file(path.string());
    ASSERT_TRUE(scenario) << name << ": " << error_text(scenario.error());
    EXPECT_FALSE(scenario.value().description.empty()) << name;
    EXPECT_FALSE(scenario.value().timeline.empty()) << name;
  }
}

TEST(LoadScenarioFile, ExampleFamiliesHaveTheirOwnCoolingAndPower) {
  const auto load = [](const char* name) {
    return load_scenario_file((std::filesystem::path(XPON_EXAMPLES_DIR) / name).string()).value().model;
  };
  const BoardModel lt = load("board-lt.json");
  EXPECT_GT(lt.fans.size(), 0U);
  EXPECT_GT(lt.power_supplies.size(), 0U);
  EXPECT_FALSE(lt.fan_module.has_value());
  EXPECT_FALSE(lt.power_module.has_value());
  const BoardModel fc = load("board-fc.json");
  EXPECT_TRUE(fc.fans.empty());
  EXPECT_TRUE(fc.power_supplies.empty());
  EXPECT_TRUE(fc.fan_module.has_value());
  EXPECT_TRUE(fc.power_module.has_value());
  const BoardModel lc = load("board-lc.json");
  EXPECT_TRUE(lc.fans.empty());
  EXPECT_FALSE(lc.fan_module.has_value());
}

}  // namespace
}  // namespace xpon::board_emu
