#include "xpon/logger/raw_category.h"
#include "xpon/logger/logger.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <string>

namespace xpon::logger {
namespace {

// Without a logging context lines go to stderr with the default pattern, which starts with a
// timestamp; the rest of the line is fixed.
std::string without_timestamp(const std::string& line) {
  static const std::regex timestamp(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} )");
  std::smatch match;
  if (!std::regex_search(line, match, timestamp)) {
    ADD_FAILURE() << "no timestamp at the start of: " << line;
    return line;
  }
  return match.suffix();
}

TEST(RawCategory, SameNameGivesTheSameHandle) {
  zlog_category_t* first = Logger::get_raw_zlog_category("FACTORY");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(Logger::get_raw_zlog_category("FACTORY"), first);
  EXPECT_NE(Logger::get_raw_zlog_category("SYSTEM-MGR"), first);
}

TEST(RawCategory, RawLogWritesOneLineWithItsSourcePosition) {
  zlog_category_t* category = Logger::get_raw_zlog_category("FACTORY");
  testing::internal::CaptureStderr();
  xpon_raw_log(category, 4, "src/factory.c", 42, "get_factory", "EEPROM image cannot be read");
  const std::string output = testing::internal::GetCapturedStderr();
  EXPECT_EQ(without_timestamp(output), "FACTORY error factory.c:42 EEPROM image cannot be read\n");
}

TEST(RawCategory, NullHandleWritesNothing) {
  testing::internal::CaptureStderr();
  xpon_raw_log(nullptr, 5, "src/factory.c", 42, "get_factory", "lost");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(RawCategory, NullTextWritesNothing) {
  testing::internal::CaptureStderr();
  xpon_raw_log(Logger::get_raw_zlog_category("FACTORY"), 5, "src/factory.c", 42, "get_factory", nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(RawCategory, NullPositionWritesTheLineWithoutLocation) {
  testing::internal::CaptureStderr();
  xpon_raw_log(Logger::get_raw_zlog_category("FACTORY"), 3, nullptr, 7, nullptr, "no position");
  const std::string output = testing::internal::GetCapturedStderr();
  EXPECT_EQ(without_timestamp(output), "FACTORY warning : no position\n");
}

TEST(RawCategory, LevelBelowTheDefaultIsDropped) {
  testing::internal::CaptureStderr();
  xpon_raw_log(Logger::get_raw_zlog_category("FACTORY"), 0, "src/factory.c", 42, "get_factory", "progress");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(LoggerWithoutContext, WritesToStderrAtInfoAndAbove) {
  Logger logger("SYSTEM-MGR");
  testing::internal::CaptureStderr();
  logger.progress("not shown");
  const auto expected_line = __LINE__ + 1;
  logger.error("shown {}", 1);
  const std::string output = testing::internal::GetCapturedStderr();
  EXPECT_EQ(without_timestamp(output),
            "SYSTEM-MGR error raw_category_test.cpp:" + std::to_string(expected_line) + " shown 1\n");
}

}  // namespace
}  // namespace xpon::logger
