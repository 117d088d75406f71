#include "xpon/core/host_path.hpp"

#include <gtest/gtest.h>

#include <cstdlib>

namespace xpon::core {
namespace {

class HostPathEnvironment : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* old = std::getenv("XPON_ROOT");
    had_root_ = old != nullptr;
    if (had_root_) {
      old_root_ = old;
    }
  }
  void TearDown() override {
    if (had_root_) {
      ::setenv("XPON_ROOT", old_root_.c_str(), 1);
    } else {
      ::unsetenv("XPON_ROOT");
    }
  }

 private:
  bool had_root_ = false;
  std::string old_root_;
};

TEST_F(HostPathEnvironment, UnsetRootKeepsTheRealPath) {
  ::unsetenv("XPON_ROOT");
  EXPECT_EQ(host_path("/dev/board"), "/dev/board");
}

TEST_F(HostPathEnvironment, EmptyRootKeepsTheRealPath) {
  ::setenv("XPON_ROOT", "", 1);
  EXPECT_EQ(host_path("/dev/board"), "/dev/board");
}

TEST_F(HostPathEnvironment, RootIsPrependedToFixedPaths) {
  ::setenv("XPON_ROOT", "/tmp/sandbox", 1);
  EXPECT_EQ(host_path("/dev/board"), "/tmp/sandbox/dev/board");
  EXPECT_EQ(host_path("/etc/zlog_modules_config/SYSTEM-MGR.conf"),
            "/tmp/sandbox/etc/zlog_modules_config/SYSTEM-MGR.conf");
}

TEST_F(HostPathEnvironment, ProcPathsAreNeverMoved) {
  ::setenv("XPON_ROOT", "/tmp/sandbox", 1);
  EXPECT_EQ(host_path("/proc/meminfo"), "/proc/meminfo");
  EXPECT_EQ(host_path("/proc"), "/proc");
  EXPECT_EQ(host_path("/process"), "/tmp/sandbox/process");
}

TEST(HostPath, TrailingSlashesOfTheRootAreFolded) {
  EXPECT_EQ(host_path("/var/lib/xpon/cfgdb.sqlite3", "/tmp/r//"), "/tmp/r/var/lib/xpon/cfgdb.sqlite3");
  EXPECT_EQ(host_path("/dev/board", "/"), "/dev/board");
}

TEST(HostPath, RelativePathIsJoinedWithASlash) {
  EXPECT_EQ(host_path("run/xpon", "/tmp/r"), "/tmp/r/run/xpon");
}

}  // namespace
}  // namespace xpon::core
