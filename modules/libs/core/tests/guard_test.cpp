#include "xpon/core/guard.hpp"

#include "xpon/test/recording_logger.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <stdexcept>

namespace xpon::core {
namespace {

using test::RecordingLogger;

TEST(GuardedCall, PassesTheResultThrough) {
  RecordingLogger logger;
  const auto result = guarded_call(logger, []() -> Result<int> { return 7; });
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(result.value(), 7);
  EXPECT_TRUE(logger.lines().empty());
}

TEST(GuardedCall, PassesAnErrorThroughWithoutLogging) {
  RecordingLogger logger;
  const auto result = guarded_call(logger, []() -> Result<void> { return Error::Empty; });
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Empty);
  EXPECT_TRUE(logger.lines().empty());
}

TEST(GuardedCall, StdExceptionIsLoggedWithTrailingBlankAndBecomesException) {
  RecordingLogger logger;
  const auto here = std::source_location::current();
  const auto result = guarded_call(logger, []() -> Result<void> { throw std::runtime_error("boom"); });
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Exception);
  const auto lines = logger.lines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].level, 4);
  EXPECT_EQ(lines[0].text, "An std::exception was thrown: boom ");
  EXPECT_EQ(lines[0].line, here.line() + 1);
  EXPECT_EQ(lines[0].file, here.file_name());
}

TEST(GuardedCall, BadOptionalAccessIsAStdException) {
  RecordingLogger logger;
  const std::optional<int> nothing;
  const auto result = guarded_call(logger, [&]() -> Result<int> { return nothing.value(); });
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Exception);
  ASSERT_EQ(logger.lines().size(), 1U);
  EXPECT_EQ(logger.lines()[0].text, "An std::exception was thrown: bad optional access ");
}

TEST(GuardedCall, OtherExceptionIsLoggedWithTrailingBlankAndBecomesException) {
  RecordingLogger logger;
  const auto result = guarded_call(logger, []() -> Result<void> { throw 42; });
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Exception);
  const auto lines = logger.lines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].level, 4);
  EXPECT_EQ(lines[0].text, "An exception was thrown. ");
}

TEST(LogError, LogsOwnLocationThenCallersLocation) {
  RecordingLogger logger;
  const ErrorPayload error(Error::ErrorCApi, "some text");
  const auto caller = std::source_location::current();
  log_error(logger, error);
  const auto lines = logger.lines();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].level, 4);
  EXPECT_EQ(lines[0].text, "Error: ErrorCApi. Message: some text.");
  EXPECT_EQ(lines[0].line, error.info->location.line());
  EXPECT_EQ(lines[1].level, 4);
  EXPECT_EQ(lines[1].text, "Error: ErrorCApi. Message: some text.");
  EXPECT_EQ(lines[1].line, caller.line() + 1);
  EXPECT_NE(lines[0].line, lines[1].line);
}

TEST(LogError, WithoutInfoLogsOnlyTheCallersLine) {
  RecordingLogger logger;
  ErrorPayload error(Error::CommonError);
  error.info.reset();
  log_error(logger, error);
  const auto lines = logger.lines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].text, "Error: CommonError");
}

// The chain f -> g -> h of the logging rule: f makes the error, g and h propagate it.
std::uint_least32_t leaf_line = 0;
std::uint_least32_t middle_line = 0;

Result<void> failing_leaf() {
  leaf_line = std::source_location::current().line() + 1;
  return ErrorPayload(Error::Overflow, "leaf");
}

Result<void> middle(RecordingLogger& logger) {
  middle_line = std::source_location::current().line() + 1;
  return propagate(logger, failing_leaf());
}

TEST(Propagate, OneLinePerLevelOfTheCallChain) {
  RecordingLogger logger;
  const auto here = std::source_location::current();
  const auto result = propagate(logger, middle(logger));
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Overflow);
  ASSERT_TRUE(result.error().info.has_value());
  EXPECT_TRUE(result.error().info->logged);
  const auto lines = logger.lines();
  // The error's own line once, where it is first propagated, then one line per level above it.
  ASSERT_EQ(lines.size(), 3U);
  for (const auto& line : lines) {
    EXPECT_EQ(line.level, 4);
    EXPECT_EQ(line.text, "Error: Overflow. Message: leaf.");
    EXPECT_EQ(line.file, here.file_name());
  }
  EXPECT_EQ(lines[0].line, leaf_line);
  EXPECT_EQ(lines[1].line, middle_line);
  EXPECT_EQ(lines[2].line, here.line() + 1);
}

TEST(Propagate, ACopyOfALoggedErrorKeepsItsOwnLineLogged) {
  RecordingLogger logger;
  ErrorPayload error(Error::Empty);
  log_error(logger, error);
  ASSERT_EQ(logger.lines().size(), 2U);
  const ErrorPayload copy = error;
  const auto here = std::source_location::current();
  log_error(logger, copy);
  const auto lines = logger.lines();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[2].text, "Error: Empty");
  EXPECT_EQ(lines[2].line, here.line() + 1);
}

TEST(LogError, AConstErrorIsNotMarked) {
  RecordingLogger logger;
  const ErrorPayload error(Error::Empty);
  log_error(logger, error);
  log_error(logger, error);
  EXPECT_EQ(logger.lines().size(), 4U);
  EXPECT_FALSE(error.info->logged);
}

TEST(Propagate, SuccessLogsNothing) {
  RecordingLogger logger;
  EXPECT_TRUE(propagate(logger, Result<int>(3)).has_value());
  EXPECT_TRUE(logger.lines().empty());
}

TEST(CheckCApi, ZeroIsSuccess) {
  RecordingLogger logger;
  errno = 5;
  EXPECT_TRUE(check_c_api(logger, 0).has_value());
  EXPECT_TRUE(logger.lines().empty());
  EXPECT_EQ(errno, 5);
  errno = 0;
}

TEST(CheckCApi, NonZeroWithErrnoLogsBothAndResetsErrno) {
  RecordingLogger logger;
  errno = 2;
  const auto result = check_c_api(logger, -1);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  EXPECT_EQ(errno, 0);
  ASSERT_EQ(logger.lines().size(), 1U);
  EXPECT_EQ(logger.lines()[0].level, 4);
  EXPECT_EQ(logger.lines()[0].text, "C API function returned -1, errno=2");
}

TEST(CheckCApi, NonZeroWithoutErrnoLogsTheValueOnly) {
  RecordingLogger logger;
  errno = 0;
  const auto here = std::source_location::current();
  const auto result = check_c_api(logger, 3);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::ErrorCApi);
  ASSERT_EQ(logger.lines().size(), 1U);
  EXPECT_EQ(logger.lines()[0].text, "C API function returned 3");
  EXPECT_EQ(logger.lines()[0].line, here.line() + 1);
}

TEST(LoggerHelpers, FormatAtRecordsTheStatementsLocation) {
  RecordingLogger logger;
  const auto here = std::source_location::current();
  logger.progress("{} create successfully", "SysFunction");
  logger.warning("w{}", 1);
  logger.error("e");
  logger.logf(2, "n{}", 2);
  const auto lines = logger.lines();
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[0].level, 0);
  EXPECT_EQ(lines[0].text, "SysFunction create successfully");
  EXPECT_EQ(lines[0].line, here.line() + 1);
  EXPECT_EQ(lines[1].level, 3);
  EXPECT_EQ(lines[2].level, 4);
  EXPECT_EQ(lines[3].level, 2);
  EXPECT_EQ(lines[3].text, "n2");
}

}  // namespace
}  // namespace xpon::core
