#include "xpon/core/result.hpp"

#include <gtest/gtest.h>

#include <source_location>
#include <sstream>
#include <string>
#include <string_view>

namespace xpon::core {
namespace {

std::string printed(Error error) {
  std::ostringstream out;
  out << error;
  return out.str();
}

std::string printed(const ErrorPayload& payload) {
  std::ostringstream out;
  out << payload;
  return out.str();
}

TEST(ErrorName, EveryKnownCodePrintsItsName) {
  EXPECT_EQ(printed(Error::NoError), "No error");
  EXPECT_EQ(printed(Error::InvalidInputArg), "InvalidInputArg");
  EXPECT_EQ(printed(Error::CommonError), "CommonError");
  EXPECT_EQ(printed(Error::Exception), "Exception");
  EXPECT_EQ(printed(Error::ErrorCApi), "ErrorCApi");
  EXPECT_EQ(printed(Error::NotImplemented), "NotImplemented");
  EXPECT_EQ(printed(Error::Already), "Already");
  EXPECT_EQ(printed(Error::InvalidState), "InvalidState");
  EXPECT_EQ(printed(Error::Empty), "Empty");
  EXPECT_EQ(printed(Error::Overflow), "Overflow");
}

TEST(ErrorName, CodesOutsideTheTablePrintUnknownError) {
  EXPECT_EQ(printed(static_cast<Error>(10)), "Unknown error");
  EXPECT_EQ(printed(static_cast<Error>(100)), "Unknown error");
  EXPECT_EQ(printed(static_cast<Error>(-1)), "Unknown error");
}

TEST(ErrorName, EnumerationIsThirtyTwoBitSigned) {
  static_assert(sizeof(Error) == 4);
  static_assert(std::is_signed_v<std::underlying_type_t<Error>>);
  EXPECT_EQ(static_cast<int>(Error::Overflow), 9);
}

TEST(ErrorPayloadConstruction, CodeOnlyHasInfoWithoutMessageAndTheCallersLocation) {
  const auto here = std::source_location::current();
  const ErrorPayload payload(Error::CommonError);
  EXPECT_EQ(payload.error, Error::CommonError);
  ASSERT_TRUE(payload.info.has_value());
  EXPECT_FALSE(payload.info->message.has_value());
  EXPECT_EQ(payload.info->location.line(), here.line() + 1);
  EXPECT_STREQ(payload.info->location.file_name(), here.file_name());
}

TEST(ErrorPayloadConstruction, WithMessageCopiesTheMessage) {
  std::string text = "disk gone";
  const ErrorPayload payload(Error::ErrorCApi, text);
  text = "changed";
  ASSERT_TRUE(payload.info.has_value());
  EXPECT_EQ(payload.info->message, "disk gone");
}

TEST(ToString, WithoutMessageGivesTheShortForm) {
  EXPECT_EQ(ErrorPayload(Error::ErrorCApi).to_string(), "Error: ErrorCApi");
}

TEST(ToString, WithMessageAddsItAndAFullStop) {
  EXPECT_EQ(ErrorPayload(Error::ErrorCApi, "some text").to_string(), "Error: ErrorCApi. Message: some text.");
}

TEST(ToString, EmptyMessagePrintsAsNoMessage) {
  EXPECT_EQ(ErrorPayload(Error::CommonError, "").to_string(), "Error: CommonError");
}

TEST(ToString, MissingInfoGivesTheShortForm) {
  ErrorPayload payload(Error::Empty, "ignored");
  payload.info.reset();
  EXPECT_EQ(payload.to_string(), "Error: Empty");
}

TEST(ToString, UnknownCodeUsesUnknownErrorName) {
  EXPECT_EQ(ErrorPayload(static_cast<Error>(100)).to_string(), "Error: Unknown error");
}

// Made at a known place: file "a", line 12, in function f.
ErrorPayload f() {
#line 12 "a"
  return ErrorPayload(Error::ErrorCApi, "x");  // NOLINT(modernize-return-braced-init-list): the place is the point
}
#line 104 "result_test.cpp"

TEST(LongForm, PrintsNameMessageFileLineAndFunction) {
  const ErrorPayload payload = f();
  const std::string function = payload.info->location.function_name();
  EXPECT_NE(function.find("f("), std::string::npos);
  EXPECT_EQ(printed(payload), "[ErrorCApi]: x (a:12): " + function);
}

TEST(LongForm, AbsentMessagePrintsEmpty) {
  ErrorPayload payload(Error::Already);
  payload.info->location = std::source_location{};
  EXPECT_EQ(printed(payload), "[Already]:  (:0): ");
}

TEST(LongFormDeathTest, MissingInfoAborts) {
  ErrorPayload payload(Error::CommonError);
  payload.info.reset();
  EXPECT_DEATH(printed(payload), "without info");
}

Result<int> half(int value) {
  if (value % 2 != 0) {
    return Error::InvalidInputArg;
  }
  return value / 2;
}

TEST(ResultType, HoldsValueOnSuccess) {
  const auto result = half(8);
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(result.value(), 4);
}

TEST(ResultType, MadeFromBareCodeRecordsTheConversionSite) {
  const auto result = half(3);
  ASSERT_TRUE(result.has_error());
  EXPECT_EQ(result.error().error, Error::InvalidInputArg);
  ASSERT_TRUE(result.error().info.has_value());
  EXPECT_FALSE(result.error().info->message.has_value());
  // The payload is made inside the result's converting constructor from the bare code, so the
  // recorded place is that constructor in Outcome, not half() nor this test.
  const auto& where = result.error().info->location;
  const std::string_view file = where.file_name();
  const std::string_view function = where.function_name();
  EXPECT_NE(file.find("boost/outcome/"), std::string_view::npos) << file;
  EXPECT_NE(file, std::string_view(std::source_location::current().file_name()));
  EXPECT_NE(function.find("basic_result_storage"), std::string_view::npos) << function;
  EXPECT_NE(function.find("Args = {xpon::core::Error}"), std::string_view::npos) << function;
  EXPECT_NE(function.find("R = int"), std::string_view::npos) << function;
  EXPECT_GT(where.line(), 0U);
  // Any other conversion of a bare code to the same result type records that very place.
  const Result<int> converted_here = Error::Empty;
  const auto& other = converted_here.error().info->location;
  EXPECT_EQ(other.line(), where.line());
  EXPECT_EQ(std::string_view(other.file_name()), file);
  EXPECT_EQ(std::string_view(other.function_name()), function);
}

TEST(ResultType, MadeFromAPayloadRecordsTheMakersSite) {
  const auto here = std::source_location::current();
  const Result<int> result = ErrorPayload(Error::Empty);
  ASSERT_TRUE(result.has_error());
  const auto& where = result.error().info->location;
  EXPECT_EQ(where.line(), here.line() + 1);
  EXPECT_EQ(std::string_view(where.file_name()), std::string_view(here.file_name()));
  EXPECT_EQ(std::string_view(where.function_name()), std::string_view(here.function_name()));
}

TEST(ResultType, VoidResultSucceedsAndFails) {
  const Result<void> good = success();
  EXPECT_TRUE(good.has_value());
  const Result<void> bad = ErrorPayload(Error::NotImplemented, "not here");
  ASSERT_TRUE(bad.has_error());
  EXPECT_EQ(bad.error().to_string(), "Error: NotImplemented. Message: not here.");
}

TEST(ResultTypeDeathTest, ValueOfAnErrorAborts) {
  const auto result = half(1);
  EXPECT_DEATH((void)result.value(), "value read from a Result that holds an error");
}

TEST(ResultTypeDeathTest, ErrorOfAValueAborts) {
  const auto result = half(2);
  EXPECT_DEATH((void)result.error(), "error read from a Result that holds a value");
}

}  // namespace
}  // namespace xpon::core
