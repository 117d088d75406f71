#include "xpon/cfgdb/schema.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

namespace xpon::cfgdb {
namespace {

std::string operator_guide() {
  std::ifstream in(XPON_CONFIGURATION_GUIDE);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string bytes_cell(const FieldSpec& field) {
  return field.width == 1 ? fmt::format("{}", field.offset)
                          : fmt::format("{}-{}", field.offset, field.offset + field.width - 1);
}

// The operator guide must describe exactly what the section table declares.
TEST(CfgdbGuide, ListsEverySectionAndFieldWithItsRangeDefaultAndBytes) {
  const std::string guide = operator_guide();
  ASSERT_FALSE(guide.empty()) << "cannot read " << XPON_CONFIGURATION_GUIDE;
  for (const auto& section : sections()) {
    const std::string heading = fmt::format("\n### {} ({})\n", section.name, section.id);
    const auto start = guide.find(heading);
    ASSERT_NE(start, std::string::npos) << heading;
    const auto end = guide.find("\n#", start + heading.size());
    const std::string body = guide.substr(start, end == std::string::npos ? std::string::npos : end - start);
    EXPECT_NE(body.find(fmt::format("{}-byte record", section.record_size)), std::string::npos) << section.name;
    for (const auto& field : section.fields) {
      const std::string row =
          fmt::format("| `{}` | {}..{} | {}| {} | {} |", field.name, field.min, field.max,
                      field.unit.empty() ? "" : std::string(field.unit) + " ", field.default_value, bytes_cell(field));
      EXPECT_NE(body.find(row), std::string::npos) << "missing row: " << row;
    }
  }
}

}  // namespace
}  // namespace xpon::cfgdb
