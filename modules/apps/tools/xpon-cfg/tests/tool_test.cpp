#include "cfg_tool.hpp"
#include "xpon/cfgdb/change_event.hpp"
#include "xpon/cfgdb/store.hpp"
#include "xpon/test/cfgdb_sandbox.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include "xpon/test/recording_ipc.hpp"

#include <sstream>

namespace xpon::cfg_tool {
namespace {

using ::testing::ElementsAreArray;
using ::testing::HasSubstr;

class CfgTool : public xpon::test::CfgDbSandbox {
 protected:
  int run_tool(const std::vector<std::string>& arguments) {
    out_.str("");
    err_.str("");
    return run(arguments, out_, err_, [this]() -> core::Result<std::shared_ptr<ipc::IIpc>> {
      ++endpoints_made_;
      if (endpoint_fails_) {
        return core::ErrorPayload{core::Error::CommonError, "address owned by another endpoint"};
      }
      return std::shared_ptr<ipc::IIpc>(endpoint_, &*endpoint_);
    });
  }

  std::vector<cfgdb::SectionValues> stored() {
    auto store = cfgdb::Store::open(database_file());
    EXPECT_TRUE(store);
    auto all = store.value()->read_all();
    EXPECT_TRUE(all) << (all ? "" : all.error().to_string());
    return all ? all.value() : std::vector<cfgdb::SectionValues>{};
  }

  std::vector<cfgdb::SectionValues> defaults() {
    std::vector<cfgdb::SectionValues> all;
    for (const auto& section : cfgdb::sections()) {
      all.push_back(cfgdb::default_values(section));
    }
    return all;
  }

  std::string write_file(const std::string& name, const std::string& text) {
    std::string path = root_ + "/" + name;
    std::ofstream(path) << text;
    return path;
  }

  // Asserts a refusal: exit 2, the exact message, nothing written and nothing published.
  void expect_refused(const std::vector<std::string>& arguments, const std::string& message) {
    const auto before = stored();
    EXPECT_EQ(run_tool(arguments), kRefused);
    EXPECT_EQ(err_.str(), "xpon-cfg: " + message + "\n");
    EXPECT_EQ(out_.str(), "");
    EXPECT_EQ(stored(), before);
    EXPECT_TRUE(endpoint_->events().empty());
  }

  std::ostringstream out_;
  std::ostringstream err_;
  std::shared_ptr<test::RecordingIpc> endpoint_ = std::make_shared<test::RecordingIpc>(cfgdb::kWriterAddress);
  bool endpoint_fails_ = false;
  int endpoints_made_ = 0;
};

TEST_F(CfgTool, ShowOneSectionByName) {
  EXPECT_EQ(run_tool({"show", "ALARM_SYSTEM_FAN"}), kDone);
  EXPECT_EQ(out_.str(), "ALARM_SYSTEM_FAN (79)\n  upper_speed = 20000\n  lower_speed = 1000\n");
  EXPECT_EQ(err_.str(), "");
}

TEST_F(CfgTool, ShowOneSectionByIdAsJson) {
  EXPECT_EQ(run_tool({"show", "81", "--json"}), kDone);
  EXPECT_EQ(out_.str(),
            "{\n  \"ALARM_SYSTEM_TEMPERATURE\": {\n    \"sensor0_lower\": 0,\n    \"sensor0_upper\": 80,\n"
            "    \"sensor1_lower\": 0,\n    \"sensor1_upper\": 80,\n    \"sensor2_lower\": 0,\n"
            "    \"sensor2_upper\": 80,\n    \"sensor3_lower\": 0,\n    \"sensor3_upper\": 80,\n"
            "    \"sensor4_lower\": 0,\n    \"sensor4_upper\": 80\n  }\n}\n");
}

TEST_F(CfgTool, ShowEverySectionOfAFreshDatabase) {
  EXPECT_EQ(run_tool({"show"}), kDone);
  EXPECT_EQ(out_.str(),
            "FAN (42)\n  mode = 0\n  family = 1\n"
            "ALARM_SYSTEM_RAM (77)\n  threshold = 10\n"
            "ALARM_DISK_SPACE (78)\n  threshold = 10\n"
            "ALARM_SYSTEM_FAN (79)\n  upper_speed = 20000\n  lower_speed = 1000\n"
            "ALARM_SYSTEM_LOAD_AVERAGE (80)\n  threshold = 400\n"
            "ALARM_SYSTEM_TEMPERATURE (81)\n"
            "  sensor0_lower = 0\n  sensor0_upper = 80\n  sensor1_lower = 0\n  sensor1_upper = 80\n"
            "  sensor2_lower = 0\n  sensor2_upper = 80\n  sensor3_lower = 0\n  sensor3_upper = 80\n"
            "  sensor4_lower = 0\n  sensor4_upper = 80\n"
            "ALARM_SYSTEM_PWR_MODULE (123)\n  (no fields)\n");
  EXPECT_EQ(endpoints_made_, 0) << "reading never touches the bus";
}

TEST_F(CfgTool, ShowRefusesAnUnknownSection) {
  expect_refused({"show", "ALARM_SYSTEM_FANS"}, "unknown section 'ALARM_SYSTEM_FANS'");
}

TEST_F(CfgTool, ShowOfAnotherSectionIgnoresAHandEditedValue) {
  stored();
  edit_by_hand("UPDATE field SET value = 'warm' WHERE section_id = 81 AND name = 'sensor1_upper'");
  EXPECT_EQ(run_tool({"show", "FAN"}), kDone);
  EXPECT_EQ(out_.str(), "FAN (42)\n  mode = 0\n  family = 1\n");
  EXPECT_EQ(err_.str(), "");
}

TEST_F(CfgTool, ShowAllListsTheGoodSectionsAndFailsOnAHandEditedValue) {
  stored();
  edit_by_hand("UPDATE field SET value = 'warm' WHERE section_id = 81 AND name = 'sensor1_upper'");
  EXPECT_EQ(run_tool({"show"}), kFailed);
  EXPECT_EQ(err_.str(),
            "xpon-cfg: configuration database /var/lib/xpon/cfgdb.sqlite3: ALARM_SYSTEM_TEMPERATURE: stored "
            "sensor1_upper='warm' is not a whole number\n");
  EXPECT_THAT(out_.str(),
              HasSubstr("ALARM_SYSTEM_LOAD_AVERAGE (80)\n  threshold = 400\nALARM_SYSTEM_PWR_MODULE (123)\n"));
}

TEST_F(CfgTool, ExportPrintsNothingWhenAStoredValueIsBad) {
  stored();
  edit_by_hand("UPDATE field SET value = 70000 WHERE section_id = 79 AND name = 'lower_speed'");
  EXPECT_EQ(run_tool({"export"}), kFailed);
  EXPECT_EQ(out_.str(), "");
  EXPECT_EQ(err_.str(),
            "xpon-cfg: configuration database /var/lib/xpon/cfgdb.sqlite3: ALARM_SYSTEM_FAN: stored "
            "lower_speed=70000 is out of range 0..65535\n");
}

TEST_F(CfgTool, SetWritesAndPublishesTheChangedSection) {
  EXPECT_EQ(run_tool({"set", "alarm_system_temperature", "sensor4_upper=95", "sensor0_lower=0x05"}), kDone);
  EXPECT_EQ(out_.str(), "ALARM_SYSTEM_TEMPERATURE (81): changed\n");
  EXPECT_EQ(err_.str(), "");
  auto expected = defaults();
  expected[5] = {5, 80, 0, 80, 0, 80, 0, 80, 0, 95};
  EXPECT_EQ(stored(), expected);
  ASSERT_EQ(endpoint_->events().size(), 1U);
  const auto event = endpoint_->events()[0];
  EXPECT_EQ(event.group, 11000);
  EXPECT_EQ(event.id, 11001);
  EXPECT_EQ(event.source, 0x0011FFFEU);
  EXPECT_THAT(event.payload, ElementsAreArray<std::uint8_t>({81, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(CfgTool, SetToTheStoredValuesPublishesNothing) {
  EXPECT_EQ(run_tool({"set", "80", "threshold=400"}), kDone);
  EXPECT_EQ(out_.str(), "ALARM_SYSTEM_LOAD_AVERAGE (80): unchanged\n");
  EXPECT_TRUE(endpoint_->events().empty());
  EXPECT_EQ(endpoints_made_, 0);
}

TEST_F(CfgTool, SetRefusesAnUnknownSection) {
  expect_refused({"set", "FANS", "mode=1"}, "unknown section 'FANS'");
}

TEST_F(CfgTool, SetRefusesAnUnknownField) {
  expect_refused({"set", "FAN", "mode=1", "speed=3"}, "FAN: unknown field 'speed'");
}

TEST_F(CfgTool, SetRefusesAnOutOfRangeValue) {
  expect_refused({"set", "ALARM_DISK_SPACE", "threshold=101"},
                 "ALARM_DISK_SPACE: threshold=101 is out of range 0..100");
}

TEST_F(CfgTool, SetRefusesAMalformedValue) {
  expect_refused({"set", "ALARM_SYSTEM_RAM", "threshold=ten"}, "ALARM_SYSTEM_RAM: threshold='ten' is not a number");
  expect_refused({"set", "ALARM_SYSTEM_RAM", "threshold=-3"}, "ALARM_SYSTEM_RAM: threshold='-3' is not a number");
  expect_refused({"set", "ALARM_SYSTEM_RAM", "threshold="}, "ALARM_SYSTEM_RAM: threshold='' is not a number");
}

TEST_F(CfgTool, SetRefusesAnAssignmentWithoutEquals) {
  expect_refused({"set", "ALARM_SYSTEM_RAM", "threshold"}, "ALARM_SYSTEM_RAM: 'threshold' is not field=value");
}

TEST_F(CfgTool, SetRefusesAFieldGivenTwice) {
  expect_refused({"set", "FAN", "mode=1", "mode=0"}, "FAN: mode is given twice");
}

TEST_F(CfgTool, SetRefusesNothingToSet) {
  expect_refused({"set", "FAN"}, "FAN: nothing to set; give field=value");
}

TEST_F(CfgTool, SetRefusesLimitsInTheWrongOrder) {
  expect_refused({"set", "ALARM_SYSTEM_FAN", "lower_speed=25000"},
                 "ALARM_SYSTEM_FAN: lower_speed=25000 must be below upper_speed=20000");
}

TEST_F(CfgTool, OneBadAssignmentRefusesTheGoodOnesToo) {
  expect_refused({"set", "ALARM_SYSTEM_TEMPERATURE", "sensor0_upper=90", "sensor1_upper=200"},
                 "ALARM_SYSTEM_TEMPERATURE: sensor1_upper=200 is out of range 0..127");
}

TEST_F(CfgTool, SetCanMoveBothLimitsAtOnce) {
  EXPECT_EQ(run_tool({"set", "79", "lower_speed=25000", "upper_speed=30000"}), kDone);
  auto expected = defaults();
  expected[3] = {30000, 25000};
  EXPECT_EQ(stored(), expected);
}

TEST_F(CfgTool, SetRepairsAHandEditedValue) {
  stored();
  edit_by_hand("UPDATE field SET value = 1000 WHERE section_id = 77");
  EXPECT_EQ(run_tool({"set", "77", "threshold=12"}), kDone);
  EXPECT_EQ(stored()[1], cfgdb::SectionValues{12});
}

TEST_F(CfgTool, ResetOneSectionPublishesOnlyIt) {
  ASSERT_EQ(run_tool({"set", "FAN", "mode=1"}), kDone);
  ASSERT_EQ(run_tool({"set", "ALARM_SYSTEM_RAM", "threshold=30"}), kDone);
  endpoint_->clear_sent();
  EXPECT_EQ(run_tool({"reset", "42"}), kDone);
  EXPECT_EQ(out_.str(), "FAN (42): changed\n");
  auto expected = defaults();
  expected[1] = {30};
  EXPECT_EQ(stored(), expected);
  ASSERT_EQ(endpoint_->events().size(), 1U);
  EXPECT_THAT(endpoint_->events()[0].payload, ElementsAreArray<std::uint8_t>({42, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(CfgTool, ResetAllListsEverySectionAndPublishesTheChangedOnesInOneEvent) {
  ASSERT_EQ(run_tool({"set", "ALARM_SYSTEM_LOAD_AVERAGE", "threshold=900"}), kDone);
  ASSERT_EQ(run_tool({"set", "ALARM_SYSTEM_RAM", "threshold=30"}), kDone);
  endpoint_->clear_sent();
  EXPECT_EQ(run_tool({"reset"}), kDone);
  EXPECT_EQ(out_.str(),
            "FAN (42): unchanged\nALARM_SYSTEM_RAM (77): changed\nALARM_DISK_SPACE (78): unchanged\n"
            "ALARM_SYSTEM_FAN (79): unchanged\nALARM_SYSTEM_LOAD_AVERAGE (80): changed\n"
            "ALARM_SYSTEM_TEMPERATURE (81): unchanged\nALARM_SYSTEM_PWR_MODULE (123): unchanged\n");
  EXPECT_EQ(stored(), defaults());
  ASSERT_EQ(endpoint_->events().size(), 1U);
  EXPECT_THAT(endpoint_->events()[0].payload, ElementsAreArray<std::uint8_t>({77, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0,  //
                                                                              80, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(CfgTool, ResetRefusesAnUnknownSection) {
  expect_refused({"reset", "124"}, "unknown section '124'");
}

TEST_F(CfgTool, ExportThenImportRestoresEveryValue) {
  ASSERT_EQ(run_tool({"set", "ALARM_SYSTEM_FAN", "upper_speed=18000", "lower_speed=900"}), kDone);
  ASSERT_EQ(run_tool({"set", "FAN", "family=2"}), kDone);
  ASSERT_EQ(run_tool({"export"}), kDone);
  const std::string exported = out_.str();
  const auto saved = stored();
  ASSERT_EQ(run_tool({"reset"}), kDone);
  ASSERT_EQ(stored(), defaults());
  endpoint_->clear_sent();
  const auto file = write_file("saved.json", exported);
  EXPECT_EQ(run_tool({"import", file}), kDone);
  EXPECT_EQ(stored(), saved);
  ASSERT_EQ(endpoint_->events().size(), 1U);
  EXPECT_THAT(endpoint_->events()[0].payload, ElementsAreArray<std::uint8_t>({42, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0,  //
                                                                              79, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(CfgTool, ImportTakesASubsetBySectionIdOrName) {
  const auto file = write_file("part.json", R"({"78": {"threshold": 5}, "alarm_system_ram": {"threshold": 7}})");
  EXPECT_EQ(run_tool({"import", file}), kDone);
  EXPECT_EQ(out_.str(), "ALARM_DISK_SPACE (78): changed\nALARM_SYSTEM_RAM (77): changed\n");
  auto expected = defaults();
  expected[1] = {7};
  expected[2] = {5};
  EXPECT_EQ(stored(), expected);
}

TEST_F(CfgTool, ImportIsAllOrNothing) {
  const auto file = write_file("bad.json", R"({"ALARM_SYSTEM_RAM": {"threshold": 50},
      "ALARM_SYSTEM_LOAD_AVERAGE": {"threshold": 300},
      "ALARM_SYSTEM_TEMPERATURE": {"sensor2_lower": 90}})");
  expect_refused({"import", file}, "ALARM_SYSTEM_TEMPERATURE: sensor2_lower=90 must be below sensor2_upper=80");
}

TEST_F(CfgTool, ImportRefusesAnUnknownSection) {
  expect_refused({"import", write_file("a.json", R"({"FAN": {"mode": 1}, "CPU": {}})")}, "unknown section 'CPU'");
}

TEST_F(CfgTool, ImportRefusesAnUnknownField) {
  expect_refused({"import", write_file("a.json", R"({"FAN": {"mode": 1, "speed": 2}})")}, "FAN: unknown field 'speed'");
}

TEST_F(CfgTool, ImportRefusesOutOfRangeValues) {
  expect_refused({"import", write_file("a.json", R"({"FAN": {"family": 3}})")}, "FAN: family=3 is out of range 0..2");
  expect_refused({"import", write_file("b.json", R"({"FAN": {"family": -1}})")}, "FAN: family=-1 is out of range 0..2");
  expect_refused({"import", write_file("c.json", R"({"ALARM_SYSTEM_FAN": {"upper_speed": 18446744073709551615}})")},
                 "ALARM_SYSTEM_FAN: upper_speed=18446744073709551615 is out of range 0..65535");
}

TEST_F(CfgTool, ImportRefusesValuesThatAreNotWholeNumbers) {
  expect_refused({"import", write_file("a.json", R"({"FAN": {"mode": "1"}})")}, "FAN: mode=\"1\" is not a number");
  expect_refused({"import", write_file("b.json", R"({"FAN": {"mode": 0.5}})")}, "FAN: mode=0.5 is not a number");
  expect_refused({"import", write_file("c.json", R"({"FAN": {"mode": null}})")}, "FAN: mode=null is not a number");
}

TEST_F(CfgTool, ImportRefusesASectionGivenTwice) {
  expect_refused({"import", write_file("a.json", R"({"FAN": {"mode": 1}, "42": {"family": 0}})")},
                 "FAN: section given twice");
}

TEST_F(CfgTool, ImportRefusesDocumentsOfTheWrongShape) {
  const auto list = write_file("list.json", "[1, 2]");
  expect_refused({"import", list}, list + ": the top level must be an object of sections");
  expect_refused({"import", write_file("flat.json", R"({"FAN": 1})")}, "FAN: must be an object of fields");
}

TEST_F(CfgTool, ImportRefusesMalformedJson) {
  const auto file = write_file("broken.json", R"({"FAN": {"mode": 1})");
  expect_refused({"import", file},
                 file +
                     ": not valid JSON: [json.exception.parse_error.101] parse error at line 1, column 20: syntax "
                     "error while parsing object - unexpected end of input; expected '}'");
}

TEST_F(CfgTool, ImportRefusesAMissingFile) {
  expect_refused({"import", root_ + "/none.json"}, "cannot read " + root_ + "/none.json: No such file or directory");
}

TEST_F(CfgTool, UsageErrorsAreRefusals) {
  EXPECT_EQ(run_tool({}), kRefused);
  EXPECT_EQ(err_.str(), "xpon-cfg: A subcommand is required\nRun with --help for more information.\n");
  EXPECT_EQ(run_tool({"set"}), kRefused);
  EXPECT_EQ(err_.str(), "xpon-cfg: SECTION is required\nRun with --help for more information.\n");
  EXPECT_EQ(run_tool({"frobnicate"}), kRefused);
  EXPECT_EQ(run_tool({"show", "FAN", "--yaml"}), kRefused);
}

TEST_F(CfgTool, HelpListsSectionsFieldsRangesAndDefaults) {
  EXPECT_EQ(run_tool({"--help"}), kDone);
  EXPECT_THAT(out_.str(), HasSubstr("Usage: xpon-cfg [OPTIONS] SUBCOMMAND"));
  EXPECT_THAT(out_.str(), HasSubstr("  ALARM_SYSTEM_FAN            79  fan speed alarm"));
  EXPECT_THAT(out_.str(), HasSubstr("      lower_speed     0..65535 rpm, default 1000\n"));
  EXPECT_THAT(out_.str(), HasSubstr("      sensor4_upper   0..127 C, default 80\n"));
  EXPECT_EQ(err_.str(), "");
}

TEST_F(CfgTool, AChangeThatCannotBeAnnouncedIsSavedAndReportedAsFailure) {
  endpoint_fails_ = true;
  EXPECT_EQ(run_tool({"set", "FAN", "mode=1"}), kFailed);
  EXPECT_EQ(out_.str(), "FAN (42): changed\n");
  EXPECT_EQ(err_.str(),
            "xpon-cfg: the change is saved but IPC_EVENT_CFGDB__SECTIONS_CHANGED was not published: address owned "
            "by another endpoint\n");
  EXPECT_EQ(stored()[0], (cfgdb::SectionValues{1, 1}));
}

TEST_F(CfgTool, AFailedSendIsReportedAsFailure) {
  endpoint_->fail_next_send();
  EXPECT_EQ(run_tool({"set", "FAN", "mode=1"}), kFailed);
  EXPECT_EQ(err_.str(),
            "xpon-cfg: the change is saved but IPC_EVENT_CFGDB__SECTIONS_CHANGED was not published: injected "
            "failure\n");
}

}  // namespace
}  // namespace xpon::cfg_tool
