#include "xpon/test/process.hpp"
#include "xpon/test/sandbox.hpp"

#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace xpon::test {
namespace {

using namespace std::chrono_literals;

TEST(ProcessTest, ReportsTheExitStatusAndCapturesBothOutputs) {
  const ProgramRun run = run_program({"/bin/sh", "-c", "echo out; echo err >&2; exit 3"});
  ASSERT_TRUE(run.end.has_value());
  EXPECT_TRUE(run.end->exited_with(3)) << run.end->describe();
  EXPECT_EQ(run.output, "out\n");
  EXPECT_EQ(run.errors, "err\n");
}

TEST(ProcessTest, SetsReplacesAndRemovesEnvironmentEntries) {
  ::setenv("XPON_PROCESS_TEST_KEPT", "kept", 1);
  ::setenv("XPON_PROCESS_TEST_GONE", "inherited", 1);
  ::setenv("XPON_PROCESS_TEST_NEW", "inherited", 1);
  const ProgramRun run = run_program(
      {"/bin/sh", "-c", "echo \"$XPON_PROCESS_TEST_KEPT/${XPON_PROCESS_TEST_GONE-unset}/$XPON_PROCESS_TEST_NEW\""},
      {"XPON_PROCESS_TEST_GONE", "XPON_PROCESS_TEST_NEW=given"});
  EXPECT_EQ(run.output, "kept/unset/given\n");
}

TEST(ProcessTest, ReportsTheSignalThatEndedTheChild) {
  Process process({"/bin/sleep", "30"}, {});
  EXPECT_TRUE(process.running());
  EXPECT_FALSE(process.wait(20ms).has_value());
  const ProcessEnd end = process.stop(SIGTERM, 5s);
  EXPECT_TRUE(end.signaled);
  EXPECT_EQ(end.value, SIGTERM);
  EXPECT_EQ(end.describe(), "signal 15");
  EXPECT_FALSE(process.running());
  EXPECT_FALSE(process.signal(SIGTERM));
}

TEST(ProcessTest, KillsAStuckProgramAfterTheTimeOut) {
  const ProgramRun run = run_program({"/bin/sleep", "30"}, {}, 50ms);
  EXPECT_FALSE(run.end.has_value());
}

TEST(ProcessTest, SetsTheOpenFileLimitOfTheChildOnly) {
  const std::string output = ::testing::TempDir() + "/process_test_limit.out";
  Process process({"/bin/sh", "-c", "ulimit -Sn; ulimit -Hn"}, {}, output, {}, ChildLimits{256});
  EXPECT_TRUE(process.wait().exited_with(0));
  EXPECT_EQ(read_text_file(output), "256\n256\n");
  EXPECT_NE(run_program({"/bin/sh", "-c", "ulimit -Hn"}).output, "256\n");  // the caller's is left alone
}

TEST(ProcessTest, AProgramThatCannotBeStartedThrows) {
  EXPECT_THROW(Process({"/nonexistent/program"}, {}), std::runtime_error);
  EXPECT_THROW(Process({}, {}), std::runtime_error);
}

TEST(SandboxTest, MakesTheSystemFoldersAndRemovesThemAfterwards) {
  std::string root;
  {
    const Sandbox sandbox;
    root = sandbox.root();
    EXPECT_TRUE(std::filesystem::is_directory(sandbox.path("/run/xpon/ipc")));
    EXPECT_TRUE(std::filesystem::is_directory(sandbox.path("/etc/zlog_modules_config")));
    EXPECT_TRUE(std::filesystem::is_directory(sandbox.path("/sys/bus/nvmem/devices/device-eeprom0")));
    EXPECT_TRUE(std::filesystem::is_directory(sandbox.path("/var/lib/xpon")));
    EXPECT_EQ(sandbox.environment_entry(), "XPON_ROOT=" + root);
    EXPECT_FALSE(is_mount_point(sandbox.path("/dev")));
  }
  EXPECT_FALSE(std::filesystem::exists(root));
}

TEST(SandboxTest, MakesTheWatchedPartitionsAsFoldersThatStatvfsReaches) {
  const Sandbox sandbox;
  for (const char* partition :
       {"/boot", "/data", "/configuration", "/firmware/primary_firmware", "/firmware/secondary_firmware"}) {
    EXPECT_TRUE(std::filesystem::is_directory(sandbox.path(partition))) << partition;
    struct statvfs stats {};
    EXPECT_EQ(::statvfs(sandbox.path(partition).c_str(), &stats), 0) << partition;
    EXPECT_GT(stats.f_blocks, 0U) << partition;
  }
}

TEST(SandboxTest, SeesTheRootFileSystemAsAMountPoint) {
  EXPECT_TRUE(is_mount_point("/"));
}

}  // namespace
}  // namespace xpon::test
