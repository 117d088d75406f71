#include "xpon/board_emu/model.hpp"

#include <gtest/gtest.h>

#include <string>

namespace xpon::board_emu {
namespace {

BoardModel small_board() {
  auto model = model_from_json(Json::parse(R"({
    "inventory": {"cpld_version": 3},
    "fans": [{"speed": 100}, {"speed": 101}, {"speed": 102}],
    "sensors": [{"temperature": 40}, {"temperature": 41}],
    "pon_ports": [{"present": true, "state": 1}, {"present": false}]
  })"));
  EXPECT_TRUE(model);
  return model.value();
}

std::string refusal(const BoardModel& model, const std::string& patch) {
  auto patched = apply_patch(model, Json::parse(patch));
  return patched ? std::string("accepted") : error_text(patched.error());
}

TEST(ApplyPatch, InventoryPatchChangesOnlyThatValue) {
  const BoardModel before = small_board();
  auto after = apply_patch(before, Json::parse(R"({"inventory": {"fan_count": 5}})"));
  ASSERT_TRUE(after);
  EXPECT_EQ(after.value().inventory.fan_count, 5);
  EXPECT_EQ(after.value().inventory.cpld_version, 3);
  EXPECT_EQ(after.value().inventory.temp_count, 2);
  EXPECT_EQ(after.value().fans.size(), 3U);
}

TEST(ApplyPatch, ElementIndexPatchesOneListElement) {
  auto after = apply_patch(small_board(), Json::parse(R"({"fans": {"1": {"fault": true, "speed": 0}}})"));
  ASSERT_TRUE(after);
  EXPECT_EQ(after.value().fans[0].speed, 100);
  EXPECT_TRUE(after.value().fans[1].fault);
  EXPECT_EQ(after.value().fans[1].speed, 0);
  EXPECT_TRUE(after.value().fans[1].present);
  EXPECT_EQ(after.value().fans[2].speed, 102);
}

TEST(ApplyPatch, ArrayReplacesTheWholeListButNotTheInventory) {
  auto after = apply_patch(small_board(), Json::parse(R"({"fans": [{"speed": 7}]})"));
  ASSERT_TRUE(after);
  ASSERT_EQ(after.value().fans.size(), 1U);
  EXPECT_EQ(after.value().fans[0].speed, 7);
  EXPECT_EQ(after.value().inventory.fan_count, 3);
}

TEST(ApplyPatch, NullRemovesAMemberBackToItsDefault) {
  auto with_module = apply_patch(small_board(), Json::parse(R"({"fan_module": {"fan_speeds": [1, 2]}})"));
  ASSERT_TRUE(with_module);
  ASSERT_TRUE(with_module.value().fan_module.has_value());
  EXPECT_TRUE(with_module.value().fan_module->present);
  auto without = apply_patch(with_module.value(), Json::parse(R"({"fan_module": null})"));
  ASSERT_TRUE(without);
  EXPECT_FALSE(without.value().fan_module.has_value());
}

TEST(ApplyPatch, FaultIsAddedAndClearedByPatches) {
  auto faulty =
      apply_patch(small_board(), Json::parse(R"({"faults": {"BOARD_GET_FAN_INFO": {"errno": "EIO", "count": 2}}})"));
  ASSERT_TRUE(faulty);
  ASSERT_EQ(faulty.value().faults.count("BOARD_GET_FAN_INFO"), 1U);
  auto cleared = apply_patch(faulty.value(), Json::parse(R"({"faults": {"BOARD_GET_FAN_INFO": null}})"));
  ASSERT_TRUE(cleared);
  EXPECT_TRUE(cleared.value().faults.empty());
}

TEST(ApplyPatch, EmptyPatchChangesNothing) {
  const BoardModel before = small_board();
  auto after = apply_patch(before, Json::object());
  ASSERT_TRUE(after);
  EXPECT_EQ(model_to_json(after.value()), model_to_json(before));
}

TEST(PatchValidation, PatchMustBeAnObject) {
  EXPECT_EQ(refusal(small_board(), "[1]"), "a patch must be a JSON object, not [1]");
}

TEST(PatchValidation, BadValueNamesTheField) {
  EXPECT_EQ(refusal(small_board(), R"({"fans": {"2": {"speed": -1}}})"),
            "fans[2].speed: must be an integer from 0 to 65535, not -1");
  EXPECT_EQ(refusal(small_board(), R"({"inventory": {"fan_count": "many"}})"),
            "inventory.fan_count: must be an integer from 0 to 255, not \"many\"");
}

TEST(PatchValidation, UnknownFieldIsRefused) {
  EXPECT_EQ(refusal(small_board(), R"({"inventory": {"fan_total": 1}})"), "inventory.fan_total: unknown field");
}

TEST(PatchValidation, ElementIndexOutsideTheList) {
  EXPECT_EQ(refusal(small_board(), R"({"fans": {"3": {"speed": 1}}})"), "fans[3]: no such element, the list has 3");
}

TEST(PatchValidation, ListPatchedWithANonIndexKey) {
  EXPECT_EQ(refusal(small_board(), R"({"fans": {"speed": 1}})"),
            "fans.speed: a list is patched with a whole list or with element indexes such as \"0\"");
}

TEST(PatchValidation, ListElementCannotBeRemoved) {
  EXPECT_EQ(refusal(small_board(), R"({"pon_ports": {"1": null}})"),
            "pon_ports[1]: a list element cannot be removed; write the whole list instead");
}

TEST(PatchValidation, BasePathPrefixesTheField) {
  auto patched =
      apply_patch(small_board(), Json::parse(R"({"sensors": {"0": {"temperature": 300}}})"), "timeline[2].patch");
  ASSERT_FALSE(patched);
  EXPECT_EQ(error_text(patched.error()),
            "timeline[2].patch.sensors[0].temperature: must be an integer from -128 to 127, not 300");
}

TEST(PatchValidation, RefusedPatchLeavesTheSourceModelAlone) {
  const BoardModel before = small_board();
  const Json document = model_to_json(before);
  EXPECT_NE(refusal(before, R"({"fans": {"0": {"speed": 5}}, "inventory": {"fan_count": 999}})"), "accepted");
  EXPECT_EQ(model_to_json(before), document);
}

}  // namespace
}  // namespace xpon::board_emu
