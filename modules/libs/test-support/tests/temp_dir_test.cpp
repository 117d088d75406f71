#include "xpon/test/temp_dir.hpp"
#include "xpon/test/process.hpp"
#include "xpon/test/wait.hpp"

#include <sys/wait.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>

namespace xpon::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

TEST(TempDirTest, MakesAFreshDirectoryUnderTheTemporaryFolderAndRemovesItWithItsFiles) {
  std::string path;
  {
    const TempDir dir("temp-dir-test");
    path = dir.path();
    EXPECT_TRUE(fs::is_directory(path));
    EXPECT_EQ(fs::path(path).parent_path(), fs::temp_directory_path());
    EXPECT_EQ(fs::path(path).filename().string().rfind("temp-dir-test-", 0), 0U) << path;
    EXPECT_TRUE(fs::is_empty(path));
    const std::string file = dir.write("note.txt", "hello");
    EXPECT_EQ(file, path + "/note.txt");
    EXPECT_EQ(read_text_file(file), "hello");
  }
  EXPECT_FALSE(fs::exists(path));
}

TEST(TempDirTest, TwoDirectoriesAreDistinct) {
  const TempDir first("temp-dir-test");
  const TempDir second("temp-dir-test");
  EXPECT_NE(first.path(), second.path());
}

TEST(TempDirTest, WritingWhereNoFolderIsThrows) {
  const TempDir dir("temp-dir-test");
  EXPECT_THROW(dir.write("no/such/folder/file", "x"), std::runtime_error);
}

TEST(ScopedEnvTest, SetsThenRestoresAnEarlierValue) {
  ::setenv("XPON_SCOPED_ENV_TEST", "before", 1);
  {
    const ScopedEnv changed("XPON_SCOPED_ENV_TEST", "during");
    EXPECT_STREQ(std::getenv("XPON_SCOPED_ENV_TEST"), "during");
  }
  EXPECT_STREQ(std::getenv("XPON_SCOPED_ENV_TEST"), "before");
  ::unsetenv("XPON_SCOPED_ENV_TEST");
}

TEST(ScopedEnvTest, RemovesThenRestoresAndUnsetsWhatWasNotThere) {
  ::setenv("XPON_SCOPED_ENV_TEST", "before", 1);
  {
    const ScopedEnv removed("XPON_SCOPED_ENV_TEST", std::nullopt);
    EXPECT_EQ(std::getenv("XPON_SCOPED_ENV_TEST"), nullptr);
  }
  EXPECT_STREQ(std::getenv("XPON_SCOPED_ENV_TEST"), "before");
  ::unsetenv("XPON_SCOPED_ENV_TEST");
  {
    const ScopedEnv added("XPON_SCOPED_ENV_TEST", "during");
    EXPECT_STREQ(std::getenv("XPON_SCOPED_ENV_TEST"), "during");
  }
  EXPECT_EQ(std::getenv("XPON_SCOPED_ENV_TEST"), nullptr);
}

TEST(TempRootTest, IsTheProcessRootWhileItLives) {
  const ScopedEnv outer("XPON_ROOT", "/outer");
  std::string path;
  {
    const TempRoot root("temp-root-test");
    path = root.path();
    EXPECT_STREQ(std::getenv("XPON_ROOT"), path.c_str());
    EXPECT_EQ(root.file("dev/board"), path + "/dev/board");
    EXPECT_TRUE(fs::is_directory(path));
  }
  EXPECT_STREQ(std::getenv("XPON_ROOT"), "/outer");
  EXPECT_FALSE(fs::exists(path));
}

TEST(MountTest, TheRootIsAMountPointAndAFreshDirectoryHasNothingMountedInside) {
  EXPECT_TRUE(is_mount_point("/"));
  const TempDir dir("temp-dir-test");
  EXPECT_FALSE(is_mount_point(dir.path()));
  EXPECT_FALSE(has_mount_inside(dir.path()));
  EXPECT_TRUE(has_mount_inside("/"));
}

TEST(WaitUntilTest, ReturnsAsSoonAsThePredicateHolds) {
  std::atomic<bool> flag{false};
  std::thread setter([&] {
    std::this_thread::sleep_for(30ms);
    flag = true;
  });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(wait_until([&] { return flag.load(); }, 10s));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  setter.join();
}

TEST(WaitUntilTest, GivesUpAfterTheTimeout) {
  int checks = 0;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(wait_until(
      [&] {
        ++checks;
        return false;
      },
      50ms));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
  EXPECT_GT(checks, 1);
}

TEST(ProcessWaitTest, WaitsForTheEndAndGivesTheRawStatus) {
  Process process({"/bin/sh", "-c", "sleep 0.05; exit 4"});
  const ProcessEnd end = process.wait();
  EXPECT_TRUE(end.exited_with(4)) << end.describe();
  EXPECT_TRUE(WIFEXITED(end.wait_status));
  EXPECT_EQ(WEXITSTATUS(end.wait_status), 4);
  EXPECT_FALSE(process.running());
}

TEST(ProcessWaitTest, StopGivesTheRawStatusOfTheSignal) {
  Process process({"/bin/sleep", "30"});
  const ProcessEnd end = process.stop(SIGTERM, 5s);
  EXPECT_TRUE(WIFSIGNALED(end.wait_status));
  EXPECT_EQ(WTERMSIG(end.wait_status), SIGTERM);
}

}  // namespace
}  // namespace xpon::test
