#include "xpon/test/ci_skip.hpp"
#include "xpon/test/fuse.hpp"
#include "xpon/test/temp_dir.hpp"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace xpon::test {
namespace {

// Runs the skip-or-fail check for `reason` with CI set as given (or unset), and collects what it reported.
std::vector<::testing::TestPartResult> outcome_of(const std::string& reason, const std::optional<std::string>& ci) {
  ::testing::TestPartResultArray results;
  {
    const ScopedEnv environment("CI", ci);
    const ::testing::ScopedFakeTestPartResultReporter reporter(
        ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
    [&] { XPON_SKIP_OR_FAIL_IN_CI(reason); }();
  }
  std::vector<::testing::TestPartResult> reported;
  reported.reserve(static_cast<std::size_t>(results.size()));
  for (int i = 0; i < results.size(); ++i) {
    reported.push_back(results.GetTestPartResult(i));
  }
  return reported;
}

TEST(CiSkipTest, SkipsWithTheReasonOutsideCi) {
  for (const auto& ci :
       {std::optional<std::string>(), std::optional<std::string>("false"), std::optional<std::string>("")}) {
    const auto results = outcome_of("FUSE is not usable here", ci);
    ASSERT_EQ(results.size(), 1U) << ci.value_or("(unset)");
    EXPECT_TRUE(results[0].skipped());
    EXPECT_NE(std::string(results[0].message()).find("FUSE is not usable here"), std::string::npos);
  }
}

TEST(CiSkipTest, FailsWithTheReasonInCi) {
  const auto results = outcome_of("FUSE is not usable here", "true");
  ASSERT_EQ(results.size(), 1U);
  EXPECT_TRUE(results[0].fatally_failed());
  EXPECT_NE(std::string(results[0].message()).find("FUSE is not usable here"), std::string::npos);
}

TEST(CiSkipTest, AnEmptyReasonLetsTheTestGoOnEvenInCi) {
  EXPECT_EQ(outcome_of("", "true").size(), 0U);
  EXPECT_EQ(outcome_of("", std::nullopt).size(), 0U);
}

TEST(CiSkipTest, OnlyCiTrueCounts) {
  {
    const ScopedEnv ci("CI", "true");
    EXPECT_TRUE(running_in_ci());
  }
  {
    const ScopedEnv ci("CI", "1");
    EXPECT_FALSE(running_in_ci());
  }
  {
    const ScopedEnv ci("CI", std::nullopt);
    EXPECT_FALSE(running_in_ci());
  }
}

TEST(FuseCheckTest, AMissingDeviceIsNamedWithTheSystemsText) {
  const TempDir dir("fuse-check-test");
  const std::string reason = fuse_unavailable_reason(dir.file("fuse"), "/bin/sh");
  EXPECT_EQ(reason, "FUSE is not usable here (" + dir.file("fuse") +
                        ": No such file or directory), so the board emulator cannot run");
}

TEST(FuseCheckTest, AMissingFusermountIsNamed) {
  const TempDir dir("fuse-check-test");
  const std::string device = dir.write("fuse", "");
  const std::string reason = fuse_unavailable_reason(device, dir.file("fusermount3"));
  EXPECT_EQ(reason, "fusermount3 is not usable here (" + dir.file("fusermount3") +
                        ": No such file or directory), so the board emulator cannot be mounted");
}

TEST(FuseCheckTest, AUsableDeviceAndFusermountGiveNoReason) {
  const TempDir dir("fuse-check-test");
  const std::string device = dir.write("fuse", "");
  EXPECT_EQ(fuse_unavailable_reason(device, "/bin/sh"), "");
}

}  // namespace
}  // namespace xpon::test
