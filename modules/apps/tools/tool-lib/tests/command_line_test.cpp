#include "xpon/tool/command_line.hpp"
#include "xpon/tool/console.hpp"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace xpon::tool {
namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStderr;
using ::testing::internal::GetCapturedStdout;

/// Runs a tool named "demo" with one option, --value, whose command is `command`.
int run(std::vector<std::string> words, const std::function<int(const std::string&)>& command) {
  CLI::App app{"A demonstration.", "demo"};
  std::string value;
  app.add_option("--value", value, "Any text");
  words.insert(words.begin(), "demo");
  std::vector<char*> argv;
  argv.reserve(words.size());
  for (auto& word : words) {
    argv.push_back(word.data());
  }
  return run_command_line(app, static_cast<int>(argv.size()), argv.data(), [&] { return command(value); });
}

TEST(ToolCommandLine, RunsTheCommandWithTheParsedOptions) {
  std::string seen;
  EXPECT_EQ(run({"--value", "abc"},
                [&](const std::string& value) {
                  seen = value;
                  return kExitTimeout;
                }),
            kExitTimeout);
  EXPECT_EQ(seen, "abc");
}

TEST(ToolCommandLine, ParseErrorsAreUsageErrorsAndHelpIsNot) {
  bool ran = false;
  const auto command = [&](const std::string&) {
    ran = true;
    return kExitOk;
  };
  CaptureStderr();
  EXPECT_EQ(run({"--unknown"}, command), kExitUsage);
  EXPECT_NE(GetCapturedStderr().find("--unknown"), std::string::npos);
  CaptureStdout();
  EXPECT_EQ(run({"--help"}, command), kExitOk);
  EXPECT_NE(GetCapturedStdout().find("A demonstration."), std::string::npos);
  EXPECT_FALSE(ran);
}

TEST(ToolCommandLine, ExceptionsBecomeAMessageAndAStatus) {
  CaptureStderr();
  EXPECT_EQ(run({}, [](const std::string&) -> int { throw UsageError("--value: 'x' is not a number"); }), kExitUsage);
  EXPECT_EQ(GetCapturedStderr(), "demo: --value: 'x' is not a number\n");
  CaptureStderr();
  EXPECT_EQ(run({}, [](const std::string&) -> int { throw std::runtime_error("no bus"); }), kExitFailed);
  EXPECT_EQ(GetCapturedStderr(), "demo: no bus\n");
}

TEST(ToolCommandLine, BlocksTheStopSignals) {
  sigset_t before;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  block_stop_signals();
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, &before, &after);
  EXPECT_EQ(sigismember(&after, SIGTERM), 1);
  EXPECT_EQ(sigismember(&after, SIGINT), 1);
}

}  // namespace
}  // namespace xpon::tool
