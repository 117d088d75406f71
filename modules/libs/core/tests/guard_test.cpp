#include "xpon/core/guard.hpp"

#include "xpon/test/recording_logger.hpp"

#include <gtest/gtest.h>

#include <cerrno>
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

Result<void> failing_leaf() {
  return ErrorPayload(Error::Overflow, "leaf");
}

Result<void> middle(RecordingLogger& logger) {
  return propagate(logger, failing_leaf());
}

TEST(Propagate, OneLinePerLevelOfTheCallChain) {
  RecordingLogger logger;
  const auto result = propagate(logger, middle(logger));
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::Overflow);
  const auto lines = logger.lines();
  ASSERT_EQ(lines.size(), 4U);  // each propagate logs the error's own line and its caller's
  for (const auto& line : lines) {
    EXPECT_EQ(line.text, "Error: Overflow. Message: leaf.");
  }
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
