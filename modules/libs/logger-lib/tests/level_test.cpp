#include "xpon/logger/level.hpp"

#include "xpon/logger/ilogger.hpp"

#include <gtest/gtest.h>
#include <syslog.h>

namespace xpon::logger {
namespace {

TEST(LevelMapping, ProgressIsDebug) {
  EXPECT_EQ(backend_level(0), spdlog::level::debug);
}

TEST(LevelMapping, OneAndTwoAreInfo) {
  EXPECT_EQ(backend_level(1), spdlog::level::info);
  EXPECT_EQ(backend_level(2), spdlog::level::info);
}

TEST(LevelMapping, ThreeIsWarn) {
  EXPECT_EQ(backend_level(3), spdlog::level::warn);
}

TEST(LevelMapping, FourIsError) {
  EXPECT_EQ(backend_level(4), spdlog::level::err);
}

TEST(LevelMapping, FiveIsCritical) {
  EXPECT_EQ(backend_level(5), spdlog::level::critical);
}

TEST(LevelMapping, NamedLevelsMatchTheirNumbers) {
  EXPECT_EQ(backend_level(kProgress), spdlog::level::debug);
  EXPECT_EQ(backend_level(kWarning), spdlog::level::warn);
  EXPECT_EQ(backend_level(kError), spdlog::level::err);
}

TEST(LevelMapping, OutOfRangeLevelsAreClamped) {
  EXPECT_EQ(backend_level(-1), spdlog::level::debug);
  EXPECT_EQ(backend_level(-2147483647 - 1), spdlog::level::debug);
  EXPECT_EQ(backend_level(6), spdlog::level::critical);
  EXPECT_EQ(backend_level(2147483647), spdlog::level::critical);
}

TEST(JournalPriority, FollowsSyslogSeverities) {
  EXPECT_EQ(journal_priority(spdlog::level::trace), LOG_DEBUG);
  EXPECT_EQ(journal_priority(spdlog::level::debug), LOG_DEBUG);
  EXPECT_EQ(journal_priority(spdlog::level::info), LOG_INFO);
  EXPECT_EQ(journal_priority(spdlog::level::warn), LOG_WARNING);
  EXPECT_EQ(journal_priority(spdlog::level::err), LOG_ERR);
  EXPECT_EQ(journal_priority(spdlog::level::critical), LOG_CRIT);
}

}  // namespace
}  // namespace xpon::logger
